// Inline BER reading for the message decoders.
//
// The exported primitives of asn1.h each take a room counter through a
// pointer and report every failure; called once per element they cost
// more than the decoding itself.  These readers work on a [position, end)
// pair held in registers, accept exactly what the primitives accept, and
// report nothing: a decoder that meets a failure here reads that one step
// again with the primitives, which report it.
#ifndef EVENTS_SRC_BER_READER_H
#define EVENTS_SRC_BER_READER_H

#include <arpa/inet.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "snmp.h"

namespace events::ber {

enum class LengthForm { kOk, kBadForm, kShort };

// Reads the length octets at p, before `end`: the short form, or the long
// form with one to four octets.  Stores the length and the count of length
// octets.  Returns kBadForm for the indefinite form and longer ones, which
// nothing here reads, and kShort if the octets run past `end`.  The one
// reader of BER lengths: the codec, the receive path and the hub use it.
[[gnu::always_inline]] inline LengthForm length(const unsigned char *p, const unsigned char *end,
                                                uint32_t *length, int *octets) {
  if (end - p < 1) return LengthForm::kShort;
  uint32_t n = p[0];
  if (n < 0x80) {
    *length = n;
    *octets = 1;
    return LengthForm::kOk;
  }
  uint32_t count = n & 0x7F;
  if (count == 0 || count > 4) return LengthForm::kBadForm;
  if (end - p < static_cast<int64_t>(count) + 1) return LengthForm::kShort;
  n = 0;
  for (uint32_t i = 1; i <= count; ++i) n = (n << 8) | p[i];
  *length = n;
  *octets = static_cast<int>(count) + 1;
  return LengthForm::kOk;
}

// Reads the length octets at p, which follow a type octet the caller has
// checked.  Returns the contents position, with the contents lying wholly
// before `end`, or nullptr.
[[gnu::always_inline]] inline const unsigned char *contents(const unsigned char *p,
                                                            const unsigned char *end,
                                                            uint32_t *length) {
  uint32_t n = *p++;
  if (n == 0x81 && p < end) {
    // One length octet: every message over 127 octets opens with it.
    n = *p++;
  } else if (__builtin_expect(n >= 0x80, 0)) {
    int octets;
    if (ber::length(p - 1, end, &n, &octets) != LengthForm::kOk) return nullptr;
    p += octets - 1;
  }
  if (n > static_cast<uint64_t>(end - p)) return nullptr;
  *length = n;
  return p;
}

// Reads the type and length octets at p.  Returns the contents position,
// with the contents lying wholly before `end`, or nullptr.
[[gnu::always_inline]] inline const unsigned char *header(const unsigned char *p,
                                                          const unsigned char *end,
                                                          unsigned char *type,
                                                          uint32_t *length) {
  // Every element, a NULL included, takes at least two octets.
  if (end - p < 2 || (p[0] & 0x1F) == 0x1F) return nullptr;
  *type = p[0];
  return contents(p + 1, end, length);
}

// As header, for an element that must be of type `expected`.
[[gnu::always_inline]] inline const unsigned char *element(const unsigned char *p,
                                                           const unsigned char *end,
                                                           unsigned char expected,
                                                           uint32_t *length) {
  if (end - p < 2 || p[0] != expected) return nullptr;
  return contents(p + 1, end, length);
}

// Copies `length` octets from src, which may be read up to `readable`,
// into the array `to`.  Sixteen octets go at a time while they can be
// read, which costs a few moves where a call would cost more; the array's
// octets past `length` then hold what followed in the message.
// REQUIRES: length <= N.
template <size_t N>
[[gnu::always_inline]] inline void copy_octets(unsigned char (&to)[N], const unsigned char *src,
                                               uint32_t length, const unsigned char *readable) {
  static_assert(N % 16 == 0, "the copy goes sixteen octets at a time");
  const uint32_t rounded = (length + 15) & ~15u;
  if (rounded > static_cast<uint64_t>(readable - src)) {
    memcpy(to, src, length);
    return;
  }
  for (uint32_t i = 0; i < rounded; i += 16) memcpy(to + i, src + i, 16);
}

// Decodes integer contents p[0..length) of `type` as asnParseInt09 does.
[[gnu::always_inline]] inline bool integer(const unsigned char *p, uint32_t length,
                                           unsigned char type, int32_t *out) {
  if (type != ASN_INTEGER && (type < ASN_IPADDRESS || type > ASN_TIMETICKS)) return false;
  if (length > 4) {
    if (length != 5 || p[0] != 0) return false;
    ++p;
    --length;
  }
  uint32_t value = (type == ASN_INTEGER && length > 0 && p[0] > 127) ? ~0u : 0u;
  switch (length) {  // one step per octet, each case falling through
    case 4:
      value = (value << 8) | *p++;
      [[fallthrough]];
    case 3:
      value = (value << 8) | *p++;
      [[fallthrough]];
    case 2:
      value = (value << 8) | *p++;
      [[fallthrough]];
    case 1:
      value = (value << 8) | *p;
  }
  if (type == ASN_IPADDRESS) value = htonl(value);
  *out = static_cast<int32_t>(value);
  return true;
}

// Reads an INTEGER at p of one octet below 128 (02 01 v) or of four
// octets (02 04 v v v v), the forms that versions, error fields,
// generic-traps and request-ids nearly always take.  Returns its end, or
// nullptr for any other element, well-formed or not, and whenever fewer
// than six octets remain: the general readers take those.  Each form has
// its own branch and a fixed end, so the next element's position waits on
// no length octet.
[[gnu::always_inline]] inline const unsigned char *common_integer(const unsigned char *p,
                                                                  const unsigned char *end,
                                                                  int32_t *out) {
  if (end - p < 6 || p[0] != ASN_INTEGER) return nullptr;
  if (p[1] == 1 && p[2] < 0x80) {
    *out = p[2];
    return p + 3;
  }
  if (p[1] != 4) return nullptr;
  uint32_t value;
  memcpy(&value, p + 2, sizeof value);
  *out = static_cast<int32_t>(ntohl(value));
  return p + 6;
}

// Stores the eight octets at p as eight arcs at `arcs`.  Returns how many
// lead the first octet with its high bit set, 8 if none has it.
[[gnu::always_inline]] inline int widen_octets(const unsigned char *p, ObjectIdEMS *arcs) {
#ifdef __SSE2__
  const __m128i zero = _mm_setzero_si128();
  const __m128i octets = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p));
  const __m128i halves = _mm_unpacklo_epi8(octets, zero);
  _mm_storeu_si128(reinterpret_cast<__m128i *>(arcs), _mm_unpacklo_epi16(halves, zero));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(arcs + 4), _mm_unpackhi_epi16(halves, zero));
  const unsigned high = static_cast<unsigned>(_mm_movemask_epi8(octets)) & 0xFF;
#else
  unsigned high = 0;
  for (int i = 0; i < 8; ++i) {
    arcs[i] = p[i];
    high |= (p[i] >> 7u) << i;
  }
#endif
  return high == 0 ? 8 : __builtin_ctz(high);
}

// Decodes identifier contents p[0..length) into out[0..capacity) as
// asnParseObjid09 does; returns the count stored, or -1.  Octets from
// p + length up to `readable` may be read but do not count, which lets the
// last arcs go eight at a time too.  Empty contents, which the primitive
// answers with a quirk, are left to it.
[[gnu::always_inline]] inline int objid(const unsigned char *p, uint32_t length,
                                        const unsigned char *readable, ObjectIdEMS *out,
                                        int capacity) {
  if (length == 0 || static_cast<int64_t>(length) + 1 > capacity) return -1;
  const unsigned char *const start = p, *const end = p + length;
  // Arcs never outnumber the octets read, so eight arcs fit at any octet
  // up to this offset, and eight octets are readable there.
  const int64_t last_block = std::min<int64_t>(readable - start, capacity - 1) - 8;
  ObjectIdEMS *arc = out + 1;
  while (p < end) {
    // Most arcs are below 128 and take one octet: eight at a time are
    // stored, and those before the first octet with its high bit set are
    // kept.  Those past `end` are dropped after the loop.
    if (p - start <= last_block) {
      int singles = widen_octets(p, arc);
      p += singles;
      arc += singles;
      if (p >= end) break;
      if (singles == 8) continue;
    } else if (*p < 0x80) {
      *arc++ = *p++;
      continue;
    }
    // Arcs above 2^31 - 1 fail: up to 2^24 - 1, one more octet keeps an
    // arc within range.
    uint32_t octet = *p++;
    uint32_t value = octet & 0x7F;
    do {
      if (p == end) return -1;
      octet = *p++;
      value = (value << 7) | (octet & 0x7F);
    } while ((octet & 0x80) && value <= 0xFFFFFF);
    if (octet & 0x80) return -1;
    *arc++ = value;
  }
  arc -= p - end;
  // The first arc splits in two, first / 40 and first % 40.  Nearly every
  // identifier starts 1.3, with the octet 0x2B; for the others, the
  // division is written as the multiply that compilers otherwise emit only
  // sometimes.
  if (start[0] == 0x2B) [[likely]] {
    out[0] = 1;
    out[1] = 3;
  } else {
    const ObjectIdEMS first = out[1];
    const auto quotient = static_cast<ObjectIdEMS>((uint64_t{first} * 0xCCCCCCCDu) >> 37);
    out[0] = quotient;
    out[1] = first - quotient * 40;
  }
  return static_cast<int>(arc - out);
}

// What the binding readers take differently on purpose.  The trap and
// response decoders read bindings as they always have: a binding may hold
// octets after its value, which are then read as the next binding, and an
// empty identifier reads as one arc made from the record's second arc.
// The notification decoders, newer, take neither.
struct BindingRules {
  bool opaque;            // Opaque values read as strings
  bool null_contents;     // a NULL's contents are passed over, not refused
  bool lenient_framing;   // the two leniencies above
};
constexpr BindingRules kTrapRules{true, true, true};
constexpr BindingRules kResponseRules{false, false, true};
constexpr BindingRules kNotificationRules{true, false, false};
constexpr BindingRules kStrictRules{false, false, false};

// Decodes identifier contents as objid does; with `empty_reads_record`,
// empty contents take the record's out[1] as the encoded first arc, as the
// stepwise primitive does, and give one arc.
[[gnu::always_inline]] inline int identifier(const unsigned char *p, uint32_t length,
                                             const unsigned char *readable, ObjectIdEMS *out,
                                             int capacity, bool empty_reads_record) {
  if (__builtin_expect(length == 0, 0)) {
    if (!empty_reads_record || capacity < 2) return -1;
    const ObjectIdEMS first = out[1];
    out[0] = first / 40;
    out[1] = first % 40;
    return 1;
  }
  return objid(p, length, readable, out, capacity);
}

// Decodes the value contents p[0..length) of binding->type into binding;
// octets up to `readable` may be read.  Values of INTEGER, the application
// integer types, OCTET STRING (and Opaque by the rules), NULL and OBJECT
// IDENTIFIER are decoded.  Returns false for any other type and for
// contents out of range.
[[gnu::always_inline]] inline bool value(const unsigned char *p, uint32_t length,
                                         const unsigned char *readable, SnmpVarBindEMS *binding,
                                         BindingRules rules) {
  switch (binding->type) {
    case ASN_INTEGER:
    case ASN_IPADDRESS:
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
      binding->val_len = 4;
      return integer(p, length, binding->type, &binding->val.integer);
    case ASN_OPAQUE:
      if (!rules.opaque) return false;
      [[fallthrough]];
    case ASN_OCTET_STR:
      if (length > SNMP_STRING_MAX) return false;
      copy_octets(binding->val.string, p, length, readable);
      binding->val_len = length;
      return true;
    case ASN_NULL:
      binding->val_len = 0;
      return length == 0 || rules.null_contents;
    case ASN_OBJECT_ID: {
      int count = identifier(p, length, readable, binding->val.objid, SNMP_OID_MAX,
                             rules.lenient_framing);
      if (count < 0) return false;
      binding->val_len = static_cast<uint32_t>(count);
      return true;
    }
    default:
      return false;
  }
}

// Where a binding's parts lie: its identifier's contents, its value's
// type and contents, and its own end.
struct BindingFrame {
  const unsigned char *name;
  uint32_t name_length;
  unsigned char type;
  const unsigned char *value;
  uint32_t value_length;
  const unsigned char *end;
};

// Reads the framing of the binding at p, for a binding whose three
// lengths all take the short form, as nearly all do: its four leading
// octets are tested at once.  Returns false for any other, well-formed or
// not; `frame` reads those.
[[gnu::always_inline]] inline bool short_frame(const unsigned char *p, const unsigned char *end,
                                               BindingFrame *frame) {
  if (end - p < 4) return false;
  const uint32_t lead = p[0] | p[1] << 8 | p[2] << 16 | uint32_t{p[3]} << 24;
  // SEQUENCE and OBJECT IDENTIFIER, each with a length below 128.
  if ((lead & 0x80FF80FFu) != (ASN_SEQUENCE | ASN_OBJECT_ID << 16)) return false;
  const uint32_t length = (lead >> 8) & 0xFF, name_length = lead >> 24;
  // The value's type and length octets lie within the binding too.
  if (length > static_cast<uint64_t>(end - p - 2) || name_length + 4 > length) return false;
  const unsigned char *const value = p + 4 + name_length;
  const uint32_t value_length = value[1];
  if ((value[0] & 0x1F) == 0x1F || value_length + name_length + 4 > length) return false;
  *frame = {p + 4, name_length, value[0], value + 2, value_length, p + 2 + length};
  return true;
}

// Reads the framing of the binding at p, lengths of any form.  Returns
// false if its sequence, name or value header is not well-formed.
[[gnu::always_inline]] inline bool frame(const unsigned char *p, const unsigned char *end,
                                         BindingFrame *frame) {
  uint32_t length;
  if ((p = element(p, end, ASN_SEQUENCE, &length)) == nullptr) return false;
  frame->end = p + length;
  if ((p = element(p, frame->end, ASN_OBJECT_ID, &length)) == nullptr) return false;
  frame->name = p;
  frame->name_length = length;
  if ((p = header(p + length, frame->end, &frame->type, &length)) == nullptr) return false;
  frame->value = p;
  frame->value_length = length;
  return true;
}

// Reads one variable binding at p, name and value, into `binding`.
// Returns the position after it (after its value, under lenient framing),
// or nullptr if its sequence, name or value header is not well-formed.  A
// value that does not decode leaves the binding marked undecoded, with
// val_len 0.
[[gnu::always_inline]] inline const unsigned char *binding(const unsigned char *p,
                                                           const unsigned char *end,
                                                           SnmpVarBindEMS *binding,
                                                           BindingRules rules) {
  BindingFrame parts;
  if (!short_frame(p, end, &parts) && !frame(p, end, &parts)) return nullptr;
  int count = identifier(parts.name, parts.name_length, parts.end, binding->oid, SNMP_OID_MAX,
                         rules.lenient_framing);
  if (count < 0) return nullptr;
  binding->oid_length = static_cast<uint32_t>(count);
  const unsigned char *const value_end = parts.value + parts.value_length;
  if (!rules.lenient_framing && value_end != parts.end) return nullptr;
  binding->type = parts.type;
  binding->undecoded = !value(parts.value, parts.value_length, end, binding, rules);
  if (__builtin_expect(binding->undecoded, 0)) binding->val_len = 0;
  return rules.lenient_framing ? value_end : parts.end;
}

// What a decoder makes of a binding read.
enum class Take {
  kKeep,   // in its entry of the array
  kClaim,  // off the array: its entry takes the next binding
  kStop,   // the reading
};

// What the reading of a binding list came to.
struct ListReading {
  int count;                // bindings read, claimed ones included, or -1 if stopped
  int kept;                 // of those, the ones kept in the array
  const unsigned char *at;  // after the last one read, or on the one that stopped it
};

// Reads the bindings from p up to `end` into vars, at most `capacity` of
// them, by `rules`.  `take` sees each binding read and returns a Take.
// `undecoded` sees each binding at p whose value did not decode and
// returns whether to keep it and go on.  Bindings were left unread if
// `at` is before `end`.
template <typename Taker, typename Undecoded>
[[gnu::always_inline]] inline ListReading binding_list(const unsigned char *p,
                                                       const unsigned char *end,
                                                       SnmpVarBindEMS *vars, int capacity,
                                                       BindingRules rules, Taker take,
                                                       Undecoded undecoded) {
  int count = 0;
  int entry = 0;
  while (p < end && count < capacity) {
    SnmpVarBindEMS &binding = vars[entry];
    const unsigned char *next = ber::binding(p, end, &binding, rules);
    Take taken = Take::kStop;
    if (next != nullptr && (!binding.undecoded || undecoded(p, binding))) taken = take(binding);
    if (taken == Take::kStop) return {-1, entry, p};
    p = next;
    ++count;
    entry += taken == Take::kKeep;
  }
  return {count, entry, p};
}

// The layers of an SNMP message above its PDU's contents.
struct Message {
  int32_t version;
  const unsigned char *community;
  uint32_t community_length;
  unsigned char pdu_type;
  const unsigned char *pdu;      // the PDU's contents
  const unsigned char *pdu_end;  // and their end
};

// Reads the message sequence, version, community (an OCTET STRING or, as
// the primitives allow, an Opaque) and PDU header of buf[0..len).  The
// version is an INTEGER or, with `any_integer_version` as the stepwise
// primitives allow, any of the application integer types.  Returns false
// if they are not well-formed.
[[gnu::always_inline]] inline bool message(const unsigned char *buf, int len, Message *out,
                                           bool any_integer_version = false) {
  const unsigned char *end = buf + (len > 0 ? len : 0);
  unsigned char type;
  uint32_t length;
  const unsigned char *p = element(buf, end, ASN_SEQUENCE, &length);
  if (p == nullptr) return false;
  end = p + length;
  if (const unsigned char *next = common_integer(p, end, &out->version)) {
    p = next;
  } else {
    if ((p = header(p, end, &type, &length)) == nullptr ||
        (type != ASN_INTEGER && !any_integer_version) || !integer(p, length, type, &out->version))
      return false;
    p += length;
  }
  p = header(p, end, &type, &length);
  if (p == nullptr || (type != ASN_OCTET_STR && type != ASN_OPAQUE)) return false;
  out->community = p;
  out->community_length = length;
  if ((p = header(p + length, end, &out->pdu_type, &length)) == nullptr) return false;
  out->pdu = p;
  out->pdu_end = p + length;
  return true;
}

}  // namespace events::ber

#endif
