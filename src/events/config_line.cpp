// The configuration files' line routine.  Lines are read byte by byte so
// that a NUL inside a line cannot hide its true length.

#include "config_line.h"

#include <cstring>

#include "trp_format.h"

namespace events {

int read_config_line(char *buf, int n, FILE *fp, int *line_number, const char *conffile,
                     char *errmem) {
  for (;;) {
    int count = 0;
    int c = EOF;
    while (count < n - 1 && (c = getc_unlocked(fp)) != EOF) {
      buf[count++] = static_cast<char>(c);
      if (c == '\n') break;
    }
    if (count == 0) return 0;
    buf[count] = '\0';
    ++*line_number;
    if (count == n - 1 && buf[count - 1] != '\n') {
      int next = getc_unlocked(fp);
      if (next != EOF) {
        ungetc(next, fp);
        if (errmem != nullptr) {
          snprintf(errmem, TRAPSPEC_ERROR_SIZE, "Line too long");
          appendLineInfo(errmem, *line_number, conffile, buf);
        }
        return -1;
      }
    }
    int start = 0;
    while (start < count && (buf[start] == ' ' || buf[start] == '\t')) ++start;
    if (start < count && buf[start] == '#') continue;
    int length = count - start;
    if (length > 0) --length;
    memmove(buf, buf + start, length);
    buf[length] = '\0';
    return 1;
  }
}

}  // namespace events
