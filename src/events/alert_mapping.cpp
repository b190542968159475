// The alert mapping file, vorad.conf: its reader, which hangs each record's
// subvectors on the trap format of the same name, and its writer.

#include "alert_mapping.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "config_backup.h"
#include "config_base.h"
#include "config_error.h"
#include "config_line.h"
#include "kz_platform.h"
#include "model_internal.h"
#include "trapspec_writer.h"

namespace {

constexpr int kLineSize = 1024;
constexpr int kMaxArcs = 512;
constexpr int kHexDigitsMax = 8;
// The longest line the reader takes, without its line break.
constexpr size_t kMaxWrittenLine = kLineSize - 2;

enum Subvector {
  kRecommendedActions = 0x81,
  kTypedCodePoint = 0x92,
  kCodePointList = 0x93,
  kCauseFirst = 0x94,
  kCauseLast = 0x96,
  kDetailedDataOnly = 0x98,
};

struct AlertFileState {
  char path[PATH_MAX];
  int locked_fd = -1;  // the file's descriptor while the reader holds it
  char error[VORASPEC_ERROR_SIZE];
  char dot[2] = ".";  // put in front of identifiers written without one
};
AlertFileState vora;

static_assert(VORASPEC_ERROR_SIZE >= 2 * kLineSize + PATH_MAX,
              "an error text holds two lines and a path");

bool is_cause(int key) { return key >= kCauseFirst && key <= kCauseLast; }

bool valid_type(int type) {
  return type == 1 || type == 2 || type == 3 || type == 17 || type == 18;
}

const char *data_text(const detailed_data_record *entry) {
  const char *text = entry->dd_args != nullptr ? entry->dd_args->rawstring : nullptr;
  return text != nullptr ? text : "";
}

// Detailed-data fields that one code point calls for, by bits 4 to 7.
int fields_called_for(int codepoint) {
  switch (codepoint & 0xF0) {
    case 0xA0:
    case 0xB0:
      return 1;
    case 0xC0:
      return 2;
    case 0xD0:
      return 3;
    default:
      return 0;
  }
}

void free_alert_list(alert_record *record) {
  while (record != nullptr) {
    alert_record *next = record->next;
    for (int i = 0; i < record->num_detaileddata; ++i) {
      freeOptTrapElement(record->detailed_data[i]->dd_args);
      doFree(record->detailed_data[i]);
    }
    doFree(record->detailed_data);
    doFree(record->codepoints);
    doFree(record);
    record = next;
  }
}

// The numbers and texts of one record's body, in file order.
struct Body {
  std::vector<int> numbers;
  std::vector<std::string> texts;
};

bool parse_hex(const char *token, int *value) {
  size_t length = strlen(token);
  if (length == 0 || length > kHexDigitsMax || strspn(token, "0123456789abcdefABCDEF") != length)
    return false;
  *value = static_cast<int>(static_cast<uint32_t>(strtoul(token, nullptr, 16)));
  return true;
}

enum class Scan { kMore, kEnd, kBad };

// Adds one body line's numbers and texts to *body.  A text runs from a
// token that opens a double quote to the first token that closes one on the
// same line; its pieces are joined with single blanks.
Scan scan_body_line(const char *line, Body *body) {
  std::string copy(line);
  char *rest = copy.data();
  bool first = true;
  for (char *token = strtok_r(copy.data(), " \t", &rest); token != nullptr;
       token = strtok_r(nullptr, " \t", &rest), first = false) {
    if (strcmp(token, ";") == 0) return Scan::kEnd;
    int number;
    if (parse_hex(token, &number)) {
      body->numbers.push_back(number);
      continue;
    }
    if (token[0] != '"' || first) return Scan::kBad;
    std::string text(token + 1);
    while (text.empty() || text.back() != '"') {
      char *piece = strtok_r(nullptr, " \t", &rest);
      if (piece == nullptr) return Scan::kBad;
      text += ' ';
      text += piece;
    }
    text.pop_back();
    body->texts.push_back(std::move(text));
  }
  return Scan::kMore;
}

// Turns a body into the list of subvectors, ending with the all-zero
// record.  Errors name the last line read.
class ListBuilder {
 public:
  ListBuilder(const Body &body, int line_number, const char *line)
      : body_(body), line_number_(line_number), line_(line) {}
  ~ListBuilder() { free_alert_list(head_); }

  // The list, owned by the caller from now on; nullptr after an error.
  alert_record *build() {
    // A record needs one subvector at least: written back, an empty one
    // would end on its name line, which then no longer reads.
    if (body_.numbers.empty()) return fail("Invalid subvector number around line");
    bool cause_pending = false;  // a cause not yet followed by key 81
    while (next_number_ < body_.numbers.size()) {
      int key = body_.numbers[next_number_++];
      alert_record *record = append();
      record->subvector = key;
      if (is_cause(key)) {
        if (cause_pending) return fail("Recommended Actions not defined around line");
        cause_pending = true;
      } else if (key == kRecommendedActions) {
        if (!cause_pending) return fail("Cause subvector not define around line");
        cause_pending = false;
      }
      bool ok;
      switch (key) {
        case kRecommendedActions:
        case kCauseFirst:
        case kCauseFirst + 1:
        case kCauseLast:
          ok = read_codepoints(record) && read_called_data(record);
          break;
        case kTypedCodePoint:
          ok = read_typed(record);
          break;
        case kCodePointList:
          ok = read_codepoints(record);
          break;
        case kDetailedDataOnly:
          ok = read_given_data(record);
          break;
        default:
          return fail("Invalid subvector number around line");
      }
      if (!ok) return nullptr;
    }
    append();
    alert_record *list = head_;
    head_ = nullptr;
    return list;
  }

 private:
  alert_record *append() {
    auto *record = static_cast<alert_record *>(doMalloc(sizeof(alert_record)));
    if (tail_ == nullptr)
      head_ = record;
    else
      tail_->next = record;
    tail_ = record;
    return record;
  }

  alert_record *fail(const char *what) {
    events::write_error(vora.error, sizeof vora.error, "%s #%d of \"%s\": %s\n", what, line_number_,
                        vora.path, line_);
    return nullptr;
  }

  bool take(int *value) {
    if (next_number_ >= body_.numbers.size()) {
      fail("Subvector ends before its last number around line");
      return false;
    }
    *value = body_.numbers[next_number_++];
    return true;
  }

  // A count that the numbers left can satisfy at `each` numbers per item.
  bool take_count(int *count, size_t each) {
    if (!take(count)) return false;
    if (*count < 0 || static_cast<size_t>(*count) * each > body_.numbers.size() - next_number_) {
      fail("Subvector ends before its last number around line");
      return false;
    }
    return true;
  }

  bool read_codepoints(alert_record *record) {
    int count;
    if (!take_count(&count, 1)) return false;
    record->num_codepoints = count;
    record->codepoints = static_cast<int *>(doMalloc(sizeof(int) * static_cast<unsigned>(count)));
    for (int i = 0; i < count; ++i) take(&record->codepoints[i]);
    return true;
  }

  bool read_typed(alert_record *record) {
    if (!take(&record->type)) return false;
    if (!valid_type(record->type)) {
      fail("Invalid type around line");
      return false;
    }
    record->num_codepoints = 1;
    record->codepoints = static_cast<int *>(doMalloc(sizeof(int)));
    return take(&record->codepoints[0]);
  }

  // Detailed data after code points that call for it: the sum, then pairs.
  bool read_called_data(alert_record *record) {
    int sum = 0;
    for (int i = 0; i < record->num_codepoints; ++i)
      sum += fields_called_for(record->codepoints[i]);
    if (sum == 0) return true;
    int given;
    if (!take(&given)) return false;
    if (given != sum) {
      fail("Not the right number of Detailed Data subfields defined around line");
      return false;
    }
    return read_pairs(record, sum);
  }

  bool read_given_data(alert_record *record) {
    int count;
    return take_count(&count, 1) && read_pairs(record, count);
  }

  bool read_pairs(alert_record *record, int count) {
    if (static_cast<size_t>(count) > body_.numbers.size() - next_number_) {
      fail("Subvector ends before its last number around line");
      return false;
    }
    record->detailed_data = static_cast<detailed_data_record **>(
        doMalloc(sizeof(detailed_data_record *) * static_cast<unsigned>(count)));
    for (int i = 0; i < count; ++i) {
      int dataid;
      if (!take(&dataid)) return false;
      if (next_text_ >= body_.texts.size()) {
        // The texts for causes and for the other keys differ by a blank.
        fail(is_cause(record->subvector) ? "Not enough Detailed Data subfields defined around line"
                                         : "Not enough Detailed Data subfields defined aroundline");
        return false;
      }
      auto *entry = static_cast<detailed_data_record *>(doMalloc(sizeof(detailed_data_record)));
      entry->dataid = dataid;
      entry->dd_args = static_cast<trap_element *>(doMalloc(sizeof(trap_element)));
      makeFormatString(doStrdup(body_.texts[next_text_++].c_str()), entry->dd_args);
      record->detailed_data[record->num_detaileddata++] = entry;
    }
    return true;
  }

  const Body &body_;
  int line_number_;
  const char *line_;
  size_t next_number_ = 0;
  size_t next_text_ = 0;
  alert_record *head_ = nullptr;
  alert_record *tail_ = nullptr;
};

// Reads one record from its name line on; 1 when one was hung on its trap,
// 0 at the end of the file, -1 after an error.
int read_record(FILE *fp, int *line_number) {
  char line[kLineSize];
  int got = events::read_config_line(line, kLineSize, fp, line_number, vora.path, nullptr);
  if (got == 0) return 0;
  if (got < 0) {
    events::write_error(vora.error, sizeof vora.error, "Line #%d of \"%s\" too long\n",
                        *line_number, vora.path);
    return -1;
  }
  char name[kLineSize], oid_text[kLineSize + 1], extra;
  int generic;
  unsigned long specific;
  int matched =
      sscanf(line, "%s {%[^}]} %d %lu %c", name, oid_text + 1, &generic, &specific, &extra);
  if (matched != 4) {
    events::write_error(vora.error, sizeof vora.error,
                        "Bad name line in line #%d of \"%s\": %s\n(matched %d, not%d tokens)\n",
                        *line_number, vora.path, line, matched, 4);
    return -1;
  }
  const char *identifier = oid_text + 1;
  if (identifier[0] != '.') {
    oid_text[0] = vora.dot[0];
    identifier = oid_text;
  }
  ObjectIdEMS oid[kMaxArcs];
  int oid_len = kMaxArcs;
  if (KZmib_read_numeric_objid(identifier, oid, &oid_len) != 0) {
    events::write_error(vora.error, sizeof vora.error, "Bad oid char in line #%d of \"%s\": %s\n",
                        *line_number, vora.path, line);
    return -1;
  }
  enterprise_info *enterprise;
  find_enterprise(oid, static_cast<unsigned long>(oid_len), &enterprise);
  if (enterprise == nullptr) {
    events::write_error(vora.error, sizeof vora.error,
                        "No such enterprise as defined in line #%d of \"%s\": %s\n", *line_number,
                        vora.path, line);
    return -1;
  }
  if (enterprise->oid_len != static_cast<unsigned long>(oid_len)) {
    events::write_error(vora.error, sizeof vora.error,
                        "No such enterprise exact (%d vs %d) as defined in line #%d of\"%s\": %s\n",
                        static_cast<int>(enterprise->oid_len), oid_len, *line_number, vora.path,
                        line);
    return -1;
  }
  if (nameToExactTrap(name) == nullptr) {
    events::write_error(vora.error, sizeof vora.error,
                        "Did not find a matching trap name at line #%d of \"%s\"\n", *line_number,
                        vora.path);
    return -1;
  }
  Body body;
  Scan scan = Scan::kMore;
  while (scan == Scan::kMore) {
    got = events::read_config_line(line, kLineSize, fp, line_number, vora.path, nullptr);
    if (got == 0) {
      events::write_error(vora.error, sizeof vora.error,
                          "Did not find a description line in line #%d of \"%s\"\n", *line_number,
                          vora.path);
      return -1;
    }
    if (got < 0) {
      events::write_error(vora.error, sizeof vora.error, "Line #%d of \"%s\" too long\n",
                          *line_number, vora.path);
      return -1;
    }
    scan = scan_body_line(line, &body);
    if (scan == Scan::kBad) {
      events::write_error(vora.error, sizeof vora.error, "Bad char in line #%d of \"%s\": %s\n",
                          *line_number, vora.path, line);
      return -1;
    }
  }
  alert_record *list = ListBuilder(body, *line_number, line).build();
  if (list == nullptr) return -1;
  if (insert_malloc_alert_record(enterprise, name, generic, static_cast<int>(specific), list) !=
      0) {
    free_alert_list(list);
    events::write_error(vora.error, sizeof vora.error,
                        "Duplicate alert record line #%d of \"%s\": %s\n", *line_number, vora.path,
                        line);
    return -1;
  }
  return 1;
}

void release_lock(FILE *fp) {
  lockf(vora.locked_fd, F_ULOCK, 0);
  fclose(fp);
  vora.locked_fd = -1;
}

// Writes a mapping's body as tokens, starting a new line before a token
// that would take a line past what the reader takes.  Every token begins
// with a number, as a body line must.
class BodyWriter {
 public:
  explicit BodyWriter(FILE *fp) : fp_(fp) {}

  void subvector(int key) { column_ = static_cast<size_t>(fprintf(fp_, "\n%2x ", key)) - 1; }

  void token(const char *format, ...) __attribute__((format(printf, 2, 3))) {
    char text[kLineSize];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    size_t length = strlen(text);
    if (column_ > 0 && column_ + length > kMaxWrittenLine) {
      fputc('\n', fp_);
      column_ = 0;
    }
    fputs(text, fp_);
    column_ += length;
  }

  void codepoints(const alert_record *record) {
    subvector(record->subvector);
    token("%x ", record->num_codepoints);
    for (int i = 0; i < record->num_codepoints; ++i) token("%x ", record->codepoints[i]);
  }

  void detailed_data(const alert_record *record) {
    for (int i = 0; i < record->num_detaileddata; ++i) {
      const detailed_data_record *entry = record->detailed_data[i];
      token("%x \"%s\" ", entry->dataid, data_text(entry));
    }
  }

 private:
  FILE *fp_;
  size_t column_ = 0;
};

// Why the list would not read back as it is, or nullptr.
const char *alert_list_problem(const alert_record *list) {
  if (list == nullptr || list->subvector == 0) return "has no subvector";
  bool cause_pending = false;
  for (const alert_record *r = list; r != nullptr; r = r->next) {
    if (r->subvector == 0) {
      if (r->next != nullptr) return "has an empty subvector before its end";
      continue;
    }
    if (r->num_codepoints < 0 || (r->num_codepoints > 0 && r->codepoints == nullptr) ||
        r->num_detaileddata < 0 || (r->num_detaileddata > 0 && r->detailed_data == nullptr))
      return "has a subvector whose counts and contents differ";
    int called = 0;
    for (int i = 0; i < r->num_codepoints; ++i) called += fields_called_for(r->codepoints[i]);
    switch (r->subvector) {
      case kTypedCodePoint:
        if (!valid_type(r->type) || r->num_codepoints != 1 || r->num_detaileddata != 0)
          return "has a typed code point (92) that is not one code point of type 1, 2, 3, 17 or 18";
        break;
      case kCodePointList:
        if (r->num_detaileddata != 0) return "has detailed data in a code-point list (93)";
        break;
      case kRecommendedActions:
      case kCauseFirst:
      case kCauseFirst + 1:
      case kCauseLast:
        if (is_cause(r->subvector) == cause_pending)
          return cause_pending ? "has two causes without recommended actions (81) between them"
                               : "has recommended actions (81) without a cause before them";
        cause_pending = is_cause(r->subvector);
        if (r->num_detaileddata != called)
          return "has a number of detailed-data fields that its code points do not call for";
        break;
      case kDetailedDataOnly:
        break;
      default:
        return "has an unknown subvector key";
    }
    for (int i = 0; i < r->num_detaileddata; ++i) {
      const detailed_data_record *entry = r->detailed_data[i];
      if (entry == nullptr) return "has a missing detailed-data field";
      const char *text = data_text(entry);
      if (strpbrk(text, "\t\n") != nullptr || strstr(text, "  ") != nullptr ||
          strstr(text, "\" ") != nullptr)
        return "has a detailed-data text with a tab, a line break, two blanks or a quote "
               "before a blank";
      if (static_cast<size_t>(snprintf(nullptr, 0, "%x ", entry->dataid)) + strlen(text) + 3 >
          kMaxWrittenLine)
        return "has a detailed-data text too long for a line";
    }
  }
  return nullptr;
}

bool mappings_writable(std::string *why) {
  for (const enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next)
    for (const trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next) {
      const char *problem = nullptr;
      if (r->alert_element != nullptr && strcmp(r->alert_record_name, r->name) != 0)
        problem = "names another format";  // the reader hangs it by that name
      else if (r->alert_element != nullptr)
        problem = alert_list_problem(r->alert_element);
      if (problem != nullptr) {
        *why = std::string("the alert mapping of \"") + r->name + "\" " + problem;
        return false;
      }
    }
  return true;
}

void write_mappings(FILE *out) {
  fprintf(out, "#\n# Created by qwmtrap at %s\n#\n###################\n#\n",
          events::creation_time().c_str());
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next)
    for (trap_record *r = e->trap_rec_list_head.next; r != nullptr; r = r->next)
      if (r->alert_element != nullptr)
        print_vora_rec(out, r, e->enterprise_oid, static_cast<int>(e->oid_len));
}

}  // namespace

extern "C" {

EVENTS_EXPORT const char *getVoradConfFile(void) {
  const char *configured = getenv("VORAD_CONF");
  if (configured != nullptr) {
    snprintf(vora.path, sizeof vora.path, "%s", configured);
  } else {
    char *joined = _KZConcatPath(_KZconfDirName(), "vorad.conf");
    snprintf(vora.path, sizeof vora.path, "%s", joined);
    free(joined);
  }
  return vora.path;
}

EVENTS_EXPORT int open_vora_lock_file(const char *mode, FILE **fp, char **path) {
  getVoradConfFile();
  *path = vora.path;
  // Not inherited by programs the caller starts.
  *fp = fopen(vora.path, (std::string(mode) + "e").c_str());
  if (*fp == nullptr) return -1;
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  whole.l_start = 0;
  whole.l_len = 0;
  int result = fcntl(fileno(*fp), F_SETLK, &whole);
  for (unsigned pause = 2; result == -1 && errno == EACCES && pause <= 6; ++pause) {
    sleep(pause);
    result = fcntl(fileno(*fp), F_SETLK, &whole);
  }
  // Only EACCES counts as "held by another process"; any other failure is
  // taken as success.  That reads oddly on Linux, where a refused lock
  // reports EAGAIN (so a second process is not kept out) and a stream opened
  // only for reading cannot take a write lock at all (EBADF): the file is
  // still read or written, as the platform's other tools expect.
  if (result == -1 && errno == EACCES) {
    fclose(*fp);
    *fp = nullptr;
    errno = EACCES;
    return -2;
  }
  vora.locked_fd = fileno(*fp);
  return 0;
}

EVENTS_EXPORT int read_voraspec_file(char **errstring_ptr) {
  vora.error[0] = '\0';
  *errstring_ptr = vora.error;
  FILE *fp;
  char *path;
  if (open_vora_lock_file("r", &fp, &path) != 0) {
    events::write_error(vora.error, sizeof vora.error,
                        "Could not lock vora format file \"%s\": %s\n", path, strerror(errno));
    return -1;
  }
  int line_number = 0;
  int result;
  if (events::rewrite_incomplete(fp)) {
    events::write_error(
        vora.error, sizeof vora.error,
        "Incomplete file \"%s\": its writer stopped part-way; the previous content is in "
        "\"%s\"\n",
        vora.path, events::backup_path(vora.path).c_str());
    result = -1;
  } else {
    while ((result = read_record(fp, &line_number)) > 0) {
    }
  }
  release_lock(fp);
  return result;
}

EVENTS_EXPORT int insert_malloc_alert_record(enterprise_info * /*enterprise_ptr*/, char *alertname,
                                             int /*generic*/, int /*specific*/,
                                             alert_record *alert_record_ptr) {
  trap_record *trap = nameToExactTrap(alertname);
  if (trap == nullptr) return -1;
  if (alert_list_problem(alert_record_ptr) != nullptr) {
    errno = EINVAL;
    return -1;
  }
  size_t length = strnlen(alertname, TRAP_NAME_SIZE - 1);
  memcpy(trap->alert_record_name, alertname, length);
  trap->alert_record_name[length] = '\0';
  if (trap->alert_element != alert_record_ptr) delete_vora_record(trap);
  events::set_alert_list_release(free_alert_list);
  trap->alert_element = alert_record_ptr;
  return 0;
}

EVENTS_EXPORT void delete_vora_record(trap_record *trap_rec_ptr) {
  free_alert_list(trap_rec_ptr->alert_element);
  trap_rec_ptr->alert_element = nullptr;
}

EVENTS_EXPORT int write_voraspec_file(char **conffile_ptr) {
  FILE *fp;
  // Opened without truncating: the previous content is saved beside the
  // file, under the lock, before it is written over.
  int result = open_vora_lock_file("a+", &fp, conffile_ptr);
  if (result != 0) return result;
  std::string why;
  if (!mappings_writable(&why)) {
    fprintf(stderr, "Not writing alert mapping file \"%s\": %s\n", vora.path, why.c_str());
    result = -3;
  } else if (events::replace_content(fp, vora.path, events::text_written_by(write_mappings)) != 0) {
    result = -3;
  }
  release_lock(fp);
  return result;
}

EVENTS_EXPORT void print_vora_rec(FILE *fp, trap_record *trap_rec_ptr, unsigned int *oid,
                                  int oid_len) {
  fprintf(fp, "%s {%s} %d %lu ", trap_rec_ptr->alert_record_name,
          oid_to_string(oid, static_cast<unsigned long>(oid_len)), trap_rec_ptr->generic_trap,
          static_cast<unsigned long>(static_cast<unsigned>(trap_rec_ptr->specific_trap)));
  // A key 81 is written only when a cause since the last 81 calls for it;
  // the zero terminator writes nothing.
  BodyWriter body(fp);
  bool cause_pending = false;
  for (const alert_record *r = trap_rec_ptr->alert_element; r != nullptr; r = r->next) {
    switch (r->subvector) {
      case kTypedCodePoint:
        body.subvector(r->subvector);
        body.token("%x %x ", r->type, r->num_codepoints > 0 ? r->codepoints[0] : 0);
        break;
      case kCodePointList:
        body.codepoints(r);
        break;
      case kRecommendedActions:
      case kCauseFirst:
      case kCauseFirst + 1:
      case kCauseLast:
        if (!is_cause(r->subvector) && !cause_pending) break;
        cause_pending = is_cause(r->subvector);
        body.codepoints(r);
        if (r->num_detaileddata != 0) body.token("%x ", r->num_detaileddata);
        body.detailed_data(r);
        break;
      case kDetailedDataOnly:
        body.subvector(r->subvector);
        body.token("%x ", r->num_detaileddata);
        body.detailed_data(r);
        break;
      default:
        break;
    }
  }
  body.token(" ;\n");
}

}  // extern "C"
