// The operating system's side of the memory functions: physical memory
// figures, address-space reservations and the C heap's housekeeping.
#ifndef PLINTH_PLATFORM_MEMORY_H_
#define PLINTH_PLATFORM_MEMORY_H_

#include <cstddef>
#include <cstdint>

namespace platform {

struct PhysicalMemorySpec {
  uint64_t totalBytes = 0;      // installed physical memory
  uint64_t availableBytes = 0;  // what can be had without paging others out
  uint64_t swapTotalBytes = 0;  // paging space behind physical memory
};

// Fills `out`; false (and zeros) when the system will not say.
bool QueryPhysicalMemory(PhysicalMemorySpec* out);

// Reserves `bytes` of address space without committing memory (no access,
// no swap accounting). Null when the process cannot get that much.
void* ReserveAddressSpace(size_t bytes);
// Gives back a reservation made by ReserveAddressSpace.
void ReleaseAddressSpace(void* base, size_t bytes);

// Overwrites `bytes` bytes at `where` with zeros in a way the compiler may
// not drop as a dead store (secrets about to be freed).
void WipeBytes(void* where, size_t bytes);

// Returns free memory at the top of the heap and in its arenas to the system.
void TrimHeap();

// Whether the C heap is consistent. The C library checks its chunk links on
// every call and aborts the process on corruption, so a process that is still
// running has a consistent heap and this answers true.
bool HeapIsValid();

}  // namespace platform

#endif  // PLINTH_PLATFORM_MEMORY_H_
