// Thread identity from the operating system.
#ifndef PLINTH_PLATFORM_THREAD_H_
#define PLINTH_PLATFORM_THREAD_H_

#include <cstdint>

namespace platform {

// The kernel's identifier of the calling thread.
uint64_t CurrentThreadId();
// The native handle of the calling thread.
uint64_t CurrentThreadHandle();

}  // namespace platform

#endif  // PLINTH_PLATFORM_THREAD_H_
