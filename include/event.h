/* Event channel: the connection between an application and the trap
 * daemon hubd, and the records that travel on it.
 *
 * An application opens one connection per event_infoEMS record.  On the
 * stream transports every trap message is preceded by a trap_headerEMS
 * whose fields are 32-bit words in host byte order. */
#ifndef EVENTS_EVENT_H
#define EVENTS_EVENT_H

#include <stdint.h>

#include "events_export.h"
#include "snmp.h"

EVENTS_BEGIN_DECLS

/* One connection, owned by the caller. */
typedef struct event_infoEMS_s {
  int32_t sd;       /* socket descriptor */
  uint16_t trans;   /* transport mode */
  uint32_t source;  /* application's source number, 1 to 27 */
  uint32_t agent;   /* this machine's IPv4 address, network order */
  uint32_t manager; /* daemon host's IPv4 address, network order (mode 1) */
  int32_t time;
  int32_t status; /* copied into every transmission header sent */
  uint32_t target; /* copied into every transmission header sent */
} event_infoEMS;

/* The 24-octet transmission header before each trap on streams 2 and 3. */
typedef struct {
  int32_t len;     /* octets of the SNMP message that follows */
  uint32_t src;    /* sender's source number */
  int32_t pid;     /* sender's process ID */
  int32_t time;    /* left unset by senders */
  int32_t status;
  uint32_t target;
} trap_headerEMS;

/* The same layout on 32-bit and 64-bit hosts; the header is a wire format. */
EVENTS_STATIC_ASSERT(sizeof(event_infoEMS) == 32, "event_infoEMS layout");
EVENTS_STATIC_ASSERT(sizeof(trap_headerEMS) == 24, "trap_headerEMS is 24 octets");

EVENTS_END_DECLS

#endif
