// Trace log and event logger.
//
// Every output operation runs inside a block/restore pair over
// kTraceBlockedSignals so that the set of signals kept out of a half-written
// line can be widened in one place; the shipped set is empty.

#include <csignal>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "log_trace.h"

extern "C" {
EVENTS_EXPORT FILE *tracelogfp = nullptr;
EVENTS_EXPORT FILE *dumpFp = nullptr;
EVENTS_EXPORT int traceStartingAndStopping = 1;
EVENTS_EXPORT int snmptracemaskEMS = 0;
EVENTS_EXPORT int dump_packetEMS = 0;
}

namespace {

// Blocks the trace signal set for the lifetime of the object.
class SignalBlock {
 public:
  SignalBlock() {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigprocmask(SIG_BLOCK, &blocked, &previous_);
  }
  ~SignalBlock() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }
  SignalBlock(const SignalBlock &) = delete;
  SignalBlock &operator=(const SignalBlock &) = delete;

 private:
  sigset_t previous_;
};

}  // namespace

extern "C" EVENTS_EXPORT int printTime(void) {
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char stamp[100];
  if (strftime(stamp, sizeof stamp - 1, "%a %b %d %H:%M:%S %Y", &local) == 0) stamp[0] = '\0';
  stamp[sizeof stamp - 1] = '\0';
  return fprintf(tracelogfp, "%-24.24s ", stamp);
}

extern "C" EVENTS_EXPORT int open_trace_log(const char *tracefile) {
  if (tracelogfp != nullptr) {
    dumpFp = tracelogfp;
    return 0;
  }
  if (tracefile == nullptr) return -1;
  SignalBlock block;
  FILE *stream = strcoll(tracefile, "-") == 0 ? stdout : fopen(tracefile, "ae");
  if (stream == nullptr) return -1;
  tracelogfp = stream;
  dumpFp = stream;
  if (traceStartingAndStopping) {
    printTime();
    fputs("Tracing Started\n", tracelogfp);
    fflush(tracelogfp);
  }
  return 0;
}

extern "C" EVENTS_EXPORT void close_trace_log(void) {
  if (tracelogfp == nullptr) {
    dumpFp = nullptr;
    return;
  }
  SignalBlock block;
  if (traceStartingAndStopping) {
    printTime();
    fputs("Tracing Stopped\n", tracelogfp);
  }
  // Standard output stays open (and unflushed) for the rest of the process.
  if (tracelogfp != stdout) fclose(tracelogfp);
  tracelogfp = nullptr;
  dumpFp = nullptr;
}

extern "C" EVENTS_EXPORT void log_trace(const char *routine, const char *fmt, ...) {
  if (tracelogfp == nullptr) return;
  SignalBlock block;
  printTime();
  fprintf(tracelogfp, "%s: ", routine);
  va_list args;
  va_start(args, fmt);
  vfprintf(tracelogfp, fmt, args);
  va_end(args);
  fputc('\n', tracelogfp);
  fflush(tracelogfp);
}

extern "C" EVENTS_EXPORT int sigblockhexdump(const unsigned char *buf, int size) {
  if (tracelogfp == nullptr || size <= 0) return 0;
  SignalBlock block;
  char text[17] = {};
  int pos = 0;
  for (int i = 0; i < size; ++i) {
    pos = i % 16;
    if (pos == 0) fprintf(tracelogfp, "%4d:  ", i);
    fprintf(tracelogfp, "%2x ", buf[i]);
    text[pos] = (buf[i] >= 32 && buf[i] <= 126) ? static_cast<char>(buf[i]) : '.';
    if (pos == 15) fprintf(tracelogfp, " %s\n", text);
  }
  if (pos != 15) {
    for (pos = size % 16; pos < 16; ++pos) {
      fputs("-- ", tracelogfp);
      text[pos] = '.';
    }
    fprintf(tracelogfp, " %s\n", text);
  }
  return 0;
}

extern "C" EVENTS_EXPORT void logger(int level, const char *routine, const char *fmt, ...) {
  if (level == 0) return;
  fprintf(stderr, "%s: ", routine);
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
  fputc('\n', stderr);
  fflush(stderr);
}

// The BER module's dump: offsets on standard output, octets on dumpFp with
// four blanks before the character column.
extern "C" EVENTS_EXPORT void hexdumpEMS(const unsigned char *buf, int size) {
  if (dumpFp == nullptr) return;
  char text[17] = {};
  int i = 0;
  for (; i < size; ++i) {
    int pos = i % 16;
    if (pos == 0) printf("  %4d:  ", i);
    fprintf(dumpFp, "%02x ", buf[i]);
    text[pos] = (buf[i] >= 32 && buf[i] <= 126) ? static_cast<char>(buf[i]) : '.';
    if (pos == 15) fprintf(dumpFp, "    %s\n", text);
  }
  if (i % 16 != 0) {
    for (int pos = i % 16; pos < 16; ++pos) {
      fputs("-- ", dumpFp);
      text[pos] = '.';
    }
    fprintf(dumpFp, "    %s\n", text);
  }
}
