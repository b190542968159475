/* The only part of hubconf that includes net-snmp's headers: it reads MIB
 * modules with net-snmp's parser and copies what import-mib needs out of
 * the parser's tree into plain texts. */
#define _GNU_SOURCE
#include "mib_reader.h"

#include <ctype.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The registrations of the SMI's base modules, for when the MIB
 * directories hold none of them: vendor modules import `enterprises` and
 * its kin from there, and without them nothing below would be linked. */
static const char base_smi[] =
    "SNMPv2-SMI DEFINITIONS ::= BEGIN\n"
    "org OBJECT IDENTIFIER ::= { iso 3 }\n"
    "dod OBJECT IDENTIFIER ::= { org 6 }\n"
    "internet OBJECT IDENTIFIER ::= { dod 1 }\n"
    "directory OBJECT IDENTIFIER ::= { internet 1 }\n"
    "mgmt OBJECT IDENTIFIER ::= { internet 2 }\n"
    "mib-2 OBJECT IDENTIFIER ::= { mgmt 1 }\n"
    "transmission OBJECT IDENTIFIER ::= { mib-2 10 }\n"
    "experimental OBJECT IDENTIFIER ::= { internet 3 }\n"
    "private OBJECT IDENTIFIER ::= { internet 4 }\n"
    "enterprises OBJECT IDENTIFIER ::= { private 1 }\n"
    "security OBJECT IDENTIFIER ::= { internet 5 }\n"
    "snmpV2 OBJECT IDENTIFIER ::= { internet 6 }\n"
    "snmpDomains OBJECT IDENTIFIER ::= { snmpV2 1 }\n"
    "snmpProxys OBJECT IDENTIFIER ::= { snmpV2 2 }\n"
    "snmpModules OBJECT IDENTIFIER ::= { snmpV2 3 }\n"
    "END\n";

static const char base_smi_v1[] =
    "RFC1155-SMI DEFINITIONS ::= BEGIN\n"
    "org OBJECT IDENTIFIER ::= { iso 3 }\n"
    "dod OBJECT IDENTIFIER ::= { org 6 }\n"
    "internet OBJECT IDENTIFIER ::= { dod 1 }\n"
    "directory OBJECT IDENTIFIER ::= { internet 1 }\n"
    "mgmt OBJECT IDENTIFIER ::= { internet 2 }\n"
    "experimental OBJECT IDENTIFIER ::= { internet 3 }\n"
    "private OBJECT IDENTIFIER ::= { internet 4 }\n"
    "enterprises OBJECT IDENTIFIER ::= { private 1 }\n"
    "END\n";

/* What the parser logged while reading. */
static struct {
  FILE *errors;
  int error_count;
} parse_log;

/* Parse errors end in ": At line N in FILE"; a missing import says so in
 * the same form and is tolerated, like the parser's other warnings. */
static int on_log(int major, int minor, void *server_arg, void *client_arg) {
  const struct snmp_log_message *message = server_arg;
  const char *at, *in;
  char *end;
  long line;
  (void)major;
  (void)minor;
  (void)client_arg;
  if (message == NULL || message->msg == NULL) return 0;
  at = strstr(message->msg, ": At line ");
  if (at == NULL || strncmp(message->msg, "Cannot find module", 18) == 0) return 0;
  line = strtol(at + 10, &end, 10);
  in = strncmp(end, " in ", 4) == 0 ? end + 4 : "?";
  fprintf(parse_log.errors, "%.*s:%ld: %.*s\n", (int)strcspn(in, "\r\n"), in, line,
          (int)(at - message->msg), message->msg);
  ++parse_log.error_count;
  return 0;
}

static char *copy_text(const char *text) {
  char *copy = strdup(text != NULL ? text : "");
  if (copy == NULL) abort();
  return copy;
}

static void *grow(void *array, size_t count, size_t size) {
  /* Doubles at powers of two so that appends stay linear. */
  if (count != 0 && (count & (count - 1)) != 0) return array;
  array = realloc(array, (count == 0 ? 1 : count * 2) * size);
  if (array == NULL) abort();
  return array;
}

static void add_label(struct mib_label **list, size_t *count, const char *oid, const char *label) {
  *list = grow(*list, *count, sizeof **list);
  (*list)[*count].oid = copy_text(oid);
  (*list)[*count].label = copy_text(label);
  ++*count;
}

/* The module name of a MIB file: its first word outside comments. */
static char *module_of_file(const char *path) {
  char line[1024], *word = NULL;
  FILE *fp = fopen(path, "r");
  if (fp == NULL) return NULL;
  while (word == NULL && fgets(line, sizeof line, fp) != NULL) {
    char *comment = strstr(line, "--"), *start = line;
    size_t length;
    if (comment != NULL) *comment = '\0';
    while (isspace((unsigned char)*start)) ++start;
    length = strcspn(start, " \t\r\n");
    if (length > 0) word = strndup(start, length);
  }
  fclose(fp);
  return word;
}

/* Room for a dotted identifier of 128 arcs and more. */
#define MIB_OID_TEXT 4096

struct walk {
  const int *modids;
  size_t modid_count;
  struct mib_contents *contents;
};

static int asked_for(const struct walk *walk, const struct tree *node) {
  size_t i;
  int j;
  for (i = 0; i < walk->modid_count; ++i) {
    if (node->modid == walk->modids[i]) return 1;
    for (j = 0; j < node->number_modules; ++j)
      if (node->module_list[j] == walk->modids[i]) return 1;
  }
  return 0;
}

static void add_notification(struct walk *walk, const struct tree *node, const char *oid) {
  struct mib_contents *contents = walk->contents;
  struct mib_notification *notification;
  const struct tree *above = node->parent;
  const struct varbind_list *object;
  struct module *module = find_module(node->modid);
  contents->notifications =
      grow(contents->notifications, contents->notification_count, sizeof *notification);
  notification = &contents->notifications[contents->notification_count++];
  memset(notification, 0, sizeof *notification);
  notification->name = copy_text(node->label);
  notification->oid = copy_text(oid);
  /* A TRAP-TYPE hangs below a hidden node of arc 0 under its enterprise. */
  if (above != NULL && above->subid == 0 && above->parent != NULL) above = above->parent;
  notification->enterprise_label = copy_text(above != NULL ? above->label : "");
  notification->description = node->description != NULL ? copy_text(node->description) : NULL;
  notification->file = copy_text(module != NULL ? module->file : "");
  for (object = node->varbinds; object != NULL; object = object->next) {
    notification->objects = grow(notification->objects, notification->object_count, sizeof(char *));
    notification->objects[notification->object_count++] = copy_text(object->vblabel);
  }
}

/* The parser leaves a TRAP-TYPE's type unset; it is recognised by the
 * hidden node "ENTERPRISE#" of arc 0 the parser puts it under. */
static int is_trap_type(const struct tree *node) {
  const char *label = node->parent != NULL ? node->parent->label : NULL;
  size_t length = label != NULL ? strlen(label) : 0;
  return length > 0 && node->parent->subid == 0 && label[length - 1] == '#';
}

/* Takes the labels, names and notifications of one node whose dotted
 * identifier is `oid`. */
static void visit(struct walk *walk, const struct tree *node, const char *oid) {
  const struct enum_list *value;
  size_t label_length = node->label != NULL ? strlen(node->label) : 0;
  int scalar;
  if (label_length == 0 || node->label[label_length - 1] == '#') return; /* hidden */
  add_label(&walk->contents->labels, &walk->contents->label_count, oid, node->label);
  if (!asked_for(walk, node)) return;
  add_label(&walk->contents->names, &walk->contents->name_count, oid, node->label);
  if (node->type == TYPE_TRAPTYPE || node->type == TYPE_NOTIFTYPE || is_trap_type(node))
    add_notification(walk, node, oid);
  /* A scalar is sent with instance 0: its values are named there too. */
  scalar = node->parent != NULL && node->parent->indexes == NULL &&
           node->parent->augments == NULL && node->child_list == NULL;
  for (value = node->enums; value != NULL; value = value->next) {
    char value_oid[MIB_OID_TEXT + 32];
    if (value->value < 0 || value->label == NULL) continue;
    snprintf(value_oid, sizeof value_oid, "%s.%d", oid, value->value);
    add_label(&walk->contents->names, &walk->contents->name_count, value_oid, value->label);
    if (!scalar) continue;
    snprintf(value_oid, sizeof value_oid, "%s.0.%d", oid, value->value);
    add_label(&walk->contents->names, &walk->contents->name_count, value_oid, value->label);
  }
}

/* Visits every node below `first` and its peers, depth first, without
 * recursion: a module may nest identifiers thousands of levels deep.  A
 * subtree whose identifiers no longer fit in their text is left out. */
static void walk_tree(struct walk *walk, const struct tree *first) {
  char oid[MIB_OID_TEXT];
  size_t *ends = NULL; /* where the identifier ends at each level */
  size_t depth = 0;
  const struct tree *node = first;
  while (node != NULL) {
    size_t start = depth > 0 ? ends[depth - 1] : 0;
    int wrote = snprintf(oid + start, sizeof oid - start, "%s%lu", depth > 0 ? "." : "",
                         (unsigned long)node->subid);
    int fits = wrote >= 0 && (size_t)wrote < sizeof oid - start;
    if (fits) visit(walk, node, oid);
    if (fits && node->child_list != NULL) {
      ends = grow(ends, depth, sizeof *ends);
      ends[depth++] = start + (size_t)wrote;
      node = node->child_list;
      continue;
    }
    /* Up to the nearest level that has a next peer. */
    while (node->next_peer == NULL && depth > 0) {
      node = node->parent;
      --depth;
    }
    node = node->next_peer;
  }
  free(ends);
}

/* The fallback base modules, as file names. */
static const char *const fallback_files[] = {"SNMPv2-SMI.txt", "RFC1155-SMI.txt"};

/* Puts dir/name in path[0..size); returns 0 if it does not fit. */
static int file_in(char *path, size_t size, const char *dir, const char *name) {
  int n = snprintf(path, size, "%s/%s", dir, name);
  return n >= 0 && (size_t)n < size;
}

static int write_text(const char *dir, const char *name, const char *text) {
  char path[4096];
  FILE *fp;
  int ok;
  if (!file_in(path, sizeof path, dir, name)) return 0;
  fp = fopen(path, "w");
  if (fp == NULL) return 0;
  ok = fputs(text, fp) >= 0;
  return fclose(fp) == 0 && ok;
}

static void remove_fallback(const char *dir) {
  char path[4096];
  size_t i;
  for (i = 0; i < sizeof fallback_files / sizeof fallback_files[0]; ++i)
    if (file_in(path, sizeof path, dir, fallback_files[i])) unlink(path);
  rmdir(dir);
}

int mib_read(const char *const *dirs, size_t dir_count, const char *const *modules,
             size_t module_count, struct mib_contents *contents, FILE *errors) {
  char *path = NULL, fallback[4096] = "";
  size_t length = 0, i, modid_count = 0;
  int *modids = calloc(module_count + 1, sizeof *modids);
  struct walk walk;
  int failed = 0;
  if (modids == NULL) abort();
  memset(contents, 0, sizeof *contents);
  parse_log.errors = errors;
  parse_log.error_count = 0;

  /* Only the directories given, only the modules given: the user's MIBS,
   * MIBFILES and configuration files must not pull in others. */
  for (i = 0; i < dir_count; ++i) {
    path = realloc(path, length + strlen(dirs[i]) + 2);
    if (path == NULL) abort();
    length += (size_t)sprintf(path + length, "%s%s", length > 0 ? ":" : "", dirs[i]);
  }
  netsnmp_set_mib_directory(path != NULL ? path : "/usr/share/snmp/mibs");
  free(path);
  setenv("MIBS", "", 1);
  unsetenv("MIBFILES");
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_SAVE_MIB_DESCRS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIB_ERRORS, 1);
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, on_log, NULL);
  snmp_enable_calllog();
  netsnmp_init_mib();

  if (which_module("SNMPv2-SMI") < 0) {
    const char *tmp = getenv("TMPDIR");
    snprintf(fallback, sizeof fallback, "%s/hubconf-smi.XXXXXX", tmp != NULL ? tmp : "/tmp");
    if (mkdtemp(fallback) != NULL && write_text(fallback, fallback_files[0], base_smi) &&
        (which_module("RFC1155-SMI") >= 0 || write_text(fallback, fallback_files[1], base_smi_v1)))
      add_mibdir(fallback);
  }

  for (i = 0; i < module_count; ++i) {
    const char *name = modules[i];
    char *from_file = NULL;
    int modid;
    if (access(name, F_OK) == 0) {
      from_file = module_of_file(name);
      if (from_file == NULL) {
        fprintf(errors, "%s: cannot be read\n", name);
        ++parse_log.error_count;
        continue;
      }
      read_mib(name);
      name = from_file;
    } else {
      read_module(name);
    }
    modid = which_module(name);
    if (modid < 0) {
      fprintf(errors, "%s: no such module in the MIB directories\n", modules[i]);
      ++parse_log.error_count;
    } else {
      modids[modid_count++] = modid;
    }
    free(from_file);
  }
  failed = parse_log.error_count > 0;
  if (!failed) {
    walk.modids = modids;
    walk.modid_count = modid_count;
    walk.contents = contents;
    walk_tree(&walk, get_tree_head());
  }
  snmp_disable_calllog();
  shutdown_mib();
  if (fallback[0] != '\0') remove_fallback(fallback);
  free(modids);
  return failed ? -1 : 0;
}

static void free_labels(struct mib_label *labels, size_t count) {
  size_t i;
  for (i = 0; i < count; ++i) {
    free(labels[i].oid);
    free(labels[i].label);
  }
  free(labels);
}

void mib_contents_free(struct mib_contents *contents) {
  size_t i, j;
  for (i = 0; i < contents->notification_count; ++i) {
    struct mib_notification *notification = &contents->notifications[i];
    free(notification->name);
    free(notification->oid);
    free(notification->enterprise_label);
    free(notification->description);
    free(notification->file);
    for (j = 0; j < notification->object_count; ++j) free(notification->objects[j]);
    free(notification->objects);
  }
  free(contents->notifications);
  free_labels(contents->names, contents->name_count);
  free_labels(contents->labels, contents->label_count);
  memset(contents, 0, sizeof *contents);
}
