// The hubd.conf reader.  The file has four sections in a fixed order and
// no headers: categories, actions, enterprises, trap formats.  A line that
// is not of the current section's form ends the section and is examined
// again as a line of the next one; sections are never re-entered.  Every
// error stops the read at the offending line with a text naming the line;
// what was read before it stays in the model.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "alert_mapping.h"
#include "config_backup.h"
#include "config_base.h"
#include "config_line.h"
#include "env_probe.h"
#include "kz_platform.h"
#include "log_trace.h"
#include "model_internal.h"
#include "trapspec_reader.h"

namespace {

char threshText[] = "Threshold Events";
char nettopText[] = "Network Topology Events";
char errorText[] = "Error Events";
char statusText[] = "Status Events";
char nodeconfText[] = "Node Configuration Events";
char applalertText[] = "Application Alert Events";
char logOnlyText[] = "LOGONLY";
char ignoreText[] = "IGNORE";

}  // namespace

extern "C" {
EVENTS_EXPORT int have_read_hubdconf = 0;
EVENTS_EXPORT int trace_hubdconf = 0;
EVENTS_EXPORT int trpFormatDontMallocDesc = 0;
EVENTS_EXPORT int trpFormatExpandSourceFiles = 1;

EVENTS_EXPORT char *threshCatString = threshText;
EVENTS_EXPORT char *nettopCatString = nettopText;
EVENTS_EXPORT char *errorCatString = errorText;
EVENTS_EXPORT char *statusCatString = statusText;
EVENTS_EXPORT char *nodeconfCatString = nodeconfText;
EVENTS_EXPORT char *applalertCatString = applalertText;
EVENTS_EXPORT char *logOnlyCatString = logOnlyText;
EVENTS_EXPORT char *ignoreCatString = ignoreText;
}

namespace {

using events::fail;

constexpr int kMaxOidArcs = 512;
constexpr int kMaxSlots = 100;
constexpr size_t kMaxDescription = 5020;
constexpr int kNodeListStep = 20;

// Lengths of the keyword globals, taken anew at the start of every read.
struct KeywordLengths {
  size_t exec, display, forward, nodes, action, category, eventclass, smap;
};

struct Reader {
  KeywordLengths length = {4, 7, 7, 5, 6, 8, 11, 18};
  char read_error[TRAPSPEC_ERROR_SIZE];
  char augment_error[TRAPSPEC_ERROR_SIZE];
  // Line buffer of a whole read, and scratch for the fields of one line
  // (each as long as a line, so no field can overflow).
  char line[TRAPSPEC_LINE_SIZE];
  char word[TRAPSPEC_LINE_SIZE];
  char oid_text[TRAPSPEC_LINE_SIZE];
  char quoted[TRAPSPEC_LINE_SIZE];
  char source_line[TRAPSPEC_LINE_SIZE];
  char name_line[TRAPSPEC_LINE_SIZE];  // a trap group's first line, for its errors
  char description[kMaxDescription + 1];
};

Reader reader;

void reset_keyword_lengths() {
  reader.length = {strlen(execKeyword),   strlen(displayKeyword), strlen(forwardKeyword),
                   strlen(nodesKeyword),  strlen(actionKeyword),  strlen(categoryKeyword),
                   strlen(eventclassKeyword), strlen(smapKeyword)};
}

void trace(const char *routine, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void trace(const char *routine, const char *fmt, ...) {
  if (!trace_hubdconf || tracelogfp == nullptr) return;
  char text[512];
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  log_trace(routine, "%s", text);
}

// A file whose writer stopped part-way is refused, and closed, with the
// way back named.
bool refuse_incomplete(FILE *fp, const char *conffile, char *errmem) {
  if (!events::rewrite_incomplete(fp)) return false;
  fclose(fp);
  events::write_error(
      errmem, TRAPSPEC_ERROR_SIZE,
      "Incomplete file: its writer stopped part-way; the previous content is in \"%s\"\n",
      events::backup_path(conffile).c_str());
  return true;
}

bool begins_with(const char *line, const char *keyword, size_t length) {
  return strncmp(line, keyword, length) == 0;
}

// The text of a keyword line: one character after the keyword, whatever
// that separator is.
char *after_keyword(char *line, size_t length) {
  return line[length] != '\0' ? line + length + 1 : line + length;
}

// Dotted identifier text (with or without its leading dot, blanks around
// it ignored) to arcs.  REQUIRES: text lies in a line-sized buffer, which
// leaves room for the dot put in front.
bool parse_oid(char *text, ObjectIdEMS *arcs, int *count) {
  _KZstrip_whitespace(text, stripBoth);
  if (text[0] != '.') {
    memmove(text + 1, text, strlen(text) + 1);
    text[0] = '.';
  }
  *count = kMaxOidArcs;
  return KZmib_read_numeric_objid(text, arcs, count) == 0;
}

int category_slot(const char *name) {
  for (int slot = 0; slot < EMS_MAX_CATEGORIES; ++slot) {
    if (EMScategories[slot] != nullptr && strcmp(EMScategories[slot], name) == 0) return slot;
  }
  return -1;
}

// On leaving the category section exactly one default name is given: to
// the first empty slot in this order.
void fill_one_default_category() {
  struct Default {
    int slot;
    char *const *name;
  };
  static const Default defaults[] = {
      {9, &ignoreCatString}, {7, &logOnlyCatString}, {2, &errorCatString},
      {0, &threshCatString}, {1, &nettopCatString},  {3, &statusCatString},
      {4, &nodeconfCatString}, {5, &applalertCatString},
  };
  for (const Default &d : defaults) {
    if (EMScategories[d.slot] == nullptr) {
      EMScategories[d.slot] = doStrdup(*d.name);
      return;
    }
  }
}

// The temporaries of one trap group; whatever the model has not taken
// over is released when the group ends.
struct TrapGroup {
  char *format = nullptr;
  char *exec = nullptr;
  char *display = nullptr;
  char *event_class = nullptr;
  char *description = nullptr;
  int forward = 0;
  int node_count = 0;
  int node_capacity = 0;
  char **nodes = nullptr;
  int slot_count = 0;
  char *slot_names[kMaxSlots] = {};
  char *slot_values[kMaxSlots] = {};

  TrapGroup() = default;
  TrapGroup(const TrapGroup &) = delete;
  TrapGroup &operator=(const TrapGroup &) = delete;
  ~TrapGroup() {
    doFree(format);
    doFree(exec);
    doFree(display);
    doFree(event_class);
    doFree(description);
    for (int i = 0; i < node_count; ++i) doFree(nodes[i]);
    doFree(nodes);
    for (int i = 0; i < slot_count; ++i) {
      doFree(slot_names[i]);
      doFree(slot_values[i]);
    }
  }
  // The model owns these after insertMallocTrapRecord.
  void handed_over() {
    format = exec = display = description = nullptr;
    nodes = nullptr;
    node_count = 0;
    slot_count = 0;
  }
};

// Adds the NODES entries of `text`: node names, and with
// trpFormatExpandSourceFiles the first word of every line of a "/path"
// source-list file.
int read_nodes(TrapGroup &group, char *text, const char *conffile, char *errmem, int line,
               const char *rawline) {
  char *save = nullptr;
  for (char *token = strtok_r(text, " \t\n,", &save); token != nullptr;
       token = strtok_r(nullptr, " \t\n,", &save)) {
    if (token[0] != '/' || !trpFormatExpandSourceFiles) {
      trpFmtAddSourceToList(&group.node_count, &group.node_capacity, &group.nodes, token);
      continue;
    }
    const char *refused;
    FILE *list = events::open_config_file(token, &refused);
    if (refused != nullptr) return events::read_failure(errmem, token, refused);
    if (list == nullptr)
      return fail(errmem, line, conffile, rawline, "Could not open source list file \"%s\"", token);
    int list_line = 0;
    int got;
    while ((got = events::read_config_line(reader.source_line, TRAPSPEC_LINE_SIZE, list,
                                           &list_line, token, errmem)) == 1) {
      char *word = reader.source_line + strspn(reader.source_line, " \t");
      size_t length = strcspn(word, " \t");
      if (length == 0) continue;
      word[length] = '\0';
      trpFmtAddSourceToList(&group.node_count, &group.node_capacity, &group.nodes, word);
    }
    fclose(list);
    if (got < 0) return -1;
  }
  return 0;
}

// One slot line: "name value", both trimmed; false without a blank.
bool read_slot(TrapGroup &group, const char *rawline) {
  if (group.slot_count >= kMaxSlots) return false;
  char *text = doStrdup(rawline);
  _KZstrip_whitespace(text, stripBoth);
  char *blank = strchr(text, ' ');
  if (blank == nullptr) {
    doFree(text);
    return false;
  }
  *blank = '\0';
  char *value = doStrdup(blank + 1);
  _KZstrip_whitespace(text, stripBoth);
  _KZstrip_whitespace(value, stripBoth);
  group.slot_names[group.slot_count] = text;
  group.slot_values[group.slot_count] = value;
  ++group.slot_count;
  return true;
}

// The optional lines of a trap group, each at most once and in this
// order: EXEC, DISPLAY, FORWARD, NODES, EVENT_CLASS, the slot mapping.
// On return rawline holds the first line after them.
int read_optional_lines(TrapGroup &group, FILE *fp, char *rawline, const char *conffile,
                        char *errmem, int *lineNumberPtr) {
  const char *routine = "readTrapSpecInfo";
  const KeywordLengths &len = reader.length;
  auto advance = [&](const char *keyword) {
    return getNextLine(keyword, rawline, TRAPSPEC_LINE_SIZE, fp, conffile, lineNumberPtr, errmem) == 0;
  };
  // A copy of the text of the current keyword line, trimmed when asked.
  auto text_of = [&](size_t keyword_length, bool trim) {
    char *text = doStrdup(after_keyword(rawline, keyword_length));
    if (trim) _KZstrip_whitespace(text, stripBoth);
    return text;
  };
  if (begins_with(rawline, execKeyword, len.exec)) {
    group.exec = text_of(len.exec, true);
    trace(routine, "exec record found");
    if (!advance(execKeyword)) return -1;
  }
  if (begins_with(rawline, displayKeyword, len.display)) {
    group.display = text_of(len.display, true);
    trace(routine, "display record found");
    if (!advance(displayKeyword)) return -1;
  }
  if (begins_with(rawline, forwardKeyword, len.forward)) {
    group.forward = 1;
    trace(routine, "forward flag found");
    if (!advance(forwardKeyword)) return -1;
  }
  if (begins_with(rawline, nodesKeyword, len.nodes)) {
    char *text = text_of(len.nodes, true);
    int result = read_nodes(group, text, conffile, errmem, *lineNumberPtr, rawline);
    doFree(text);
    if (result != 0) return -1;
    trace(routine, "nodes line found");
    if (!advance(nodesKeyword)) return -1;
  }
  if (begins_with(rawline, eventclassKeyword, len.eventclass)) {
    group.event_class = text_of(len.eventclass, false);
    trace(routine, "event class line found");
    if (!advance(eventclassKeyword)) return -1;
  }
  if (begins_with(rawline, smapKeyword, len.smap)) {
    trace(routine, "slot map section found");
    for (;;) {
      if (!advance(smapKeyword)) return -1;
      if (strcmp(rawline, emapKeyword) == 0) break;
      // A slot line without a blank, or one slot too many, ends the read
      // without a text of its own.
      if (!read_slot(group, rawline)) return -1;
    }
    if (!advance(emapKeyword)) return -1;
  }
  return 0;
}


}  // namespace

extern "C" EVENTS_EXPORT void trpFmtAddSourceToList(int *nodeCnt, int *listLen, char ***nodeList,
                                                    const char *node) {
  if (*nodeCnt >= *listLen) {
    *listLen += kNodeListStep;
    *nodeList = static_cast<char **>(
        doRealloc(*nodeList, static_cast<unsigned>(*listLen * sizeof(char *))));
  }
  (*nodeList)[(*nodeCnt)++] = doStrdup(node);
}

extern "C" EVENTS_EXPORT int getNextLine(const char *lastKeyword, char *rawline, int maxinput,
                                         FILE *fp, const char *conffile, int *lineNumberPtr,
                                         char *errmem) {
  int got = events::read_config_line(rawline, maxinput, fp, lineNumberPtr, conffile, errmem);
  if (got == 1) return 0;
  if (got == 0) {
    events::write_error(errmem, TRAPSPEC_ERROR_SIZE,
                        "End of file in \"%s\" prematurely reached after %s keyword", conffile,
                        lastKeyword);
  }
  return -1;
}

extern "C" EVENTS_EXPORT int mallocAndReadDescription(char **descriptionPtr, char *rawline,
                                                      FILE *fp, const char *conffile,
                                                      char *errmem, int *lineNumberPtr) {
  *descriptionPtr = nullptr;
  if (strcmp(rawline, sdescKeyword) != 0) {
    return fail(errmem, *lineNumberPtr, conffile, rawline, "Did not find a %s keyword",
                sdescKeyword);
  }
  char *text = reader.description;
  size_t used = 0;
  for (;;) {
    if (getNextLine(sdescKeyword, rawline, TRAPSPEC_LINE_SIZE, fp, conffile, lineNumberPtr, errmem) != 0)
      return -1;
    if (strcmp(rawline, edescKeyword) == 0) break;
    size_t length = strlen(rawline);
    if (used + length + 1 > kMaxDescription) {
      return fail(errmem, *lineNumberPtr, conffile, rawline, "Trap description too long");
    }
    memcpy(text + used, rawline, length);
    used += length;
    text[used++] = '\n';
  }
  text[used] = '\0';
  _KZstrip_whitespace(text, stripBoth);
  *descriptionPtr = doStrdup(text);
  return 0;
}

extern "C" EVENTS_EXPORT int readCategory(char *c, const char *conffile, char *errmem,
                                          int line_number) {
  size_t keyword = reader.length.category;
  if (!begins_with(c, categoryKeyword, keyword)) {
    fill_one_default_category();
    return 1;
  }
  int number = 0;
  char extra;
  int fields = sscanf(c + keyword, "%d \"%[^\"]\" %c", &number, reader.quoted, &extra);
  if (fields != 2) {
    return fail(errmem, line_number, conffile, c, "Invalid number of fields (%d), expect 2", fields);
  }
  if (number < 0 || number >= EMS_MAX_CATEGORIES) {
    return fail(errmem, line_number, conffile, c, "Bad category number (must be < %d)",
                EMS_MAX_CATEGORIES);
  }
  if (EMScategories[number] == nullptr) {
    EMScategories[number] = doStrdup(reader.quoted);
    return 0;
  }
  // The number is taken: a name already defined is left alone, a new one
  // goes to the highest free slot (never slot 0).
  if (category_slot(reader.quoted) >= 0) return 0;
  for (int slot = EMS_MAX_CATEGORIES - 1; slot >= 1; --slot) {
    if (EMScategories[slot] == nullptr) {
      EMScategories[slot] = doStrdup(reader.quoted);
      return 0;
    }
  }
  return fail(errmem, line_number, conffile, c,
              "Category could not be added (%d categories already defined)\n", EMS_MAX_CATEGORIES);
}

extern "C" EVENTS_EXPORT int readActions(FILE *fp, char *c, const char *conffile, char *errmem,
                                         int *lineNumberPtr) {
  size_t keyword = reader.length.action;
  if (!begins_with(c, actionKeyword, keyword)) return 1;
  int wait = 0;
  int consumed = -1;
  int fields = sscanf(c + keyword, "%d \"%[^\"]\" %n", &wait, reader.quoted, &consumed);
  if (fields < 2) return 1;
  if (wait < 0) return fail(errmem, *lineNumberPtr, conffile, c, "Invalid wait time %d", wait);
  char *name = doStrdup(reader.quoted);
  char *command = doStrdup(consumed >= 0 ? c + keyword + consumed : "");
  char *description = nullptr;
  if (getNextLine(actionKeyword, c, TRAPSPEC_LINE_SIZE, fp, conffile, lineNumberPtr, errmem) != 0 ||
      mallocAndReadDescription(&description, c, fp, conffile, errmem, lineNumberPtr) != 0) {
    doFree(name);
    doFree(command);
    return -1;
  }
  actionCmd *action = nullptr;
  for (int i = 0; i < numActionCommands; ++i) {
    if (strcmp(actionCommands[i].name, name) == 0) {
      action = &actionCommands[i];
      freeAction(action);
      break;
    }
  }
  if (action == nullptr) {
    actionCommands = static_cast<actionCmd *>(
        doRealloc(actionCommands, static_cast<unsigned>((numActionCommands + 1) * sizeof(actionCmd))));
    action = &actionCommands[numActionCommands++];
  }
  action->name = name;
  action->description = description;
  action->waitTime = wait;
  action->cmd = command;
  return 0;
}

extern "C" EVENTS_EXPORT int readEnterprise(char *c, const char *conffile, char *errmem,
                                            int line_number) {
  char extra;
  if (sscanf(c, "%s {%[^}]} %c", reader.word, reader.oid_text, &extra) != 2) return 1;
  ObjectIdEMS arcs[kMaxOidArcs];
  int count;
  if (!parse_oid(reader.oid_text, arcs, &count)) {
    return fail(errmem, line_number, conffile, c, "Bad oid char");
  }
  insert_enterprise(arcs, static_cast<unsigned long>(count), reader.word);
  return 0;
}

extern "C" EVENTS_EXPORT int readTrapSpecInfo(FILE *fp, char *rawline, const char *conffile,
                                              char *errmem, int *lineNumberPtr) {
  const char *routine = "readTrapSpecInfo";
  int name_line = *lineNumberPtr;
  int generic = 0, specific = 0, severity = 0, status = 0;
  char source = 0, extra1, extra2;
  char *name = reader.word;
  int fields = sscanf(rawline, "%s {%[^}]} %d %d %c %d %d \"%[^\"]\" %c %c", name, reader.oid_text,
                      &generic, &specific, &source, &severity, &status, reader.quoted, &extra1,
                      &extra2);
  trace(routine, "hubd.conf line [%d] scanned", name_line);
  if (fields != 8) {
    return fail(errmem, name_line, conffile, rawline, "Bad name line (matched %d, not 8 tokens)\n",
                fields);
  }
  int name_length = static_cast<int>(strlen(name));
  trace(routine, "trap name = %s, length = %d", name, name_length);
  if (name_length > TRAP_NAME_SIZE) {
    return fail(errmem, name_line, conffile, rawline,
                "hubd.conf file not loaded because trap name length [%d] exceeds maximum size "
                "permitted of %d\n ",
                name_length, TRAP_NAME_SIZE);
  }
  char first_oid_char = reader.oid_text[0];
  ObjectIdEMS arcs[kMaxOidArcs];
  int count;
  if (!parse_oid(reader.oid_text, arcs, &count)) {
    return fail(errmem, name_line, conffile, rawline, "Bad oid char '%c'", first_oid_char);
  }
  trace(routine, "oid checked");
  int category = category_slot(reader.quoted);
  if (category < 0) {
    return fail(errmem, name_line, conffile, rawline, "No such display category \"%s\" defined",
                reader.quoted);
  }
  trace(routine, "category checked");
  enterprise_info *enterprise;
  find_enterprise(arcs, static_cast<unsigned long>(count), &enterprise);
  if (enterprise == nullptr) return fail(errmem, name_line, conffile, rawline, "No such enterprise");
  if (enterprise->oid_len != static_cast<unsigned long>(count)) {
    return fail(errmem, name_line, conffile, rawline, "No such exact enterprise (%d vs %d)",
                static_cast<int>(enterprise->oid_len), count);
  }
  trace(routine, "enterprise oid checked");
  trap_record *same_name;
  enterprise_info *same_name_enterprise;
  if (nameToTrapAndEnterprise(name, &same_name, &same_name_enterprise) == 0 &&
      (same_name->generic_trap != generic || same_name->specific_trap != specific ||
       same_name_enterprise != enterprise)) {
    return fail(errmem, name_line, conffile, rawline,
                "Not loading trap format.  Trap name %s is already in use.\n"
                "Rename the event to avoid the conflict",
                name);
  }
  trace(routine, "< %s > trap name is unique", name);

  // The name line's fields live in shared scratch: keep what is needed
  // before reading on.
  char trap_name[TRAP_NAME_SIZE + 1];
  memcpy(trap_name, name, static_cast<size_t>(name_length) + 1);
  // Only its start can show in an error text, which is shorter than a line.
  size_t kept = strnlen(rawline, TRAPSPEC_LINE_SIZE - 1);
  memcpy(reader.name_line, rawline, kept);
  reader.name_line[kept] = '\0';
  TrapGroup group;
  int got = events::read_config_line(rawline, TRAPSPEC_LINE_SIZE, fp, lineNumberPtr, conffile, errmem);
  if (got <= 0) {
    if (got == 0) fail(errmem, name_line, conffile, reader.name_line, "Did not find an event log format");
    return -1;
  }
  trace(routine, "log format found");
  group.format = doStrdup(rawline);
  if (getNextLine("format", rawline, TRAPSPEC_LINE_SIZE, fp, conffile, lineNumberPtr, errmem) != 0 ||
      read_optional_lines(group, fp, rawline, conffile, errmem, lineNumberPtr) != 0) {
    return -1;
  }
  trace(routine, "getting the event description");
  if (mallocAndReadDescription(&group.description, rawline, fp, conffile, errmem, lineNumberPtr) != 0)
    return -1;
  if (trpFormatDontMallocDesc) {
    doFree(group.description);
    group.description = nullptr;
  }
  trace(routine, "malloc trap record");
  insertMallocTrapRecord(enterprise, trap_name, generic, specific, group.node_count, group.nodes,
                         category, source, group.format, group.exec, group.display,
                         group.description, severity, status, group.forward, group.event_class,
                         group.slot_count, group.slot_names, group.slot_values);
  group.handed_over();
  trace(routine, "freeing structures for this event");
  return 0;
}

extern "C" EVENTS_EXPORT int doReadTrapspecFile(FILE *fp, const char *conffile, char *errmem) {
  const char *routine = "doReadTrapspecFile";
  errmem[0] = '\0';
  trace(routine, "starting read of hubd.conf");
  char *line = reader.line;
  int line_number = 0;
  int state = 0;
  for (;;) {
    int got = events::read_config_line(line, TRAPSPEC_LINE_SIZE, fp, &line_number, conffile, errmem);
    if (got == 0) {
      have_read_hubdconf = 1;
      trace(routine, "finished read of hubd.conf");
      return 0;
    }
    if (got < 0) {
      trace(routine, "error reading hubd.conf file <%s>", errmem);
      return -1;
    }
    int result = 0;
    if (state == 0) {
      result = readCategory(line, conffile, errmem, line_number);
      if (result == 1) {
        trace(routine, "starting read of ACTIONS");
        state = 1;
      }
    }
    if (state == 1 && result >= 0) {
      result = readActions(fp, line, conffile, errmem, &line_number);
      if (result == 1) {
        trace(routine, "starting read of ENTERPRISES");
        state = 2;
      }
    }
    if (state == 2 && result >= 0) {
      result = readEnterprise(line, conffile, errmem, line_number);
      if (result == 1) {
        trace(routine, "starting read of TRAPS");
        state = 3;
      }
    }
    if (state == 3 && result >= 0) {
      result = readTrapSpecInfo(fp, line, conffile, errmem, &line_number);
    }
    if (result < 0 || (state == 3 && result != 0)) {
      trace(routine, "error reading hubd.conf file [%d]", result);
      return result;
    }
  }
}

extern "C" EVENTS_EXPORT int read_trapspec_file(char **errstring_ptr) {
  const char *routine = "read_trapspec_file";
  char *errmem = reader.read_error;
  errmem[0] = '\0';
  *errstring_ptr = errmem;
  trace(routine, "opening hubd.conf");
  const char *conffile = getHubdConfFile();
  const char *refused;
  FILE *fp = events::open_config_file(conffile, &refused);
  if (refused != nullptr) return events::read_failure(errmem, conffile, refused);
  if (fp == nullptr) {
    events::write_error(errmem, TRAPSPEC_ERROR_SIZE, "Could not open trap format file \"%s\": %s\n",
                        conffile, strerror(errno));
    return -1;
  }
  if (refuse_incomplete(fp, conffile, errmem)) return -1;
  if (enterprise_list_head.next != nullptr) {
    trace(routine, "freeing old info.");
    free_all_info();
  }
  events::fill_default_trap_record();
  trace(routine, "resetting keyword strlens");
  reset_keyword_lengths();
  int result = doReadTrapspecFile(fp, conffile, errmem);
  fclose(fp);
  if (result == 0) {
    trace(routine, "about to read voraspec_file.");
    // The alert file's error stays in *errstring_ptr for the caller to
    // report; the configuration itself was read.
    read_voraspec_file(errstring_ptr);
  }
  return result;
}

extern "C" EVENTS_EXPORT int augmentTrapspecFile(char **errstring_ptr, const char *newfile) {
  char *errmem = reader.augment_error;
  errmem[0] = '\0';
  *errstring_ptr = errmem;
  const char *refused;
  FILE *fp = events::open_config_file(newfile, &refused);
  if (refused != nullptr) return events::read_failure(errmem, newfile, refused);
  if (fp == nullptr) {
    events::write_error(errmem, TRAPSPEC_ERROR_SIZE,
                        "Could not open new trap format file \"%s\": %s\n", newfile,
                        strerror(errno));
    return -1;
  }
  if (refuse_incomplete(fp, newfile, errmem)) return -1;
  events::fill_default_trap_record();
  reset_keyword_lengths();
  int result = doReadTrapspecFile(fp, newfile, errmem);
  fclose(fp);
  return result;
}
