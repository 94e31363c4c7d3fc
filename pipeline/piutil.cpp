// The pipeline's small utilities: throwing codes, the high-resolution clock,
// thread identity and sleeping.
#include <chrono>
#include <string>
#include <thread>

#include "pipeline/pisync.h"
#include "platform/thread.h"

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

void UPiThrow(int err) { throw err; }

void UPiGetHighResolutionTime(UPiTicks& now) {
  now = static_cast<UPiTicks>(Clock::now().time_since_epoch().count());
}

void UPiAddElapsedTime(const UPiTicks& delta, UPiTicks& total) { total += delta; }

void UPiAddElapsedTimeSince(const UPiTicks& start, UPiTicks& total) {
  UPiTicks now;
  UPiGetHighResolutionTime(now);
  if (now > start) total += now - start;
}

unsigned UPiHighResolutionTimeToSecs(const UPiTicks& ticks) {
  constexpr int64_t kTicksPerSecond = Clock::period::den / Clock::period::num;
  return static_cast<unsigned>(ticks / kTicksPerSecond);
}

std::string UPiThreadIDStr() { return std::to_string(platform::CurrentThreadId()); }

void UPiSleepMilliSeconds(unsigned ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
