// SNMPv1 message envelope: SEQUENCE { version INTEGER, community OCTET
// STRING, PDU }.  The PDU itself is left to the caller.

#include "diagnostics.h"
#include "snmp.h"

namespace {

unsigned char *fail(const char *text) {
  events::echo_diagnostic(SNMP_TRACE_AUTH, "snmp_auth.c", text);
  return nullptr;
}

}  // namespace

/// Reads the envelope; returns the PDU's position, with the community
/// zero-terminated in sid and the version in *version (not judged here).
extern "C" EVENTS_EXPORT unsigned char *auth_parse(unsigned char *data, int *length,
                                                   unsigned char *sid, int *slen,
                                                   int32_t *version) {
  unsigned char type;
  data = asnParseHeader09(data, length, &type);
  if (data == nullptr) return fail("bad header");
  if (type != ASN_SEQUENCE) return fail("wrong auth header type");
  data = asnParseInt09(data, length, version, sizeof *version);
  if (data == nullptr) return fail("bad parse of version");
  data = asnParseString09(data, length, sid, slen);
  if (data == nullptr) return fail("bad parse of community");
  sid[*slen] = '\0';
  return data;
}

/// Writes the envelope for a PDU of `messagelen` octets; returns where the
/// PDU goes.  The outer length counts a one-octet version and a short-form
/// community header, which is why callers keep both small.
extern "C" EVENTS_EXPORT unsigned char *auth_build(unsigned char *data, int *length,
                                                   const unsigned char *sid, int *slen,
                                                   int32_t *version, int messagelen) {
  data = asnBuildHeader09(data, length, ASN_SEQUENCE, *slen + messagelen + 5);
  if (data == nullptr) return fail("buildheader");
  data = asnBuildInt09(data, length, version, sizeof *version);
  if (data == nullptr) return fail("buildint");
  data = asnBuildString09(data, length, sid, *slen);
  if (data == nullptr) return fail("buildstring");
  return data;
}
