/* hubconf list and hubconf show: the trap formats of the configuration.
 *
 *   hubconf list          one line per trap format
 *   hubconf show NAME     every field of one format, with its alert mapping
 *
 * Both read $KZHUBDCONF (else the configuration directory's C/hubd.conf)
 * and the alert mapping file without locking anything. */
#include <stdio.h>
#include <string.h>

#include "alert_mapping.h"
#include "hubconf.h"
#include "trapspec_writer.h"
#include "trp_format.h"

static int wants_help(int argc, char **argv) {
  return argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0);
}

/* Reads the configuration; prints the reader's error and returns 1 on
 * failure.  An alert mapping that could not be read is mentioned. */
static int read_configuration(void) {
  char *error = NULL;
  trpFormatExpandSourceFiles = 0; /* node lists are shown as written */
  if (read_trapspec_file(&error) != 0) {
    fprintf(stderr, "hubconf: %s: %s", getHubdConfFile(), error);
    return 1;
  }
  if (error[0] != '\0') fprintf(stderr, "hubconf: alert mappings not shown: %s", error);
  return 0;
}

static const char *category_of(const trap_record *record) {
  int n = record->category_number;
  return n >= 0 && n < EMS_MAX_CATEGORIES && EMScategories[n] != NULL ? EMScategories[n] : "?";
}

int hubconf_list(int argc, char **argv) {
  const enterprise_info *e;
  const trap_record *r;
  if (wants_help(argc, argv)) {
    fputs(
        "usage: hubconf list\n  Lists every trap format: name, enterprise, generic/specific,"
        " severity,\n  category, and whether it is limited to nodes or mapped to an alert.\n",
        stdout);
    return 0;
  }
  if (argc != 1) {
    fputs("usage: hubconf list\n", stderr);
    return 2;
  }
  if (read_configuration() != 0) return 1;
  for (e = enterprise_list_head.next; e != NULL; e = e->next)
    for (r = e->trap_rec_list_head.next; r != NULL; r = r->next)
      printf("%-28s %-22s %3d/%-9d %-13s %s%s%s\n", r->name, e->enterprise_name, r->generic_trap,
             r->specific_trap, severityToString(r->severity), category_of(r),
             r->nodeCnt > 0 ? "  [nodes]" : "", r->alert_element != NULL ? "  [alert]" : "");
  return 0;
}

static void print_lines(const char *label, const char *text) {
  const char *line = text;
  printf("%-13s", label);
  while (*line != '\0') {
    const char *end = strchr(line, '\n');
    int length = end != NULL ? (int)(end - line) : (int)strlen(line);
    printf("%s%.*s\n", line == text ? "" : "             ", length, line);
    line += length + (end != NULL);
  }
  if (text[0] == '\0') printf("\n");
}

static const char *raw(const trap_element *element) {
  return element != NULL && element->rawstring != NULL ? element->rawstring : "";
}

static void show_record(const enterprise_info *e, trap_record *r) {
  int i;
  printf("%-13s%s\n", "name:", r->name);
  printf("%-13s%s {%s}\n", "enterprise:", e->enterprise_name,
         oid_to_string(e->enterprise_oid, e->oid_len));
  printf("%-13s%d\n%-13s%d\n", "generic:", r->generic_trap, "specific:", r->specific_trap);
  printf("%-13s%c\n", "source:", r->source);
  printf("%-13s%d (%s)\n", "severity:", r->severity, severityToString(r->severity));
  printf("%-13s%d\n", "status:", r->status);
  printf("%-13s%d \"%s\"\n", "category:", r->category_number, category_of(r));
  printf("%-13s%s\n", "format:", raw(&r->description));
  printf("%-13s%s\n", "exec:", raw(r->execargs_ptr));
  printf("%-13s%s\n", "display:", raw(r->exec_display_args_ptr));
  printf("%-13s%s\n", "forward:", r->forward ? "yes" : "no");
  printf("%-13s", "nodes:");
  for (i = 0; i < r->nodeCnt; ++i) printf("%s%s", i > 0 ? " " : "", r->nodeList[i]);
  printf("%s\n", r->nodeCnt == 0 ? "(every node)" : "");
  printf("%-13s%s\n", "event class:", r->wbxClassName != NULL ? r->wbxClassName : "");
  for (i = 0; r->slotMap != NULL && i < r->slotMap->slotCnt; ++i)
    printf("%-13s%s %s\n", i == 0 ? "slots:" : "", r->slotMap->slotName[i], r->slotMap->slotVal[i]);
  print_lines("description:", r->trapDescription != NULL ? r->trapDescription : "");
  if (r->alert_element == NULL) {
    printf("%-13s(none)\n", "alert:");
    return;
  }
  printf("alert:\n");
  print_vora_rec(stdout, r, e->enterprise_oid, (int)e->oid_len);
}

int hubconf_show(int argc, char **argv) {
  trap_record *record;
  enterprise_info *enterprise;
  if (wants_help(argc, argv)) {
    fputs(
        "usage: hubconf show NAME\n  Prints every field of the trap format NAME, its node "
        "list and its alert\n  mapping (as the alert mapping file writes it).\n",
        stdout);
    return 0;
  }
  if (argc != 2) {
    fputs("usage: hubconf show NAME\n", stderr);
    return 2;
  }
  if (read_configuration() != 0) return 1;
  if (nameToTrapAndEnterprise(argv[1], &record, &enterprise) != 0) {
    fprintf(stderr, "hubconf: no trap format is named \"%s\"\n", argv[1]);
    return 1;
  }
  show_record(enterprise, record);
  return 0;
}
