// The trap and response decoders' single pass, and how a refusal is told.
//
// snmp_parse_trap and snmp_parse read a message in one pass on the inline
// readers of ber_reader.h, which say nothing.  When the pass turns a
// message down it records where it stopped: the step, and the octets that
// step had.  Only that step is then read again, on the exported BER
// primitives, which say why on the diagnostic channels as they do for any
// caller; the decoder adds its own text for the step.
#ifndef EVENTS_SRC_MESSAGE_DECODERS_H
#define EVENTS_SRC_MESSAGE_DECODERS_H

#include "ber_reader.h"
#include "binding_report.h"
#include "snmp.h"
#include "snmp_clnt.h"

namespace events::decode {

// The steps of a message, in the order they are read.
enum class Step {
  kRead,        // nothing stopped the pass
  kEnvelope,    // sequence, version, community, and the PDU's header and type
  kEnterprise,  // (traps only)
  kNumber,      // the PDU's integers: Stop::number says which, from 0
  kList,        // the binding list's header
  kBinding,
};

// Where a pass stopped: the step, and the octets [at, end) it had.
struct Stop {
  Step step = Step::kRead;
  int number = 0;
  const unsigned char *at = nullptr;
  const unsigned char *end = nullptr;

  // Records where the pass stopped; returns false, the pass's answer.
  bool set(Step stopped_at, const unsigned char *from, const unsigned char *to, int which = 0) {
    *this = {stopped_at, which, from, to};
    return false;
  }
};

// The one pass of snmp_parse_trap.  Returns false with *stop set, and the
// records possibly part-written, for a message it turns down.
// REQUIRES: sti->clen at most 127, sti->elen and sti->maxvars capacities.
bool trap(unsigned char *buf, int len, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars,
          Stop *stop);

// The one pass of snmp_parse.  A binding whose value does not decode is
// kept, marked undecoded, and reported as it is met.
// REQUIRES: response->clen 0 to 128, response->maxvars the capacity of vars.
bool response(unsigned char *data, int length, snmp_info *response, SnmpVarBindEMS *vars,
              Stop *stop);

}  // namespace events::decode

#endif
