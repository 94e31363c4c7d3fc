// Memory pools: equal-sized blocks of committed virtual memory for TMemory
// handles with kTMemPooled, under one process-wide ceiling.
//
// Sizes. A pool's block size is rounded up to whole pages; 0 takes the
// default block size, 1 MiB unless SetDefaultMemBlockSize said otherwise.
// The ceiling is fixed when the first pool is built: MemTotalMB() times
// GetMaxMemPercent() (35 unless set) / 100, in megabytes. SetMaxPoolMem
// overrides it at any time.
//
// A pooled TMemory holds at most one pool block, so its size is limited to
// the pool's block size (a larger SetSize fails with kErrMemSizeTooLarge).
// When taking a block would pass the ceiling (GetMaxPoolMem), the pools
// first archive their oldest unlocked blocks to files (ArchiveOldestBlock)
// and reuse the freed blocks; when nothing can be archived the allocation
// fails with kErrMemOutOfMemory. An archived handle keeps kTMemMapped and
// kTMemArchived; its next MemPtr brings the contents back byte for byte
// (TMemory::MapFromFile) into a free block of its pool.
//
// Age. The identifier counter is the age clock: a handle gets the next
// identifier when it joins a pool, when it takes a pool block and at every
// MemPtr, so the oldest block is the one least recently reached.
//
// Owner flags in the age test (GetOldestBlock): a block is skipped when it
// has no owner, when its owner has kTMemKeepResident (4) or kTMemInTransit
// (32), when its owner is a mapped file that is not a pool archive (8
// without kTMemArchived, 16), or when its owner's lock count is non-zero.
//
// Housekeeping (all under the global monitor):
//   ReleaseFreeBlocks(keep): releases the pool's ownerless blocks beyond the
//     first `keep` of them; answers how many were released.
//   Collect(percent): brings the pooled memory of the process down to
//     `percent` of GetMaxPoolMem (0..100; others are clamped): first by
//     releasing free blocks, then by archiving the oldest blocks and
//     releasing them. Answers the blocks released.
//   LockFreeMem(megabytes): makes room for `megabytes` more of pool blocks
//     below the ceiling, the same way; 0 when there is room now, or
//     kErrMemOutOfMemory when archiving could not make it.
//
// Archive files live in the temporary folder ($TMPDIR, else /tmp, read when
// each file is made) as "plinth20-<pid>-<n>.mem", readable by the owner
// only; a block's archive is removed when it is read back, when the block
// is reset or emptied, and when the block dies. Layout (little-endian): "PlMA", version 1
// (2 bytes), 2 zero bytes, the content size (8 bytes), the CRC-32 of the
// contents (4 bytes), 4 zero bytes, then the contents. A file that does
// not match its handle is refused with kErrFileCorrupt and not loaded.
//
// Every list and counter here is guarded by TMemory's monitor
// (TMemory::MonitorEnter), so a pool may be used from any thread.
#ifndef PLINTH_FOUNDATION_TMEMPOOL_H_
#define PLINTH_FOUNDATION_TMEMPOOL_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "foundation/export.h"
#include "foundation/tmemory.h"
#include "foundation/tobject.h"

class PLINTH_API TMemPoolBlock : public TObject {
 public:
  TMemory* m_owner = nullptr;  // null while free
  void* m_memory = nullptr;    // null while not committed
};

class PLINTH_API TMemPool : public TObject {
 public:
  // A block size of 0 takes GetDefaultMemBlockSize(); sizes are rounded up
  // to the system's page size.
  explicit TMemPool(unsigned int blockSize);
  // Releases every block; handles still using the pool lose their storage
  // and any archive (they are left empty, without kTMemPooled and without a
  // pool, and each is logged at 514).
  ~TMemPool();
  // Takes the other pool's block size, after releasing this pool's free
  // blocks; a pool that still has blocks in use keeps its size (logged).
  TMemPool& operator=(const TMemPool& other);
  TMemPool(const TMemPool&) = delete;

  unsigned int GetMemBlockSize() const { return m_blockSize; }
  int GetTotalMemBlockCount() const;
  int GetUsedMemBlockCount() const;
  int GetPoolUsers() const;
  // Null when `index` is out of range.
  TMemPoolBlock* GetMemBlock(int index) const;
  // The block whose owner is `owner`; null when it has none.
  TMemPoolBlock* GetMemBlockFromOwner(const TMemory* owner) const;
  // Gives `block` to `owner` (null frees it) and keeps the count in use.
  void SetMemBlockOwner(TMemPoolBlock* block, TMemory* owner);
  // Registers (add non-zero) or unregisters a handle as a user.
  void AddRemovePoolUser(TMemory* user, int add);

  // A new ownerless block at the end of the list; null when memory could
  // not be committed.
  TMemPoolBlock* AllocateMemBlock(int commit);
  // The first ownerless block (see the algorithm), or a new one.
  TMemPoolBlock* GetFreeMemBlock(int commit);
  // 1 when freed; 0 when the memory could not be released (*osError set to
  // the OS error number). An owned block is an assertion ("tmemory_win",
  // 1144) and is not freed.
  int FreeMemBlock(TMemPoolBlock* block, int index, int* osError);
  int ReleaseFreeBlocks(int keep);

  // Index of the oldest archivable block, or -1; its owner's identifier
  // through `ownerId`.
  int GetOldestBlock(unsigned int* ownerId) const;
  // Writes the owner of block `index` to its archive file and frees the
  // block: 0, or the archive's error (kErrMemOutOfMemory among them).
  int ArchiveBlock(int index);
  // The archived block's index; -1 when none could be archived: no
  // candidate, or its archive failed (out of memory or a file error, which
  // leaves the block resident).
  int ArchiveOldestBlock();

  static int GetPoolCount();
  static TMemPool* GetMemPool(int index);
  static int Collect(int percent);
  static int LockFreeMem(int megabytes);

  static void SetDefaultMemBlockSize(unsigned int bytes);
  static unsigned int GetDefaultMemBlockSize();
  // Percent of physical memory (1..100) for the ceiling; read when the
  // first pool is built.
  static void SetMaxMemPercent(int percent);
  static int GetMaxMemPercent();
  static uint64_t GetMaxPoolMem();
  // Overrides the ceiling in bytes (0 goes back to the percentage rule);
  // for hosts that budget memory themselves.
  static void SetMaxPoolMem(uint64_t bytes);
  static uint64_t GetAllocatedPoolMem();
  // The age clock: the identifier last handed out.
  static uint32_t GetCurrentId();
  // The next identifier (called by TMemory under the monitor).
  static uint32_t NextId();

 private:
  int IndexOf(const TMemPoolBlock* block) const;

  std::vector<std::unique_ptr<TMemPoolBlock>> m_blocks;
  std::vector<TMemory*> m_userList;  // the handles counted in m_users
  int m_used = 0;
  int m_users = 0;
  unsigned int m_blockSize = 0;
};

#endif  // PLINTH_FOUNDATION_TMEMPOOL_H_
