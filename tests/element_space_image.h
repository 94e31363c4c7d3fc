// An independent reader of element-space blocks for tests: it reads the
// header and the index table by offset and walks the record tiling of the
// data area, using nothing of the library's element-space code, so what a
// block holds can be told from its bytes alone. Also turns a host-order
// block into its big-endian form, field by field.
#ifndef PLINTH_TESTS_ELEMENT_SPACE_IMAGE_H_
#define PLINTH_TESTS_ELEMENT_SPACE_IMAGE_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace lm_image {

struct Image {
  uint32_t size = 0;  // the block's bytes
  uint32_t sizeLimitKB = 0;
  uint32_t dataStart = 0;
  uint32_t dataEnd = 0;
  uint32_t initialKB = 0;
  uint32_t flags = 0;
  int32_t lockCount = 0;
  uint32_t emptySlots = 0;
  uint32_t stepKB = 0;
  uint32_t count = 0;
  std::map<int, std::string> elements;  // number -> bytes
  std::map<int, uint32_t> offsets;      // number -> record offset
  std::set<int> marks;
  uint32_t records = 0;    // records in the tiling, live or not
  uint64_t livePhys = 0;   // physical bytes of the live records
};

// (length + 7) rounded down to 4; 0 out of range.
uint32_t Phys(int64_t length);

// Reads a host-order block. Answers "" and fills `out` when the block is
// well formed, else a description of the first fault.
std::string Read(const std::string& block, Image* out);

// The big-endian form of a well-formed host-order block.
std::string ToBigEndian(const std::string& block);

}  // namespace lm_image

#endif  // PLINTH_TESTS_ELEMENT_SPACE_IMAGE_H_
