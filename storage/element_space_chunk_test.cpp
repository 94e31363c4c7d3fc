#include "storage/element_space_chunk.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

constexpr int kSpaceType = 0x4C6D7350;  // "LmsP"

std::vector<unsigned char> Image(ElementSpace& space) {
  auto* p = static_cast<unsigned char*>(space.MemPtr());
  return std::vector<unsigned char>(p, p + space.GetSize());
}

class ElementSpaceChunkTest : public ::testing::Test {
 protected:
  void SetUp() override { m_loc = TFileLoc(TFolderLoc(TStringFromUTF8(m_dir.path())), TString(u"spaces.chk")); }
  int Open(ChunkManager* cm) { return cm->CHOpen(&m_loc, kFileOpenReadWriteCreate); }

  TempDir m_dir;
  TFileLoc m_loc;
};

TEST_F(ElementSpaceChunkTest, StoreSaveReopenLoad) {
  ElementSpace first(0, 0);
  for (int i = 0; i < 300; ++i) {
    std::string s(static_cast<size_t>(i % 50), static_cast<char>('a' + i % 26));
    ASSERT_GT(first.LmAdd(s.data(), static_cast<int>(s.size())), 0);
  }
  for (int n = 1; n <= 300; n += 7) first.LmRemove(n);
  first.LmMark(2);
  ElementSpace second(0, 1);
  second.LmAdd("only", 4);
  std::vector<unsigned char> firstImage = Image(first);
  {
    ChunkManager cm;
    ASSERT_EQ(Open(&cm), 0);
    ASSERT_EQ(LmStoreChunk(cm, first, kSpaceType, 1), 0);
    ASSERT_EQ(LmStoreChunk(cm, second, kSpaceType, 2), 0);
    ASSERT_EQ(cm.CHSave(0), 0);
    // Replacing a stored space: change it and store it under the same id.
    second.LmAdd("more", 4);
    ASSERT_EQ(LmStoreChunk(cm, second, kSpaceType, 2), 0);
    EXPECT_EQ(cm.CHCountChunks(kSpaceType), 2);
    ASSERT_EQ(cm.CHSave(0), 0);
    ASSERT_EQ(cm.CHClose(), 0);
  }
  ChunkManager cm;
  ASSERT_EQ(Open(&cm), 0);
  ElementSpace loaded(0, 0);
  ASSERT_EQ(LmLoadChunk(cm, kSpaceType, 1, &loaded), 0);
  EXPECT_EQ(Image(loaded), firstImage);
  EXPECT_EQ(loaded.LmValid(), 0);
  for (int n = 1; n <= 300; ++n) {
    ASSERT_EQ(loaded.LmSize(n), first.LmSize(n));
    if (first.LmTest(n) != 0) {
      EXPECT_EQ(std::memcmp(loaded.LmGet(n), first.LmGet(n), static_cast<size_t>(first.LmSize(n))), 0);
    }
  }
  ASSERT_EQ(LmLoadChunk(cm, kSpaceType, 2, &loaded), 0);
  EXPECT_EQ(Image(loaded), Image(second));
  EXPECT_EQ(loaded.LmCount(), 2);
  EXPECT_EQ(std::string(loaded.LmGet(2), 4), "more");
}

TEST_F(ElementSpaceChunkTest, LockedSpacesLoadUnlockedAndBigEndianStaysBig) {
  ElementSpace space(0, 0);
  space.LmAdd("abc", 3);
  ASSERT_EQ(space.LmLock(), 0);
  ChunkManager cm;
  ASSERT_EQ(Open(&cm), 0);
  ASSERT_EQ(LmStoreChunk(cm, space, kSpaceType, 1), 0);
  space.LmUnlock();

  // A big-endian block: a one-element space written by hand.
  std::vector<unsigned char> big(1108, 0);
  auto put = [&](uint32_t at, uint32_t v) {
    big[at] = static_cast<unsigned char>(v >> 24);
    big[at + 1] = static_cast<unsigned char>(v >> 16);
    big[at + 2] = static_cast<unsigned char>(v >> 8);
    big[at + 3] = static_cast<unsigned char>(v);
  };
  put(0, kLmMagic);
  put(4, 0x01000100);
  put(16, 1108 - 8);
  put(20, 1108);
  put(24, 1);
  put(32, 3);  // stored while locked
  put(44, 1);
  put(72, 1);
  put(80, 1108 - 8);
  put(1100, 2);
  big[1104] = 'h';
  big[1105] = 'i';
  auto handle = std::make_unique<TMemory>();
  handle->SetSize(big.size());
  std::memcpy(handle->MemPtr(), big.data(), big.size());
  ASSERT_EQ(cm.CHAddChunk(handle.release(), kSpaceType, 2), 0);

  ElementSpace loaded(0, 0);
  ASSERT_EQ(LmLoadChunk(cm, kSpaceType, 1, &loaded), 0);
  EXPECT_EQ(loaded.LmAdd("d", 1), 2);  // unlocked after loading
  ASSERT_EQ(LmLoadChunk(cm, kSpaceType, 2, &loaded), 0);
  EXPECT_TRUE(loaded.LmIsBE());
  EXPECT_EQ(loaded.LmValidBE(), 0);
  EXPECT_EQ(loaded.LmSizeBE(1), 2);
  EXPECT_EQ(std::string(loaded.LmGetBE(1), 2), "hi");
  EXPECT_EQ(loaded.LmLockBE(), 0);
  EXPECT_EQ(loaded.LmUnlockBE(), 0);
  ASSERT_EQ(loaded.LmFromBE(), 0);
  EXPECT_EQ(loaded.LmValid(), 0);
  EXPECT_EQ(std::string(loaded.LmGet(1), 2), "hi");
}

TEST_F(ElementSpaceChunkTest, RefusesWhatIsNotASpace) {
  ChunkManager cm;
  ASSERT_EQ(Open(&cm), 0);
  auto handle = std::make_unique<TMemory>();
  handle->SetSize(2000);
  std::memset(handle->MemPtr(), 0x5A, 2000);
  ASSERT_EQ(cm.CHAddChunk(handle.release(), kSpaceType, 7), 0);

  ElementSpace space(0, 0);
  space.LmAdd("keep", 4);
  std::vector<unsigned char> before = Image(space);
  TestHost host;
  EXPECT_EQ(LmLoadChunk(cm, kSpaceType, 7, &space), kErrInvalidData);
  EXPECT_EQ(host.LinesWithFormat("LmLoadChunk: chunk %Y/%~d is not an element space, %E").size(), 1u);
  EXPECT_EQ(Image(space), before);
  host.Clear();
  EXPECT_LT(LmLoadChunk(cm, kSpaceType, 8, &space), 0);
  EXPECT_EQ(host.LinesWithFormat("LmLoadChunk: can't read chunk %Y/%~d, %E").size(), 1u);
  EXPECT_EQ(LmLoadChunk(cm, kSpaceType, 7, nullptr), kErrBadParameter);
  // A locked space is not replaced.
  space.LmLock();
  host.Clear();
  EXPECT_EQ(LmLoadChunk(cm, kSpaceType, 7, &space), kErrInUse);
  EXPECT_EQ(host.Lines().size(), 1u);
  space.LmUnlock();
  // A closed manager refuses the store.
  ChunkManager closed;
  EXPECT_LT(LmStoreChunk(closed, space, kSpaceType, 1), 0);
}

}  // namespace
