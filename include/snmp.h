/* SNMPv1 message layers and the trap codec.
 *
 * The envelope (SEQUENCE { version, community, PDU }) and the variable
 * binding (SEQUENCE { name, value }) sit on the BER primitives of asn1.h and
 * share their conventions: positions in, next position or NULL out, room
 * counters lowered by what was consumed.  Envelope diagnostics go to
 * standard error as "snmp_auth.c: ..." with bit SNMP_TRACE_AUTH set, binding
 * diagnostics as "snmp.c: ..." with SNMP_TRACE_VARBIND.
 *
 * The trap codec turns one SNMPv1 Trap message into the fixed-size record
 * snmp_trap_infoEMS plus a caller-owned array of SnmpVarBindEMS, and back.
 * Neither direction allocates. */
#ifndef EVENTS_SNMP_H
#define EVENTS_SNMP_H

#include <stdint.h>

#include "asn1.h"
#include "events_export.h"

EVENTS_BEGIN_DECLS

/* A sub-identifier, as the envelope and binding layers name it; left out
 * beside net-snmp, whose oid is wider. */
#ifndef EVENTS_BESIDE_NETSNMP
typedef uint32_t oid;
#endif

/* Trap-PDU type octet. */
#define SNMP_TRAP_PDU 0xA4

/* Capacities of the fixed records. */
#define SNMP_COMMUNITY_MAX 128
#define SNMP_OID_MAX 128
#define SNMP_STRING_MAX 512

/* One SNMPv1 trap.  Before decoding, clen, elen and maxvars hold the
 * capacities (clen at most 127, leaving room for the terminator). */
typedef struct {
  unsigned char community[SNMP_COMMUNITY_MAX]; /* zero-terminated by the decoder */
  int32_t clen;                                /* community octets */
  ObjectIdEMS enterprise[SNMP_OID_MAX];
  int32_t elen;                                /* sub-identifiers in enterprise */
  uint32_t agent;    /* agent address; its octets lie in memory in wire order */
  uint32_t time;     /* time-stamp, hundredths of a second */
  uint32_t gen;      /* generic-trap number, 0 to 6 */
  uint32_t specific; /* specific-trap number */
  int32_t vars;      /* bindings held in the caller's array */
  int32_t maxvars;   /* capacity of that array */
  int32_t status;    /* application's word; the codec leaves it alone */
  uint32_t target;   /* application's word; the codec leaves it alone */
} snmp_trap_infoEMS;

/* One variable binding.  val_len is 4 for integer types, octets for
 * strings (not terminated; the octets past val_len are unspecified) and
 * sub-identifiers for identifiers.
 * A decoder that keeps a binding without its value (a type it does not
 * decode, or a value that fails to decode: see snmp_parse in snmp_clnt.h)
 * keeps the type, sets val_len to 0 and `undecoded` to 1; val then holds
 * nothing.  Every decoded binding has undecoded 0; encoders ignore it. */
typedef struct {
  ObjectIdEMS oid[SNMP_OID_MAX];
  uint32_t oid_length;
  unsigned char type;      /* BER type octet of the value */
  unsigned char undecoded; /* 1: the value was not decoded */
  union {
    int32_t integer;
    unsigned char string[SNMP_STRING_MAX];
    ObjectIdEMS objid[SNMP_OID_MAX];
  } val;
  uint32_t val_len;
} SnmpVarBindEMS;
typedef SnmpVarBindEMS EMSsnmpVarBind;

/* The same layout on 32-bit and 64-bit hosts. */
EVENTS_STATIC_ASSERT(sizeof(snmp_trap_infoEMS) == 680, "snmp_trap_infoEMS layout");
EVENTS_STATIC_ASSERT(sizeof(SnmpVarBindEMS) == 1036, "SnmpVarBindEMS layout");

struct event_infoEMS_s;

/* Message envelope.
 * auth_parse reads version and community and returns the PDU's position;
 * *length becomes the message's contents length.  *slen is the capacity of
 * `sid` on input and the community length on output.
 * REQUIRES: sid holds *slen + 1 octets (the community is zero-terminated).
 * auth_build writes the envelope for a PDU of `messagelen` octets that the
 * caller places at the returned position.
 * REQUIRES: a community under 128 octets and a version under 128. */
EVENTS_EXPORT unsigned char *auth_parse(unsigned char *data, int *length, unsigned char *sid,
                                        int *slen, int32_t *version);
EVENTS_EXPORT unsigned char *auth_build(unsigned char *data, int *length,
                                        const unsigned char *sid, int *slen,
                                        int32_t *version, int messagelen);

/* Variable bindings.
 * parse_var_op reads one binding's name into var_name (up to 128
 * sub-identifiers, whatever *var_name_len says) and points *var_val at the
 * value's type octet; the value is left for the caller to decode.
 * REQUIRES: var_name holds 128 sub-identifiers.
 * build_var_op writes one binding; values of INTEGER, ASN_UNSIGNED_INTEGER,
 * IpAddress, Counter, Gauge and TimeTicks are read as an int32_t at var_val,
 * OCTET STRING as var_val_len octets, OBJECT IDENTIFIER as var_val_len
 * sub-identifiers; NULL has no value.  Opaque and other types are refused. */
EVENTS_EXPORT unsigned char *parse_var_op(unsigned char *data, ObjectIdEMS *var_name,
                                          int *var_name_len, unsigned char *var_val_type,
                                          int *var_val_len, unsigned char **var_val,
                                          int *listlength);
EVENTS_EXPORT unsigned char *build_var_op(unsigned char *data, const ObjectIdEMS *var_name,
                                          const int *var_name_len, unsigned char var_val_type,
                                          int var_val_len, const unsigned char *var_val,
                                          int *listlength);

/* Trap codec.
 * snmpBuildTrapEMS encodes sti and its first sti->vars bindings as one
 * SNMPv1 Trap message (version 0) at out_data.  On input *out_length is the
 * room at out_data; returns 0 with *out_length set to the message length,
 * or -2 (out_data then holds scratch).  PDUs above 8,192 octets cannot be
 * built.  `ei` is not used.
 *
 * snmp_parse_trap decodes the message buf[0..len) into sti and vars.
 * REQUIRES: sti->clen, sti->elen and sti->maxvars hold the capacities.
 * Returns 0, or -1 after reporting the failure on standard error and the
 * trace log.  At most maxvars bindings are decoded; a binding naming the
 * notification-address variable moves its address into sti->agent and is
 * not counted.  `ei` is not used.
 * The decoder writes the lengths it found back into clen and elen, so they
 * are no longer capacities afterwards: a caller decoding into the same
 * record again, as a receive loop does, sets the capacities anew each time
 * (snmp_trap_reset_capacities), or a later trap with a longer community or
 * enterprise fails.
 *
 * snmp_trap_reset_capacities sets clen to 127, elen to 128 and maxvars to
 * `maxvars`, the caller's binding array size: the largest capacities.
 *
 * The agent address has two forms.  The decoder leaves sti->agent with its
 * octets in memory in wire order (10.1.2.3 is the octets 10, 1, 2, 3, as
 * in a struct in_addr), while the encoder reads sti->agent as a number in
 * host order (0x0A010203).  A relay that re-sends a decoded trap converts
 * first: sti->agent = snmp_trap_agent_for_encoder(sti), which is ntohl of
 * the decoded value.  IpAddress bindings (type 0x40) take the same two
 * forms in val.integer, and a relay converts each of them with ntohl too. */
EVENTS_EXPORT int snmpBuildTrapEMS(unsigned char *out_data, int *out_length,
                                   snmp_trap_infoEMS *sti, struct event_infoEMS_s *ei,
                                   EMSsnmpVarBind *vars);
EVENTS_EXPORT int snmp_parse_trap(unsigned char *buf, int len, snmp_trap_infoEMS *sti,
                                  struct event_infoEMS_s *ei, EMSsnmpVarBind *vars);
EVENTS_EXPORT void snmp_trap_reset_capacities(snmp_trap_infoEMS *sti, int maxvars);
EVENTS_EXPORT uint32_t snmp_trap_agent_for_encoder(const snmp_trap_infoEMS *sti);

/* SNMPv2c notifications.
 *
 * snmp_parse_notification decodes what an agent sends to a trap port: an
 * SNMPv1 Trap message, decoded exactly as snmp_parse_trap decodes it, or an
 * SNMPv2c message holding an SNMPv2-Trap or an InformRequest PDU, whose
 * notification is translated into the same SNMPv1 record.  The first two
 * bindings must be sysUpTime.0 (TimeTicks) and snmpTrapOID.0 (OBJECT
 * IDENTIFIER); then
 *   enterprise  for the standard traps snmpTraps.N (1.3.6.1.6.3.1.1.5.N,
 *               N = 1 to 6) the value of snmpTrapEnterprise.0 if present,
 *               else snmpTraps; otherwise the trap identifier without its
 *               last arc, and without the arc before it when that is 0;
 *   generic     N - 1 for the standard traps, else 6;
 *   specific    0 for the standard traps, else the identifier's last arc;
 *   time        the value of sysUpTime.0;
 *   agent       the value of snmpTrapAddress.0 if present, else `source`;
 *   bindings    every binding after the first two, in order, at most
 *               maxvars of them, but without snmpTrapEnterprise.0, as
 *               net-snmp's translation does, so that the bindings number
 *               alike whichever version the agent sent (the reverse
 *               translation appends it).
 * A notification names no agent address of its own.  Unless a proxy put
 * snmpTrapAddress.0 in it, the best answer is the address it came from:
 * a receiver passes the datagram's source as `source` (octets in wire
 * order, as in sti->agent), or 0 for 0.0.0.0.
 * `about` (NULL when not wanted) receives the version, the PDU type (0
 * when the envelope cannot be read), for SNMPv2c the request-id, and the
 * notification's identifier, as far as the message could be read: with
 * the community in sti, what an inform's answer needs.  The identifier is
 * the one received; rebuilt from the SNMPv1 record it could differ
 * (enterprise.0.specific for a received enterprise.specific).
 * snmp_build_inform_response writes that answer.
 * REQUIRES: sti->clen, sti->elen and sti->maxvars hold the capacities.
 * Returns SNMP_NOTIFICATION_OK or one of the failures below; only the
 * SNMPv1 path reports on standard error.  snmp_notification_error names a
 * result.
 *
 * snmp_build_inform_response writes at out the Response message that
 * acknowledges the InformRequest message inform[0..inform_len): the same
 * community, request-id and bindings, error-status and error-index 0.  On
 * input *out_length is the room at out; returns 0 with *out_length set to
 * the message length, -1 if `inform` is not an SNMPv2c InformRequest, or
 * -2 if the room is too small.
 *
 * snmp_notification_oid writes the snmpTrapOID.0 value that stands for an
 * SNMPv1 trap: snmpTraps.(generic + 1) for generic 0 to 5, else the
 * enterprise, 0 and the specific number.  Returns the number of
 * sub-identifiers written, or -1 if they exceed `capacity` or generic is
 * above 6. */
#define SNMP_MESSAGE_V1 0
#define SNMP_MESSAGE_V2C 1
#define SNMP_INFORM_PDU 0xA6
#define SNMP_TRAP2_PDU 0xA7
#define SNMP_RESPONSE_PDU 0xA2
#ifndef EVENTS_BESIDE_NETSNMP
#define ASN_COUNTER64 0x46
#endif

#define SNMP_NOTIFICATION_OK 0
#define SNMP_NOTIFICATION_MALFORMED (-1)       /* not well-formed BER, or cut short */
#define SNMP_NOTIFICATION_NOT_NOTIFICATION (-2) /* another version or PDU type */
#define SNMP_NOTIFICATION_BAD_TRAP_OID (-3)    /* first bindings wrong, or no SNMPv1 form */
#define SNMP_NOTIFICATION_COUNTER64 (-4)       /* a Counter64 binding: no SNMPv1 form */

typedef struct {
  int32_t version;    /* SNMP_MESSAGE_V1 or SNMP_MESSAGE_V2C */
  int32_t pdu_type;   /* SNMP_TRAP_PDU, SNMP_TRAP2_PDU or SNMP_INFORM_PDU */
  int32_t request_id; /* SNMPv2c only; 0 for an SNMPv1 trap */
  /* The notification's identifier: snmpTrapOID.0 as received, or for an
   * SNMPv1 trap the one snmp_notification_oid gives; length 0 when none
   * was read. */
  int32_t trap_oid_length;
  ObjectIdEMS trap_oid[SNMP_OID_MAX];
} snmp_notification_info;

EVENTS_EXPORT int snmp_parse_notification(unsigned char *buf, int len, uint32_t source,
                                          snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars,
                                          snmp_notification_info *about);
EVENTS_EXPORT const char *snmp_notification_error(int result);
EVENTS_EXPORT int snmp_build_inform_response(const unsigned char *inform, int inform_len,
                                             unsigned char *out, int *out_length);
EVENTS_EXPORT int snmp_notification_oid(const snmp_trap_infoEMS *sti, ObjectIdEMS *oid_out,
                                        int capacity);

/* Limits of the codec that real agents' messages can meet.
 * The decoders refuse a sub-identifier of 2^31 or more, an identifier of
 * more than 127 contents octets (128 sub-identifiers), a string of more
 * than 512 octets and a community of more than 127; the encoder sends a
 * specific-trap number above 2^31 - 1 as a negative INTEGER and shortens a
 * time-stamp of 0xFF800000 or more as if it were negative, so that it
 * decodes as another number.
 * snmp_message_limit names the first limit that the message buf[0..len)
 * meets, reading its elements as far as they are well-formed, or returns
 * SNMP_LIMIT_NONE (also for a message malformed in another way): why a
 * message that a decoder refused was refused.
 * snmp_trap_limit names the first limit that sti with its first sti->vars
 * bindings would meet on the way through the encoder and a decoder, or
 * returns SNMP_LIMIT_NONE.  REQUIRES: sti->vars bindings at vars.
 * snmp_limit_text names a limit in a few words. */
#define SNMP_LIMIT_NONE 0
#define SNMP_LIMIT_SUBIDENTIFIER 1
#define SNMP_LIMIT_IDENTIFIER 2
#define SNMP_LIMIT_STRING 3
#define SNMP_LIMIT_COMMUNITY 4
#define SNMP_LIMIT_SPECIFIC 5
#define SNMP_LIMIT_TIME 6
EVENTS_EXPORT int snmp_message_limit(const unsigned char *buf, int len);
EVENTS_EXPORT int snmp_trap_limit(const snmp_trap_infoEMS *sti, const EMSsnmpVarBind *vars);
EVENTS_EXPORT const char *snmp_limit_text(int limit);

/* Returns 1 if the identifier begins with the notification-address
 * variable 1.3.6.1.4.1.99.12.45.2.1.0, else 0 (also for NULL).
 * REQUIRES: a non-null identifier has at least 12 sub-identifiers. */
EVENTS_EXPORT int isVaultraNotificationAddress(const ObjectIdEMS *enterprise);

EVENTS_END_DECLS

#endif
