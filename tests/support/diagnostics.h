// Runs a piece of library code with every diagnostic channel switched on
// and returns what reached standard error and the trace log.
#ifndef EVENTS_TESTS_SUPPORT_DIAGNOSTICS_H
#define EVENTS_TESTS_SUPPORT_DIAGNOSTICS_H

#include <string>
#include <vector>

#include "log_trace.h"
#include "support/fixtures.h"

namespace testsupport {

struct Diagnostics {
  std::string standard_error;
  std::string trace_log;
};

template <typename Body>
Diagnostics with_diagnostics(int trace_mask, Body body) {
  TempDir dir;
  std::string log_path = dir.file("trace.log");
  int saved_mask = snmptracemaskEMS;
  snmptracemaskEMS = trace_mask;
  traceStartingAndStopping = 0;
  open_trace_log(log_path.c_str());
  Diagnostics result;
  {
    CapturedStream captured(2);
    body();
    result.standard_error = captured.text();
  }
  close_trace_log();
  traceStartingAndStopping = 1;
  snmptracemaskEMS = saved_mask;
  result.trace_log = read_file(log_path);
  return result;
}

inline std::vector<unsigned char> bytes(std::initializer_list<int> values) {
  return std::vector<unsigned char>(values.begin(), values.end());
}

}  // namespace testsupport

#endif
