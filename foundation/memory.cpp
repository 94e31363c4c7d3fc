#include "foundation/memory.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "foundation/hooks.h"

namespace {

constexpr size_t kHeaderSize = 16;

struct BlockHeader {
  int64_t size;
  int64_t reserved;
};

std::atomic<int64_t> g_liveBlocks{0};
std::atomic<int64_t> g_liveBytes{0};

BlockHeader* HeaderOf(const void* ptr) {
  return reinterpret_cast<BlockHeader*>(static_cast<char*>(const_cast<void*>(ptr)) - kHeaderSize);
}

}  // namespace

void* MemAlloc(size_t size, unsigned int /*flags*/) {
  void* raw = std::calloc(1, size + kHeaderSize);
  if (raw == nullptr) {
    Debug("memutil_win", 74, 0);
    std::abort();
  }
  auto* header = static_cast<BlockHeader*>(raw);
  header->size = static_cast<int64_t>(size);
  g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
  g_liveBytes.fetch_add(static_cast<int64_t>(size), std::memory_order_relaxed);
  return static_cast<char*>(raw) + kHeaderSize;
}

void* MemRealloc(void* ptr, size_t newSize) {
  if (ptr == nullptr) return MemAlloc(newSize);
  BlockHeader* header = HeaderOf(ptr);
  int64_t oldSize = header->size;
  if (oldSize < 0) {
    Debug("memutil_win", 126, 0);
    return nullptr;
  }
  void* fresh = MemAlloc(newSize);
  std::memcpy(fresh, ptr, std::min<size_t>(static_cast<size_t>(oldSize), newSize));
  MemFree(ptr);
  return fresh;
}

void MemFree(void* ptr) {
  if (ptr == nullptr) return;
  BlockHeader* header = HeaderOf(ptr);
  if (header->size < 0) {
    Debug("memutil_win", 160, 0);
    return;
  }
  g_liveBlocks.fetch_sub(1, std::memory_order_relaxed);
  g_liveBytes.fetch_sub(header->size, std::memory_order_relaxed);
  header->size = -header->size;
  std::free(header);
}

size_t MemSize(const void* ptr) {
  if (ptr == nullptr) return 0;
  const BlockHeader* header = HeaderOf(ptr);
  if (header->size < 0) {
    Debug("memutil", 79, 0);
    return 0;
  }
  return static_cast<size_t>(header->size);
}

int64_t MemLiveBlocks() { return g_liveBlocks.load(std::memory_order_relaxed); }
int64_t MemLiveBytes() { return g_liveBytes.load(std::memory_order_relaxed); }
