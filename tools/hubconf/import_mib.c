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
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

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
  int replace;
  struct edit_options options;
};

/* What import_one did with a notification. */
enum import_result { SKIPPED = -1, UNCHANGED, ADDED, REPLACED, KEPT };

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

/* Skipped notifications and kept formats are reported. */
static enum import_result import_one(const struct import_request *request,
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
    return SKIPPED;
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
  if (enterprise == NULL) return SKIPPED;
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
      return UNCHANGED;
    }
    if (!request->replace) {
      printf("hubconf import-mib: kept %s as it is; the module's %s differs\n", existing->name,
             notification->name);
      doFree(format);
      doFree(description);
      return KEPT;
    }
  }
  insertMallocTrapRecord(enterprise, name, generic, specific, 0, NULL, category,
                         existing != NULL ? (unsigned char)existing->source : 'A', format, NULL,
                         NULL, description, severity, existing != NULL ? existing->status : 0,
                         existing != NULL ? existing->forward : 0, NULL, 0, NULL, NULL);
  return existing != NULL ? REPLACED : ADDED;
}

static int apply_import(const void *data, int *alerts_changed) {
  struct import_request *request = (struct import_request *)data;
  size_t i, count[KEPT + 1] = {0}, skipped = 0;
  (void)alerts_changed;
  request->default_category = category_named(request->category);
  if (request->default_category < 0) {
    fprintf(stderr, "hubconf import-mib: no display category \"%s\" is defined\n",
            request->category);
    return 1;
  }
  request->default_severity = severity_named(request->severity);
  for (i = 0; i < request->contents.notification_count; ++i) {
    enum import_result result = import_one(request, &request->contents.notifications[i]);
    if (result == SKIPPED)
      ++skipped;
    else
      ++count[result];
  }
  printf("hubconf: %zu trap formats added, %zu replaced, %zu unchanged, %zu kept as they "
         "were%s%s\n",
         count[ADDED], count[REPLACED], count[UNCHANGED], count[KEPT],
         count[KEPT] > 0 ? " (--replace replaces them)" : "", skipped > 0 ? ", some left out" : "");
  return count[ADDED] + count[REPLACED] > 0 ? 0 : HUBCONF_UNCHANGED;
}

/* ---- outputs ---- */

/* The key of an OID names or MIB labels line: what comes before "=" in
 * the one, the first word of the other; NULL for a comment or blank line. */
static char *line_key(const char *line, int mapping_syntax) {
  size_t length;
  line += strspn(line, " \t");
  if (*line == '#' || *line == '\0' || *line == '\n') return NULL;
  length = mapping_syntax ? strcspn(line, "=\n") : strcspn(line, " \t\n");
  return strndup(line, length);
}

static int compare_keys(const void *a, const void *b) {
  return strcmp(*(char *const *)a, *(char *const *)b);
}

/* The modules' entries as lines, with their keys sorted for lookup. */
struct entries {
  char **lines, **keys;
  size_t count;
};

static void add_entry(struct entries *entries, char *line, int mapping_syntax) {
  entries->lines = realloc(entries->lines, sizeof(char *) * (entries->count + 1));
  entries->keys = realloc(entries->keys, sizeof(char *) * (entries->count + 1));
  if (entries->lines == NULL || entries->keys == NULL) abort();
  entries->lines[entries->count] = line;
  entries->keys[entries->count++] = line_key(line, mapping_syntax);
}

static void module_entries(const struct mib_label *labels, size_t count, int mapping_syntax,
                           struct entries *entries) {
  size_t i;
  char *line;
  memset(entries, 0, sizeof *entries);
  if (mapping_syntax && asprintf(&line, "\"iso\"=1\n") >= 0) add_entry(entries, line, 1);
  for (i = 0; i < count; ++i) {
    if (mapping_syntax && (strncmp(labels[i].oid, "1.", 2) != 0 ||
                           strlen(labels[i].label) >= OID_MAPPING_SIZE ||
                           strpbrk(labels[i].label, "\"\\") != NULL))
      continue;
    if ((mapping_syntax ? asprintf(&line, "${iso}%s=\"%s\"\n", labels[i].oid + 1, labels[i].label)
                        : asprintf(&line, "%s %s\n", labels[i].oid, labels[i].label)) < 0)
      abort();
    add_entry(entries, line, mapping_syntax);
  }
  qsort(entries->keys, entries->count, sizeof(char *), compare_keys);
}

static void free_entries(struct entries *entries) {
  size_t i;
  for (i = 0; i < entries->count; ++i) {
    free(entries->lines[i]);
    free(entries->keys[i]);
  }
  free(entries->lines);
  free(entries->keys);
}

/* Writes the existing file's lines whose keys the modules do not give,
 * then the modules' entries; 0 when the existing file cannot be read. */
static int write_merged(FILE *out, const char *path, const struct entries *entries,
                        int mapping_syntax) {
  FILE *in = fopen(path, "re");
  char *line = NULL;
  size_t size = 0, i;
  int ok = 1;
  if (in == NULL && errno != ENOENT) return 0;
  if (in == NULL)
    fputs(mapping_syntax ? "# OID names from MIB modules, written by hubconf import-mib.\n"
                         : "# MIB labels from MIB modules, written by hubconf import-mib.\n",
          out);
  while (in != NULL && getline(&line, &size, in) > 0) {
    char *key = line_key(line, mapping_syntax);
    if (key == NULL || bsearch(&key, entries->keys, entries->count, sizeof(char *),
                               compare_keys) == NULL) {
      fputs(line, out);
      if (line[strlen(line) - 1] != '\n') fputc('\n', out);
    }
    free(key);
  }
  if (in != NULL) {
    ok = !ferror(in);
    fclose(in);
  }
  free(line);
  for (i = 0; i < entries->count; ++i) fputs(entries->lines[i], out);
  return ok;
}

/* Merges the modules' entries into `path` through a temporary beside it,
 * so that a reader never sees half of it; with `dry_run` only shows the
 * change. */
static int write_names(const char *path, const struct mib_label *labels, size_t count,
                       int mapping_syntax, int dry_run) {
  char *temporary = NULL;
  struct entries entries;
  struct stat existing;
  int ok, fd;
  FILE *fp;
  if (asprintf(&temporary, "%s.XXXXXX", path) < 0) return 0;
  fd = mkostemp(temporary, O_CLOEXEC);
  fp = fd >= 0 ? fdopen(fd, "w") : NULL;
  if (fp == NULL) {
    perror(path);
    if (fd >= 0) close(fd);
    free(temporary);
    return 0;
  }
  /* The merged file keeps the mode of the one it replaces. */
  fchmod(fd, stat(path, &existing) == 0 ? existing.st_mode & 07777 : 0644);
  module_entries(labels, count, mapping_syntax, &entries);
  ok = write_merged(fp, path, &entries, mapping_syntax) && !ferror(fp);
  free_entries(&entries);
  if (fclose(fp) != 0) ok = 0;
  if (ok && dry_run) {
    ok = hubconf_show_diff(path, temporary) == 0;
    remove(temporary);
  } else if (ok && rename(temporary, path) != 0) {
    ok = 0;
  }
  if (!ok) {
    perror(path);
    remove(temporary);
  } else if (!dry_run) {
    printf("hubconf: %s written\n", path);
  }
  free(temporary);
  return ok;
}

/* ---- command line ---- */

static void import_usage(FILE *out) {
  fputs(
      "usage: hubconf import-mib [OPTION]... MODULE-OR-FILE...\n"
      "  Adds a trap format for every TRAP-TYPE and NOTIFICATION-TYPE of the\n"
      "  modules, named or given as files, that has none; formats that differ from\n"
      "  the module's are kept and listed.\n"
      "  -M, --mibdir DIR        look for modules in DIR (repeatable; default\n"
      "                          /usr/share/snmp/mibs)\n"
      "  -c, --category NAME     category of formats without a --#CATEGORY hint\n"
      "                          (default \"Status Events\")\n"
      "  -S, --severity N|NAME   severity of formats without a --#SEVERITY hint\n"
      "                          (default 1, Indeterminate)\n"
      "      --replace           replace the formats that differ from the module's\n"
      "      --dry-run           show the changes as unified diffs; write nothing\n"
      "      --force             rewrite a file whose over-long formats the library\n"
      "                          replaced\n"
      "      --names FILE        merge the OID names of the modules' notifications,\n"
      "                          objects and enumerated values into FILE\n"
      "      --labels FILE       merge the MIB labels of every node read into FILE\n",
      out);
}

enum { OPT_NAMES = 256, OPT_LABELS, OPT_REPLACE, OPT_DRY_RUN, OPT_FORCE };

int hubconf_import_mib(int argc, char **argv) {
  static const struct option options[] = {{"mibdir", required_argument, NULL, 'M'},
                                          {"category", required_argument, NULL, 'c'},
                                          {"severity", required_argument, NULL, 'S'},
                                          {"names", required_argument, NULL, OPT_NAMES},
                                          {"labels", required_argument, NULL, OPT_LABELS},
                                          {"replace", no_argument, NULL, OPT_REPLACE},
                                          {"dry-run", no_argument, NULL, OPT_DRY_RUN},
                                          {"force", no_argument, NULL, OPT_FORCE},
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
      case OPT_REPLACE:
        request.replace = 1;
        break;
      case OPT_DRY_RUN:
        request.options.dry_run = 1;
        break;
      case OPT_FORCE:
        request.options.force = 1;
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
  status = request.contents.notification_count > 0
               ? hubconf_edit_cycle(apply_import, &request, &request.options)
               : 0;
  if (request.contents.notification_count == 0) puts("hubconf: no notifications in the modules");
  if (status == 0 && names != NULL &&
      !write_names(names, request.contents.names, request.contents.name_count, 1,
                   request.options.dry_run))
    status = 1;
  if (status == 0 && labels != NULL &&
      !write_names(labels, request.contents.labels, request.contents.label_count, 0,
                   request.options.dry_run))
    status = 1;
  mib_free_hints(request.hints, request.hint_count);
  mib_contents_free(&request.contents);
done:
  doFree(dirs);
  return status;
}
