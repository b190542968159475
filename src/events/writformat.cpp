// The write side of the trap configuration: the editor's lock on hubd.conf,
// the writer that rewrites the whole model over the locked file, the
// editing helpers and the change notice that tells hubd to reload.

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "catalog_format.h"
#include "config_backup.h"
#include "config_base.h"
#include "event.h"
#include "events_msg.h"
#include "kz_platform.h"
#include "trapspec_check.h"
#include "trapspec_writer.h"

namespace {

constexpr int kMaxWrittenArcs = 100;
constexpr int kLogSubsystem = 84;
constexpr const char *kLogCatalog = "events.cat";

struct WriterState {
  char oid_text[OID_TO_STRING_SIZE];
  char *last_warning = nullptr;  // sendFMTCHGevent's latest failure text
};
WriterState state;

std::string vformat(const char *format, va_list args) {
  va_list again;
  va_copy(again, args);
  int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length <= 0) return std::string();
  std::string text(static_cast<size_t>(length) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, args);
  text.resize(static_cast<size_t>(length));
  return text;
}

// Formats a message whose format comes from the catalog (checked above).
std::string catalog_message(int set, int number, const char *builtin, ...) {
  va_list args;
  va_start(args, builtin);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::string text = vformat(events::catalog_format(set, number, builtin), args);
#pragma GCC diagnostic pop
  va_end(args);
  return text;
}

const char *text_or_empty(const char *text) { return text != nullptr ? text : ""; }

const char *raw_text(const trap_element *element) {
  return element != nullptr ? element->rawstring : nullptr;
}

// Unlinks `record` from its enterprise's list and releases it.
void unlink_and_free(enterprise_info *enterprise, trap_record *record) {
  trap_record *previous = &enterprise->trap_rec_list_head;
  while (previous->next != nullptr && previous->next != record) previous = previous->next;
  if (previous->next == nullptr) return;
  previous->next = record->next;
  free_trap_record(record);
}

void write_header(FILE *fp) {
  // A user without a password entry is written with an empty name.
  const struct passwd *user = getpwuid(geteuid());
  if (fprintf(fp,
              "#\n# Created by qwmtrap at %s by %s\n#\n###################\n#\n"
              "# enterprises:\n#\n",
              events::creation_time().c_str(), user != nullptr ? user->pw_name : "") < 0)
    fprintf(stderr, "Cannot write to hubdconf file\n");
}

void write_categories(FILE *fp) {
  fprintf(fp, "###################\n#\n# display categories:\n#\n");
  for (int n = 0; n < EMS_MAX_CATEGORIES; ++n)
    if (EMScategories[n] != nullptr)
      fprintf(fp, "%s %d \"%s\"\n", categoryKeyword, n, EMScategories[n]);
}

void write_actions(FILE *fp) {
  if (numActionCommands == 0) return;
  fprintf(fp, "###################\n#\n# Operator Actions:\n#\n");
  for (int i = 0; i < numActionCommands; ++i) {
    const actionCmd &action = actionCommands[i];
    fprintf(fp, "%s %d \"%s\" %s\n", actionKeyword, static_cast<int>(action.waitTime),
            text_or_empty(action.name), text_or_empty(action.cmd));
    // The line break after the description is written even when the text
    // already ends with one, so such a description gains a blank line on
    // every rewrite; the reader trims it away again.
    fprintf(fp, "%s\n%s", sdescKeyword, text_or_empty(action.description));
    fprintf(fp, "\n");
    fprintf(fp, "%s\n", edescKeyword);
  }
}

// The reader puts each format with a node list in front of the earlier
// ones of its numbers, so such a run is written last first and reads back
// in the model's order.
void write_formats(FILE *out, enterprise_info *e) {
  std::vector<trap_record *> run;
  for (trap_record *r = e->trap_rec_list_head.next; r != nullptr;) {
    run.assign(1, r);
    trap_record *next = r->next;
    while (r->nodeCnt != 0 && next != nullptr && next->nodeCnt != 0 && events::same_pair(r, next)) {
      run.push_back(next);
      next = next->next;
    }
    for (auto it = run.rbegin(); it != run.rend(); ++it)
      print_trap_rec(out, *it, e->enterprise_oid, e->oid_len);
    r = next;
  }
}

// The whole file, as the writer writes it.
void write_model(FILE *out) {
  write_header(out);
  write_categories(out);
  write_actions(out);
  fprintf(out, "###################\n#\n# enterprises:\n#\n");
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next)
    fprintf(out, "%s {%s}\n", e->enterprise_name, oid_to_string(e->enterprise_oid, e->oid_len));
  fprintf(out, "#\n# User added trap formats:\n#\n");
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next)
    write_formats(out, e);
}

}  // namespace

extern "C" {

EVENTS_EXPORT FILE *lockHubdConfFile(char **errmsg) {
  *errmsg = nullptr;
  const char *path = nullptr;
  FILE *fp = fopenConfFile("r+e", &path);
  if (fp == nullptr) {
    int error = errno;
    *errmsg =
        doStrdup(catalog_message(1, 7, "Could not open configuration file \"%s\".\nError %d: %s.\n",
                                 path, error, strerror(error))
                     .c_str());
    return nullptr;
  }
  // An open-file-description lock rather than a process lock: the edit
  // cycle reads the file through a stream of its own between locking and
  // writing, and closing that stream would silently drop a process lock.
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  whole.l_start = 0;
  whole.l_len = 0;
  if (fcntl(fileno(fp), F_OFD_SETLK, &whole) == -1) {
    int error = errno;
    *errmsg = doStrdup(
        catalog_message(1, 8,
                        "Another Event Configuration process is already running.\nCould not "
                        "lock configuration file \"%s\".\nError %d: %s.\n",
                        path, error, strerror(error))
            .c_str());
    fclose(fp);
    return nullptr;
  }
  return fp;
}

EVENTS_EXPORT int write_trapspec_file(FILE *fp) {
  if (fp == nullptr) return -1;
  std::string why;
  if (!events::model_writable(&why)) {
    fprintf(stderr, "Not writing hubdconf file: %s would not read back\n", why.c_str());
    return -1;
  }
  if (events::replace_content(fp, getHubdConfFile(), events::text_written_by(write_model)) != 0) return -1;
  fclose(fp);
  return 0;
}

EVENTS_EXPORT void print_trap_rec(FILE *fp, trap_record *rec, unsigned int *oid,
                                  unsigned long oid_len) {
  const char *category = rec->category_number >= 0 && rec->category_number < EMS_MAX_CATEGORIES
                             ? EMScategories[rec->category_number]
                             : nullptr;
  fprintf(fp, "%s {%s} %d %d %c %d %d \"%s\"\n%s\n", rec->name, oid_to_string(oid, oid_len),
          rec->generic_trap, rec->specific_trap, rec->source, rec->severity, rec->status,
          text_or_empty(category), text_or_empty(rec->description.rawstring));
  if (raw_text(rec->execargs_ptr) != nullptr)
    fprintf(fp, "%s %s\n", execKeyword, rec->execargs_ptr->rawstring);
  if (raw_text(rec->exec_display_args_ptr) != nullptr)
    fprintf(fp, "%s %s\n", displayKeyword, rec->exec_display_args_ptr->rawstring);
  if (rec->forward != 0) fprintf(fp, "%s\n", forwardKeyword);
  if (rec->nodeCnt != 0) {
    fprintf(fp, "%s", nodesKeyword);
    for (int i = 0; i < rec->nodeCnt; ++i) fprintf(fp, " %s", rec->nodeList[i]);
    fprintf(fp, "\n");
  }
  if (rec->wbxClassName != nullptr) fprintf(fp, "%s %s\n", eventclassKeyword, rec->wbxClassName);
  if (rec->slotMap != nullptr) {
    fprintf(fp, "%s\n", smapKeyword);
    for (int i = 0; i < rec->slotMap->slotCnt; ++i)
      fprintf(fp, " %s %s\n", rec->slotMap->slotName[i], rec->slotMap->slotVal[i]);
    fprintf(fp, "%s\n", emapKeyword);
  }
  fprintf(fp, "%s\n", sdescKeyword);
  if (rec->trapDescription != nullptr && rec->trapDescription[0] != '\0')
    fprintf(fp, "%s\n", rec->trapDescription);
  fprintf(fp, "%s\n", edescKeyword);
}

EVENTS_EXPORT void find_exact_trap_record(enterprise_info *enterprise_info_ptr, int generic_trap,
                                          int specific_trap, trap_record **trap_rec_ptr_ptr) {
  *trap_rec_ptr_ptr = nullptr;
  for (trap_record *r = enterprise_info_ptr->trap_rec_list_head.next; r != nullptr; r = r->next) {
    if (r->generic_trap == generic_trap && r->specific_trap == specific_trap) {
      *trap_rec_ptr_ptr = r;
      return;
    }
    if (r->generic_trap > generic_trap ||
        (r->generic_trap == generic_trap && r->specific_trap > specific_trap))
      return;
  }
}

EVENTS_EXPORT int delete_trap_record(enterprise_info *enterprise_ptr, int generic, int specific) {
  trap_record *record;
  find_exact_trap_record(enterprise_ptr, generic, specific, &record);
  if (record == nullptr) return -1;
  unlink_and_free(enterprise_ptr, record);
  return 0;
}

EVENTS_EXPORT int deleteTrapRecord(char *trapName) {
  trap_record *record;
  enterprise_info *enterprise;
  if (nameToTrapAndEnterprise(trapName, &record, &enterprise) != 0) return -1;
  unlink_and_free(enterprise, record);
  return 0;
}

EVENTS_EXPORT int deleteTrapAction(char *actionTitle) {
  int found = 0;
  while (found < numActionCommands && strcmp(actionCommands[found].name, actionTitle) != 0) ++found;
  if (found == numActionCommands) return 1;
  freeAction(&actionCommands[found]);
  memmove(&actionCommands[found], &actionCommands[found + 1],
          sizeof(actionCmd) * static_cast<size_t>(numActionCommands - found - 1));
  --numActionCommands;
  if (numActionCommands == 0) {
    doFree(actionCommands);
    actionCommands = nullptr;
  } else {
    actionCommands = static_cast<actionCmd *>(
        doRealloc(actionCommands, sizeof(actionCmd) * static_cast<unsigned>(numActionCommands)));
  }
  return 0;
}

EVENTS_EXPORT int name_to_enterprise(char *name, enterprise_info **enterprise_ptr_ptr) {
  for (enterprise_info *e = enterprise_list_head.next; e != nullptr; e = e->next) {
    if (strcmp(e->enterprise_name, name) == 0) {
      *enterprise_ptr_ptr = e;
      return 0;
    }
  }
  *enterprise_ptr_ptr = nullptr;
  return -1;
}

EVENTS_EXPORT int cname_to_oid(char *name, unsigned int *oid, unsigned long *oid_len) {
  // A character the locale reads as two bytes is never a digit or a
  // separator, whatever its bytes are.
  auto width = [](const char *p) { return mblen(p, 2) == 2 ? 2 : 1; };
  auto separator = [&](const char *p) { return width(p) == 1 && strchr(" \t.,", *p) != nullptr; };
  auto digit = [&](const char *p) { return width(p) == 1 && *p >= '0' && *p <= '9'; };
  mblen(nullptr, 0);
  *oid_len = 0;
  const char *p = name;
  while (*p != '\0' && separator(p)) ++p;
  while (*p != '\0') {
    if (!digit(p)) return 1;
    unsigned int value = 0;
    while (digit(p)) value = value * 10 + static_cast<unsigned>(*p++ - '0');
    oid[(*oid_len)++] = value;
    while (*p != '\0' && separator(p)) ++p;
  }
  return 0;
}

EVENTS_EXPORT char *oid_to_string(unsigned int *oid, unsigned long oid_len) {
  char *text = state.oid_text;
  text[0] = '\0';
  // Arcs are written unsigned so that arcs above 2^31 read back as written;
  // the text is cut at its buffer, and an identifier at its 100th arc.
  size_t used = 0;
  unsigned long count = oid_len < kMaxWrittenArcs ? oid_len : kMaxWrittenArcs;
  for (unsigned long i = 0; i < count && used < sizeof state.oid_text; ++i) {
    int wrote =
        snprintf(text + used, sizeof state.oid_text - used, i + 1 < count ? "%u." : "%u", oid[i]);
    if (wrote < 0) break;
    used += static_cast<size_t>(wrote);
  }
  return text;
}

EVENTS_EXPORT int sendFMTCHGevent(char *progname, int source, char **errorMsg) {
  *errorMsg = nullptr;
  const char *file = getHubdConfFile();
  std::string notice =
      catalog_message(1, 9, "%s changed format file \"%s\"", text_or_empty(progname), file);
  event_infoEMS connection = {};
  connection.sd = -1;
  int opened =
      open_event(&connection, source & 0xffff, "/usr/KZ/sockets/hubd.socket", EVENT_TRANS_DEFAULT);
  // The log names the routine without the G of the function's name.
  KZuLogS(2, kLogSubsystem, kLogCatalog, 1, 0, "SendFMTCHevent() open event %d.\n", opened);
  const char *failed = nullptr;
  if (opened < 0) {
    failed = "connect";
  } else if (send_event(&connection, EVENT_FORMAT_CHANGED, nullptr, notice.c_str(), nullptr,
                        nullptr) != 0) {
    failed = "send";
  }
  if (failed != nullptr)
    KZuLogS(4, kLogSubsystem, kLogCatalog, 1, 0,
            "sendFMTCHevent send event completed. errRoutine is %s.\n", failed);
  KZuLogS(2, kLogSubsystem, kLogCatalog, 1, 0, "sendFMTCHevent send event() completed\n");
  close_event(&connection);
  KZuLogS(2, kLogSubsystem, kLogCatalog, 1, 0, "sendFMTCHevent close event() completed.\n");
  if (failed == nullptr) return 0;
  char warning[1024];
  events::write_error(warning, sizeof warning,
                      "Warning: %s updated, but cannot %s event to hubd.\nChanges won't take "
                      "effect until hubd and qwmevents are restarted.",
                      file, failed);
  doFree(state.last_warning);
  state.last_warning = doStrdup(warning);
  *errorMsg = state.last_warning;
  return -1;
}

}  // extern "C"
