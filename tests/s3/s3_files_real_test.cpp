// The cloud write and read files through the bucket against the real
// server: many parts on several threads each way, compared by SHA-1.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cloud/tcloudbucket.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "tests/s3/s3_fixture.h"

namespace {

class S3FilesThreaded : public S3Fixture {
 protected:
  void SetUp() override {
    host.SetIni("Options", "CloudMaxTransferMB", "5");  // the service's least part
    host.SetIni("Options", "CloudUploadThreads", "4");
    host.SetIni("Options", "CloudDownloadThreads", "3");
    host.SetIni("Options", "CloudDownloadPartSizeTier", "1");  // 4 MiB ranges
    S3Fixture::SetUp();
  }
};

TEST_F(S3FilesThreaded, ManyPartsUpAndDownOnSeveralThreads) {
  constexpr size_t kSize = 37 * 1048576 + 12345;  // 8 parts up, 10 ranges down
  std::vector<uint8_t> data = TestBytes(kSize, 17);
  const std::string want = PeerSha1(data.data(), data.size());
  TCloudBucket bucket(Options(), nullptr, nullptr, 3, 3);
  ASSERT_EQ(bucket.OpenFileForWrite(TString(u"big.bin")), 0);
  for (size_t at = 0; at < kSize; at += 1000003) {
    ASSERT_EQ(bucket.WriteToFile(data.data() + at, std::min<size_t>(1000003, kSize - at)), 0);
  }
  ASSERT_EQ(bucket.CloseFile(), 0);
  int parts = 0;
  for (const LoggedLine& line : host.Lines()) {
    if (line.text.rfind("TS3Conn::s3_v4_authorization:canonicalRequest:PUT\n", 0) == 0 &&
        line.text.find("partNumber=") != std::string::npos) {
      ++parts;
    }
  }
  EXPECT_EQ(parts, 8);

  // In order, through the read file, in pieces that straddle the ranges.
  std::vector<uint8_t> back(kSize);
  uint64_t at = 0, got = 0;
  while (at < kSize) {
    ASSERT_EQ(bucket.ReadFile(TString(u"big.bin"), at, back.data() + at, 777777, &got), 0) << at;
    at += got;
  }
  EXPECT_EQ(PeerSha1(back.data(), back.size()), want);
  EXPECT_EQ(bucket.ReadFile(TString(u"big.bin"), kSize, back.data(), 1, &got), kErrEndOfFile);

  // Whole, into a memory block; and a range across two ranges.
  TMemory memory;
  ASSERT_EQ(bucket.ReadToTMemory(TString(u"big.bin"), &memory), 0);
  ASSERT_EQ(memory.GetSize(), kSize);
  EXPECT_EQ(PeerSha1(static_cast<const uint8_t*>(memory.MemPtr()), kSize), want);
  ASSERT_EQ(bucket.ReadToTMemory(TString(u"big.bin"), &memory, 4194000, 1000), 0);
  EXPECT_EQ(PeerSha1(static_cast<const uint8_t*>(memory.MemPtr()), 1000), PeerSha1(data.data() + 4194000, 1000));
}

TEST_F(S3FilesThreaded, WritesWithDatesAndAStorageGroupFile) {
  TCloudOptions options = Options();
  TCloudBucket bucket(options, nullptr, nullptr, 2, 2);
  TCloudMetaData meta;
  meta.SetStringValue(eCloudMetaCreated, "2024-01-02T03:04:05.00+0000");
  ASSERT_EQ(bucket.OpenFileForWrite(TString(u"small"), &meta), 0);
  ASSERT_EQ(bucket.WriteToFile("hello", 5), 0);
  ASSERT_EQ(bucket.CloseFile(), 0);
  TCloudMetaData back;
  ASSERT_EQ(bucket.ObjectExists(TString(u"small"), &back, false), 0);
  EXPECT_EQ(back.GetValue(eCloudMetaCreated), "2024-01-02T03:04:05.00+0000");
  ASSERT_EQ(bucket.CreateCloudStorageGroupFile(TString(u"office")), 0);
  TMemory text;
  ASSERT_EQ(bucket.ReadToTMemory(TString(u"storagegroup.ini"), &text), 0);
  std::string body(static_cast<const char*>(text.MemPtr()), text.GetSize());
  EXPECT_NE(body.find("Name=\"office\""), std::string::npos) << body;
  EXPECT_EQ(body.find("S3RVER"), std::string::npos);
  EXPECT_EQ(bucket.Verify(), 0);
  ASSERT_EQ(bucket.DeleteCloudObject(TString(u"small")), 0);
  ASSERT_EQ(bucket.Erase(TString()), 0);
  std::vector<TCloudObject> left;
  ASSERT_EQ(bucket.GetAllObjectsInPath(TString(), left, true, nullptr), 0);
  EXPECT_TRUE(left.empty());
}

}  // namespace
