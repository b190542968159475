/* What every tool says the same way: its version line and a one-line usage
 * error.  C and C++ tools share it.
 *
 * cli_init records the program's name (the last component of argv[0]),
 * which every message then starts with. */
#ifndef TOOLS_CLI_H
#define TOOLS_CLI_H

#ifdef __cplusplus
extern "C" {
#endif

void cli_init(const char *argv0);

/* The name cli_init recorded ("tool" before it is called). */
const char *cli_name(void);

/* Prints "NAME (libevents) VERSION" on standard output. */
void cli_print_version(void);

/* "NAME: MESSAGE" and "Try 'NAME --help' for more information." on standard
 * error, then exit status 2. */
__attribute__((noreturn, format(printf, 1, 2))) void cli_usage_error(const char *fmt, ...);

#ifdef __cplusplus
}
#endif

#endif
