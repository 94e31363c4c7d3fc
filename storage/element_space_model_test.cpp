// ElementSpace against a model: long seeded random runs of every operation,
// each step checked through the space's own operations and through an
// independent reader of its bytes, across growth, compaction, copies of
// the block and its big-endian form; fixed-size spaces and spaces with a
// size limit, where refused adds must leave everything as it was.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "storage/element_space.h"
#include "tests/element_space_image.h"
#include "tests/element_space_model.h"
#include "tests/test_host.h"

namespace {

constexpr int kSteps = 3000;

// One run of `steps` on a space made as given; answers the run for checks
// of what it went through.
struct RunResult {
  int resizes = 0;
  int refusals = 0;
  size_t elements = 0;
};

RunResult RunModel(uint32_t seed, int sizeHint, int fixed, int limitKB, int steps, LmModelOptions options = LmModelOptions()) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  TestHost host;
  ElementSpace space(sizeHint, fixed);
  EXPECT_EQ(0, space.CheckError());
  if (limitKB != 0) {
    int step = 0;
    int limit = 0;
    EXPECT_EQ(0, space.LmGetParms(&step, &limit));
    EXPECT_EQ(0, space.LmSetParms(step, limitKB));
  }
  LmModelRun run(&space, seed, &host, options);
  run.Verify();
  for (int i = 1; i <= steps; ++i) {
    if (!run.Step(i)) break;
  }
  return RunResult{run.resizes(), run.refusals(), run.elements().size()};
}

TEST(ElementSpaceModel, GrowingSpacesAgreeWithTheModel) {
  const uint32_t seeds[] = {1, 77, 2024, 31337};
  for (uint32_t seed : seeds) {
    RunResult r = RunModel(seed, 0, 0, 0, kSteps);
    EXPECT_GE(r.resizes, 2) << "the run hardly made the block grow";
  }
}

TEST(ElementSpaceModel, LargerInitialSizeAndSmallElements) {
  LmModelOptions options;
  options.largeMin = 300;
  options.largeMax = 1200;
  options.elementTarget = 400;
  RunResult r = RunModel(5, 20000, 0, 0, kSteps, options);
  EXPECT_GT(r.elements, 30u);
}

TEST(ElementSpaceModel, FixedSizeSpacesGrowByWhatTheyNeed) {
  const uint32_t seeds[] = {3, 404};
  for (uint32_t seed : seeds) {
    RunResult r = RunModel(seed, 4096, 1, 0, kSteps);
    EXPECT_GT(r.resizes, 10);
  }
}

TEST(ElementSpaceModel, SizeLimitRefusesCleanly) {
  LmModelOptions options;
  options.largeMin = 2000;
  options.largeMax = 9000;
  const uint32_t seeds[] = {11, 12};
  for (uint32_t seed : seeds) {
    RunResult r = RunModel(seed, 0, 0, 24, kSteps, options);
    EXPECT_GT(r.refusals, 3) << "the limit was never reached";
  }
  RunResult r = RunModel(13, 2048, 1, 16, kSteps, options);
  EXPECT_GT(r.refusals, 3) << "the limit was never reached";
}

TEST(ElementSpaceModel, NewSpaceLayout) {
  ElementSpace space(0, 0);
  ASSERT_EQ(1108u, space.GetSize());
  std::string bytes(reinterpret_cast<const char*>(TMemoryPin(space).Get()), space.GetSize());
  lm_image::Image im;
  ASSERT_EQ("", lm_image::Read(bytes, &im));
  EXPECT_EQ(1108u, im.dataStart);
  EXPECT_EQ(1108u, im.dataEnd);
  EXPECT_EQ(1u, im.initialKB);
  EXPECT_EQ(1u, im.stepKB);
  EXPECT_EQ(0u, im.count);
  EXPECT_EQ(1024, space.LmAvail());
  // Everything the header does not define at creation is zero.
  for (size_t at : {8, 12, 32, 36, 40, 48, 52, 56, 60, 64, 68, 76}) {
    uint32_t word;
    std::memcpy(&word, bytes.data() + at, 4);
    EXPECT_EQ(0u, word) << "offset " << at;
  }

  ElementSpace big(10 * 1024 + 1000, 1);
  EXPECT_EQ(10u * 1024 + 84, big.GetSize());
  int step = 0;
  int limit = -1;
  EXPECT_EQ(0, big.LmGetParms(&step, &limit));
  EXPECT_EQ(10, step);
  EXPECT_EQ(0, limit);

  EXPECT_EQ(1, space.LmAdd("hello", 5));
  std::string after(reinterpret_cast<const char*>(TMemoryPin(space).Get()), space.GetSize());
  ASSERT_EQ("", lm_image::Read(after, &im));
  EXPECT_EQ(1108u - 12, im.dataStart);
  EXPECT_EQ(std::string("\x05\0\0\0hello\0\0\0", 12), after.substr(1096));
}

TEST(ElementSpaceModel, PhysMatchesTheLayout) {
  const int lengths[] = {-5, -1, 0, 1, 3, 4, 5, 8, 1000, 0x7FFFFFF7, 0x7FFFFFF8, 0x7FFFFFF9, 0x7FFFFFFF};
  for (int length : lengths) {
    EXPECT_EQ(static_cast<int>(lm_image::Phys(length)), ElementSpace::LmPhys(length)) << length;
  }
  EXPECT_EQ(0x7FFFFFFC, ElementSpace::LmPhys(0x7FFFFFF8));
}

// The block's bytes.
std::string Bytes(ElementSpace& space) {
  TMemoryPin pin(space);
  return std::string(reinterpret_cast<const char*>(pin.Get()), space.GetSize());
}

void Load(ElementSpace* space, const std::string& bytes) {
  ASSERT_EQ(0, space->AllocBuffer(bytes.size()));
  std::memcpy(TMemoryPin(*space).Get(), bytes.data(), bytes.size());
}

uint32_t WordAt(const std::string& b, size_t at) {
  uint32_t v;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

void PutWord(std::string* b, size_t at, uint32_t v) { std::memcpy(b->data() + at, &v, 4); }

// Damages one structural word of a well-formed block whose reading was
// `im`: a header field the layout relies on, an index slot, or a record's
// length word.
void Damage(std::string* b, const lm_image::Image& im, std::mt19937& rng) {
  size_t at;
  unsigned kind = rng() % 3;
  if (kind == 0 || im.count == 0) {
    const size_t fields[] = {0, 4, 16, 20, 36, 72, 76};
    at = fields[rng() % 7];
  } else if (kind == 1) {
    at = 76 + 4 * (1 + rng() % im.count);
  } else {
    if (im.offsets.empty()) return;
    auto it = im.offsets.begin();
    std::advance(it, rng() % im.offsets.size());
    at = it->second;
  }
  uint32_t old = WordAt(*b, at);
  uint32_t value;
  switch (rng() % 6) {
    case 0: value = old + 4; break;
    case 1: value = old - 4; break;
    case 2: value = old ^ (1u << (rng() % 32)); break;
    case 3: value = 0xFFFFFFFFu; break;
    case 4: value = old + 1; break;
    default: value = rng(); break;
  }
  PutWord(b, at, value);
}

TEST(ElementSpaceModel, DamagedBlocksAreFoundAndRepaired) {
  TestHost host;
  std::mt19937 rng(8);
  int refused = 0;
  for (uint32_t seed = 40; seed < 44; ++seed) {
    ElementSpace source(0, 0);
    LmModelOptions options;
    options.largeMax = 6000;
    options.continueOnCopy = false;
    options.bigEndian = false;
    LmModelRun run(&source, seed, &host, options);
    for (int i = 1; i <= 150; ++i) run.Step(i);
    const std::string good = Bytes(source);
    lm_image::Image goodImage;
    ASSERT_EQ("", lm_image::Read(good, &goodImage));
    for (int trial = 0; trial < 150; ++trial) {
      std::string bad = good;
      int hits = 1 + static_cast<int>(rng() % 2);
      for (int h = 0; h < hits; ++h) Damage(&bad, goodImage, rng);
      lm_image::Image im;
      std::string fault = lm_image::Read(bad, &im);
      ElementSpace space(0, 0);
      Load(&space, bad);
      int valid = space.LmValid();
      SCOPED_TRACE("seed " + std::to_string(seed) + " trial " + std::to_string(trial) + ": " + fault);
      if (valid == 0) {
        // What LmValid passes, the operations may rely on. Padding is
        // never read, so a length word that now covers a byte less is no
        // fault of structure.
        EXPECT_TRUE(fault.empty() || fault.rfind("padding", 0) == 0) << "LmValid passed a broken block";
        EXPECT_EQ(0, space.LmRepair());
        EXPECT_EQ(bad, Bytes(space)) << "repairing a sound block changed it";
        continue;
      }
      ++refused;
      EXPECT_EQ(kErrInvalidData, valid);
      EXPECT_FALSE(fault.empty()) << "LmValid refused a block the reader finds sound";
      int used = fault.empty() ? static_cast<int>(im.elements.size()) : -1;
      int dropped = space.LmRepair();
      EXPECT_GE(dropped, 0);
      EXPECT_EQ(0, space.LmValid()) << "the repair left the block broken";
      std::string repaired = Bytes(space);
      lm_image::Image after;
      EXPECT_EQ("", lm_image::Read(repaired, &after));
      if (used >= 0) {
        EXPECT_EQ(used - dropped, static_cast<int>(after.elements.size()));
      }
      // A repaired space takes new elements.
      int n = space.LmAdd("after repair", 12);
      EXPECT_GT(n, 0);
      EXPECT_EQ(0, space.LmValid());
      if (::testing::Test::HasFailure()) return;
    }
  }
  EXPECT_GT(refused, 300) << "the damage was rarely noticed";
}

// Damage to one slot costs exactly that element; the others keep their bytes.
TEST(ElementSpaceModel, RepairKeepsWhatItCan) {
  TestHost host;
  ElementSpace space(0, 0);
  std::vector<std::string> values;
  for (int i = 0; i < 40; ++i) {
    values.push_back(std::string(static_cast<size_t>(i * 3), static_cast<char>('a' + i % 26)));
    ASSERT_EQ(i + 1, space.LmAdd(values.back().data(), static_cast<int>(values.back().size())));
  }
  std::string bytes = Bytes(space);
  PutWord(&bytes, 76 + 4 * 7, WordAt(bytes, 76 + 4 * 7) + 2);  // element 7 points into its record
  ElementSpace damaged(0, 0);
  Load(&damaged, bytes);
  EXPECT_EQ(kErrInvalidData, damaged.LmValid());
  EXPECT_FALSE(host.Lines().empty());
  EXPECT_EQ(1, damaged.LmRepair());
  EXPECT_EQ(0, damaged.LmValid());
  EXPECT_EQ(0, damaged.LmTest(7));
  for (int i = 1; i <= 40; ++i) {
    if (i == 7) continue;
    const std::string& v = values[static_cast<size_t>(i - 1)];
    ASSERT_EQ(static_cast<int>(v.size()), damaged.LmSize(i)) << i;
    EXPECT_EQ(v, std::string(damaged.LmGet(i), v.size())) << i;
  }
  EXPECT_EQ(7, damaged.LmAdd("x", 1)) << "the dropped number is free again";
}

}  // namespace
