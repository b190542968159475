/* hubconf check: reads a trap configuration file the way the library reads it.
 *
 *   hubconf check [--strict] [FILE]
 *
 * Reads FILE (default: $KZHUBDCONF, else <configuration directory>/C/
 * hubd.conf) with read_trapspec_file.  On success prints what was loaded:
 * the display categories, the operator actions, each enterprise with its
 * number of trap formats, and the totals; exit status 0.  On failure prints
 * the library's error as FILE:LINE: message, so that editors can jump to
 * it, and exits with 1; a usage error exits with 2.  Warnings about lines
 * the library reads otherwise than they look go to standard error too;
 * --strict makes them a failure.
 * After a good read it also reports the alert mapping file ($VORAD_CONF,
 * else vorad.conf in the configuration directory): how many formats it
 * maps, or its error (exit status 1); a missing alert file is not an
 * error. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "alert_mapping.h"
#include "hubconf.h"
#include "trp_format.h"

static void usage(FILE *out) {
  fputs(
      "usage: hubconf check [--strict] [FILE]\n"
      "  Reads a trap configuration (default: $KZHUBDCONF, else the configuration\n"
      "  directory's C/hubd.conf) and prints a summary, or the first error found.\n"
      "  Warns about lines that read otherwise than they look; --strict fails on them.\n",
      out);
}

static void print_oid(const ObjectIdEMS *oid, unsigned long length) {
  unsigned long i;
  for (i = 0; i < length; ++i) printf(".%u", (unsigned)oid[i]);
}

static int count_formats(const enterprise_info *enterprise, int *with_nodes) {
  int count = 0;
  const trap_record *record;
  for (record = enterprise->trap_rec_list_head.next; record != NULL; record = record->next) {
    ++count;
    if (record->nodeCnt > 0) ++*with_nodes;
  }
  return count;
}

static void print_summary(const char *file) {
  int slot, i, categories = 0, enterprises = 0, formats = 0, with_nodes = 0;
  const enterprise_info *enterprise;

  printf("%s: configuration read without errors\n\n", file);
  printf("display categories:\n");
  for (slot = 0; slot < EMS_MAX_CATEGORIES; ++slot) {
    if (EMScategories[slot] == NULL) continue;
    printf("  %2d  %s\n", slot, EMScategories[slot]);
    ++categories;
  }
  printf("\noperator actions:\n");
  for (i = 0; i < numActionCommands; ++i) {
    printf("  %-24s wait %4lds  %s\n", actionCommands[i].name, (long)actionCommands[i].waitTime,
           actionCommands[i].cmd);
  }
  if (numActionCommands == 0) printf("  (none)\n");
  printf("\nenterprises (most specific first):\n");
  for (enterprise = enterprise_list_head.next; enterprise != NULL; enterprise = enterprise->next) {
    int count = count_formats(enterprise, &with_nodes);
    printf("  %-24s ", enterprise->enterprise_name);
    print_oid(enterprise->enterprise_oid, enterprise->oid_len);
    printf("  %d trap format%s\n", count, count == 1 ? "" : "s");
    ++enterprises;
    formats += count;
  }
  printf("\n%d categories, %d actions, %d enterprises, %d trap formats (%d limited to nodes)\n",
         categories, numActionCommands, enterprises, formats, with_nodes);
}

/* Prints the library's error text as FILE:LINE: message, then the
 * offending line; a text without line information as FILE: message. */
static void print_error(const char *file, const char *error) {
  const char *where = strstr(error, " in line #");
  const char *rest;
  char *end;
  long line = where != NULL ? strtol(where + strlen(" in line #"), &end, 10) : 0;
  if (line <= 0) {
    fprintf(stderr, "%s: %s", file, error);
    if (error[strlen(error) - 1] != '\n') fputc('\n', stderr);
    return;
  }
  fprintf(stderr, "%s:%ld: %.*s\n", file, line, (int)(where - error), error);
  /* Then the line itself, without the full stop the library ends it with. */
  rest = strstr(end, ":\n");
  if (rest != NULL && rest[2] != '\0') {
    int length = (int)strlen(rest + 2);
    if (length >= 2 && strcmp(rest + 2 + length - 2, ".\n") == 0) length -= 2;
    fprintf(stderr, "  %.*s\n", length, rest + 2);
  }
}

/* The reader keeps the alert mapping file's error after a good read of the
 * configuration.  A missing file only means that no trap raises an alert. */
static int report_alert_file(const char *error) {
  FILE *fp = NULL;
  char *path = NULL;
  int mapped = 0;
  const enterprise_info *enterprise;
  const trap_record *record;
  if (error[0] != '\0') {
    if (open_vora_lock_file("r", &fp, &path) == -1 && errno == ENOENT) {
      printf("no alert mapping file (%s)\n", path);
      return 0;
    }
    if (fp != NULL) fclose(fp);
    fprintf(stderr, "hubconf: alert mapping file: %s", error);
    return 1;
  }
  for (enterprise = enterprise_list_head.next; enterprise != NULL; enterprise = enterprise->next)
    for (record = enterprise->trap_rec_list_head.next; record != NULL; record = record->next)
      mapped += record->alert_element != NULL;
  printf("%d trap format%s mapped to alerts\n", mapped, mapped == 1 ? "" : "s");
  return 0;
}

int hubconf_check(int argc, char **argv) {
  char *error = NULL;
  const char *file;
  struct stat info;
  int strict = 0, warnings;

  if (argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
    usage(stdout);
    return 0;
  }
  if (argc >= 2 && strcmp(argv[1], "--strict") == 0) {
    strict = 1;
    --argc;
    ++argv;
  }
  if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
    usage(stderr);
    return 2;
  }
  if (argc == 2) setHubdConfFile(argv[1]);
  file = getHubdConfFile();

  /* A directory or a FIFO is refused before anything opens it: opening a
   * FIFO would wait for a writer. */
  if (stat(file, &info) != 0) {
    fprintf(stderr, "%s: %s\n", file, strerror(errno));
    return 1;
  }
  if (!S_ISREG(info.st_mode)) {
    fprintf(stderr, "%s: %s\n", file,
            S_ISDIR(info.st_mode) ? "is a directory" : "is not a regular file");
    return 1;
  }
  warnings = hubconf_lint(file, stderr, NULL);
  if (read_trapspec_file(&error) != 0) {
    if (error != NULL && error[0] != '\0') {
      print_error(file, error);
    } else {
      /* The one failure the reader reports without a text of its own. */
      fprintf(stderr,
              "%s: a slot mapping is invalid: every line between %s and %s\n"
              "must be \"name value\" with a blank between them, at most 100 lines per trap\n",
              file, smapKeyword, emapKeyword);
    }
    return 1;
  }
  print_summary(file);
  if (strict && warnings > 0) {
    fprintf(stderr, "%s: %d warning%s, and --strict was given\n", file, warnings,
            warnings == 1 ? "" : "s");
    return 1;
  }
  return report_alert_file(error);
}
