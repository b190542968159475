// Value printers: the short texts that stand for the pieces of a received
// trap in its display text (a binding's value and type, an identifier, the
// enterprise and community, severities, a format's node list).  Every
// routine writes within the buffer it is given and never fails: a text
// that does not fit is shortened or left out.

#include "value_format.h"

#include <arpa/inet.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "events/host_cache.h"
#include "kz_mib.h"
#include "log_trace.h"
#include "oidtree.h"

EVENTS_EXPORT int strictHex = 0;
EVENTS_EXPORT char *trpAllSourcesStr = const_cast<char *>("ALL SOURCES");

namespace {

// Label paths are shown without their common ".iso.org.dod.internet." part;
// longer ones keep their last labels within this many characters.
constexpr int kLabelPathKept = 50;
constexpr int kLabelScratch = 2048;

struct ValueFormatState {
  // Length of the skipped lead of a label path, taken once per process.
  int skipped_lead = static_cast<int>(strlen(".iso.org.dod.internet")) + 1;
};

ValueFormatState state;

int arcs_of(uint32_t length) { return static_cast<int>(std::min<uint32_t>(length, SNMP_OID_MAX)); }

// Copies `name` whole when it fits, else leaves the empty text: a cut
// enumeration or enterprise name would read as another name.
void copy_if_fits(char *buf, int buflen, const char *name) {
  size_t length = strlen(name);
  if (length < static_cast<size_t>(buflen)) memcpy(buf, name, length + 1);
}

const char *tree_name(const ObjectIdEMS *oid, int length) {
  if (oidTree == nullptr || length <= 0) return nullptr;
  return lookupOid(oid, length);
}

}  // namespace

extern "C" EVENTS_EXPORT void formatOctetString(char *buf, int buflen, unsigned char *oct, int len) {
  if (buflen <= 0) return;
  int hexdump = len < 0 ? 1 : 0;
  int hexCount = 0;
  int i = 0;
  bool ended_early = false;
  mbtowc(nullptr, nullptr, 0);
  while (i < len) {
    size_t room = std::min<size_t>(MB_CUR_MAX, static_cast<size_t>(len - i));
    wchar_t wc = 0;
    if (mbtowc(&wc, reinterpret_cast<const char *>(oct + i), room) < 1) {
      ended_early = true;
      break;
    }
    bool printable = iswprint(wc) || (strictHex == 0 && iswspace(wc));
    if (!printable) {
      ++hexCount;
      if (tracelogfp != nullptr)
        log_trace("formatOctetStr:", " %02x not a printable character, converting string to hex.",
                  static_cast<unsigned>(wc));
    }
    int step = mblen(reinterpret_cast<const char *>(oct + i), room);
    if (step < 1) {
      ended_early = true;
      break;
    }
    i += step;
  }
  // A NUL byte or a broken sequence means the bytes are not text at all.
  if (ended_early) hexCount = len;
  if (hexCount != 0 && (strictHex != 0 || hexCount > len / 2)) hexdump = 1;

  char *out = buf;
  if (hexdump && buflen >= 3) {
    memcpy(out, "0x", 2);
    out += 2;
    buflen -= 2;
  }
  i = 0;
  while (i < len && buflen >= 4) {
    if (hexdump) {
      snprintf(out, 4, i == len - 1 ? "%02x" : "%02x ", oct[i]);
      out += 3;
      buflen -= 3;
      ++i;
    } else {
      size_t room = std::min<size_t>(MB_CUR_MAX, static_cast<size_t>(len - i));
      int step = std::max(1, mblen(reinterpret_cast<const char *>(oct + i), room));
      if (step > buflen - 1) break;
      memcpy(out, oct + i, step);
      out += step;
      buflen -= step;
      i += step;
    }
  }
  *out = '\0';
}

extern "C" EVENTS_EXPORT void formatCommunity(char *buf, int buflen, snmp_trap_infoEMS *sti_ptr) {
  formatOctetString(buf, buflen, sti_ptr->community, std::min(sti_ptr->clen, SNMP_COMMUNITY_MAX));
}

extern "C" EVENTS_EXPORT void formatObjectID(char **buf_ptr, int *buflenptr, ObjectIdEMS *obj,
                                             unsigned int len, long printName) {
  if (*buflenptr <= 0) return;
  **buf_ptr = '\0';
  if (*buflenptr <= 9 || len == 0) return;
  unsigned int start = 0;
  unsigned int last = len - 1;
  auto append = [&](const char *text, int count) {
    memcpy(*buf_ptr, text, count);
    *buf_ptr += count;
    *buflenptr -= count;
    **buf_ptr = '\0';
  };
  if (printName) {
    char path[kLabelScratch];
    sprint__objid(path, sizeof path, obj, static_cast<int>(len));
    int count = static_cast<int>(strnlen(path, sizeof path));
    const char *kept = path;
    if (count > state.skipped_lead) {
      kept += state.skipped_lead;
      count -= state.skipped_lead;
    }
    if (count > 1 && count + 3 <= *buflenptr) {
      if (count > kLabelPathKept) {
        kept += count - kLabelPathKept;
        count = kLabelPathKept;
        // Keep whole labels only.
        while (count > 0 && kept[-1] != '.') {
          ++kept;
          --count;
        }
      }
      append(kept, count);
      return;
    }
    enterprise_info *enterprise = nullptr;
    find_enterprise(obj, len, &enterprise);
    if (enterprise != nullptr && enterprise->enterprise_name != nullptr) {
      int name_length = static_cast<int>(strlen(enterprise->enterprise_name));
      if (name_length + 1 < *buflenptr) {
        append(enterprise->enterprise_name, name_length);
        // The arcs after the name are counted from the name's length, not
        // from the enterprise's number of arcs.
        start = static_cast<unsigned int>(name_length);
        if (start < last) append(".", 1);
      }
    }
  }
  char arc[16];
  for (unsigned int i = start; i < last; ++i) {
    if (*buflenptr < 6) return;
    int n = snprintf(arc, sizeof arc, "%d.", static_cast<int>(obj[i]));
    append(arc, std::min(n, *buflenptr - 1));
  }
  if (*buflenptr > 5) {
    int n = snprintf(arc, sizeof arc, "%d", static_cast<int>(obj[last]));
    append(arc, std::min(n, *buflenptr - 1));
  }
}

extern "C" EVENTS_EXPORT void formatValue(char *buf, int buflen, SnmpVarBindEMS *var) {
  if (buflen <= 0) return;
  buf[0] = '\0';
  switch (var->type) {
    case ASN_INTEGER: {
      // An enumerated value is named under its variable's identifier.
      int length = arcs_of(var->oid_length);
      ObjectIdEMS named[SNMP_OID_MAX + 1];
      memcpy(named, var->oid, sizeof(ObjectIdEMS) * length);
      named[length] = static_cast<ObjectIdEMS>(var->val.integer);
      if (const char *name = tree_name(named, length + 1)) {
        copy_if_fits(buf, buflen, name);
        return;
      }
      snprintf(buf, buflen, "%d", var->val.integer);
      return;
    }
    case ASN_OCTET_STR:
    case ASN_OPAQUE:
      formatOctetString(buf, buflen, var->val.string,
                        static_cast<int>(std::min<uint32_t>(var->val_len, SNMP_STRING_MAX)));
      return;
    case ASN_NULL:
      return;
    case ASN_OBJECT_ID: {
      int length = arcs_of(var->val_len);
      if (oidTree != nullptr) {
        if (const char *name = tree_name(var->val.objid, length - 1)) {
          copy_if_fits(buf, buflen, name);
          return;
        }
      }
      formatObjectID(&buf, &buflen, var->val.objid, static_cast<unsigned>(length), 1);
      return;
    }
    case ASN_IPADDRESS:
      events::host_name_of(var->val.string, buf, buflen);
      return;
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      snprintf(buf, buflen, "%u", static_cast<uint32_t>(var->val.integer));
      return;
    default:
      snprintf(buf, buflen, "Unknown ASN.1 type: %d", var->type);
      return;
  }
}

extern "C" EVENTS_EXPORT void formatKind(char *buf, int buflen, SnmpVarBindEMS *var) {
  if (buflen <= 0) return;
  buf[0] = '\0';
  if (buflen < 30) return;
  const char *name = nullptr;
  switch (var->type) {
    case ASN_INTEGER: name = "Integer"; break;
    case ASN_OCTET_STR: name = "OctetString"; break;
    case ASN_NULL: name = "Empty"; break;
    case ASN_OBJECT_ID: name = "ObjectIdentifier"; break;
    case ASN_IPADDRESS: name = "IpAddress"; break;
    case ASN_COUNTER: name = "Counter"; break;
    case ASN_GAUGE: name = "Gauge"; break;
    case ASN_TIMETICKS: name = "Ticks"; break;
    case ASN_OPAQUE: name = "Opaque"; break;
    default:
      snprintf(buf, buflen, "Unknown type: %d ", var->type);
      return;
  }
  snprintf(buf, buflen, "%s", name);
}

extern "C" EVENTS_EXPORT void formatEnterprise(char *buf, int buflen, snmp_trap_infoEMS *sti_ptr,
                                               int as_string) {
  int length = std::clamp(sti_ptr->elen, 0, SNMP_OID_MAX);
  if (as_string) {
    if (oidTree != nullptr) {
      if (const char *name = tree_name(sti_ptr->enterprise, length)) {
        copy_if_fits(buf, buflen, name);
        return;
      }
    }
    enterprise_info *enterprise = nullptr;
    find_enterprise(sti_ptr->enterprise, static_cast<unsigned long>(length), &enterprise);
    if (enterprise != nullptr && enterprise->enterprise_name != nullptr &&
        strlen(enterprise->enterprise_name) + 1 < static_cast<size_t>(std::max(buflen, 0))) {
      strcpy(buf, enterprise->enterprise_name);
      return;
    }
  }
  formatObjectID(&buf, &buflen, sti_ptr->enterprise, static_cast<unsigned>(length), as_string);
}

namespace {

// Severity numbers and their names; "Major" above "Critical" is the
// platform's numbering.
const char *const kSeverityNames[] = {"Cleared", "Indeterminate", "Warning",
                                      "Minor",   "Critical",      "Major"};

}  // namespace

extern "C" EVENTS_EXPORT int stringToSeverity(const char *severityString) {
  for (int severity : {0, 1, 3, 2, 4, 5})
    if (strcmp(severityString, kSeverityNames[severity]) == 0) return severity;
  return 0;
}

extern "C" EVENTS_EXPORT char *severityToString(int severity) {
  if (severity < 0 || severity > 5) return const_cast<char *>("Unknown");
  return const_cast<char *>(kSeverityNames[severity]);
}

extern "C" EVENTS_EXPORT void trpFmtSprintNodes(trap_record *trap_rec_ptr, char *sourceBuf,
                                                int sourceBufLen) {
  if (sourceBufLen <= 0) return;
  sourceBuf[0] = '\0';
  if (trap_rec_ptr->nodeCnt == 0) {
    snprintf(sourceBuf, sourceBufLen, "%s", trpAllSourcesStr != nullptr ? trpAllSourcesStr : "");
    return;
  }
  size_t written = 0;
  auto append = [&](const char *text) {
    int n = snprintf(sourceBuf + written, sourceBufLen - written, "%s", text);
    written = std::min(written + n, static_cast<size_t>(sourceBufLen - 1));
  };
  for (int i = 0; i < trap_rec_ptr->nodeCnt; ++i) {
    const char *name = trap_rec_ptr->nodeList[i] != nullptr ? trap_rec_ptr->nodeList[i] : "";
    if (i > 0) append(" ");
    if (strlen(name) + written + 5 > static_cast<size_t>(sourceBufLen)) {
      append("...");
      return;
    }
    append(name);
  }
}
