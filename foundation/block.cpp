#include "foundation/block.h"

#include <cstring>

// A count of 0 allows null pointers, which the C functions do not.

void BlockMove(const void* src, void* dst, size_t count) {
  if (count != 0) std::memmove(dst, src, count);
}

void BlockFill(void* dst, size_t count, uint8_t byte) {
  if (count != 0) std::memset(dst, byte, count);
}

void ZeroFill(void* dst, size_t count) { BlockFill(dst, count, 0); }

int EqualBlock(const void* a, const void* b, size_t count) {
  return count == 0 || std::memcmp(a, b, count) == 0 ? 1 : 0;
}
