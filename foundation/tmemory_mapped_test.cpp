// Mapped-file storage of TMemory outside a pool.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "foundation/tmemory.h"
#include "foundation/tstring.h"
#include "tests/pool_scratch.h"
#include "tests/test_host.h"

namespace {

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The block, and the file under it read through the file system, both hold
// the model; the file is as long as the allocation.
void ExpectMapped(TMemory& block, const std::vector<uint8_t>& model, const std::string& path) {
  ASSERT_EQ(block.GetSize(), model.size());
  auto* bytes = static_cast<unsigned char*>(block.MemPtr());
  if (!model.empty()) {
    ASSERT_EQ(std::memcmp(bytes, model.data(), model.size()), 0);
  }
  std::string file = ReadWhole(path);
  ASSERT_EQ(file.size(), block.GetAllocatedSize());
  ASSERT_EQ(file.compare(0, model.size(), reinterpret_cast<const char*>(model.data()), model.size()), 0);
  // Past the used size the file is zero.
  ASSERT_EQ(file.find_first_not_of('\0', model.size()), std::string::npos);
}

TEST(TMemoryMappedTest, RoundTripAcrossGrowthAndBackToHeap) {
  ScopedPoolScratch scratch(0);
  std::mt19937 rng(17);
  std::vector<uint8_t> model(3000);
  for (uint8_t& byte : model) byte = static_cast<uint8_t>(rng());
  TMemory block;
  ASSERT_EQ(block.AllocBuffer(model.size()), 0);
  std::memcpy(block.MemPtr(), model.data(), model.size());
  ASSERT_EQ(block.SetFlags(kTMemMapped | kTMemCoarse, 0), 0);
  std::vector<std::string> files = scratch.Files();
  ASSERT_EQ(files.size(), 1u);
  const std::string path = files[0];
  ExpectMapped(block, model, path);
  for (int step = 0; step < 300; ++step) {
    size_t size = rng() % 4 == 0 ? rng() % 64 : rng() % 300000;
    ASSERT_EQ(block.SetSize(size), 0);
    model.resize(size, 0);
    if (size != 0) {
      size_t at = rng() % size;
      auto* bytes = static_cast<unsigned char*>(block.MemPtr());
      for (size_t k = at; k < std::min(size, at + 100); ++k) bytes[k] = model[k] = static_cast<uint8_t>(rng());
    }
    ExpectMapped(block, model, path);
  }
  EXPECT_TRUE(block.IsResident());
  EXPECT_EQ(block.ArchiveToFile(), 0);
  EXPECT_EQ(block.MapFromFile(), 0);
  EXPECT_EQ(block.createMapFile(), 0);
  EXPECT_EQ(scratch.Files().size(), 1u);
  // Back to the heap: same contents, no file.
  ASSERT_EQ(block.SetFlags(0, kTMemMapped), 0);
  EXPECT_TRUE(scratch.Files().empty());
  ASSERT_EQ(block.GetSize(), model.size());
  if (!model.empty()) {
    EXPECT_EQ(std::memcmp(block.MemPtr(), model.data(), model.size()), 0);
  }
  // And into a file again through the file operations.
  ASSERT_EQ(block.createMapFile(), 0);
  EXPECT_EQ(block.GetFlags() & kTMemMapped, kTMemMapped);
  ASSERT_EQ(scratch.Files().size(), 1u);
  ExpectMapped(block, model, scratch.Files()[0]);
  ASSERT_EQ(block.deleteMapFile(), 0);
  EXPECT_EQ(block.GetFlags() & kTMemMapped, 0u);
  EXPECT_TRUE(scratch.Files().empty());
}

TEST(TMemoryMappedTest, FileGoesWithItsBlock) {
  ScopedPoolScratch scratch(0);
  {
    TMemory block;
    ASSERT_EQ(block.SetFlags(kTMemMapped, 0), 0);  // empty: a file, no mapping
    ASSERT_EQ(scratch.Files().size(), 1u);
    EXPECT_EQ(block.MemPtr(), nullptr);
    ASSERT_EQ(block.SetSize(5000), 0);
    ASSERT_EQ(block.Reset(), 0);
    EXPECT_EQ(block.GetSize(), 0u);
    EXPECT_EQ(std::filesystem::file_size(scratch.Files().at(0)), 0u);
    ASSERT_EQ(block.SetSize(100), 0);
  }
  EXPECT_TRUE(scratch.Files().empty());
}

TEST(TMemoryMappedTest, LockedOrUnwritableStorageStaysPut) {
  TestHost host;
  TempDir base;
  TMemory block;
  ASSERT_EQ(block.FromString(u"kept"), 0);
  {
    ScopedPoolScratch missing(0, base.path() + "/missing");
    EXPECT_EQ(block.SetFlags(kTMemMapped, 0), kErrNotFound);
    EXPECT_EQ(block.GetFlags(), 0u);
    EXPECT_EQ(host.LinesWithFormat("TMemory::SetFlags: cannot make the mapped file, %E").size(), 1u);
  }
  ScopedPoolScratch scratch(0);
  block.Lock();
  EXPECT_EQ(block.SetFlags(kTMemMapped, 0), kErrInUse);
  block.UnLock();
  ASSERT_EQ(block.SetFlags(kTMemMapped, 0), 0);
  block.Lock();
  EXPECT_EQ(block.SetSize(100000), kErrInUse);
  EXPECT_EQ(block.SetFlags(0, kTMemMapped), kErrInUse);
  EXPECT_EQ(block.GetFlags() & kTMemMapped, kTMemMapped);
  block.UnLock();
  TString text;
  ASSERT_EQ(block.ToString(&text), 0);
  EXPECT_EQ(text, TString(u"kept"));
}

}  // namespace
