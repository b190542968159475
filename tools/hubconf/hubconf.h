/* hubconf's subcommands.  Each takes the arguments that follow its name
 * (argv[0] is the subcommand's name) and returns the exit status: 0 done,
 * 1 failure, 2 bad usage. */
#ifndef HUBCONF_HUBCONF_H_
#define HUBCONF_HUBCONF_H_

int hubconf_check(int argc, char **argv);

/* Reads `file` as text and reports on standard error, as FILE:LINE:
 * warning: ..., what the library would read without an error but not as
 * written most likely meant.  Returns the number of warnings. */
int hubconf_lint(const char *file);

#endif
