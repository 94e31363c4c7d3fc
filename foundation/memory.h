// Counted heap blocks.
//
// Every dynamic allocation of the library goes through MemAlloc/MemFree. A
// block carries a 16-byte header in front of the caller's bytes: the requested
// size as a signed 64-bit number, negated once the block is freed, and a
// second word that holds the block's MemAlloc flags. Blocks are zero-filled,
// and the number of live blocks and bytes is kept.
//
// Counting. Each thread counts into a shard of its own (plain stores, no
// locked instructions); readers add the shards up, and a thread folds its
// shard into a process-wide total when it ends. Counting never serialises
// threads.
//
// Double frees. A freed block whose memory has gone back to the C heap may
// not be looked at again: the heap reuses its first bytes for its own links
// and reading it is undefined. Freed blocks are therefore held back for a
// while, their header negated, before the heap gets them:
//  - by default each thread keeps its last 16 freed blocks of up to 64 KiB,
//    so a block freed twice in quick succession on the same thread (the
//    common slip) is caught; beyond that the check is best effort only.
//    The oldest of them, once the last 16 are held besides it, goes to the
//    thread's next MemAlloc of up to 256 bytes in its 16-byte size class
//    (zero-filled again) rather than back to the heap;
//  - with MemDebug(kMemDebugQuarantine) every freed block, whatever its size
//    or thread, is held in a process-wide quarantine (up to 65536 blocks and
//    256 MiB) and its bytes are overwritten with 0xDD, so double frees and
//    reads of freed blocks show up reliably within that window.
// A second MemFree of a block that is still held is an assertion
// ("memutil_win", line 160) and changes nothing. The check is not a lock:
// two threads freeing one block at the same instant may both pass it.
//
// Out of memory. MemAlloc never returns null. When the heap refuses even
// after the recovery steps (release held blocks, trim the heap, try again),
// MemAlloc raises the assertion ("memutil_win", line 74; 126 in MemRealloc),
// then a fatal alert "MemAlloc: out of memory (<size> bytes)", writes the
// same text to stderr and aborts the process: carrying on without the
// memory would only fail later and further from the cause. Code that can live without a large
// buffer asks MemTryRealloc instead, which answers null.
#ifndef PLINTH_FOUNDATION_MEMORY_H_
#define PLINTH_FOUNDATION_MEMORY_H_

#include <cstddef>
#include <cstdint>

#include "foundation/export.h"

// MemAlloc flags.
// The bytes are overwritten with zeros when the block is freed (keys,
// passwords): they do not linger in the heap or the quarantine.
constexpr unsigned int kMemWipeOnFree = 1;

// MemDebug bits.
// Hold every freed block in the process-wide quarantine (see above).
constexpr int kMemDebugQuarantine = 1;

// Returns a zero-filled block of `size` bytes; never returns null.
PLINTH_API void* MemAlloc(size_t size, unsigned int flags = 0);
// Resizes `ptr` (null behaves as MemAlloc): in place when the heap can, else
// by moving; bytes beyond the old size are zero; never returns null. A freed
// `ptr` is an assertion ("memutil", line 79) and answers a fresh block.
PLINTH_API void* MemRealloc(void* ptr, size_t newSize);
// As MemRealloc, but a request the heap refuses after recovery answers null
// and leaves `ptr` as it was.
PLINTH_API void* MemTryRealloc(void* ptr, size_t newSize);
// Frees `ptr`; null is ignored, a block already freed is an assertion.
PLINTH_API void MemFree(void* ptr);
// The requested size of `ptr`, 0 for null; a freed block is an assertion
// ("memutil", line 79) and answers 0.
PLINTH_API size_t MemSize(const void* ptr);

// Releases the blocks this thread and the quarantine hold back, then gives
// the heap's free memory back to the system.
PLINTH_API void MemPack();
// The machine's total and available physical memory in megabytes.
PLINTH_API unsigned int MemTotalMB();
PLINTH_API unsigned int MemPhysAvailMB();
// Sets the debugging aids (kMemDebug* bits); answers the previous bits.
// Clearing kMemDebugQuarantine releases what the quarantine holds.
PLINTH_API int MemDebug(int bits);

// How many bytes the machine can still give a working set, `percent` (0..100,
// else an assertion of "memutil_win", line 232, and clamped) of the
// allowance. Kind 1 keeps 32 MB of address space free while it measures;
// kind 0 does not. The allowance is half the physical memory (less 16 MB)
// on a machine without paging space, and the whole physical memory, but no
// more than 1073741800 bytes, on one with it. See memavail.h.
PLINTH_API size_t MemAvail(int kind, int percent);

// Live blocks and bytes handed out by MemAlloc and not yet freed.
PLINTH_API int64_t MemLiveBlocks();
PLINTH_API int64_t MemLiveBytes();

// For tests: the next `count` requests to the heap fail as if it were out of
// memory (each attempt, including the retry after recovery, takes one).
void MemFailNextHeapRequests(int count);

#endif  // PLINTH_FOUNDATION_MEMORY_H_
