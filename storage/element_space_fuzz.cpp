// libFuzzer target: element spaces made of hostile bytes.
//
// The check must never read outside the block; a block it passes must read
// cleanly element by element; the repair must always leave a block the check
// passes, and that block must stay consistent through adds, sets, removes
// and compaction.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "storage/element_space.h"

namespace {

void Check(bool ok, int line = __builtin_LINE()) {
  if (!ok) {
    std::fprintf(stderr, "element_space_fuzz: check at line %d failed\n", line);
    std::abort();
  }
}

// Reads every element of a valid space, touching each byte.
void ReadAll(ElementSpace& space) {
  int count = space.LmCount();
  int used = 0;
  for (int n = space.LmEnumRef(0); n != 0; n = space.LmEnumRef(n)) {
    Check(n <= count);
    int size = space.LmSize(n);
    Check(size >= 0);
    const char* p = space.LmGet(n);
    Check(p != nullptr);
    unsigned sum = 0;
    for (int i = 0; i < size; ++i) sum += static_cast<unsigned char>(p[i]);
    (void)sum;
    ++used;
  }
  Check(used == space.LmCountUsed());
}

// A valid space built from the first bytes, then damaged by (offset, byte)
// pairs from the rest: reaches the deeper checks far sooner than raw bytes.
void BuildAndDamage(ElementSpace& space, const uint8_t* data, size_t size) {
  size_t at = 1;
  int elements = size > 1 ? data[1] % 16 : 0;
  for (int i = 0; i < elements && at + 1 < size; ++i) {
    int length = data[++at] % 40;
    space.LmAdd(nullptr, length);
    if (data[at] & 0x80) space.LmRemove(1 + data[at] % (i + 1));
  }
  Check(space.LmValid() == 0);
  uint32_t block = space.GetSize();
  auto* bytes = static_cast<unsigned char*>(space.MemPtr());
  for (++at; at + 2 < size; at += 3) {
    uint32_t offset = (uint32_t{data[at]} | uint32_t{data[at + 1]} << 8) % block;
    bytes[offset] = data[at + 2];
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  ElementSpace space(0, 0);
  if (size > 0 && (data[0] & 1) != 0) {
    BuildAndDamage(space, data, size);
  } else {
    if (space.AllocBuffer(size) != 0) return 0;
    if (size > 0) std::memcpy(space.MemPtr(), data, size);
  }

  if (space.LmValid() == 0) ReadAll(space);
  // Reads of a damaged block must stay inside it, whatever they answer.
  for (int n = space.LmEnumRef(0), steps = 0; n != 0 && steps < 4096; n = space.LmEnumRef(n), ++steps) {
    const char* p = space.LmGet(n);
    const char* base = static_cast<const char*>(space.MemPtr());
    int length = space.LmSize(n);
    Check(length >= 0 || length == kErrInvalidData);
    if (p != nullptr && length >= 0) Check(p > base && p + length <= base + space.GetSize());
  }
  if (space.LmValidBE() == 0) {
    int count = space.LmCount();  // read in host order: only a bound here
    (void)count;
    ElementSpace copy(space);
    Check(copy.LmFromBE() == 0);
    Check(copy.LmValid() == 0);
    ReadAll(copy);
  }

  int dropped = space.LmRepair();
  Check(dropped >= 0);
  Check(space.LmValid() == 0);
  ReadAll(space);

  // A stored lock count would refuse the edits below; they must not break
  // the block either way.
  uint8_t seed = size > 0 ? data[size - 1] : 0;
  char bytes[64];
  std::memset(bytes, seed, sizeof bytes);
  int added = space.LmAdd(bytes, seed % 64);
  if (added > 0) {
    Check(space.LmSize(added) == seed % 64);
    Check(std::memcmp(space.LmGet(added), bytes, seed % 64) == 0);
  }
  space.LmDupe(space.LmEnumRef(0));
  int first = space.LmEnumRef(0);
  if (first > 0) space.LmSet(first, seed);
  if (first > 0) space.LmRemove(first);
  space.LmCompress();
  space.LmAdd(nullptr, 3);
  Check(space.LmValid() == 0);
  ReadAll(space);
  return 0;
}
