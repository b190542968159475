// Default platform services, configured only by environment variables.

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kz_platform.h"

namespace {

const char *env_or(const char *name, const char *fallback) {
  const char *value = getenv(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

char *copy_text(const std::string &text) {
  char *copy = strdup(text.c_str());
  if (copy == nullptr) abort();
  return copy;
}

}  // namespace

extern "C" EVENTS_EXPORT const char *_KZconfDirName(void) {
  static std::string dir;
  dir = env_or("KZ_CONF_DIR", "/usr/KZ/conf");
  return dir.c_str();
}

extern "C" EVENTS_EXPORT char *_KZConcatPath(const char *dir, const char *name) {
  std::string path = dir;
  if (!path.empty() && path.back() != '/') path += '/';
  return copy_text(path + name);
}

extern "C" EVENTS_EXPORT const char *KZhubdSocketPath(void) {
  static std::string path;
  path = env_or("KZ_HUBD_SOCKET", "/usr/KZ/sockets/hubd.socket");
  return path.c_str();
}

extern "C" EVENTS_EXPORT int _ZXisClient(void) { return strcmp(env_or("KZ_CLIENT", "0"), "1") == 0; }

extern "C" EVENTS_EXPORT char *_KZDefaultServerName(void) {
  return copy_text(env_or("KZ_SERVER", "localhost"));
}

extern "C" EVENTS_EXPORT uint32_t KZmyAddress(void) {
  uint32_t address = htonl(INADDR_LOOPBACK);
  ifaddrs *interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) return address;
  for (ifaddrs *i = interfaces; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
    if (!(i->ifa_flags & IFF_UP) || (i->ifa_flags & IFF_LOOPBACK)) continue;
    address = reinterpret_cast<const sockaddr_in *>(i->ifa_addr)->sin_addr.s_addr;
    break;
  }
  freeifaddrs(interfaces);
  return address;
}

extern "C" EVENTS_EXPORT void KZuLogS(int level, int subsystem, const char *catalog, int set,
                                      int message, const char *fmt, ...) {
  const char *target = getenv("KZ_LOG");
  if (target == nullptr || *target == '\0') return;
  char text[2048];
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  size_t length = strlen(text);
  if (length > 0 && text[length - 1] == '\n') text[--length] = '\0';
  if (strcmp(target, "syslog") == 0) {
    syslog(LOG_INFO, "%s[%d,%d] %d %d: %s", catalog, set, message, subsystem, level, text);
    return;
  }
  FILE *log = fopen(target, "ae");
  if (log == nullptr) return;
  fprintf(log, "%s[%d,%d] %d %d: %s\n", catalog, set, message, subsystem, level, text);
  fclose(log);
}
