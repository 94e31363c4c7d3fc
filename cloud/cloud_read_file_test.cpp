// The cloud read file and ReadToTMemory against the recording connector:
// bytes in order from any position, the window's memory bound, short and
// long answers, retries and a rewritten object.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "foundation/memory.h"
#include "foundation/tmemory.h"
#include "tests/cloud_testing.h"
#include "tests/test_host.h"

namespace {

constexpr uint32_t kPart = 64 * 1024;

struct Rig {
  std::shared_ptr<RecordingService> service = std::make_shared<RecordingService>();
  std::unique_ptr<RecordingBucket> bucket;
  std::vector<uint8_t> data;

  Rig(size_t size, uint32_t threads = 3, unsigned attempts = 3) : data(TestBytes(size, static_cast<uint32_t>(size))) {
    service->PutObject("obj", data);
    bucket = std::make_unique<RecordingBucket>(TestOptions(), service, attempts, attempts);
    bucket->configure = [threads](TRecordingConn* conn) {
      conn->FixSettings(kPart, threads, threads, 2);
      conn->SetDownloadPartSize(kPart);
    };
  }
};

TEST(CloudReadFileThreaded, SequentialReadsOfAnySizeGiveTheObject) {
  const size_t sizes[] = {1, kPart - 1, kPart, kPart + 1, 17 * kPart + 5};
  for (size_t size : sizes) {
    Rig rig(size);
    std::mt19937 rng(static_cast<uint32_t>(size));
    std::vector<uint8_t> out;
    uint64_t at = 0;
    for (;;) {
      std::vector<uint8_t> piece(1 + rng() % (2 * kPart));
      uint64_t got = 0;
      int code = rig.bucket->ReadFile(TString(u"obj"), at, piece.data(), piece.size(), &got);
      if (code == kErrEndOfFile) break;
      ASSERT_EQ(code, 0) << size;
      ASSERT_GT(got, 0u);
      out.insert(out.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(got));
      at += got;
    }
    EXPECT_TRUE(out == rig.data) << size;
    // Each part was fetched once: reading in order never refetches.
    EXPECT_EQ(rig.service->Count(RecOp::kDownload), static_cast<int>((size + kPart - 1) / kPart)) << size;
    EXPECT_EQ(rig.service->Count(RecOp::kExists), 1);
  }
}

TEST(CloudReadFileThreaded, ReadsFromAnyPositionMatchTheObject) {
  Rig rig(31 * kPart + 123, 4);
  std::mt19937 rng(5);
  for (int round = 0; round < 200; ++round) {
    uint64_t offset = rng() % (rig.data.size() + 10);
    size_t size = rng() % (3 * kPart);
    std::vector<uint8_t> piece(size + 1);
    uint64_t got = 0;
    int code = rig.bucket->ReadFile(TString(u"obj"), offset, piece.data(), size, &got);
    if (size == 0) {
      EXPECT_EQ(code, 0);
      EXPECT_EQ(got, 0u);
      continue;
    }
    if (offset >= rig.data.size()) {
      EXPECT_EQ(code, kErrEndOfFile) << offset;
      continue;
    }
    ASSERT_EQ(code, 0) << offset;
    uint64_t want = std::min<uint64_t>(size, rig.data.size() - offset);
    ASSERT_EQ(got, want) << offset;
    EXPECT_EQ(std::memcmp(piece.data(), rig.data.data() + offset, static_cast<size_t>(got)), 0) << offset;
  }
}

TEST(CloudReadFileThreaded, TheWindowHoldsThreadsPlusOneParts) {
  constexpr uint32_t kThreads = 3;
  Rig rig(60 * kPart, kThreads);
  const int64_t base = MemLiveBytes();
  std::atomic<int64_t> peak{0};
  FaultRule slow;  // slow answers let the readers' buffers pile up if they could
  slow.op = RecOp::kDownload;
  slow.times = -1;
  slow.delayMs = 2;
  rig.service->AddFault(slow);
  std::vector<uint8_t> piece(kPart / 3);
  uint64_t at = 0, got = 0;
  while (rig.bucket->ReadFile(TString(u"obj"), at, piece.data(), piece.size(), &got) == 0) {
    at += got;
    int64_t now = MemLiveBytes() - base;
    if (now > peak.load()) peak = now;
  }
  EXPECT_EQ(at, rig.data.size());
  EXPECT_GE(peak.load(), int64_t{kPart});
  EXPECT_LE(peak.load(), int64_t{kThreads + 1} * kPart + 64 * 1024);
}

TEST(CloudReadFileThreaded, ShortLongAndFailedAnswersAreNeverTaken) {
  struct Case {
    const char* what;
    int code;
    int64_t delta;
    int times;
    int wantResult;
    int wantTries;
  } cases[] = {
      {"one short answer", 0, -1, 1, 0, 2},
      {"one long answer", 0, +1, 1, 0, 2},
      {"short every time", 0, -100, -1, kErrInvalidData, 3},
      {"transient failure", kErrNetwork, 0, 2, 0, 3},
      {"final failure", kErrAccessDenied, 0, 1, kErrAccessDenied, 1},
      {"end of file is final", kErrEndOfFile, 0, 1, kErrEndOfFile, 1},
  };
  for (const Case& c : cases) {
    TestHost host;
    Rig rig(8 * kPart, 2);
    FaultRule rule;
    rule.op = RecOp::kDownload;
    rule.offset = 5 * kPart;
    rule.code = c.code;
    rule.receivedDelta = c.delta;
    rule.times = c.times;
    rig.service->AddFault(rule);
    std::vector<uint8_t> out(rig.data.size());
    uint64_t got = 0;
    int code = rig.bucket->ReadFile(TString(u"obj"), 0, out.data(), out.size(), &got);
    EXPECT_EQ(code, c.wantResult) << c.what;
    int tries = 0;
    for (const RecordedCall& call : rig.service->Calls()) {
      tries += call.op == RecOp::kDownload && call.offset == 5 * kPart ? 1 : 0;
    }
    EXPECT_EQ(tries, c.wantTries) << c.what;
    if (code == 0) {
      EXPECT_EQ(got, out.size());
      EXPECT_TRUE(out == rig.data) << c.what;
    } else {
      // What came before the bad part is good; nothing after it is given.
      EXPECT_EQ(got, 5u * kPart) << c.what;
      EXPECT_EQ(std::memcmp(out.data(), rig.data.data(), static_cast<size_t>(got)), 0);
      // The next read starts afresh and succeeds once the fault is spent.
      if (c.times > 0) {
        std::vector<uint8_t> again(kPart);
        EXPECT_EQ(rig.bucket->ReadFile(TString(u"obj"), 5 * kPart, again.data(), again.size(), &got), 0) << c.what;
        EXPECT_EQ(std::memcmp(again.data(), rig.data.data() + 5 * kPart, kPart), 0);
      }
    }
  }
}

TEST(CloudReadFileThreaded, AnObjectRewrittenWhileReadFailsTheRead) {
  Rig rig(40 * kPart, 2);
  std::vector<uint8_t> piece(kPart);
  uint64_t got = 0;
  ASSERT_EQ(rig.bucket->ReadFile(TString(u"obj"), 0, piece.data(), piece.size(), &got), 0);
  rig.service->PutObject("obj", TestBytes(40 * kPart, 99));
  int code = 0;
  uint64_t at = got;
  while ((code = rig.bucket->ReadFile(TString(u"obj"), at, piece.data(), piece.size(), &got)) == 0) {
    ASSERT_EQ(std::memcmp(piece.data(), rig.data.data() + at, static_cast<size_t>(got)), 0) << at;
    at += got;
  }
  EXPECT_EQ(code, kErrBadParameter);
  EXPECT_LT(at, rig.data.size());
}

TEST(CloudReadFileThreaded, AnotherNameOpensAnotherReadFile) {
  Rig rig(3 * kPart);
  std::vector<uint8_t> second = TestBytes(100, 3);
  rig.service->PutObject("second", second);
  std::vector<uint8_t> out(200);
  uint64_t got = 0;
  ASSERT_EQ(rig.bucket->ReadFile(TString(u"obj"), 10, out.data(), 5, &got), 0);
  ASSERT_EQ(rig.bucket->ReadFile(TString(u"second"), 0, out.data(), out.size(), &got), 0);
  EXPECT_EQ(got, 100u);
  EXPECT_EQ(std::memcmp(out.data(), second.data(), 100), 0);
  EXPECT_EQ(rig.bucket->ReadFile(TString(u"missing"), 0, out.data(), 1, &got), kErrNotFound);
  EXPECT_EQ(rig.service->Count(RecOp::kExists), 2 + 3);  // one each, and the retries of the missing one
}

TEST(CloudReadFileThreaded, ReadToTMemoryTakesAWholeObjectOrARange) {
  struct Case {
    uint64_t offset;
    uint64_t length;
    int want;
    uint64_t wantSize;
  } cases[] = {
      {0, UINT64_MAX, 0, 13 * kPart + 9},
      {kPart + 3, 2 * kPart, 0, 2 * kPart},
      {13 * kPart + 9, UINT64_MAX, 0, 0},
      {0, 13 * kPart + 10, kErrEndOfFile, 0},
      {13 * kPart + 10, UINT64_MAX, kErrEndOfFile, 0},
  };
  for (const Case& c : cases) {
    TestHost host;
    Rig rig(13 * kPart + 9, 4);
    TMemory memory;
    EXPECT_EQ(rig.bucket->ReadToTMemory(TString(u"obj"), &memory, c.offset, c.length), c.want) << c.offset;
    if (c.want != 0) continue;
    ASSERT_EQ(memory.GetSize(), c.wantSize);
    if (c.wantSize > 0) {
      EXPECT_EQ(std::memcmp(memory.MemPtr(), rig.data.data() + c.offset, static_cast<size_t>(c.wantSize)), 0);
    }
  }
  TestHost host;
  Rig rig(6 * kPart, 3);
  FaultRule broken;
  broken.op = RecOp::kDownload;
  broken.offset = 2 * kPart;
  broken.code = kErrAccessDenied;
  rig.service->AddFault(broken);
  TMemory memory;
  EXPECT_EQ(rig.bucket->ReadToTMemory(TString(u"obj"), &memory), kErrAccessDenied);
  EXPECT_EQ(memory.GetSize(), 0u);
  EXPECT_EQ(rig.bucket->ReadToTMemory(TString(u"obj"), nullptr), kErrBadParameter);
}

TEST(CloudReadFileThreaded, AListedObjectIsReadWithoutAskingAgainAndOnlyAsListed) {
  TestHost host;
  Rig rig(5 * kPart + 7, 3);
  auto listed = [&](uint64_t size) {
    return TCloudObject(TString(u"obj"), eObjectFile, TString(), TStringFromUTF8(rig.service->ETagOf("obj")), size,
                        TDate(), TDate(), TDate(), TDate());
  };
  TCloudObject before = listed(rig.data.size());
  TMemory memory;
  ASSERT_EQ(rig.bucket->ReadToTMemory(before, &memory), 0);
  ASSERT_EQ(memory.GetSize(), rig.data.size());
  EXPECT_EQ(std::memcmp(memory.MemPtr(), rig.data.data(), rig.data.size()), 0);
  EXPECT_EQ(rig.service->Count(RecOp::kExists), 0);
  EXPECT_EQ(rig.service->Count(RecOp::kDownload), 6);

  // Rewritten since the listing: refused, not mixed.
  rig.service->PutObject("obj", TestBytes(rig.data.size(), 99));
  EXPECT_EQ(rig.bucket->ReadToTMemory(before, &memory), kErrBadParameter);
  EXPECT_EQ(memory.GetSize(), 0u);
  EXPECT_EQ(rig.bucket->ReadToTMemory(listed(0), &memory), 0);
  EXPECT_EQ(memory.GetSize(), 0u);
  TCloudObject folder(TString(u"d/"), eObjectFolder, TString());
  EXPECT_EQ(rig.bucket->ReadToTMemory(folder, &memory), kErrBadParameter);
  EXPECT_EQ(rig.bucket->ReadToTMemory(before, nullptr), kErrBadParameter);
}

}  // namespace
