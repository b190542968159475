// net-snmp's library as the baseline: parse one SNMPv1 message with
// snmp_parse into a fresh PDU, and make one synchronous get, as an
// application of that library does.
//
// libevents exports a snmp_parse of its own, and a process that links both
// libraries binds every caller of the name to one of them.  The baseline
// therefore takes net-snmp's parser from net-snmp's own library handle and
// gives its sessions that parser as their parse hook.
#ifndef EVENTS_BENCH_NETSNMP_BASELINE_H
#define EVENTS_BENCH_NETSNMP_BASELINE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench {

// Parses message[0..length) with net-snmp; returns the number of bindings
// decoded, or -1 on failure.
int netsnmp_parse(const unsigned char *message, size_t length);

// The SNMPv2c notification v2c[0..length) sent again as SNMPv3 at
// authPriv by user "shaAes" (SHA, authpass123; AES, privpass123) of engine
// 0x8000000001020304, the user net-snmp then also knows for parsing.
// Returns the message, empty on failure.
std::vector<unsigned char> netsnmp_v3_notification(const unsigned char *v2c, size_t length);

// Opens a v1 session with `community` to the agent at 127.0.0.1:port;
// returns false on failure.
bool netsnmp_open(uint16_t port, const char *community);
// One get of sysDescr.0 over the open session; returns true on a response
// without error.
bool netsnmp_get_sysdescr();

}  // namespace bench

#endif
