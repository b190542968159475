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
/* add-enterprise, delete-enterprise, set-category, delete-category and
 * set-action, by argv[0]. */
int hubconf_model_edit(int argc, char **argv);
int hubconf_test(int argc, char **argv);

/* What a raw reading of a configuration file found. */
struct lint_findings {
  int warnings;
  int replaced_formats; /* texts the compiler replaces by "Format string too long" */
  int comments;         /* comment lines that the writer does not write */
};

/* Reads `file` as text and reports on `report` (NULL: nowhere), as
 * FILE:LINE: warning: ..., each line the library reads without an error but
 * otherwise than it looks.  Fills *findings when not NULL.  Returns the
 * number of warnings. */
int hubconf_lint(const char *file, FILE *report, struct lint_findings *findings);

/* The same warnings for one value about to be set: the format text
 * `format`, or when that is NULL the generic number.  `what` opens each
 * warning.  Returns the number of warnings. */
int hubconf_lint_value(const char *what, int generic, const char *format, FILE *report);
int hubconf_match(int argc, char **argv);
int hubconf_import_mib(int argc, char **argv);

/* An edit of the model: 0 done, 1 failure (reported), 2 bad usage, or
 * HUBCONF_UNCHANGED when there is nothing to write.  Sets *alerts_changed
 * when the alert mapping file must be rewritten. */
#define HUBCONF_UNCHANGED 3
typedef int (*edit_fn)(const void *request, int *alerts_changed);

/* How an edit cycle ends: `force` rewrites a file whose long formats the
 * library has replaced; `dry_run` prints the change as a unified diff and
 * writes nothing. */
struct edit_options {
  int force, dry_run;
};

/* One edit cycle: lock hubd.conf, read it, run `edit`, write the file back
 * and, under the same lock, the alert mapping file, then send the change
 * notice.  When the edit changes nothing, the file is neither written nor
 * announced.  Returns the exit status. */
int hubconf_edit_cycle(edit_fn edit, const void *request, const struct edit_options *options);

/* Reads an edit command's leading --force and --dry-run into *options.
 * Returns the number of arguments after them (the last ones of argv), or
 * 0 after printing `usage` for --help, or -2 after printing it for an
 * unknown option or no arguments. */
int hubconf_edit_args(int argc, char **argv, const char *usage, struct edit_options *options);

/* Prints `file`'s difference from `changed` as a unified diff (diff -u)
 * naming both `file`.  0, or 1 when diff could not run (reported). */
int hubconf_show_diff(const char *file, const char *changed);

#endif
