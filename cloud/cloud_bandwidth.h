// The bandwidth limiter that every bucket of the process shares.
//
// One token bucket per direction, in bytes per second; 0 means no limit.
// TCloudBucket::SetLimits(up, down) sets the two rates. Every connector
// reports the bytes it moves through its transfer's tap, which takes them
// here and waits as long as the rate requires, so that all transfers of a
// direction, whatever their thread or bucket, share one rate.
//
// The rule (a cell-rate rule, integer nanoseconds): each run of n bytes
// costs n / rate seconds; the bucket keeps the time at which the bytes
// taken so far will have gone at the rate (never earlier than now: idle
// time earns no credit), and a taker waits until that time less the burst
// allowance (kCloudBurstNs, 125 ms). So an idle direction may send one
// eighth of a second's bytes at once, and over any longer span no more than
// the rate goes. A run larger than the allowance simply waits longer: no run is
// ever refused. Changing a rate forgets the debt.
//
// Thread-safe: one lock per direction, held for a few instructions.
#ifndef PLINTH_CLOUD_CLOUD_BANDWIDTH_H_
#define PLINTH_CLOUD_CLOUD_BANDWIDTH_H_

#include <atomic>
#include <cstdint>
#include <mutex>

#include "cloud/cloud_clock.h"

constexpr int64_t kCloudBurstNs = 125000000;

class TTokenBucket {
 public:
  explicit TTokenBucket(const TCloudClock* clock) : m_clock(clock) {}

  // Bytes per second; 0 lifts the limit.
  void SetRate(uint64_t bytesPerSecond);
  uint64_t Rate() const { return m_rate.load(std::memory_order_relaxed); }
  // Takes `bytes` and answers the nanoseconds to wait before they may go
  // (0 while within the rate or without a limit).
  int64_t Take(uint64_t bytes);

 private:
  const TCloudClock* m_clock;
  std::atomic<uint64_t> m_rate{0};
  std::mutex m_lock;
  int64_t m_due = INT64_MIN;  // when the bytes taken so far have gone
};

// The process's two limiters, on the system clock.
TTokenBucket& CloudUploadLimiter();
TTokenBucket& CloudDownloadLimiter();

#endif  // PLINTH_CLOUD_CLOUD_BANDWIDTH_H_
