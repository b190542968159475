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
int hubconf_import_mib(int argc, char **argv);

/* An edit of the model: 0 done, 1 failure (reported), 2 bad usage, or
 * HUBCONF_UNCHANGED when there is nothing to write.  Sets *alerts_changed
 * when the alert mapping file must be rewritten. */
#define HUBCONF_UNCHANGED 3
typedef int (*edit_fn)(const void *request, int *alerts_changed);

/* One edit cycle: lock hubd.conf, read it, run `edit`, write the file back
 * and send the change notice.  When the edit changes nothing, the file is
 * neither written nor announced.  Returns the exit status. */
int hubconf_edit_cycle(edit_fn edit, const void *request);

#endif
