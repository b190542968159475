// Message catalog: texts by set and message number from "events.cat",
// fetched once each and cached per set, with the built-in text as fallback.

#include <nl_types.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "catalog_format.h"
#include "events_msg.h"

namespace {

constexpr int kCachedSets = 51;

struct Catalog {
  nl_catd descriptor = reinterpret_cast<nl_catd>(-1);
  bool first_call = true;
  int capacity[kCachedSets] = {};
  char **texts[kCachedSets] = {};
};

Catalog catalog;

void open_catalog() {
  setlocale(LC_MESSAGES, "");
  catalog.descriptor = catopen("events.cat", 0);
  catalog.first_call = false;
  for (int set = 0; set < kCachedSets; ++set) {
    catalog.capacity[set] = 0;
    catalog.texts[set] = nullptr;
  }
}

}  // namespace

extern "C" EVENTS_EXPORT char *_eventsMsg(int setn, int n, char *s) {
  int saved_errno = errno;
  errno = 0;
  if (catalog.first_call) open_catalog();
  // Message 0 is the built-in text by convention; numbers a catalog cannot
  // hold and sets without a cache are answered with it too.
  if (n <= 0 || n > NL_MSGMAX || setn < 0 || setn >= kCachedSets) {
    errno = saved_errno;
    return s;
  }
  if (n >= catalog.capacity[setn]) {
    int grown = n / 10 * 10 + 10;
    void *block = realloc(catalog.texts[setn], sizeof(char *) * grown);
    if (block == nullptr) {
      // errno stays as the failed allocation left it.
      catalog.capacity[setn] = 0;
      free(catalog.texts[setn]);
      catalog.texts[setn] = nullptr;
      return s;
    }
    catalog.texts[setn] = static_cast<char **>(block);
    for (int i = catalog.capacity[setn]; i < grown; ++i) catalog.texts[setn][i] = nullptr;
    catalog.capacity[setn] = grown;
  }
  if (catalog.texts[setn][n] == nullptr) {
    const char *text = catgets(catalog.descriptor, setn, n, s);
    char *copy = strdup(text != nullptr ? text : s);
    if (copy == nullptr) return s;
    catalog.texts[setn][n] = copy;
  }
  errno = saved_errno;
  return catalog.texts[setn][n];
}

extern "C" EVENTS_EXPORT int ___eventsMsg_fd__(void) {
  return static_cast<int>(reinterpret_cast<intptr_t>(catalog.descriptor));
}

namespace {

// The printf conversions of `text` ("%-10s", "%ld"), in order, without
// "%%"; false when a conversion is left unfinished.  Only the conversions
// of integers, characters, strings and pointers end one.
bool conversions(std::string_view text, std::vector<std::string_view> *found) {
  for (auto at = text.find('%'); at != std::string_view::npos; at = text.find('%', at)) {
    auto end = text.find_first_of("diouxXcsp%", at + 1);
    if (end == std::string_view::npos) return false;
    if (end != at + 1 || text[end] != '%') found->push_back(text.substr(at, end - at + 1));
    at = end + 1;
  }
  return true;
}

}  // namespace

namespace events {

const char *catalog_format(int set, int number, const char *builtin) {
  const char *text = _eventsMsg(set, number, const_cast<char *>(builtin));
  std::vector<std::string_view> asked, built_in;
  bool same = text != nullptr && conversions(text, &asked) && conversions(builtin, &built_in) &&
              asked == built_in;
  return same ? text : builtin;
}

}  // namespace events
