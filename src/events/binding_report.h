// Why a variable binding does not read, told by the exported primitives.
//
// The message decoders read bindings with the inline readers of
// ber_reader.h, which say nothing; for a binding they refuse, this reads
// it again on parse_var_op and the value primitives of asn1.h, which say
// why on the diagnostic channels, and gives the decoder its own text.
#ifndef EVENTS_SRC_BINDING_REPORT_H
#define EVENTS_SRC_BINDING_REPORT_H

#include "ber_reader.h"
#include "snmp.h"

namespace events::decode {

// The failure text of a binding whose sequence, name or value header is
// not well-formed, and of a value whose type is not decoded.
extern const char kBindingShape[];
extern const char kInvalidType[];

// Reads the binding at at[0..room) again on the reporting primitives,
// which say why it does not read, and its value within what remains of
// the message up to message_end (at most 1,028 octets).  Returns
// kBindingShape, kInvalidType, another failure text for the value (which
// leaves val_len 0), or NULL if it reads.
const char *reread_binding(unsigned char *at, int room, const unsigned char *message_end,
                           SnmpVarBindEMS *binding, ber::BindingRules rules);

}  // namespace events::decode

#endif
