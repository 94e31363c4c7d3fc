// The clock the cloud code waits on: the bandwidth limiter, retry pauses
// and the progress interval read it. Tests give their own, so that nothing
// they check depends on the wall clock.
#ifndef PLINTH_CLOUD_CLOUD_CLOCK_H_
#define PLINTH_CLOUD_CLOUD_CLOCK_H_

#include <cstdint>

class TCloudClock {
 public:
  virtual ~TCloudClock() = default;
  // A steady clock in nanoseconds (its zero means nothing).
  virtual int64_t NowNs() const = 0;
  virtual void SleepNs(int64_t ns) const = 0;

  // The process's steady clock.
  static const TCloudClock* System();
};

#endif  // PLINTH_CLOUD_CLOUD_CLOCK_H_
