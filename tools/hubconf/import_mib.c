/* hubconf import-mib: trap formats, OID names and MIB labels from MIB
 * modules.
 *
 * The modules are read first, so that one that does not parse leaves
 * everything as it was.  Then one edit cycle adds or replaces a format for
 * every TRAP-TYPE and NOTIFICATION-TYPE; a format that already reads as
 * the module would make it is left alone, so a second import of the same
 * modules writes nothing and announces nothing.  SMIv2 notifications are
 * placed as an SNMPv1 agent would send them: the enterprise is the
 * identifier without its last arc (and without a 0 before it), the
 * specific number is the last arc, and snmpTraps' six become generic 0 to
 * 5.  The comment hints --#SUMMARY, --#ARGUMENTS, --#SEVERITY and
 * --#CATEGORY that vendors put in their modules for trap converters are
 * read from the module files, since the parser drops comments. */
#define _GNU_SOURCE
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "hubconf.h"
#include "mib_reader.h"
#include "mib_text.h"
#include "oidtree.h"
#include "trapspec_writer.h"
#include "trp_format.h"

#define MAX_ARCS 128
#define SEVERITY_COUNT 6

static const unsigned int snmp_traps[] = {1, 3, 6, 1, 6, 3, 1, 1, 5};
#define SNMP_TRAPS_ARCS (sizeof snmp_traps / sizeof snmp_traps[0])

/* The modules read, their hints sorted by name, and the defaults. */
struct import_request {
  struct mib_contents contents;
  struct hints *hints;
  size_t hint_count;
  const char *category, *severity;
  int default_category, default_severity;
};

static int compare_hints(const void *a, const void *b) {
  return strcmp(((const struct hints *)a)->name, ((const struct hints *)b)->name);
}

static const struct hints *hints_of(const struct import_request *request, const char *name) {
  struct hints key;
  key.name = (char *)name;
  if (request->hint_count == 0) return NULL;
  return bsearch(&key, request->hints, request->hint_count, sizeof key, compare_hints);
}

static void load_hints(struct import_request *request) {
  size_t i, j;
  for (i = 0; i < request->contents.notification_count; ++i) {
    const char *file = request->contents.notifications[i].file;
    for (j = 0; j < i && strcmp(request->contents.notifications[j].file, file) != 0; ++j) continue;
    if (j == i) {
      FILE *fp = fopen(file, "r");
      if (fp == NULL) continue;
      mib_read_hints(fp, &request->hints, &request->hint_count);
      fclose(fp);
    }
  }
  if (request->hint_count > 0)
    qsort(request->hints, request->hint_count, sizeof *request->hints, compare_hints);
}

/* ---- the edit ---- */

static int category_named(const char *name) {
  int slot;
  for (slot = 0; slot < EMS_MAX_CATEGORIES; ++slot)
    if (EMScategories[slot] != NULL && strcasecmp(EMScategories[slot], name) == 0) return slot;
  return -1;
}

static int severity_named(const char *name) {
  int i;
  char *end;
  long number = strtol(name, &end, 10);
  if (end != name && *end == '\0' && number >= 0 && number < SEVERITY_COUNT) return (int)number;
  for (i = 0; i < SEVERITY_COUNT; ++i)
    if (strcasecmp(name, severityToString(i)) == 0) return i;
  return -1;
}

/* The enterprise of these arcs, added under `label` when it is new.  The
 * label is made unique among the enterprises' names. */
static enterprise_info *enterprise_for(unsigned int *arcs, unsigned long length,
                                       const char *label) {
  enterprise_info *found = NULL;
  char name[TRAP_NAME_SIZE + 16];
  const char *base = label[0] != '\0' ? label : "enterprise";
  int suffix = 0;
  find_enterprise(arcs, length, &found);
  if (found != NULL && found->oid_len == length) return found;
  snprintf(name, sizeof name, "%.*s", TRAP_NAME_SIZE - 1, base);
  while (name_to_enterprise(name, &found) == 0)
    snprintf(name, sizeof name, "%.*s_%d", TRAP_NAME_SIZE - 8, base, ++suffix);
  insert_enterprise(arcs, length, name);
  find_enterprise(arcs, length, &found);
  return found;
}

static int same_text(const char *a, const char *b) {
  return strcmp(a != NULL ? a : "", b != NULL ? b : "") == 0;
}

/* 0 unchanged, 1 added or replaced, -1 skipped (reported). */
static int import_one(const struct import_request *request,
                      const struct mib_notification *notification) {
  unsigned int arcs[MAX_ARCS + 1];
  unsigned long length = 0;
  int generic = 6, specific, category = request->default_category;
  int severity = request->default_severity;
  const struct hints *hints = hints_of(request, notification->name);
  enterprise_info *enterprise;
  trap_record *existing;
  char name[TRAP_NAME_SIZE], *format, *description;
  const char *dot;
  size_t dots = 0;

  /* cname_to_oid writes as many arcs as the text holds. */
  for (dot = strchr(notification->oid, '.'); dot != NULL; dot = strchr(dot + 1, '.')) ++dots;
  if (dots >= MAX_ARCS || cname_to_oid(notification->oid, arcs, &length) != 0 || length < 2 ||
      length > MAX_ARCS) {
    fprintf(stderr, "hubconf import-mib: %s: identifier %s left out\n", notification->name,
            notification->oid);
    return -1;
  }
  specific = (int)arcs[--length];
  if (length == SNMP_TRAPS_ARCS && memcmp(arcs, snmp_traps, sizeof snmp_traps) == 0 &&
      specific >= 1 && specific <= 6) {
    generic = specific - 1;
    specific = 0;
  } else if (length > 1 && arcs[length - 1] == 0) {
    --length;
  }
  if (hints != NULL && hints->category != NULL) {
    int hinted = category_named(hints->category);
    if (hinted >= 0)
      category = hinted;
    else
      fprintf(stderr, "hubconf import-mib: %s: category \"%s\" is not defined; using \"%s\"\n",
              notification->name, hints->category, EMScategories[category]);
  }
  if (hints != NULL && hints->severity != NULL) {
    int hinted = severity_named(hints->severity);
    if (hinted >= 0)
      severity = hinted;
    else
      fprintf(stderr, "hubconf import-mib: %s: severity \"%s\" is unknown; using %s\n",
              notification->name, hints->severity, severityToString(severity));
  }
  enterprise = enterprise_for(arcs, length, notification->enterprise_label);
  if (enterprise == NULL) return -1;
  format = mib_format_line(notification, hints);
  description = mib_description_block(notification->description);
  existing = findExactTrapRecord(enterprise, generic, specific, NULL);
  snprintf(name, sizeof name, "%s", notification->name);
  if (existing != NULL) {
    trap_record *holder = nameToExactTrap(name);
    /* Keep the name the format has when the module's is another's. */
    if (holder != NULL && holder != existing) snprintf(name, sizeof name, "%s", existing->name);
    if (strcmp(existing->name, name) == 0 && same_text(existing->description.rawstring, format) &&
        same_text(existing->trapDescription, description) &&
        existing->category_number == category && existing->severity == severity) {
      doFree(format);
      doFree(description);
      return 0;
    }
  }
  insertMallocTrapRecord(enterprise, name, generic, specific, 0, NULL, category,
                         existing != NULL ? (unsigned char)existing->source : 'A', format, NULL,
                         NULL, description, severity, existing != NULL ? existing->status : 0,
                         existing != NULL ? existing->forward : 0, NULL, 0, NULL, NULL);
  return 1;
}

static int apply_import(const void *data, int *alerts_changed) {
  struct import_request *request = (struct import_request *)data;
  size_t i, changed = 0, skipped = 0;
  (void)alerts_changed;
  request->default_category = category_named(request->category);
  if (request->default_category < 0) {
    fprintf(stderr, "hubconf import-mib: no display category \"%s\" is defined\n",
            request->category);
    return 1;
  }
  request->default_severity = severity_named(request->severity);
  for (i = 0; i < request->contents.notification_count; ++i) {
    int result = import_one(request, &request->contents.notifications[i]);
    if (result > 0) ++changed;
    if (result < 0) ++skipped;
  }
  printf("hubconf: %zu trap formats added or replaced, %zu unchanged%s\n", changed,
         request->contents.notification_count - changed - skipped,
         skipped > 0 ? ", some left out" : "");
  return changed > 0 ? 0 : HUBCONF_UNCHANGED;
}

/* ---- outputs ---- */

/* Writes a file through a temporary beside it, so that a reader never
 * sees half of it. */
static int write_names(const char *path, const struct mib_label *labels, size_t count,
                       int mapping_syntax) {
  char *temporary = NULL;
  size_t i;
  int ok;
  FILE *fp;
  if (asprintf(&temporary, "%s.tmp", path) < 0) return 0;
  fp = fopen(temporary, "w");
  if (fp == NULL) {
    perror(temporary);
    free(temporary);
    return 0;
  }
  if (mapping_syntax) {
    fputs("# OID names from MIB modules, written by hubconf import-mib.\n\"iso\"=1\n", fp);
    for (i = 0; i < count; ++i)
      if (strncmp(labels[i].oid, "1.", 2) == 0 && strlen(labels[i].label) < OID_MAPPING_SIZE &&
          strpbrk(labels[i].label, "\"\\") == NULL)
        fprintf(fp, "${iso}%s=\"%s\"\n", labels[i].oid + 1, labels[i].label);
  } else {
    fputs("# MIB labels from MIB modules, written by hubconf import-mib.\n", fp);
    for (i = 0; i < count; ++i) fprintf(fp, "%s %s\n", labels[i].oid, labels[i].label);
  }
  ok = !ferror(fp);
  if (fclose(fp) != 0) ok = 0;
  if (ok && rename(temporary, path) != 0) ok = 0;
  if (!ok) {
    perror(path);
    remove(temporary);
  } else {
    printf("hubconf: %s written\n", path);
  }
  free(temporary);
  return ok;
}

/* ---- command line ---- */

static void import_usage(FILE *out) {
  fputs(
      "usage: hubconf import-mib [OPTION]... MODULE-OR-FILE...\n"
      "  Adds or replaces a trap format for every TRAP-TYPE and NOTIFICATION-TYPE\n"
      "  of the modules, named or given as files.\n"
      "  -M, --mibdir DIR        look for modules in DIR (repeatable; default\n"
      "                          /usr/share/snmp/mibs)\n"
      "  -c, --category NAME     category of formats without a --#CATEGORY hint\n"
      "                          (default \"Status Events\")\n"
      "  -S, --severity N|NAME   severity of formats without a --#SEVERITY hint\n"
      "                          (default 1, Indeterminate)\n"
      "      --names FILE        write the OID names of the modules' notifications,\n"
      "                          objects and enumerated values to FILE\n"
      "      --labels FILE       write the MIB labels of every node read to FILE\n",
      out);
}

enum { OPT_NAMES = 256, OPT_LABELS };

int hubconf_import_mib(int argc, char **argv) {
  static const struct option options[] = {{"mibdir", required_argument, NULL, 'M'},
                                          {"category", required_argument, NULL, 'c'},
                                          {"severity", required_argument, NULL, 'S'},
                                          {"names", required_argument, NULL, OPT_NAMES},
                                          {"labels", required_argument, NULL, OPT_LABELS},
                                          {"help", no_argument, NULL, 'h'},
                                          {NULL, 0, NULL, 0}};
  struct import_request request;
  const char **dirs = doMalloc((unsigned)(sizeof(char *) * (unsigned)argc));
  const char *names = NULL, *labels = NULL;
  size_t dir_count = 0;
  int option, status = 2;
  memset(&request, 0, sizeof request);
  request.category = "Status Events";
  request.severity = "1";
  optind = 1;
  while ((option = getopt_long(argc, argv, "M:c:S:h", options, NULL)) != -1) {
    switch (option) {
      case 'M':
        dirs[dir_count++] = optarg;
        break;
      case 'c':
        request.category = optarg;
        break;
      case 'S':
        request.severity = optarg;
        if (severity_named(optarg) < 0) {
          fprintf(stderr, "hubconf import-mib: bad severity \"%s\"\n", optarg);
          goto done;
        }
        break;
      case OPT_NAMES:
        names = optarg;
        break;
      case OPT_LABELS:
        labels = optarg;
        break;
      case 'h':
        import_usage(stdout);
        status = 0;
        goto done;
      default:
        import_usage(stderr);
        goto done;
    }
  }
  if (optind >= argc) {
    import_usage(stderr);
    goto done;
  }
  if (mib_read(dirs, dir_count, (const char *const *)argv + optind, (size_t)(argc - optind),
               &request.contents, stderr) != 0) {
    fputs("hubconf import-mib: nothing changed\n", stderr);
    status = 1;
    goto done;
  }
  load_hints(&request);
  status = request.contents.notification_count > 0 ? hubconf_edit_cycle(apply_import, &request) : 0;
  if (request.contents.notification_count == 0) puts("hubconf: no notifications in the modules");
  if (status == 0 && names != NULL &&
      !write_names(names, request.contents.names, request.contents.name_count, 1))
    status = 1;
  if (status == 0 && labels != NULL &&
      !write_names(labels, request.contents.labels, request.contents.label_count, 0))
    status = 1;
  mib_free_hints(request.hints, request.hint_count);
  mib_contents_free(&request.contents);
done:
  doFree(dirs);
  return status;
}
