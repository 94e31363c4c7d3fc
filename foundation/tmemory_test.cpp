#include "foundation/tmemory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "foundation/block.h"
#include "foundation/memory.h"
#include "foundation/tstring.h"
#include "tests/test_host.h"

namespace {

const char* const kFailFormat = "TMemory::SetSize: priority %d failed from %K to %K";

bool SameBytes(TMemory& block, const std::vector<uint8_t>& model) {
  if (block.GetSize() != model.size()) return false;
  return model.empty() || std::memcmp(block.MemPtr(), model.data(), model.size()) == 0;
}

TEST(TMemoryTest, AllocSizeRounding) {
  EXPECT_EQ(TMemory::AllocSize(8192, kTMemCoarse), 8192u);
  EXPECT_EQ(TMemory::AllocSize(8193, kTMemCoarse), 16384u);
  EXPECT_EQ(TMemory::AllocSize(1048576, kTMemCoarse), 1048576u);
  EXPECT_EQ(TMemory::AllocSize(1048577, kTMemCoarse), 1048576u + 32768u);
  EXPECT_EQ(TMemory::AllocSize(1048575, kTMemCoarse), 1048576u);
  EXPECT_EQ(TMemory::AllocSize(1, kTMemCoarse), 1024u);
  EXPECT_EQ(TMemory::AllocSize(0, kTMemCoarse), 0u);
  EXPECT_EQ(TMemory::AllocSize(1, 0), 8u);
  EXPECT_EQ(TMemory::AllocSize(8193, 0), 8200u);
  EXPECT_EQ(TMemory::AllocSize(4294967295u, 0), 4294967296u);
}

// Random grow and shrink against a std::vector: contents survive, grown
// bytes are zero, and the allocation always covers the used size.
TEST(TMemoryTest, SetSizeMatchesVectorModel) {
  std::mt19937 rng(7);
  for (unsigned flags : {0u, kTMemCoarse}) {
    TMemory block;
    if (flags != 0) {
      ASSERT_EQ(block.SetFlags(flags, 0), 0);
    }
    std::vector<uint8_t> model;
    for (int step = 0; step < 500; ++step) {
      uint64_t size;
      switch (rng() % 4) {
        case 0: size = rng() % 200000; break;
        case 1: size = model.size() > 0 ? model.size() - rng() % std::min<size_t>(model.size(), 1500) : 0; break;
        case 2: size = model.size() + rng() % 3000; break;
        default: size = rng() % 2000; break;
      }
      ASSERT_EQ(block.SetSize(size), 0);
      model.resize(size);
      ASSERT_TRUE(SameBytes(block, model)) << "flags " << flags << " step " << step;
      ASSERT_GE(block.GetAllocatedSize(), block.GetSize());
      ASSERT_EQ(MemSize(block.MemPtr()), block.GetAllocatedSize());
      auto* bytes = static_cast<uint8_t*>(block.MemPtr());
      for (size_t i = 0; i < model.size(); i += 1 + rng() % 61) {
        model[i] = static_cast<uint8_t>(rng() | 1);
        bytes[i] = model[i];
      }
    }
    EXPECT_EQ(block.CheckError(), 0);
  }
}

TEST(TMemoryTest, GrowthByOneMovesOnlyLogarithmically) {
  TMemory block;
  int moves = 0;
  uint32_t allocated = 0;
  for (uint64_t size = 1; size <= 200000; ++size) {
    ASSERT_EQ(block.SetSize(size), 0);
    if (block.GetAllocatedSize() != allocated) ++moves;
    allocated = block.GetAllocatedSize();
  }
  EXPECT_LT(moves, 40);
}

TEST(TMemoryTest, SmallShrinksKeepTheStorage) {
  TMemory block;
  ASSERT_EQ(block.SetSize(50000), 0);
  void* where = block.MemPtr();
  uint32_t allocated = block.GetAllocatedSize();
  ASSERT_EQ(block.SetSize(50000 - 1023), 0);
  EXPECT_EQ(block.MemPtr(), where);
  EXPECT_EQ(block.GetAllocatedSize(), allocated);
  EXPECT_EQ(block.GetSize(), 50000u - 1023u);
  ASSERT_EQ(block.SetSize(1000), 0);
  EXPECT_EQ(block.GetAllocatedSize(), TMemory::AllocSize(1000, 0));
  ASSERT_EQ(block.SetSize(0), 0);
  EXPECT_EQ(block.MemPtr(), nullptr);
  EXPECT_EQ(block.GetAllocatedSize(), 0u);
}

TEST(TMemoryTest, SizeAboveFourGigabytesIsRefused) {
  TestHost host;
  TMemory block;
  ASSERT_EQ(block.SetSize(10), 0);
  EXPECT_EQ(block.SetSize(uint64_t{1} << 32), kErrMemSizeTooLarge);
  EXPECT_EQ(block.CheckError(), kErrMemSizeTooLarge);
  EXPECT_EQ(block.GetSize(), 10u);
  EXPECT_EQ(host.LinesWithFormat("TMemory::SetSize: size %ld above the limit, %E").size(), 1u);
}

// Refusals after the MemPack retry: the log line's selector follows the
// priority, and only kMemPriorityRequired is an assertion.
TEST(TMemoryTest, RefusedGrowthLogsByPriority) {
  struct Case {
    int ownPriority;
    int passed;
    int resolved;
    unsigned selector;
    int asserts;
  };
  const Case cases[] = {
      {kMemPriorityNormal, kMemPriorityOwn, 0, 517, 0},
      {kMemPriorityOptional, kMemPriorityOwn, 2, 514, 0},
      {kMemPriorityOptional, 65535, 2, 514, 0},
      {kMemPriorityNormal, kMemPriorityOptional, 2, 514, 0},
      {kMemPriorityNormal, kMemPriorityRequired, 1, 517, 1},
      {7, kMemPriorityOwn, 7, 517, 0},
  };
  for (const Case& c : cases) {
    TestHost host;
    TMemory block(c.ownPriority);
    ASSERT_EQ(block.SetSize(3000), 0);
    std::memset(block.MemPtr(), 0x42, 3000);
    MemFailNextHeapRequests(4);  // two heap requests per try, two tries
    EXPECT_EQ(block.SetSize(300000, c.passed), kErrMemOutOfMemory);
    EXPECT_EQ(block.CheckError(), kErrMemOutOfMemory);
    EXPECT_EQ(block.GetSize(), 3000u);
    std::vector<LoggedLine> lines = host.LinesWithFormat(kFailFormat);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].selector, c.selector);
    EXPECT_EQ(lines[0].args, (std::vector<uint64_t>{static_cast<uint64_t>(c.resolved), 2, 292}));
    EXPECT_EQ(host.AssertCount(), c.asserts);
    if (c.asserts != 0) {
      EXPECT_EQ(host.LinesWithFormat("ASSERT: %s, line %~d")[0].text, "ASSERT: tmemory, line 420");
    }
    auto* bytes = static_cast<uint8_t*>(block.MemPtr());
    EXPECT_TRUE(std::all_of(bytes, bytes + 3000, [](uint8_t b) { return b == 0x42; }));
  }
  MemFailNextHeapRequests(0);
}

TEST(TMemoryTest, OneRefusalIsRecoveredByTheRetry) {
  TestHost host;
  TMemory block;
  MemFailNextHeapRequests(2);
  EXPECT_EQ(block.SetSize(100000), 0);
  EXPECT_EQ(block.GetSize(), 100000u);
  EXPECT_TRUE(host.LinesWithFormat(kFailFormat).empty());
  MemFailNextHeapRequests(0);
}

TEST(TMemoryTest, LockedBlocksNeverMove) {
  TestHost host;
  TMemory block;
  ASSERT_EQ(block.SetSize(20000), 0);
  void* where = block.MemPtr();
  block.Lock();
  EXPECT_EQ(block.SetSize(block.GetAllocatedSize() + 1), kErrInUse);
  EXPECT_EQ(block.SetSize(block.GetAllocatedSize()), 0);
  EXPECT_EQ(block.SetSize(100), 0);
  EXPECT_EQ(block.MemPtr(), where);
  EXPECT_EQ(block.AllocBuffer(10), 0);
  EXPECT_EQ(block.AllocBuffer(1000000), kErrInUse);
  EXPECT_EQ(block.Reset(), kErrInUse);
  EXPECT_EQ(block.MemPtr(), where);
  EXPECT_EQ(block.GetLockCount(), 1);
  block.UnLock();
  EXPECT_EQ(host.AssertCount(), 0);
  block.UnLock();
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>{"tmemory"});
  EXPECT_EQ(block.SetSize(1000000), 0);
  EXPECT_EQ(block.Reset(), 0);
  EXPECT_EQ(block.GetSize(), 0u);
}

TEST(TMemoryTest, ManagedListCountsBlocksAndSizes) {
  int count = TMemory::GetUsageCount();
  uint64_t bytes = TMemory::GetUsageBytes();
  {
    TMemory a;
    ASSERT_EQ(a.SetSize(100), 0);
    ASSERT_EQ(a.SetFlags(kTMemManaged | 64 | 128, 0), 0);
    EXPECT_EQ(TMemory::GetUsageCount(), count + 1);
    EXPECT_EQ(TMemory::GetUsageBytes(), bytes + 100);
    ASSERT_EQ(a.SetSize(5000), 0);
    EXPECT_EQ(TMemory::GetUsageBytes(), bytes + 5000);
    TMemory copy(a);
    EXPECT_EQ(copy.GetFlags() & kTMemManaged, kTMemManaged);
    EXPECT_EQ(TMemory::GetUsageCount(), count + 2);
    EXPECT_EQ(TMemory::GetUsageBytes(), bytes + 10000);
    ASSERT_EQ(a.SetFlags(0, kTMemManaged), 0);
    EXPECT_EQ(a.GetFlags(), 0u);
    EXPECT_EQ(TMemory::GetUsageCount(), count + 1);
    EXPECT_EQ(TMemory::GetUsageBytes(), bytes + 5000);
  }
  EXPECT_EQ(TMemory::GetUsageCount(), count);
  EXPECT_EQ(TMemory::GetUsageBytes(), bytes);
}

TEST(TMemoryTest, TextAndCopiesRoundTrip) {
  const char16_t units[] = {u'x', 0, 0xD83D, 0xDE00, u'\u00e9', 0xFFFF};
  TString text(units, 6);
  TMemory block;
  ASSERT_EQ(block.FromString(text), 0);
  EXPECT_EQ(block.GetSize(), 12u);
  TMemory copy;
  ASSERT_EQ(copy.SetSize(70000), 0);
  copy = block;
  EXPECT_EQ(copy.GetSize(), 12u);
  EXPECT_LT(copy.GetAllocatedSize(), 70000u);
  TString back;
  ASSERT_EQ(copy.ToString(&back), 0);
  EXPECT_EQ(back, text);
  ASSERT_EQ(copy.SetSize(13), 0);  // an odd byte is not a unit
  ASSERT_EQ(copy.ToString(&back), 0);
  EXPECT_EQ(back, text);
  const TMemory& self = copy;
  copy = self;
  EXPECT_EQ(copy.GetSize(), 13u);
  copy.Zero();
  auto* bytes = static_cast<uint8_t*>(copy.MemPtr());
  EXPECT_TRUE(std::all_of(bytes, bytes + 13, [](uint8_t b) { return b == 0; }));
  // Growing after a shrink shows zeros, not the old bytes.
  ASSERT_EQ(block.SetSize(2), 0);
  ASSERT_EQ(block.SetSize(12), 0);
  EXPECT_EQ(EqualBlock(static_cast<uint8_t*>(block.MemPtr()) + 2, bytes, 10), 1);
}

TEST(TMemoryThreaded, ManagedTotalsBalanceAcrossThreads) {
  int count = TMemory::GetUsageCount();
  uint64_t bytes = TMemory::GetUsageBytes();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      std::mt19937 rng(static_cast<unsigned>(t));
      std::vector<TMemory> blocks(8);
      for (int i = 0; i < 2000; ++i) {
        TMemory& block = blocks[rng() % blocks.size()];
        switch (rng() % 3) {
          case 0: block.SetFlags(kTMemManaged, 0); break;
          case 1: block.SetFlags(0, kTMemManaged); break;
          default: block.SetSize(rng() % 5000); break;
        }
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(TMemory::GetUsageCount(), count);
  EXPECT_EQ(TMemory::GetUsageBytes(), bytes);
}

// ---- block primitives -------------------------------------------------------

TEST(BlockTest, MoveFillAndCompareMatchStandardAlgorithms) {
  std::mt19937 rng(5);
  for (int round = 0; round < 500; ++round) {
    std::vector<uint8_t> buffer(256);
    for (uint8_t& b : buffer) b = static_cast<uint8_t>(rng());
    std::vector<uint8_t> model = buffer;
    size_t count = rng() % 128;
    size_t src = rng() % (256 - count);
    size_t dst = rng() % (256 - count);
    std::vector<uint8_t> moved(model.begin() + static_cast<long>(src), model.begin() + static_cast<long>(src + count));
    std::copy(moved.begin(), moved.end(), model.begin() + static_cast<long>(dst));
    BlockMove(buffer.data() + src, buffer.data() + dst, count);
    ASSERT_EQ(buffer, model) << "src " << src << " dst " << dst << " count " << count;
    EXPECT_EQ(EqualBlock(buffer.data() + src, buffer.data() + dst, count) != 0,
              std::equal(buffer.begin() + static_cast<long>(src), buffer.begin() + static_cast<long>(src + count),
                         buffer.begin() + static_cast<long>(dst)));
    uint8_t fill = static_cast<uint8_t>(rng());
    BlockFill(buffer.data() + dst, count, fill);
    std::fill_n(model.begin() + static_cast<long>(dst), count, fill);
    ASSERT_EQ(buffer, model);
  }
  std::vector<uint8_t> a = {1, 2, 3}, b = {1, 2, 4};
  EXPECT_NE(EqualBlock(a.data(), b.data(), 2), 0);
  EXPECT_EQ(EqualBlock(a.data(), b.data(), 3), 0);
  EXPECT_NE(EqualBlock(nullptr, nullptr, 0), 0);
  ZeroFill(a.data(), 3);
  EXPECT_EQ(a, (std::vector<uint8_t>{0, 0, 0}));
}

}  // namespace
