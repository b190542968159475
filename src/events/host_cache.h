// Host names of IPv4 addresses for the trap formatter, through a cache of
// resolver answers: a slow resolver would otherwise cost its time-out on
// every trap of an agent.
#ifndef EVENTS_SRC_HOST_CACHE_H
#define EVENTS_SRC_HOST_CACHE_H

#include <cstdint>

namespace events {

// Writes the official host name of `address` (four octets in network
// order, as they lie in a decoded trap) into `out`, or its dotted quad when
// the resolver knows no name; cut to fit and terminated.  Answers, found
// and not found, are kept for KZ_HOST_CACHE_TTL seconds (default 300; 0
// keeps nothing); at most 4096 addresses are kept.
// REQUIRES: size >= 1.
void host_name_of(const unsigned char address[4], char *out, int size);

// Writes the dotted quad of `address` into `out`, cut to fit.
// REQUIRES: size >= 1.
void dotted_quad(const unsigned char address[4], char *out, int size);

}  // namespace events

#endif
