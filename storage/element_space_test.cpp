#include "storage/element_space.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"

namespace {

// Raw access to the block, independent of the library's own accessors.
uint32_t Word(ElementSpace& space, uint32_t offset) {
  uint32_t v = 0;
  std::memcpy(&v, static_cast<unsigned char*>(space.MemPtr()) + offset, 4);
  return v;
}
void Poke(ElementSpace& space, uint32_t offset, uint32_t value) {
  std::memcpy(static_cast<unsigned char*>(space.MemPtr()) + offset, &value, 4);
}
std::vector<unsigned char> Image(ElementSpace& space) {
  auto* p = static_cast<unsigned char*>(space.MemPtr());
  return std::vector<unsigned char>(p, p + space.GetSize());
}
void SetImage(ElementSpace& space, const std::vector<unsigned char>& image) {
  ASSERT_EQ(space.AllocBuffer(image.size()), 0);
  std::memcpy(space.MemPtr(), image.data(), image.size());
}
uint32_t Slot(ElementSpace& space, int n) { return Word(space, 76 + 4 * n); }
uint32_t Start(ElementSpace& space) { return Word(space, 16); }

std::string Text(ElementSpace& space, int n) {
  char* p = space.LmGet(n);
  return p == nullptr ? "<none>" : std::string(p, static_cast<size_t>(space.LmSize(n)));
}
int Add(ElementSpace& space, const std::string& s) { return space.LmAdd(s.data(), static_cast<int>(s.size())); }

// The contents as number -> bytes.
std::map<int, std::string> Contents(ElementSpace& space) {
  std::map<int, std::string> out;
  for (int n = space.LmEnumRef(0); n != 0; n = space.LmEnumRef(n)) out[n] = Text(space, n);
  return out;
}

// Every record's padding is zero: a walk of the data area by hand.
bool PaddingIsZero(ElementSpace& space) {
  auto* p = static_cast<unsigned char*>(space.MemPtr());
  for (uint32_t at = Start(space); at < Word(space, 20);) {
    uint32_t length = Word(space, at);
    uint32_t phys = (length + 7) & ~3u;
    // Free records keep whatever they held; live ones must be clean.
    bool live = false;
    for (int n = 1; n <= space.LmCount(); ++n) live |= (Slot(space, n) & 0x7FFFFFFF) == at;
    for (uint32_t k = at + 4 + length; live && k < at + phys; ++k) {
      if (p[k] != 0) return false;
    }
    at += phys;
  }
  return true;
}

TEST(ElementSpace, NewSpaceLayout) {
  ElementSpace space(0, 0);
  EXPECT_EQ(space.GetSize(), 1108u);
  EXPECT_EQ(Word(space, 0), kLmMagic);
  EXPECT_EQ(Word(space, 4), 0x01000100u);
  EXPECT_EQ(Start(space), 1108u);
  EXPECT_EQ(space.LmEnd(), 1108);
  EXPECT_EQ(space.LmAvail(), 1024);
  EXPECT_EQ(Word(space, 24), 1u);  // initial KB
  EXPECT_EQ(Word(space, 44), 1u);  // step KB
  EXPECT_EQ(Word(space, 28), 0u);
  EXPECT_EQ(space.LmCount(), 0);
  EXPECT_EQ(space.LmValid(), 0);

  ElementSpace fixed(5000, 1);
  EXPECT_EQ(fixed.GetSize(), 4u * 1024 + 84);
  EXPECT_EQ(Word(fixed, 28), kLmFixedSize);
  EXPECT_EQ(Word(fixed, 24), 4u);
  EXPECT_EQ(fixed.LmValid(), 0);

  EXPECT_EQ(ElementSpace::LmPhys(0), 4);
  EXPECT_EQ(ElementSpace::LmPhys(5), 12);
  EXPECT_EQ(ElementSpace::LmPhys(8), 12);
  EXPECT_EQ(ElementSpace::LmPhys(9), 16);
  EXPECT_EQ(ElementSpace::LmPhys(0x7FFFFFF8), 0x7FFFFFFC);
  EXPECT_EQ(ElementSpace::LmPhys(0x7FFFFFF9), 0);
  EXPECT_EQ(ElementSpace::LmPhys(-1), 0);
}

TEST(ElementSpace, AddTakesPaddedRecord) {
  ElementSpace space(0, 0);
  // Dirty the free space first, so zero padding must be written.
  std::memset(static_cast<unsigned char*>(space.MemPtr()) + 84, 0xAB, 1024);
  EXPECT_EQ(Add(space, "hello"), 1);
  EXPECT_EQ(Start(space), 1108u - 12);
  EXPECT_EQ(Word(space, 1096), 5u);
  EXPECT_EQ(Slot(space, 1), 1096u);
  auto* p = static_cast<unsigned char*>(space.MemPtr());
  EXPECT_EQ(std::memcmp(p + 1100, "hello", 5), 0);
  EXPECT_EQ(p[1105], 0);
  EXPECT_EQ(p[1106], 0);
  EXPECT_EQ(p[1107], 0);
  EXPECT_EQ(space.LmAvail(), 1024 - 12 - 4);
  EXPECT_EQ(space.LmSize(1), 5);

  // A null pointer gives zeros.
  int z = space.LmAdd(nullptr, 6);
  EXPECT_EQ(Text(space, z), std::string(6, '\0'));
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, NumbersAreReusedAndTrailingOnesDropped) {
  ElementSpace space(0, 0);
  EXPECT_EQ(Add(space, "a"), 1);
  EXPECT_EQ(Add(space, "bb"), 2);
  EXPECT_EQ(Add(space, "ccc"), 3);
  EXPECT_EQ(space.LmRemove(2), 0);
  EXPECT_EQ(space.LmCount(), 3);
  EXPECT_EQ(space.LmCountUsed(), 2);
  EXPECT_EQ(Word(space, 36), 1u);
  EXPECT_EQ(space.LmTest(2), 0);
  EXPECT_EQ(space.LmSize(2), 0);
  EXPECT_EQ(space.LmRemove(2), 0);  // already free: nothing changes
  EXPECT_EQ(Word(space, 36), 1u);
  EXPECT_EQ(Add(space, "dd"), 2);
  EXPECT_EQ(space.LmValid(), 0);

  // Removing 2 then 3 drops both from the table.
  space.LmRemove(2);
  space.LmRemove(3);
  EXPECT_EQ(space.LmCount(), 1);
  EXPECT_EQ(Word(space, 36), 0u);
  EXPECT_EQ(space.LmValid(), 0);
  EXPECT_EQ(Add(space, "e"), 2);
  std::map<int, std::string> want{{1, "a"}, {2, "e"}};
  EXPECT_EQ(Contents(space), want);
  space.LmRemove(1);
  space.LmRemove(2);
  EXPECT_EQ(space.LmCount(), 0);
  EXPECT_EQ(space.LmEnumRef(0), 0);
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, BadNumbersAreLogged) {
  ElementSpace space(0, 0);
  Add(space, "x");
  Add(space, "y");
  Add(space, "z");
  space.LmRemove(2);
  TestHost host;
  struct Case {
    std::function<bool()> call;
    std::string text;
  };
  std::vector<Case> cases = {
      {[&] { return space.LmGet(0) == nullptr; }, "LmGet: ndex = 0 < 1"},
      {[&] { return space.LmGet(4) == nullptr; }, "LmGet: ndex = 4 > nsp->count = 3"},
      {[&] { return space.LmGet(2) == nullptr; }, "LmGet: ndex = 2, zero offset"},
      {[&] { return space.LmSize(4) == kErrBadParameter; }, "LmSize: ndex = 4, not in range"},
      {[&] { return space.LmSize(0) == kErrBadParameter; }, "LmSize: ndex = 0, not in range"},
      {[&] { return space.LmSwap(0, 4) == kErrBadParameter; }, "LmSwap: mdex = 0, ndex = 4, not in range"},
      {[&] { return space.LmMark(9) == kErrBadParameter; }, "LmMark: ndex = 9, not in range"},
      {[&] { return space.LmMark(2) == kErrBadParameter; }, "LmMark: ndex = 2, not in range"},
      {[&] { return space.LmAdd("q", -1) == kErrBadParameter; }, "LmAdd: invalid size, -1"},
      {[&] { return space.LmAdd(nullptr, 0x7FFFFFF9) == kErrBadParameter; }, "LmAdd: invalid size, 2147483641"},
  };
  for (const Case& c : cases) {
    host.Clear();
    EXPECT_TRUE(c.call()) << c.text;
    auto lines = host.Lines();
    ASSERT_EQ(lines.size(), 1u) << c.text;
    EXPECT_EQ(lines[0].text, c.text);
    EXPECT_EQ(lines[0].selector, 515u);
  }
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, LockingRefusesMovesAsBrokenInvariant) {
  ElementSpace space(0, 0);
  Add(space, "abcdefgh");
  TestHost host;
  ASSERT_EQ(space.LmLock(), 0);
  EXPECT_EQ(Word(space, 32), 1u);
  EXPECT_EQ(space.GetLockCount(), 1);
  EXPECT_EQ(Add(space, "x"), kErrInUse);
  EXPECT_EQ(space.LmDupe(1), kErrInUse);
  EXPECT_EQ(space.LmCompress(), kErrInUse);
  EXPECT_EQ(space.LmReserve(10), kErrInUse);
  EXPECT_EQ(space.LmSet(1, 100), kErrInUse);
  EXPECT_EQ(host.AssertCount(), 5);
  // What moves nothing is allowed: a shrinking set, a mark, a read.
  EXPECT_EQ(space.LmSet(1, 3), 0);
  EXPECT_EQ(space.LmMark(1), 0);
  EXPECT_EQ(Text(space, 1), "abc");
  EXPECT_EQ(space.LmUnlock(), 0);
  EXPECT_EQ(space.GetLockCount(), 0);
  EXPECT_EQ(host.AssertCount(), 5);
  EXPECT_EQ(space.LmUnlock(), kErrBadParameter);
  EXPECT_EQ(host.AssertCount(), 6);
  for (const std::string& source : host.AssertSources()) EXPECT_EQ(source, "lmspace");
  EXPECT_EQ(Add(space, "x"), 2);
  // The ...Assert forms report a failure as an assertion too.
  host.Clear();
  EXPECT_EQ(space.LmAddAssert(nullptr, -5), kErrBadParameter);
  EXPECT_EQ(host.AssertCount(), 1);
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, SetKeepsPrefixAndZeroesNewBytes) {
  ElementSpace space(0, 0);
  Add(space, "0123456789");
  Add(space, "tail");
  // Shrink in place: the rest of the record becomes a free record.
  ASSERT_EQ(space.LmSet(1, 2), 0);
  EXPECT_EQ(Text(space, 1), "01");
  EXPECT_EQ(space.LmValid(), 0);
  EXPECT_TRUE(PaddingIsZero(space));
  // Growing within the old physical size zeroes what comes back.
  ASSERT_EQ(space.LmSet(1, 3), 0);
  EXPECT_EQ(Text(space, 1), std::string("01\0", 3));
  // Growing past it moves the record; the mark stays.
  ASSERT_EQ(space.LmMark(1), 0);
  uint32_t before = Slot(space, 1) & 0x7FFFFFFF;
  ASSERT_EQ(space.LmSet(1, 40), 0);
  EXPECT_NE(Slot(space, 1) & 0x7FFFFFFF, before);
  EXPECT_NE(Slot(space, 1) & kLmMarkBit, 0u);
  EXPECT_EQ(Text(space, 1), std::string("01") + std::string(38, '\0'));
  EXPECT_EQ(Text(space, 2), "tail");
  EXPECT_EQ(space.LmSet(1, 0), 0);
  EXPECT_EQ(Text(space, 1), "");
  EXPECT_EQ(space.LmValid(), 0);
  EXPECT_TRUE(PaddingIsZero(space));
  TestHost host;
  EXPECT_EQ(space.LmSet(3, 1), kErrBadParameter);
  EXPECT_EQ(host.Lines().size(), 1u);
}

TEST(ElementSpace, SwapDupeAndMarks) {
  ElementSpace space(0, 0);
  for (const char* s : {"one", "two", "three", "four"}) Add(space, s);
  ASSERT_EQ(space.LmMark(1), 0);
  ASSERT_EQ(space.LmSwap(1, 3), 0);
  EXPECT_EQ(Text(space, 1), "three");
  EXPECT_EQ(Text(space, 3), "one");
  EXPECT_NE(Slot(space, 1) & kLmMarkBit, 0u);  // marks stay with numbers
  EXPECT_EQ(Slot(space, 3) & kLmMarkBit, 0u);
  // Swapping with a free last number moves the element and drops the number.
  space.LmRemove(2);
  ASSERT_EQ(space.LmSwap(4, 2), 0);
  EXPECT_EQ(space.LmCount(), 3);
  EXPECT_EQ(Text(space, 2), "four");
  EXPECT_EQ(space.LmValid(), 0);

  int d = space.LmDupe(2);
  EXPECT_EQ(d, 4);
  EXPECT_EQ(Text(space, d), "four");
  EXPECT_NE(space.LmGet(d), space.LmGet(2));

  // Collect keeps the marked ones and clears their marks.
  space.LmMark(2);
  EXPECT_EQ(space.LmCollect(), 2);  // 3 and 4 go
  std::map<int, std::string> want{{1, "three"}, {2, "four"}};
  EXPECT_EQ(Contents(space), want);
  EXPECT_EQ(space.LmCount(), 2);
  EXPECT_EQ(Slot(space, 1) & kLmMarkBit, 0u);
  EXPECT_EQ(space.LmValid(), 0);
  space.LmMark(1);
  space.LmUnmark();
  EXPECT_EQ(Slot(space, 1) & kLmMarkBit, 0u);
  EXPECT_EQ(space.LmCollect(), 2);
  EXPECT_EQ(space.LmCount(), 0);
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, CompactionGathersFreeSpace) {
  ElementSpace space(4096, 0);
  std::map<int, std::string> want;
  for (int i = 0; i < 40; ++i) {
    std::string s(static_cast<size_t>(i * 7 % 23), static_cast<char>('a' + i % 26));
    want[Add(space, s)] = s;
  }
  int freedExpected = 0;
  for (int n = 3; n <= 40; n += 3) {
    freedExpected += ElementSpace::LmPhys(static_cast<int>(want[n].size()));
    want.erase(n);
    space.LmRemove(n);
  }
  space.LmMark(5);
  space.LmSet(7, 1);  // a free record inside the data area as well
  freedExpected += ElementSpace::LmPhys(static_cast<int>(want[7].size())) - ElementSpace::LmPhys(1);
  want[7].resize(1);
  int avail = space.LmAvail();
  int used = space.LmCountUsed();
  EXPECT_EQ(space.LmCompress(), freedExpected);
  EXPECT_EQ(space.LmAvail(), avail + freedExpected);
  EXPECT_EQ(space.LmCompress(), 0);
  EXPECT_EQ(Contents(space), want);
  EXPECT_EQ(space.LmCountUsed(), used);
  EXPECT_NE(Slot(space, 5) & kLmMarkBit, 0u);
  EXPECT_EQ(space.LmValid(), 0);
  EXPECT_TRUE(PaddingIsZero(space));
  // Packed: the live records tile [start, end) exactly.
  uint32_t live = 0;
  for (const auto& [n, s] : want) live += static_cast<uint32_t>(ElementSpace::LmPhys(static_cast<int>(s.size())));
  EXPECT_EQ(static_cast<uint32_t>(space.LmEnd()) - Start(space), live);
}

// Sizes the growth rule gives, computed here from its statement.
struct GrowthOracle {
  uint64_t size;
  uint32_t step;
  uint32_t initial;
  bool fixed;
  uint64_t Grow(uint64_t shortfall) {
    if (fixed) return size += shortfall;
    while (size / 4 > uint64_t{step} * 1024 && step < 16384) step = std::min<uint32_t>(step * 2, 16384);
    return size += std::max<uint64_t>(shortfall, uint64_t{step} * 1024);
  }
};

TEST(ElementSpace, GrowthStepDoubles) {
  ElementSpace space(0, 0);
  GrowthOracle oracle{1108, 1, 1, false};
  std::map<int, std::string> want;
  int growths = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string s(static_cast<size_t>(100 + i % 300), static_cast<char>(i));
    int phys = ElementSpace::LmPhys(static_cast<int>(s.size()));
    uint64_t before = space.GetSize();
    bool grows = phys > space.LmAvail();
    int shortfall = phys - space.LmAvail();
    int n = Add(space, s);
    ASSERT_GT(n, 0);
    want[n] = s;
    if (grows) {
      ++growths;
      EXPECT_EQ(space.GetSize(), oracle.Grow(static_cast<uint64_t>((shortfall + 3) & ~3))) << "add " << i;
      int step = 0;
      space.LmGetParms(&step, nullptr);
      EXPECT_EQ(static_cast<uint32_t>(step), oracle.step);
      EXPECT_EQ(space.LmEnd(), static_cast<int>(space.GetSize()));
    } else {
      EXPECT_EQ(space.GetSize(), before);
    }
  }
  EXPECT_GT(growths, 10);
  int step = 0;
  space.LmGetParms(&step, nullptr);
  EXPECT_GE(step, 128);
  EXPECT_EQ(Contents(space), want);
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, GrowthStepCapsAt16MiB) {
  ElementSpace space(0, 0);
  // Past 64 MiB a quarter of the block exceeds the largest step.
  ASSERT_EQ(space.LmReserve(68 << 20), 0);
  uint64_t size = space.GetSize();
  EXPECT_EQ(size, 1108u + (68u << 20) - 1024);  // the shortfall exactly: more than a step
  ASSERT_GT(Add(space, std::string(100, 'x')), 0);
  ASSERT_EQ(space.LmSet(1, space.LmAvail() + 8), 0);  // cannot fit: grows
  int step = 0;
  space.LmGetParms(&step, nullptr);
  EXPECT_EQ(step, 16384);
  EXPECT_EQ(space.GetSize(), size + (16384u << 10));
  EXPECT_EQ(space.LmValid(), 0);
  // The parameters keep the step within [initial, 16384].
  EXPECT_EQ(space.LmSetParms(100000, 0), 0);
  space.LmGetParms(&step, nullptr);
  EXPECT_EQ(step, 16384);
  EXPECT_EQ(space.LmSetParms(0, 0), 0);
  space.LmGetParms(&step, nullptr);
  EXPECT_EQ(step, 1);
}

TEST(ElementSpace, FixedSizeGrowsByWhatIsNeeded) {
  ElementSpace space(0, 1);
  std::map<int, std::string> want;
  int dead = 0;  // bytes of removed records, which compaction gives back
  for (int i = 0; i < 400; ++i) {
    std::string s(static_cast<size_t>(i % 37), static_cast<char>('A' + i % 26));
    int phys = ElementSpace::LmPhys(static_cast<int>(s.size()));
    int avail = space.LmAvail();
    uint32_t expect = space.GetSize();
    if (phys > avail) {
      if (phys > avail + dead) expect += static_cast<uint32_t>(phys - avail - dead);
      dead = 0;
    }
    int n = Add(space, s);
    ASSERT_GT(n, 0);
    want[n] = s;
    ASSERT_EQ(space.GetSize(), expect) << "add " << i;
    if (i % 5 == 0) {
      dead += phys;
      space.LmRemove(n);
      want.erase(n);
    }
  }
  EXPECT_EQ(Contents(space), want);
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, GrowthCompactsFirstAndKeepsTheLimit) {
  ElementSpace space(0, 0);
  for (int i = 0; i < 9; ++i) Add(space, std::string(100, static_cast<char>('0' + i)));
  for (int n = 1; n <= 8; ++n) space.LmRemove(n);
  // The removed records' room serves the next adds without growth.
  for (int i = 0; i < 8; ++i) ASSERT_GT(Add(space, std::string(100, 'n')), 0);
  EXPECT_EQ(space.GetSize(), 1108u);
  EXPECT_EQ(Text(space, 9), std::string(100, '8'));
  EXPECT_EQ(space.LmValid(), 0);

  // A limit stops growth with the memory code.
  ASSERT_EQ(space.LmSetParms(1, 2), 0);
  TestHost host;
  int n = 0;
  for (int i = 0; i < 100 && n >= 0; ++i) n = Add(space, std::string(100, 'z'));
  EXPECT_EQ(n, kErrMemOutOfMemory);
  EXPECT_LE(space.GetSize(), 2048u);
  EXPECT_EQ(host.LinesWithFormat("LmAdd: lmNeeded failed, %E").size(), 1u);
  EXPECT_EQ(space.LmPreflight(100), kErrMemOutOfMemory);
  EXPECT_NE(space.LmFull(100), 0);
  EXPECT_EQ(space.LmSetParms(1, 1), kErrBadParameter);  // below the size
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, PreflightAndReserveAgreeWithAdd) {
  ElementSpace space(0, 0);
  EXPECT_EQ(space.LmFull(1000), 0);
  EXPECT_EQ(space.LmPreflight(1000), 0);
  Add(space, std::string(1000, 'a'));
  EXPECT_NE(space.LmFull(1000), 0);
  int grow = space.LmPreflight(1000);
  uint32_t before = space.GetSize();
  ASSERT_GT(Add(space, std::string(1000, 'b')), 0);
  EXPECT_EQ(space.GetSize(), before + static_cast<uint32_t>(grow));
  // Freed room counts for the preflight without growth.
  space.LmRemove(1);
  EXPECT_NE(space.LmFull(1000), 0);
  EXPECT_EQ(space.LmPreflight(1000), 0);
  ASSERT_EQ(space.LmReserve(50000), 0);
  EXPECT_GE(space.LmAvail(), 50000);
  EXPECT_EQ(Text(space, 2), std::string(1000, 'b'));
  EXPECT_EQ(space.LmPreflight(-1), kErrBadParameter);
  EXPECT_EQ(space.LmValid(), 0);
}

TEST(ElementSpace, AddFromInsideTheBlockSurvivesGrowth) {
  ElementSpace space(0, 0);
  std::string big(900, 'q');
  big[0] = 'A';
  Add(space, big);
  char* inside = space.LmGet(1);
  int n = space.LmAdd(inside, 900);  // does not fit: the block grows
  ASSERT_EQ(n, 2);
  EXPECT_EQ(Text(space, 2), big);
  EXPECT_EQ(space.LmValid(), 0);
}

// ---- consistency check and repair --------------------------------------

// A valid block with three elements, a removed one between them and a gap
// left by a shrinking set.
ElementSpace* MakeSample() {
  auto* space = new ElementSpace(0, 0);
  space->LmAdd("\xF1\xF2\xF3\xF4-first", 10);
  space->LmAdd("removed!", 8);
  space->LmAdd("\xF5\xF6\xF7\xF8-third!!", 12);
  space->LmAdd("\xF9\xFA\xFB\xFC-fourth and longer", 23);
  space->LmRemove(2);
  space->LmSet(4, 20);
  return space;
}

struct Fault {
  const char* name;
  std::function<void(ElementSpace&)> damage;
  std::string line;           // the logged text
  std::vector<int> survivors;  // elements that must come through the repair
};

TEST(ElementSpaceValid, EachFaultHasItsLine) {
  std::unique_ptr<ElementSpace> sample(MakeSample());
  ASSERT_EQ(sample->LmValid(), 0);
  std::map<int, std::string> original = Contents(*sample);
  uint32_t size = sample->GetSize();
  uint32_t start = Start(*sample);
  uint32_t s1 = Slot(*sample, 1), s3 = Slot(*sample, 3), s4 = Slot(*sample, 4);
  // The removed record and the gap behind element 4 (records are free ones).
  uint32_t removedAt = s3 + 16;  // element 3 (12 bytes, 16 physical) lies below it
  ASSERT_EQ(Word(*sample, removedAt), 8u);
  ASSERT_EQ(start, s4);
  auto sz = [](uint32_t v) { return std::to_string(v); };

  std::vector<Fault> faults = {
      {"magic", [](ElementSpace& s) { Poke(s, 0, 0x4C6D7321); }, "", {}},
      {"version", [](ElementSpace& s) { Poke(s, 4, 0x01000200); }, "", {}},
      {"end<start", [&](ElementSpace& s) { Poke(s, 20, start - 4); },
       "LmValid: end = " + sz(start - 4) + " must be >= start = " + sz(start), {1, 3, 4}},
      {"too big", [&](ElementSpace& s) { Poke(s, 20, size + 4); }, "LmValid: too big, end = " + sz(size + 4), {1, 3, 4}},
      {"count", [&](ElementSpace& s) { Poke(s, 72, 0x8000001); },
       "LmValid: data/offsets overlap, count = 134217729, start = " + sz(start), {1, 3, 4}},
      {"start low", [&](ElementSpace& s) { Poke(s, 16, 88); },
       "LmValid: data/offsets overlap, count = 4, start = 88", {1, 3, 4}},
      {"start align", [&](ElementSpace& s) { Poke(s, 16, start - 2); },
       "LmValid: non 4 byte aligned offset = " + sz(start - 2), {1, 3, 4}},
      {"slot align", [&](ElementSpace& s) { Poke(s, 76 + 12, s3 + 2); },
       "LmValid: non 4 byte aligned offset = " + sz(s3 + 2), {1, 4}},
      {"end align", [&](ElementSpace& s) { Poke(s, 20, size - 2); },
       "LmValid: non 4 byte aligned size = " + sz(size - 2), {1, 3, 4}},
      {"slot 0", [](ElementSpace& s) { Poke(s, 76, 8); }, "LmValid: non-zero offset = 8", {1, 3, 4}},
      {"negative", [&](ElementSpace& s) { Poke(s, removedAt, 0xFFFFFFF0); }, "LmValid: size is negative", {1, 3, 4}},
      {"huge", [&](ElementSpace& s) { Poke(s, removedAt, 0x7FFFFFF9); }, "LmValid: size is out of range", {1, 3, 4}},
      {"past block", [&](ElementSpace& s) { Poke(s, removedAt, size); }, "LmValid: size is out of range", {1, 3, 4}},
      {"cut record", [&](ElementSpace& s) { Poke(s, 20, s1 + 4); }, "LmValid: ended up wrong", {1, 3, 4}},
      {"nowhere", [&](ElementSpace& s) { Poke(s, 76 + 4, s1 + 4); }, "LmValid: offsets to nowhere", {3, 4}},
      {"outside", [&](ElementSpace& s) { Poke(s, 76 + 4, size + 8); }, "LmValid: offsets to nowhere", {3, 4}},
      {"shared", [&](ElementSpace& s) { Poke(s, 76 + 12, s1); }, "LmValid: too many offsets for datums", {1, 4}},
      {"zeros", [](ElementSpace& s) { Poke(s, 36, 2); }, "LmValid: wrong zero count", {1, 3, 4}},
  };
  for (const Fault& f : faults) {
    SCOPED_TRACE(f.name);
    ElementSpace space(*sample);
    f.damage(space);
    TestHost host;
    EXPECT_EQ(space.LmValid(), kErrInvalidData);
    auto lines = host.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].selector, 515u);
    if (f.line.empty()) {
      EXPECT_EQ(lines[0].format, "LmValid: typesig = %Y, version = %~d");
      ASSERT_EQ(lines[0].args.size(), 2u);
      EXPECT_EQ(static_cast<uint32_t>(lines[0].args[0]), Word(space, 0));
      EXPECT_EQ(lines[0].args[1], Word(space, 4) & 0xFFFF);
    } else {
      EXPECT_EQ(lines[0].text, f.line);
    }

    int dropped = space.LmRepair();
    EXPECT_EQ(space.LmValid(), 0);
    std::map<int, std::string> got = Contents(space);
    for (int n : f.survivors) EXPECT_EQ(got[n], original[n]) << "element " << n;
    if (f.survivors.empty()) {
      EXPECT_EQ(dropped, 3);
      EXPECT_EQ(space.GetSize(), 1108u);
    } else {
      EXPECT_EQ(dropped, 3 - static_cast<int>(f.survivors.size()));
      EXPECT_EQ(got.size(), f.survivors.size());
    }
    EXPECT_TRUE(PaddingIsZero(space));
    // The repaired space works as any other.
    int n = Add(space, "after");
    EXPECT_GT(n, 0);
    EXPECT_EQ(Text(space, n), "after");
    EXPECT_EQ(space.LmValid(), 0);
  }
}

// Only a slot of 0 is free. A mark left on offset 0 once passed the check
// as a free number that no add would reuse; the next add then broke the
// zero count (found by the fuzz target).
TEST(ElementSpaceValid, MarkOnAFreeSlotPointsNowhere) {
  std::unique_ptr<ElementSpace> space(MakeSample());
  Poke(*space, 76 + 8, kLmMarkBit);
  TestHost host;
  EXPECT_EQ(space->LmValid(), kErrInvalidData);
  ASSERT_EQ(host.Lines().size(), 1u);
  EXPECT_EQ(host.Lines()[0].text, "LmValid: offsets to nowhere");
  EXPECT_EQ(space->LmRepair(), 1);
  EXPECT_EQ(Slot(*space, 2), 0u);
  EXPECT_EQ(Add(*space, "again"), 2);
  EXPECT_EQ(space->LmValid(), 0);
}

// A damaged count is cut to the slots inside the block, so no number or
// loop over the table leaves it. Unbounded, 0x40000001 made 4 * n wrap to
// slot 1 and answered element 1, and the loops read past the block.
TEST(ElementSpaceValid, DamagedCountStaysInsideTheBlock) {
  std::unique_ptr<ElementSpace> space(MakeSample());
  Poke(*space, 72, 0xFFFFFFFF);
  const uint32_t slots = (space->GetSize() - 80) / 4;
  TestHost host;
  const int n = 0x40000001;
  EXPECT_EQ(space->LmGet(n), nullptr);
  ASSERT_EQ(host.Lines().size(), 1u);
  EXPECT_EQ(host.Lines()[0].text, "LmGet: ndex = 1073741825 > nsp->count = " + std::to_string(slots));
  EXPECT_EQ(space->LmSize(n), kErrBadParameter);
  EXPECT_EQ(space->LmTest(n), 0);
  EXPECT_EQ(space->LmDupe(n), kErrBadParameter);
  EXPECT_EQ(space->LmSet(n, 1), kErrBadParameter);
  EXPECT_EQ(space->LmMark(n), kErrBadParameter);
  EXPECT_EQ(space->LmRemove(n), kErrBadParameter);
  EXPECT_EQ(space->LmCount(), static_cast<int>(slots));
  int steps = 0;
  for (int k = space->LmEnumRef(0); k != 0; k = space->LmEnumRef(k)) {
    ASSERT_LE(static_cast<uint32_t>(k), slots);
    ++steps;
  }
  EXPECT_GE(steps, 3);
  space->LmUnmark();
  EXPECT_EQ(space->LmValid(), kErrInvalidData);
  space->LmRepair();
  EXPECT_EQ(space->LmValid(), 0);
}

// A caller reads LmGet's bytes up to LmSize: a damaged length that would
// run past the block is refused rather than answered.
TEST(ElementSpaceValid, DamagedLengthIsNotAnswered) {
  std::unique_ptr<ElementSpace> space(MakeSample());
  uint32_t record = Slot(*space, 1);
  uint32_t room = space->GetSize() - record - 4;
  TestHost host;
  Poke(*space, record, room);
  EXPECT_EQ(space->LmSize(1), static_cast<int>(room));
  Poke(*space, record, room + 1);
  EXPECT_EQ(space->LmSize(1), kErrInvalidData);
  Poke(*space, record, 0x80000010);
  EXPECT_EQ(space->LmSize(1), kErrInvalidData);
  auto lines = host.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "LmSize: ndex = 1, record runs past the block");
}

TEST(ElementSpaceValid, ShortBlocksAndValidRepair) {
  TestHost host;
  ElementSpace space(0, 0);
  ASSERT_EQ(space.SetSize(40), 0);
  EXPECT_EQ(space.LmValid(), kErrInvalidData);
  auto lines = host.LinesWithFormat("LmValid: typesig = %Y, version = %~d");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].args[0], 0u);
  EXPECT_EQ(space.LmRepair(), 0);
  EXPECT_EQ(space.LmValid(), 0);
  EXPECT_EQ(space.GetSize(), 1108u);

  // A valid block is left as it is.
  std::unique_ptr<ElementSpace> sample(MakeSample());
  std::vector<unsigned char> before = Image(*sample);
  EXPECT_EQ(sample->LmRepair(), 0);
  EXPECT_EQ(Image(*sample), before);
}

TEST(ElementSpaceValid, RepairKeepsMarksAndDropsTheUnreadable) {
  std::unique_ptr<ElementSpace> space(MakeSample());
  space->LmMark(3);
  std::string third = Text(*space, 3);
  // Element 1's length runs past the block; element 4's slot is trashed.
  Poke(*space, Slot(*space, 1), 0x10000);
  Poke(*space, 76 + 16, 0x44);
  TestHost host;
  EXPECT_EQ(space->LmValid(), kErrInvalidData);
  EXPECT_EQ(space->LmRepair(), 2);
  EXPECT_EQ(space->LmValid(), 0);
  EXPECT_EQ(space->LmCount(), 3);
  EXPECT_EQ(space->LmCountUsed(), 1);
  EXPECT_EQ(Text(*space, 3), third);
  EXPECT_NE(Slot(*space, 3) & kLmMarkBit, 0u);
}

// ---- big-endian blocks ------------------------------------------------

uint32_t Swap32(uint32_t v) { return (v >> 24) | ((v >> 8) & 0xFF00) | ((v << 8) & 0xFF0000) | (v << 24); }

// Writes a host-order block in big-endian order, field by field.
std::vector<unsigned char> ToBigEndian(const std::vector<unsigned char>& host) {
  std::vector<unsigned char> out = host;
  auto get = [&](uint32_t at) {
    uint32_t v;
    std::memcpy(&v, host.data() + at, 4);
    return v;
  };
  auto put = [&](uint32_t at, uint32_t v) {
    v = Swap32(v);
    std::memcpy(out.data() + at, &v, 4);
  };
  for (uint32_t at = 0; at < 80; at += 4) {
    if (at != 4) put(at, get(at));
  }
  // The two versions are 16-bit fields.
  std::swap(out[4], out[5]);
  std::swap(out[6], out[7]);
  for (uint32_t n = 1; n <= get(72); ++n) put(76 + 4 * n, get(76 + 4 * n));
  for (uint32_t at = get(16); at < get(20); at += (get(at) + 7) & ~3u) put(at, get(at));
  return out;
}

TEST(ElementSpaceBE, ReadAndConvert) {
  std::unique_ptr<ElementSpace> sample(MakeSample());
  sample->LmMark(4);
  std::vector<unsigned char> host = Image(*sample);
  std::vector<unsigned char> big = ToBigEndian(host);
  // The versions: 0x0100 each, bytes 01 00 in big-endian order.
  EXPECT_EQ(big[4], 0x01);
  EXPECT_EQ(big[5], 0x00);
  ElementSpace space(0, 0);
  SetImage(space, big);
  EXPECT_TRUE(space.LmIsBE());
  EXPECT_FALSE(sample->LmIsBE());
  EXPECT_EQ(space.LmValidBE(), 0);
  {
    TestHost host;
    EXPECT_EQ(space.LmValid(), kErrInvalidData);
    EXPECT_EQ(sample->LmValidBE(), kErrInvalidData);
    EXPECT_EQ(host.LinesWithFormat("LmValid: typesig = %Y, version = %~d").size(), 2u);
  }
  for (int n = 1; n <= 4; ++n) {
    EXPECT_EQ(space.LmSizeBE(n), sample->LmSize(n)) << n;
    if (sample->LmTest(n) != 0) {
      EXPECT_EQ(std::string(space.LmGetBE(n), static_cast<size_t>(space.LmSizeBE(n))), Text(*sample, n));
    }
  }
  {
    TestHost host;
    EXPECT_EQ(space.LmGetBE(2), nullptr);
    EXPECT_EQ(space.LmGetBE(5), nullptr);
    ASSERT_EQ(host.Lines().size(), 2u);
    EXPECT_EQ(host.Lines()[1].text, "LmGet: ndex = 5 > nsp->count = 4");
  }
  ASSERT_EQ(space.LmLockBE(), 0);
  EXPECT_EQ(Word(space, 32), Swap32(1));
  ASSERT_EQ(space.LmUnlockBE(), 0);
  EXPECT_EQ(Word(space, 32), 0u);

  // A fault reads the same in either order.
  {
    ElementSpace broken(0, 0);
    std::vector<unsigned char> bad = big;
    uint32_t slot0 = Swap32(12);
    std::memcpy(bad.data() + 76, &slot0, 4);
    SetImage(broken, bad);
    TestHost host;
    EXPECT_EQ(broken.LmValidBE(), kErrInvalidData);
    EXPECT_EQ(broken.LmFromBE(), kErrInvalidData);
    ASSERT_GE(host.Lines().size(), 1u);
    EXPECT_EQ(host.Lines()[0].text, "LmValid: non-zero offset = 12");
    EXPECT_EQ(Image(broken), bad);  // refused: nothing turned
  }

  ASSERT_EQ(space.LmFromBE(), 0);
  EXPECT_EQ(Image(space), host);
  EXPECT_EQ(space.LmValid(), 0);
  EXPECT_FALSE(space.LmIsBE());
}

}  // namespace
