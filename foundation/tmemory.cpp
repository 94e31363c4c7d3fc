#include "foundation/tmemory.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/memory.h"
#include "foundation/tmemory_file.h"
#include "foundation/tmempool.h"
#include "foundation/tmempool_internal.h"
#include "foundation/tstring.h"

namespace {

constexpr uint64_t kMaxSize = 4294967295u;
constexpr uint32_t kSmallShrink = 1024;
constexpr int kPriorityOwnAsWord = 65535;

struct ManagedList {
  std::recursive_mutex lock;
  TMemory* head = nullptr;
  TMemory* tail = nullptr;
  int count = 0;
  uint64_t total = 0;
};

// Never destroyed: static handles leave the list during static destruction.
ManagedList& Managed() {
  static ManagedList* list = new ManagedList;
  return *list;
}

uint64_t RoundUp(uint64_t size, uint64_t unit) { return (size + unit - 1) / unit * unit; }

unsigned int Kilobytes(uint64_t bytes) { return static_cast<unsigned int>(bytes >> 10); }

}  // namespace

TMemory::TMemory() = default;

TMemory::TMemory(int priority) : m_priority(static_cast<int16_t>(priority)) {}

TMemory::TMemory(const TMemory& other, TMemPool* pool) : TObject(), m_priority(other.m_priority) {
  m_flags = static_cast<uint16_t>(other.m_flags & (kTMemCoarse | kTMemManagedMarks));
  if (CopyFrom(other) != 0) return;
  if ((other.m_flags & kTMemManaged) != 0) SetFlags(kTMemManaged, 0);
  if (pool != nullptr) {
    m_pool = pool;
    AdoptHeapContents();
  }
}

TMemory& TMemory::operator=(const TMemory& other) {
  if (this == &other) return *this;
  if (CopyFrom(other) == 0) m_priority = other.m_priority;
  return *this;
}

TMemory::~TMemory() {
  if (GetLockCount() != 0) Debug("tmemory", __LINE__, 0);
  if ((m_flags & kTMemPooled) != 0) {
    TMemoryMonitor monitor;
    GiveBackPoolBlock();
    DropArchive();
    if (m_pool != nullptr) m_pool->AddRemovePoolUser(this, 0);
  } else if (m_file != nullptr) {
    CloseFile(true);
    m_ptr = nullptr;
  }
  if ((m_flags & kTMemManaged) != 0) {
    std::lock_guard<std::recursive_mutex> guard(Managed().lock);
    LeaveManaged();
  }
  MemFree(m_ptr);
}

int TMemory::CopyFrom(const TMemory& other) {
  if (this == &other) return Record(0);
  // Pinning may bring an archived source back into its pool.
  auto& source = const_cast<TMemory&>(other);
  uint32_t size = other.m_size;
  // Pooled first: the allocation of a pooled block is the pool's to change.
  if ((m_flags & kTMemPooled) != 0 || size > m_allocSize) {
    int code = AllocBuffer(size);
    if (code != 0) return code;
  }
  if (size != 0) {
    TMemoryPin from(source);
    TMemoryPin to(*this);
    if (from.Get() == nullptr) return Record(other.m_lastError != 0 ? other.m_lastError : kErrMemOutOfMemory);
    if (to.Get() == nullptr) return Record(m_lastError != 0 ? m_lastError : kErrMemOutOfMemory);
    std::memcpy(to.Get(), from.Get(), size);
  }
  // A shrink left over from the old contents; never fails.
  if (size < m_size) return SetSize(size);
  uint32_t oldSize = m_size;
  m_size = size;
  UsedSizeChanged(oldSize);
  return Record(0);
}

uint64_t TMemory::AllocSize(uint64_t size, unsigned int flags) {
  if ((flags & kTMemCoarse) == 0) return RoundUp(size, 8);
  if (size <= 8192) return RoundUp(size, 1024);
  if (size < 1048576) return RoundUp(size, 8192);
  return RoundUp(size, 32768);
}

int TMemory::SetSize(uint64_t size, int priority) {
  if (size > kMaxSize) {
    LogLine(514, u"TMemory::SetSize: size %ld above the limit, %E", static_cast<int64_t>(size), kErrMemSizeTooLarge);
    return Record(kErrMemSizeTooLarge);
  }
  uint32_t newSize = static_cast<uint32_t>(size);
  if ((m_flags & kTMemPooled) != 0) return Record(PooledSetSize(newSize, priority));
  // Small shrinks never move the block: a buffer that breathes by a few
  // bytes must not reallocate every time.
  if (newSize != 0 && newSize < m_size && m_size - newSize < kSmallShrink) {
    ShrinkInPlace(newSize);
    return Record(0);
  }
  if (priority == kMemPriorityOwn || priority == kPriorityOwnAsWord) priority = m_priority;

  if (newSize > m_allocSize) return Record(Grow(newSize, priority));
  if (newSize >= m_size) {
    uint32_t oldSize = m_size;
    m_size = newSize;  // the bytes up to the allocation are already zero
    UsedSizeChanged(oldSize);
    return Record(0);
  }
  if (GetLockCount() != 0) {
    ShrinkInPlace(newSize);
    return Record(0);
  }
  if (newSize == 0) {
    uint32_t oldSize = m_size;
    ReleaseStorage();
    UsedSizeChanged(oldSize);
    return Record(0);
  }
  uint32_t allocSize = static_cast<uint32_t>(std::min(AllocSize(newSize, m_flags), kMaxSize));
  ShrinkInPlace(newSize);
  // A shrink the heap refuses to do in place just keeps the larger storage.
  if (allocSize < m_allocSize) ResizeStorage(allocSize);
  return Record(0);
}

int TMemory::Grow(uint32_t size, int priority) {
  if (GetLockCount() != 0) {
    LogLine(514, u"TMemory::SetSize: block is locked, %E", kErrInUse);
    return kErrInUse;
  }
  uint64_t wanted = std::max<uint64_t>(size, uint64_t{m_allocSize} + m_allocSize / 2);
  auto ahead = static_cast<uint32_t>(std::min(AllocSize(wanted, m_flags), kMaxSize));
  auto least = static_cast<uint32_t>(std::min(AllocSize(size, m_flags), kMaxSize));
  // The heap refuses: give it back what it can spare and ask for no more
  // than is needed.
  if (!ResizeStorage(ahead)) {
    MemPack();
    if (!ResizeStorage(least)) {
      LogLine(priority == kMemPriorityOptional ? 514 : 517, u"TMemory::SetSize: priority %d failed from %K to %K",
              priority, Kilobytes(m_size), Kilobytes(size));
      if (priority == kMemPriorityRequired) Debug("tmemory", 420, 0);
      return kErrMemOutOfMemory;
    }
  }
  uint32_t oldSize = m_size;
  m_size = size;
  UsedSizeChanged(oldSize);
  return 0;
}

void TMemory::ShrinkInPlace(uint32_t size) {
  uint32_t oldSize = m_size;
  std::memset(static_cast<char*>(m_ptr) + size, 0, oldSize - size);
  m_size = size;
  UsedSizeChanged(oldSize);
}

bool TMemory::ResizeStorage(uint32_t allocSize) {
  if ((m_flags & kTMemMapped) != 0) return MappedResize(allocSize) == 0;
  void* fresh = MemTryRealloc(m_ptr, allocSize);
  if (fresh == nullptr) return false;
  m_ptr = fresh;
  m_allocSize = allocSize;
  return true;
}

void TMemory::ReleaseStorage() {
  if ((m_flags & kTMemMapped) != 0) {
    MappedRelease();
    return;
  }
  MemFree(m_ptr);
  m_ptr = nullptr;
  m_size = 0;
  m_allocSize = 0;
}

int TMemory::AllocBuffer(uint64_t size, int priority) {
  if ((m_flags & kTMemPooled) != 0 && size <= kMaxSize) {
    return Record(PooledAllocBuffer(static_cast<uint32_t>(size), priority));
  }
  if (GetLockCount() != 0) {
    if (size > m_allocSize) {
      LogLine(514, u"TMemory::AllocBuffer: block is locked, %E", kErrInUse);
      return Record(kErrInUse);
    }
    Zero();
    return SetSize(size, priority);
  }
  if (size > kMaxSize) return SetSize(size, priority);
  uint32_t oldSize = m_size;
  ReleaseStorage();
  UsedSizeChanged(oldSize);
  return SetSize(size, priority);
}

void TMemory::Lock() { m_lockCount.fetch_add(1, std::memory_order_relaxed); }

void TMemory::UnLock() {
  if (GetLockCount() == 0) {
    Debug("tmemory", __LINE__, 0);
    return;
  }
  // Release: a pool that sees the count drop also sees the writes made
  // under the pin.
  m_lockCount.fetch_sub(1, std::memory_order_release);
}

int TMemory::Reset() {
  if ((m_flags & kTMemPooled) != 0) return Record(PooledReset());
  if (GetLockCount() != 0) {
    LogLine(514, u"TMemory::Reset: block is locked, %E", kErrInUse);
    return Record(kErrInUse);
  }
  uint32_t oldSize = m_size;
  ReleaseStorage();
  UsedSizeChanged(oldSize);
  return Record(0);
}

void TMemory::Zero() {
  if (m_size == 0) return;
  TMemoryPin pin(*this);
  if (pin.Get() != nullptr) std::memset(pin.Get(), 0, m_size);
}

int TMemory::ToString(TString* out) const {
  // Pinning may bring archived contents back.
  TMemoryPin pin(const_cast<TMemory&>(*this));
  if (pin.Get() == nullptr && m_size != 0) {
    out->Clear();
    return m_lastError != 0 ? m_lastError : kErrMemOutOfMemory;
  }
  out->Assign(reinterpret_cast<const char16_t*>(pin.Get()), static_cast<int>(m_size / 2));
  return 0;
}

int TMemory::FromString(const TString& text) {
  uint64_t size = static_cast<uint64_t>(text.GetLength()) * sizeof(char16_t);
  int code = AllocBuffer(size);
  if (code != 0) return code;
  if (size == 0) return Record(0);
  TMemoryPin pin(*this);
  if (pin.Get() == nullptr) return Record(m_lastError != 0 ? m_lastError : kErrMemOutOfMemory);
  std::memcpy(pin.Get(), text.GetConstBuffer(), size);
  return Record(0);
}

int TMemory::SetMemPool(TMemPool* pool) {
  if ((m_flags & kTMemPooled) != 0 && pool != m_pool) return Record(MoveToPool(pool));
  m_pool = pool;
  return Record(0);
}

int TMemory::SetFlags(unsigned int set, unsigned int clear) {
  std::lock_guard<std::recursive_mutex> guard(Managed().lock);
  constexpr unsigned int kPoolOwnBits = kTMemMapped | kTMemArchived;
  unsigned int old = m_flags;
  unsigned int next = (old | set) & ~clear & 0xFFFFu;
  if ((clear & kTMemManaged) != 0) next &= ~kTMemManagedMarks;
  unsigned int changed = old ^ next;
  if ((changed & kTMemPooled) != 0) {
    int code = (next & kTMemPooled) != 0 ? JoinPool() : LeavePool();
    if (code != 0) return Record(code);
    next &= ~(kPoolOwnBits | kTMemInTransit);
  } else if ((old & kTMemPooled) != 0) {
    // On a pooled block these bits tell where the pool keeps the contents;
    // only the pool changes them.
    next = (next & ~kPoolOwnBits) | (old & kPoolOwnBits);
  } else if ((changed & kTMemMapped) != 0) {
    int code = (next & kTMemMapped) != 0 ? MoveHeapToFile() : MoveFileToHeap();
    if (code != 0) return Record(code);
  }
  if ((changed & kTMemManaged) != 0) {
    if ((next & kTMemManaged) != 0) {
      JoinManaged();
    } else {
      LeaveManaged();
    }
  }
  m_flags = static_cast<uint16_t>(next);
  return Record(0);
}

void TMemory::ChangeFlags(unsigned int set, unsigned int clear) {
  m_flags = static_cast<uint16_t>((m_flags | set) & ~clear);
}

// The two below run under the monitor.
void TMemory::JoinManaged() {
  ManagedList& list = Managed();
  m_prevManaged = list.tail;
  m_nextManaged = nullptr;
  if (list.tail != nullptr) {
    list.tail->m_nextManaged = this;
  } else {
    list.head = this;
  }
  list.tail = this;
  ++list.count;
  list.total += m_size;
}

void TMemory::LeaveManaged() {
  ManagedList& list = Managed();
  if (m_prevManaged != nullptr) {
    m_prevManaged->m_nextManaged = m_nextManaged;
  } else {
    list.head = m_nextManaged;
  }
  if (m_nextManaged != nullptr) {
    m_nextManaged->m_prevManaged = m_prevManaged;
  } else {
    list.tail = m_prevManaged;
  }
  m_prevManaged = nullptr;
  m_nextManaged = nullptr;
  --list.count;
  list.total -= m_size;
}

void TMemory::UsedSizeChanged(uint32_t oldSize) {
  if ((m_flags & kTMemManaged) == 0 || oldSize == m_size) return;
  ManagedList& list = Managed();
  std::lock_guard<std::recursive_mutex> guard(list.lock);
  list.total = list.total - oldSize + m_size;
}

int TMemory::GetUsageCount() {
  ManagedList& list = Managed();
  std::lock_guard<std::recursive_mutex> guard(list.lock);
  return list.count;
}

uint64_t TMemory::GetUsageBytes() {
  ManagedList& list = Managed();
  std::lock_guard<std::recursive_mutex> guard(list.lock);
  return list.total;
}

void TMemory::MonitorEnter() { Managed().lock.lock(); }

void TMemory::MonitorExit() { Managed().lock.unlock(); }
