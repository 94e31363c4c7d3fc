// The write file's held first part: rewritten in place until Close, sent
// last, refused outside its bytes, and aborted like any other part.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cloud/tcloudbucket.h"
#include "foundation/errors.h"
#include "tests/cloud_testing.h"
#include "tests/test_host.h"

namespace {

constexpr uint32_t kPart = 64 * 1024;

struct HeadRig {
  TestHost host;
  std::shared_ptr<RecordingService> service = std::make_shared<RecordingService>();
  RecordingBucket bucket{TestOptions(), service};

  HeadRig() {
    bucket.configure = [](TRecordingConn* conn) { conn->FixSettings(kPart, 3, 3, 2); };
  }
};

// The part numbers uploaded so far, once at least `atLeast` are (or after
// five seconds).
std::vector<uint32_t> UploadedParts(const RecordingService& service, size_t atLeast) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  std::vector<uint32_t> parts;
  do {
    parts.clear();
    for (const RecordedCall& call : service.Calls()) {
      if (call.op == RecOp::kUpload) parts.push_back(call.part);
    }
    if (parts.size() >= atLeast) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  } while (std::chrono::steady_clock::now() < deadline);
  return parts;
}

void Patch(std::vector<uint8_t>* data, size_t offset, const char* text) {
  std::memcpy(data->data() + offset, text, std::strlen(text));
}

TEST(CloudWriteFileHeadThreaded, RewritesOfThePartLandInTheObjectWhichSendsItAtClose) {
  for (size_t size : {size_t{100}, size_t{kPart}, size_t{5 * kPart + 3}}) {
    HeadRig s;
    std::vector<uint8_t> data = TestBytes(size, static_cast<uint32_t>(size));
    ASSERT_EQ(s.bucket.OpenFileForWrite(TString(u"c"), nullptr, 0, true), 0);
    ASSERT_EQ(s.bucket.WriteToFile(data.data(), 40), 0);
    // Rewritten while part 1 is still the buffer being filled...
    ASSERT_EQ(s.bucket.RewriteFile(0, "HEAD", 4), 0);
    Patch(&data, 0, "HEAD");
    ASSERT_EQ(s.bucket.WriteToFile(data.data() + 40, size - 40), 0);
    // ...and again once later parts went out, up to its last byte.
    size_t last = std::min<size_t>(size, kPart) - 3;
    ASSERT_EQ(s.bucket.RewriteFile(8, "again", 5), 0);
    ASSERT_EQ(s.bucket.RewriteFile(last, "END", 3), 0);
    Patch(&data, 8, "again");
    Patch(&data, last, "END");
    size_t parts = (size + kPart - 1) / kPart;
    // Every full part but the first goes out before Close; the first must
    // not be among them.
    std::vector<uint32_t> early = UploadedParts(*s.service, parts > 2 ? parts - 2 : 0);
    EXPECT_EQ(std::count(early.begin(), early.end(), 1u), 0) << size;
    ASSERT_EQ(s.bucket.CloseFile(), 0) << size;

    std::vector<uint8_t> stored;
    ASSERT_TRUE(s.service->GetObject("c", &stored)) << size;
    EXPECT_TRUE(stored == data) << size;
    std::vector<uint32_t> sent = UploadedParts(*s.service, parts);
    ASSERT_EQ(sent.size(), parts) << size;
    // A single upload is recorded as part 0.
    uint32_t first = parts > 1 ? 1 : 0;
    EXPECT_EQ(std::count(sent.begin(), sent.end(), first), 1) << size;
    EXPECT_EQ(s.service->Count(RecOp::kStart), parts > 1 ? 1 : 0) << size;
    EXPECT_EQ(s.service->OpenUploads(), 0);
  }
}

TEST(CloudWriteFileHeadThreaded, RewritesOutsideTheHeldBytesAreRefused) {
  HeadRig s;
  std::vector<uint8_t> data = TestBytes(3 * kPart + 5, 3);
  ASSERT_EQ(s.bucket.OpenFileForWrite(TString(u"c"), nullptr, 0, true), 0);
  ASSERT_EQ(s.bucket.WriteToFile(data.data(), 10), 0);
  // Past what was written, though inside the part.
  EXPECT_EQ(s.bucket.RewriteFile(8, "abc", 3), kErrNotPossible);
  ASSERT_EQ(s.bucket.WriteToFile(data.data() + 10, data.size() - 10), 0);
  // Straddling into part 2, and wholly behind part 1.
  EXPECT_EQ(s.bucket.RewriteFile(kPart - 2, "abc", 3), kErrNotPossible);
  EXPECT_EQ(s.bucket.RewriteFile(kPart + 7, "a", 1), kErrNotPossible);
  EXPECT_EQ(s.bucket.RewriteFile(UINT64_MAX, "a", 1), kErrNotPossible);
  // A refusal changes nothing and does not spoil the stream.
  ASSERT_EQ(s.bucket.CloseFile(), 0);
  std::vector<uint8_t> stored;
  ASSERT_TRUE(s.service->GetObject("c", &stored));
  EXPECT_TRUE(stored == data);
  EXPECT_EQ(s.bucket.RewriteFile(0, "a", 1), kErrNotPossible) << "no file is open";
}

TEST(CloudWriteFileHeadThreaded, WithoutHoldingNothingCanBeRewritten) {
  HeadRig s;
  std::vector<uint8_t> data = TestBytes(2 * kPart + 1, 4);
  ASSERT_EQ(s.bucket.OpenFileForWrite(TString(u"c")), 0);
  ASSERT_EQ(s.bucket.WriteToFile(data.data(), 100), 0);
  EXPECT_EQ(s.bucket.RewriteFile(0, "x", 1), kErrNotPossible);
  ASSERT_EQ(s.bucket.WriteToFile(data.data() + 100, data.size() - 100), 0);
  ASSERT_EQ(s.bucket.CloseFile(), 0);
  std::vector<uint8_t> stored;
  ASSERT_TRUE(s.service->GetObject("c", &stored));
  EXPECT_TRUE(stored == data);
}

TEST(CloudWriteFileHeadThreaded, AFailedPartOrADroppedFileLeavesNoObject) {
  for (bool drop : {false, true}) {
    HeadRig s;
    if (!drop) {
      FaultRule bad;
      bad.op = RecOp::kUpload;
      bad.part = 3;
      bad.code = kErrAccessDenied;
      s.service->AddFault(bad);
    }
    std::vector<uint8_t> data = TestBytes(6 * kPart, 5);
    ASSERT_EQ(s.bucket.OpenFileForWrite(TString(u"c"), nullptr, 0, true), 0);
    int code = s.bucket.WriteToFile(data.data(), data.size());
    if (drop) {
      ASSERT_EQ(code, 0);
      EXPECT_EQ(s.bucket.DeleteWriteBuf(), 0);
    } else {
      int closed = s.bucket.CloseFile();
      EXPECT_EQ(code == 0 ? closed : code, kErrAccessDenied);
    }
    std::vector<uint8_t> stored;
    EXPECT_FALSE(s.service->GetObject("c", &stored)) << drop;
    EXPECT_EQ(s.service->Count(RecOp::kAbort), 1) << drop;
    EXPECT_EQ(s.service->OpenUploads(), 0) << drop;
    if (!drop) continue;
    for (const RecordedCall& call : s.service->Calls()) {
      EXPECT_FALSE(call.op == RecOp::kUpload && call.part == 1) << "the held part was sent for a dropped upload";
    }
  }
}

}  // namespace
