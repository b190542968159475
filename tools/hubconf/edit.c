/* hubconf set, delete and delete-action: the operator's edits.
 *
 * Every edit is one cycle: lock hubd.conf, read it (and the alert mapping
 * file), change the model, write hubd.conf back over the locked file, and
 * tell hubd that it changed.  The alert mapping file is rewritten only when
 * the edit touched a mapped trap format and the file had been read without
 * error.  The library's own messages are printed as they come: the lock
 * refusal, the reader's error, the change-notice warning (which does not
 * make the edit fail: the file is written). */
#define _GNU_SOURCE
#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "alert_mapping.h"
#include "hubconf.h"
#include "trapspec_writer.h"
#include "trp_format.h"

/* The source number the change notice is sent with: a configuration tool. */
#define HUBCONF_SOURCE 6

/* Severities run from 0 "Cleared" to 5 "Major". */
#define SEVERITY_COUNT 6

static int wants_help(int argc, char **argv) {
  return argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0);
}

int hubconf_edit_cycle(edit_fn edit, const void *request) {
  char *message = NULL, *error = NULL, *warning = NULL, *alert_path = NULL;
  int alerts_changed = 0, status;
  FILE *fp = lockHubdConfFile(&message);
  if (fp == NULL) {
    fprintf(stderr, "hubconf: %s", message);
    doFree(message);
    return 1;
  }
  /* Node source lists stay paths, so that they are written back as such. */
  trpFormatExpandSourceFiles = 0;
  if (read_trapspec_file(&error) != 0) {
    fprintf(stderr, "hubconf: %s: %s", getHubdConfFile(), error);
    fclose(fp);
    return 1;
  }
  int alerts_read = error[0] == '\0';
  if (!alerts_read) fprintf(stderr, "hubconf: alert mappings left untouched: %s", error);
  status = edit(request, &alerts_changed);
  if (status != 0) {
    fclose(fp);
    if (status == HUBCONF_UNCHANGED) printf("hubconf: %s unchanged\n", getHubdConfFile());
    return status == HUBCONF_UNCHANGED ? 0 : status;
  }
  /* On failure the writer has printed why; the stream may already be
   * closed, so it is left as it is. */
  if (write_trapspec_file(fp) != 0) return 1;
  printf("hubconf: %s written\n", getHubdConfFile());
  if (alerts_changed && alerts_read) {
    int written = write_voraspec_file(&alert_path);
    if (written != 0) {
      fprintf(stderr, "hubconf: %s: %s\n", alert_path,
              written == -1 ? strerror(errno) : "not rewritten; it may name a changed trap");
      return 1;
    }
    printf("hubconf: %s written\n", alert_path);
  } else if (alerts_changed) {
    fprintf(stderr, "hubconf: the alert mapping file was not rewritten\n");
  }
  if (sendFMTCHGevent("hubconf", HUBCONF_SOURCE, &warning) != 0) fprintf(stderr, "%s\n", warning);
  return 0;
}

/* ---- set ---- */

enum {
  OPT_SOURCE = 256,
  OPT_STATUS,
  OPT_EXEC,
  OPT_DISPLAY,
  OPT_NODES,
  OPT_FORWARD,
  OPT_NO_FORWARD,
  OPT_EVENT_CLASS
};

/* What `set` was given; NULL or -1 fields were not given. */
struct set_request {
  const char *name, *enterprise, *category, *format, *exec, *display, *nodes, *event_class,
      *description;
  int generic, specific, severity, source, status, forward;
  int has_generic, has_specific;
};

static void set_usage(FILE *out) {
  fputs(
      "usage: hubconf set NAME [OPTION]...\n"
      "  Adds the trap format NAME, or changes the options given of an existing one.\n"
      "  A new format needs --enterprise, --generic, --specific, --category, --format.\n"
      "  -e, --enterprise NAME|OID  a configured enterprise, by name or dotted number\n"
      "  -g, --generic N            generic trap number\n"
      "  -s, --specific N           specific trap number\n"
      "  -c, --category NAME        display category (as CATEGORY lines name them)\n"
      "  -S, --severity N|NAME      0-5 or Cleared, Indeterminate, Warning, Minor,\n"
      "                             Critical, Major (default 1)\n"
      "  -f, --format TEXT          event-log format (one line, $-references)\n"
      "      --exec TEXT            command to run (\"\" removes it)\n"
      "      --display TEXT         pop-up message (\"\" removes it)\n"
      "      --nodes LIST           node names or /path lists, blank or comma separated\n"
      "                             (\"\" removes the limit)\n"
      "      --forward, --no-forward  forward the event or not (default not)\n"
      "      --event-class TEXT     event class (\"\" removes it)\n"
      "  -d, --description TEXT     long description (may span lines)\n"
      "      --source C             one-character source code (default A)\n"
      "      --status N             status flag (default 0)\n",
      out);
}

static int parse_int(const char *text, int *value) {
  char *end;
  long parsed;
  errno = 0;
  parsed = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || parsed < INT_MIN || parsed > INT_MAX) return 0;
  *value = (int)parsed;
  return 1;
}

static int parse_severity(const char *text, int *severity) {
  int i;
  for (i = 0; i < SEVERITY_COUNT; ++i)
    if (strcasecmp(text, severityToString(i)) == 0) {
      *severity = i;
      return 1;
    }
  return parse_int(text, severity) && *severity >= 0 && *severity < SEVERITY_COUNT;
}

/* A text that must stay on one line of the file. */
static int one_line(const char *option, const char *text) {
  if (text == NULL || strpbrk(text, "\r\n") == NULL) return 1;
  fprintf(stderr, "hubconf set: %s must be a single line\n", option);
  return 0;
}

static int parse_set(int argc, char **argv, struct set_request *request) {
  static const struct option options[] = {{"enterprise", required_argument, NULL, 'e'},
                                          {"generic", required_argument, NULL, 'g'},
                                          {"specific", required_argument, NULL, 's'},
                                          {"category", required_argument, NULL, 'c'},
                                          {"severity", required_argument, NULL, 'S'},
                                          {"format", required_argument, NULL, 'f'},
                                          {"description", required_argument, NULL, 'd'},
                                          {"exec", required_argument, NULL, OPT_EXEC},
                                          {"display", required_argument, NULL, OPT_DISPLAY},
                                          {"nodes", required_argument, NULL, OPT_NODES},
                                          {"forward", no_argument, NULL, OPT_FORWARD},
                                          {"no-forward", no_argument, NULL, OPT_NO_FORWARD},
                                          {"event-class", required_argument, NULL, OPT_EVENT_CLASS},
                                          {"source", required_argument, NULL, OPT_SOURCE},
                                          {"status", required_argument, NULL, OPT_STATUS},
                                          {"help", no_argument, NULL, 'h'},
                                          {NULL, 0, NULL, 0}};
  int option;
  memset(request, 0, sizeof *request);
  request->severity = request->source = request->status = request->forward = -1;
  optind = 1;
  while ((option = getopt_long(argc, argv, "e:g:s:c:S:f:d:h", options, NULL)) != -1) {
    int ok = 1;
    switch (option) {
      case 'e':
        request->enterprise = optarg;
        break;
      case 'g':
        ok = request->has_generic = parse_int(optarg, &request->generic);
        break;
      case 's':
        ok = request->has_specific = parse_int(optarg, &request->specific);
        break;
      case 'c':
        request->category = optarg;
        break;
      case 'S':
        ok = parse_severity(optarg, &request->severity);
        break;
      case 'f':
        request->format = optarg;
        break;
      case 'd':
        request->description = optarg;
        break;
      case OPT_EXEC:
        request->exec = optarg;
        break;
      case OPT_DISPLAY:
        request->display = optarg;
        break;
      case OPT_NODES:
        request->nodes = optarg;
        break;
      case OPT_FORWARD:
        request->forward = 1;
        break;
      case OPT_NO_FORWARD:
        request->forward = 0;
        break;
      case OPT_EVENT_CLASS:
        request->event_class = optarg;
        break;
      case OPT_SOURCE:
        ok = strlen(optarg) == 1 && optarg[0] != ' ';
        request->source = (unsigned char)optarg[0];
        break;
      case OPT_STATUS:
        ok = parse_int(optarg, &request->status);
        break;
      case 'h':
        set_usage(stdout);
        return 0;
      default:
        ok = 0;
        optarg = NULL;
        break;
    }
    if (!ok) {
      if (optarg != NULL) fprintf(stderr, "hubconf set: bad value \"%s\"\n", optarg);
      set_usage(stderr);
      return 2;
    }
  }
  if (optind != argc - 1) {
    set_usage(stderr);
    return 2;
  }
  request->name = argv[optind];
  if (request->name[0] == '\0' || strlen(request->name) >= TRAP_NAME_SIZE ||
      strpbrk(request->name, " \t\r\n{\"") != NULL) {
    fprintf(stderr, "hubconf set: a name is one word of 1 to %d characters\n", TRAP_NAME_SIZE - 1);
    return 2;
  }
  if (!one_line("--format", request->format) || !one_line("--exec", request->exec) ||
      !one_line("--display", request->display) || !one_line("--nodes", request->nodes) ||
      !one_line("--event-class", request->event_class))
    return 2;
  if (request->format != NULL && request->format[0] == '\0') {
    fputs("hubconf set: --format may not be empty\n", stderr);
    return 2;
  }
  return -1;
}

static enterprise_info *find_configured_enterprise(const char *text) {
  enterprise_info *found = NULL;
  ObjectIdEMS oid[512];
  unsigned long length = 0;
  if (name_to_enterprise((char *)text, &found) == 0) return found;
  if (strlen(text) < sizeof oid / sizeof oid[0] && cname_to_oid((char *)text, oid, &length) == 0 &&
      length > 0) {
    find_enterprise(oid, length, &found);
    if (found != NULL && found->oid_len == length) return found;
  }
  fprintf(stderr, "hubconf set: no enterprise \"%s\" is configured\n", text);
  return NULL;
}

static int find_category(const char *name) {
  int slot;
  for (slot = 0; slot < EMS_MAX_CATEGORIES; ++slot)
    if (EMScategories[slot] != NULL && strcmp(EMScategories[slot], name) == 0) return slot;
  fprintf(stderr, "hubconf set: no display category \"%s\" is defined\n", name);
  return -1;
}

static char *copy_or_null(const char *text) {
  return text != NULL && text[0] != '\0' ? doStrdup(text) : NULL;
}

static const char *raw(const trap_element *element) {
  return element != NULL ? element->rawstring : NULL;
}

/* The description must not hold a line that the reader would take for the
 * end of its block or for a comment. */
static int description_ok(const char *text) {
  const char *line = text;
  size_t keyword = strlen(edescKeyword);
  while (line != NULL) {
    line += strspn(line, " \t");
    if (line[0] == '#' || (strncmp(line, edescKeyword, keyword) == 0 &&
                           (line[keyword] == '\n' || line[keyword] == '\0'))) {
      fprintf(stderr,
              "hubconf set: no line of the description may be \"%s\" or begin with \"#\"\n",
              edescKeyword);
      return 0;
    }
    line = strchr(line, '\n');
    if (line != NULL) ++line;
  }
  return 1;
}

/* Splits a node list at blanks, tabs and commas into owned copies. */
static int split_nodes(const char *text, char ***list) {
  int count = 0;
  char *copy = doStrdup(text), *rest = NULL, *node;
  *list = NULL;
  for (node = strtok_r(copy, " \t,", &rest); node != NULL; node = strtok_r(NULL, " \t,", &rest)) {
    *list = doRealloc(*list, (unsigned)sizeof(char *) * (unsigned)(count + 1));
    (*list)[count++] = doStrdup(node);
  }
  doFree(copy);
  return count;
}

/* Another format that inserting this one would overwrite: same enterprise,
 * numbers and node rule. */
static const trap_record *conflict(enterprise_info *enterprise, int generic, int specific,
                                   int node_count, char **nodes, const trap_record *self) {
  int i;
  const trap_record *other;
  if (node_count == 0) {
    other = findExactTrapRecord(enterprise, generic, specific, NULL);
    return other != self ? other : NULL;
  }
  for (i = 0; i < node_count; ++i) {
    other = findExactTrapRecord(enterprise, generic, specific, nodes[i]);
    if (other != NULL && other != self && other->nodeCnt != 0) return other;
  }
  return NULL;
}

static int apply_set(const void *data, int *alerts_changed) {
  const struct set_request *request = data;
  trap_record *old = NULL;
  enterprise_info *old_enterprise = NULL, *enterprise;
  int exists = nameToTrapAndEnterprise(request->name, &old, &old_enterprise) == 0;
  int generic, specific, category, node_count = 0, slot_count = 0, i;
  char **nodes = NULL, **slot_names = NULL, **slot_values = NULL;
  const char *exec, *display, *event_class, *description;
  const trap_record *other;
  alert_record *alert;
  char *name = (char *)request->name;

  if (!exists && (request->enterprise == NULL || !request->has_generic || !request->has_specific ||
                  request->category == NULL || request->format == NULL)) {
    fprintf(stderr,
            "hubconf set: \"%s\" is new: give --enterprise, --generic, --specific, "
            "--category and --format\n",
            request->name);
    return 2;
  }
  enterprise = request->enterprise != NULL ? find_configured_enterprise(request->enterprise)
                                           : old_enterprise;
  if (enterprise == NULL) return 1;
  category = request->category != NULL ? find_category(request->category) : old->category_number;
  if (category < 0) return 1;
  if (request->description != NULL && !description_ok(request->description)) return 2;
  generic = request->has_generic ? request->generic : old->generic_trap;
  specific = request->has_specific ? request->specific : old->specific_trap;
  if (request->nodes != NULL) {
    node_count = split_nodes(request->nodes, &nodes);
  } else if (exists && old->nodeCnt > 0) {
    nodes = doMalloc((unsigned)sizeof(char *) * (unsigned)old->nodeCnt);
    for (node_count = 0; node_count < old->nodeCnt; ++node_count)
      nodes[node_count] = doStrdup(old->nodeList[node_count]);
  }
  other = conflict(enterprise, generic, specific, node_count, nodes, old);
  if (other != NULL) {
    fprintf(stderr, "hubconf set: \"%s\" already formats %s %d/%d%s; change or delete it first\n",
            other->name, enterprise->enterprise_name, generic, specific,
            node_count > 0 ? " for these nodes" : "");
    for (i = 0; i < node_count; ++i) doFree(nodes[i]);
    doFree(nodes);
    return 1;
  }
  exec = request->exec != NULL ? request->exec : exists ? raw(old->execargs_ptr) : NULL;
  display = request->display != NULL ? request->display
            : exists                 ? raw(old->exec_display_args_ptr)
                                     : NULL;
  event_class = request->event_class != NULL ? request->event_class
                : exists                     ? old->wbxClassName
                                             : NULL;
  description = request->description != NULL ? request->description
                : exists                     ? old->trapDescription
                                             : NULL;
  if (exists && old->slotMap != NULL) {
    slot_count = old->slotMap->slotCnt;
    slot_names = doMalloc((unsigned)sizeof(char *) * (unsigned)(slot_count + 1));
    slot_values = doMalloc((unsigned)sizeof(char *) * (unsigned)(slot_count + 1));
    for (i = 0; i < slot_count; ++i) {
      slot_names[i] = doStrdup(old->slotMap->slotName[i]);
      slot_values[i] = doStrdup(old->slotMap->slotVal[i]);
    }
  }
  {
    /* Everything taken from the old format is copied before it goes. */
    const char *old_format = exists ? raw(&old->description) : NULL;
    char *format = doStrdup(request->format != NULL ? request->format
                            : old_format != NULL    ? old_format
                                                    : "");
    char *exec_copy = copy_or_null(exec), *display_copy = copy_or_null(display);
    char *class_copy = copy_or_null(event_class), *description_copy = copy_or_null(description);
    int severity = request->severity >= 0 ? request->severity : exists ? old->severity : 1;
    int source = request->source >= 0 ? request->source : exists ? (unsigned char)old->source : 'A';
    int status = request->status >= 0 ? request->status : exists ? old->status : 0;
    int forward = request->forward >= 0 ? request->forward : exists ? old->forward : 0;
    alert = exists ? old->alert_element : NULL;
    if (exists) {
      *alerts_changed =
          alert != NULL && (enterprise != old_enterprise || generic != old->generic_trap ||
                            specific != old->specific_trap);
      old->alert_element = NULL;
      deleteTrapRecord(name);
    }
    insertMallocTrapRecord(enterprise, name, generic, specific, node_count, nodes, category, source,
                           format, exec_copy, display_copy, description_copy, severity, status,
                           forward, class_copy, slot_count, slot_names, slot_values);
    doFree(class_copy);
  }
  doFree(slot_names);
  doFree(slot_values);
  if (alert != NULL) insert_malloc_alert_record(enterprise, name, generic, specific, alert);
  return 0;
}

int hubconf_set(int argc, char **argv) {
  struct set_request request;
  int parsed = parse_set(argc, argv, &request);
  if (parsed >= 0) return parsed;
  return hubconf_edit_cycle(apply_set, &request);
}

/* ---- delete, delete-action ---- */

static int apply_delete(const void *data, int *alerts_changed) {
  const char *name = data;
  trap_record *record = nameToExactTrap(name);
  if (record == NULL) {
    fprintf(stderr, "hubconf delete: no trap format is named \"%s\"\n", name);
    return 1;
  }
  *alerts_changed = record->alert_element != NULL;
  deleteTrapRecord((char *)name);
  return 0;
}

static int apply_delete_action(const void *data, int *alerts_changed) {
  (void)alerts_changed;
  if (deleteTrapAction((char *)data) != 0) {
    fprintf(stderr, "hubconf delete-action: no operator action is titled \"%s\"\n",
            (const char *)data);
    return 1;
  }
  return 0;
}

static int run_single(int argc, char **argv, const char *usage, edit_fn edit) {
  if (wants_help(argc, argv)) {
    fputs(usage, stdout);
    return 0;
  }
  if (argc != 2) {
    fputs(usage, stderr);
    return 2;
  }
  return hubconf_edit_cycle(edit, argv[1]);
}

int hubconf_delete(int argc, char **argv) {
  return run_single(argc, argv,
                    "usage: hubconf delete NAME\n"
                    "  Removes the trap format NAME (and its alert mapping).\n",
                    apply_delete);
}

int hubconf_delete_action(int argc, char **argv) {
  return run_single(argc, argv,
                    "usage: hubconf delete-action TITLE\n"
                    "  Removes the operator action TITLE.\n",
                    apply_delete_action);
}
