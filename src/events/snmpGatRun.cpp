// Probes for the gathering daemon snmpGather: installed, needed, running.
// The daemon holds a write lock on its pid file while it runs, so a lock
// query on that file tells whether it is alive.  Beside them, sendsig
// signals whichever process a pid file names.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "env_probe.h"
#include "event.h"

namespace {

struct GatherProbe {
  char *pid_file = nullptr;
};

GatherProbe gather;

}  // namespace

extern "C" EVENTS_EXPORT char *getSnmpGatherPidFile(void) {
  if (gather.pid_file == nullptr) {
    const char *from_environment = getenv("KZSNMPGATPIDFILE");
    gather.pid_file = strdup(from_environment != nullptr ? from_environment
                                                         : "/usr/KZ/pids/snmpGatherPid");
    if (gather.pid_file == nullptr) abort();
  }
  return gather.pid_file;
}

extern "C" EVENTS_EXPORT int isSnmpGatherRunning(void) {
  int fd = open(getSnmpGatherPidFile(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  struct flock query;
  memset(&query, 0, sizeof query);
  query.l_type = F_WRLCK;
  query.l_whence = SEEK_SET;
  query.l_start = 0;
  query.l_len = 0;
  int result = fcntl(fd, F_GETLK, &query);
  close(fd);
  if (result < 0 || query.l_type == F_UNLCK) return 0;
  return 1;
}

extern "C" EVENTS_EXPORT int isSnmpGatherHappy(void) {
  struct stat info;
  if (stat("/usr/KZ/bin/snmpGather", &info) != 0) return 1;
  if (isCnode()) return 1;
  return isSnmpGatherRunning();
}

extern "C" EVENTS_EXPORT int sendsig(int signo, const char *, const char *pidFile) {
  if (pidFile == nullptr) return 1;
  FILE *file = fopen(pidFile, "re");
  if (file == nullptr) return 1;
  int pid;
  int found = fscanf(file, "%d", &pid);
  fclose(file);
  if (found != 1) return 1;
  if (kill(pid, signo) != 0 && errno == ESRCH) return pid;
  return 0;
}
