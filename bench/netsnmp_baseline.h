// net-snmp's library as the baseline: parse one SNMPv1 message with
// snmp_parse into a fresh PDU, as an application of that library does.
#ifndef EVENTS_BENCH_NETSNMP_BASELINE_H
#define EVENTS_BENCH_NETSNMP_BASELINE_H

#include <cstddef>

namespace bench {

// Parses message[0..length) with net-snmp; returns the number of bindings
// decoded, or -1 on failure.
int netsnmp_parse(const unsigned char *message, size_t length);

}  // namespace bench

#endif
