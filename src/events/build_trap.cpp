// Trap encoder: snmp_trap_infoEMS and its bindings to one SNMPv1 Trap
// message.  The message is built inside out, with the caller's buffer and
// one stack work area taking turns as scratch, so that every length is
// known before its header is written.

#include <cstring>

#include "log_trace.h"
#include "snmp.h"

namespace {

constexpr int kWorkArea = 8192;
constexpr int kIntSize = 4;

// A failure while the bindings and the trap's own fields are built is
// reported on the event logger; one in the PDU header or the envelope after
// them returns -2 without a report.
int build_failed(const char *text) {
  logger(1, "snmpBuildTrapEMS", "%s", text);
  return -2;
}

// A binding whose lengths exceed its record's arrays would be read out of
// bounds; such a binding cannot be built.
bool binding_fits(const SnmpVarBindEMS &binding) {
  if (binding.oid_length > SNMP_OID_MAX) return false;
  switch (binding.type) {
    case ASN_OCTET_STR:
      return binding.val_len <= SNMP_STRING_MAX;
    case ASN_OBJECT_ID:
      return binding.val_len <= SNMP_OID_MAX;
    default:
      return true;
  }
}

// Writes the SEQUENCE or PDU header for `length` contents at `work` and
// copies the contents behind it.  Returns the octets written, or -1.
int wrap(unsigned char *work, int type, const unsigned char *contents, int length) {
  int room = kWorkArea;
  unsigned char *p = asnBuildHeader09(work, &room, type, length);
  if (p == nullptr || room < length) return -1;
  memcpy(p, contents, static_cast<size_t>(length));
  return static_cast<int>(p - work) + length;
}

}  // namespace

/// Encodes a trap as one SNMPv1 message at out_data; returns 0 with
/// *out_length set to its length, or -2.
extern "C" EVENTS_EXPORT int snmpBuildTrapEMS(unsigned char *out_data, int *out_length,
                                              snmp_trap_infoEMS *sti, struct event_infoEMS_s *,
                                              EMSsnmpVarBind *vars) {
  unsigned char work[kWorkArea];

  int room = *out_length;
  unsigned char *p = out_data;
  for (int i = 0; i < sti->vars; ++i) {
    const SnmpVarBindEMS &binding = vars[i];
    int name_length = static_cast<int>(binding.oid_length);
    p = binding_fits(binding)
            ? build_var_op(p, binding.oid, &name_length, binding.type,
                           static_cast<int>(binding.val_len),
                           reinterpret_cast<const unsigned char *>(&binding.val), &room)
            : nullptr;
    if (p == nullptr) return build_failed("build_var_op failed");
  }
  int bindings_length = wrap(work, ASN_SEQUENCE, out_data, static_cast<int>(p - out_data));
  if (bindings_length < 0) return build_failed("build_header failed");

  room = *out_length;
  p = out_data;
  if (sti->elen > SNMP_OID_MAX ||
      (p = asnBuildObjid09(p, &room, sti->enterprise, sti->elen)) == nullptr)
    return build_failed("asnBuildObjid09 failed");
  if ((p = asnBuildIpaddressEMS(p, &room, &sti->agent, kIntSize)) == nullptr)
    return build_failed("asnBuildInt09 for agent failed");
  if ((p = asnBuildInt09(p, &room, reinterpret_cast<int32_t *>(&sti->gen), kIntSize)) == nullptr)
    return build_failed("asnBuildInt09 for generic failed");
  if ((p = asnBuildInt09(p, &room, reinterpret_cast<int32_t *>(&sti->specific), kIntSize)) ==
      nullptr)
    return build_failed("asnBuildInt09 for specific failed");
  if ((p = asnBuildTimeticksEMS(p, &room, &sti->time, kIntSize)) == nullptr)
    return build_failed("asnBuildInt09 for time failed");
  if (room < bindings_length) return build_failed("length error");
  memcpy(p, work, static_cast<size_t>(bindings_length));
  p += bindings_length;

  int pdu_length = wrap(work, SNMP_TRAP_PDU, out_data, static_cast<int>(p - out_data));
  if (pdu_length < 0) return -2;

  // A community that does not fit its array, or that would need a long-form
  // header the envelope does not count, cannot be sent.
  if (sti->clen < 0 || sti->clen >= SNMP_COMMUNITY_MAX) return -2;
  room = *out_length;
  int32_t version = 0;
  int community_length = sti->clen;
  p = auth_build(out_data, &room, sti->community, &community_length, &version, pdu_length);
  if (p == nullptr || room < pdu_length) return -2;
  memcpy(p, work, static_cast<size_t>(pdu_length));
  *out_length = static_cast<int>(p - out_data) + pdu_length;
  return 0;
}
