// codeptcat-build: writes a code-point catalog from a text list, or lists
// a catalog back as text.
//
//   codeptcat-build LIST CATALOG     (LIST "-" reads standard input)
//   codeptcat-build --list CATALOG
//
// The list's form is in codeptcat_text.h.  A bad line or a code point
// listed twice is reported with its line number and nothing is written.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "codeptcat_text.h"

namespace {

const char kUsage[] =
    "usage: codeptcat-build LIST CATALOG    write CATALOG from LIST (- for standard input)\n"
    "       codeptcat-build --list CATALOG  print CATALOG as a list\n"
    "Each line of LIST is \"SET CODE TEXT\": SET 1 to 7, CODE hexadecimal,\n"
    "TEXT with \\n for a newline and \\\\ for a backslash.\n"
    "  -h, --help, -V, --version\n";

// Reads a whole file, or standard input for "-"; false after saying why.
bool read_all(const char *path, std::string &contents) {
  bool standard_input = strcmp(path, "-") == 0;
  FILE *file = standard_input ? stdin : fopen(path, "rb");
  if (file == nullptr) {
    fprintf(stderr, "%s: %s: %s\n", cli_name(), path, strerror(errno));
    return false;
  }
  char chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, file)) > 0) contents.append(chunk, n);
  bool ok = ferror(file) == 0;
  if (!ok) fprintf(stderr, "%s: %s: %s\n", cli_name(), path, strerror(errno));
  if (!standard_input) fclose(file);
  return ok;
}

bool write_all(const char *path, const std::string &image) {
  FILE *out = fopen(path, "wb");
  bool ok = out != nullptr && fwrite(image.data(), 1, image.size(), out) == image.size();
  if (out != nullptr && fclose(out) != 0) ok = false;
  if (!ok) fprintf(stderr, "%s: %s: %s\n", cli_name(), path, strerror(errno));
  return ok;
}

int list_catalog(const char *path) {
  std::string image;
  if (!read_all(path, image)) return 1;
  std::vector<tools::CodePoint> items;
  std::string error = tools::read_catalog(image, items);
  if (!error.empty()) {
    fprintf(stderr, "%s: %s: %s\n", cli_name(), path, error.c_str());
    return 1;
  }
  fputs(tools::code_list(items).c_str(), stdout);
  return fflush(stdout) == 0 ? 0 : 1;
}

int build_catalog(const char *list_path, const char *catalog_path) {
  std::string list;
  if (!read_all(list_path, list)) return 1;
  std::vector<tools::CodePoint> items;
  const char *name = strcmp(list_path, "-") == 0 ? "(standard input)" : list_path;
  std::string error = tools::read_code_list(list, name, items);
  if (error.empty() && items.empty()) error = std::string(name) + ": no code points";
  if (!error.empty()) {
    fprintf(stderr, "%s: %s\n", cli_name(), error.c_str());
    return 1;
  }
  if (!write_all(catalog_path, tools::catalog_image(items))) return 1;
  std::set<unsigned> sets;
  for (const tools::CodePoint &item : items) sets.insert(item.set);
  printf("%s: %zu code point%s in %zu set%s\n", catalog_path, items.size(),
         items.size() == 1 ? "" : "s", sets.size(), sets.size() == 1 ? "" : "s");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  cli_init(argv[0]);
  std::vector<const char *> words;
  bool list = false;
  for (int i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    if (strcmp(arg, "-h") == 0 || strcmp(arg, "--help") == 0) {
      fputs(kUsage, stdout);
      return 0;
    }
    if (strcmp(arg, "-V") == 0 || strcmp(arg, "--version") == 0) {
      cli_print_version();
      return 0;
    }
    if (strcmp(arg, "--list") == 0) {
      list = true;
    } else if (arg[0] == '-' && arg[1] != '\0') {
      cli_usage_error("unknown option '%s'", arg);
    } else {
      words.push_back(arg);
    }
  }
  if (list) {
    if (words.size() != 1) cli_usage_error("--list takes one CATALOG");
    return list_catalog(words[0]);
  }
  if (words.size() != 2) cli_usage_error("a LIST and a CATALOG are needed");
  return build_catalog(words[0], words[1]);
}
