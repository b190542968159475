// Installation probes (client node, server, configuration tool) and the
// white-space helper shared with the configuration reader.

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "env_probe.h"
#include "mbtext.h"

namespace {

struct ProbeCache {
  int configurator_exists = -1;
};

ProbeCache probes;

// White space of the C classification, for single bytes only: bytes above
// 127 belong to national characters and are never white space.
bool is_blank(unsigned char c) { return c < 128 && (c == ' ' || (c >= '\t' && c <= '\r')); }

}  // namespace

extern "C" EVENTS_EXPORT void _KZstrip_whitespace(char *str, stripType mask) {
  if (str == nullptr) return;
  char *start = str;
  while (is_blank(static_cast<unsigned char>(*start))) ++start;
  if (mask == stripTrailing || mask == stripBoth) {
    // A text of white space only ends up empty.
    char *p = start;
    char *end = str;
    while (*p != '\0') {
      while (*p != '\0' && !is_blank(static_cast<unsigned char>(*p))) p += events::char_length(p);
      end = p;
      while (is_blank(static_cast<unsigned char>(*p))) ++p;
    }
    *end = '\0';
  }
  if ((mask == stripLeading || mask == stripBoth) && start != str) {
    memmove(str, start, strlen(start) + 1);
  }
}

extern "C" EVENTS_EXPORT int eventConfiguratorExists(void) {
  if (probes.configurator_exists < 0) {
    struct stat info;
    probes.configurator_exists = stat("/usr/KZ/bin/qwmtrap", &info) == 0 ? 1 : 0;
  }
  return probes.configurator_exists;
}

extern "C" EVENTS_EXPORT int isCnode(void) { return 0; }

extern "C" EVENTS_EXPORT char *getServerName(void) { return nullptr; }
