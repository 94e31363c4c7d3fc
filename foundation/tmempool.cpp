#include "foundation/tmempool.h"

#include <algorithm>

#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/memory.h"
#include "foundation/tmempool_internal.h"
#include "platform/vmem.h"

namespace {

constexpr unsigned int kDefaultBlockSize = 1u << 20;
constexpr int kDefaultMaxPercent = 35;
constexpr uint64_t kMegabyte = 1u << 20;

struct PoolGlobals {
  std::vector<TMemPool*> pools;
  unsigned int defaultBlockSize = kDefaultBlockSize;
  int maxPercent = 0;  // 0: not set
  bool ceilingFixed = false;
  uint64_t ceiling = 0;
  uint64_t ceilingOverride = 0;
  uint64_t allocated = 0;
  uint32_t id = 0;
};

// Never destroyed, like the managed list: pools may die in static destruction.
PoolGlobals& Globals() {
  static PoolGlobals* globals = new PoolGlobals;
  return *globals;
}

uint64_t CeilingFromPercent(const PoolGlobals& g) {
  int percent = g.maxPercent != 0 ? g.maxPercent : kDefaultMaxPercent;
  return uint64_t{MemTotalMB()} * static_cast<uint64_t>(percent) / 100 * kMegabyte;
}

unsigned int PageRounded(unsigned int bytes) {
  uint64_t page = platform::PageSize();
  uint64_t rounded = (uint64_t{bytes} + page - 1) / page * page;
  uint64_t largest = 0xFFFFFFFFull / page * page;
  return static_cast<unsigned int>(std::min(rounded, largest));
}

unsigned int Kilobytes(uint64_t bytes) { return static_cast<unsigned int>(bytes >> 10); }

// Releases the free blocks of every pool but `spare`; true when any went.
bool ReleaseFreeElsewhere(const TMemPool* spare) {
  bool released = false;
  for (TMemPool* pool : Globals().pools) {
    if (pool != spare && pool->ReleaseFreeBlocks(0) > 0) released = true;
  }
  return released;
}

// Archives the oldest block of all pools but `spare` and releases it.
bool ArchiveAndReleaseOldest(const TMemPool* spare) {
  TMemPool* oldestPool = nullptr;
  uint32_t oldestAge = 0;
  uint32_t now = TMemPool::GetCurrentId();
  for (TMemPool* pool : Globals().pools) {
    unsigned int ownerId = 0;
    if (pool == spare || pool->GetOldestBlock(&ownerId) < 0) continue;
    uint32_t age = now - ownerId;
    if (oldestPool == nullptr || age > oldestAge) {
      oldestPool = pool;
      oldestAge = age;
    }
  }
  if (oldestPool == nullptr) return false;
  int index = oldestPool->ArchiveOldestBlock();
  if (index < 0) return false;
  int osError = 0;
  return oldestPool->FreeMemBlock(nullptr, index, &osError) == 1;
}

// Lowers the pooled memory by at least one block; false when nothing could go.
bool MakeRoom() { return ReleaseFreeElsewhere(nullptr) || ArchiveAndReleaseOldest(nullptr); }

}  // namespace

int ReservePoolBlock(TMemPool* pool, TMemory* owner, TMemPoolBlock** out) {
  TMemoryMonitor monitor;
  *out = nullptr;
  PoolGlobals& g = Globals();
  for (;;) {
    if (pool->GetUsedMemBlockCount() < pool->GetTotalMemBlockCount()) break;
    if (g.allocated + pool->GetMemBlockSize() <= TMemPool::GetMaxPoolMem()) break;
    // Free blocks elsewhere cost nothing to give up; then this pool's own
    // oldest block, which frees a block here; then the oldest elsewhere.
    if (ReleaseFreeElsewhere(pool)) continue;
    if (pool->ArchiveOldestBlock() >= 0) continue;
    if (ArchiveAndReleaseOldest(pool)) continue;
    return kErrMemOutOfMemory;
  }
  TMemPoolBlock* block = pool->GetFreeMemBlock(1);
  if (block == nullptr || block->m_memory == nullptr) return kErrMemOutOfMemory;
  pool->SetMemBlockOwner(block, owner);
  *out = block;
  return 0;
}

TMemPool::TMemPool(unsigned int blockSize) {
  TMemoryMonitor monitor;
  PoolGlobals& g = Globals();
  m_blockSize = PageRounded(blockSize != 0 ? blockSize : g.defaultBlockSize);
  if (!g.ceilingFixed) {
    g.ceiling = CeilingFromPercent(g);
    g.ceilingFixed = true;
  }
  g.pools.push_back(this);
}

TMemPool::~TMemPool() {
  TMemoryMonitor monitor;
  // Handles that outlive their pool lose their storage, not their memory
  // safety.
  for (TMemory* user : std::vector<TMemory*>(m_userList)) user->LoseToDyingPool();
  PoolGlobals& g = Globals();
  for (auto& block : m_blocks) {
    if (block->m_memory != nullptr) platform::ReleaseMemory(block->m_memory, m_blockSize);
    g.allocated -= m_blockSize;
  }
  m_blocks.clear();
  g.pools.erase(std::find(g.pools.begin(), g.pools.end(), this));
}

TMemPool& TMemPool::operator=(const TMemPool& other) {
  TMemoryMonitor monitor;
  if (this == &other || m_blockSize == other.m_blockSize) return *this;
  ReleaseFreeBlocks(0);
  // Blocks in use keep the size they were made with, so the pool keeps it.
  if (!m_blocks.empty()) {
    LogLine(514, u"TMemPool::operator=: %~d blocks in use keep %K, %E", static_cast<int>(m_blocks.size()),
            Kilobytes(m_blockSize), kErrInUse);
    return *this;
  }
  m_blockSize = other.m_blockSize;
  return *this;
}

int TMemPool::GetTotalMemBlockCount() const {
  TMemoryMonitor monitor;
  return static_cast<int>(m_blocks.size());
}

int TMemPool::GetUsedMemBlockCount() const {
  TMemoryMonitor monitor;
  return m_used;
}

int TMemPool::GetPoolUsers() const {
  TMemoryMonitor monitor;
  return m_users;
}

TMemPoolBlock* TMemPool::GetMemBlock(int index) const {
  TMemoryMonitor monitor;
  if (index < 0 || index >= static_cast<int>(m_blocks.size())) return nullptr;
  return m_blocks[static_cast<size_t>(index)].get();
}

TMemPoolBlock* TMemPool::GetMemBlockFromOwner(const TMemory* owner) const {
  TMemoryMonitor monitor;
  if (owner == nullptr) return nullptr;
  for (const auto& block : m_blocks) {
    if (block->m_owner == owner) return block.get();
  }
  return nullptr;
}

void TMemPool::SetMemBlockOwner(TMemPoolBlock* block, TMemory* owner) {
  TMemoryMonitor monitor;
  if (block->m_owner == nullptr && owner != nullptr) ++m_used;
  if (block->m_owner != nullptr && owner == nullptr) --m_used;
  block->m_owner = owner;
}

void TMemPool::AddRemovePoolUser(TMemory* user, int add) {
  TMemoryMonitor monitor;
  auto found = std::find(m_userList.begin(), m_userList.end(), user);
  if (add != 0 && found == m_userList.end()) {
    m_userList.push_back(user);
  } else if (add == 0 && found != m_userList.end()) {
    m_userList.erase(found);
  } else {
    return;  // already as asked
  }
  m_users = static_cast<int>(m_userList.size());
}

int TMemPool::IndexOf(const TMemPoolBlock* block) const {
  for (size_t i = 0; i < m_blocks.size(); ++i) {
    if (m_blocks[i].get() == block) return static_cast<int>(i);
  }
  return -1;
}

TMemPoolBlock* TMemPool::AllocateMemBlock(int commit) {
  TMemoryMonitor monitor;
  auto block = std::make_unique<TMemPoolBlock>();
  if (commit != 0) {
    block->m_memory = platform::CommitMemory(m_blockSize);
    if (block->m_memory == nullptr) {
      LogLine(514, u"TMemPool::AllocateMemBlock: cannot commit %K, %E", Kilobytes(m_blockSize), kErrMemOutOfMemory);
      return nullptr;
    }
  }
  m_blocks.push_back(std::move(block));
  Globals().allocated += m_blockSize;
  return m_blocks.back().get();
}

TMemPoolBlock* TMemPool::GetFreeMemBlock(int commit) {
  TMemoryMonitor monitor;
  if (m_used >= static_cast<int>(m_blocks.size())) return AllocateMemBlock(commit);
  for (auto& entry : m_blocks) {
    TMemPoolBlock* block = entry.get();
    if (block->m_owner != nullptr) continue;
    if (commit != 0 && block->m_memory == nullptr) {
      block->m_memory = platform::CommitMemory(m_blockSize);
      if (block->m_memory == nullptr) {
        LogLine(514, u"TMemPool::GetFreeMemBlock: cannot commit %K, %E", Kilobytes(m_blockSize), kErrMemOutOfMemory);
        return nullptr;
      }
    } else if (commit == 0 && block->m_memory != nullptr) {
      int err = platform::ReleaseMemory(block->m_memory, m_blockSize);
      if (err != 0) {
        LogLine(514, u"TMemory::GetFreeMemBlock: VirtualFree failed, error %~d", err);
      } else {
        block->m_memory = nullptr;
      }
    }
    return block;
  }
  return AllocateMemBlock(commit);
}

int TMemPool::FreeMemBlock(TMemPoolBlock* block, int index, int* osError) {
  TMemoryMonitor monitor;
  if (osError != nullptr) *osError = 0;
  if (block == nullptr) block = GetMemBlock(index);
  int at = IndexOf(block);
  if (at < 0) {
    LogLine(514, u"TMemPool::FreeMemBlock: no block %~d in the pool, %E", index, kErrBadParameter);
    return 0;
  }
  // An owned block stays: its owner still reaches the memory.
  if (block->m_owner != nullptr) {
    Debug("tmemory_win", 1144, 0);
    return 0;
  }
  int err = platform::ReleaseMemory(block->m_memory, m_blockSize);
  if (err != 0) {
    if (osError != nullptr) *osError = err;
    LogLine(514, u"TMemPool::FreeMemBlock: cannot release %K, error %~d", Kilobytes(m_blockSize), err);
    return 0;
  }
  m_blocks.erase(m_blocks.begin() + at);
  Globals().allocated -= m_blockSize;
  return 1;
}

int TMemPool::ReleaseFreeBlocks(int keep) {
  TMemoryMonitor monitor;
  int released = 0;
  int kept = 0;
  for (size_t i = 0; i < m_blocks.size();) {
    TMemPoolBlock* block = m_blocks[i].get();
    if (block->m_owner != nullptr || kept++ < keep) {
      ++i;
      continue;
    }
    int osError = 0;
    if (FreeMemBlock(block, static_cast<int>(i), &osError) == 1) {
      ++released;
    } else {
      ++i;
    }
  }
  return released;
}

int TMemPool::GetOldestBlock(unsigned int* ownerId) const {
  TMemoryMonitor monitor;
  uint32_t now = Globals().id;
  int oldest = -1;
  uint32_t oldestAge = 0;
  for (size_t i = 0; i < m_blocks.size(); ++i) {
    const TMemory* owner = m_blocks[i]->m_owner;
    if (owner == nullptr) continue;
    unsigned int flags = owner->m_flags.load(std::memory_order_relaxed);
    if ((flags & (kTMemInTransit | kTMemKeepResident)) != 0) continue;
    if ((flags & kTMemMapped) != 0 && (flags & kTMemArchived) == 0) continue;
    // Acquire: the owner's writes before its UnLock are seen by the archive.
    if (owner->m_lockCount.load(std::memory_order_acquire) != 0) continue;
    uint32_t age = now - owner->m_id;
    if (oldest < 0 || age > oldestAge) {
      oldest = static_cast<int>(i);
      oldestAge = age;
    }
  }
  if (ownerId != nullptr) *ownerId = oldest < 0 ? 0 : m_blocks[static_cast<size_t>(oldest)]->m_owner->m_id;
  return oldest;
}

int TMemPool::ArchiveBlock(int index) {
  TMemoryMonitor monitor;
  TMemPoolBlock* block = GetMemBlock(index);
  if (block == nullptr || block->m_owner == nullptr) {
    LogLine(514, u"TMemPool::ArchiveBlock: block %~d has no owner, %E", index, kErrBadParameter);
    return kErrBadParameter;
  }
  // Not ArchiveToFile: the owner's last error belongs to its own thread.
  return block->m_owner->ArchivePooled();
}

int TMemPool::ArchiveOldestBlock() {
  TMemoryMonitor monitor;
  unsigned int ownerId = 0;
  int index = GetOldestBlock(&ownerId);
  if (index < 0) return -1;
  // A block whose archive failed is still resident: nothing was freed.
  if (ArchiveBlock(index) != 0) return -1;
  return index;
}

int TMemPool::GetPoolCount() {
  TMemoryMonitor monitor;
  return static_cast<int>(Globals().pools.size());
}

TMemPool* TMemPool::GetMemPool(int index) {
  TMemoryMonitor monitor;
  const std::vector<TMemPool*>& pools = Globals().pools;
  if (index < 0 || index >= static_cast<int>(pools.size())) return nullptr;
  return pools[static_cast<size_t>(index)];
}

int TMemPool::Collect(int percent) {
  TMemoryMonitor monitor;
  percent = std::clamp(percent, 0, 100);
  uint64_t target = GetMaxPoolMem() * static_cast<uint64_t>(percent) / 100;
  PoolGlobals& g = Globals();
  int released = 0;
  for (TMemPool* pool : g.pools) {
    if (g.allocated <= target) break;
    released += pool->ReleaseFreeBlocks(0);
  }
  while (g.allocated > target && ArchiveAndReleaseOldest(nullptr)) ++released;
  return released;
}

int TMemPool::LockFreeMem(int megabytes) {
  TMemoryMonitor monitor;
  uint64_t wanted = megabytes > 0 ? static_cast<uint64_t>(megabytes) * kMegabyte : 0;
  PoolGlobals& g = Globals();
  while (g.allocated + wanted > GetMaxPoolMem()) {
    if (!MakeRoom()) {
      LogLine(514, u"TMemPool::LockFreeMem: no room for %~d MB below the ceiling, %E", megabytes, kErrMemOutOfMemory);
      return kErrMemOutOfMemory;
    }
  }
  return 0;
}

void TMemPool::SetDefaultMemBlockSize(unsigned int bytes) {
  TMemoryMonitor monitor;
  Globals().defaultBlockSize = bytes != 0 ? bytes : kDefaultBlockSize;
}

unsigned int TMemPool::GetDefaultMemBlockSize() {
  TMemoryMonitor monitor;
  return Globals().defaultBlockSize;
}

void TMemPool::SetMaxMemPercent(int percent) {
  TMemoryMonitor monitor;
  Globals().maxPercent = std::clamp(percent, 1, 100);
}

int TMemPool::GetMaxMemPercent() {
  TMemoryMonitor monitor;
  int percent = Globals().maxPercent;
  return percent != 0 ? percent : kDefaultMaxPercent;
}

uint64_t TMemPool::GetMaxPoolMem() {
  TMemoryMonitor monitor;
  const PoolGlobals& g = Globals();
  if (g.ceilingOverride != 0) return g.ceilingOverride;
  return g.ceilingFixed ? g.ceiling : CeilingFromPercent(g);
}

void TMemPool::SetMaxPoolMem(uint64_t bytes) {
  TMemoryMonitor monitor;
  Globals().ceilingOverride = bytes;
}

uint64_t TMemPool::GetAllocatedPoolMem() {
  TMemoryMonitor monitor;
  return Globals().allocated;
}

uint32_t TMemPool::GetCurrentId() {
  TMemoryMonitor monitor;
  return Globals().id;
}

uint32_t TMemPool::NextId() {
  TMemoryMonitor monitor;
  return ++Globals().id;
}
