// TMemory, a handle to a resizable block of bytes.
//
// The storage lives on the heap (MemAlloc), in a memory pool (flag
// kTMemPooled, foundation/tmempool.h) or in a mapped file (kTMemMapped).
// Whatever the storage, the bytes are reached through MemPtr(); for pooled
// storage every MemPtr must be paired with UnLock() (TMemoryPin does both).
//
// Pooled storage. SetMemPool names the pool, SetFlags(kTMemPooled, 0) joins
// it: the block must be empty then (an assertion, "tmemory" line 679,
// otherwise, and the heap contents are freed) and it gets the pool's next
// identifier. The storage is one pool block, taken at the first non-zero
// size, so the size is limited to the pool's block size (a larger SetSize
// or AllocBuffer fails with kErrMemSizeTooLarge and changes nothing); a
// size of 0 gives the block back. MemPtr pins the block (it raises the lock
// count, under the pool's lock; a null answer pins nothing) and stamps it
// with a new identifier, so that the pool archives the least recently
// reached blocks first; UnLock releases the pin. An archived block
// (kTMemMapped | kTMemArchived, no storage, GetSize() unchanged) comes back
// at its next MemPtr or SetSize (AllocBuffer just drops the archive); if
// that fails MemPtr answers null and CheckError() tells why. Taking a block
// that would pass the pools' ceiling archives the oldest unlocked blocks
// first; when none can go the request fails with kErrMemOutOfMemory, logged
// as told under Priorities. SetMemPool on a pooled block moves its contents
// to the new pool. Clearing kTMemPooled frees the pool block, deletes any
// archive file and detaches the block from its pool (GetMemPool() is null),
// leaving it empty. Reset and the destructor give the pool block back and
// delete the archive file too.
//
// Mapped-file storage. Setting kTMemMapped on a block outside a pool moves
// its contents into a file of its own in the temporary folder, mapped into
// memory; SetSize resizes the file and its mapping. Clearing it moves the
// contents back to the heap and deletes the file. A file is always deleted
// when its block dies. On a pooled block kTMemMapped and kTMemArchived
// belong to the pool: SetFlags leaves them as they are.
//   createMapFile(): outside a pool, as SetFlags(kTMemMapped, 0) (0 when
//     the block has its file); pooled blocks get kErrNotSupported.
//   ArchiveToFile(): pooled: writes the contents to an archive file and
//     gives the pool block back (the block is archived); a write failure
//     leaves the block resident and unchanged. Outside a pool as
//     createMapFile (a mapped file always holds the contents).
//   MapFromFile(): pooled: brings archived contents back into a free pool
//     block, checking the file against the block's size and checksum
//     (kErrFileCorrupt leaves the block archived). Otherwise nothing to do.
//   deleteMapFile(): outside a pool, moves the contents back to the heap
//     and removes the file; refused with kErrInUse for a pooled block's
//     archive, which holds the only copy of the contents.
//
// Sizes. The used size (GetSize) and the allocated size are unsigned 32-bit.
// The allocation runs ahead of the used size: growth past the allocation
// takes at least half as much again, so a run of small SetSize steps moves
// the block only a logarithmic number of times. Bytes past the used size are
// kept zero, so growing always shows zeros.
//
// Lock count. Lock() pins the storage (MemPtr on pooled storage does the
// same, UnLock() undoes either). While the count is non-zero the storage
// never moves: growth beyond the allocated size, AllocBuffer beyond it and
// Reset fail with kErrInUse, and shrinks only lower the used size.
// MemPtr on heap storage does not count, so it needs no UnLock. UnLock with
// a count of 0 is an assertion ("tmemory"). Destroying a locked block is an
// assertion too, and the block is freed anyway.
//
// Priorities. The priority says how a refused allocation is treated:
// kMemPriorityNormal fails with kErrMemOutOfMemory and logs at selector 517;
// kMemPriorityRequired (the block cannot be done without) does the same and
// raises the assertion "tmemory", line 420; kMemPriorityOptional logs at 514
// (a failure the caller expects and handles). Other values are treated as
// normal. kMemPriorityOwn (-1, or 65535 as the buffers pass it) means the
// block's own priority.
//
// Managed list. Blocks with kTMemManaged are linked into one process-wide
// list; their used sizes add up to GetUsageBytes() and their number to
// GetUsageCount(). The list, its totals and every SetFlags are guarded by
// one recursive monitor (MonitorEnter/MonitorExit), which the pools share.
//
// A TMemory is not itself thread-safe: one thread at a time uses a handle.
#ifndef PLINTH_FOUNDATION_TMEMORY_H_
#define PLINTH_FOUNDATION_TMEMORY_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/errors.h"
#include "foundation/export.h"
#include "foundation/tobject.h"

class TMemPool;
class TMemoryFile;
class TString;

// Library error codes of this module.

// Flag bits.
constexpr unsigned int kTMemManaged = 1;
constexpr unsigned int kTMemPooled = 2;
// The host forbids archiving this pooled block.
constexpr unsigned int kTMemKeepResident = 4;
constexpr unsigned int kTMemMapped = 8;
// With kTMemMapped: the file is the archive of a pooled block.
constexpr unsigned int kTMemArchived = 16;
// Contents moving between a pool block and the archive file.
constexpr unsigned int kTMemInTransit = 32;
// Marks of the managed list's users; cleared whenever kTMemManaged is.
constexpr unsigned int kTMemManagedMarks = 64 | 128;
// Coarse growth: allocations in steps of 1, 8 or 32 KiB (see AllocSize).
constexpr unsigned int kTMemCoarse = 256;

// Priorities.
constexpr int kMemPriorityOwn = -1;
constexpr int kMemPriorityNormal = 0;
constexpr int kMemPriorityRequired = 1;
constexpr int kMemPriorityOptional = 2;

class PLINTH_API TMemory : public TObject {
 public:
  TMemory();
  explicit TMemory(int priority);
  // Copies the contents, priority and the managed and coarse flags. With a
  // `pool` the copy asks for pooled storage there; when that is refused it
  // keeps the contents on the heap and CheckError() tells why.
  TMemory(const TMemory& other, TMemPool* pool = nullptr);
  // Copies the contents and priority; the flags and pool stay.
  TMemory& operator=(const TMemory& other);
  ~TMemory();

  uint32_t GetSize() const { return m_size; }
  uint32_t GetAllocatedSize() const { return m_allocSize; }
  // The age stamp given when the block joined a pool (0 on the heap).
  uint32_t GetLastUsed() const { return m_id; }
  uint16_t GetFlags() const { return m_flags.load(std::memory_order_relaxed); }
  // Flags become (old | set) & ~clear, under the monitor.
  int SetFlags(unsigned int set, unsigned int clear);
  int GetLockCount() const { return m_lockCount.load(std::memory_order_relaxed); }
  int GetPriority() const { return m_priority; }
  void SetPriority(int priority) { m_priority = static_cast<int16_t>(priority); }
  TMemPool* GetMemPool() const { return m_pool; }
  // Names the pool that kTMemPooled will use. On a pooled block it moves
  // the contents to `pool`: kErrBadParameter for null, kErrInUse while
  // locked, kErrMemSizeTooLarge when they do not fit its block.
  int SetMemPool(TMemPool* pool);

  // Resizes, keeping the contents up to the smaller size. Sizes above
  // 4294967295 fail with kErrMemSizeTooLarge; shrinks by less than 1024 bytes
  // never move the block.
  int SetSize(uint64_t size, int priority = kMemPriorityOwn);
  // Replaces the contents with `size` zero bytes; nothing is copied.
  int AllocBuffer(uint64_t size, int priority = kMemPriorityOwn);

  // The bytes (null while empty).
  // Inline for heap and mapped storage: element reads call it per access.
  void* MemPtr() { return (m_flags & kTMemPooled) != 0 ? PooledMemPtr() : m_ptr; }
  void Lock();
  void UnLock();

  // Frees the storage; flags, priority and pool stay.
  int Reset();
  // Sets the used bytes to zero.
  void Zero();
  // The contents as UTF-16 code units in host order: GetSize() / 2 units
  // (an odd last byte is left out); FromString stores 2 bytes per unit.
  int ToString(TString* out) const;
  int FromString(const TString& text);
  int CheckError() const { return m_lastError; }

  // Mapped-file storage and pool archives (see above).
  int createMapFile();
  int MapFromFile();
  int ArchiveToFile();
  int deleteMapFile();
  // True while the contents are in memory (false once archived).
  bool IsResident() const;

  static int GetUsageCount();
  static uint64_t GetUsageBytes();
  static void MonitorEnter();
  static void MonitorExit();

  // The allocation for `size` bytes under `flags`: with kTMemCoarse a
  // multiple of 1024 up to 8192, of 8192 below 1048576, of 32768 above;
  // otherwise a multiple of 8.
  static uint64_t AllocSize(uint64_t size, unsigned int flags);

 protected:
  // The storage address without pinning, for a subclass that has seen the
  // block is not pooled (nothing can archive the bytes away underneath).
  // Outside a pool it is never null while GetSize() is non-zero.
  void* UnpinnedPtr() const { return m_ptr; }

 private:
  friend class TMemPool;

  int Record(int code) { return m_lastError = code; }
  int CopyFrom(const TMemory& other);
  int Grow(uint32_t size, int priority);
  void ShrinkInPlace(uint32_t size);
  bool ResizeStorage(uint32_t allocSize);
  void ReleaseStorage();
  void UsedSizeChanged(uint32_t oldSize);
  void JoinManaged();
  void LeaveManaged();
  // Under the monitor: flags become (old | set) & ~clear, with no side effect.
  void ChangeFlags(unsigned int set, unsigned int clear);

  // Pooled storage (tmemory_pooled.cpp); all run under the monitor.
  int PooledSetSize(uint32_t size, int priority);
  int PooledAllocBuffer(uint32_t size, int priority);
  void* PooledMemPtr();
  // Gives back the pool block and any archive, leaving the block empty;
  // a locked block is refused with `lockedLine`.
  int EmptyPooled(const char16_t* lockedLine);
  int PooledReset();
  int JoinPool();
  int LeavePool();
  int MoveToPool(TMemPool* pool);
  int AdoptHeapContents();
  void GiveBackPoolBlock();
  void DropArchive();
  int ArchivePooled();
  int RestorePooled();
  void LoseToDyingPool();

  // Mapped-file storage outside a pool (tmemory_mapped.cpp).
  int MappedResize(uint32_t allocSize);
  void MappedRelease();
  int MoveHeapToFile();
  int MoveFileToHeap();
  void CloseFile(bool remove);

  void* m_ptr = nullptr;
  uint32_t m_size = 0;
  uint32_t m_allocSize = 0;
  // Written under the monitor; atomic because a pool may read it from
  // another thread while the handle's own thread looks at it.
  std::atomic<uint16_t> m_flags{0};
  std::atomic<int32_t> m_lockCount{0};  // read by the pools under their lock
  int16_t m_priority = kMemPriorityNormal;
  TMemPool* m_pool = nullptr;
  uint32_t m_id = 0;
  int m_lastError = 0;
  TMemory* m_prevManaged = nullptr;
  TMemory* m_nextManaged = nullptr;
  std::unique_ptr<TMemoryFile> m_file;  // the mapped file or pool archive
};

// MemPtr for a scope: the bytes stay put until the pin goes, and pooled
// storage gets its UnLock. Get() is null when the block is empty or could
// not be brought back (see the block's CheckError()).
class TMemoryPin {
 public:
  explicit TMemoryPin(TMemory& memory) : m_memory(memory), m_ptr(memory.MemPtr()) {
    m_counted = m_ptr != nullptr && (memory.GetFlags() & kTMemPooled) != 0;
  }
  ~TMemoryPin() {
    if (m_counted) m_memory.UnLock();
  }
  TMemoryPin(const TMemoryPin&) = delete;
  TMemoryPin& operator=(const TMemoryPin&) = delete;

  unsigned char* Get() const { return static_cast<unsigned char*>(m_ptr); }

 private:
  TMemory& m_memory;
  void* m_ptr;
  bool m_counted;
};

#endif  // PLINTH_FOUNDATION_TMEMORY_H_
