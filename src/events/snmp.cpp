// Variable bindings: SEQUENCE { name OBJECT IDENTIFIER, value }.

#include <algorithm>
#include <cstring>

#include "binding_report.h"
#include "diagnostics.h"
#include "snmp.h"

namespace {

unsigned char *fail(const char *text) {
  events::echo_diagnostic(SNMP_TRACE_VARBIND, "snmp.c", text);
  return nullptr;
}

// Octets reserved in front of a binding for its short-form header.
constexpr int kShortHeader = 2;

// Writes one binding value of `type` at data within *room.  Returns the
// position after it, or NULL with *unknown_type set for a refused type.
unsigned char *build_value(unsigned char *data, int *room, unsigned char type, int val_len,
                           const unsigned char *val, bool *unknown_type) {
  switch (type) {
    case ASN_INTEGER:
    case ASN_UNSIGNED_INTEGER:
    case ASN_IPADDRESS:
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS: {
      int32_t value;
      memcpy(&value, val, sizeof value);
      return asnBuildInt09class(data, room, &value, val_len, type);
    }
    case ASN_OCTET_STR:
      return asnBuildString09(data, room, val, val_len);
    case ASN_NULL:
      return asnBuildNull09(data, room);
    case ASN_OBJECT_ID:
      return asnBuildObjid09(data, room, reinterpret_cast<const ObjectIdEMS *>(val), val_len);
    default:
      *unknown_type = true;
      return nullptr;
  }
}

}  // namespace

/// Reads one binding: its name into var_name and the position, type and
/// contents length of its value.  Returns the position after the value.
extern "C" EVENTS_EXPORT unsigned char *parse_var_op(unsigned char *data, oid *var_name,
                                                     int *var_name_len,
                                                     unsigned char *var_val_type,
                                                     int *var_val_len, unsigned char **var_val,
                                                     int *listlength) {
  int room = *listlength;
  unsigned char type;
  unsigned char *p = asnParseHeader09(data, &room, &type);
  if (p == nullptr) return fail("Cannot parse header");
  if (type != ASN_SEQUENCE) return nullptr;
  *var_name_len = ASN_MAX_OID_LEN;
  p = asnParseObjid09(p, &room, var_name, var_name_len);
  if (p == nullptr) return fail("Cannot parse objid");
  *var_val = p;
  p = asnParseHeader09(p, &room, var_val_type);
  if (p == nullptr) return fail("Cannot parse header 2");
  *var_val_len = room;
  unsigned char *end = p + room;
  *listlength -= static_cast<int>(end - data);
  return end;
}

/// Writes one binding.  The name and value go behind two reserved octets;
/// a header longer than two octets moves them back once their length is
/// known.  Returns the position after the value.
extern "C" EVENTS_EXPORT unsigned char *build_var_op(unsigned char *data, const oid *var_name,
                                                     const int *var_name_len,
                                                     unsigned char var_val_type, int var_val_len,
                                                     const unsigned char *var_val,
                                                     int *listlength) {
  // The reserved octets are charged only when the header is written.
  int room = *listlength - kShortHeader;
  if (room < 0) return fail("cannot build objid");
  unsigned char *const contents = data + kShortHeader;
  unsigned char *p = asnBuildObjid09(contents, &room, var_name, *var_name_len);
  if (p == nullptr) {
    *listlength = room + kShortHeader;
    return fail("cannot build objid");
  }
  bool unknown_type = false;
  p = build_value(p, &room, var_val_type, var_val_len, var_val, &unknown_type);
  if (p == nullptr) {
    *listlength = room + kShortHeader;
    return fail(unknown_type ? "wrong type" : "no cp");
  }
  int contents_length = static_cast<int>(p - contents);
  if (contents_length < 128) {
    data[0] = ASN_SEQUENCE;
    data[1] = static_cast<unsigned char>(contents_length);
    *listlength = room;
    return p;
  }
  unsigned char header[4];
  int header_room = contents_length > 255 ? 4 : 3;
  unsigned char *header_end = asnBuildHeader09(header, &header_room, ASN_SEQUENCE, contents_length);
  int header_length = header_end == nullptr ? 0 : static_cast<int>(header_end - header);
  int shift = header_length - kShortHeader;
  if (header_end == nullptr || room < shift) {
    *listlength = room + kShortHeader;
    return fail("cannot build header 2");
  }
  memmove(contents + shift, contents, static_cast<size_t>(contents_length));
  memcpy(data, header, static_cast<size_t>(header_length));
  *listlength = room - shift;
  return p + shift;
}

const char events::decode::kBindingShape[] = "varbind parse error";
const char events::decode::kInvalidType[] = "invalid type";

namespace {

// Decodes the binding's value at `value`, within `room` octets, by its
// type on the reporting primitives.  Returns NULL, or the failure text
// with val_len 0.
const char *decode_value(unsigned char *value, int room, SnmpVarBindEMS *binding,
                         events::ber::BindingRules rules) {
  const char *failure = nullptr;
  switch (binding->type) {
    case ASN_INTEGER:
    case ASN_IPADDRESS:
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      binding->val_len = 4;
      if (!asnParseInt09(value, &room, &binding->val.integer, 4)) failure = "varbind int parse error";
      break;
    case ASN_OPAQUE:
      if (!rules.opaque) {
        failure = events::decode::kInvalidType;
        break;
      }
      [[fallthrough]];
    case ASN_OCTET_STR: {
      int capacity = SNMP_STRING_MAX;
      if (!asnParseString09(value, &room, binding->val.string, &capacity))
        failure = "varbind string parse error";
      binding->val_len = static_cast<uint32_t>(capacity);
      break;
    }
    case ASN_NULL:
      if (!rules.null_contents && binding->val_len != 0) failure = "varbind null parse error";
      binding->val_len = 0;
      break;
    case ASN_OBJECT_ID: {
      int capacity = SNMP_OID_MAX;
      if (!asnParseObjid09(value, &room, binding->val.objid, &capacity))
        failure = "varbind objid parse error";
      binding->val_len = static_cast<uint32_t>(capacity);
      break;
    }
    default:
      failure = events::decode::kInvalidType;
  }
  if (failure != nullptr) binding->val_len = 0;  // not the raw length, which may exceed the record
  return failure;
}

}  // namespace

const char *events::decode::reread_binding(unsigned char *at, int room,
                                           const unsigned char *message_end,
                                           SnmpVarBindEMS *binding, ber::BindingRules rules) {
  // Each value is decoded with this much room, never more than the message holds.
  constexpr int kValueRoom = 1028;
  int name_length = SNMP_OID_MAX;
  int value_length = 0;
  unsigned char *value = nullptr;
  if (parse_var_op(at, binding->oid, &name_length, &binding->type, &value_length, &value,
                   &room) == nullptr)
    return kBindingShape;
  binding->oid_length = static_cast<uint32_t>(name_length);
  binding->val_len = static_cast<uint32_t>(value_length);
  return decode_value(value, std::min<int>(kValueRoom, static_cast<int>(message_end - value)),
                      binding, rules);
}
