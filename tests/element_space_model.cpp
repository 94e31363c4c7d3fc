#include "tests/element_space_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"

namespace {

// Element numbers in the order of their records in the data area.
std::vector<int> ByOffset(const lm_image::Image& im) {
  std::vector<std::pair<uint32_t, int>> order;
  for (const auto& [n, offset] : im.offsets) order.emplace_back(offset, n);
  std::sort(order.begin(), order.end());
  std::vector<int> numbers;
  for (const auto& entry : order) numbers.push_back(entry.second);
  return numbers;
}

// Failed checks of the current test so far.
int Failures() {
  const ::testing::TestResult* result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
  int failed = 0;
  for (int i = 0; i < result->total_part_count(); ++i) failed += result->GetTestPartResult(i).failed() ? 1 : 0;
  return failed;
}

}  // namespace

LmModelRun::LmModelRun(ElementSpace* space, uint32_t seed, TestHost* host, LmModelOptions options)
    : m_space(space), m_rng(seed), m_host(host), m_options(options), m_failures(Failures()) {
  lm_image::Image im;
  EXPECT_EQ("", lm_image::Read(BlockBytes(), &im));
  m_count = static_cast<int>(im.count);
  m_elements = im.elements;
  m_marks = im.marks;
  m_fixed = (im.flags & kLmFixedSize) != 0;
}

std::string LmModelRun::BlockBytes() {
  TMemoryPin pin(*m_space);
  if (pin.Get() == nullptr) return std::string();
  return std::string(reinterpret_cast<const char*>(pin.Get()), m_space->GetSize());
}

LmModelRun::Before LmModelRun::Take() {
  Before before;
  EXPECT_EQ("", lm_image::Read(BlockBytes(), &before.image));
  before.avail = m_space->LmAvail();
  m_space->LmGetParms(&before.stepKB, &before.limitKB);
  return before;
}

uint64_t LmModelRun::LimitBytes() const {
  int step = 0;
  int limit = 0;
  m_space->LmGetParms(&step, &limit);
  return uint64_t{static_cast<uint32_t>(limit)} * 1024;
}

uint64_t LmModelRun::LivePhys() const {
  uint64_t total = 0;
  for (const auto& entry : m_elements) total += lm_image::Phys(static_cast<int64_t>(entry.second.size()));
  return total;
}

int64_t LmModelRun::MaxAvail() const {
  uint64_t limit = LimitBytes();
  if (limit == 0) return int64_t{1} << 40;  // no limit
  return static_cast<int64_t>(limit) - 84 - 4 * int64_t{m_count} - static_cast<int64_t>(LivePhys());
}

int LmModelRun::LowestFree() const {
  for (int n = 1; n <= m_count; ++n) {
    if (m_elements.count(n) == 0) return n;
  }
  return m_count + 1;
}

int LmModelRun::RandomUsed() {
  if (m_elements.empty()) return 0;
  auto it = m_elements.begin();
  std::advance(it, m_rng() % m_elements.size());
  return it->first;
}

int LmModelRun::RandomLength() {
  unsigned pick = m_rng() % 100;
  if (pick < 3) return m_options.largeMin + static_cast<int>(m_rng() % static_cast<unsigned>(m_options.largeMax - m_options.largeMin + 1));
  if (pick < 8) return 0;
  return 1 + static_cast<int>(m_rng() % 300);
}

std::string LmModelRun::RandomBytes(int length) {
  std::string bytes(static_cast<size_t>(length), '\0');
  for (auto& c : bytes) c = static_cast<char>(m_rng());
  return bytes;
}

bool LmModelRun::Step(int step) {
  m_step = step;
  SCOPED_TRACE("step " + std::to_string(step));
  m_host->Clear();
  bool crowded = m_elements.size() > static_cast<size_t>(m_options.elementTarget) || LivePhys() > m_options.liveTarget;
  unsigned pick = m_rng() % 100;
  if (m_elements.empty()) {
    Add();
  } else if (crowded && pick < 40) {
    Remove();
  } else if (pick < 28) {
    Add();
  } else if (pick < 35) {
    Dupe();
  } else if (pick < 49) {
    Set();
  } else if (pick < 65) {
    Remove();
  } else if (pick < 68) {
    Add();
  } else if (pick < 75) {
    Swap();
  } else if (pick < 82) {
    Mark();
  } else if (pick < 83) {
    Collect();
  } else if (pick < 84) {
    Dupe();
  } else if (pick < 88) {
    Compress();
  } else if (pick < 92) {
    Reserve();
  } else if (pick < 94) {
    SetParms();
  } else if (pick < 95) {
    Locked();
  } else if (pick < 96) {
    BadArguments();
  } else if (pick < 98 && m_options.copies) {
    CopyAndContinue();
  } else {
    Add();
  }
  Verify();
  return Failures() == m_failures;
}

void LmModelRun::Add() {
  int length = RandomLength();
  bool zeros = m_rng() % 10 == 0;
  std::string data = zeros ? std::string(static_cast<size_t>(length), '\0') : RandomBytes(length);
  Before before = Take();
  int full = m_space->LmFull(length);
  int preflight = m_space->LmPreflight(length);
  int phys = static_cast<int>(lm_image::Phys(length));
  int64_t maxAvail = MaxAvail();
  EXPECT_EQ(phys, ElementSpace::LmPhys(length));
  // A request fits when its record fits in LmAvail().
  EXPECT_EQ(before.avail < phys, full != 0) << "avail " << before.avail << " length " << length;
  int got = m_space->LmAdd(zeros ? nullptr : data.data(), length);
  if (got < 0) {
    ++m_refusals;
    EXPECT_LT(maxAvail, phys) << "refused an add that fits under the limit: " << got;
    EXPECT_EQ(kErrMemOutOfMemory, got);
    EXPECT_LT(preflight, 0) << "LmPreflight did not foresee the refusal";
    EXPECT_FALSE(m_host->Lines().empty()) << "a refusal writes a line";
    return;
  }
  EXPECT_GE(maxAvail, phys) << "added past the size limit";
  EXPECT_GE(preflight, 0);
  Added(got, data, before, full, preflight);
  CheckGrowth(before, 0);
}

void LmModelRun::Dupe() {
  int n = RandomUsed();
  std::string data = m_elements[n];
  int length = static_cast<int>(data.size());
  Before before = Take();
  int full = m_space->LmFull(length);
  int preflight = m_space->LmPreflight(length);
  int64_t maxAvail = MaxAvail();
  int phys = static_cast<int>(lm_image::Phys(length));
  int got = m_space->LmDupe(n);
  if (got < 0) {
    ++m_refusals;
    EXPECT_LT(maxAvail, phys) << "refused a dupe that fits under the limit: " << got;
    return;
  }
  EXPECT_GE(maxAvail, phys) << "duplicated past the size limit";
  Added(got, data, before, full, preflight);
  CheckGrowth(before, 0);
}

void LmModelRun::Added(int number, const std::string& expected, const Before& before, int full, int preflight) {
  EXPECT_EQ(LowestFree(), number) << "the lowest free number is reused first";
  m_elements[number] = expected;
  m_count = std::max(m_count, number);
  Before after = Take();
  if (preflight == 0) {
    EXPECT_EQ(before.image.size, after.image.size) << "LmPreflight said no growth";
  }
  if (preflight > 0) {
    EXPECT_GE(after.image.size - before.image.size, static_cast<uint32_t>(preflight));
  }
  if (full == 0) {
    EXPECT_EQ(before.image.size, after.image.size);
    for (const auto& [n, offset] : before.image.offsets) {
      EXPECT_EQ(offset, after.image.offsets[n]) << "element " << n << " moved though the add fitted";
    }
  }
}

void LmModelRun::CheckGrowth(const Before& before, int request) {
  Before after = Take();
  if (after.image.size == before.image.size) return;
  ++m_resizes;
  EXPECT_GT(after.image.size, before.image.size) << "a block never shrinks";
  uint64_t limit = LimitBytes();
  if (limit != 0) {
    EXPECT_LE(after.image.size, limit);
  }
  if (m_fixed) {
    EXPECT_LT(after.avail - request, 16) << "a fixed-size space grows only by what it needs; grew from "
                                         << before.image.size << " to " << after.image.size;
    EXPECT_EQ(before.stepKB, after.stepKB) << "a fixed-size space keeps its step";
    return;
  }
  // Before growing, the step doubles while a quarter of the block exceeds it.
  uint64_t step = static_cast<uint64_t>(before.stepKB);
  while (before.image.size / 4 > step * 1024 && step < kLmMaxStepKB) step = std::min<uint64_t>(2 * step, kLmMaxStepKB);
  EXPECT_EQ(step, static_cast<uint64_t>(after.stepKB)) << "the step from " << before.stepKB << " at size " << before.image.size;
  if (limit == 0 || after.image.size < limit) {
    EXPECT_GE(after.image.size - before.image.size, step * 1024) << "growth by less than the step " << step;
  }
}

void LmModelRun::Set() {
  int n = RandomUsed();
  const std::string old = m_elements[n];
  int oldLength = static_cast<int>(old.size());
  int length;
  unsigned pick = m_rng() % 100;
  if (pick < 45) {
    length = oldLength == 0 ? 0 : static_cast<int>(m_rng() % static_cast<unsigned>(oldLength + 1));
  } else if (pick < 97) {
    length = oldLength + static_cast<int>(m_rng() % 300);
  } else {
    length = oldLength + m_options.largeMin;
  }
  std::string expected = old.substr(0, static_cast<size_t>(std::min(length, oldLength)));
  expected.resize(static_cast<size_t>(length), '\0');
  int oldPhys = static_cast<int>(lm_image::Phys(oldLength));
  int phys = static_cast<int>(lm_image::Phys(length));
  Before before = Take();
  int64_t maxAvail = MaxAvail();
  int r = m_space->LmSet(n, length);
  if (r < 0) {
    ++m_refusals;
    EXPECT_GT(phys, oldPhys) << "a record that keeps its room cannot fail: " << r;
    EXPECT_LT(maxAvail, phys) << "refused a set that fits beside the old record: " << r;
    return;
  }
  EXPECT_EQ(0, r);
  if (phys > oldPhys) {
    EXPECT_GE(maxAvail, phys) << "set past the size limit";
  }
  m_elements[n] = expected;
  if (phys <= oldPhys) {
    Before after = Take();
    EXPECT_EQ(before.image.size, after.image.size);
    EXPECT_EQ(before.image.offsets, after.image.offsets) << "a set that fits in place moves nothing";
  }
  CheckGrowth(before, 0);
}

void LmModelRun::TrimCount() {
  while (m_count > 0 && m_elements.count(m_count) == 0) --m_count;
}

void LmModelRun::Remove() {
  unsigned pick = m_rng() % 100;
  int n;
  if (pick < 5) {
    const int bad[] = {0, -1, m_count + 1, INT_MIN};
    n = bad[m_rng() % 4];
    EXPECT_EQ(kErrBadParameter, m_space->LmRemove(n)) << "number " << n;
    return;
  }
  if (pick < 15 && LowestFree() <= m_count) {
    n = LowestFree();  // a free number: nothing changes
  } else if (pick < 30 && !m_elements.empty()) {
    n = m_elements.rbegin()->first;
  } else {
    n = RandomUsed();
  }
  EXPECT_EQ(0, m_space->LmRemove(n)) << "number " << n;
  m_elements.erase(n);
  m_marks.erase(n);
  TrimCount();
}

void LmModelRun::Swap() {
  if (m_rng() % 20 == 0) {
    EXPECT_EQ(kErrBadParameter, m_space->LmSwap(0, 1));
    EXPECT_EQ(kErrBadParameter, m_space->LmSwap(1, m_count + 1));
    return;
  }
  int m = 1 + static_cast<int>(m_rng() % static_cast<unsigned>(m_count));
  int n = m_rng() % 4 == 0 ? m : 1 + static_cast<int>(m_rng() % static_cast<unsigned>(m_count));
  EXPECT_EQ(0, m_space->LmSwap(m, n)) << m << " <-> " << n;
  auto take = [this](int k) {
    auto it = m_elements.find(k);
    if (it == m_elements.end()) return std::pair<bool, std::string>(false, "");
    std::pair<bool, std::string> taken(true, std::move(it->second));
    m_elements.erase(it);
    return taken;
  };
  auto em = take(m);
  auto en = take(n);
  if (em.first) m_elements[n] = std::move(em.second);
  if (en.first) m_elements[m] = std::move(en.second);
  // Marks stay with the numbers; a number left free has none.
  if (m_elements.count(m) == 0) m_marks.erase(m);
  if (m_elements.count(n) == 0) m_marks.erase(n);
  TrimCount();
}

void LmModelRun::Mark() {
  unsigned pick = m_rng() % 100;
  if (pick < 5) {
    EXPECT_EQ(kErrBadParameter, m_space->LmMark(0));
    EXPECT_EQ(kErrBadParameter, m_space->LmMark(m_count + 1));
    return;
  }
  if (pick < 15) {
    m_space->LmUnmark();
    m_marks.clear();
    return;
  }
  int n = RandomUsed();
  EXPECT_EQ(0, m_space->LmMark(n));
  m_marks.insert(n);
}

void LmModelRun::Collect() {
  // Marks a good share first, so that a collection keeps something.
  if (m_rng() % 4 != 0) {
    for (const auto& entry : m_elements) {
      if (m_rng() % 10 < 9) {
        EXPECT_EQ(0, m_space->LmMark(entry.first));
        m_marks.insert(entry.first);
      }
    }
  }
  int removed = 0;
  for (auto it = m_elements.begin(); it != m_elements.end();) {
    if (m_marks.count(it->first) != 0) {
      ++it;
      continue;
    }
    it = m_elements.erase(it);
    ++removed;
  }
  EXPECT_EQ(removed, m_space->LmCollect());
  m_marks.clear();
  TrimCount();
}

void LmModelRun::Compress() {
  Before before = Take();
  std::vector<int> order = ByOffset(before.image);
  int freed = m_space->LmCompress();
  EXPECT_EQ(static_cast<int64_t>(before.image.dataEnd - before.image.dataStart) - static_cast<int64_t>(LivePhys()), freed);
  Before after = Take();
  EXPECT_EQ(before.image.size, after.image.size);
  EXPECT_EQ(LivePhys(), after.image.dataEnd - after.image.dataStart) << "compaction leaves only live records";
  EXPECT_EQ(m_elements.size(), after.image.records);
  EXPECT_EQ(order, ByOffset(after.image)) << "compaction keeps the records' order";
}

void LmModelRun::Reserve() {
  int bytes = static_cast<int>(m_rng() % 100 < 10 ? m_rng() % 60000 : m_rng() % 6000);
  Before before = Take();
  int64_t maxAvail = MaxAvail();
  int r = m_space->LmReserve(bytes);
  if (maxAvail >= bytes) {
    EXPECT_EQ(0, r) << "reserve " << bytes << " within the limit";
  } else {
    EXPECT_LT(r, 0) << "reserve " << bytes << " past the limit";
  }
  if (r < 0) {
    ++m_refusals;
    return;
  }
  EXPECT_GE(m_space->LmAvail(), bytes);
  CheckGrowth(before, bytes);
}

void LmModelRun::SetParms() {
  Before before = Take();
  int initial = static_cast<int>(before.image.initialKB);
  if (m_rng() % 4 == 0 && m_space->GetSize() >= 2048) {
    int below = static_cast<int>(m_space->GetSize() / 1024) - 1;
    EXPECT_EQ(kErrBadParameter, m_space->LmSetParms(before.stepKB, below)) << "a limit below the size";
    int step = 0;
    int limit = 0;
    m_space->LmGetParms(&step, &limit);
    EXPECT_EQ(before.stepKB, step);
    EXPECT_EQ(before.limitKB, limit);
    return;
  }
  const int steps[] = {0, 1, 3, 16, 64, 1000, 20000};
  int step = steps[m_rng() % 7];
  int limit = before.limitKB;
  if (limit != 0 && (before.image.flags & kLmPooled) == 0 && m_rng() % 8 == 0) limit += 1 + static_cast<int>(m_rng() % 4);
  EXPECT_EQ(0, m_space->LmSetParms(step, limit));
  int gotStep = 0;
  int gotLimit = 0;
  EXPECT_EQ(0, m_space->LmGetParms(&gotStep, &gotLimit));
  EXPECT_EQ(std::clamp(step, initial, int(kLmMaxStepKB)), gotStep) << "asked for " << step;
  EXPECT_EQ(limit, gotLimit);
  // A step of megabytes would make every later copy of the block slow.
  if (gotStep > 64) {
    EXPECT_EQ(0, m_space->LmSetParms(64, limit));
  }
}

void LmModelRun::Locked() {
  EXPECT_EQ(0, m_space->LmLock());
  lm_image::Image im;
  EXPECT_EQ("", lm_image::Read(BlockBytes(), &im));
  EXPECT_EQ(1, im.lockCount);
  int asserts = m_host->AssertCount();
  EXPECT_EQ(kErrInUse, m_space->LmAdd("x", 1));
  EXPECT_EQ(kErrInUse, m_space->LmCompress());
  if (!m_elements.empty()) {
    EXPECT_EQ(kErrInUse, m_space->LmDupe(m_elements.begin()->first));
  }
  EXPECT_EQ(asserts + (m_elements.empty() ? 2 : 3), m_host->AssertCount());
  for (const auto& [n, bytes] : m_elements) {
    const char* p = m_space->LmGet(n);
    EXPECT_TRUE(p != nullptr && std::string(p, bytes.size()) == bytes) << "element " << n << " while locked";
  }
  // What moves nothing is allowed while locked.
  if (!m_elements.empty()) {
    auto& [n, bytes] = *m_elements.rbegin();
    EXPECT_EQ(0, m_space->LmMark(n));
    m_marks.insert(n);
    if (!bytes.empty()) {
      const char* p = m_space->LmGet(n);
      EXPECT_EQ(0, m_space->LmSet(n, static_cast<int>(bytes.size()) - 1));
      bytes.pop_back();
      EXPECT_EQ(p, m_space->LmGet(n)) << "a shrink moved the element";
    }
    int asserted = m_host->AssertCount();
    EXPECT_EQ(kErrInUse, m_space->LmSet(n, static_cast<int>(lm_image::Phys(static_cast<int64_t>(bytes.size())))));
    EXPECT_EQ(asserted + 1, m_host->AssertCount());
  }
  EXPECT_EQ(0, m_space->LmUnlock());
  int asserted = m_host->AssertCount();
  EXPECT_EQ(kErrBadParameter, m_space->LmUnlock()) << "unlocking an unlocked space";
  EXPECT_EQ(asserted + 1, m_host->AssertCount());
}

void LmModelRun::BadArguments() {
  EXPECT_EQ(kErrBadParameter, m_space->LmAdd("x", -1));
  EXPECT_EQ(kErrBadParameter, m_space->LmAdd(nullptr, int(kLmMaxElementSize) + 1));
  EXPECT_EQ(nullptr, m_space->LmGet(0));
  EXPECT_EQ(nullptr, m_space->LmGet(m_count + 1));
  EXPECT_LT(m_space->LmSize(0), 0);
  EXPECT_LT(m_space->LmSize(m_count + 1), 0);
  EXPECT_EQ(0, m_space->LmTest(0));
  EXPECT_EQ(0, m_space->LmTest(m_count + 1));
  EXPECT_LT(m_space->LmDupe(m_count + 1), 0);
  EXPECT_LT(m_space->LmSet(m_count + 1, 4), 0);
  if (!m_elements.empty()) {
    EXPECT_EQ(kErrBadParameter, m_space->LmSet(m_elements.begin()->first, -1));
  }
}

void LmModelRun::CheckCopy(ElementSpace* copy, const char* how) {
  SCOPED_TRACE(how);
  EXPECT_EQ(0, copy->LmValid());
  EXPECT_EQ(m_count, copy->LmCount());
  EXPECT_EQ(static_cast<int>(m_elements.size()), copy->LmCountUsed());
  int n = 0;
  auto it = m_elements.begin();
  while ((n = copy->LmEnumRef(n)) > 0 && it != m_elements.end()) {
    EXPECT_EQ(it->first, n);
    EXPECT_EQ(static_cast<int>(it->second.size()), copy->LmSize(n));
    const char* p = copy->LmGet(n);
    EXPECT_TRUE(p != nullptr && std::string(p, it->second.size()) == it->second) << "element " << n;
    ++it;
  }
  EXPECT_TRUE(n == 0 && it == m_elements.end()) << "the copy enumerates other numbers";
}

void LmModelRun::CopyAndContinue() {
  std::string bytes = BlockBytes();
  auto copy = std::make_unique<ElementSpace>(0, 0);
  EXPECT_EQ(0, copy->AllocBuffer(bytes.size()));
  {
    TMemoryPin pin(*copy);
    std::memcpy(pin.Get(), bytes.data(), bytes.size());
  }
  CheckCopy(copy.get(), "bytes copied into a fresh space");
  auto assigned = std::make_unique<ElementSpace>(0, 0);
  *assigned = *m_space;
  CheckCopy(assigned.get(), "TMemory assignment");
  if (m_options.bigEndian) CheckBigEndian(bytes);
  if (m_options.continueOnCopy) {
    m_owned = std::move(m_rng() % 2 == 0 ? copy : assigned);
    m_space = m_owned.get();
  }
}

void LmModelRun::CheckBigEndian(const std::string& block) {
  SCOPED_TRACE("big-endian form");
  std::string be = lm_image::ToBigEndian(block);
  ElementSpace space(0, 0);
  EXPECT_EQ(0, space.AllocBuffer(be.size()));
  std::memcpy(TMemoryPin(space).Get(), be.data(), be.size());
  EXPECT_TRUE(space.LmIsBE());
  EXPECT_EQ(0, space.LmValidBE());
  for (int n = 1; n <= m_count; ++n) {
    auto it = m_elements.find(n);
    int size = space.LmSizeBE(n);
    if (it == m_elements.end()) {
      EXPECT_EQ(0, size) << "free element " << n;
      continue;
    }
    EXPECT_EQ(static_cast<int>(it->second.size()), size);
    const char* p = space.LmGetBE(n);
    EXPECT_TRUE(p != nullptr && std::string(p, it->second.size()) == it->second) << "element " << n;
  }
  EXPECT_GE(space.LmLockBE(), 0);
  {
    TMemoryPin pin(space);
    const unsigned char* lock = pin.Get() + 32;
    EXPECT_EQ(1u, (uint32_t{lock[0]} << 24) | (uint32_t{lock[1]} << 16) | (uint32_t{lock[2]} << 8) | lock[3]);
  }
  EXPECT_GE(space.LmUnlockBE(), 0);
  EXPECT_EQ(0, std::memcmp(TMemoryPin(space).Get(), be.data(), be.size())) << "the read-only operations changed the block";
  EXPECT_EQ(0, space.LmFromBE());
  EXPECT_FALSE(space.LmIsBE());
  EXPECT_EQ(0, std::memcmp(TMemoryPin(space).Get(), block.data(), block.size())) << "LmFromBE differs from the host form";
}

void LmModelRun::Verify() {
  EXPECT_EQ(0, m_space->LmValid());
  std::string bytes = BlockBytes();
  lm_image::Image im;
  EXPECT_EQ("", lm_image::Read(bytes, &im));
  EXPECT_EQ(m_count, static_cast<int>(im.count));
  EXPECT_EQ(m_elements, im.elements) << "the block's own bytes disagree with the model";
  EXPECT_EQ(m_marks, im.marks);
  EXPECT_EQ(0, im.lockCount);
  EXPECT_EQ(im.size, im.dataEnd) << "the data area ends at the block's end";
  EXPECT_EQ(m_fixed, (im.flags & kLmFixedSize) != 0);
  EXPECT_LE(im.initialKB, im.stepKB);
  EXPECT_LE(im.stepKB, kLmMaxStepKB);
  if (im.sizeLimitKB != 0) {
    EXPECT_LE(im.size, uint64_t{im.sizeLimitKB} * 1024);
  }
  int step = 0;
  int limit = 0;
  EXPECT_EQ(0, m_space->LmGetParms(&step, &limit));
  EXPECT_EQ(im.stepKB, static_cast<uint32_t>(step));
  EXPECT_EQ(im.sizeLimitKB, static_cast<uint32_t>(limit));

  int64_t avail = int64_t{im.dataStart} - (4 * int64_t{im.count} + 84);
  EXPECT_EQ(avail, m_space->LmAvail());
  EXPECT_EQ(static_cast<int>(im.dataEnd), m_space->LmEnd());
  EXPECT_EQ(m_count, m_space->LmCount());
  EXPECT_EQ(static_cast<int>(m_elements.size()), m_space->LmCountUsed());

  EXPECT_GE(m_space->LmLock(), 0);
  for (int n = 1; n <= m_count; ++n) {
    auto it = m_elements.find(n);
    if (it == m_elements.end()) {
      EXPECT_EQ(0, m_space->LmTest(n)) << "free " << n;
      EXPECT_EQ(0, m_space->LmSize(n)) << "free " << n;
      continue;
    }
    EXPECT_NE(0, m_space->LmTest(n)) << "used " << n;
    EXPECT_EQ(static_cast<int>(it->second.size()), m_space->LmSize(n)) << "element " << n;
    const char* p = m_space->LmGet(n);
    EXPECT_TRUE(p != nullptr && std::string(p, it->second.size()) == it->second) << "element " << n;
  }
  int free = LowestFree();
  if (free <= m_count) {
    EXPECT_EQ(nullptr, m_space->LmGet(free));
  }
  EXPECT_GE(m_space->LmUnlock(), 0);

  std::vector<int> enumerated;
  for (int n = m_space->LmEnumRef(0); n > 0 && enumerated.size() <= m_elements.size(); n = m_space->LmEnumRef(n)) {
    enumerated.push_back(n);
  }
  std::vector<int> keys;
  for (const auto& entry : m_elements) keys.push_back(entry.first);
  EXPECT_EQ(keys, enumerated);

  if (m_options.copies && m_step % 16 == 0) {
    ElementSpace copy(0, 0);
    EXPECT_EQ(0, copy.AllocBuffer(bytes.size()));
    std::memcpy(TMemoryPin(copy).Get(), bytes.data(), bytes.size());
    CheckCopy(&copy, "bytes copied into a fresh space");
  }
  if (m_options.bigEndian && m_step % 128 == 0) CheckBigEndian(bytes);
}
