/* hubconf: the operator's command line for the trap configuration.
 *
 *   hubconf COMMAND [ARGS]...
 *
 * Each command lives in a file of its own; this one only dispatches. */
#include <stdio.h>
#include <string.h>

#include "../cli.h"
#include "../config_files.h"
#include "hubconf.h"

static const struct {
  const char *name;
  int (*run)(int argc, char **argv);
  const char *summary;
} commands[] = {
    {"check", hubconf_check, "read a configuration and print a summary or its first error"},
    {"list", hubconf_list, "list every trap format"},
    {"show", hubconf_show, "print every field of one trap format and its alert mapping"},
    {"set", hubconf_set, "add a trap format or change one"},
    {"delete", hubconf_delete, "remove a trap format"},
    {"delete-action", hubconf_delete_action, "remove an operator action"},
    {"set-action", hubconf_model_edit, "add an operator action or change one"},
    {"add-enterprise", hubconf_model_edit, "add an enterprise or rename one"},
    {"delete-enterprise", hubconf_model_edit, "remove an enterprise without trap formats"},
    {"set-category", hubconf_model_edit, "name a display category"},
    {"delete-category", hubconf_model_edit, "remove a display category no format uses"},
    {"test", hubconf_test, "show a trap as the event display would, offline"},
    {"match", hubconf_match, "show which format a trap would get, and why"},
    {"import-mib", hubconf_import_mib, "add the trap formats of MIB modules"},
};

static void usage(FILE *out) {
  size_t i;
  fputs("usage: hubconf COMMAND [ARGS]...\n"
        "       hubconf --version\n"
        "  COMMAND --help describes one command; --verbose anywhere lists the\n"
        "  configuration files the command used.\n\ncommands:\n",
        out);
  for (i = 0; i < sizeof commands / sizeof commands[0]; ++i)
    fprintf(out, "  %-17s %s\n", commands[i].name, commands[i].summary);
}

/* Takes --verbose out of the arguments (up to a "--"); returns whether it
 * was there. */
static int take_verbose(int *argc, char **argv) {
  int i, kept = 0, found = 0, options = 1;
  for (i = 0; i < *argc; ++i) {
    if (options && strcmp(argv[i], "--") == 0) options = 0;
    if (options && strcmp(argv[i], "--verbose") == 0)
      found = 1;
    else
      argv[kept++] = argv[i];
  }
  *argc = kept;
  argv[kept] = NULL;
  return found;
}

int main(int argc, char **argv) {
  size_t i;
  int verbose = take_verbose(&argc, argv);
  cli_init(argv[0]);
  if (argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
    usage(stdout);
    return 0;
  }
  if (argc == 2 && (strcmp(argv[1], "--version") == 0 || strcmp(argv[1], "-V") == 0)) {
    cli_print_version();
    return 0;
  }
  if (argc < 2) cli_usage_error("a command is required");
  for (i = 0; i < sizeof commands / sizeof commands[0]; ++i) {
    if (strcmp(argv[1], commands[i].name) == 0) {
      /* --verbose: once the command is done, which files it used. */
      int status = commands[i].run(argc - 1, argv + 1);
      if (verbose) config_report(stderr);
      return status;
    }
  }
  cli_usage_error("unknown command %s", argv[1]);
}
