#include "foundation/tmemory.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/memory.h"
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
    SetFlags(kTMemPooled, 0);
  }
}

TMemory& TMemory::operator=(const TMemory& other) {
  if (this == &other) return *this;
  if (CopyFrom(other) == 0) m_priority = other.m_priority;
  return *this;
}

TMemory::~TMemory() {
  if (GetLockCount() != 0) Debug("tmemory", __LINE__, 0);
  if ((m_flags & kTMemManaged) != 0) {
    std::lock_guard<std::recursive_mutex> guard(Managed().lock);
    LeaveManaged();
  }
  MemFree(m_ptr);
}

int TMemory::CopyFrom(const TMemory& other) {
  uint32_t size = other.m_size;
  if (size > m_allocSize) {
    int code = AllocBuffer(size);
    if (code != 0) return code;
  }
  if (size != 0) std::memcpy(m_ptr, other.m_ptr, size);
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
  void* fresh = MemTryRealloc(m_ptr, allocSize);
  if (fresh == nullptr) return false;
  m_ptr = fresh;
  m_allocSize = allocSize;
  return true;
}

void TMemory::ReleaseStorage() {
  MemFree(m_ptr);
  m_ptr = nullptr;
  m_size = 0;
  m_allocSize = 0;
}

int TMemory::AllocBuffer(uint64_t size, int priority) {
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

void* TMemory::MemPtr() { return m_ptr; }

void TMemory::Lock() { m_lockCount.fetch_add(1, std::memory_order_relaxed); }

void TMemory::UnLock() {
  if (GetLockCount() == 0) {
    Debug("tmemory", __LINE__, 0);
    return;
  }
  m_lockCount.fetch_sub(1, std::memory_order_relaxed);
}

int TMemory::Reset() {
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
  if (m_size != 0) std::memset(m_ptr, 0, m_size);
}

int TMemory::ToString(TString* out) const {
  out->Assign(static_cast<const char16_t*>(m_ptr), static_cast<int>(m_size / 2));
  return 0;
}

int TMemory::FromString(const TString& text) {
  uint64_t size = static_cast<uint64_t>(text.GetLength()) * sizeof(char16_t);
  int code = AllocBuffer(size);
  if (code != 0) return code;
  if (size != 0) std::memcpy(m_ptr, text.GetConstBuffer(), size);
  return Record(0);
}

int TMemory::SetMemPool(TMemPool* pool) {
  if ((m_flags & kTMemPooled) != 0 && pool != m_pool) {
    LogLine(514, u"TMemory::SetMemPool: pooled storage not available, %E", kErrNotSupported);
    return Record(kErrNotSupported);
  }
  m_pool = pool;
  return Record(0);
}

int TMemory::SetFlags(unsigned int set, unsigned int clear) {
  std::lock_guard<std::recursive_mutex> guard(Managed().lock);
  unsigned int next = (m_flags | set) & ~clear & 0xFFFFu;
  if ((clear & kTMemManaged) != 0) next &= ~kTMemManagedMarks;
  unsigned int changed = m_flags ^ next;
  if ((changed & kTMemPooled) != 0) {
    LogLine(514, u"TMemory::SetFlags: pooled storage not available, %E", kErrNotSupported);
    return Record(kErrNotSupported);
  }
  if ((changed & kTMemMapped) != 0) {
    LogLine(514, u"TMemory::SetFlags: mapped-file storage not available, %E", kErrNotSupported);
    return Record(kErrNotSupported);
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
