/* Trace log: one process-wide text stream of time-stamped diagnostic lines
 * and packet dumps, plus the switches that ask modules for more output.
 *
 * While the log is closed (tracelogfp is NULL) every trace call writes
 * nothing; callers test tracelogfp before formatting arguments so tracing
 * costs nothing when off.  Every line has the form
 *     "Sun Nov 15 14:30:38 2026 routine: message\n"
 * and is flushed as soon as it is written.  Not thread-safe: the library is
 * single-threaded by design. */
#ifndef EVENTS_LOG_TRACE_H
#define EVENTS_LOG_TRACE_H

#include <stdio.h>

#include "events_export.h"

EVENTS_BEGIN_DECLS

/* Process-wide switches; applications may set them at any time. */
EVENTS_EXPORT extern FILE *tracelogfp;             /* open trace log, or NULL */
EVENTS_EXPORT extern FILE *dumpFp;                 /* hexdumpEMS stream; equals tracelogfp */
EVENTS_EXPORT extern int traceStartingAndStopping; /* frame open/close with lines (1) */
EVENTS_EXPORT extern int snmptracemaskEMS;         /* SNMP_TRACE_* bits: echo on stderr */
EVENTS_EXPORT extern int dump_packetEMS;           /* non-zero: dump sent/rejected packets */

/* Bits of snmptracemaskEMS, one per module that echoes its diagnostics. */
#define SNMP_TRACE_ASN1 1      /* BER primitives */
#define SNMP_TRACE_AUTH 2      /* message envelope */
#define SNMP_TRACE_VARBIND 4   /* variable bindings */
#define SNMP_TRACE_REQUEST 32  /* request PDU build and parse */
#define SNMP_TRACE_CALL 64     /* synchronous SNMP call */

/* Bit-field words of the platform's trace vocabulary.  Declared for
 * source compatibility; no function of the library reads them. */
typedef struct {
  unsigned int hdr_in_bit : 1;
  unsigned int hdr_out_bit : 1;
  unsigned int pdu_in_bit : 1;
  unsigned int pdu_out_bit : 1;
  unsigned int procedure_trace_bit : 1;
  unsigned int state_trace_bit : 1;
  unsigned int error_trace_bit : 1;
  unsigned int logging_trace_bit : 1;
  unsigned int loop_back_bit : 1;
  unsigned int ptop_bit : 1;
  unsigned int global_reserved : 2;
  unsigned int subsystem_bits : 20;
} trace_kind_bits_type;

typedef struct {
  unsigned int reserved : 27;
  unsigned int netmsg_bit : 1;
  unsigned int disaster_bit : 1;
  unsigned int error_bit : 1;
  unsigned int warning_bit : 1;
  unsigned int informative_bit : 1;
} log_class_bits_type;

/* Opening and closing.  open_trace_log appends to `tracefile` (created if
 * absent) or, for "-", writes to standard output.  Returns 0, also when the
 * log is already open (the path is then ignored); -1 if the file cannot be
 * opened (or is NULL).  close_trace_log is harmless when the log is closed. */
EVENTS_EXPORT int open_trace_log(const char *tracefile);
EVENTS_EXPORT void close_trace_log(void);

/* Writing.  log_trace appends one line "stamp routine: message".
 * sigblockhexdump appends a 16-bytes-a-row dump of buf[0..size) and
 * returns 0.  printTime writes the 24-character stamp and one blank.
 * REQUIRES for printTime: the log is open. */
EVENTS_EXPORT void log_trace(const char *routine, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
EVENTS_EXPORT int sigblockhexdump(const unsigned char *buf, int size);
EVENTS_EXPORT int printTime(void);

/* Dumps buf[0..size) on dumpFp, 16 octets a row as "%02x " with a
 * character column; the row offsets go to standard output.  Does nothing
 * while dumpFp is NULL. */
EVENTS_EXPORT void hexdumpEMS(const unsigned char *buf, int size);

/* Event logger: for a non-zero level writes "routine: message\n" on the
 * standard error stream, whether or not the trace log is open. */
EVENTS_EXPORT void logger(int level, const char *routine, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

EVENTS_END_DECLS

#endif
