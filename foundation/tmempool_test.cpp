#include "foundation/tmempool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "foundation/tmemory.h"
#include "platform/vmem.h"
#include "tests/pool_scratch.h"
#include "tests/test_host.h"

namespace {

constexpr unsigned int kBlock = 64 * 1024;

void Touch(TMemory& block) {
  TMemoryPin pin(block);
  ASSERT_NE(pin.Get(), nullptr);
}

TEST(TMemPoolTest, BlockSizesTakeTheDefaultAndWholePages) {
  TMemPool byDefault(0);
  EXPECT_EQ(TMemPool::GetDefaultMemBlockSize(), 1u << 20);
  EXPECT_EQ(byDefault.GetMemBlockSize(), 1u << 20);
  TMemPool odd(1000);
  EXPECT_EQ(odd.GetMemBlockSize(), platform::PageSize());
  TMemPool::SetDefaultMemBlockSize(3 * kBlock);
  TMemPool other(0);
  TMemPool::SetDefaultMemBlockSize(0);
  EXPECT_EQ(other.GetMemBlockSize(), 3 * kBlock);
  EXPECT_EQ(TMemPool::GetDefaultMemBlockSize(), 1u << 20);
  // The process-wide list holds every live pool.
  int count = TMemPool::GetPoolCount();
  ASSERT_GE(count, 3);
  bool found = false;
  for (int i = 0; i < count; ++i) found = found || TMemPool::GetMemPool(i) == &odd;
  EXPECT_TRUE(found);
  EXPECT_EQ(TMemPool::GetMemPool(count), nullptr);
  // The ceiling follows the percentage rule until overridden.
  EXPECT_EQ(TMemPool::GetMaxMemPercent(), 35);
  EXPECT_EQ(TMemPool::GetMaxPoolMem(), uint64_t{MemTotalMB()} * 35 / 100 * (1u << 20));
  TMemPool::SetMaxPoolMem(12345);
  EXPECT_EQ(TMemPool::GetMaxPoolMem(), 12345u);
  TMemPool::SetMaxPoolMem(0);
}

TEST(TMemPoolTest, BlocksAreCountedCommittedAndFreed) {
  TestHost host;
  TMemPool pool(kBlock);
  uint64_t before = TMemPool::GetAllocatedPoolMem();
  TMemPoolBlock* committed = pool.AllocateMemBlock(1);
  TMemPoolBlock* bare = pool.AllocateMemBlock(0);
  ASSERT_NE(committed, nullptr);
  ASSERT_NE(bare, nullptr);
  EXPECT_NE(committed->m_memory, nullptr);
  EXPECT_EQ(bare->m_memory, nullptr);
  // Uncommitted blocks count against the ceiling too.
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), before + 2 * kBlock);
  EXPECT_EQ(pool.GetTotalMemBlockCount(), 2);
  EXPECT_EQ(pool.GetMemBlock(1), bare);
  EXPECT_EQ(pool.GetMemBlock(2), nullptr);
  EXPECT_EQ(pool.GetMemBlock(-1), nullptr);

  // Committed memory is usable and zero.
  auto* bytes = static_cast<unsigned char*>(committed->m_memory);
  EXPECT_EQ(bytes[0] | bytes[kBlock - 1], 0);
  bytes[kBlock - 1] = 7;

  // The first free block is taken; asking for no commit drops its memory.
  EXPECT_EQ(pool.GetFreeMemBlock(0), committed);
  EXPECT_EQ(committed->m_memory, nullptr);
  EXPECT_EQ(pool.GetFreeMemBlock(1), committed);
  EXPECT_NE(committed->m_memory, nullptr);

  TMemory owner;
  pool.SetMemBlockOwner(committed, &owner);
  pool.SetMemBlockOwner(bare, &owner);
  EXPECT_EQ(pool.GetUsedMemBlockCount(), 2);
  EXPECT_EQ(pool.GetMemBlockFromOwner(&owner), committed);
  // Every block in use: a new one is made.
  TMemPoolBlock* third = pool.GetFreeMemBlock(1);
  EXPECT_EQ(pool.GetTotalMemBlockCount(), 3);
  EXPECT_EQ(pool.GetMemBlock(2), third);

  // An owned block is an assertion and stays.
  int osError = -1;
  EXPECT_EQ(pool.FreeMemBlock(committed, 0, &osError), 0);
  EXPECT_EQ(osError, 0);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>{"tmemory_win"});
  ASSERT_EQ(host.LinesWithFormat("ASSERT: %s, line %~d").size(), 1u);
  EXPECT_EQ(host.LinesWithFormat("ASSERT: %s, line %~d")[0].text, "ASSERT: tmemory_win, line 1144");
  EXPECT_EQ(pool.GetTotalMemBlockCount(), 3);

  pool.SetMemBlockOwner(committed, nullptr);
  pool.SetMemBlockOwner(bare, nullptr);
  EXPECT_EQ(pool.GetUsedMemBlockCount(), 0);
  EXPECT_EQ(pool.GetMemBlockFromOwner(&owner), nullptr);
  // By index when no block is named.
  EXPECT_EQ(pool.FreeMemBlock(nullptr, 1, &osError), 1);
  EXPECT_EQ(pool.GetTotalMemBlockCount(), 2);
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), before + 2 * kBlock);
  // Keep one free block, release the rest.
  EXPECT_EQ(pool.ReleaseFreeBlocks(1), 1);
  EXPECT_EQ(pool.GetTotalMemBlockCount(), 1);
  EXPECT_EQ(pool.ReleaseFreeBlocks(0), 1);
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), before);
  EXPECT_EQ(pool.FreeMemBlock(nullptr, 0, &osError), 0);
}

TEST(TMemPoolTest, UsersAreCountedOnce) {
  TMemPool pool(kBlock);
  TMemory a;
  TMemory b;
  pool.AddRemovePoolUser(&a, 1);
  pool.AddRemovePoolUser(&a, 1);
  pool.AddRemovePoolUser(&b, 1);
  EXPECT_EQ(pool.GetPoolUsers(), 2);
  pool.AddRemovePoolUser(&a, 0);
  pool.AddRemovePoolUser(&a, 0);
  EXPECT_EQ(pool.GetPoolUsers(), 1);
  pool.AddRemovePoolUser(&b, 0);
  EXPECT_EQ(pool.GetPoolUsers(), 0);
}

// The oldest block is the one reached least recently; locked owners and
// owners that must stay or are moving are passed over.
TEST(TMemPoolTest, OldestBlockSkipsLockedAndFlaggedOwners) {
  ScopedPoolScratch scratch(64ull << 20);
  TMemPool pool(kBlock);
  std::vector<TMemory> blocks(4);
  for (TMemory& block : blocks) {
    ASSERT_EQ(block.SetMemPool(&pool), 0);
    ASSERT_EQ(block.SetFlags(kTMemPooled, 0), 0);
    ASSERT_EQ(block.SetSize(100), 0);
  }
  for (TMemory& block : blocks) Touch(block);
  auto indexOf = [&](const TMemory& block) {
    for (int i = 0; i < pool.GetTotalMemBlockCount(); ++i) {
      if (pool.GetMemBlock(i)->m_owner == &block) return i;
    }
    return -1;
  };
  unsigned int ownerId = 0;
  EXPECT_EQ(pool.GetOldestBlock(&ownerId), indexOf(blocks[0]));
  EXPECT_EQ(ownerId, blocks[0].GetLastUsed());

  blocks[0].Lock();  // the oldest, but locked
  EXPECT_EQ(pool.GetOldestBlock(&ownerId), indexOf(blocks[1]));
  ASSERT_EQ(blocks[1].SetFlags(kTMemKeepResident, 0), 0);
  ASSERT_EQ(blocks[2].SetFlags(kTMemInTransit, 0), 0);
  EXPECT_EQ(pool.GetOldestBlock(&ownerId), indexOf(blocks[3]));
  EXPECT_EQ(ownerId, blocks[3].GetLastUsed());
  {
    TMemoryPin pin(blocks[3]);
    EXPECT_EQ(pool.GetOldestBlock(&ownerId), -1);
  }
  // Reaching a block makes it the youngest.
  blocks[0].UnLock();
  ASSERT_EQ(blocks[1].SetFlags(0, kTMemKeepResident), 0);
  ASSERT_EQ(blocks[2].SetFlags(0, kTMemInTransit), 0);
  Touch(blocks[0]);
  EXPECT_EQ(pool.GetOldestBlock(&ownerId), indexOf(blocks[1]));

  // Archiving the oldest frees its block and leaves the handle archived.
  int expected = indexOf(blocks[1]);
  int index = pool.ArchiveOldestBlock();
  EXPECT_EQ(index, expected);
  EXPECT_EQ(pool.GetMemBlock(index)->m_owner, nullptr);
  EXPECT_FALSE(blocks[1].IsResident());
  EXPECT_EQ(blocks[1].GetFlags() & (kTMemMapped | kTMemArchived), kTMemMapped | kTMemArchived);
  EXPECT_EQ(pool.GetUsedMemBlockCount(), 3);
  EXPECT_EQ(scratch.Files().size(), 1u);
  // An archived owner has no block, so it is no candidate either.
  EXPECT_EQ(pool.GetOldestBlock(&ownerId), indexOf(blocks[2]));
}

// Owners of equal age: the first in list order. A mapped file that is not
// a pool archive is never a candidate.
TEST(TMemPoolTest, OldestBlockTiesAndMappedOwners) {
  ScopedPoolScratch scratch(64ull << 20);
  TMemPool pool(kBlock);
  TMemory mapped;
  ASSERT_EQ(mapped.SetFlags(kTMemMapped, 0), 0);
  TMemory plain;
  for (int i = 0; i < 3; ++i) ASSERT_NE(pool.AllocateMemBlock(1), nullptr);
  pool.SetMemBlockOwner(pool.GetMemBlock(0), &mapped);
  pool.SetMemBlockOwner(pool.GetMemBlock(1), &plain);
  pool.SetMemBlockOwner(pool.GetMemBlock(2), &plain);
  unsigned int ownerId = 1;
  EXPECT_EQ(pool.GetOldestBlock(&ownerId), 1);
  EXPECT_EQ(ownerId, 0u);
  for (int i = 0; i < 3; ++i) pool.SetMemBlockOwner(pool.GetMemBlock(i), nullptr);
}

TEST(TMemPoolTest, ArchiveOfAFreeBlockIsRefused) {
  TestHost host;
  TMemPool pool(kBlock);
  ASSERT_NE(pool.AllocateMemBlock(1), nullptr);
  EXPECT_EQ(pool.ArchiveBlock(0), kErrBadParameter);
  EXPECT_EQ(pool.ArchiveBlock(5), kErrBadParameter);
  EXPECT_EQ(pool.ArchiveOldestBlock(), -1);
  EXPECT_EQ(host.LinesWithFormat("TMemPool::ArchiveBlock: block %~d has no owner, %E").size(), 2u);
}

TEST(TMemPoolTest, CollectAndLockFreeMemMakeRoom) {
  TestHost host;
  ScopedPoolScratch scratch(8 * kBlock);
  TMemPool pool(kBlock);
  uint64_t base = TMemPool::GetAllocatedPoolMem();
  ASSERT_EQ(base, 0u) << "another pool holds blocks";
  std::vector<TMemory> blocks(6);
  for (size_t i = 0; i < blocks.size(); ++i) {
    blocks[i].SetMemPool(&pool);
    ASSERT_EQ(blocks[i].SetFlags(kTMemPooled, 0), 0);
    ASSERT_EQ(blocks[i].SetSize(1000), 0);
    TMemoryPin pin(blocks[i]);
    std::memset(pin.Get(), static_cast<int>(i + 1), 1000);
  }
  ASSERT_NE(pool.AllocateMemBlock(1), nullptr);  // one free block
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), 7 * kBlock);
  EXPECT_EQ(TMemPool::LockFreeMem(0), 0);
  TMemPool::SetMaxPoolMem(7 * kBlock + (1u << 20));
  EXPECT_EQ(TMemPool::LockFreeMem(1), 0);
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), 7 * kBlock);
  // A free block goes first, at no cost.
  TMemPool::SetMaxPoolMem(6 * kBlock + (1u << 20));
  EXPECT_EQ(TMemPool::LockFreeMem(1), 0);
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), 6 * kBlock);
  EXPECT_TRUE(scratch.Files().empty());
  // Then the oldest owners are archived and their blocks released.
  TMemPool::SetMaxPoolMem(4 * kBlock + (1u << 20));
  EXPECT_EQ(TMemPool::LockFreeMem(1), 0);
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), 4 * kBlock);
  EXPECT_FALSE(blocks[0].IsResident());
  EXPECT_FALSE(blocks[1].IsResident());
  EXPECT_TRUE(blocks[2].IsResident());
  EXPECT_EQ(scratch.Files().size(), 2u);
  // More than the ceiling can ever give: everything is archived on the way.
  TMemPool::SetMaxPoolMem(8 * kBlock);
  EXPECT_EQ(TMemPool::LockFreeMem(1), kErrMemOutOfMemory);
  EXPECT_EQ(host.LinesWithFormat("TMemPool::LockFreeMem: no room for %~d MB below the ceiling, %E").size(), 1u);
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), 0u);
  EXPECT_EQ(scratch.Files().size(), blocks.size());
  for (size_t i = 0; i < blocks.size(); ++i) {
    TMemoryPin pin(blocks[i]);
    ASSERT_NE(pin.Get(), nullptr);
    EXPECT_EQ(pin.Get()[999], i + 1);
  }
  EXPECT_TRUE(scratch.Files().empty());
  // Collect down to half of the ceiling: 4 blocks stay.
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), 6 * kBlock);
  EXPECT_EQ(TMemPool::Collect(50), 2);
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), 4 * kBlock);
  EXPECT_EQ(scratch.Files().size(), 2u);
  EXPECT_EQ(TMemPool::Collect(0), 4);
  EXPECT_EQ(TMemPool::GetAllocatedPoolMem(), 0u);
  for (size_t i = 0; i < blocks.size(); ++i) {
    TMemoryPin pin(blocks[i]);
    ASSERT_NE(pin.Get(), nullptr);
    EXPECT_EQ(pin.Get()[0], i + 1);
  }
}

TEST(TMemPoolTest, DyingPoolLeavesItsHandlesEmpty) {
  TestHost host;
  ScopedPoolScratch scratch(64ull << 20);
  TMemory resident;
  TMemory archived;
  {
    TMemPool pool(kBlock);
    for (TMemory* block : {&resident, &archived}) {
      block->SetMemPool(&pool);
      ASSERT_EQ(block->SetFlags(kTMemPooled, 0), 0);
      ASSERT_EQ(block->SetSize(5000), 0);
    }
    ASSERT_EQ(archived.ArchiveToFile(), 0);
    EXPECT_EQ(scratch.Files().size(), 1u);
    EXPECT_EQ(pool.GetPoolUsers(), 2);
  }
  for (TMemory* block : {&resident, &archived}) {
    EXPECT_EQ(block->GetSize(), 0u);
    EXPECT_EQ(block->GetMemPool(), nullptr);
    EXPECT_EQ(block->GetFlags() & (kTMemPooled | kTMemMapped | kTMemArchived), 0u);
    EXPECT_EQ(block->MemPtr(), nullptr);
    // Back on the heap from here on.
    EXPECT_EQ(block->SetSize(10), 0);
  }
  EXPECT_TRUE(scratch.Files().empty());
  EXPECT_EQ(host.LinesWithFormat("TMemPool::~TMemPool: a block of %K lost its pooled storage, %E").size(), 2u);
}

}  // namespace
