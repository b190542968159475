// The configuration files' line routine.  Lines are read byte by byte so
// that a NUL inside a line cannot hide its true length.

#include "config_line.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "config_base.h"
#include "config_error.h"

namespace events {

FILE *open_config_file(const char *path, const char **refused) {
  *refused = nullptr;
  int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat status;
  if (fstat(fd, &status) != 0) {
    *refused = strerror(errno);
  } else if (S_ISDIR(status.st_mode)) {
    *refused = strerror(EISDIR);
  } else if (!S_ISREG(status.st_mode)) {
    *refused = "Not a regular file";
  }
  FILE *file = nullptr;
  if (*refused == nullptr && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0)
    file = fdopen(fd, "r");
  if (file == nullptr) {
    int error = errno;
    close(fd);
    errno = error;
  }
  return file;
}

int read_failure(char *errmem, const char *path, const char *reason) {
  return write_error(errmem, TRAPSPEC_ERROR_SIZE, "Could not read \"%s\": %s\n", path, reason);
}

int read_config_line(char *buf, int n, FILE *fp, int *line_number, const char *conffile,
                     char *errmem) {
  for (;;) {
    int count = 0;
    int c = EOF;
    while (count < n - 1 && (c = getc_unlocked(fp)) != EOF) {
      buf[count++] = static_cast<char>(c);
      if (c == '\n') break;
    }
    // A failed read is not the end of the file: what follows is unknown.
    if (c == EOF && ferror(fp)) return read_failure(errmem, conffile, strerror(errno));
    if (count == 0) return 0;
    buf[count] = '\0';
    ++*line_number;
    if (count == n - 1 && buf[count - 1] != '\n') {
      int next = getc_unlocked(fp);
      if (next != EOF) {
        ungetc(next, fp);
        return fail(errmem, *line_number, conffile, buf, "Line too long");
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
