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

struct sockaddr;

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

/* Transport modes of event_infoEMS.trans. */
#define EVENT_TRANS_UDP 1      /* datagrams to port 162 of the daemon host */
#define EVENT_TRANS_UNIX 2     /* Unix stream socket, with headers */
#define EVENT_TRANS_TCP 3      /* TCP to service zxhubd-client, with headers */
#define EVENT_TRANS_HOOK 4     /* receive only, through kzc_recv_event */
#define EVENT_TRANS_DEFAULT 5  /* TCP to the default server on a client
                                  installation, else the daemon's Unix socket */
#define EVENT_TRANS_TCP_RAW 6  /* TCP to "host+text/port", no headers */
#define EVENT_TRANS_JETSTREAM 7 /* a NATS JetStream stream (below) */

/* The JetStream transport.  `name` is a URL:
 *   nats://HOST:PORT[,HOST:PORT]...[/STREAM][?PARAMETER=VALUE[&...]]
 * naming the servers (any one of them serves), the stream (default
 * "TRAPS") and these parameters:
 *   durable=NAME   the durable pull consumer recv_event takes traps from;
 *                  connections with the same name share its traps, each
 *                  name gets them all.  Without it the connection only
 *                  sends.
 *   from=WHERE     where a new consumer starts: "start" (the default, the
 *                  oldest trap kept), "new", a stream sequence number, or a
 *                  time YYYY-MM-DDTHH:MM:SSZ.  An existing consumer resumes
 *                  after the last trap it acknowledged.
 *   replicas=N, max_age=SECONDS, max_bytes=OCTETS
 *                  the stream's copies (1), age limit (7 days) and size
 *                  limit (1 GiB), used when open_event creates the stream
 *                  because it is missing.
 *   ack_wait=SECONDS  how long the server waits for an acknowledgement
 *                  before it delivers a trap again (30).
 *   batch=N        up to N traps (1 to 1000, default 1) in one stream
 *                  message: traps that come while two publications await
 *                  the stream's confirmation wait for the next one, or for
 *                  N of them, and go out together.  The cluster agrees once
 *                  per message, so a storm passes several times faster; a
 *                  consumer that stops half-way through a batch gets the
 *                  whole batch again.  Receivers read both kinds.
 * Every trap sent goes to the subject traps.SOURCE.ENTERPRISE (the
 * enterprise's arcs as tokens; "_" when the message shows none) with the
 * transmission header's src, pid, status and target and a message ID the
 * stream drops repeated copies by.  Sending returns once
 * the client holds the message; the stream's confirmation is awaited, and
 * the message sent again on a failure, in the background, for a minute;
 * close_event waits until every trap is stored or given up.  recv_event
 * returns the consumer's next trap, with the time the stream stored it as
 * the header's time, and acknowledges it once it is in the receive area;
 * a trap is delivered again only if its acknowledgement was lost, and is
 * then not handed over twice by the same connection.  ei->sd is a
 * descriptor that is readable whenever a trap is waiting: an application
 * may poll it as it polls a socket, but must not read it itself.  When the
 * server goes away recv_event returns -1 once; the connection comes back
 * by itself and the next call waits for it.  open_event returns -1 for a
 * bad URL, an unreachable server, or a library built without the NATS
 * client, with the reason on standard error. */

/* Application source numbers of event_infoEMS.source: open_event accepts
 * EVENT_SOURCE_FIRST to EVENT_SOURCE_LAST.  The daemon's own number sends
 * no connected or disconnecting event; the remote daemon's number says
 * hello only over EVENT_TRANS_TCP and always says goodbye as on it. */
#define EVENT_SOURCE_FIRST 1
#define EVENT_SOURCE_LAST 27
#define EVENT_SOURCE_HUBD 4
#define EVENT_SOURCE_REMOTE_HUBD 24

/* Results of recv_trap and recv_event other than a message length. */
#define EVENT_RECV_CLOSED 0           /* end of stream */
#define EVENT_RECV_ERROR (-1)         /* bad argument, failed wait, unsupported
                                         length form, failed decoding */
#define EVENT_RECV_NOT_SEQUENCE (-5)  /* headerless stream: not a SEQUENCE */
#define EVENT_RECV_BAD_SIZE (-6)      /* over 8,192 or under 20 octets */

/* Largest SNMP message sent or received on any transport. */
#define EVENT_MAX_MESSAGE 8192

/* Platform event numbers sent by open_event and close_event. */
#define EVENT_CONNECTED 59179056     /* "%s connected to hubd." */
#define EVENT_DISCONNECTING 59179057 /* "%s disconnecting from hubd." */

/* Connection.
 * open_event connects by transport `trans` (name: host name for 1 and 3,
 * socket path for 2, ignored for 5, "host[+text/port-or-service]" for 6),
 * enlarges the socket buffers to 64 KiB, fills *ei and announces the
 * application with the connected event (not for source 4, nor for 24 on a
 * transport other than 3).  Returns the descriptor, or -1 for a null ei, a
 * source outside 1..27, an unknown transport or a failed connection; ei is
 * then unchanged except `manager` in mode 1.
 * close_event sends the disconnecting event (not for source 4; source 24
 * sends it as on transport 3 and leaves trans set to 3) and closes the
 * socket; returns the result of close, or -1 for a null ei.
 * getApplName returns the display name of a source number (low 16 bits).
 * set_sock_buf_size_if_larger raises the SO_SNDBUF or SO_RCVBUF (buf_type)
 * of sd to new_size if it is smaller; failures are ignored; returns 0. */
EVENTS_EXPORT int open_event(event_infoEMS *ei, int source, const char *name, int trans);
EVENTS_EXPORT int close_event(event_infoEMS *ei);
EVENTS_EXPORT const char *getApplName(int source);
EVENTS_EXPORT int set_sock_buf_size_if_larger(int sd, int buf_type, int new_size);

/* Receiving.
 * Every receive overwrites one static area: the transmission header
 * (recv_headerEMS) followed by room for an 8,192-octet message
 * (recv_packetEMS).  Transports without headers (1, 4, 6) get a made-up
 * header: len = octets received, src = 1, pid = -1.
 *
 * recv_trap reads one message from sd framed for transport `trans` and
 * points *buf and *th into the static area.  `from` and `fromlen` receive
 * the sender's address in mode 1 and are passed to the hook in mode 4 (both
 * may be NULL).  Returns the message length (20 or more), 0 at end of
 * stream, -1 for a null argument, a failed wait or an unsupported length
 * form, -5 when a headerless stream does not start with a SEQUENCE, -6 for
 * a message over 8,192 or under 20 octets (an oversized message on a stream
 * is read and dropped so the next one is found), or the failing recv or
 * hook result.  A signal interrupting a wait does not end the read.
 * On a connection that open_event made on transport 2 or 3, recv_trap
 * takes what has come of the next header together with a message, so that
 * a trap costs one system call; sd stays readable while a whole trap
 * waits, so polling it works as before.  REQUIRES: such a connection is
 * read only through recv_trap (or recv_event) and closed with close_event.
 * recv_event_hdr reads with recv_trap and decodes into sti and vars (the
 * caller sets sti->clen, sti->elen and sti->maxvars as for snmp_parse_trap,
 * before every call: decoding overwrites clen and elen with the lengths
 * found, see snmp_trap_reset_capacities);
 * copies the header's time into ei->time and points *th at the header.
 * Returns the message length, -1 if decoding failed, or recv_trap's result.
 * recv_event is recv_event_hdr without the header pointer. */
EVENTS_EXPORT extern trap_headerEMS *recv_headerEMS;
EVENTS_EXPORT extern unsigned char *recv_packetEMS;
EVENTS_EXPORT int recv_event(event_infoEMS *ei, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars);
EVENTS_EXPORT int recv_event_hdr(event_infoEMS *ei, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars,
                                 trap_headerEMS **th);
EVENTS_EXPORT int recv_trap(int sd, unsigned char **buf, int trans, struct sockaddr *from,
                            int *fromlen, trap_headerEMS **th);

/* Receive hook for transport 4: reads one message from sd into `packet`;
 * *length holds 8,192 on entry and the octets read on return.  Returns a
 * count; 0 or less is failure.  NULL (the default): mode 4 reads nothing. */
typedef int (*kzc_recv_event_fn)(int sd, struct sockaddr *from, unsigned char *packet,
                                 int *length);
EVENTS_EXPORT extern kzc_recv_event_fn kzc_recv_event;

/* The length octet after a SEQUENCE type octet on a headerless stream.
 * Short form: *length = the octet, result 0.  Long form 0x81..0x84:
 * *length = number of length octets n; result 0 with *length = the
 * big-endian value of data[1..n] when data[1] is non-zero, else 1 (the n
 * octets are still to be read).  Indefinite (0x80) or longer forms: -1.
 * REQUIRES: data[1] is readable for a long form, and data[1..n] when it is
 * non-zero. */
EVENTS_EXPORT int get_pdu_len(unsigned char *data, int32_t *length);

/* Sends signo to the process whose ID starts the file pidFile.  Returns 1
 * if the file cannot be read or holds no number, the process ID if no such
 * process exists, else 0.  procName is not used. */
EVENTS_EXPORT int sendsig(int signo, const char *procName, const char *pidFile);

/* Sending.
 * send_trap encodes sti and its first sti->vars bindings and writes the
 * message framed for ei->trans: a datagram to port 162 of ei->manager (1),
 * a transmission header from ei (source, this process, status, target) and
 * the message (2, 3), the message alone (6); other transports send
 * nothing.  Returns 0, -1 if the trap cannot be encoded, or the failing
 * send result.  send_hex_buffer writes an encoded message the same way.
 *
 * The send_event family sends an enterprise-specific trap of enterprise
 * 1.3.6.1.4.1.49999.6.3.1, community "kestrl", specific number `event`,
 * time-stamped in hundredths of a second since the process's first event,
 * with the bindings sourceId (ei->source), hostName (first word of host, or
 * "<none>"), trapDescr, trapData and dataBase; send_event_ex adds
 * objectname, ipaddress and trapspecific, send_event_ex_ex also network
 * address and mask.  Texts are cut at 512 octets; NULL texts other than
 * host and descr are sent empty.  Returns -1 for a null ei or descr, else
 * the result of send_trap. */
EVENTS_EXPORT int send_trap(event_infoEMS *ei, snmp_trap_infoEMS *sti, EMSsnmpVarBind *vars);
EVENTS_EXPORT int send_hex_buffer(event_infoEMS *ei, const unsigned char *bufp, int buflen);
EVENTS_EXPORT int send_event(event_infoEMS *ei, int event, const char *host, const char *descr,
                             const char *data, const char *db);
EVENTS_EXPORT int send_event_ex(event_infoEMS *ei, int event, const char *host,
                                const char *descr, const char *data, const char *db,
                                const char *selname, const char *ipaddress,
                                const char *trapspecific);
EVENTS_EXPORT int send_event_ex_ex(event_infoEMS *ei, int event, const char *host,
                                   const char *descr, const char *data, const char *db,
                                   const char *selname, const char *ipaddress,
                                   const char *trapspecific, const char *networkAddr,
                                   const char *networkMask);

EVENTS_END_DECLS

#endif
