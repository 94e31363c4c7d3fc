// ElementSpace against a model: long seeded random runs of every operation,
// each step checked through the space's own operations and through an
// independent reader of its bytes, across growth, compaction, copies of
// the block and its big-endian form; fixed-size spaces and spaces with a
// size limit, where refused adds must leave everything as it was.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

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
    EXPECT_GT(r.resizes, 3) << "the run never made the block grow much";
  }
}

TEST(ElementSpaceModel, LargerInitialSizeAndSmallElements) {
  LmModelOptions options;
  options.largeMin = 300;
  options.largeMax = 1200;
  options.elementTarget = 400;
  RunResult r = RunModel(5, 20000, 0, 0, kSteps, options);
  EXPECT_GT(r.elements, 50u);
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
    EXPECT_GT(r.refusals, 10) << "the limit was never reached";
  }
  RunResult r = RunModel(13, 2048, 1, 16, kSteps, options);
  EXPECT_GT(r.refusals, 10) << "the limit was never reached";
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

}  // namespace
