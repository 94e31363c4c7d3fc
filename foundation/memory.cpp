#include "foundation/memory.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/tstring.h"
#include "platform/memory.h"

namespace {

struct BlockHeader {
  int64_t size;    // requested size; negated once freed
  uint64_t flags;  // MemAlloc flags, and kFreedMark once freed
};
constexpr size_t kHeaderSize = sizeof(BlockHeader);
static_assert(kHeaderSize == 16, "the header is 16 bytes");

// -0 is 0: a freed block of 0 bytes is told by this mark instead.
constexpr uint64_t kFreedMark = uint64_t{1} << 63;
// The block has room for its size rounded up to 16 bytes (the small path
// below), so a held-back block can serve a request of the same class again.
constexpr uint64_t kRoundedRoom = uint64_t{1} << 62;
// Larger requests cannot be met by any heap; refuse them before asking.
constexpr size_t kMaxRequest = size_t{1} << 62;
// Up to this many bytes malloc + memset is faster than calloc, which on
// glibc skips the per-thread cache.
constexpr size_t kSmallBytes = 4096;
// Up to this many bytes the zeroing is done inline.
constexpr size_t kInlineZeroBytes = 256;

// Per-thread hold-back of freed blocks (see memory.h). The ring has one slot
// more than the blocks it promises to hold: a full ring may hand its oldest
// block to MemAlloc and still hold the last kHeldBlocks freed ones.
constexpr unsigned kHeldBlocks = 16;
constexpr unsigned kRingSize = kHeldBlocks + 1;
constexpr int64_t kRingMaxBlock = 64 * 1024;
// Ring class of a block that MemAlloc may not take back.
constexpr uint8_t kNoClass = 0xFF;

// Process-wide quarantine of MemDebug.
constexpr size_t kQuarantineBlocks = 65536;
constexpr uint64_t kQuarantineBytes = uint64_t{256} << 20;

BlockHeader* HeaderOf(const void* ptr) {
  return reinterpret_cast<BlockHeader*>(static_cast<char*>(const_cast<void*>(ptr)) - kHeaderSize);
}

void* UserOf(BlockHeader* header) { return header + 1; }

// Header words are read and written through atomic_ref (plain moves on
// x86-64) so that a second free on another thread is a clean race to report
// rather than a data race.
int64_t LoadSize(BlockHeader* h) { return std::atomic_ref<int64_t>(h->size).load(std::memory_order_relaxed); }
uint64_t LoadFlags(BlockHeader* h) { return std::atomic_ref<uint64_t>(h->flags).load(std::memory_order_relaxed); }
bool IsFreed(int64_t size, uint64_t flags) { return size < 0 || (flags & kFreedMark) != 0; }

// ---- counters ---------------------------------------------------------------

struct alignas(64) Shard {
  // Written by the owning thread only, read by anyone.
  std::atomic<int64_t> blocks{0};
  std::atomic<int64_t> bytes{0};
  // Owning thread only: `count` freed blocks held back, oldest at `oldest`,
  // each with its size class (rounded size / 16) or kNoClass.
  unsigned oldest = 0;
  unsigned count = 0;
  BlockHeader* ring[kRingSize] = {};
  uint8_t ringClass[kRingSize] = {};
  // Guarded by the registry lock.
  Shard* link = nullptr;
  bool inUse = false;
};

struct Registry {
  std::mutex lock;
  Shard* shards = nullptr;  // every shard ever made; idle ones hold zeros
};

// Counts of threads that have ended, and of anything counted while a thread
// was ending.
std::atomic<int64_t> g_foldedBlocks{0};
std::atomic<int64_t> g_foldedBytes{0};

// Never destroyed: blocks are freed during static destruction too.
Registry& GetRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

struct ThreadSlot {
  Shard* shard;
  bool ended;  // the thread is ending: count into the folded totals
};
[[gnu::tls_model("initial-exec")]] constinit thread_local ThreadSlot t_slot = {nullptr, false};

void ReleaseHeld(Shard* shard) {
  for (BlockHeader*& held : shard->ring) {
    std::free(held);
    held = nullptr;
  }
  shard->oldest = 0;
  shard->count = 0;
}

void DetachShard() {
  Shard* shard = t_slot.shard;
  t_slot.shard = nullptr;
  t_slot.ended = true;
  if (shard == nullptr) return;
  ReleaseHeld(shard);
  Registry& registry = GetRegistry();
  std::lock_guard<std::mutex> guard(registry.lock);
  g_foldedBlocks.fetch_add(shard->blocks.load(std::memory_order_relaxed), std::memory_order_relaxed);
  g_foldedBytes.fetch_add(shard->bytes.load(std::memory_order_relaxed), std::memory_order_relaxed);
  shard->blocks.store(0, std::memory_order_relaxed);
  shard->bytes.store(0, std::memory_order_relaxed);
  shard->inUse = false;
}

struct ShardDetacher {
  bool armed = false;
  ~ShardDetacher() {
    if (armed) DetachShard();
  }
};
thread_local ShardDetacher t_detacher;

[[gnu::noinline]] Shard* AttachShard() {
  if (t_slot.ended) return nullptr;
  Registry& registry = GetRegistry();
  Shard* shard = nullptr;
  {
    std::lock_guard<std::mutex> guard(registry.lock);
    for (Shard* s = registry.shards; s != nullptr; s = s->link) {
      if (!s->inUse) {
        shard = s;
        break;
      }
    }
    if (shard == nullptr) {
      // Shards are the allocator's own bookkeeping and outlive every thread.
      shard = new Shard;
      shard->link = registry.shards;
      registry.shards = shard;
    }
    shard->inUse = true;
  }
  t_slot.shard = shard;
  t_detacher.armed = true;  // registers the thread-exit fold
  return shard;
}

inline Shard* CurrentShard() {
  Shard* shard = t_slot.shard;
  return shard != nullptr ? shard : AttachShard();
}

inline void CountInto(Shard* shard, int64_t blocks, int64_t bytes) {
  if (shard == nullptr) {
    g_foldedBlocks.fetch_add(blocks, std::memory_order_relaxed);
    g_foldedBytes.fetch_add(bytes, std::memory_order_relaxed);
    return;
  }
  shard->blocks.store(shard->blocks.load(std::memory_order_relaxed) + blocks, std::memory_order_relaxed);
  shard->bytes.store(shard->bytes.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
}

inline void Count(int64_t blocks, int64_t bytes) { CountInto(CurrentShard(), blocks, bytes); }

int64_t SumCounter(std::atomic<int64_t> Shard::*counter, const std::atomic<int64_t>& folded) {
  Registry& registry = GetRegistry();
  std::lock_guard<std::mutex> guard(registry.lock);
  int64_t total = folded.load(std::memory_order_relaxed);
  for (Shard* s = registry.shards; s != nullptr; s = s->link) total += (s->*counter).load(std::memory_order_relaxed);
  return total;
}

// ---- quarantine -------------------------------------------------------------

std::atomic<int> g_debugBits{0};

class Quarantine {
 public:
  void Put(BlockHeader* header, int64_t size) {
    std::memset(UserOf(header), 0xDD, static_cast<size_t>(size));
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_slots == nullptr) m_slots = std::make_unique<Entry[]>(kQuarantineBlocks);
    while (m_count > 0 && (m_count == kQuarantineBlocks || m_bytes + static_cast<uint64_t>(size) > kQuarantineBytes)) {
      EvictOldest();
    }
    m_slots[(m_oldest + m_count) % kQuarantineBlocks] = Entry{header, static_cast<uint64_t>(size)};
    ++m_count;
    m_bytes += static_cast<uint64_t>(size);
  }

  void Drain() {
    std::lock_guard<std::mutex> guard(m_lock);
    while (m_count > 0) EvictOldest();
  }

 private:
  struct Entry {
    BlockHeader* header;
    uint64_t size;
  };

  void EvictOldest() {
    Entry& entry = m_slots[m_oldest];
    std::free(entry.header);
    m_bytes -= entry.size;
    entry = Entry{nullptr, 0};
    m_oldest = (m_oldest + 1) % kQuarantineBlocks;
    --m_count;
  }

  std::mutex m_lock;
  std::unique_ptr<Entry[]> m_slots;
  size_t m_oldest = 0;
  size_t m_count = 0;
  uint64_t m_bytes = 0;
};

Quarantine& GetQuarantine() {
  static Quarantine* quarantine = new Quarantine;  // never destroyed, as the registry
  return *quarantine;
}

bool QuarantineOn() { return (g_debugBits.load(std::memory_order_relaxed) & kMemDebugQuarantine) != 0; }

// Puts a freed block (header already negated, at most kRingMaxBlock bytes)
// into the ring; answers the oldest block it pushes out, or null.
[[gnu::always_inline]] inline BlockHeader* PushHeld(Shard* shard, BlockHeader* header, int64_t size, uint64_t flags) {
  BlockHeader* evicted = nullptr;
  unsigned at = shard->oldest + shard->count;
  if (shard->count == kRingSize) {
    at = shard->oldest;
    evicted = shard->ring[at];
    shard->oldest = at + 1 == kRingSize ? 0 : at + 1;
  } else {
    if (at >= kRingSize) at -= kRingSize;
    ++shard->count;
  }
  shard->ring[at] = header;
  bool rounded = (flags & kRoundedRoom) != 0 && size <= static_cast<int64_t>(kInlineZeroBytes);
  shard->ringClass[at] = rounded ? static_cast<uint8_t>((size + 15) >> 4) : kNoClass;
  return evicted;
}

// A freed block (header already negated) waits here before the heap gets it.
void HoldBack(Shard* shard, BlockHeader* header, int64_t size, uint64_t flags) {
  if (QuarantineOn()) {
    GetQuarantine().Put(header, size);
    return;
  }
  if (shard == nullptr || size > kRingMaxBlock) {
    std::free(header);
    return;
  }
  std::free(PushHeld(shard, header, size, flags));
}

// ---- heap requests ----------------------------------------------------------

std::atomic<int> g_failNext{0};

bool TakeInjectedFailure() {
  int left = g_failNext.load(std::memory_order_relaxed);
  while (left > 0) {
    if (g_failNext.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) return true;
  }
  return false;
}

inline bool InjectedFailure() {
  return g_failNext.load(std::memory_order_relaxed) > 0 && TakeInjectedFailure();
}

[[gnu::noinline]] void* HeapAllocLarge(size_t size) {
  if (size > kMaxRequest) return nullptr;
  size_t bytes = size + kHeaderSize;
  if (bytes > kSmallBytes) return std::calloc(1, bytes);
  void* raw = std::malloc(bytes);
  // Only the caller's bytes: the header is written next, and a memset of the
  // whole request would be turned back into calloc by the compiler.
  if (raw != nullptr) std::memset(static_cast<char*>(raw) + kHeaderSize, 0, size);
  return raw;
}

// Up to kInlineZeroBytes the caller's bytes are rounded up to whole 16-byte
// stores, which the compiler emits inline: a call to memset would cost as
// much as the allocation itself.
inline size_t RoundedSize(size_t size) { return (size + 15) & ~size_t{15}; }

[[gnu::always_inline]] inline void ZeroRounded(void* raw, size_t size) {
  char* user = static_cast<char*>(raw) + kHeaderSize;
  for (size_t at = 0; at < RoundedSize(size); at += 16) std::memset(user + at, 0, 16);
}

// A zeroed block of `size` caller bytes with room for the header, or null.
// Up to kInlineZeroBytes the room is the rounded size (kRoundedRoom).
[[gnu::always_inline]] inline void* HeapAllocBlock(size_t size) {
  if (InjectedFailure()) return nullptr;
  if (size <= kInlineZeroBytes) {
    void* raw = std::malloc(kHeaderSize + RoundedSize(size));
    if (raw == nullptr) return nullptr;
    ZeroRounded(raw, size);
    return raw;
  }
  return HeapAllocLarge(size);
}

inline uint64_t RoomMark(size_t size) { return size <= kInlineZeroBytes ? kRoundedRoom : 0; }

void* HeapResizeBlock(BlockHeader* header, size_t size) {
  if (size > kMaxRequest || InjectedFailure()) return nullptr;
  return std::realloc(header, size + kHeaderSize);
}

// Makes room after a refused request: on a sound heap, give back what we
// hold and trim; a damaged heap is reported and left alone.
void Recover() {
  if (!platform::HeapIsValid()) {
    LogLine(514, u"MemAlloc: HeapValidate failed");
    return;
  }
  MemPack();
}

[[gnu::noinline]] void* HeapAllocAfterRecovery(size_t size) {
  if (size > kMaxRequest) return nullptr;
  Recover();
  return HeapAllocBlock(size);
}

inline void* HeapAllocWithRecovery(size_t size) {
  void* raw = HeapAllocBlock(size);
  return raw != nullptr ? raw : HeapAllocAfterRecovery(size);
}

[[noreturn]] void OutOfMemory(int line, size_t size) {
  // Reporting allocates; a second failure on the way out must not recurse.
  static thread_local bool t_reporting = false;
  if (!t_reporting) {
    t_reporting = true;
    Debug("memutil_win", line, 0);
    char text[96];
    std::snprintf(text, sizeof text, "MemAlloc: out of memory (%zu bytes)", size);
    std::fprintf(stderr, "%s\n", text);
    TString message = TStringFromUTF8(text);
    FatalAlert(&message);
  }
  std::abort();
}

BlockHeader* InitBlock(void* raw, size_t size, uint64_t flags) {
  auto* header = static_cast<BlockHeader*>(raw);
  header->size = static_cast<int64_t>(size);
  header->flags = flags;
  return header;
}

[[gnu::noinline]] void* NewBlock(size_t size, unsigned int flags) {
  void* raw = HeapAllocWithRecovery(size);
  if (raw == nullptr) return nullptr;
  Count(1, static_cast<int64_t>(size));
  return UserOf(InitBlock(raw, size, flags | RoomMark(size)));
}

// The steady state of small blocks: when this thread's ring is full and its
// oldest block is of the class of `size`, that block is handed out again. It
// is ours and its header intact; otherwise the next MemFree would give it to
// the heap while this request took another from it. The ring still holds the
// last kHeldBlocks freed blocks. Null when the ring cannot serve the request.
[[gnu::always_inline]] inline void* TakeHeld(size_t size, unsigned int flags) {
  Shard* shard = t_slot.shard;
  if (size > kInlineZeroBytes || shard == nullptr || shard->count != kRingSize) return nullptr;
  unsigned at = shard->oldest;
  if (shard->ringClass[at] != (size + 15) >> 4 || g_failNext.load(std::memory_order_relaxed) > 0) return nullptr;
  BlockHeader* header = shard->ring[at];
  shard->ring[at] = nullptr;
  shard->oldest = at + 1 == kRingSize ? 0 : at + 1;
  --shard->count;
  ZeroRounded(header, size);
  CountInto(shard, 1, static_cast<int64_t>(size));
  std::atomic_ref<uint64_t>(header->flags).store(flags | kRoundedRoom, std::memory_order_relaxed);
  std::atomic_ref<int64_t>(header->size).store(static_cast<int64_t>(size), std::memory_order_relaxed);
  return UserOf(header);
}

void* Resize(void* ptr, size_t newSize, bool mayFail) {
  if (ptr == nullptr) return mayFail ? NewBlock(newSize, 0) : MemAlloc(newSize);
  BlockHeader* header = HeaderOf(ptr);
  int64_t size = LoadSize(header);
  uint64_t flags = LoadFlags(header);
  if (IsFreed(size, flags)) {
    Debug("memutil", 79, 0);
    return mayFail ? NewBlock(newSize, 0) : MemAlloc(newSize);
  }
  size_t oldSize = static_cast<size_t>(size);
  // A block to be wiped never goes back to the heap unwiped, so it is always
  // moved by hand.
  void* raw = (flags & kMemWipeOnFree) != 0 ? nullptr : HeapResizeBlock(header, newSize);
  // The heap's resize gives room for the new size, not for its rounding.
  flags &= ~kRoundedRoom;
  if (raw != nullptr) {
    if (newSize > oldSize) std::memset(static_cast<char*>(raw) + kHeaderSize + oldSize, 0, newSize - oldSize);
  } else {
    bool wipe = (flags & kMemWipeOnFree) != 0;
    if (!wipe) Recover();
    raw = wipe ? HeapAllocWithRecovery(newSize) : HeapAllocBlock(newSize);
    if (raw == nullptr) {
      if (mayFail) return nullptr;
      OutOfMemory(126, newSize);
    }
    std::memcpy(static_cast<char*>(raw) + kHeaderSize, ptr, std::min(oldSize, newSize));
    if ((flags & kMemWipeOnFree) != 0) platform::WipeBytes(ptr, oldSize);
    std::free(header);
    flags |= RoomMark(newSize);
  }
  Count(0, static_cast<int64_t>(newSize) - size);
  return UserOf(InitBlock(raw, newSize, flags));
}

}  // namespace

void* MemAlloc(size_t size, unsigned int flags) {
  if (void* held = TakeHeld(size, flags)) [[likely]]
    return held;
  void* block = NewBlock(size, flags);
  if (block == nullptr) OutOfMemory(74, size);
  return block;
}

void* MemRealloc(void* ptr, size_t newSize) { return Resize(ptr, newSize, false); }

void* MemTryRealloc(void* ptr, size_t newSize) { return Resize(ptr, newSize, true); }

namespace {

void MarkFreed(BlockHeader* header, int64_t size, uint64_t flags) {
  std::atomic_ref<uint64_t>(header->flags).store(flags | kFreedMark, std::memory_order_relaxed);
  std::atomic_ref<int64_t>(header->size).store(-size, std::memory_order_relaxed);
}

// MemFree of a live block that is wiped, large, quarantined, or freed by a
// thread without a shard yet.
[[gnu::noinline]] void FreeBlockSlow(BlockHeader* header, int64_t size, uint64_t flags) {
  if ((flags & kMemWipeOnFree) != 0) platform::WipeBytes(UserOf(header), static_cast<size_t>(size));
  MarkFreed(header, size, flags);
  Shard* shard = CurrentShard();
  CountInto(shard, -1, -size);
  HoldBack(shard, header, size, flags);
}

}  // namespace

void MemFree(void* ptr) {
  if (ptr == nullptr) return;
  BlockHeader* header = HeaderOf(ptr);
  int64_t size = LoadSize(header);
  uint64_t flags = LoadFlags(header);
  if (IsFreed(size, flags)) [[unlikely]] {
    Debug("memutil_win", 160, 0);
    return;
  }
  Shard* shard = t_slot.shard;
  if (shard == nullptr || size > kRingMaxBlock || (flags & kMemWipeOnFree) != 0 || QuarantineOn()) [[unlikely]] {
    FreeBlockSlow(header, size, flags);
    return;
  }
  MarkFreed(header, size, flags);
  CountInto(shard, -1, -size);
  // glibc's free does not throw and aborts by itself on a damaged heap, so
  // there is no heap exception to catch and log here.
  BlockHeader* evicted = PushHeld(shard, header, size, flags);
  if (evicted != nullptr) std::free(evicted);
}

size_t MemSize(const void* ptr) {
  if (ptr == nullptr) return 0;
  BlockHeader* header = HeaderOf(ptr);
  int64_t size = LoadSize(header);
  if (IsFreed(size, LoadFlags(header))) {
    Debug("memutil", 79, 0);
    return 0;
  }
  return static_cast<size_t>(size);
}

void MemPack() {
  if (t_slot.shard != nullptr) ReleaseHeld(t_slot.shard);
  GetQuarantine().Drain();
  platform::TrimHeap();
}

int MemDebug(int bits) {
  int previous = g_debugBits.exchange(bits, std::memory_order_relaxed);
  if ((previous & kMemDebugQuarantine) != 0 && (bits & kMemDebugQuarantine) == 0) GetQuarantine().Drain();
  return previous;
}

int64_t MemLiveBlocks() { return SumCounter(&Shard::blocks, g_foldedBlocks); }

int64_t MemLiveBytes() { return SumCounter(&Shard::bytes, g_foldedBytes); }

void MemFailNextHeapRequests(int count) { g_failNext.store(count, std::memory_order_relaxed); }
