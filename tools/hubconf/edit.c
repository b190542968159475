/* hubconf set, delete and delete-action: the operator's edits.
 *
 * Every edit is one cycle: lock hubd.conf, read it (and the alert mapping
 * file), change the model, write hubd.conf back over the locked file, and
 * tell hubd that it changed.  The alert mapping file is rewritten, under
 * the same lock, only when the edit touched a mapped trap format and the
 * file had been read without error.  A file holding a format that the
 * library replaced because of its length is not rewritten without --force,
 * since the rewrite would lose the format.  The library's own messages are
 * printed as they come: the lock refusal, the reader's error, the
 * change-notice warning (which does not make the edit fail: the file is
 * written). */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

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

int hubconf_show_diff(const char *file, const char *changed) {
  char *const argv[] = {"diff",        "-u",          "--label",      (char *)file, "--label",
                        (char *)file, (char *)file, (char *)changed, NULL};
  pid_t child;
  int status;
  fflush(stdout);
  if (posix_spawnp(&child, "diff", NULL, NULL, argv, environ) != 0 ||
      waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) > 1) {
    fprintf(stderr, "hubconf: cannot compare %s with its change (diff)\n", file);
    return 1;
  }
  return 0;
}

/* Writes the edited model to a temporary file and shows how it differs
 * from the file in force. */
static int show_change(const char *file) {
  char temporary[] = "/tmp/hubconf-dry-run-XXXXXX";
  int fd = mkostemp(temporary, O_CLOEXEC), status = 1;
  FILE *out = fd >= 0 ? fdopen(fd, "w") : NULL;
  if (out == NULL) {
    fprintf(stderr, "hubconf: cannot create a temporary file: %s\n", strerror(errno));
    if (fd >= 0) close(fd);
  } else if (write_trapspec_file(out) != 0) {
    fclose(out);
  } else {
    status = hubconf_show_diff(file, temporary);
  }
  if (fd >= 0) unlink(temporary);
  return status;
}

/* Writes the alert mapping file; 0 or the exit status. */
static int write_alerts(void) {
  char *alert_path = NULL;
  int written = write_voraspec_file(&alert_path);
  if (written != 0) {
    fprintf(stderr, "hubconf: %s: %s\n", alert_path,
            written == -1 ? strerror(errno) : "not rewritten; it may name a changed trap");
    return 1;
  }
  printf("hubconf: %s written\n", alert_path);
  return 0;
}

int hubconf_edit_cycle(edit_fn edit, const void *request, const struct edit_options *options) {
  char *message = NULL, *error = NULL, *warning = NULL;
  int alerts_changed = 0, status, hold;
  struct lint_findings found;
  FILE *fp = lockHubdConfFile(&message);
  if (fp == NULL) {
    fprintf(stderr, "hubconf: %s", message);
    doFree(message);
    return 1;
  }
  hubconf_lint(getHubdConfFile(), NULL, &found);
  if (found.replaced_formats > 0 && !options->force) {
    fprintf(stderr,
            "hubconf: %s holds %d text%s longer than 4094 bytes, which the library reads as "
            "\"Format string too long\";\nrewriting the file would lose %s (hubconf check shows "
            "where); give --force to rewrite it all the same\n",
            getHubdConfFile(), found.replaced_formats, found.replaced_formats == 1 ? "" : "s",
            found.replaced_formats == 1 ? "it" : "them");
    fclose(fp);
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
  if (status != 0 || options->dry_run) {
    if (status == 0) status = show_change(getHubdConfFile());
    fclose(fp);
    if (status == HUBCONF_UNCHANGED) printf("hubconf: %s unchanged\n", getHubdConfFile());
    return status == HUBCONF_UNCHANGED ? 0 : status;
  }
  /* The writer closes the stream; a second descriptor of the same open
   * file keeps the lock until the alert mapping file is written too. */
  hold = fcntl(fileno(fp), F_DUPFD_CLOEXEC, 0);
  if (write_trapspec_file(fp) != 0) {
    fclose(fp);
    if (hold >= 0) close(hold);
    return 1;
  }
  printf("hubconf: %s written\n", getHubdConfFile());
  if (found.comments > 0)
    printf("hubconf: note: the comments of %s were not kept: every write makes the file anew "
           "from the configuration; notes kept between %s and %s survive\n",
           getHubdConfFile(), sdescKeyword, edescKeyword);
  if (alerts_changed && alerts_read) {
    status = write_alerts();
  } else if (alerts_changed) {
    fprintf(stderr, "hubconf: the alert mapping file was not rewritten\n");
  }
  if (hold >= 0) close(hold);
  if (status != 0) return status;
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
  OPT_EVENT_CLASS,
  OPT_FORCE,
  OPT_DRY_RUN
};

/* What `set` was given; NULL or -1 fields were not given. */
struct set_request {
  const char *name, *enterprise, *category, *format, *exec, *display, *nodes, *event_class,
      *description;
  int generic, specific, severity, source, status, forward;
  int has_generic, has_specific;
  struct edit_options options;
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
      "      --status N             status flag (default 0)\n"
      "      --force                set what hubconf check would warn about, and rewrite\n"
      "                             a file whose over-long formats the library replaced\n"
      "      --dry-run              show the change as a unified diff; write nothing\n",
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

/* Whether a text given to set is written and read back as given; an
 * empty EXEC, DISPLAY or event class removes it and is not checked. */
static int writable(const char *what, int kind, const char *text) {
  const char *problem;
  if (text == NULL || (text[0] == '\0' && kind != TRAP_TEXT_FORMAT && kind != TRAP_TEXT_NAME))
    return 1;
  problem = text[0] == '\0' ? "is empty" : trapTextProblem(kind, text);
  if (problem == NULL) return 1;
  fprintf(stderr, "hubconf set: %s %s\n", what, problem);
  return 0;
}

static int nodes_writable(const char *list) {
  char *copy, *rest = NULL, *node;
  int ok = 1;
  if (list == NULL) return 1;
  copy = doStrdup(list);
  for (node = strtok_r(copy, " \t,", &rest); node != NULL && ok;
       node = strtok_r(NULL, " \t,", &rest))
    ok = writable("a node of --nodes", TRAP_TEXT_NODE, node);
  doFree(copy);
  return ok;
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
                                          {"force", no_argument, NULL, OPT_FORCE},
                                          {"dry-run", no_argument, NULL, OPT_DRY_RUN},
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
      case OPT_FORCE:
        request->options.force = 1;
        break;
      case OPT_DRY_RUN:
        request->options.dry_run = 1;
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
  if (!writable("the name", TRAP_TEXT_NAME, request->name) ||
      !writable("--format", TRAP_TEXT_FORMAT, request->format) ||
      !writable("--exec", TRAP_TEXT_COMMAND, request->exec) ||
      !writable("--display", TRAP_TEXT_COMMAND, request->display) ||
      !writable("--event-class", TRAP_TEXT_EVENT_CLASS, request->event_class) ||
      !writable("--description", TRAP_TEXT_DESCRIPTION, request->description) ||
      !nodes_writable(request->nodes))
    return 2;
  /* What hubconf check would warn about is set only on purpose. */
  if (!request->options.force &&
      (request->has_generic ? hubconf_lint_value("hubconf set: --generic", request->generic, NULL,
                                                 stderr)
                            : 0) +
              (request->format != NULL
                   ? hubconf_lint_value("hubconf set: --format", 0, request->format, stderr)
                   : 0) +
              (request->exec != NULL
                   ? hubconf_lint_value("hubconf set: --exec", 0, request->exec, stderr)
                   : 0) +
              (request->display != NULL
                   ? hubconf_lint_value("hubconf set: --display", 0, request->display, stderr)
                   : 0) >
          0) {
    fputs("hubconf set: not set; give --force to set it all the same\n", stderr);
    return 1;
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
  return hubconf_edit_cycle(apply_set, &request, &request.options);
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

int hubconf_edit_args(int argc, char **argv, const char *usage, struct edit_options *options) {
  int i;
  if (wants_help(argc, argv)) {
    fputs(usage, stdout);
    return 0;
  }
  for (i = 1; i < argc && strncmp(argv[i], "--", 2) == 0; ++i) {
    if (strcmp(argv[i], "--force") == 0) {
      options->force = 1;
    } else if (strcmp(argv[i], "--dry-run") == 0) {
      options->dry_run = 1;
    } else {
      fputs(usage, stderr);
      return -2;
    }
  }
  if (i == argc) {
    fputs(usage, stderr);
    return -2;
  }
  return argc - i;
}

/* An edit of one named thing. */
static int run_single(int argc, char **argv, const char *usage, edit_fn edit) {
  struct edit_options options = {0, 0};
  int count = hubconf_edit_args(argc, argv, usage, &options);
  if (count <= 0) return -count;
  if (count != 1) {
    fputs(usage, stderr);
    return 2;
  }
  return hubconf_edit_cycle(edit, argv[argc - 1], &options);
}

int hubconf_delete(int argc, char **argv) {
  return run_single(argc, argv,
                    "usage: hubconf delete [--force] [--dry-run] NAME\n"
                    "  Removes the trap format NAME (and its alert mapping).\n",
                    apply_delete);
}

int hubconf_delete_action(int argc, char **argv) {
  return run_single(argc, argv,
                    "usage: hubconf delete-action [--force] [--dry-run] TITLE\n"
                    "  Removes the operator action TITLE.\n",
                    apply_delete_action);
}
