// What the writer may write: the texts of the model that read back as
// they were written, and the whole model checked against them before any
// write begins.

#include <cctype>
#include <cstring>
#include <string>
#include <unordered_set>

#include "trapspec_check.h"
#include "trapspec_writer.h"

namespace {

// The reader's line limit for a description block: its lines, each with
// its line break, may not take more than this.
constexpr size_t kDescriptionBlock = 5020;
constexpr size_t kFormatMax = 4094;  // longer formats are replaced by the compiler
constexpr int kMaxWrittenArcs = 100;
constexpr int kMaxSlots = 100;

// The blanks that the reader's trimming removes.
bool blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool has_any(const char *text, const char *characters) {
  return strpbrk(text, characters) != nullptr;
}

bool trimmed(const char *text) {
  size_t length = strlen(text);
  return length == 0 || (!blank(text[0]) && !blank(text[length - 1]));
}

// One word: what the reader's "%s" takes whole.
const char *word_problem(const char *text) {
  if (text[0] == '\0') return "is empty";
  for (const char *p = text; *p != '\0'; ++p)
    if (isspace(static_cast<unsigned char>(*p))) return "holds a blank or a line break";
  if (text[0] == '#') return "begins with \"#\", which makes its line a comment";
  return nullptr;
}

const char *description_problem(const char *text) {
  if (strlen(text) + 1 > kDescriptionBlock) return "is longer than 5019 characters";
  if (!trimmed(text)) return "begins or ends with a blank or a line break";
  for (const char *line = text; line != nullptr;) {
    if (line[0] == ' ' || line[0] == '\t') return "has a line that begins with a blank";
    if (line[0] == '#') return "has a line that begins with \"#\", which is a comment";
    size_t keyword = strlen(edescKeyword);
    if (strncmp(line, edescKeyword, keyword) == 0 &&
        (line[keyword] == '\n' || line[keyword] == '\0'))
      return "has a line that ends the description block";
    line = strchr(line, '\n');
    if (line != nullptr) ++line;
  }
  return nullptr;
}

const char *format_problem(const char *text) {
  if (text[0] == ' ' || text[0] == '\t') return "begins with a blank";
  if (text[0] == '#') return "begins with \"#\", which makes its line a comment";
  if (strlen(text) > kFormatMax) return "is longer than 4094 bytes";
  return nullptr;
}

const char *command_problem(const char *text) {
  if (!trimmed(text)) return "begins or ends with a blank";
  if (strlen(text) > kFormatMax) return "is longer than 4094 bytes";
  return nullptr;
}

const char *quoted_problem(const char *text) {
  if (text[0] == '\0') return "is empty";
  if (strchr(text, '"') != nullptr) return "holds a double quote";
  return nullptr;
}

const char *text_problem(int kind, const char *text) {
  if (kind != TRAP_TEXT_DESCRIPTION && has_any(text, "\n")) return "holds a line break";
  switch (kind) {
    case TRAP_TEXT_NAME:
      if (strlen(text) >= TRAP_NAME_SIZE) return "is longer than 39 characters";
      return word_problem(text);
    case TRAP_TEXT_FORMAT:
      return format_problem(text);
    case TRAP_TEXT_COMMAND:
      return command_problem(text);
    case TRAP_TEXT_DESCRIPTION:
      return description_problem(text);
    case TRAP_TEXT_NODE:
      if (text[0] == '\0') return "is empty";
      return has_any(text, ", \t\r\v\f") ? "holds a blank or a comma" : nullptr;
    case TRAP_TEXT_EVENT_CLASS:
      return nullptr;
    case TRAP_TEXT_SLOT_NAME:
      return word_problem(text);
    case TRAP_TEXT_SLOT_VALUE:
      return text[0] == '\0' ? "is empty" : command_problem(text);
    case TRAP_TEXT_CATEGORY:
    case TRAP_TEXT_ACTION_NAME:
      return quoted_problem(text);
    case TRAP_TEXT_ACTION_COMMAND:
      return text[0] != '\0' && blank(text[0]) ? "begins with a blank" : nullptr;
    case TRAP_TEXT_ENTERPRISE_NAME:
      if (strncmp(text, categoryKeyword, strlen(categoryKeyword)) == 0)
        return "begins with the category keyword";
      return word_problem(text);
    default:
      return "is of no known kind";
  }
}

// Adds "WHAT: PROBLEM" to *why for the first problem met.
bool check(std::string *why, const std::string &what, int kind, const char *text) {
  const char *problem = text != nullptr ? trapTextProblem(kind, text) : nullptr;
  if (problem == nullptr) return true;
  *why = what + " " + problem;
  return false;
}

bool record_ok(const trap_record *r, std::string *why) {
  const std::string what = std::string("trap format \"") + r->name + "\": ";
  if (r->description.rawstring == nullptr) {
    *why = what + "its format text was not kept";
    return false;
  }
  if (r->category_number < 0 || r->category_number >= EMS_MAX_CATEGORIES ||
      EMScategories[r->category_number] == nullptr) {
    *why = what + "its display category is not defined";
    return false;
  }
  if (r->source == '\0' || isspace(static_cast<unsigned char>(r->source))) {
    *why = what + "its source is a blank";
    return false;
  }
  if (!check(why, what + "the name", TRAP_TEXT_NAME, r->name) ||
      !check(why, what + "the format", TRAP_TEXT_FORMAT, r->description.rawstring) ||
      !check(why, what + "the command", TRAP_TEXT_COMMAND,
             r->execargs_ptr != nullptr ? r->execargs_ptr->rawstring : nullptr) ||
      !check(why, what + "the display message", TRAP_TEXT_COMMAND,
             r->exec_display_args_ptr != nullptr ? r->exec_display_args_ptr->rawstring : nullptr) ||
      !check(why, what + "the event class", TRAP_TEXT_EVENT_CLASS, r->wbxClassName) ||
      !check(why, what + "the description", TRAP_TEXT_DESCRIPTION, r->trapDescription))
    return false;
  for (int i = 0; i < r->nodeCnt; ++i)
    if (!check(why, what + "a node", TRAP_TEXT_NODE, r->nodeList[i])) return false;
  if (r->slotMap == nullptr) return true;
  if (r->slotMap->slotCnt > kMaxSlots) {
    *why = what + "it has more than 100 slots";
    return false;
  }
  for (int i = 0; i < r->slotMap->slotCnt; ++i)
    if (!check(why, what + "a slot name", TRAP_TEXT_SLOT_NAME, r->slotMap->slotName[i]) ||
        !check(why, what + "a slot value", TRAP_TEXT_SLOT_VALUE, r->slotMap->slotVal[i]))
      return false;
  return true;
}

bool share_a_node(const trap_record *a, const trap_record *b) {
  for (int i = 0; i < a->nodeCnt; ++i)
    for (int j = 0; j < b->nodeCnt; ++j)
      if (strcmp(a->nodeList[i], b->nodeList[j]) == 0) return true;
  return false;
}

// Two formats of the same numbers that the reader would merge into one:
// both without a node list, or both naming one node.
bool merged_when_read(const trap_record *r, std::string *why) {
  for (const trap_record *s = r->next; s != nullptr && events::same_pair(r, s); s = s->next) {
    if ((r->nodeCnt == 0) == (s->nodeCnt == 0) && (r->nodeCnt == 0 || share_a_node(r, s))) {
      *why = std::string("trap formats \"") + r->name + "\" and \"" + s->name +
             "\": the same numbers for the same nodes";
      return true;
    }
  }
  return false;
}

}  // namespace

namespace events {

bool model_writable(std::string *why) {
  for (int n = 0; n < EMS_MAX_CATEGORIES; ++n)
    if (!check(why, "display category " + std::to_string(n) + ":", TRAP_TEXT_CATEGORY,
               EMScategories[n]))
      return false;
  for (int i = 0; i < numActionCommands; ++i) {
    const actionCmd &a = actionCommands[i];
    const std::string what = std::string("operator action \"") + (a.name ? a.name : "") + "\": ";
    if (a.name == nullptr || a.waitTime < 0 || a.waitTime > INT32_MAX) {
      *why = what + "its name or wait time cannot be written";
      return false;
    }
    for (int j = 0; j < i; ++j)
      if (strcmp(actionCommands[j].name, a.name) == 0) {
        *why = what + "another action has the same name";
        return false;
      }
    if (!check(why, what + "the name", TRAP_TEXT_ACTION_NAME, a.name) ||
        !check(why, what + "the command", TRAP_TEXT_ACTION_COMMAND, a.cmd) ||
        !check(why, what + "the description", TRAP_TEXT_DESCRIPTION, a.description))
      return false;
  }
  // The reader updates a format of the same name instead of adding one.
  std::unordered_set<std::string> names;
  for (const enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next) {
    const std::string what = std::string("enterprise \"") + e->enterprise_name + "\": ";
    if (e->oid_len < 1 || e->oid_len > kMaxWrittenArcs) {
      *why = what + "its identifier has no arcs or more than 100";
      return false;
    }
    if (!check(why, what + "the name", TRAP_TEXT_ENTERPRISE_NAME, e->enterprise_name)) return false;
    for (const trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next) {
      if (!record_ok(r, why) || merged_when_read(r, why)) return false;
      if (!names.insert(r->name).second) {
        *why = std::string("trap format \"") + r->name + "\": another format has the same name";
        return false;
      }
    }
  }
  return true;
}

}  // namespace events

extern "C" EVENTS_EXPORT const char *trapTextProblem(int kind, const char *text) {
  return text_problem(kind, text);
}
