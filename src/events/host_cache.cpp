// Host names of agents and IpAddress values, cached so that the resolver is
// asked once per address and time-to-live, not once per trap.

#include "events/host_cache.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <unordered_map>

namespace events {
namespace {

constexpr size_t kMaxEntries = 4096;
constexpr long kDefaultTtl = 300;

struct Answer {
  std::string name;  // empty: the resolver knows no name
  time_t expires;
};

struct HostCache {
  std::unordered_map<uint32_t, Answer> answers;
};

HostCache cache;

time_t monotonic_seconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

// KZ_HOST_CACHE_TTL in seconds, read at each miss so that an operator or a
// test may change it while the process runs.
long ttl_seconds() {
  const char *text = getenv("KZ_HOST_CACHE_TTL");
  if (text == nullptr || *text == '\0') return kDefaultTtl;
  char *end = nullptr;
  long value = strtol(text, &end, 10);
  return *end == '\0' && value >= 0 ? value : kDefaultTtl;
}

std::string resolve(const unsigned char address[4]) {
  const hostent *host = gethostbyaddr(address, 4, AF_INET);
  return host != nullptr && host->h_name != nullptr ? host->h_name : "";
}

void copy_cut(const std::string &text, char *out, int size) {
  size_t n = text.size() < static_cast<size_t>(size - 1) ? text.size() : size - 1;
  memcpy(out, text.data(), n);
  out[n] = '\0';
}

}  // namespace

void dotted_quad(const unsigned char address[4], char *out, int size) {
  snprintf(out, size, "%u.%u.%u.%u", address[0], address[1], address[2], address[3]);
}

void host_name_of(const unsigned char address[4], char *out, int size) {
  uint32_t key;
  memcpy(&key, address, 4);
  time_t now = monotonic_seconds();
  auto found = cache.answers.find(key);
  if (found != cache.answers.end() && found->second.expires > now) {
    if (found->second.name.empty())
      dotted_quad(address, out, size);
    else
      copy_cut(found->second.name, out, size);
    return;
  }
  std::string name = resolve(address);
  long ttl = ttl_seconds();
  if (ttl > 0) {
    if (found == cache.answers.end() && cache.answers.size() >= kMaxEntries) {
      // Expired answers go first; a cache full of live ones starts over
      // rather than grow without bound.
      std::erase_if(cache.answers, [now](const auto &entry) { return entry.second.expires <= now; });
      if (cache.answers.size() >= kMaxEntries) cache.answers.clear();
    }
    cache.answers[key] = Answer{name, now + ttl};
  } else if (found != cache.answers.end()) {
    cache.answers.erase(found);
  }
  if (name.empty())
    dotted_quad(address, out, size);
  else
    copy_cut(name, out, size);
}

}  // namespace events
