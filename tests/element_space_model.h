// A model of an ElementSpace for randomised tests: a seeded run of every
// operation on a real space, each step mirrored in a std::map from element
// number to bytes (with the marks and the slot count), and after each step
// the space checked against the model through its own operations and
// through the independent block reader (tests/element_space_image.h).
#ifndef PLINTH_TESTS_ELEMENT_SPACE_MODEL_H_
#define PLINTH_TESTS_ELEMENT_SPACE_MODEL_H_

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>

#include "storage/element_space.h"
#include "tests/element_space_image.h"

class TestHost;

struct LmModelOptions {
  int largeMin = 4096;       // the occasional large element
  int largeMax = 40000;
  uint64_t liveTarget = 192 * 1024;  // above it the run prefers removals
  int elementTarget = 160;           // the same for the element count
  bool copies = true;          // check copies of the block now and then
  bool continueOnCopy = true;  // and carry on with one of them
  bool bigEndian = true;     // check the big-endian form now and then
};

class LmModelRun {
 public:
  // Runs on `space` (not owned; a copy the run continues on is owned).
  LmModelRun(ElementSpace* space, uint32_t seed, TestHost* host, LmModelOptions options = LmModelOptions());

  // One random operation and the checks after it; false once a check of
  // this run has failed.
  bool Step(int step);
  // The checks alone.
  void Verify();

  ElementSpace* space() const { return m_space; }
  const std::map<int, std::string>& elements() const { return m_elements; }
  int resizes() const { return m_resizes; }
  int refusals() const { return m_refusals; }

 private:
  // Snapshot of the block before an operation.
  struct Before {
    lm_image::Image image;
    int avail = 0;
    int stepKB = 0;
    int limitKB = 0;
  };

  std::string BlockBytes();
  Before Take();
  // The block's size limit in bytes (0: none).
  uint64_t LimitBytes() const;
  // What LmAvail would be at most after compaction and growth to the limit.
  int64_t MaxAvail() const;
  uint64_t LivePhys() const;
  int LowestFree() const;
  int RandomUsed();
  int RandomLength();
  std::string RandomBytes(int length);

  void Add();
  void Dupe();
  void Set();
  void Remove();
  void Swap();
  void Mark();
  void Collect();
  void Compress();
  void Reserve();
  void SetParms();
  void Locked();
  void BadArguments();
  void CopyAndContinue();

  // Mirrors an add that answered `number`; `expected` the bytes.
  void Added(int number, const std::string& expected, const Before& before, int full, int preflight);
  void CheckGrowth(const Before& before, int request);
  void TrimCount();
  void CheckCopy(ElementSpace* copy, const char* how);
  void CheckBigEndian(const std::string& block);

  ElementSpace* m_space;
  std::unique_ptr<ElementSpace> m_owned;
  std::mt19937 m_rng;
  TestHost* m_host;
  LmModelOptions m_options;
  int m_step = 0;
  std::map<int, std::string> m_elements;
  std::set<int> m_marks;
  int m_count = 0;
  bool m_fixed = false;
  int m_resizes = 0;
  int m_refusals = 0;
  int m_failures;  // of the test when the run began
};

#endif  // PLINTH_TESTS_ELEMENT_SPACE_MODEL_H_
