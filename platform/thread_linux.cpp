#include "platform/thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

uint64_t CurrentThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

uint64_t CurrentThreadHandle() { return static_cast<uint64_t>(pthread_self()); }

}  // namespace platform
