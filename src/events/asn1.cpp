// BER primitives for SNMPv1.
//
// Decoders are bounded by the room counter: a length that announces more
// octets than remain is a reported failure, never a read past the buffer.
// Each failure is echoed on standard error (bit SNMP_TRACE_ASN1) and logged
// on the trace log; several texts differ between the two channels by a
// blank or a comma, and both are kept as the tools that read them expect.

#include "asn1.h"

#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "ber_reader.h"
#include "diagnostics.h"
#include "log_trace.h"

namespace {

constexpr int kIntSize = 4;
constexpr uint32_t kTopNineBits = 0xFF800000u;
constexpr char kLengthMismatch[] = "Decode:  ASN length and PDU length don't match";

// Longest identifier contents the encoder writes, in octets.  Nothing the
// library decodes is longer, so a longer one is refused rather than sent.
constexpr int kMaxObjidContents = ASN_MAX_OID_LEN;

// Reports a decode failure on both channels and returns NULL.
[[gnu::cold]] unsigned char *fail(const char *routine, const char *echo_text, const char *trace_text) {
  events::echo_diagnostic(SNMP_TRACE_ASN1, "asn1.c", echo_text);
  if (tracelogfp) log_trace(routine, "%s", trace_text);
  return nullptr;
}

[[gnu::cold]] unsigned char *fail(const char *routine, const char *text) {
  return fail(routine, text, text);
}

using LengthStatus = events::ber::LengthForm;

// Reads BER length octets at `data`, of which `avail` are readable.  Stores
// the length and the number of length octets.  A bad form (indefinite or
// more than four octets) is reported as asnParseLength09's own failure; a
// truncated long form is left to the caller to report.
[[gnu::always_inline]] inline LengthStatus read_length(const unsigned char *data, int64_t avail, uint32_t *length,
                         int *octets) {
  LengthStatus status = events::ber::length(data, data + (avail > 0 ? avail : 0), length, octets);
  if (status == LengthStatus::kBadForm)
    fail("asnParseLength09", data[0] == 0x80 ? "Decode:  We don't support indefinite lengths"
                                             : "Decode:  We can't support data lengths that long");
  return status;
}

// A BER element header read within the room counter.
struct Element {
  unsigned char type;
  int header_octets;  // type and length octets
  uint32_t length;    // contents octets
  // Octets of the whole element.
  int64_t size() const { return header_octets + static_cast<int64_t>(length); }
};

// Reads the type and length octets at `data` within `room` octets.
// Returns kOk, kBadForm (already reported) or kShort (no type octet, or
// length octets beyond the room).
[[gnu::always_inline]] inline LengthStatus read_element(const unsigned char *data, int room, Element *element) {
  if (room < 1) return LengthStatus::kShort;
  element->type = data[0];
  int length_octets = 0;
  LengthStatus status = read_length(data + 1, room - 1, &element->length, &length_octets);
  element->header_octets = 1 + length_octets;
  return status;
}

// Writes `count` octets of `value` from the most significant end.
unsigned char *write_big_endian(unsigned char *data, uint32_t value, int count) {
  for (int i = 0; i < count; ++i) {
    *data++ = static_cast<unsigned char>(value >> 24);
    value <<= 8;
  }
  return data;
}

// Trims `value` to the fewest octets a signed reading keeps: drops leading
// octets while the top nine bits are all zeros or all ones.  Returns the
// octet count and leaves `value` shifted so its first octet is on top.
int trim_signed(uint32_t *value) {
  int count = kIntSize;
  while (count > 1 && ((*value & kTopNineBits) == 0 || (*value & kTopNineBits) == kTopNineBits)) {
    --count;
    *value <<= 8;
  }
  return count;
}

// Writes header and `count` octets of an integer-like element; a count of
// five puts a zero octet before the four octets of `value`.
unsigned char *build_integer(unsigned char *data, int *datalength, int type, uint32_t value,
                             int count) {
  data = asnBuildHeader09(data, datalength, type, count);
  if (data == nullptr || *datalength < count) return nullptr;
  *datalength -= count;
  if (count == kIntSize + 1) {
    *data++ = 0;
    --count;
  }
  return write_big_endian(data, value, count);
}

// Octets of one sub-identifier in the minimal base-128 form (1 to 5).
int objid_arc_octets(uint32_t arc) {
  int octets = 1;
  while (octets < 5 && (arc >> (7 * octets)) != 0) ++octets;
  return octets;
}

// Echo of asnBuildObjid09's refusals, which go only to the standard streams.
unsigned char *refuse_objid(const ObjectIdEMS *objid, int objidlength, const char *text,
                            bool print_identifier) {
  if (!(snmptracemaskEMS & SNMP_TRACE_ASN1)) return nullptr;
  if (print_identifier) {
    fputs("Obj id = ", stdout);
    for (int i = 0; i < objidlength; ++i) printf(i == 0 ? "%u" : ".%u", objid[i]);
    fputc('\n', stdout);
  } else {
    printf("%d", static_cast<int>(objid[0]));
  }
  events::echo_diagnostic(SNMP_TRACE_ASN1, "asn1.c", text);
  return nullptr;
}

}  // namespace

/// Reads a type octet and length.  Returns the contents position with
/// *type set and *datalength set to the contents length, or NULL.
extern "C" EVENTS_EXPORT unsigned char *asnParseHeader09(unsigned char *data, int *datalength,
                                                         unsigned char *type) {
  if (*datalength >= 1 && (data[0] & 0x1F) == 0x1F)
    return fail("asnParseHeader09", "Decode: Can't process ID >= 30");
  Element element;
  LengthStatus status = read_element(data, *datalength, &element);
  if (status == LengthStatus::kBadForm) return nullptr;
  if (status == LengthStatus::kShort || element.size() > *datalength)
    return fail("asnParseHeader09", kLengthMismatch);
  *type = element.type;
  *datalength = static_cast<int>(element.length);
  return data + element.header_octets;
}

/// Writes a type octet and a length.  Returns the position after them.
extern "C" EVENTS_EXPORT unsigned char *asnBuildHeader09(unsigned char *data, int *datalength,
                                                         int type, int length) {
  if (*datalength <= 0) return nullptr;
  *data++ = static_cast<unsigned char>(type);
  --*datalength;
  return asnBuildLength09(data, datalength, length);
}

/// Reads length octets (short form or one to four long-form octets).
/// Returns the position after them, or NULL for indefinite or longer forms.
extern "C" EVENTS_EXPORT unsigned char *asnParseLength09(unsigned char *data, uint32_t *length) {
  int octets = 0;
  if (read_length(data, 1 + 4, length, &octets) != LengthStatus::kOk) return nullptr;
  return data + octets;
}

/// Writes a length: one octet up to 127, 0x81 up to 255, else 0x82 and the
/// low 16 bits.  Returns the position after it, or NULL if the room is short
/// (checked before writing, so nothing lands outside the room).
extern "C" EVENTS_EXPORT unsigned char *asnBuildLength09(unsigned char *data, int *datalength,
                                                         int length) {
  int octets = length > 255 ? 3 : length > 127 ? 2 : 1;
  if (*datalength < octets) {
    events::echo_diagnostic(SNMP_TRACE_ASN1, "asn1.c", "Encode:  Not enough room to build_length");
    return nullptr;
  }
  if (octets == 3) {
    *data++ = 0x82;
    *data++ = static_cast<unsigned char>(length >> 8);
  } else if (octets == 2) {
    *data++ = 0x81;
  }
  *data++ = static_cast<unsigned char>(length);
  *datalength -= octets;
  return data;
}

/// Reads an INTEGER, IpAddress, Counter, Gauge or TimeTicks of up to four
/// octets (five with a leading zero) into *intp.  Returns the position after
/// the element, or NULL.
extern "C" EVENTS_EXPORT unsigned char *asnParseInt09(unsigned char *data, int *datalength,
                                                      int32_t *intp, int intsize) {
  if (intsize != kIntSize)
    return fail("asnParseInt09", "Decode:  Output buffer for integer not 4 bytes",
                "Decode: Output buffer for integer not 4 bytes");
  if (*datalength < 1)
    return fail("asnParseInt09", kLengthMismatch, "Decode: ASN length and PDU length don't match");
  unsigned char type = data[0];
  if (type != ASN_INTEGER && (type < ASN_IPADDRESS || type > ASN_TIMETICKS))
    return fail("asnParseInt09", "Decode:  Integer not a valid integer type",
                "Decode: Integer not a valid integer type");
  Element element;
  LengthStatus status = read_element(data, *datalength, &element);
  if (status == LengthStatus::kBadForm)
    return fail("asnParseInt09", "Decode:  Bad ASN length", "Decode: Bad ASN length");
  if (status == LengthStatus::kShort || element.size() > *datalength)
    return fail("asnParseInt09", kLengthMismatch, "Decode: ASN length and PDU length don't match");
  const unsigned char *contents = data + element.header_octets;
  uint32_t length = element.length;
  if (length == kIntSize + 1 && contents[0] == 0) {
    ++contents;
    --length;
  }
  if (length > static_cast<uint32_t>(intsize)) {
    events::echo_diagnostic(SNMP_TRACE_ASN1, "asn1.c",
                            "Decode:  Received integer larger than we support");
    if (tracelogfp) {
      log_trace("asnParseInt09", "Decode:  Received integer larger than we support,");
      log_trace("asnParseInt09", "asn_length %d > intsize %d ", static_cast<int>(length), intsize);
    }
    return nullptr;
  }
  *datalength -= static_cast<int>(element.size());
  uint32_t value = (type == ASN_INTEGER && length > 0 && contents[0] > 127) ? ~0u : 0u;
  for (uint32_t i = 0; i < length; ++i) value = (value << 8) | contents[i];
  if (type == ASN_IPADDRESS) value = htonl(value);
  *intp = static_cast<int32_t>(value);
  return data + element.size();
}

/// Reads an address given either as an integer type or as an OCTET STRING
/// of up to four octets copied into *intp as they stand.
extern "C" EVENTS_EXPORT unsigned char *asnParseIntOrIpaddr09(unsigned char *data,
                                                              int *datalength, int32_t *intp,
                                                              int intsize) {
  if (intsize != kIntSize) return fail("asnParseIntOrIpaddr09", "not long");
  if (*datalength >= 1 && data[0] == ASN_OCTET_STR) {
    int capacity = intsize;
    return asnParseString09(data, datalength, reinterpret_cast<unsigned char *>(intp), &capacity);
  }
  return asnParseInt09(data, datalength, intp, intsize);
}

/// Writes an integer-like value under `asntype` in the fewest octets its
/// reading needs: signed for INTEGER, unsigned (with a leading zero octet
/// for 0xFF800000 and above) for Counter, Gauge, TimeTicks and
/// ASN_UNSIGNED_INTEGER, always four octets for IpAddress.
extern "C" EVENTS_EXPORT unsigned char *asnBuildInt09class(unsigned char *data, int *datalength,
                                                           int32_t *intp, int intsize,
                                                           int asntype) {
  if (data == nullptr || intsize != kIntSize) return nullptr;
  uint32_t value = static_cast<uint32_t>(*intp);
  int count = kIntSize;
  int type = asntype;
  switch (asntype) {
    case ASN_IPADDRESS:
      break;
    case ASN_INTEGER:
      count = trim_signed(&value);
      break;
    case ASN_UNSIGNED_INTEGER:
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      if (asntype == ASN_UNSIGNED_INTEGER) type = ASN_INTEGER;
      while (count > 1 && (value & kTopNineBits) == 0) {
        --count;
        value <<= 8;
      }
      if (count == kIntSize && (value & kTopNineBits) == kTopNineBits) count = kIntSize + 1;
      break;
    default:
      return nullptr;
  }
  return build_integer(data, datalength, type, value, count);
}

extern "C" EVENTS_EXPORT unsigned char *asnBuildInt09(unsigned char *data, int *datalength,
                                                      int32_t *intp, int intsize) {
  return asnBuildInt09class(data, datalength, intp, intsize, ASN_INTEGER);
}

namespace {

// One body for the IpAddress and TimeTicks encoders: the value is trimmed
// as a signed number, so 0.0.0.1 goes out in one octet and 0xFFFFFFFF
// ticks as the single octet 0xFF.
unsigned char *build_signed_trimmed(unsigned char *data, int *datalength, const uint32_t *intp,
                                    int intsize, int type) {
  if (data == nullptr || intsize != kIntSize) return nullptr;
  uint32_t value = *intp;
  int count = trim_signed(&value);
  return build_integer(data, datalength, type, value, count);
}

}  // namespace

extern "C" EVENTS_EXPORT unsigned char *asnBuildIpaddressEMS(unsigned char *data,
                                                             int *datalength, uint32_t *intp,
                                                             int intsize) {
  return build_signed_trimmed(data, datalength, intp, intsize, ASN_IPADDRESS);
}

extern "C" EVENTS_EXPORT unsigned char *asnBuildTimeticksEMS(unsigned char *data,
                                                             int *datalength, uint32_t *intp,
                                                             int intsize) {
  return build_signed_trimmed(data, datalength, intp, intsize, ASN_TIMETICKS);
}

/// Reads an OCTET STRING or Opaque into string[0..*strlength).  Returns the
/// position after the element with *strlength set to the octets copied.
extern "C" EVENTS_EXPORT unsigned char *asnParseString09(unsigned char *data, int *datalength,
                                                         unsigned char *string, int *strlength) {
  constexpr char kMismatch[] = "Decode:  ASN Length and PDU Length don't match";
  if (*datalength < 1) return fail("asnParseString09", kMismatch);
  if (data[0] != ASN_OCTET_STR && data[0] != ASN_OPAQUE)
    return fail("asnParseString09", "Decode: not an octet string type");
  Element element;
  LengthStatus status = read_element(data, *datalength, &element);
  if (status == LengthStatus::kBadForm) return nullptr;
  if (status == LengthStatus::kShort || element.size() > *datalength)
    return fail("asnParseString09", kMismatch);
  int length = static_cast<int>(element.length);
  if (length > *strlength) {
    if (snmptracemaskEMS & SNMP_TRACE_ASN1) {
      events::echo_diagnostic(SNMP_TRACE_ASN1, "asn1.c",
                              "Decode:  Received string longer than we support");
      fprintf(stderr, "asn_length = %d, strlength = %d\n", length, *strlength);
    }
    if (tracelogfp)
      log_trace("asnParseString09",
                "Decode:  Received string longer than we support:asn_length = %d, strlength = %d",
                length, *strlength);
    return nullptr;
  }
  memcpy(string, data + element.header_octets, static_cast<size_t>(length));
  *strlength = length;
  *datalength -= static_cast<int>(element.size());
  return data + element.size();
}

/// Writes `strlength` octets as an OCTET STRING.
extern "C" EVENTS_EXPORT unsigned char *asnBuildString09(unsigned char *data, int *datalength,
                                                         const unsigned char *string,
                                                         int strlength) {
  data = asnBuildHeader09(data, datalength, ASN_OCTET_STR, strlength);
  if (data == nullptr || *datalength < strlength) return nullptr;
  if (strlength > 0) memcpy(data, string, static_cast<size_t>(strlength));
  *datalength -= strlength;
  return data + strlength;
}

/// Reads an OBJECT IDENTIFIER into objid[0..*objidlength).  The first
/// encoded value v becomes v / 40 and v % 40, with no special case for
/// arc 2.  Returns the position after the element with *objidlength set to
/// the sub-identifiers stored.
extern "C" EVENTS_EXPORT unsigned char *asnParseObjid09(unsigned char *data, int *datalength,
                                                        ObjectIdEMS *objid, int *objidlength) {
  if (*datalength >= 1 && data[0] != ASN_OBJECT_ID)
    return fail("asnParseObjid09", "Decode:  Object ID not an object identifier type");
  Element element;
  LengthStatus status = read_element(data, *datalength, &element);
  if (status == LengthStatus::kBadForm) return nullptr;
  if (status == LengthStatus::kShort || element.size() > *datalength)
    return fail("asnParseObjid09", kLengthMismatch);
  // Every sub-identifier takes at least one octet, so this bounds the count;
  // empty contents still touch objid[1].
  int64_t length = element.length;
  if (length + 1 > *objidlength || *objidlength < 2)
    return fail("asnParseObjid09", "Decode:  Received Object ID longer than we support");
  const unsigned char *contents = data + element.header_octets;
  const unsigned char *end = contents + length;
  ObjectIdEMS *out = objid + 1;
  while (contents < end) {
    unsigned char octet = *contents++;
    // Most arcs are below 128 and take one octet.
    if (octet < 0x80) {
      *out++ = octet;
      continue;
    }
    uint64_t value = octet & 0x7F;
    do {
      if (contents == end) return fail("asnParseObjid09", kLengthMismatch);
      octet = *contents++;
      value = (value << 7) | (octet & 0x7F);
      if (value > 0x7FFFFFFFu)
        return fail("asnParseObjid09", "Decode:  Received a Sub-identifier greater than we support");
    } while (octet & 0x80);
    *out++ = static_cast<ObjectIdEMS>(value);
  }
  ObjectIdEMS first = objid[1];
  objid[1] = first % 40;
  objid[0] = first / 40;
  *objidlength = static_cast<int>(out - objid);
  *datalength -= static_cast<int>(element.size());
  return data + element.size();
}

/// Writes an OBJECT IDENTIFIER of `objidlength` sub-identifiers.  The first
/// two arcs share one octet (40 * first + second, below 128); every further
/// arc takes the minimal base-128 form.
extern "C" EVENTS_EXPORT unsigned char *asnBuildObjid09(unsigned char *data, int *datalength,
                                                        const ObjectIdEMS *objid,
                                                        int objidlength) {
  if (objidlength <= 1)
    return refuse_objid(objid, objidlength, "Encode:  Invalid Obj ID length", true);
  if (objid[0] >= 3) return refuse_objid(objid, objidlength, "objid, invalid first member", false);
  if (objid[0] * 40ull + objid[1] >= 128)
    return refuse_objid(objid, objidlength, "objid, invalid sum", true);
  // Count the contents first, then write them in place behind the header.
  int length = 1;
  for (int i = 2; i < objidlength; ++i) length += objid_arc_octets(objid[i]);
  if (length > kMaxObjidContents) return nullptr;
  data = asnBuildHeader09(data, datalength, ASN_OBJECT_ID, length);
  if (data == nullptr || *datalength < length) return nullptr;
  *data++ = static_cast<unsigned char>(objid[0] * 40 + objid[1]);
  for (int i = 2; i < objidlength; ++i) {
    uint32_t arc = objid[i];
    for (int g = objid_arc_octets(arc) - 1; g > 0; --g)
      *data++ = static_cast<unsigned char>(0x80 | ((arc >> (7 * g)) & 0x7F));
    *data++ = static_cast<unsigned char>(arc & 0x7F);
  }
  *datalength -= length;
  return data;
}

/// Reads a NULL (type 0x05, length 0).
extern "C" EVENTS_EXPORT unsigned char *asnParseNull09(unsigned char *data, int *datalength) {
  if (*datalength >= 1 && data[0] != ASN_NULL)
    return fail("asnParseNull09", "Decode:  NULL variable not a null type");
  Element element;
  LengthStatus status = read_element(data, *datalength, &element);
  if (status == LengthStatus::kBadForm) return nullptr;
  if (status == LengthStatus::kShort) return fail("asnParseNull09", kLengthMismatch);
  if (element.length != 0) return fail("asnParseNull09", "Decode:  Malformed NULL");
  *datalength -= element.header_octets;
  return data + element.header_octets;
}

/// Writes a NULL.
extern "C" EVENTS_EXPORT unsigned char *asnBuildNull09(unsigned char *data, int *datalength) {
  return asnBuildHeader09(data, datalength, ASN_NULL, 0);
}
