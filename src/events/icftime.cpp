// Time text: an interval in hundredths of a second as "90s", "2m", "1d".

#include <cstdio>

#include "events_msg.h"

namespace {

// Index 0 days, 1 hours per day, 2 minutes per hour, 3 seconds per minute.
constexpr unsigned long kTimeDivide[4] = {1, 24, 60, 60};
constexpr char kTimeScale[4] = {'d', 'h', 'm', 's'};

}  // namespace

extern "C" EVENTS_EXPORT int ICFEvtTimeInt2String(uint32_t *lpData, char *pcString) {
  unsigned long t = *lpData / 100;
  unsigned long part[4] = {0, 0, 0, 0};
  int unit = 3;
  if (t != 0) {
    for (int i = 3; i >= 1; --i) {
      part[i] = t % kTimeDivide[i];
      t = (t - part[i]) / kTimeDivide[i];
    }
    part[0] = t;
    // The smallest unit with a non-zero part divides the interval exactly.
    unit = 3;
    while (unit > 0 && part[unit] == 0) --unit;
  }
  unsigned long value = 0;
  for (int i = 0; i < unit; ++i) value = (value + part[i]) * kTimeDivide[i + 1];
  value += part[unit];
  sprintf(pcString, "%.1lu%c", value, kTimeScale[unit]);
  return 0;
}
