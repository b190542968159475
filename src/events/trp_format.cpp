// The trap formatter: a received trap becomes the lines an operator, the
// daemon's log or an adapter reads, by the format configured for it in
// hubd.conf.

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "catalog_format.h"
#include "codeptcat.h"
#include "events/host_cache.h"
#include "events_msg.h"
#include "kz_mib.h"
#include "kz_platform.h"
#include "oidtree.h"
#include "trap_formatter.h"
#include "trapspec_reader.h"
#include "value_format.h"

EVENTS_EXPORT int have_read_mibtxt = 0;
EVENTS_EXPORT int have_read_mappings = 0;

namespace {

// Leading arcs of the enterprises the formatter treats specially.
constexpr ObjectIdEMS kPlatformEventOid[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3};
constexpr ObjectIdEMS kThresholdOid[] = {1, 3, 6, 1, 4, 1, 49999, 6, 12, 5, 1};
constexpr ObjectIdEMS kDkrOid[] = {1, 3, 6, 1, 4, 1, 49999, 6, 12};
constexpr ObjectIdEMS kFvnOid[] = {1, 3, 6, 1, 4, 1, 5593};

// Source letter of application source number n at position n - 1.
constexpr std::string_view kSourceLetters = "ANMTdDSOELtCIaVnsrPGoxmRFc";

constexpr int kFormatChanged = 0x3070026;  // 50790438: hubd.conf was rewritten
constexpr int kMibChanged = 0x3070027;     // 50790439: the MIB labels changed

constexpr int kHostSize = 80;
constexpr int kArgScratch = 40000;
constexpr int kTextArea = 7500;
constexpr int kTextLimit = 5000;
constexpr int kMinRoomPerLine = 100;

struct FormatterState {
  char host[kHostSize] = "";
  char args[kArgScratch];
  char text[kTextArea];
  char when[64] = "";
  time_t when_rendered = 0;
  std::string oid_file;  // getOidToLabelFile's text
};

FormatterState state;

template <size_t N>
bool has_prefix(const ObjectIdEMS *oid, const ObjectIdEMS (&prefix)[N]) {
  return oid != nullptr && memcmp(oid, prefix, sizeof prefix) == 0;
}

// Bounded appending into a caller's buffer: `out` always stays terminated
// and nothing is written past `size` bytes.
class Appender {
 public:
  Appender(char *out, int size, int used) : out_(out), size_(size), used_(used) {}
  __attribute__((format(printf, 2, 3))) void printf(const char *fmt, ...) {
    if (used_ >= size_ - 1) return;
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(out_ + used_, size_ - used_, fmt, args);
    va_end(args);
    if (n > 0) used_ = std::min(used_ + n, size_ - 1);
  }
  // Appends text[0..n), cut as printf would cut it.
  void append(const char *text, size_t n) {
    if (used_ >= size_ - 1) return;
    n = std::min(n, static_cast<size_t>(size_ - 1 - used_));
    memcpy(out_ + used_, text, n);
    used_ += static_cast<int>(n);
    out_[used_] = '\0';
  }
  void append(std::string_view text) { append(text.data(), text.size()); }
  void append(int number) {
    char digits[16];
    append(digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, number).ptr - digits));
  }
  // Appends text as printf's "%-W.Ps" does: at most `precision` bytes (all
  // when negative), then blanks up to `width`.
  void column(const char *text, int width, int precision) {
    size_t n = precision < 0 ? strlen(text) : strnlen(text, static_cast<size_t>(precision));
    append(text, n);
    static constexpr std::string_view kBlanks = "                                ";
    if (n < static_cast<size_t>(width))
      append(kBlanks.substr(0, std::min(kBlanks.size(), static_cast<size_t>(width) - n)));
  }
  int room() const { return size_ - used_; }
  int used() const { return used_; }

 private:
  char *out_;
  int size_;
  int used_;
};

// Fills a compiled template: each "%s" takes the next text, "%%" is one
// "%", anything else (a stray conversion an escape left behind, a "%s"
// with no text left) is copied as it stands.  Writes within `size` bytes
// and returns the length of the whole text.
int fill_template(char *out, int size, const char *format, const char *const *texts, int count) {
  int length = 0;
  auto put = [&](const char *p, int n) {
    if (length < size - 1) memcpy(out + length, p, std::min(n, size - 1 - length));
    length += n;
  };
  int next = 0;
  for (const char *p = format; *p != '\0';) {
    const char *percent = strchr(p, '%');
    if (percent == nullptr) {
      put(p, static_cast<int>(strlen(p)));
      break;
    }
    put(p, static_cast<int>(percent - p));
    if (percent[1] == 's' && next < count) {
      put(texts[next], static_cast<int>(strlen(texts[next])));
      ++next;
      p = percent + 2;
    } else if (percent[1] == '%') {
      put("%", 1);
      p = percent + 2;
    } else {
      put("%", 1);
      p = percent + 1;
    }
  }
  if (size > 0) out[std::min(length, size - 1)] = '\0';
  return length;
}

bool is_binding_kind(int kind) {
  return (kind >= ARG_NUM && kind <= ARG_NUM_t) || kind == ARG_NUM_L || kind == ARG_NUM_KWM;
}

// The binding at index k, or null when the caller's array does not hold
// it: the slot just past the last binding is read only within maxvars.
SnmpVarBindEMS *binding_at(snmp_trap_infoEMS *sti, SnmpVarBindEMS *vars, int k) {
  if (vars == nullptr || k < 0 || (k >= sti->vars && k >= sti->maxvars)) return nullptr;
  return &vars[k];
}

int arcs_of(uint32_t length) { return static_cast<int>(std::min<uint32_t>(length, SNMP_OID_MAX)); }

// snprintf(buffer, buflen, "%s", text) without the format machinery.
void copy_text(char *buffer, int buflen, const char *text) {
  if (buflen > 0) Appender(buffer, buflen, 0).append(text);
}

const char *tree_name(const ObjectIdEMS *oid, int length) {
  if (oidTree == nullptr || length <= 0) return nullptr;
  return lookupOid(oid, length);
}

// "$i" and "$I": the arc named under the trap's enterprise, else its number.
void write_enterprise_arc(snmp_trap_infoEMS *sti, ObjectIdEMS arc, char *buffer, int buflen) {
  int elen = std::clamp(sti->elen, 0, SNMP_OID_MAX);
  ObjectIdEMS named[SNMP_OID_MAX + 1];
  memcpy(named, sti->enterprise, sizeof(ObjectIdEMS) * elen);
  named[elen] = arc;
  if (const char *name = tree_name(named, elen + 1))
    copy_text(buffer, buflen, name);
  else
    snprintf(buffer, buflen, "%d", static_cast<int>(arc));
}

// The binding's variable named alone, when the tree knows it.
bool write_variable_name(SnmpVarBindEMS *var, char *buffer, int buflen) {
  const char *name = tree_name(var->oid, arcs_of(var->oid_length) - 1);
  if (name == nullptr) return false;
  copy_text(buffer, buflen, name);
  return true;
}

void write_lantern_time(SnmpVarBindEMS *var, char *buffer, int buflen) {
  if (var->type != ASN_INTEGER) {
    snprintf(buffer, buflen, " Type not INTEGER, cannot do LANtern time format ");
    return;
  }
  if (buflen < 30) return;
  // Seconds since 1900 as the LANtern probes count them, shifted by twelve
  // hours the way their consoles show them.
  time_t seconds = static_cast<time_t>(var->val.integer) - 2209032000LL;
  struct tm local {};
  if (localtime_r(&seconds, &local) != nullptr) strftime(buffer, buflen, "%x %X", &local);
}

}  // namespace

extern "C" EVENTS_EXPORT int isTrapJQ(int generic, unsigned int specific, ObjectIdEMS *enterprise) {
  if (enterprise == nullptr || generic != 6 || !has_prefix(enterprise, kPlatformEventOid)) return 0;
  return (specific & (1u << 25)) != 0 || (specific >= 1001 && specific <= 2000);
}

extern "C" EVENTS_EXPORT int isZXEnterprise(ObjectIdEMS *oid) {
  return has_prefix(oid, kPlatformEventOid);
}

extern "C" EVENTS_EXPORT int isDKREnterprise(ObjectIdEMS *oid) { return has_prefix(oid, kDkrOid); }

extern "C" EVENTS_EXPORT int isFVNEnterprise(ObjectIdEMS *oid) { return has_prefix(oid, kFvnOid); }

extern "C" EVENTS_EXPORT void format_arg(int arg_num, substitute_arg arg_type,
                                         snmp_trap_infoEMS *sti_ptr, char *buffer, int buflen,
                                         SnmpVarBindEMS *vars) {
  if (buflen <= 0) return;
  buffer[0] = '\0';
  int k = arg_num - 1;
  if (k > sti_ptr->vars) {
    snprintf(buffer, buflen, "Format Error: dont have arg #%d, only %d args\n", k, sti_ptr->vars);
    return;
  }
  SnmpVarBindEMS *var = binding_at(sti_ptr, vars, k);
  if (var == nullptr) return;
  int oid_length = arcs_of(var->oid_length);
  switch (arg_type) {
    case ARG_NUM:
      formatValue(buffer, buflen, var);
      return;
    case ARG_NUM_PLUS: {
      if (write_variable_name(var, buffer, buflen)) return;
      char *out = buffer;
      int room = buflen;
      formatObjectID(&out, &room, var->oid, static_cast<unsigned>(oid_length), 1);
      if (room > 1) {
        *out++ = ' ';
        --room;
        *out = '\0';
        formatValue(out, room, var);
      }
      return;
    }
    case ARG_NUM_EQ: {
      if (write_variable_name(var, buffer, buflen)) return;
      formatObjectID(&buffer, &buflen, var->oid, static_cast<unsigned>(oid_length), 1);
      return;
    }
    case ARG_NUM_t: {
      char interval[12];
      uint32_t ticks = static_cast<uint32_t>(var->val.integer);
      ICFEvtTimeInt2String(&ticks, interval);
      snprintf(buffer, buflen, "%s", interval);
      return;
    }
    case ARG_NUM_i:
      if (oid_length > 0) write_enterprise_arc(sti_ptr, var->oid[oid_length - 1], buffer, buflen);
      return;
    case ARG_NUM_I: {
      if (var->type != ASN_OBJECT_ID) {
        // The index shown counts from 0, as the daemon's log always showed it.
        snprintf(buffer, buflen, "$%d not OBJECT IDENTIFIER", k);
        return;
      }
      int value_length = arcs_of(var->val_len);
      if (value_length > 0)
        write_enterprise_arc(sti_ptr, var->val.objid[value_length - 1], buffer, buflen);
      return;
    }
    case ARG_NUM_L:
      write_lantern_time(var, buffer, buflen);
      return;
    case ARG_NUM_KWM:
      call_formatKWMcp(buffer, buflen, var, sti_ptr->vars, k);
      return;
    default: {
      // `$*` renders every binding this way: pieces are appended, not printed.
      Appender out(buffer, buflen, 0);
      out.append("[");
      out.append(arg_num);
      out.append("] ");
      int used = out.used();
      if (write_variable_name(var, buffer + used, buflen - used)) return;
      char *position = buffer + used;
      int room = buflen - used;
      formatObjectID(&position, &room, var->oid, static_cast<unsigned>(oid_length), 1);
      if (room > 10) {
        char kind[32];
        formatKind(kind, sizeof kind, var);
        Appender more(buffer, buflen, static_cast<int>(position - buffer));
        more.append(" (");
        more.append(kind);
        more.append("): ");
        formatValue(buffer + more.used(), buflen - more.used(), var);
      }
      return;
    }
  }
}

extern "C" EVENTS_EXPORT void trap_sprintf(char *buf, int size, trap_element *trap_ele_ptr,
                                           snmp_trap_infoEMS *sti_ptr, SnmpVarBindEMS *vars,
                                           char *contact, char *location, char *description) {
  if (size <= 0) return;
  buf[0] = '\0';
  const char *texts[TRAP_MAX_ARGS];
  int count = std::clamp(trap_ele_ptr->num_args, 0, TRAP_MAX_ARGS);
  char *scratch = state.args;
  int used = 0;
  const unsigned char *agent = reinterpret_cast<const unsigned char *>(&sti_ptr->agent);
  for (int i = 0; i < count; ++i) {
    const trap_arg &arg = trap_ele_ptr->arg_list[i];
    char *out = scratch + used;
    int room = kArgScratch - 2 - used;
    out[0] = '\0';
    texts[i] = out;
    if (room <= 0) {
      texts[i] = "";
      continue;
    }
    Appender text(out, room, 0);
    switch (arg.arg_type) {
      case ARG_A: events::host_name_of(agent, out, room); break;
      case ARG_a: events::dotted_quad(agent, out, room); break;
      case ARG_C: formatCommunity(out, room, sti_ptr); break;
      case ARG_E: formatEnterprise(out, room, sti_ptr, 1); break;
      case ARG_e: formatEnterprise(out, room, sti_ptr, 0); break;
      case ARG_G: text.append(static_cast<int>(sti_ptr->gen)); break;
      case ARG_S: text.append(static_cast<int>(sti_ptr->specific)); break;
      case ARG_SX: text.printf("%lx", static_cast<unsigned long>(sti_ptr->specific)); break;
      case ARG_CONTACT: if (contact) text.append(contact); break;
      case ARG_LOCATION: if (location) text.append(location); break;
      case ARG_DESC: if (description) text.append(description); break;
      case ARG_T: text.append(static_cast<int>(sti_ptr->time)); break;
      case ARG_POUND: text.append(sti_ptr->vars); break;
      case ARG_STAR:
        for (int j = 1, at = 0; j <= sti_ptr->vars; ++j) {
          if (room - at <= 1) break;
          out[at] = ' ';
          out[at + 1] = '\0';
          format_arg(j, ARG_NUM_DEF, sti_ptr, out + at + 1, room - at - 1, vars);
          Appender line(out, room, at + 1 + static_cast<int>(strlen(out + at + 1)));
          line.append("\n");
          at = line.used();
        }
        break;
      default:
        if (!is_binding_kind(arg.arg_type)) {
          snprintf(buf, size, "bad arg_type:%d\n", static_cast<int>(arg.arg_type));
          return;
        }
        if (arg.arg_num > sti_ptr->vars)
          text.printf(
              events::catalog_format(1, 2, "FMT ERROR: accessing element #%d, only %d available"),
              arg.arg_num, sti_ptr->vars);
        else
          format_arg(arg.arg_num, arg.arg_type, sti_ptr, out, room, vars);
        break;
    }
    used += static_cast<int>(strlen(out)) + 1;
  }
  const char *format = trap_ele_ptr->format != nullptr ? trap_ele_ptr->format : "";
  int length = fill_template(buf, size, format, texts, count);
  if (length >= size) snprintf(buf, size, "FMT ERROR: size (%d) exceeded %d)\n", size, length);
}

extern "C" EVENTS_EXPORT void find_trap_format(ObjectIdEMS *enterprise_oid,
                                               unsigned int enterprise_oidlen,
                                               unsigned int generic_trap,
                                               unsigned int specific_trap,
                                               trap_record **trap_rec_ptr_ptr,
                                               enterprise_info **enterprise_ptr_ptr,
                                               char *hostname) {
  enterprise_info *candidate = nullptr;
  find_enterprise(enterprise_oid, enterprise_oidlen, &candidate);
  while (candidate != nullptr) {
    trap_record *record = findExactTrapRecord(candidate, static_cast<int>(generic_trap),
                                              static_cast<int>(specific_trap), hostname);
    trap_record *first = candidate->trap_rec_list_head.next;
    if (record == nullptr && first != nullptr && first->generic_trap == -1) {
      for (record = first; record != nullptr; record = record->next)
        if (trapRecNodesMatch(record, hostname)) break;
    }
    if (record != nullptr) {
      *trap_rec_ptr_ptr = record;
      *enterprise_ptr_ptr = candidate;
      return;
    }
    candidate = candidate->next;
    find_enterprise_relative(enterprise_oid, enterprise_oidlen, &candidate);
  }
  *trap_rec_ptr_ptr = &default_trap_record;
  *enterprise_ptr_ptr = nullptr;
}

extern "C" EVENTS_EXPORT const char *getOidToLabelFile(void) {
  char *joined = _KZConcatPath(_KZconfDirName(), "oid_to_label");
  state.oid_file = joined != nullptr ? joined : "";
  free(joined);
  return state.oid_file.c_str();
}

namespace {

// Loads what the formatter needs and is not loaded yet; 2 with the reason
// in `buffer` when the MIB or the configuration cannot be read.
int load_configuration(char *buffer, int max_buffer_len) {
  if (!have_read_mibtxt) {
    have_read_mibtxt = 1;
    if (KZmib_load_mib() != 0) {
      Appender(buffer, max_buffer_len, 0)
          .printf(events::catalog_format(1, 3, "Cannot read MIB intermediate file '%s'\n"),
                  KZmib_get_mib_filename());
      return 2;
    }
  }
  if (!have_read_hubdconf) {
    have_read_hubdconf = 1;
    char *error = nullptr;
    if (read_trapspec_file(&error) != 0) {
      Appender(buffer, max_buffer_len, 0).printf("%s", error != nullptr ? error : "");
      return 2;
    }
  }
  if (!have_read_mappings) {
    oidnode *tree = parseOidFile(getOidToLabelFile());
    if (tree != nullptr) {
      if (oidTree != nullptr) oidFreeTree(oidTree);
      oidTree = tree;
      have_read_mappings = 1;
    }
  }
  return 0;
}

bool is_threshold_trap(const snmp_trap_infoEMS *sti, const SnmpVarBindEMS *vars) {
  return vars != nullptr && has_prefix(sti->enterprise, kThresholdOid) && sti->gen == 6 && sti->elen >= 11 &&
         sti->vars >= 9 && vars[8].type == ASN_OCTET_STR;
}

// The binding's OCTET STRING value as text; empty for any other type.
void copy_string_value(const SnmpVarBindEMS &var, char *out, int size) {
  out[0] = '\0';
  if (var.type != ASN_OCTET_STR) return;
  int length = static_cast<int>(std::min<uint32_t>(var.val_len, SNMP_STRING_MAX));
  length = std::min(length, size - 1);
  memcpy(out, var.val.string, length);
  out[length] = '\0';
}

// The time column, rendered once per second: traps arrive in bursts.
const char *time_text(time_t now) {
  if (now != state.when_rendered || state.when[0] == '\0') {
    struct tm local {};
    state.when[0] = '\0';
    if (localtime_r(&now, &local) != nullptr)
      strftime(state.when, sizeof state.when, "%a %b %d %H:%M:%S %Y", &local);
    state.when_rendered = now;
  }
  return state.when;
}

char source_letter(int n) {
  // Source numbers outside the letters show as "d", the platform's own.
  return n >= 1 && n <= static_cast<int>(kSourceLetters.size()) ? kSourceLetters[n - 1] : 'd';
}

}  // namespace

extern "C" EVENTS_EXPORT int trp_format(rtrap_user user_module, snmp_trap_infoEMS *sti_ptr,
                                        char *buffer, int max_buffer_len, SnmpVarBindEMS *vars,
                                        char **host_name, time_t logTime) {
  if (buffer == nullptr || max_buffer_len <= 0) return -2;
  if (int failed = load_configuration(buffer, max_buffer_len)) return failed;

  char *host = state.host;
  if (is_threshold_trap(sti_ptr, vars)) {
    copy_string_value(vars[8], host, kHostSize);
  } else {
    events::host_name_of(reinterpret_cast<const unsigned char *>(&sti_ptr->agent), host, kHostSize);
  }
  int elen = std::clamp(sti_ptr->elen, 0, SNMP_OID_MAX);
  trap_record *record = nullptr;
  enterprise_info *enterprise = nullptr;
  find_trap_format(sti_ptr->enterprise, static_cast<unsigned>(elen), sti_ptr->gen,
                   sti_ptr->specific, &record, &enterprise, host);
  if (host_name != nullptr) *host_name = host;

  char *text = state.text;
  text[0] = '\0';
  int category = record->category_number;
  char source = record->source;
  sti_ptr->status = record->status;
  sti_ptr->target = static_cast<uint32_t>(record->forward);

  if (vars != nullptr && sti_ptr->vars >= 5 &&
      isTrapJQ(static_cast<int>(sti_ptr->gen), sti_ptr->specific, sti_ptr->enterprise)) {
    // The platform's own event: its bindings carry the source, the host
    // and the text.
    copy_string_value(vars[1], host, kHostSize);
    copy_string_value(vars[2], text, kTextLimit);
    source = vars[0].type == ASN_INTEGER ? source_letter(vars[0].val.integer) : 'd';
    int specific = static_cast<int>(sti_ptr->specific);
    if (specific == kFormatChanged || specific == kMibChanged) {
      if (specific == kFormatChanged)
        have_read_hubdconf = 0;
      else
        have_read_mibtxt = 0;
      if (user_module != HUBD_USER) return -1;
      const char *notice =
          specific == kFormatChanged
              ? _eventsMsg(1, 5, const_cast<char *>(": format file updated next format"))
              : _eventsMsg(1, 4, const_cast<char *>(": MIB file updated."));
      Appender(text, kTextLimit, static_cast<int>(strlen(text))).printf("%s", notice);
    }
    if (enterprise == nullptr || enterprise->oid_len <= 6) {
      category = static_cast<int>((sti_ptr->specific >> 16) & 0xF);
      if (user_module == QMWEVENT_USER || user_module == ZXEVENTS_USER || user_module == WBX_USER) {
        if ((sti_ptr->specific & (1u << 23)) == 0) return -1;
        if (category == 1 && vars[0].val.integer == 3) return -1;
      }
    }
  } else {
    trap_sprintf(text, kTextLimit, &record->description, sti_ptr, vars, nullptr, nullptr, nullptr);
  }
  if (category == 9) return -1;
  if (user_module == QMWEVENT_USER && category == 7) return -1;

  const char *when = "";
  char lead[32] = "";
  if (user_module != RQV_USER) {
    time_t now = logTime != 0 ? logTime : time(nullptr);
    when = time_text(now);
    if (user_module == HUBD_USER)
      snprintf(lead, sizeof lead, "%-10d %-2d ", static_cast<int>(now), category);
  }
  bool no_host = strcmp(host, "<none>") == 0;
  int used = static_cast<int>(strnlen(buffer, max_buffer_len - 1));
  Appender out(buffer, max_buffer_len, used);
  // The columns before a line of the daemon's log and the default layout:
  // the lead, the time, the host, the source.
  auto columns = [&](int when_width, int host_width, int host_precision) {
    out.append(lead);
    out.column(when, when_width, when_width);
    out.append(" ");
    out.column(host, host_width, host_precision);
    out.append(" ");
    out.append(&source, 1);
    out.append(" ");
  };
  const char *line = text;
  for (bool first = true;; first = false) {
    const char *end = strchr(line, '\n');
    int length = end != nullptr ? static_cast<int>(end - line) : static_cast<int>(strlen(line));
    if (!first && out.room() < kMinRoomPerLine) return -2;
    switch (user_module) {
      case RQV_USER:
        if (!first) out.append("\t\t\t");
        if (!no_host) {
          out.append(host);
          out.append(": ");
        }
        break;
      case HUBD_USER:
        columns(first ? 24 : 25, 25, -1);
        break;
      case WBX_USER:
        break;
      default:
        if (first) columns(24, 15, 15);
        break;
    }
    out.append(line, static_cast<size_t>(length));
    out.append("\n");
    if (end == nullptr || end[1] == '\0') break;
    line = end + 1;
  }
  return category;
}
