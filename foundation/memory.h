// Counted heap blocks.
//
// Every dynamic allocation of the library goes through MemAlloc/MemFree. A
// block carries a 16-byte header in front of the caller's bytes: the requested
// size as a signed 64-bit number (negated once the block is freed) and 8
// reserved bytes. Blocks are zero-filled, and the number of live blocks and
// bytes is kept.
#ifndef PLINTH_FOUNDATION_MEMORY_H_
#define PLINTH_FOUNDATION_MEMORY_H_

#include <cstddef>
#include <cstdint>

#include "foundation/export.h"

// Returns a zero-filled block of `size` bytes; never returns null.
PLINTH_API void* MemAlloc(size_t size, unsigned int flags = 0);
// Resizes `ptr` (null behaves as MemAlloc); bytes beyond the old size are zero.
PLINTH_API void* MemRealloc(void* ptr, size_t newSize);
// Frees `ptr`; null is ignored, a block already freed is an assertion.
PLINTH_API void MemFree(void* ptr);
// The requested size of `ptr`, 0 for null.
PLINTH_API size_t MemSize(const void* ptr);

// Live blocks and bytes handed out by MemAlloc and not yet freed.
PLINTH_API int64_t MemLiveBlocks();
PLINTH_API int64_t MemLiveBytes();

#endif  // PLINTH_FOUNDATION_MEMORY_H_
