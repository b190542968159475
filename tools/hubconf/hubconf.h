/* hubconf's subcommands.  Each takes the arguments that follow its name
 * (argv[0] is the subcommand's name) and returns the exit status: 0 done,
 * 1 failure, 2 bad usage. */
#ifndef HUBCONF_HUBCONF_H_
#define HUBCONF_HUBCONF_H_

#include <stdio.h>

int hubconf_check(int argc, char **argv);
int hubconf_list(int argc, char **argv);
int hubconf_show(int argc, char **argv);
int hubconf_set(int argc, char **argv);
int hubconf_delete(int argc, char **argv);
int hubconf_delete_action(int argc, char **argv);

/* Reads `file` as text and reports on `report`, as FILE:LINE: warning: ...,
 * each line the library reads without an error but otherwise than it
 * looks.  Returns the number of warnings. */
int hubconf_lint(const char *file, FILE *report);
int hubconf_match(int argc, char **argv);

#endif
