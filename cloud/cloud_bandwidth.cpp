#include "cloud/cloud_bandwidth.h"

#include <chrono>
#include <thread>

namespace {

constexpr int64_t kNsPerSecond = 1000000000;

class SystemClock : public TCloudClock {
 public:
  int64_t NowNs() const override {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  void SleepNs(int64_t ns) const override {
    if (ns > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(ns));
  }
};

// n / rate seconds in nanoseconds, without overflow for any n below 2^63 ns.
int64_t CostNs(uint64_t bytes, uint64_t rate) {
  uint64_t whole = bytes / rate;
  uint64_t rest = bytes % rate;
  constexpr uint64_t kCap = static_cast<uint64_t>(INT64_MAX / 4);
  if (whole >= kCap / kNsPerSecond) return static_cast<int64_t>(kCap);
  // rest < rate <= 2^64 / 1e9 would be needed for the product to fit; a
  // rate that large is no limit worth the arithmetic.
  uint64_t fraction = rate <= UINT64_MAX / kNsPerSecond ? rest * kNsPerSecond / rate
                                                        : static_cast<uint64_t>(static_cast<double>(rest) * 1e9 /
                                                                                static_cast<double>(rate));
  return static_cast<int64_t>(whole * kNsPerSecond + fraction);
}

}  // namespace

const TCloudClock* TCloudClock::System() {
  static const SystemClock clock;
  return &clock;
}

void TTokenBucket::SetRate(uint64_t bytesPerSecond) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_rate.store(bytesPerSecond, std::memory_order_relaxed);
  m_due = INT64_MIN;
}

int64_t TTokenBucket::Take(uint64_t bytes) {
  if (m_rate.load(std::memory_order_relaxed) == 0 || bytes == 0) return 0;
  std::lock_guard<std::mutex> guard(m_lock);
  uint64_t rate = m_rate.load(std::memory_order_relaxed);
  if (rate == 0) return 0;
  int64_t now = m_clock->NowNs();
  int64_t start = m_due < now ? now : m_due;
  m_due = start + CostNs(bytes, rate);
  int64_t wait = m_due - now - kCloudBurstNs;
  return wait > 0 ? wait : 0;
}

TTokenBucket& CloudUploadLimiter() {
  static TTokenBucket limiter(TCloudClock::System());
  return limiter;
}

TTokenBucket& CloudDownloadLimiter() {
  static TTokenBucket limiter(TCloudClock::System());
  return limiter;
}
