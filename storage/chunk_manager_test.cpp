#include "storage/chunk_manager.h"

#include <gtest/gtest.h>

#include <cstdio>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "storage/chunk_cipher.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

constexpr int kData = 0x44415441;  // "DATA"
constexpr int kText = 0x54455854;  // "TEXT"

TMemory* Bytes(const std::string& text) {
  auto* memory = new TMemory;
  memory->SetSize(text.size());
  if (!text.empty()) std::memcpy(memory->MemPtr(), text.data(), text.size());
  return memory;
}

std::string Read(ChunkManager* cm, int type, int id) {
  TMemory* handle = nullptr;
  if (cm->CHGetChunk(type, id, &handle, 1) != 0) return "<missing>";
  return std::string(static_cast<const char*>(handle->MemPtr()), handle->GetSize());
}

class ChunkManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { m_loc = TFileLoc(TFolderLoc(TStringFromUTF8(m_dir.path())), TString(u"c.chk")); }

  int Open(ChunkManager* cm, int mode = kFileOpenReadWriteCreate) { return cm->CHOpen(&m_loc, mode); }

  // The entries of the free group as (address, length).
  static std::vector<std::pair<int64_t, int64_t>> FreeExtents(const ChunkManager& cm) {
    std::vector<std::pair<int64_t, int64_t>> out;
    for (int i = 0; i < cm.GetMapCount(); ++i) {
      const CHMapEntrySpec& e = cm.GetMapEntries()[i];
      if (e.type == kCHFreeType && e.address != kCHGroupHeadAddress) {
        out.emplace_back(e.address, static_cast<int64_t>(e.id));
      }
    }
    return out;
  }

  TempDir m_dir;
  TFileLoc m_loc;
};

TEST_F(ChunkManagerTest, NewContainerSavesEmptyHeader) {
  ChunkManager cm;
  ASSERT_EQ(Open(&cm), 0);
  ASSERT_EQ(cm.CHSave(0), 0);
  const CHFileHeaderSpec& h = cm.GetFileHeader();
  EXPECT_EQ(h.unsaved, 0u);
  EXPECT_EQ(h.dataStart, 512u);
  EXPECT_EQ(cm.CHCountTypes(), 0);
  EXPECT_EQ(cm.CHVerify(), 0);
}

TEST_F(ChunkManagerTest, GroupsCountsAndEnumeration) {
  ChunkManager cm;
  ASSERT_EQ(Open(&cm), 0);
  ASSERT_EQ(cm.CHAddChunk(Bytes("b"), kText, 7), 0);
  // The first chunk of a type brings its group head.
  EXPECT_EQ(cm.GetMapCount(), 2);
  ASSERT_EQ(cm.CHAddChunk(Bytes("a"), kData, 3), 0);
  ASSERT_EQ(cm.CHAddChunk(Bytes("c"), kData, 1), 0);
  EXPECT_EQ(cm.GetMapCount(), 5);
  EXPECT_EQ(cm.CHCountTypes(), 2);
  EXPECT_EQ(cm.CHEnumType(1), kData);
  EXPECT_EQ(cm.CHEnumType(2), kText);
  EXPECT_EQ(cm.CHEnumType(3), 0);
  EXPECT_EQ(cm.CHCountChunks(kData), 2);
  EXPECT_EQ(cm.CHEnumChunk(kData, 1), 1);
  EXPECT_EQ(cm.CHEnumChunk(kData, 2), 3);
  EXPECT_EQ(cm.CHUniqueID(kData, 1), 4);
  EXPECT_EQ(cm.CHUniqueID(kData, 2), 2);
  TestHost host;
  TMemory* dup = Bytes("x");
  EXPECT_EQ(cm.CHAddChunk(dup, kData, 3), kErrCHDuplicate);
  delete dup;
  EXPECT_EQ(host.LinesWithFormat("chMapInsert: duplicate ID, type %Y, id = %Y").size(), 1u);
  ASSERT_EQ(cm.CHSave(0), 0);
  EXPECT_EQ(cm.CHVerify(), 0);
  ASSERT_EQ(cm.CHClose(), 0);

  ChunkManager again;
  ASSERT_EQ(Open(&again, kFileOpenRead), 0);
  EXPECT_EQ(Read(&again, kData, 1), "c");
  EXPECT_EQ(Read(&again, kData, 3), "a");
  EXPECT_EQ(Read(&again, kText, 7), "b");
  // Saved, the map has its own group, counted and listed like the others
  // (the free group is not).
  EXPECT_EQ(again.CHCountTypes(), 3);
  EXPECT_EQ(static_cast<uint32_t>(again.CHEnumType(1)), kCHMapType);  // "ChMp" sorts first
  EXPECT_EQ(again.CHCountChunks(static_cast<int>(kCHMapType)), 1);
  EXPECT_EQ(again.CHVerify(), 0);
}

TEST_F(ChunkManagerTest, FreedSlotsAreReusedAfterTheSaveThatFreedThem) {
  ChunkManager cm;
  ASSERT_EQ(Open(&cm), 0);
  for (int id = 1; id <= 4; ++id) ASSERT_EQ(cm.CHAddChunk(Bytes(std::string(100, 'a' + id)), kData, id), 0);
  ASSERT_EQ(cm.CHSave(0), 0);
  int64_t a2 = 0, a3 = 0, len = 0;
  ASSERT_EQ(cm.CHPhysInfo(kData, 2, &a2, &len), 0);
  ASSERT_EQ(cm.CHPhysInfo(kData, 3, &a3, nullptr), 0);
  EXPECT_EQ(len, 164);
  TMemory* two = nullptr;
  TMemory* three = nullptr;
  ASSERT_EQ(cm.CHGetChunk(kData, 2, &two, 1), 0);
  ASSERT_EQ(cm.CHGetChunk(kData, 3, &three, 1), 0);
  ASSERT_EQ(cm.CHRemoveChunk(two), 0);
  ASSERT_EQ(cm.CHRemoveChunk(three), 0);
  delete two;
  delete three;
  ASSERT_EQ(cm.CHSave(0), 0);
  // Two adjacent extents, merged by the next search that finds no fit
  // before them.
  auto extents = FreeExtents(cm);
  ASSERT_GE(extents.size(), 2u);
  ASSERT_EQ(cm.CHAddChunk(Bytes(std::string(200, 'z')), kData, 9), 0);
  ASSERT_EQ(cm.CHSave(0), 0);
  int64_t a9 = 0;
  ASSERT_EQ(cm.CHPhysInfo(kData, 9, &a9, &len), 0);
  EXPECT_EQ(a9, a2);
  EXPECT_EQ(cm.CHVerify(), 0);
  EXPECT_EQ(Read(&cm, kData, 9), std::string(200, 'z'));
}

TEST_F(ChunkManagerTest, RevertAndCloseKeepTheSavedState) {
  {
    ChunkManager cm;
    ASSERT_EQ(Open(&cm), 0);
    ASSERT_EQ(cm.CHAddChunk(Bytes("saved"), kData, 1), 0);
    ASSERT_EQ(cm.CHSave(0), 0);
    TMemory* h = nullptr;
    ASSERT_EQ(cm.CHGetChunk(kData, 1, &h, 1), 0);
    ASSERT_EQ(h->SetSize(3000), 0);
    ASSERT_EQ(cm.CHChangedChunk(h), 0);
    ASSERT_EQ(cm.CHStoreChunk(h), 0);
    ASSERT_EQ(cm.CHAddChunk(Bytes("new"), kData, 2), 0);
    ASSERT_EQ(cm.CHRevert(), 0);
    EXPECT_EQ(cm.CHCountChunks(kData), 1);
    EXPECT_EQ(Read(&cm, kData, 1), "saved");
    EXPECT_EQ(cm.CHVerify(), 0);
    ASSERT_EQ(cm.CHGetChunk(kData, 1, &h, 1), 0);
    ASSERT_EQ(h->SetSize(5000), 0);
    ASSERT_EQ(cm.CHChangedChunk(h), 0);
    ASSERT_EQ(cm.CHStoreChunk(h), 0);
  }
  ChunkManager cm;
  ASSERT_EQ(Open(&cm, kFileOpenRead), 0);
  EXPECT_EQ(Read(&cm, kData, 1), "saved");
  EXPECT_EQ(cm.CHVerify(), 0);
}

TEST_F(ChunkManagerTest, HandlesTheManagerDoesNotKnowAreRefused) {
  ChunkManager cm;
  ASSERT_EQ(Open(&cm), 0);
  TMemory stranger;
  TestHost host;
  EXPECT_EQ(cm.CHDetachChunk(&stranger), kErrInvalidHandle);
  EXPECT_EQ(cm.CHLoadChunk(&stranger), kErrInvalidHandle);
  EXPECT_EQ(cm.CHGetInfo(&stranger, nullptr, nullptr), kErrInvalidHandle);
  EXPECT_EQ(cm.CHSetInfo(&stranger, 1, 1), kErrInvalidHandle);
  EXPECT_EQ(cm.CHRemoveChunk(&stranger), kErrInvalidHandle);
  EXPECT_EQ(cm.CHChangedChunk(&stranger), kErrInvalidHandle);
  EXPECT_EQ(cm.CHStoreChunk(&stranger), kErrInvalidHandle);
  EXPECT_EQ(cm.CHSetInfo(&stranger, -2, 1), kErrBadParameter);
  for (const char* line :
       {"CHDetachChunk: handle doesn't refer to a chunk, %E", "CHLoadChunk: handle doesn't refer to a chunk, %E",
        "CHGetInfo: handle doesn't refer to a chunk, %E", "CHSetInfo: handle doesn't refer to a chunk",
        "CHRemoveChunk: handle doesn't refer to a chunk", "CHChangedChunk: handle doesn't refer to a chunk",
        "CHStoreChunk: handle doesn't refer to a chunk", "CHSetInfo: can't set negative type, %Y"}) {
    EXPECT_EQ(host.LinesWithFormat(line).size(), 1u) << line;
  }
}

TEST_F(ChunkManagerTest, BestFitTakesTheLowerAddressAndSwallowsTinyLeftovers) {
  ChunkManager cm;
  ASSERT_EQ(Open(&cm), 0);
  for (int id = 1; id <= 6; ++id) ASSERT_EQ(cm.CHAddChunk(Bytes(std::string(100, 'a')), kData, id), 0);
  ASSERT_EQ(cm.CHSave(0), 0);
  int64_t address[7] = {};
  for (int id = 1; id <= 6; ++id) ASSERT_EQ(cm.CHPhysInfo(kData, id, &address[id], nullptr), 0);
  for (int id : {2, 4, 5}) {
    TMemory* h = nullptr;
    ASSERT_EQ(cm.CHGetChunk(kData, id, &h, 0), 0);
    ASSERT_EQ(cm.CHRemoveChunk(h), 0);
    delete h;
  }
  ASSERT_EQ(cm.CHSave(0), 0);
  // 98 bytes need 162 of the 164-byte extents: the lower one is taken
  // whole, its 2 spare bytes becoming slack rather than an extent. (Stored
  // at once, so no map placement searches in between.)
  TMemory* seven = Bytes(std::string(98, 'n'));
  ASSERT_EQ(cm.CHAddChunk(seven, kData, 7), 0);
  ASSERT_EQ(cm.CHStoreChunk(seven), 0);
  int64_t at = 0, slot = 0;
  ASSERT_EQ(cm.CHPhysInfo(kData, 7, &at, &slot), 0);
  EXPECT_EQ(at, address[2]);
  EXPECT_EQ(slot, 164);
  // A fit was found before 4 and 5, so they were not merged in that pass.
  auto extents = FreeExtents(cm);
  EXPECT_NE(std::find(extents.begin(), extents.end(), std::make_pair(address[4], int64_t{164})), extents.end());
  EXPECT_NE(std::find(extents.begin(), extents.end(), std::make_pair(address[5], int64_t{164})), extents.end());
  // Nothing before them fits 250 bytes: they merge and serve it.
  TMemory* eight = Bytes(std::string(250, 'm'));
  ASSERT_EQ(cm.CHAddChunk(eight, kData, 8), 0);
  ASSERT_EQ(cm.CHStoreChunk(eight), 0);
  ASSERT_EQ(cm.CHPhysInfo(kData, 8, &at, &slot), 0);
  EXPECT_EQ(at, address[4]);
  EXPECT_EQ(slot, 316);
  ASSERT_EQ(cm.CHSave(0), 0);
  EXPECT_EQ(cm.CHVerify(), 0);
  EXPECT_EQ(Read(&cm, kData, 7), std::string(98, 'n'));
}

TEST_F(ChunkManagerTest, ConfigurationChunksAreStoredEncrypted) {
  const std::string secret = "password=hunter2; schedule=daily";
  const int config = static_cast<int>(kCHConfigTypeA);
  {
    ChunkManager cm;
    ASSERT_EQ(Open(&cm), 0);
    cm.CHSetEncryptConfigs(1);
    ASSERT_EQ(cm.CHAddChunk(Bytes(secret), config, 1), 0);
    ASSERT_EQ(cm.CHAddChunk(Bytes(secret), kData, 1), 0);
    TestHost host;
    EXPECT_EQ(cm.CHSave(0), kErrEncryption);
    EXPECT_EQ(host.LinesWithFormat("ChunkManager::chWriteChunk: encryption is required but password is invalid").size(), 1u);
    cm.CHSetConfigPassword(u"correct horse");
    ASSERT_EQ(cm.CHSave(0), 0);
    auto sizes = host.LinesWithFormat(
        "ChunkManager::chWriteChunk: initial data size %ld, encrypted size %ld, cipherAdjustment %ld");
    ASSERT_EQ(sizes.size(), 1u);
    EXPECT_EQ(sizes[0].selector, 516u);
    EXPECT_EQ(cm.CHChunkSize(config, 1), static_cast<int64_t>(secret.size() + kCHCipherAdjustment));
  }
  std::string file;
  {
    FILE* f = std::fopen(TStringAsString(m_loc.GetFullPath()).c_str(), "rb");
    ASSERT_NE(f, nullptr);
    char buffer[4096];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof(buffer), f)) > 0) file.append(buffer, n);
    std::fclose(f);
  }
  // The plain chunk shows its text; the configuration chunk does not.
  EXPECT_EQ(file.find(secret), file.rfind(secret));
  EXPECT_NE(file.find(secret), std::string::npos);

  ChunkManager cm;
  ASSERT_EQ(Open(&cm, kFileOpenRead), 0);
  TestHost host;
  TMemory* h = nullptr;
  EXPECT_EQ(cm.CHGetChunk(config, 1, &h, 1), kErrEncryption);
  EXPECT_EQ(host.LinesWithFormat("ChunkManager::chReadChunk: data is encrypted but password is invalid").size(), 1u);
  cm.CHSetConfigPassword(u"wrong horse");
  EXPECT_EQ(cm.CHGetChunk(config, 1, &h, 1), kErrEncryption);
  auto failed = host.LinesWithFormat("ChunkManager::chReadChunk: some config data could not be decrypted");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].selector, 515u);
  cm.CHSetConfigPassword(u"correct horse");
  EXPECT_EQ(Read(&cm, config, 1), secret);
  EXPECT_EQ(host.LinesWithFormat("ChunkManager::chReadChunk: amount to decrypt %ld").size(), 2u);
  EXPECT_EQ(cm.CHVerify(), 0);
}

}  // namespace
