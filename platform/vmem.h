// Committed virtual memory for the memory pools: whole pages, read-write,
// zero-filled, outside the C heap.
#ifndef PLINTH_PLATFORM_VMEM_H_
#define PLINTH_PLATFORM_VMEM_H_

#include <cstddef>

namespace platform {

// The system's page size in bytes.
size_t PageSize();

// Commits `bytes` (a multiple of the page size) of zero-filled read-write
// memory. Null when the system refuses.
void* CommitMemory(size_t bytes);

// Gives back memory from CommitMemory. 0, or the errno of the refusal
// (a raw OS error number, for the pools' osError out-parameter).
int ReleaseMemory(void* base, size_t bytes);

}  // namespace platform

#endif  // PLINTH_PLATFORM_VMEM_H_
