// Pooled element spaces against the model: several spaces in one pool under
// a ceiling too small for all their blocks, so that the pool archives the
// idle spaces to files and brings them back while the runs go on. Each
// step is checked as in the plain model runs; a space pinned by LmLock
// must stay resident, its pointers valid, throughout.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/tmempool.h"
#include "storage/element_space.h"
#include "tests/element_space_model.h"
#include "tests/test_host.h"

namespace {

constexpr unsigned kBlockSize = 64 * 1024;
constexpr int kSpaces = 6;
constexpr int kResidentBlocks = 3;

// Sets the pool ceiling for a test and puts back what was there.
class PoolCeiling {
 public:
  explicit PoolCeiling(uint64_t bytes) : m_saved(TMemPool::GetMaxPoolMem()) {
    TMemPool::SetMaxPoolMem(0);
    m_override = TMemPool::GetMaxPoolMem() != m_saved;
    TMemPool::SetMaxPoolMem(bytes);
  }
  ~PoolCeiling() { TMemPool::SetMaxPoolMem(m_override ? m_saved : 0); }
  PoolCeiling(const PoolCeiling&) = delete;
  PoolCeiling& operator=(const PoolCeiling&) = delete;

 private:
  uint64_t m_saved;
  bool m_override = false;
};

TEST(ElementSpacePooled, SpacesSurviveArchivingUnderACeiling) {
  TestHost host;
  TMemPool pool(kBlockSize);
  const uint64_t block = pool.GetMemBlockSize();
  const uint64_t ceiling = TMemPool::GetAllocatedPoolMem() + kResidentBlocks * block;
  PoolCeiling guard(ceiling);

  std::vector<std::unique_ptr<ElementSpace>> spaces;
  std::vector<std::unique_ptr<LmModelRun>> runs;
  LmModelOptions options;
  options.largeMin = 1500;
  options.largeMax = 6000;
  options.liveTarget = 40 * 1024;
  options.elementTarget = 80;
  options.continueOnCopy = false;
  for (int i = 0; i < kSpaces; ++i) {
    spaces.push_back(std::make_unique<ElementSpace>(&pool, i % 3 == 2 ? 1 : 0));
    ASSERT_EQ(0, spaces.back()->CheckError());
    ASSERT_NE(0, spaces.back()->GetFlags() & kTMemPooled);
    int step = 0;
    int limit = 0;
    ASSERT_EQ(0, spaces.back()->LmGetParms(&step, &limit));
    EXPECT_EQ(block / 1024, static_cast<uint64_t>(limit)) << "a pooled space is limited to its pool's blocks";
    runs.push_back(std::make_unique<LmModelRun>(spaces.back().get(), 100 + i, &host, options));
  }

  // Space 0 is pinned for the first part of the run: it must not be
  // archived, and what LmGet gave stays where it was.
  ElementSpace& pinned = *spaces[0];
  int pinnedNumber = pinned.LmAdd("pinned bytes", 12);
  ASSERT_EQ(1, pinnedNumber);
  runs[0] = std::make_unique<LmModelRun>(&pinned, 100, &host, options);
  ASSERT_GE(pinned.LmLock(), 0);
  const char* pinnedBytes = pinned.LmGet(pinnedNumber);
  ASSERT_NE(nullptr, pinnedBytes);

  std::mt19937 rng(99);
  int archivedSeen = 0;
  int maxArchived = 0;
  const int kSteps = 6000;
  const int kPinnedSteps = 1500;
  for (int i = 1; i <= kSteps; ++i) {
    int which = static_cast<int>(rng() % kSpaces);
    if (i <= kPinnedSteps && which == 0) which = 1 + static_cast<int>(rng() % (kSpaces - 1));
    SCOPED_TRACE("space " + std::to_string(which));
    if (!runs[which]->Step(i)) break;
    if (i == kPinnedSteps) {
      EXPECT_EQ(std::string("pinned bytes"), std::string(pinnedBytes, 12));
      EXPECT_GE(pinned.LmUnlock(), 0);
    }
    if (i < kPinnedSteps) {
      EXPECT_TRUE(pinned.IsResident()) << "a locked space was archived";
    }
    EXPECT_LE(TMemPool::GetAllocatedPoolMem(), ceiling) << "step " << i;
    int archived = 0;
    for (const auto& space : spaces) archived += space->IsResident() ? 0 : 1;
    if (archived > 0) ++archivedSeen;
    maxArchived = std::max(maxArchived, archived);
    if (::testing::Test::HasFailure()) break;
  }
  EXPECT_GT(archivedSeen, kSteps / 2) << "the pool hardly archived anything";
  EXPECT_GE(maxArchived, kSpaces - kResidentBlocks);
  EXPECT_LE(pool.GetTotalMemBlockCount(), kResidentBlocks);
  int refusals = 0;
  for (const auto& run : runs) refusals += run->refusals();
  EXPECT_GT(refusals, 0) << "no space ever reached its pool block's size";

  // Every space reads back in full once more, archived or not.
  for (int i = 0; i < kSpaces; ++i) runs[i]->Verify();
}


// A heap space answers LmGet without a call; a pooled space always takes the
// checked path. On damaged blocks both must agree on every number, pointer
// and line alike: the fast path may skip work, never a check.
TEST(ElementSpacePooled, HeapReadsAgreeWithCheckedReadsOnDamagedBlocks) {
  TestHost host;
  TMemPool pool(kBlockSize);
  std::mt19937 rng(9);
  ElementSpace source(0, 0);
  for (int i = 0; i < 40; ++i) {
    std::string bytes(1 + rng() % 30, static_cast<char>('a' + i % 26));
    ASSERT_GT(source.LmAdd(bytes.data(), static_cast<int>(bytes.size())), 0);
  }
  for (int n = 3; n <= 40; n += 7) source.LmRemove(n);
  std::vector<unsigned char> image(source.GetSize());
  {
    TMemoryPin pin(source);
    std::memcpy(image.data(), pin.Get(), image.size());
  }
  for (int round = 0; round < 400; ++round) {
    std::vector<unsigned char> damaged = image;
    // Hits on the count and the slots most of the time, anywhere otherwise.
    for (int hits = 1 + static_cast<int>(rng() % 3); hits > 0; --hits) {
      size_t at = rng() % 4 == 0 ? rng() % damaged.size() : 72 + rng() % (4 * 44);
      damaged[at] = static_cast<unsigned char>(rng());
    }
    if (round % 10 == 0) damaged.resize(84 + rng() % 100);  // cut short
    ElementSpace heap(0, 0);
    ElementSpace pooled(&pool, 0);
    for (ElementSpace* space : {&heap, &pooled}) {
      ASSERT_EQ(space->SetSize(damaged.size()), 0);
      TMemoryPin pin(*space);
      std::memcpy(pin.Get(), damaged.data(), damaged.size());
    }
    ASSERT_EQ(heap.GetFlags() & kTMemPooled, 0);
    ASSERT_NE(pooled.GetFlags() & kTMemPooled, 0);
    TMemoryPin heapPin(heap);
    TMemoryPin pooledPin(pooled);
    for (int n : {INT32_MIN, -1, 0, 1, 2, 3, 17, 39, 40, 41, 45, 1 << 20, INT32_MAX}) {
      host.Clear();
      char* fast = heap.LmGet(n);
      auto fastLines = host.Lines();
      host.Clear();
      char* checked = pooled.LmGet(n);
      auto checkedLines = host.Lines();
      ASSERT_EQ(fast == nullptr, checked == nullptr) << "round " << round << " n " << n;
      if (fast != nullptr) {
        EXPECT_EQ(fast - reinterpret_cast<char*>(heapPin.Get()), checked - reinterpret_cast<char*>(pooledPin.Get()));
      }
      ASSERT_EQ(fastLines.size(), checkedLines.size()) << "round " << round << " n " << n;
      for (size_t k = 0; k < fastLines.size(); ++k) EXPECT_EQ(fastLines[k].text, checkedLines[k].text);
    }
  }
}

}  // namespace
