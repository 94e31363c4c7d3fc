// TBucketFile against the recording connector: a container saved by a
// ChunkManager into an upload of several parts reads back whole; what an
// upload cannot take is refused and named; reads end as a file's do.
#include "tools/bucket_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "storage/chunk_manager.h"
#include "tests/cloud_testing.h"
#include "tests/test_host.h"

namespace {

constexpr uint32_t kPart = 64 * 1024;
constexpr int kType = 0x44415441;  // DATA
constexpr int kChunks = 6;

struct Rig {
  TestHost host;
  std::shared_ptr<RecordingService> service = std::make_shared<RecordingService>();
  RecordingBucket bucket{TestOptions(), service};

  Rig() {
    bucket.configure = [](TRecordingConn* conn) {
      conn->FixSettings(kPart, 3, 3, 1);
      conn->SetDownloadPartSize(kPart / 2);
    };
  }
};

size_t ChunkSize(int id) { return 50000 + static_cast<size_t>(id); }

// Stores each chunk at once and lets go of it, as plinth pack does.
void StoreChunks(ChunkManager* cm) {
  for (int id = 1; id <= kChunks; ++id) {
    std::vector<uint8_t> bytes = TestBytes(ChunkSize(id), static_cast<uint32_t>(id));
    auto handle = std::make_unique<TMemory>();
    ASSERT_EQ(handle->SetSize(bytes.size()), 0);
    std::memcpy(handle->MemPtr(), bytes.data(), bytes.size());
    ASSERT_EQ(cm->CHAddChunk(handle.get(), kType, id), 0);
    TMemory* lent = handle.release();
    ASSERT_EQ(cm->CHStoreChunk(lent), 0);
    ASSERT_EQ(cm->CHDetachChunk(lent), 0);
    delete lent;
  }
}

TEST(BucketFileThreaded, AContainerSavedIntoSeveralPartsReadsBackWhole) {
  Rig s;
  std::vector<uint8_t> stored;
  {
    TBucketFile file(&s.bucket, "c.pack");
    ASSERT_EQ(file.OpenForWrite(0), 0);
    ChunkManager cm;
    ASSERT_EQ(cm.CHOpenRef(&file), 0);
    StoreChunks(&cm);
    // The save writes the header at offset 0 again, long after part 1 filled.
    ASSERT_EQ(cm.CHSave(kCHSaveNoSync), 0) << file.Refusal();
    ASSERT_EQ(cm.CHClose(), 0);
    EXPECT_FALSE(s.service->GetObject("c.pack", &stored)) << "the object showed before Finish";
    ASSERT_EQ(file.Finish(), 0);
  }
  ASSERT_TRUE(s.service->GetObject("c.pack", &stored));
  EXPECT_GT(stored.size(), 4u * kPart);
  EXPECT_EQ(s.service->Count(RecOp::kStart), 1);

  TBucketFile reader(&s.bucket, "c.pack");
  ASSERT_EQ(reader.OpenForRead(), 0);
  uint64_t length = 0;
  ASSERT_EQ(reader.GetLength(&length), 0);
  EXPECT_EQ(length, stored.size());
  ChunkManager cm;
  // An unsaved marker left in the header would refuse this open (-645).
  ASSERT_EQ(cm.CHOpenRef(&reader), 0);
  EXPECT_EQ(cm.CHVerify(), 0);
  ASSERT_EQ(cm.CHCountChunks(kType), kChunks);
  for (int id = kChunks; id >= 1; --id) {
    TMemory* handle = nullptr;
    ASSERT_EQ(cm.CHGetChunk(kType, id, &handle, 1), 0) << id;
    std::vector<uint8_t> want = TestBytes(ChunkSize(id), static_cast<uint32_t>(id));
    ASSERT_EQ(handle->GetSize(), want.size()) << id;
    EXPECT_EQ(std::memcmp(handle->MemPtr(), want.data(), want.size()), 0) << id;
  }
}

TEST(BucketFileThreaded, WhatAnUploadCannotTakeIsRefusedAndNamed) {
  Rig s;
  TBucketFile file(&s.bucket, "r");
  ASSERT_EQ(file.OpenForWrite(0), 0);
  std::vector<uint8_t> data = TestBytes(3 * kPart, 1);
  uint32_t n = 100;
  // Past the end: the gap reads as zeros.
  ASSERT_EQ(file.WriteAt(10, data.data(), &n), 0);
  EXPECT_EQ(n, 100u);
  n = static_cast<uint32_t>(data.size());
  ASSERT_EQ(file.WriteAt(110, data.data(), &n), 0);
  // Back inside the first part: taken.
  n = 4;
  ASSERT_EQ(file.WriteAt(0, "HEAD", &n), 0);
  EXPECT_EQ(n, 4u);
  // Behind it: refused, naming the offset; nothing else is spoilt.
  n = 4;
  EXPECT_EQ(file.WriteAt(kPart + 5, "late", &n), kErrNotPossible);
  EXPECT_EQ(n, 0u);
  EXPECT_NE(file.Refusal().find(std::to_string(kPart + 5)), std::string::npos) << file.Refusal();
  EXPECT_EQ(file.SetLength(100), kErrNotPossible);
  EXPECT_NE(file.Refusal().find("cannot take back"), std::string::npos) << file.Refusal();
  uint8_t byte = 0;
  n = 1;
  EXPECT_EQ(file.ReadAt(0, &byte, &n), kErrNotPossible);
  uint64_t length = 0;
  ASSERT_EQ(file.GetLength(&length), 0);
  EXPECT_EQ(length, 110 + data.size());
  // A longer length appends zeros.
  ASSERT_EQ(file.SetLength(length + 7), 0);
  ASSERT_EQ(file.Finish(), 0);

  std::vector<uint8_t> want(10, 0);
  std::memcpy(want.data(), "HEAD", 4);
  want.insert(want.end(), data.begin(), data.begin() + 100);
  want.insert(want.end(), data.begin(), data.end());
  want.insert(want.end(), 7, 0);
  std::vector<uint8_t> stored;
  ASSERT_TRUE(s.service->GetObject("r", &stored));
  EXPECT_TRUE(stored == want);
}

TEST(BucketFileThreaded, ReadsEndAsAFileDoesAndADroppedUploadLeavesNothing) {
  Rig s;
  std::vector<uint8_t> bytes = TestBytes(1000, 3);
  s.service->PutObject("obj", bytes);
  TBucketFile reader(&s.bucket, "obj");
  ASSERT_EQ(reader.OpenForRead(), 0);
  uint8_t buffer[100];
  uint32_t n = sizeof buffer;
  EXPECT_EQ(reader.ReadAt(950, buffer, &n), kErrEndOfFile);
  ASSERT_EQ(n, 50u);
  EXPECT_EQ(std::memcmp(buffer, bytes.data() + 950, 50), 0);
  n = 10;
  EXPECT_EQ(reader.ReadAt(1000, buffer, &n), kErrEndOfFile);
  EXPECT_EQ(n, 0u);
  n = 10;
  EXPECT_EQ(reader.WriteAt(0, buffer, &n), kErrNotPossible);
  EXPECT_EQ(reader.SetLength(0), kErrNotPossible);
  TBucketFile missing(&s.bucket, "none");
  EXPECT_EQ(missing.OpenForRead(), kErrNotFound);

  {
    TBucketFile dropped(&s.bucket, "gone");
    ASSERT_EQ(dropped.OpenForWrite(0), 0);
    std::vector<uint8_t> data = TestBytes(3 * kPart, 4);
    n = static_cast<uint32_t>(data.size());
    ASSERT_EQ(dropped.WriteAt(0, data.data(), &n), 0);
  }
  std::vector<uint8_t> stored;
  EXPECT_FALSE(s.service->GetObject("gone", &stored));
  EXPECT_EQ(s.service->Count(RecOp::kAbort), 1);
  EXPECT_EQ(s.service->OpenUploads(), 0);
}

}  // namespace
