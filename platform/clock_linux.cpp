#include "platform/clock.h"

#include <time.h>

namespace platform {

int64_t UnixTimeMilliseconds() {
  struct timespec ts;
  if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return 0;
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int LocalGmtOffsetMinutes(int64_t unixSeconds) {
  time_t t = static_cast<time_t>(unixSeconds);
  struct tm local;
  if (localtime_r(&t, &local) == nullptr) return 0;
  // Historical zones had offsets in seconds; dates keep whole minutes.
  long seconds = local.tm_gmtoff;
  return static_cast<int>((seconds >= 0 ? seconds + 30 : seconds - 30) / 60);
}

}  // namespace platform
