// The cloud write file against the recording connector: stored bytes,
// part order, retries, aborts, cancellation and the memory bound.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "cloud/cloud_write_file.h"
#include "cloud/tcloudbucket.h"
#include "foundation/errors.h"
#include "foundation/memory.h"
#include "tests/cloud_testing.h"
#include "tests/test_host.h"

namespace {

constexpr uint32_t kPart = 64 * 1024;

struct Rig {
  std::shared_ptr<RecordingService> service = std::make_shared<RecordingService>();
  std::unique_ptr<RecordingBucket> bucket;

  explicit Rig(uint32_t threads = 3, unsigned attempts = 3, TCloudProgressFn progress = nullptr,
                 void* context = nullptr) {
    bucket = std::make_unique<RecordingBucket>(TestOptions(), service, attempts, attempts, progress, context);
    bucket->configure = [threads](TRecordingConn* conn) { conn->FixSettings(kPart, threads, threads, 2); };
  }
};

// Writes `data` in pieces of random sizes (some spanning several parts).
int WriteInPieces(TCloudBucket* bucket, const std::vector<uint8_t>& data, uint32_t seed) {
  std::mt19937 rng(seed);
  size_t at = 0;
  while (at < data.size()) {
    size_t n = std::min<size_t>(data.size() - at, rng() % (3 * kPart));
    int code = bucket->WriteToFile(data.data() + at, n);
    if (code != 0) return code;
    at += n;
  }
  return 0;
}

TEST(CloudWriteFileThreaded, StreamsRoundTripAsOneUploadOrAsParts) {
  const size_t sizes[] = {0, 1, kPart - 1, kPart, kPart + 1, 2 * kPart, 5 * kPart + 3, 23 * kPart + 777};
  for (size_t size : sizes) {
    Rig s;
    std::vector<uint8_t> data = TestBytes(size, static_cast<uint32_t>(size));
    ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"dir/obj")), 0);
    ASSERT_EQ(WriteInPieces(s.bucket.get(), data, static_cast<uint32_t>(size)), 0) << size;
    ASSERT_EQ(s.bucket->CloseFile(), 0) << size;
    std::vector<uint8_t> stored;
    ASSERT_TRUE(s.service->GetObject("dir/obj", &stored)) << size;
    EXPECT_TRUE(stored == data) << size;
    bool multipart = size > kPart;
    EXPECT_EQ(s.service->Count(RecOp::kStart), multipart ? 1 : 0) << size;
    EXPECT_EQ(s.service->Count(RecOp::kUpload), multipart ? static_cast<int>((size + kPart - 1) / kPart) : 1);
    EXPECT_EQ(s.service->OpenUploads(), 0);
    EXPECT_EQ(s.service->Count(RecOp::kAbort), 0);
  }
}

TEST(CloudWriteFileThreaded, PartsCompleteInNumberOrderWhateverOrderTheyFinish) {
  Rig s(4);
  // Earlier parts finish last.
  for (uint32_t part = 1; part <= 4; ++part) {
    FaultRule slow;
    slow.op = RecOp::kUpload;
    slow.part = part;
    slow.delayMs = 40 * (5 - part);
    s.service->AddFault(slow);
  }
  std::vector<uint8_t> data = TestBytes(9 * kPart + 10, 7);
  ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj")), 0);
  ASSERT_EQ(s.bucket->WriteToFile(data.data(), data.size()), 0);
  ASSERT_EQ(s.bucket->CloseFile(), 0);
  std::vector<uint32_t> finished;
  for (const RecordedCall& call : s.service->Calls()) {
    if (call.op == RecOp::kUpload) finished.push_back(call.part);
  }
  EXPECT_FALSE(std::is_sorted(finished.begin(), finished.end())) << "the delays did not reorder the parts";
  auto uploads = s.service->Uploads();
  ASSERT_EQ(uploads.size(), 1u);
  const std::vector<CloudPartSpec>& parts = uploads.begin()->second.completedWith;
  ASSERT_EQ(parts.size(), 10u);
  for (size_t i = 0; i < parts.size(); ++i) {
    EXPECT_EQ(parts[i].number, i + 1);
    EXPECT_EQ(parts[i].size, i < 9 ? kPart : 10u);
  }
  std::vector<uint8_t> stored;
  ASSERT_TRUE(s.service->GetObject("obj", &stored));
  EXPECT_TRUE(stored == data);
}

TEST(CloudWriteFileThreaded, FailedPartsAreRetriedOnlyWithinTheRules) {
  struct Case {
    const char* what;
    RecOp op;
    int code;
    int times;
    unsigned attempts;
    int wantResult;
    int wantTries;  // requests of the failing kind
    bool wantStored;
  } cases[] = {
      {"transient part", RecOp::kUpload, kErrNetwork, 2, 3, 0, 3, true},
      {"transient part, attempts spent", RecOp::kUpload, kErrNetwork, -1, 2, kErrNetwork, 2, false},
      {"final part", RecOp::kUpload, kErrAccessDenied, 1, 5, kErrAccessDenied, 1, false},
      {"final part (-1010)", RecOp::kUpload, kErrBadParameter, 1, 5, kErrBadParameter, 1, false},
      {"bad digest retried", RecOp::kUpload, kErrInvalidData, 1, 2, 0, 2, true},
      {"start retried", RecOp::kStart, kErrNetwork, 1, 2, 0, 2, true},
      {"start final", RecOp::kStart, kErrAccessDenied, 1, 3, kErrAccessDenied, 1, false},
      {"finish retried", RecOp::kFinish, kErrNetwork, 2, 3, 0, 3, true},
      {"finish spent", RecOp::kFinish, kErrNetwork, -1, 3, kErrNetwork, 3, false},
      {"no part connection", RecOp::kNewPart, kErrNoMemory, 1, 3, kErrNoMemory, 1, false},
  };
  for (const Case& c : cases) {
    TestHost host;
    Rig s(3, c.attempts);
    FaultRule rule;
    rule.op = c.op;
    rule.part = c.op == RecOp::kUpload ? 3 : 0;
    rule.code = c.code;
    rule.times = c.times;
    s.service->AddFault(rule);
    std::vector<uint8_t> data = TestBytes(6 * kPart + 5, 3);
    ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj")), 0);
    int code = s.bucket->WriteToFile(data.data(), data.size());
    int closed = s.bucket->CloseFile();
    if (code == 0) code = closed;
    EXPECT_EQ(code, c.wantResult) << c.what;
    int tries = 0;
    for (const RecordedCall& call : s.service->Calls()) {
      if (call.op == c.op && (c.op != RecOp::kUpload || call.part == 3)) ++tries;
    }
    EXPECT_EQ(tries, c.wantTries) << c.what;
    std::vector<uint8_t> stored;
    EXPECT_EQ(s.service->GetObject("obj", &stored), c.wantStored) << c.what;
    if (c.wantStored) {
      EXPECT_TRUE(stored == data) << c.what;
    }
    // Whatever happened, no part is left on the service.
    EXPECT_EQ(s.service->OpenUploads(), 0) << c.what;
    EXPECT_EQ(s.service->Count(RecOp::kAbort), c.wantStored || c.op == RecOp::kStart ? 0 : 1) << c.what;
    // After a failure the bucket takes a new file.
    EXPECT_EQ(s.bucket->OpenFileForWrite(TString(u"next")), 0);
    EXPECT_EQ(s.bucket->DeleteWriteBuf(), 0);
  }
}

TEST(CloudWriteFileThreaded, DroppingTheWriteBufferAbortsTheUpload) {
  Rig s;
  std::vector<uint8_t> data = TestBytes(7 * kPart, 9);
  ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj")), 0);
  ASSERT_EQ(s.bucket->WriteToFile(data.data(), data.size()), 0);
  EXPECT_EQ(s.bucket->OpenFileForWrite(TString(u"other")), kErrInUse);
  ASSERT_EQ(s.bucket->DeleteWriteBuf(), 0);
  EXPECT_EQ(s.bucket->DeleteWriteBuf(), 0);
  EXPECT_EQ(s.bucket->WriteToFile("x", 1), kErrNotPossible);
  EXPECT_EQ(s.bucket->CloseFile(), kErrNotPossible);
  std::vector<uint8_t> stored;
  EXPECT_FALSE(s.service->GetObject("obj", &stored));
  EXPECT_EQ(s.service->Count(RecOp::kAbort), 1);
  EXPECT_EQ(s.service->OpenUploads(), 0);
}

TEST(CloudWriteFileThreaded, DestroyingTheBucketAbortsAnOpenUpload) {
  auto service = std::make_shared<RecordingService>();
  {
    Rig s;
    service = s.service;
    std::vector<uint8_t> data = TestBytes(3 * kPart, 2);
    ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj")), 0);
    ASSERT_EQ(s.bucket->WriteToFile(data.data(), data.size()), 0);
  }
  EXPECT_EQ(service->Count(RecOp::kStart), 1);
  EXPECT_EQ(service->OpenUploads(), 0);
}

struct ProgressLog {
  std::atomic<int> calls{0};
  std::atomic<uint64_t> stopAfter{UINT64_MAX};
  std::atomic<uint64_t> lastDone{0};
  std::atomic<uint64_t> lastTotal{0};
  std::atomic<bool> wrongDirection{false};
  bool upload = true;
};

bool OnProgress(void* context, TUpDownStats* stats) {
  auto* log = static_cast<ProgressLog*>(context);
  log->calls.fetch_add(1);
  if (stats->IsUpload() != log->upload) log->wrongDirection = true;
  log->lastDone = stats->BytesDone();
  log->lastTotal = stats->GetTotal();
  return stats->BytesDone() < log->stopAfter.load();
}

TEST(CloudWriteFileThreaded, ProgressReachesTheTotalAndFalseStopsTheTransfer) {
  for (bool cancel : {false, true}) {
    ProgressLog log;
    if (cancel) log.stopAfter = 4 * kPart;
    Rig s(3, 3, &OnProgress, &log);
    std::vector<uint8_t> data = TestBytes(40 * kPart + 1, 4);
    ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj"), nullptr, data.size()), 0);
    int code = WriteInPieces(s.bucket.get(), data, 11);
    int closed = s.bucket->CloseFile();
    if (code == 0) code = closed;
    EXPECT_FALSE(log.wrongDirection);
    EXPECT_GE(log.calls.load(), 1);
    std::vector<uint8_t> stored;
    if (!cancel) {
      EXPECT_EQ(code, 0);
      EXPECT_EQ(log.lastDone.load(), data.size());
      EXPECT_EQ(log.lastTotal.load(), data.size());
      EXPECT_TRUE(s.service->GetObject("obj", &stored));
    } else {
      EXPECT_EQ(code, kErrAborted);
      EXPECT_FALSE(s.service->GetObject("obj", &stored));
      EXPECT_EQ(s.service->Count(RecOp::kAbort), 1);
    }
    EXPECT_EQ(s.service->OpenUploads(), 0);
  }
}

TEST(CloudWriteFileThreaded, CancellingASingleUploadStoresNothing) {
  ProgressLog log;
  log.stopAfter = 1;
  Rig s(3, 3, &OnProgress, &log);
  std::vector<uint8_t> data = TestBytes(kPart - 10, 5);
  ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj")), 0);
  ASSERT_EQ(s.bucket->WriteToFile(data.data(), data.size()), 0);
  EXPECT_EQ(s.bucket->CloseFile(), kErrAborted);
  std::vector<uint8_t> stored;
  EXPECT_FALSE(s.service->GetObject("obj", &stored));
  EXPECT_EQ(s.service->Count(RecOp::kUpload), 1);
}

TEST(CloudWriteFileThreaded, RetentionDateLocksEachWrittenObject) {
  Rig s;
  TDate until(2032, 1, 2, 3, 4, 5, 0);
  s.bucket->SetBackupRetentionDate(&until);
  for (size_t size : {size_t{100}, size_t{3 * kPart}}) {
    std::vector<uint8_t> data = TestBytes(size, 6);
    ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj")), 0);
    ASSERT_EQ(s.bucket->WriteToFile(data.data(), data.size()), 0);
    ASSERT_EQ(s.bucket->CloseFile(), 0);
  }
  EXPECT_EQ(s.service->Count(RecOp::kLock), 2);
  FaultRule refuse;
  refuse.op = RecOp::kLock;
  refuse.code = kErrAccessDenied;
  s.service->AddFault(refuse);
  ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj")), 0);
  EXPECT_EQ(s.bucket->CloseFile(), kErrAccessDenied);
}

TEST(CloudWriteFileThreaded, PartSizeFollowsTheServiceLimits) {
  struct Case {
    uint32_t minPart;
    uint32_t maxParts;
    uint64_t sizeHint;
    uint64_t write;
    int want;
    uint32_t wantPart;
  } cases[] = {
      // The service's least part wins over a smaller setting.
      {3 * kPart, 10000, 0, 10 * kPart, 0, 3 * kPart},
      // A known size that would need too many parts grows them (whole MiB).
      {0, 4, 9 * kCloudMiB, 9 * kCloudMiB, 0, 3 * kCloudMiB},
      // An unknown size that outgrows the parts fails plainly.
      {0, 4, 0, 4 * kPart + 1, kErrFileTooLarge, kPart},
  };
  for (const Case& c : cases) {
    TestHost host;
    Rig s;
    s.bucket->configure = [&](TRecordingConn* conn) {
      conn->FixSettings(kPart, 2, 2, 2);
      conn->SetMinPartSize(c.minPart);
      conn->SetMaxParts(c.maxParts);
    };
    std::vector<uint8_t> data = TestBytes(c.write, 8);
    ASSERT_EQ(s.bucket->OpenFileForWrite(TString(u"obj"), nullptr, c.sizeHint), 0);
    int code = s.bucket->WriteToFile(data.data(), data.size());
    int closed = s.bucket->CloseFile();
    if (code == 0) code = closed;
    EXPECT_EQ(code, c.want) << c.maxParts;
    EXPECT_EQ(s.service->PartSizeSeen(), c.wantPart) << c.maxParts;
    EXPECT_EQ(s.service->OpenUploads(), 0);
  }
}

// 1 GiB through the write file: the library's live memory stays within
// (threads + 1) parts however long the stream.
TEST(CloudWriteFileMemory, AGibibyteStreamStaysWithinThePartBuffers) {
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kBigPart = 8 * kCloudMiB;
  constexpr uint64_t kTotal = uint64_t{1} << 30;
  // A period that does not divide the part size, so a misplaced part shows.
  std::vector<uint8_t> pattern = TestBytes(kCloudMiB + 17, 12);
  auto expect = [&](uint64_t offset, const uint8_t* data, size_t size) {
    for (size_t done = 0; done < size;) {
      size_t at = static_cast<size_t>((offset + done) % pattern.size());
      size_t n = std::min(size - done, pattern.size() - at);
      if (std::memcmp(data + done, pattern.data() + at, n) != 0) return false;
      done += n;
    }
    return true;
  };
  auto service = std::make_shared<RecordingService>();
  service->KeepBytes(false);
  service->SetCheck([&](uint32_t part, const uint8_t* data, size_t size) {
    return part != 0 && expect(uint64_t{part - 1} * kBigPart, data, size);
  });
  const int64_t base = MemLiveBytes();
  std::atomic<int64_t> peak{0};
  auto sample = [&] {
    int64_t now = MemLiveBytes() - base;
    for (int64_t seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {
    }
  };
  service->SetProbe(sample);
  // Slow uploads, so a writer that were not held back would run ahead.
  FaultRule slow;
  slow.op = RecOp::kUpload;
  slow.times = -1;
  slow.delayMs = 5;
  service->AddFault(slow);
  RecordingBucket bucket(TestOptions(), service);
  bucket.configure = [](TRecordingConn* conn) { conn->FixSettings(kBigPart, kThreads, kThreads, 2); };
  ASSERT_EQ(bucket.OpenFileForWrite(TString(u"big")), 0);
  uint64_t written = 0;
  while (written < kTotal) {
    size_t at = static_cast<size_t>(written % pattern.size());
    size_t n = std::min<uint64_t>(pattern.size() - at, kTotal - written);
    ASSERT_EQ(bucket.WriteToFile(pattern.data() + at, n), 0);
    written += n;
    sample();
  }
  ASSERT_EQ(bucket.CloseFile(), 0);
  EXPECT_EQ(service->CheckFailures(), 0);
  EXPECT_EQ(service->Count(RecOp::kUpload), static_cast<int>(kTotal / kBigPart));
  EXPECT_GE(peak.load(), int64_t{kBigPart});
  EXPECT_LE(peak.load(), int64_t{kThreads + 1} * kBigPart + kCloudMiB);
  EXPECT_LE(MemLiveBytes() - base, int64_t{kCloudMiB});
}

}  // namespace
