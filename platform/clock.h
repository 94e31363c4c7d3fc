// The system clock and the local time zone.
//
// Times here are Unix times: milliseconds or seconds since 1970-01-01
// 00:00:00 UTC. Offsets are in minutes east of UTC, as dates keep them.
#ifndef PLINTH_PLATFORM_CLOCK_H_
#define PLINTH_PLATFORM_CLOCK_H_

#include <cstdint>

namespace platform {

// The wall clock (CLOCK_REALTIME) in milliseconds.
int64_t UnixTimeMilliseconds();

// The local offset from UTC in effect at `unixSeconds`, daylight saving
// included (localtime_r's tm_gmtoff, rounded to minutes). 0 when the C
// library cannot break the time down.
int LocalGmtOffsetMinutes(int64_t unixSeconds);

}  // namespace platform

#endif  // PLINTH_PLATFORM_CLOCK_H_
