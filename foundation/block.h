// Byte-block primitives: moving, filling and comparing raw memory.
#ifndef PLINTH_FOUNDATION_BLOCK_H_
#define PLINTH_FOUNDATION_BLOCK_H_

#include <cstddef>
#include <cstdint>

#include "foundation/export.h"

// Copies `count` bytes from `src` to `dst`; the ranges may overlap.
PLINTH_API void BlockMove(const void* src, void* dst, size_t count);
PLINTH_API void BlockFill(void* dst, size_t count, uint8_t byte);
PLINTH_API void ZeroFill(void* dst, size_t count);
// Non-zero when the `count` bytes at `a` and `b` are equal (always for 0).
PLINTH_API int EqualBlock(const void* a, const void* b, size_t count);

#endif  // PLINTH_FOUNDATION_BLOCK_H_
