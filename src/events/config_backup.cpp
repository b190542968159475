// Saving the previous content of a configuration file before it is
// rewritten, and flushing the new content to disk.

#include "config_backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace events {

namespace {

// Reads fp from its start to its end into *content; false on a read error.
bool read_whole(FILE *fp, std::string *content) {
  if (fflush(fp) != 0 || fseek(fp, 0, SEEK_SET) != 0) return false;
  char chunk[8192];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, fp)) > 0) content->append(chunk, got);
  return ferror(fp) == 0;
}

bool write_all(int fd, const std::string &content) {
  size_t done = 0;
  while (done < content.size()) {
    ssize_t wrote = write(fd, content.data() + done, content.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    done += static_cast<size_t>(wrote);
  }
  return true;
}

}  // namespace

std::string backup_path(const char *path) { return std::string(path) + ".bak"; }

int save_backup(FILE *fp, const char *path) {
  const std::string backup = backup_path(path);
  std::string content;
  const char *failed = nullptr;
  int fd = -1;
  struct stat original;
  mode_t mode = fstat(fileno(fp), &original) == 0 ? (original.st_mode & 0666) : 0644;
  if (!read_whole(fp, &content)) {
    failed = "cannot read the configuration";
  } else if ((fd = open(backup.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode)) < 0 ||
             !write_all(fd, content) || fsync(fd) != 0) {
    failed = "cannot write";
  }
  int error = errno;
  if (fd >= 0 && close(fd) != 0 && failed == nullptr) {
    failed = "cannot write";
    error = errno;
  }
  clearerr(fp);
  rewind(fp);
  if (failed == nullptr) return 0;
  fprintf(stderr, "Backup file \"%s\" not saved (%s: %s); the configuration is left unchanged\n",
          backup.c_str(), failed, strerror(error));
  return -1;
}

int flush_to_disk(FILE *fp) {
  if (fflush(fp) != 0 || ferror(fp) != 0) {
    if (errno == 0) errno = EIO;
    return -1;
  }
  return fsync(fileno(fp));
}

}  // namespace events
