// Pooled storage of TMemory: one block of its pool while resident, an
// archive file while not. Everything here runs under the monitor, which is
// also the pools' lock, so a pool archiving from another thread never sees
// a handle half-changed.
#include <cstring>

#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/tmemory.h"
#include "foundation/tmemory_file.h"
#include "foundation/tmempool.h"
#include "foundation/tmempool_internal.h"
#include "platform/file.h"

namespace {

constexpr int kPriorityOwnAsWord = 65535;

unsigned int Kilobytes(uint64_t bytes) { return static_cast<unsigned int>(bytes >> 10); }

}  // namespace

int TMemory::PooledSetSize(uint32_t size, int priority) {
  TMemoryMonitor monitor;
  if (priority == kMemPriorityOwn || priority == kPriorityOwnAsWord) priority = m_priority;
  unsigned int blockSize = m_pool->GetMemBlockSize();
  if (size > blockSize) {
    LogLine(514, u"TMemory::SetSize: %K above the pool's block of %K, %E", Kilobytes(size), Kilobytes(blockSize),
            kErrMemSizeTooLarge);
    return kErrMemSizeTooLarge;
  }
  uint32_t oldSize = m_size;
  if ((m_flags & kTMemArchived) != 0) {
    if (size == 0) {
      DropArchive();
      m_size = 0;
      UsedSizeChanged(oldSize);
      return 0;
    }
    int code = RestorePooled();
    if (code != 0) return code;
  }
  if (size == 0 && GetLockCount() == 0) {
    GiveBackPoolBlock();
    m_size = 0;
    UsedSizeChanged(oldSize);
    return 0;
  }
  if (m_ptr == nullptr && size != 0) {
    TMemPoolBlock* block = nullptr;
    if (ReservePoolBlock(m_pool, this, &block) != 0) {
      LogLine(priority == kMemPriorityOptional ? 514 : 517, u"TMemory::SetSize: priority %d failed from %K to %K",
              priority, Kilobytes(m_size), Kilobytes(size));
      if (priority == kMemPriorityRequired) Debug("tmemory", 420, 0);
      return kErrMemOutOfMemory;
    }
    m_ptr = block->m_memory;
    m_allocSize = blockSize;
    m_id = TMemPool::NextId();
  }
  // The block never moves; bytes past the used size are kept zero.
  if (size < m_size) std::memset(static_cast<char*>(m_ptr) + size, 0, m_size - size);
  m_size = size;
  UsedSizeChanged(oldSize);
  return 0;
}

int TMemory::PooledAllocBuffer(uint32_t size, int priority) {
  TMemoryMonitor monitor;
  // Refused before the old contents go.
  if (size > m_pool->GetMemBlockSize()) return PooledSetSize(size, priority);
  uint32_t oldSize = m_size;
  if ((m_flags & kTMemArchived) != 0) {
    DropArchive();  // replaced anyway: no need to read it back
  } else if (m_ptr != nullptr) {
    std::memset(m_ptr, 0, m_size);
  }
  m_size = 0;
  UsedSizeChanged(oldSize);
  return PooledSetSize(size, priority);
}

void* TMemory::PooledMemPtr() {
  TMemoryMonitor monitor;
  if ((m_flags & kTMemArchived) != 0) {
    int code = RestorePooled();
    if (code != 0) {
      Record(code);
      return nullptr;
    }
  }
  if (m_ptr == nullptr) return nullptr;
  m_lockCount.fetch_add(1, std::memory_order_relaxed);
  m_id = TMemPool::NextId();
  return m_ptr;
}

int TMemory::EmptyPooled(const char16_t* lockedLine) {
  TMemoryMonitor monitor;
  if (GetLockCount() != 0) {
    LogLine(514, lockedLine, kErrInUse);
    return kErrInUse;
  }
  uint32_t oldSize = m_size;
  GiveBackPoolBlock();
  DropArchive();
  m_size = 0;
  UsedSizeChanged(oldSize);
  return 0;
}

int TMemory::PooledReset() { return EmptyPooled(u"TMemory::Reset: block is locked, %E"); }

int TMemory::JoinPool() {
  TMemoryMonitor monitor;
  if (m_pool == nullptr) {
    LogLine(514, u"TMemory::SetFlags: no pool named for pooled storage, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  if (m_size != 0 || m_allocSize != 0) {
    if (GetLockCount() != 0) {
      LogLine(514, u"TMemory::SetFlags: block is locked, %E", kErrInUse);
      return kErrInUse;
    }
    Debug("tmemory", 679, 0);
  }
  uint32_t oldSize = m_size;
  if ((m_flags & kTMemMapped) != 0) {
    CloseFile(true);
  } else {
    MemFree(m_ptr);
  }
  m_ptr = nullptr;
  m_size = 0;
  m_allocSize = 0;
  UsedSizeChanged(oldSize);
  m_pool->AddRemovePoolUser(this, 1);
  m_id = TMemPool::NextId();
  return 0;
}

int TMemory::LeavePool() {
  TMemoryMonitor monitor;
  int code = EmptyPooled(u"TMemory::SetFlags: block is locked, %E");
  if (code != 0) return code;
  if (m_pool != nullptr) m_pool->AddRemovePoolUser(this, 0);
  m_pool = nullptr;
  return 0;
}

int TMemory::MoveToPool(TMemPool* pool) {
  TMemoryMonitor monitor;
  if (pool == nullptr) {
    LogLine(514, u"TMemory::SetMemPool: a pooled block needs a pool, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  if (GetLockCount() != 0) {
    LogLine(514, u"TMemory::SetMemPool: block is locked, %E", kErrInUse);
    return kErrInUse;
  }
  if (m_size > pool->GetMemBlockSize()) {
    LogLine(514, u"TMemory::SetMemPool: %K above the pool's block of %K, %E", Kilobytes(m_size),
            Kilobytes(pool->GetMemBlockSize()), kErrMemSizeTooLarge);
    return kErrMemSizeTooLarge;
  }
  if ((m_flags & kTMemArchived) != 0) {
    int code = RestorePooled();
    if (code != 0) return code;
  }
  if (m_ptr != nullptr) {
    // Making room in the new pool must not archive the block being moved.
    ChangeFlags(kTMemInTransit, 0);
    TMemPoolBlock* block = nullptr;
    int code = ReservePoolBlock(pool, this, &block);
    ChangeFlags(0, kTMemInTransit);
    if (code != 0) {
      LogLine(514, u"TMemory::SetMemPool: no block in the new pool, %E", code);
      return code;
    }
    std::memcpy(block->m_memory, m_ptr, m_size);
    GiveBackPoolBlock();
    m_ptr = block->m_memory;
    m_allocSize = pool->GetMemBlockSize();
  }
  m_pool->AddRemovePoolUser(this, 0);
  pool->AddRemovePoolUser(this, 1);
  m_pool = pool;
  m_id = TMemPool::NextId();
  return 0;
}

int TMemory::AdoptHeapContents() {
  TMemoryMonitor monitor;
  unsigned int blockSize = m_pool->GetMemBlockSize();
  if (m_size > blockSize) {
    LogLine(514, u"TMemory::TMemory: %K above the pool's block of %K, %E", Kilobytes(m_size), Kilobytes(blockSize),
            kErrMemSizeTooLarge);
    return Record(kErrMemSizeTooLarge);
  }
  TMemPoolBlock* block = nullptr;
  if (m_size != 0) {
    int code = ReservePoolBlock(m_pool, this, &block);
    if (code != 0) {
      LogLine(514, u"TMemory::TMemory: no pool block for %K, %E", Kilobytes(m_size), code);
      return Record(code);
    }
    std::memcpy(block->m_memory, m_ptr, m_size);
  }
  MemFree(m_ptr);
  m_ptr = block != nullptr ? block->m_memory : nullptr;
  m_allocSize = block != nullptr ? blockSize : 0;
  m_pool->AddRemovePoolUser(this, 1);
  m_id = TMemPool::NextId();
  ChangeFlags(kTMemPooled, 0);
  return Record(0);
}

void TMemory::GiveBackPoolBlock() {
  if (m_ptr == nullptr) return;
  // Free blocks are kept zero, so the next owner starts from zeros.
  std::memset(m_ptr, 0, m_size);
  TMemPoolBlock* block = m_pool != nullptr ? m_pool->GetMemBlockFromOwner(this) : nullptr;
  if (block != nullptr) m_pool->SetMemBlockOwner(block, nullptr);
  m_ptr = nullptr;
  m_allocSize = 0;
}

void TMemory::DropArchive() {
  if (m_file != nullptr) {
    platform::RemoveFile(m_file->m_path);
    m_file.reset();
  }
  ChangeFlags(0, kTMemMapped | kTMemArchived);
}

int TMemory::ArchivePooled() {
  TMemoryMonitor monitor;
  if ((m_flags & kTMemArchived) != 0 || m_ptr == nullptr) return 0;
  if (m_lockCount.load(std::memory_order_acquire) != 0) {
    LogLine(514, u"TMemory::ArchiveToFile: block is locked, %E", kErrInUse);
    return kErrInUse;
  }
  ChangeFlags(kTMemInTransit, 0);
  auto file = std::make_unique<TMemoryFile>();
  int code = WriteMemArchive(m_ptr, m_size, &file->m_path);
  if (code != 0) {
    ChangeFlags(0, kTMemInTransit);
    LogLine(514, u"TMemory::ArchiveToFile: cannot write the archive of %K, %E", Kilobytes(m_size), code);
    return code;
  }
  m_file = std::move(file);
  GiveBackPoolBlock();
  ChangeFlags(kTMemMapped | kTMemArchived, kTMemInTransit);
  return 0;
}

int TMemory::RestorePooled() {
  TMemoryMonitor monitor;
  if ((m_flags & kTMemArchived) == 0 || m_file == nullptr) return 0;
  ChangeFlags(kTMemInTransit, 0);
  TMemPoolBlock* block = nullptr;
  int code = ReservePoolBlock(m_pool, this, &block);
  if (code != 0) {
    ChangeFlags(0, kTMemInTransit);
    LogLine(514, u"TMemory::MapFromFile: no pool block for %K, %E", Kilobytes(m_size), code);
    return code;
  }
  code = ReadMemArchive(m_file->m_path, block->m_memory, m_size);
  if (code != 0) {
    // The file stays: it still holds the only copy.
    std::memset(block->m_memory, 0, m_size);
    m_pool->SetMemBlockOwner(block, nullptr);
    ChangeFlags(0, kTMemInTransit);
    LogLine(514, u"TMemory::MapFromFile: cannot read the archive %s, %E", &m_file->m_path, code);
    return code;
  }
  m_ptr = block->m_memory;
  m_allocSize = m_pool->GetMemBlockSize();
  m_id = TMemPool::NextId();
  DropArchive();
  ChangeFlags(0, kTMemInTransit);
  return 0;
}

void TMemory::LoseToDyingPool() {
  TMemoryMonitor monitor;
  uint32_t oldSize = m_size;
  if (m_ptr != nullptr) {
    TMemPoolBlock* block = m_pool->GetMemBlockFromOwner(this);
    if (block != nullptr) m_pool->SetMemBlockOwner(block, nullptr);
  }
  m_ptr = nullptr;
  m_allocSize = 0;
  m_size = 0;
  DropArchive();
  UsedSizeChanged(oldSize);
  m_pool = nullptr;
  ChangeFlags(0, kTMemPooled | kTMemInTransit);
  LogLine(514, u"TMemPool::~TMemPool: a block of %K lost its pooled storage, %E", Kilobytes(oldSize), kErrInUse);
}
