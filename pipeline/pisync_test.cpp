#include "pipeline/pisync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int kForever = -1;

TEST(PiClock, ElapsedTimeOnlyAddsForwardTime) {
  UPiTicks now;
  UPiGetHighResolutionTime(now);
  UPiTicks total = 7;
  // A start later than now (a counter that went backwards) adds nothing.
  UPiAddElapsedTimeSince(now + 1000000000, total);
  EXPECT_EQ(total, 7);
  UPiTicks past = now - 5000;
  UPiAddElapsedTimeSince(past, total);
  EXPECT_GE(total, 7 + 5000);
  UPiAddElapsedTime(3, total);
  UPiTicks before = total;
  UPiAddElapsedTime(0, total);
  EXPECT_EQ(total, before);
}

TEST(PiClock, TicksTruncateToWholeSeconds) {
  // The clock counts nanoseconds, as std::chrono::steady_clock does.
  UPiTicks start;
  UPiGetHighResolutionTime(start);
  auto chronoStart = std::chrono::steady_clock::now().time_since_epoch().count();
  EXPECT_LE(start, chronoStart);
  EXPECT_EQ(UPiHighResolutionTimeToSecs(0), 0u);
  EXPECT_EQ(UPiHighResolutionTimeToSecs(999999999), 0u);
  EXPECT_EQ(UPiHighResolutionTimeToSecs(2999999999), 2u);
  EXPECT_EQ(UPiHighResolutionTimeToSecs(int64_t{4000} * 1000000000), 4000u);
}

TEST(PiThrow, ThrowsTheBareCode) {
  try {
    UPiThrow(-1010);
    FAIL() << "no throw";
  } catch (int err) {
    EXPECT_EQ(err, -1010);
  }
}

TEST(PiCondition, WakeUpsWithoutWaiterAreKeptForTheNextWaiter) {
  std::unique_ptr<TPiQMutex> mutex(UPiNewMutex());
  std::unique_ptr<TPiQCondition> condition(UPiNewCondition());
  mutex->lock();
  condition->broadcast();
  EXPECT_TRUE(condition->wait(*mutex, kForever));  // returns at once
  condition->signal();
  EXPECT_TRUE(condition->wait(*mutex, kForever));
  mutex->unlock();
}

TEST(PiMutex, IsReentrantForItsOwner) {
  std::unique_ptr<TPiQMutex> mutex(UPiNewMutex());
  mutex->lock();
  mutex->lock();
  mutex->unlock();
  mutex->unlock();
  { TPiQCriticalSection lock(mutex.get()); }
}

TEST(PiCriticalSection, KeepsASharedMutexAlive) {
  auto mutex = std::shared_ptr<TPiQMutex>(UPiNewMutex());
  std::weak_ptr<TPiQMutex> watch = mutex;
  {
    TPiQCriticalSection lock(mutex);
    mutex.reset();
    EXPECT_FALSE(watch.expired());  // unlocked in the destructor, not freed
  }
  EXPECT_TRUE(watch.expired());
}

TEST(PiEvent, AutoResetPassesOneBlock) {
  TPiEvent event(false);
  EXPECT_FALSE(event.isSignaled());
  event.Signal();
  EXPECT_TRUE(event.isSignaled());
  EXPECT_TRUE(event.Block(kForever));
  EXPECT_FALSE(event.isSignaled());
}

TEST(PiEvent, SignalAllAndManualResetStayOpenUntilReset) {
  TPiEvent automatic(false);
  automatic.SignalAll();
  EXPECT_TRUE(automatic.Block(kForever));
  EXPECT_TRUE(automatic.Block(kForever));
  EXPECT_TRUE(automatic.isSignaled());
  automatic.Reset();
  EXPECT_FALSE(automatic.isSignaled());
  // After Reset a plain Signal is auto-reset again.
  automatic.Signal();
  EXPECT_TRUE(automatic.Block(kForever));
  EXPECT_FALSE(automatic.isSignaled());

  TPiEvent manual(true);
  manual.Signal();
  EXPECT_TRUE(manual.Block(kForever));
  EXPECT_TRUE(manual.Block(kForever));
  EXPECT_TRUE(manual.isSignaled());
  manual.Reset();
  EXPECT_FALSE(manual.isSignaled());
}

// Waits until `count` reaches `want`.
void AwaitCount(const std::atomic<int>& count, int want) {
  while (count.load() < want) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(PiConditionThreaded, BroadcastWakesEveryCountedWaiter) {
  std::unique_ptr<TPiQMutex> mutex(UPiNewMutex());
  std::unique_ptr<TPiQCondition> condition(UPiNewCondition());
  constexpr int kWaiters = 4;
  int waiting = 0;  // guarded by mutex
  bool go = false;  // guarded by mutex
  std::atomic<int> woken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kWaiters; ++i) {
    threads.emplace_back([&] {
      mutex->lock();
      ++waiting;
      while (!go) condition->wait(*mutex, kForever);
      mutex->unlock();
      woken.fetch_add(1);
    });
  }
  // Once all are counted under the lock they are inside wait (or about to
  // be, holding the lock): none can miss what follows.
  for (;;) {
    mutex->lock();
    bool all = waiting == kWaiters;
    if (all) go = true;
    mutex->unlock();
    if (all) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  condition->broadcast();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(woken.load(), kWaiters);
}

TEST(PiConditionThreaded, TwoSignalsWakeTwoWaiters) {
  std::unique_ptr<TPiQMutex> mutex(UPiNewMutex());
  std::unique_ptr<TPiQCondition> condition(UPiNewCondition());
  int waiting = 0;  // guarded by mutex
  int tokens = 0;   // guarded by mutex
  std::atomic<int> woken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      mutex->lock();
      ++waiting;
      while (tokens == 0) condition->wait(*mutex, kForever);
      --tokens;
      mutex->unlock();
      woken.fetch_add(1);
    });
  }
  for (;;) {
    mutex->lock();
    bool all = waiting == 2;
    if (all) tokens = 2;
    mutex->unlock();
    if (all) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  // Two separate wake-ups, each meant for one waiter: neither is swallowed.
  condition->signal();
  condition->signal();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(woken.load(), 2);
}

TEST(PiEventThreaded, SignalReleasesExactlyOneBlockedThread) {
  TPiEvent event(false);
  std::atomic<int> passed{0};
  std::thread first([&] {
    event.Block(kForever);
    passed.fetch_add(1);
  });
  std::thread second([&] {
    event.Block(kForever);
    passed.fetch_add(1);
  });
  event.Signal();
  AwaitCount(passed, 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(passed.load(), 1);
  EXPECT_FALSE(event.isSignaled());
  event.Signal();
  first.join();
  second.join();
  EXPECT_EQ(passed.load(), 2);
  EXPECT_FALSE(event.isSignaled());
}

TEST(PiEventThreaded, SignalAllReleasesEveryBlockedThread) {
  TPiEvent event(false);
  std::atomic<int> passed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      event.Block(kForever);
      passed.fetch_add(1);
    });
  }
  event.SignalAll();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(passed.load(), 3);
  EXPECT_TRUE(event.isSignaled());
}

TEST(PiThreadIdThreaded, DecimalAndDistinctPerThread) {
  std::string mine = UPiThreadIDStr();
  std::string other;
  std::thread thread([&] { other = UPiThreadIDStr(); });
  thread.join();
  ASSERT_FALSE(mine.empty());
  EXPECT_EQ(mine.find_first_not_of("0123456789"), std::string::npos);
  EXPECT_EQ(other.find_first_not_of("0123456789"), std::string::npos);
  EXPECT_NE(mine, other);
  EXPECT_EQ(mine, UPiThreadIDStr());
}

}  // namespace
