#include "platform/vmem.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

size_t PageSize() {
  static const size_t size = [] {
    long page = ::sysconf(_SC_PAGESIZE);
    return page > 0 ? static_cast<size_t>(page) : size_t{4096};
  }();
  return size;
}

void* CommitMemory(size_t bytes) {
  if (bytes == 0) return nullptr;
  void* base = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return base == MAP_FAILED ? nullptr : base;
}

int ReleaseMemory(void* base, size_t bytes) {
  if (base == nullptr) return 0;
  return ::munmap(base, bytes) == 0 ? 0 : errno;
}

}  // namespace platform
