/* BER primitives: the small ASN.1 Basic Encoding Rules codec under every
 * SNMPv1 message of the library.
 *
 * Each primitive works on a caller-owned buffer.  It takes the position at
 * which to read or write and a room counter `datalength` (octets still
 * available from that position) and returns the position just after what it
 * read or wrote, lowering *datalength by what it consumed.  On failure it
 * returns NULL; decoders then leave *datalength unchanged and report the
 * failure on the trace log and, with bit SNMP_TRACE_ASN1 of
 * snmptracemaskEMS, as "asn1.c: <message>" on standard error.
 *
 * Decoders never read past position + *datalength.  Nothing allocates and
 * no primitive keeps state between calls; only the trace switches are
 * shared. */
#ifndef EVENTS_ASN1_H
#define EVENTS_ASN1_H

#include <stdint.h>

#include "events_export.h"
/* hexdumpEMS, the dump of encoded octets, is declared with the trace log. */
#include "log_trace.h"

EVENTS_BEGIN_DECLS

/* One sub-identifier of an object identifier.  Identifiers are arrays of
 * it with a separate count. */
typedef uint32_t ObjectIdEMS;

/* Type octets: the ASN.1 universal class and the SNMPv1 application class.
 * Left out beside net-snmp, whose macros have the same values. */
#ifndef EVENTS_BESIDE_NETSNMP
#define ASN_INTEGER 0x02
#define ASN_OCTET_STR 0x04
#define ASN_NULL 0x05
#define ASN_OBJECT_ID 0x06
#define ASN_SEQUENCE 0x30
#define ASN_IPADDRESS 0x40
#define ASN_COUNTER 0x41
#define ASN_GAUGE 0x42
#define ASN_TIMETICKS 0x43
#define ASN_OPAQUE 0x44
#endif
/* Not a wire type: asks asnBuildInt09class for an unsigned value written
 * under the INTEGER type. */
#define ASN_UNSIGNED_INTEGER 7

/* Largest identifier the codec handles: sub-identifiers a decoder stores,
 * and contents octets the encoder writes. */
#define ASN_MAX_OID_LEN 128

/* Headers and lengths.
 * asnParseHeader09 reads a type octet and a length; on success *type is the
 * type octet and *datalength becomes the contents length (not the
 * remainder).  asnParseLength09 reads the short form or the long form with
 * one to four octets; it has no room counter, so
 * REQUIRES: at least five octets are readable at data, or the first octet
 * announces fewer.  asnBuildLength09 writes the short form, 0x81 or 0x82;
 * lengths of 65,536 and more keep only their low 16 bits.  It checks
 * *datalength before it writes: with too little room it writes nothing and
 * returns NULL. */
EVENTS_EXPORT unsigned char *asnParseHeader09(unsigned char *data, int *datalength,
                                              unsigned char *type);
EVENTS_EXPORT unsigned char *asnBuildHeader09(unsigned char *data, int *datalength,
                                              int type, int length);
EVENTS_EXPORT unsigned char *asnParseLength09(unsigned char *data, uint32_t *length);
EVENTS_EXPORT unsigned char *asnBuildLength09(unsigned char *data, int *datalength,
                                              int length);

/* Integers: INTEGER, IpAddress, Counter, Gauge and TimeTicks.  `intsize`
 * must be 4.  The decoder sign-extends only INTEGER; an IpAddress is stored
 * so that its four octets lie in memory in wire order.
 * asnParseIntOrIpaddr09 also accepts an OCTET STRING of up to four octets,
 * copied as they stand.  asnBuildInt09class writes under `asntype`
 * (ASN_UNSIGNED_INTEGER writes an unsigned value as INTEGER);
 * asnBuildInt09 is that encoder for INTEGER.  asnBuildIpaddressEMS and
 * asnBuildTimeticksEMS trim their value as a signed number. */
EVENTS_EXPORT unsigned char *asnParseInt09(unsigned char *data, int *datalength,
                                           int32_t *intp, int intsize);
EVENTS_EXPORT unsigned char *asnParseIntOrIpaddr09(unsigned char *data, int *datalength,
                                                   int32_t *intp, int intsize);
EVENTS_EXPORT unsigned char *asnBuildInt09class(unsigned char *data, int *datalength,
                                                int32_t *intp, int intsize, int asntype);
EVENTS_EXPORT unsigned char *asnBuildInt09(unsigned char *data, int *datalength,
                                           int32_t *intp, int intsize);
EVENTS_EXPORT unsigned char *asnBuildIpaddressEMS(unsigned char *data, int *datalength,
                                                  uint32_t *intp, int intsize);
EVENTS_EXPORT unsigned char *asnBuildTimeticksEMS(unsigned char *data, int *datalength,
                                                  uint32_t *intp, int intsize);

/* Strings: OCTET STRING (and Opaque on decoding).  On input *strlength is
 * the capacity of `string`; on success it is the number of octets copied.
 * No terminator is added. */
EVENTS_EXPORT unsigned char *asnParseString09(unsigned char *data, int *datalength,
                                              unsigned char *string, int *strlength);
EVENTS_EXPORT unsigned char *asnBuildString09(unsigned char *data, int *datalength,
                                              const unsigned char *string, int strlength);

/* Object identifiers.  On input *objidlength is the capacity of `objid` in
 * sub-identifiers; on success the number stored.  The first encoded value v
 * is split into v / 40 and v % 40 with no special case for arc 2.  The
 * encoder refuses fewer than two arcs, a first arc above 2, a first
 * octet (40 * first + second) of 128 or more, and contents of more than
 * ASN_MAX_OID_LEN octets. */
EVENTS_EXPORT unsigned char *asnParseObjid09(unsigned char *data, int *datalength,
                                             ObjectIdEMS *objid, int *objidlength);
EVENTS_EXPORT unsigned char *asnBuildObjid09(unsigned char *data, int *datalength,
                                             const ObjectIdEMS *objid, int objidlength);

/* NULL values. */
EVENTS_EXPORT unsigned char *asnParseNull09(unsigned char *data, int *datalength);
EVENTS_EXPORT unsigned char *asnBuildNull09(unsigned char *data, int *datalength);

EVENTS_END_DECLS

#endif
