// The translation of an SNMPv2-Trap or InformRequest PDU into the SNMPv1
// trap record, shared by the SNMPv2c and SNMPv3 notification decoders.
#ifndef EVENTS_SRC_NOTIFICATION_H
#define EVENTS_SRC_NOTIFICATION_H

#include <cstdint>

#include "snmp.h"

namespace events {

// Translates the PDU contents p[0..pdu_end) (request-id, error-status,
// error-index, bindings) into sti and vars by the rules snmp.h gives for
// snmp_parse_notification, and stores the request-id and, when trap_oid is
// not NULL, the received snmpTrapOID.0 value (SNMP_OID_MAX arcs of room).
// The community is the caller's to fill.  Returns an SNMP_NOTIFICATION_
// result.
int translate_notification_pdu(const unsigned char *p, const unsigned char *pdu_end,
                               uint32_t source, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars,
                               int32_t *request_id, ObjectIdEMS *trap_oid,
                               int32_t *trap_oid_length);

}  // namespace events

#endif
