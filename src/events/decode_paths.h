// The two paths of the message decoders.
//
// snmp_parse_trap and snmp_parse decode a well-formed message in one pass
// on the inline readers of ber_reader.h and say nothing; anything that
// pass turns down is decoded again, step by step, on the exported BER
// primitives, which report the first failure.  The fallback is sound only
// if the one-pass decoder never accepts what the stepwise one refuses and
// agrees with it on everything it accepts: the differential fuzzer checks
// that on these functions.
//
// The one-pass decoders return false, with the records possibly part
// written, for anything they turn down; the stepwise ones return 0 or -1
// as their exported callers do.
#ifndef EVENTS_SRC_DECODE_PATHS_H
#define EVENTS_SRC_DECODE_PATHS_H

#include "snmp.h"
#include "snmp_clnt.h"

namespace events::paths {

// What the stepwise decoders of traps and of responses take differently
// in a value: Opaque (traps only), and a NULL with contents, which a
// trap takes as empty and a response keeps undecoded.
struct ValuePolicy {
  bool opaque;
  bool null_must_be_empty;
};

// The failure text of a value whose type is not decoded.
extern const char kInvalidType[];

// Decodes the binding's value at `value`, within `room` octets, by its
// type on the reporting primitives.  Returns NULL, or the failure text
// (kInvalidType for a type not decoded) with val_len 0.
const char *decode_value(unsigned char *value, int room, SnmpVarBindEMS *binding,
                         ValuePolicy policy);

// REQUIRES: sti->clen at most 127, sti->elen and sti->maxvars capacities.
bool trap_fast(const unsigned char *buf, int len, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars);
int trap_reporting(unsigned char *buf, int len, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars);

// REQUIRES: response->clen 0 to 128, response->maxvars the capacity of
// vars.  `community` holds one octet more than the record's array, for
// the envelope decoder's terminator.
bool response_fast(const unsigned char *data, int length, snmp_info *response,
                   SnmpVarBindEMS *vars);
int response_reporting(unsigned char *data, int length, snmp_info *response,
                       unsigned char *community, SnmpVarBindEMS *vars);

}  // namespace events::paths

#endif
