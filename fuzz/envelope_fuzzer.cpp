// Feeds arbitrary octets to the envelope and binding decoders and decodes
// every binding value with the primitive for its type, as the request and
// trap codecs do.
#include <cstdint>
#include <cstring>
#include <vector>

#include "asn1.h"
#include "snmp.h"

namespace {

void decode_value(unsigned char *value, int room, unsigned char type) {
  int32_t integer;
  unsigned char string[512];
  ObjectIdEMS objid[128];
  int capacity;
  switch (type) {
    case ASN_INTEGER:
    case ASN_IPADDRESS:
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      asnParseIntOrIpaddr09(value, &room, &integer, 4);
      break;
    case ASN_OCTET_STR:
    case ASN_OPAQUE:
      capacity = sizeof string;
      asnParseString09(value, &room, string, &capacity);
      break;
    case ASN_OBJECT_ID:
      capacity = 128;
      asnParseObjid09(value, &room, objid, &capacity);
      break;
    case ASN_NULL:
      asnParseNull09(value, &room);
      break;
    default:
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<unsigned char> message(data, data + size);
  unsigned char *const end = message.data() + message.size();
  int length = static_cast<int>(message.size());
  unsigned char community[129];
  int community_length = 128;
  int32_t version;
  unsigned char *p = auth_parse(message.data(), &length, community, &community_length, &version);
  if (p == nullptr) {
    // Not an envelope: read the octets as a list of bindings instead.
    p = message.data();
    length = static_cast<int>(message.size());
  } else {
    unsigned char pdu_type;
    p = asnParseHeader09(p, &length, &pdu_type);
    if (p == nullptr) return 0;
  }
  while (p != nullptr && length > 0) {
    oid name[128];
    int name_length = 128;
    unsigned char type;
    int value_length;
    unsigned char *value;
    p = parse_var_op(p, name, &name_length, &type, &value_length, &value, &length);
    if (p != nullptr) decode_value(value, static_cast<int>(end - value), type);
  }
  return 0;
}
