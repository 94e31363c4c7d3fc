// Retrying a cloud request.
//
// A request is tried again only after a failure that may pass
// (CloudIsRetryError), within an attempt count, and never once the transfer
// it belongs to is stopped. Between attempts the caller waits a jittered
// exponential pause: attempt n (from 2) waits a uniformly random time in
// [0, min(cap, base x 2^(n-2))] ("full jitter"), so that many clients
// failing together do not come back together.
#ifndef PLINTH_CLOUD_CLOUD_RETRY_H_
#define PLINTH_CLOUD_CLOUD_RETRY_H_

#include <cstdint>
#include <functional>

#include "cloud/cloud_clock.h"

// False for the final codes -1114, -1107, -1028, -1021, -1017 and -1010
// (end of file, read fault, clock skew, broken pipe, access denied, bad
// parameter); true for every other code, 0 included.
bool CloudIsRetryError(int code);

constexpr uint32_t kCloudRetryBaseMs = 200;
constexpr uint32_t kCloudRetryCapMs = 10000;

struct CloudRetrySpec {
  uint32_t attempts = 1;  // 0 counts as 1
  uint32_t baseMs = kCloudRetryBaseMs;
  uint32_t capMs = kCloudRetryCapMs;
};

// The pause before attempt `attempt` (2..) for the random word `random`.
int64_t CloudBackoffNs(const CloudRetrySpec& rules, uint32_t attempt, uint64_t random);

// Waits the pause before attempt `attempt`, in slices on `clock`, ending
// early once `stopped()` answers true.
void CloudPause(const CloudRetrySpec& rules, const TCloudClock* clock, uint32_t attempt,
                const std::function<bool()>& stopped);

// Runs `request(attempt)` until it answers 0 or a final code, the attempts
// are spent, or `stopped()` answers true (then the last code stands). Each
// failure that is tried again writes "<what>: attempt %~u of %~u failed,
// trying again, %E" at 519. The pause is waited in slices on `clock`, so a
// stop cuts it short. Answers the last result.
int CloudRetry(const CloudRetrySpec& rules, const TCloudClock* clock, const char16_t* what,
               const std::function<int(uint32_t attempt)>& request, const std::function<bool()>& stopped);

#endif  // PLINTH_CLOUD_CLOUD_RETRY_H_
