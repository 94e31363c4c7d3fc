#include "foundation/memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "foundation/memavail.h"
#include "tests/test_host.h"

namespace {

bool AllBytesAre(const void* p, size_t n, uint8_t value) {
  const auto* bytes = static_cast<const uint8_t*>(p);
  return std::all_of(bytes, bytes + n, [value](uint8_t b) { return b == value; });
}

// Turns the quarantine on for one test and drains it afterwards.
class QuarantineScope {
 public:
  QuarantineScope() : m_previous(MemDebug(kMemDebugQuarantine)) {}
  ~QuarantineScope() { MemDebug(m_previous); }

 private:
  int m_previous;
};

TEST(MemAllocTest, BlocksAreZeroedCountedAndSized) {
  const std::vector<size_t> sizes = {0, 1, 15, 16, 64, 255, 256, 257, 4079, 4080, 4097, 70000, 1 << 20};
  int64_t blocks = MemLiveBlocks();
  int64_t bytes = MemLiveBytes();
  // Dirty the heap first, so that reused memory would show if not zeroed.
  for (int round = 0; round < 2; ++round) {
    std::vector<void*> live;
    int64_t total = 0;
    for (size_t size : sizes) {
      void* p = MemAlloc(size);
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(MemSize(p), size);
      EXPECT_TRUE(AllBytesAre(p, size, 0)) << "size " << size << " round " << round;
      EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
      std::memset(p, 0xAB, size);
      live.push_back(p);
      total += static_cast<int64_t>(size);
    }
    EXPECT_EQ(MemLiveBlocks(), blocks + static_cast<int64_t>(sizes.size()));
    EXPECT_EQ(MemLiveBytes(), bytes + total);
    for (void* p : live) MemFree(p);
    EXPECT_EQ(MemLiveBlocks(), blocks);
    EXPECT_EQ(MemLiveBytes(), bytes);
    MemPack();  // hand the held blocks back so the second round reuses them
  }
  EXPECT_EQ(MemSize(nullptr), 0u);
  MemFree(nullptr);
  EXPECT_EQ(MemLiveBlocks(), blocks);
}

TEST(MemAllocTest, SecondFreeAssertsAndLeavesCountersAlone) {
  TestHost host;
  for (size_t size : {size_t{0}, size_t{40}}) {
    void* p = MemAlloc(size);
    MemFree(p);
    int64_t blocks = MemLiveBlocks();
    int64_t bytes = MemLiveBytes();
    EXPECT_EQ(host.AssertCount(), 0);
    MemFree(p);
    EXPECT_EQ(MemLiveBlocks(), blocks) << "size " << size;
    EXPECT_EQ(MemLiveBytes(), bytes);
    EXPECT_EQ(host.LinesWithFormat("ASSERT: %s, line %~d").back().text, "ASSERT: memutil_win, line 160");
    host.Clear();
  }
}

TEST(MemAllocTest, QuarantineCatchesLateDoubleFreesAndReadsOfFreedBlocks) {
  TestHost host;
  QuarantineScope quarantine;
  void* big = MemAlloc(200000);  // too big for the per-thread hold-back
  void* small = MemAlloc(24);
  std::memset(small, 0x11, 24);
  MemFree(big);
  MemFree(small);
  int64_t blocks = MemLiveBlocks();
  for (int i = 0; i < 1000; ++i) MemFree(MemAlloc(static_cast<size_t>(i)));
  EXPECT_TRUE(AllBytesAre(small, 24, 0xDD));
  MemFree(big);
  MemFree(small);
  EXPECT_EQ(MemSize(small), 0u);
  EXPECT_EQ(MemLiveBlocks(), blocks);
  std::vector<std::string> sources = host.AssertSources();
  EXPECT_EQ(sources, (std::vector<std::string>{"memutil_win", "memutil_win", "memutil"}));
  EXPECT_EQ(host.LinesWithFormat("ASSERT: %s, line %~d").back().text, "ASSERT: memutil, line 79");
}

TEST(MemAllocTest, ReallocOfFreedBlockAssertsAndAnswersAFreshBlock) {
  TestHost host;
  QuarantineScope quarantine;
  void* p = MemAlloc(8);
  MemFree(p);
  void* q = MemRealloc(p, 32);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>{"memutil"});
  EXPECT_EQ(MemSize(q), 32u);
  EXPECT_TRUE(AllBytesAre(q, 32, 0));
  MemFree(q);
}

// MemRealloc against a std::vector: the kept bytes survive every move and the
// new ones are zero, also when the block regrows over bytes it once had.
TEST(MemReallocTest, MatchesVectorModel) {
  std::mt19937 rng(1234);
  std::vector<uint8_t> model;
  void* p = nullptr;
  int64_t blocks = MemLiveBlocks();
  int64_t bytes = MemLiveBytes();
  for (int step = 0; step < 400; ++step) {
    size_t size = rng() % 4 == 0 ? rng() % 100000 : rng() % 600;
    p = MemRealloc(p, size);
    model.resize(size);
    ASSERT_EQ(MemSize(p), size);
    ASSERT_TRUE(std::equal(model.begin(), model.end(), static_cast<uint8_t*>(p))) << "step " << step;
    ASSERT_EQ(MemLiveBytes(), bytes + static_cast<int64_t>(size));
    for (size_t i = 0; i < size; i += 1 + rng() % 7) {
      uint8_t b = static_cast<uint8_t>(rng() | 1);
      model[i] = b;
      static_cast<uint8_t*>(p)[i] = b;
    }
  }
  EXPECT_EQ(MemLiveBlocks(), blocks + 1);
  MemFree(p);
  EXPECT_EQ(MemLiveBytes(), bytes);
}

TEST(MemAllocTest, WipeOnFreeKeepsContentsWhileLiveAndClearsThemOnFree) {
  auto* secret = static_cast<uint8_t*>(MemAlloc(32, kMemWipeOnFree));
  std::memset(secret, 0x5A, 32);
  secret = static_cast<uint8_t*>(MemRealloc(secret, 64));
  EXPECT_TRUE(AllBytesAre(secret, 32, 0x5A));
  EXPECT_TRUE(AllBytesAre(secret + 32, 32, 0));
  auto* plain = static_cast<uint8_t*>(MemAlloc(32));
  std::memset(plain, 0x5A, 32);
  MemFree(secret);
  MemFree(plain);
  // Both are still held back by this thread (not yet returned to the heap),
  // so their bytes may be looked at: only the wiped one lost them.
  EXPECT_TRUE(AllBytesAre(secret, 64, 0));
  EXPECT_TRUE(AllBytesAre(plain, 32, 0x5A));
}

TEST(MemAllocTest, HeapRefusalIsRetriedOnceAfterRecovery) {
  TestHost host;
  int64_t blocks = MemLiveBlocks();
  MemFailNextHeapRequests(1);
  void* p = MemAlloc(100);
  EXPECT_EQ(MemSize(p), 100u);
  // MemTryRealloc reports a refusal that survives recovery, leaving the block.
  std::memset(p, 7, 100);
  MemFailNextHeapRequests(2);
  EXPECT_EQ(MemTryRealloc(p, 5000), nullptr);
  EXPECT_EQ(MemSize(p), 100u);
  EXPECT_TRUE(AllBytesAre(p, 100, 7));
  MemFailNextHeapRequests(1);
  void* q = MemTryRealloc(p, 5000);
  ASSERT_NE(q, nullptr);
  EXPECT_TRUE(AllBytesAre(q, 100, 7));
  EXPECT_TRUE(AllBytesAre(static_cast<uint8_t*>(q) + 100, 4900, 0));
  EXPECT_EQ(MemLiveBlocks(), blocks + 1);
  MemFree(q);
  EXPECT_EQ(host.AssertCount(), 0);
  MemFailNextHeapRequests(0);
}

using MemAllocDeathTest = ::testing::Test;

TEST_F(MemAllocDeathTest, OutOfMemoryAfterRecoveryAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        MemFailNextHeapRequests(2);
        MemAlloc(64);
      },
      "MemAlloc: out of memory \\(64 bytes\\)");
  EXPECT_DEATH(
      {
        void* p = MemAlloc(10);
        MemFailNextHeapRequests(2);
        MemRealloc(p, 5000);
      },
      "out of memory \\(5000 bytes\\)");
  EXPECT_DEATH(MemAlloc(SIZE_MAX - 8), "out of memory");
}

TEST(MemAllocThreaded, CountersAreExactAcrossThreads) {
  constexpr int kThreads = 6;
  constexpr int kSteps = 20000;
  int64_t blocks = MemLiveBlocks();
  int64_t bytes = MemLiveBytes();
  std::vector<std::vector<void*>> kept(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &kept] {
      std::mt19937 rng(static_cast<unsigned>(t));
      std::vector<void*>& mine = kept[static_cast<size_t>(t)];
      for (int i = 0; i < kSteps; ++i) {
        if (!mine.empty() && rng() % 2 == 0) {
          size_t at = rng() % mine.size();
          MemFree(mine[at]);
          mine[at] = mine.back();
          mine.pop_back();
        } else {
          mine.push_back(MemAlloc(rng() % 300));
        }
        if (i % 97 == 0 && !mine.empty()) mine.back() = MemRealloc(mine.back(), rng() % 5000);
      }
    });
  }
  for (std::thread& th : threads) th.join();
  int64_t liveBlocks = 0;
  int64_t liveBytes = 0;
  for (const auto& mine : kept) {
    liveBlocks += static_cast<int64_t>(mine.size());
    for (void* p : mine) liveBytes += static_cast<int64_t>(MemSize(p));
  }
  EXPECT_EQ(MemLiveBlocks(), blocks + liveBlocks);
  EXPECT_EQ(MemLiveBytes(), bytes + liveBytes);
  // Blocks freed on threads other than their own still balance.
  std::vector<std::thread> freers;
  for (int t = 0; t < kThreads; ++t) {
    freers.emplace_back([&kept, t] {
      for (void* p : kept[static_cast<size_t>((t + 1) % kThreads)]) MemFree(p);
    });
  }
  for (std::thread& th : freers) th.join();
  EXPECT_EQ(MemLiveBlocks(), blocks);
  EXPECT_EQ(MemLiveBytes(), bytes);
}

// ---- MemAvail ---------------------------------------------------------------

// An address space of `limit` bytes with the physical figures given.
class SimulatedSystem : public TMemAvailSystem {
 public:
  SimulatedSystem(uint64_t total, uint64_t available, bool paging, uint64_t limit)
      : m_total(total), m_available(available), m_paging(paging), m_limit(limit) {}

  void QueryPhysical(uint64_t* totalBytes, uint64_t* availableBytes) override {
    *totalBytes = m_total, *availableBytes = m_available;
  }
  bool MayExceedPhysical() override { return m_paging; }
  void* Reserve(uint64_t bytes) override {
    if (bytes == 0 || m_held + bytes > m_limit) return nullptr;
    m_held += bytes;
    m_peak = std::max(m_peak, m_held);
    return reinterpret_cast<void*>(static_cast<uintptr_t>(0x10000 + m_held));
  }
  void Release(void*, uint64_t bytes) override { m_held -= bytes; }

  uint64_t held() const { return m_held; }
  uint64_t peak() const { return m_peak; }

 private:
  uint64_t m_total, m_available;
  bool m_paging;
  uint64_t m_limit, m_held = 0, m_peak = 0;
};

constexpr uint64_t kMB = uint64_t{1} << 20;
constexpr uint64_t kGB = uint64_t{1} << 30;

TEST(MemAvailTest, AllowanceFollowsPagingProbe) {
  uint64_t total = 8 * kGB;
  SimulatedSystem noPaging(total, kGB, false, uint64_t{1} << 46);
  EXPECT_EQ(MemAvailOn(&noPaging, 0, 50), (total - 16 * kMB) / 100 / 2 * 50);
  // When more is available than the total less 16 MB, availability counts.
  SimulatedSystem roomy(10 * kMB, 12 * kMB, false, uint64_t{1} << 46);
  EXPECT_EQ(MemAvailOn(&roomy, 0, 100), 12 * kMB / 100 / 2 * 100);
  SimulatedSystem paging(total, kGB, true, uint64_t{1} << 46);
  EXPECT_EQ(MemAvailOn(&paging, 0, 100), 1073741800u);
  SimulatedSystem smallPaging(512 * kMB, kMB, true, uint64_t{1} << 46);
  EXPECT_EQ(MemAvailOn(&smallPaging, 1, 30), 512 * kMB / 100 * 30);
  EXPECT_EQ(MemAvailOn(&smallPaging, 1, 0), 0u);
}

TEST(MemAvailTest, PercentAbove100AssertsAndCounts100) {
  TestHost host;
  SimulatedSystem system(4 * kGB, kGB, false, uint64_t{1} << 46);
  size_t full = MemAvailOn(&system, 0, 100);
  EXPECT_EQ(host.AssertCount(), 0);
  EXPECT_EQ(MemAvailOn(&system, 0, 101), full);
  EXPECT_EQ(host.LinesWithFormat("ASSERT: %s, line %~d").at(0).text, "ASSERT: memutil_win, line 232");
  MemAvail(0, 101);
  EXPECT_EQ(host.AssertCount(), 2);
}

// Against a limited address space the search finds close to the largest
// reservation that fits, never more, and gives every reservation back.
TEST(MemAvailTest, SearchStaysWithinTheLimit) {
  std::mt19937_64 rng(99);
  for (int round = 0; round < 300; ++round) {
    uint64_t total = (1 + rng() % 64) * kGB;
    bool paging = rng() % 2 == 0;
    int kind = static_cast<int>(rng() % 2);
    int percent = 1 + static_cast<int>(rng() % 100);
    uint64_t limit = 33 * kMB + rng() % (4 * total);
    SimulatedSystem unlimited(total, total / 2, paging, uint64_t{1} << 60);
    uint64_t target = MemAvailOn(&unlimited, kind, percent);
    SimulatedSystem system(total, total / 2, paging, limit);
    uint64_t answer = MemAvailOn(&system, kind, percent);
    uint64_t room = limit - (kind == 1 ? 32 * kMB : 0);
    EXPECT_LE(answer, target);
    EXPECT_LE(answer, room);
    EXPECT_LE(system.peak(), limit);
    EXPECT_EQ(system.held(), 0u);
    if (room >= target) {
      EXPECT_EQ(answer, target);
    } else {
      // The search steps end at a sixteenth of the target.
      EXPECT_GE(answer + target / 8, room) << "round " << round << " target " << target << " room " << room;
    }
  }
}

TEST(MemAvailTest, MachineAnswerGrowsWithPercentAndStaysUnderPhysical) {
  uint64_t total = uint64_t{MemTotalMB()} << 20;
  ASSERT_GT(total, 0u);
  EXPECT_LE(MemPhysAvailMB(), MemTotalMB());
  size_t previous = 0;
  for (int percent = 0; percent <= 100; percent += 10) {
    size_t answer = MemAvail(percent % 20 == 0 ? 0 : 1, percent);
    EXPECT_GE(answer, previous) << percent;
    // Rounding of the megabyte figure aside, no more than the share of total.
    EXPECT_LE(answer, (total + kMB) / 100 * static_cast<uint64_t>(percent));
    previous = answer;
  }
}

}  // namespace
