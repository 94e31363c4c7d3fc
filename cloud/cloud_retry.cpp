#include "cloud/cloud_retry.h"

#include <random>

#include "foundation/errors.h"
#include "foundation/format_checked.h"

namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kSliceNs = 50 * kNsPerMs;

uint64_t NextRandom() {
  thread_local std::mt19937_64 engine{std::random_device{}()};
  return engine();
}

}  // namespace

bool CloudIsRetryError(int code) {
  switch (code) {
    case kErrEndOfFile:
    case kErrReadFault:
    case kErrClockSkew:
    case kErrBrokenPipe:
    case kErrAccessDenied:
    case kErrBadParameter:
      return false;
    default:
      return true;
  }
}

int64_t CloudBackoffNs(const CloudRetrySpec& rules, uint32_t attempt, uint64_t random) {
  if (attempt < 2 || rules.baseMs == 0) return 0;
  int64_t ceiling = static_cast<int64_t>(rules.capMs) * kNsPerMs;
  int64_t step = static_cast<int64_t>(rules.baseMs) * kNsPerMs;
  for (uint32_t n = 2; n < attempt && step < ceiling; ++n) step *= 2;
  if (step > ceiling) step = ceiling;
  return static_cast<int64_t>(random % static_cast<uint64_t>(step + 1));
}

void CloudPause(const CloudRetrySpec& rules, const TCloudClock* clock, uint32_t attempt,
                const std::function<bool()>& stopped) {
  for (int64_t left = CloudBackoffNs(rules, attempt, NextRandom()); left > 0 && !stopped(); left -= kSliceNs) {
    clock->SleepNs(left < kSliceNs ? left : kSliceNs);
  }
}

int CloudRetry(const CloudRetrySpec& rules, const TCloudClock* clock, const char16_t* what,
               const std::function<int(uint32_t attempt)>& request, const std::function<bool()>& stopped) {
  uint32_t attempts = rules.attempts == 0 ? 1 : rules.attempts;
  int code = 0;
  for (uint32_t attempt = 1;; ++attempt) {
    code = request(attempt);
    if (code == 0 || !CloudIsRetryError(code) || attempt >= attempts || stopped()) return code;
    TString name(what);
    LogLineChecked(519, u"%s: attempt %~u of %~u failed, trying again, %E", &name, attempt, attempts, code);
    CloudPause(rules, clock, attempt + 1, stopped);
    if (stopped()) return code;
  }
}
