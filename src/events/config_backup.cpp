// Saving the previous content of a configuration file and writing the new
// content over it so that no interruption passes for a configuration.

#include "config_backup.h"

#include "config_base.h"

#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace events {

namespace {

std::string descriptor_path(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

bool write_at(int fd, const char *data, size_t size, off_t offset) {
  while (size > 0) {
    ssize_t wrote = pwrite(fd, data, size, offset);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return false;
    if (wrote == 0) {
      errno = ENOSPC;
      return false;
    }
    data += wrote;
    size -= static_cast<size_t>(wrote);
    offset += wrote;
  }
  return true;
}

// Reads the whole file fd is open on through a descriptor of its own, so
// that a stream opened only for writing can be read too.
bool read_previous(int fd, std::string *content) {
  int reader = open(descriptor_path(fd).c_str(), O_RDONLY | O_CLOEXEC);
  if (reader < 0) return false;
  char chunk[8192];
  ssize_t got;
  off_t offset = 0;
  while ((got = pread(reader, chunk, sizeof chunk, offset)) != 0) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) break;
    content->append(chunk, static_cast<size_t>(got));
    offset += got;
  }
  int error = errno;
  close(reader);
  errno = error;
  return got == 0;
}

// The name of the file fd is open on: `configured` when that is it.
bool file_name(int fd, const struct stat &file, const char *configured, std::string *name) {
  struct stat named;
  if (configured != nullptr && stat(configured, &named) == 0 && named.st_dev == file.st_dev &&
      named.st_ino == file.st_ino) {
    *name = configured;
    return true;
  }
  char target[PATH_MAX];
  ssize_t length = readlink(descriptor_path(fd).c_str(), target, sizeof target - 1);
  if (length <= 0) return false;
  name->assign(target, static_cast<size_t>(length));
  return true;
}

void sync_directory_of(const std::string &path) {
  std::string copy = path;
  int dir = open(dirname(copy.data()), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return;
  fsync(dir);
  close(dir);
}

// Writes `content` to the backup through a new file renamed over it, with
// the configuration's mode.  nullptr, or what failed (errno set).
const char *save_backup(const std::string &backup, const std::string &content, mode_t mode) {
  struct stat existing;
  if (lstat(backup.c_str(), &existing) == 0 && !S_ISREG(existing.st_mode)) {
    errno = EEXIST;
    return S_ISLNK(existing.st_mode) ? "the backup's name is a symbolic link"
                                     : "the backup's name is not a regular file";
  }
  std::string temporary = backup + ".XXXXXX";
  int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return "cannot create the backup";
  const char *failed = nullptr;
  if (fchmod(fd, mode) != 0 || !write_at(fd, content.data(), content.size(), 0) ||
      fsync(fd) != 0)
    failed = "cannot write the backup";
  int error = errno;
  if (close(fd) != 0 && failed == nullptr) {
    failed = "cannot write the backup";
    error = errno;
  }
  if (failed == nullptr && rename(temporary.c_str(), backup.c_str()) != 0) {
    failed = "cannot rename the backup into place";
    error = errno;
  }
  if (failed != nullptr) {
    unlink(temporary.c_str());
    errno = error;
    return failed;
  }
  sync_directory_of(backup);
  return nullptr;
}

// The new content goes over the old one behind a mark that the readers
// refuse: the mark first, then everything but the first byte, the cut to
// the new length, and the first byte last.  Each step reaches the disk
// before the next.  nullptr, or what failed (errno set).
const char *write_over(int fd, const std::string &content) {
  const char mark = kIncompleteMark;
  if (!write_at(fd, &mark, 1, 0) || fsync(fd) != 0) return "cannot write";
  if (content.empty()) return ftruncate(fd, 0) != 0 || fsync(fd) != 0 ? "cannot write" : nullptr;
  if (!write_at(fd, content.data() + 1, content.size() - 1, 1) ||
      ftruncate(fd, static_cast<off_t>(content.size())) != 0 || fsync(fd) != 0 ||
      !write_at(fd, content.data(), 1, 0) || fsync(fd) != 0)
    return "cannot write";
  return nullptr;
}

// Puts the previous content back after a failed write; false when that
// failed too.
bool restore(int fd, const std::string &previous) {
  return ftruncate(fd, static_cast<off_t>(previous.size())) == 0 &&
         write_at(fd, previous.data(), previous.size(), 0) && fsync(fd) == 0;
}

}  // namespace

std::string backup_path(const char *path) { return std::string(path) + ".bak"; }

int replace_content(FILE *fp, const char *configured, const std::string &content) {
  fflush(fp);
  int fd = fileno(fp);
  struct stat file;
  if (fstat(fd, &file) != 0) {
    fprintf(stderr, "Cannot write \"%s\": %s\n", configured, strerror(errno));
    return -1;
  }
  if (!S_ISREG(file.st_mode)) {
    size_t done = 0;
    while (done < content.size()) {
      ssize_t wrote = write(fd, content.data() + done, content.size() - done);
      if (wrote < 0 && errno == EINTR) continue;
      if (wrote <= 0) {
        fprintf(stderr, "Cannot write \"%s\": %s\n", configured, strerror(errno));
        return -1;
      }
      done += static_cast<size_t>(wrote);
    }
    return 0;
  }
  // Positioned writes ignore their offset on a descriptor opened for
  // appending.
  int flags = fcntl(fd, F_GETFL);
  if (flags != -1 && (flags & O_APPEND) != 0) fcntl(fd, F_SETFL, flags & ~O_APPEND);

  std::string name, previous;
  const char *failed = nullptr;
  if (!file_name(fd, file, configured, &name)) {
    name = configured;
    failed = "cannot find the file's name";
  } else if (!read_previous(fd, &previous)) {
    failed = "cannot read the previous content";
  }
  const std::string backup = backup_path(name.c_str());
  // Nothing worth keeping in an empty file, and nothing to save it from in
  // a file that no name leads to any more.
  if (failed == nullptr && !previous.empty() && file.st_nlink > 0)
    failed = save_backup(backup, previous, file.st_mode & 07777);
  if (failed != nullptr) {
    fprintf(stderr, "Cannot write \"%s\" (%s: %s); the file is left unchanged\n", name.c_str(),
            failed, strerror(errno));
    return -1;
  }
  failed = write_over(fd, content);
  if (failed == nullptr) return 0;
  int error = errno;
  if (restore(fd, previous)) {
    fprintf(stderr, "Cannot write \"%s\" (%s: %s); the file is left unchanged\n", name.c_str(),
            failed, strerror(error));
  } else {
    fprintf(stderr, "Cannot write \"%s\" (%s: %s); the previous content is in \"%s\"\n",
            name.c_str(), failed, strerror(error), backup.c_str());
  }
  return -1;
}

std::string creation_time() {
  char when[200];
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  strftime(when, sizeof when, "%a %b %d %H:%M:%S %Y", &local);
  return when;
}

std::string text_written_by(const std::function<void(FILE *)> &write) {
  char *text = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  if (out == nullptr) allocation_failed("malloc", 0);
  write(out);
  fclose(out);
  std::string content(text, size);
  free(text);
  return content;
}

bool rewrite_incomplete(FILE *fp) {
  int c = getc(fp);
  if (c == EOF) return false;
  ungetc(c, fp);
  return c == static_cast<unsigned char>(kIncompleteMark);
}

}  // namespace events
