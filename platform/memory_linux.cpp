#include "platform/memory.h"

#include <malloc.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>

#include <cstdio>
#include <cstring>

namespace platform {

namespace {

// Reads the "Name: value kB" lines of /proc/meminfo that we need. False when
// the file is missing or lacks MemTotal.
bool ReadMemInfo(PhysicalMemorySpec* out) {
  std::FILE* file = std::fopen("/proc/meminfo", "re");
  if (file == nullptr) return false;
  bool haveTotal = false;
  bool haveAvailable = false;
  uint64_t freeBytes = 0;
  char line[256];
  while (std::fgets(line, sizeof line, file) != nullptr) {
    char name[64];
    unsigned long long kb = 0;
    if (std::sscanf(line, "%63[^:]: %llu", name, &kb) != 2) continue;
    uint64_t bytes = static_cast<uint64_t>(kb) * 1024;
    if (std::strcmp(name, "MemTotal") == 0) {
      out->totalBytes = bytes;
      haveTotal = true;
    } else if (std::strcmp(name, "MemAvailable") == 0) {
      out->availableBytes = bytes;
      haveAvailable = true;
    } else if (std::strcmp(name, "MemFree") == 0) {
      freeBytes = bytes;
    } else if (std::strcmp(name, "SwapTotal") == 0) {
      out->swapTotalBytes = bytes;
    }
  }
  std::fclose(file);
  // Kernels before 3.14 have no MemAvailable; free memory is the nearest.
  if (!haveAvailable) out->availableBytes = freeBytes;
  return haveTotal;
}

}  // namespace

bool QueryPhysicalMemory(PhysicalMemorySpec* out) {
  *out = PhysicalMemorySpec();
  if (ReadMemInfo(out)) return true;
  struct sysinfo info;
  if (sysinfo(&info) != 0) return false;
  uint64_t unit = info.mem_unit != 0 ? info.mem_unit : 1;
  out->totalBytes = static_cast<uint64_t>(info.totalram) * unit;
  out->availableBytes = static_cast<uint64_t>(info.freeram + info.bufferram) * unit;
  out->swapTotalBytes = static_cast<uint64_t>(info.totalswap) * unit;
  return true;
}

void* ReserveAddressSpace(size_t bytes) {
  if (bytes == 0) return nullptr;
  void* base = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return base == MAP_FAILED ? nullptr : base;
}

void ReleaseAddressSpace(void* base, size_t bytes) {
  if (base != nullptr) munmap(base, bytes);
}

void WipeBytes(void* where, size_t bytes) {
  if (bytes != 0) explicit_bzero(where, bytes);
}

void TrimHeap() { malloc_trim(0); }

bool HeapIsValid() { return true; }

}  // namespace platform
