// The shared bandwidth limiter and the transfer's progress, on a clock of
// the test's own: exact waits, no wall-clock time.
#include "cloud/cloud_bandwidth.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "cloud/cloud_retry.h"
#include "cloud/cloud_transfer.h"

namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kSecond = 1000000000;

class ManualClock : public TCloudClock {
 public:
  int64_t NowNs() const override { return now.load(); }
  void SleepNs(int64_t ns) const override {
    now.fetch_add(ns);
    slept.fetch_add(ns);
  }
  mutable std::atomic<int64_t> now{1000 * kSecond};
  mutable std::atomic<int64_t> slept{0};
};

TEST(CloudBandwidth, WaitsFollowTheRateAfterTheBurstAllowance) {
  ManualClock clock;
  TTokenBucket bucket(&clock);
  EXPECT_EQ(bucket.Take(1 << 30), 0) << "no limit";
  bucket.SetRate(1000000);  // 1 MB/s: 1 byte per microsecond
  struct Step {
    int64_t advanceNs;
    uint64_t bytes;
    int64_t wantWaitNs;
  } steps[] = {
      {0, 100000, 0},                 // 100 ms of bytes: within the 125 ms allowance
      {0, 25000, 0},                  // exactly the allowance
      {0, 1, 1000},                   // one byte past it waits its microsecond
      {0, 50000, 50001000},           // and the debt adds up
      {126 * kMs, 1000, 0},           // time paid the debt off (and no more)
      {10 * kSecond, 200000, 75 * kMs},  // idle time earns no credit beyond the allowance
  };
  for (const Step& step : steps) {
    clock.now.fetch_add(step.advanceNs);
    EXPECT_EQ(bucket.Take(step.bytes), step.wantWaitNs) << step.bytes;
  }
  bucket.SetRate(0);
  EXPECT_EQ(bucket.Take(1 << 30), 0);
  bucket.SetRate(1000);
  EXPECT_EQ(bucket.Take(1000), kSecond - 125 * kMs) << "a new rate forgets the old debt";
}

TEST(CloudBandwidth, OddRatesAndHugeRunsStayExact) {
  ManualClock clock;
  TTokenBucket bucket(&clock);
  bucket.SetRate(3);  // a third of a second per byte
  EXPECT_EQ(bucket.Take(1), 333333333 - 125 * kMs);
  EXPECT_EQ(bucket.Take(2), 999999999 - 125 * kMs) << "each run's cost rounds down to the nanosecond";
  bucket.SetRate(UINT64_MAX);
  EXPECT_EQ(bucket.Take(UINT64_MAX), 1000000000 - 125 * kMs);
  bucket.SetRate(1);
  EXPECT_GT(bucket.Take(UINT64_MAX), 0) << "no overflow into a negative wait";
}

TEST(CloudBandwidthThreaded, ThreadsShareOneRate) {
  ManualClock clock;
  TTokenBucket bucket(&clock);
  bucket.SetRate(1000000);
  std::atomic<int64_t> longest{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 250; ++i) {
        int64_t wait = bucket.Take(1000);
        for (int64_t seen = longest.load(); wait > seen && !longest.compare_exchange_weak(seen, wait);) {
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  // 1 MB taken at once at 1 MB/s: the last taker waits the second less the allowance.
  EXPECT_EQ(longest.load(), kSecond - 125 * kMs);
}

TEST(CloudBandwidth, TransfersSleepAsTheLimiterSaysAndStopWhenAsked) {
  ManualClock clock;
  TTokenBucket limiter(&clock);
  limiter.SetRate(1000000);
  TCloudTransfer transfer(true, 10000000, nullptr, nullptr, &clock, &limiter);
  for (int i = 0; i < 160; ++i) ASSERT_TRUE(transfer.Moved(62500));
  // 10 MB at 1 MB/s, less the allowance.
  EXPECT_EQ(clock.slept.load(), 10 * kSecond - 125 * kMs);
  transfer.Stop();
  EXPECT_FALSE(transfer.Moved(1));
}

struct Reports {
  std::vector<uint64_t> done;
  bool answer = true;
};

bool Record(void* context, TUpDownStats* stats) {
  auto* reports = static_cast<Reports*>(context);
  reports->done.push_back(stats->BytesDone());
  return reports->answer;
}

TEST(CloudBandwidth, ProgressComesAtMostOncePerIntervalAndAtTheEnd) {
  ManualClock clock;
  Reports reports;
  TCloudTransfer transfer(false, 1000, &Record, &reports, &clock, nullptr);
  ASSERT_TRUE(transfer.Moved(100));      // the first always reports
  ASSERT_TRUE(transfer.Moved(100));      // too soon
  clock.now.fetch_add(99 * kMs);
  ASSERT_TRUE(transfer.Moved(100));      // still too soon
  clock.now.fetch_add(1 * kMs);
  ASSERT_TRUE(transfer.Moved(100));      // 100 ms after the first
  transfer.Undo(100);                    // a failed attempt gives its bytes back
  transfer.Finish();
  EXPECT_EQ(reports.done, (std::vector<uint64_t>{100, 400, 1000}));
  reports.answer = false;
  clock.now.fetch_add(kSecond);
  EXPECT_FALSE(transfer.Moved(1));
  EXPECT_TRUE(transfer.Cancelled());
}

TEST(CloudRetryBackoff, PausesGrowToTheCapWithFullJitter) {
  CloudRetrySpec rules;
  rules.baseMs = 100;
  rules.capMs = 1000;
  struct Case {
    uint32_t attempt;
    int64_t ceilingNs;
  } cases[] = {{1, 0}, {2, 100 * kMs}, {3, 200 * kMs}, {4, 400 * kMs}, {5, 800 * kMs}, {6, 1000 * kMs}, {60, 1000 * kMs}};
  for (const Case& c : cases) {
    EXPECT_EQ(CloudBackoffNs(rules, c.attempt, UINT64_MAX - 1), c.ceilingNs == 0 ? 0 : (UINT64_MAX - 1) % (c.ceilingNs + 1));
    EXPECT_EQ(CloudBackoffNs(rules, c.attempt, static_cast<uint64_t>(c.ceilingNs)), c.ceilingNs) << c.attempt;
    EXPECT_EQ(CloudBackoffNs(rules, c.attempt, 0), 0);
  }
  rules.baseMs = 0;
  EXPECT_EQ(CloudBackoffNs(rules, 5, 12345), 0);
}

}  // namespace
