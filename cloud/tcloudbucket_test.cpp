#include "cloud/tcloudbucket.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cloud/azure/tazureblobconn.h"
#include "cloud/cloud_bandwidth.h"
#include "cloud/storage_group.h"
#include "foundation/errors.h"
#include "tests/cloud_testing.h"
#include "tests/test_host.h"

namespace {

std::string Utf8(const TString& s) { return TStringAsString(s); }

TEST(CloudBucket, FlagTableChoosesTheConnectorInOrder) {
  struct Case {
    uint32_t flags;
    const char* connector;
  } cases[] = {
      {kCloudDefaultFlags, "TS3Conn"},
      {kCloudDefaultFlags | kCloudVirtualHostURI, "TS3Conn"},
      {kCloudDropbox, "TDropboxConn"},
      {kCloudDropbox | kCloudBackblaze, "TDropboxConn"},
      {kCloudDropbox | kCloudAzure, "TDropboxConn"},
      {kCloudBackblaze, "TBackblazeConn"},
      {kCloudBackblaze | kCloudAzure, "TBackblazeConn"},
      {kCloudAzure | kCloudUseSSL, "TAzureBlobConn"},
  };
  auto service = std::make_shared<RecordingService>();
  for (const Case& c : cases) {
    RecordingBucket bucket(TestOptions(c.flags), service);
    EXPECT_EQ(Utf8(TString(bucket.TableConn()->Name())), c.connector) << std::hex << c.flags;
  }
}

TEST(CloudBucket, OneConnectorForTheLifeOfTheBucketAndOptionsCopiedIn) {
  TestHost host;
  auto service = std::make_shared<RecordingService>();
  TCloudOptions options = TestOptions();
  RecordingBucket bucket(options, service);
  EXPECT_EQ(bucket.made, 0);
  options.SetBucket(TString(u"changed-later"));
  EXPECT_EQ(bucket.Verify(), 0);
  EXPECT_EQ(bucket.ObjectExists(TString(u"missing"), nullptr, true), kErrNotFound);
  EXPECT_EQ(bucket.CreateBucket(TString(), false, 0), TString(u"NotImplemented"));
  EXPECT_EQ(bucket.made, 1);
  EXPECT_EQ(Utf8(bucket.GetBucket()), "backups");
}

TEST(CloudBucket, ConstructorLogsTheHttpsFlag) {
  TestHost host;
  auto service = std::make_shared<RecordingService>();
  RecordingBucket secure(TestOptions(kCloudDefaultFlags), service);
  RecordingBucket plain(TestOptions(kCloudVirtualHostAware), service);
  std::vector<LoggedLine> lines = host.LinesWithFormat("TCloudBucket: useSSL=%u");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "TCloudBucket: useSSL=1");
  EXPECT_EQ(lines[1].text, "TCloudBucket: useSSL=0");
}

TEST(CloudBucket, VerifyRepeatsOnlyNetworkFailuresUpToTenTimes) {
  struct Case {
    int answer;       // the service's steady answer
    int failFirst;    // network failures before it
    int wantCalls;
    int wantResult;
  } cases[] = {
      {kErrNetwork, 0, 10, kErrNetwork},
      {0, 0, 1, 0},
      {kErrAccessDenied, 0, 1, kErrAccessDenied},
      {kErrNotFound, 0, 1, kErrNotFound},
      {0, 3, 4, 0},
      {kErrAccessDenied, 9, 10, kErrAccessDenied},
      {0, 10, 10, kErrNetwork},
  };
  for (const Case& c : cases) {
    auto service = std::make_shared<RecordingService>();
    service->SetVerifyAnswer(c.answer);
    if (c.failFirst > 0) {
      FaultRule rule;
      rule.op = RecOp::kVerify;
      rule.code = kErrNetwork;
      rule.times = c.failFirst;
      service->AddFault(rule);
    }
    RecordingBucket bucket(TestOptions(), service);
    EXPECT_EQ(bucket.Verify(), c.wantResult) << c.answer << "/" << c.failFirst;
    EXPECT_EQ(service->Count(RecOp::kVerify), c.wantCalls) << c.answer << "/" << c.failFirst;
  }
}

TEST(CloudBucket, RetryErrorsAreAllButSixFinalCodes) {
  const int finals[] = {-1114, -1107, -1028, -1021, -1017, -1010};
  for (int code : finals) EXPECT_FALSE(TCloudBucket::IsRetryError(code)) << code;
  const int others[] = {0, -1001, -1009, -1011, -1012, -1015, -1018, -1101, -1115, -1116, -1124, -625};
  for (int code : others) EXPECT_TRUE(TCloudBucket::IsRetryError(code)) << code;
}

TEST(CloudBucket, AttemptCountsAreTheGivenOnes) {
  auto service = std::make_shared<RecordingService>();
  RecordingBucket bucket(TestOptions(), service, 7, 2);
  EXPECT_EQ(bucket.GetUploadAttempt(), 7u);
  EXPECT_EQ(bucket.GetDownloadAttempt(), 2u);
}

// Connectors without a protocol here fail every request plainly: the
// not-supported code and one line naming the connector and the request.
TEST(CloudBucket, ConnectorsWithoutProtocolRefuseEveryRequest) {
  const struct {
    uint32_t flag;
    const char* name;
  } kinds[] = {{kCloudAzure, "TAzureBlobConn"}, {kCloudBackblaze, "TBackblazeConn"}, {kCloudDropbox, "TDropboxConn"}};
  for (const auto& kind : kinds) {
    TestHost host;
    TCloudBucket bucket(TestOptions(kCloudDefaultFlags | kind.flag), nullptr, nullptr, 1, 1);
    std::vector<TCloudObject> folders, files;
    ContinuationMarker marker;
    TDate date(2030, 1, 1, 0, 0, 0, 0);
    TString token;
    const struct {
      const char* op;
      std::function<int()> call;
    } ops[] = {
        {"Verify", [&] { return bucket.Verify(); }},
        {"GetFoldersAndFiles", [&] { return bucket.GetFoldersAndFiles(TString(), &folders, &files, true, &marker); }},
        {"GetAllObjectsInPath", [&] { return bucket.GetAllObjectsInPath(TString(), files, true, &marker); }},
        {"ObjectExists", [&] { return bucket.ObjectExists(TString(u"a"), nullptr, false); }},
        {"CopyObject", [&] { return bucket.CopyObject(TString(u"a"), TString(u"b"), 1, 0, 0, nullptr, nullptr); }},
        {"Erase", [&] { return bucket.Erase(TString(u"x/")); }},
        {"DeleteCloudObject", [&] { return bucket.DeleteCloudObject(TString(u"a")); }},
        {"AcquireAccessToken",
         [&] { return bucket.AcquireAccessToken(TString(), TString(), TString(), &token, TString()); }},
        {"put_ObjectLock", [&] { return bucket.ExtendRetentionOnObject(TString(u"a"), &date); }},
    };
    for (const auto& op : ops) {
      host.Clear();
      EXPECT_EQ(op.call(), kErrNotSupported) << kind.name << " " << op.op;
      std::vector<LoggedLine> lines = host.LinesWithFormat("%s::%s: not supported, %E");
      ASSERT_EQ(lines.size(), 1u) << kind.name << " " << op.op;
      EXPECT_EQ(lines[0].text, std::string(kind.name) + "::" + op.op +
                                   ": not supported, The operation is not supported (error -1012)");
    }
    host.Clear();
    EXPECT_EQ(bucket.CreateBucket(TString(u"eu-west-1"), true, 30), TString(u"NotImplemented")) << kind.name;
    EXPECT_EQ(host.LinesWithFormat("%s::%s: not supported, %E").size(), 1u);
    // A write of a whole object reaches UploadBytes, which is refused too.
    bucket.SetRetryBackoff(0, 0);
    ASSERT_EQ(bucket.OpenFileForWrite(TString(u"obj")), 0);
    ASSERT_EQ(bucket.WriteToFile("abc", 3), 0);
    EXPECT_EQ(bucket.CloseFile(), kErrNotSupported) << kind.name;
    uint64_t got = 0;
    char buffer[4];
    EXPECT_EQ(bucket.ReadFile(TString(u"obj"), 0, buffer, 4, &got), kErrNotSupported) << kind.name;
  }
}

TEST(CloudBucket, TransferSettingsComeFromTheOptionsSection) {
  struct Case {
    const char* maxMB;
    const char* up;
    const char* down;
    const char* tier;
    uint32_t wantPart;
    uint32_t wantUp;
    uint32_t wantDown;
    uint32_t wantDownPart;
  } cases[] = {
      {nullptr, nullptr, nullptr, nullptr, kCloudDefaultPartSize, 10, 8, 8 * kCloudMiB},
      {"16", "16", "1", "5", 16 * kCloudMiB, 16, 1, 64 * kCloudMiB},
      {"2", "1", "16", "1", 2 * kCloudMiB, 1, 16, 4 * kCloudMiB},
      {"64", " 4", "4x", "3", 64 * kCloudMiB, 4, 4, 16 * kCloudMiB},
      {"1", "17", "0", "6", kCloudDefaultPartSize, 10, 8, 8 * kCloudMiB},
      {"65", "-3", "abc", "", kCloudDefaultPartSize, 10, 8, 8 * kCloudMiB},
      {"x", "99999999999", "", "0", kCloudDefaultPartSize, 10, 8, 8 * kCloudMiB},
  };
  for (const Case& c : cases) {
    TestHost host;
    if (c.maxMB != nullptr) host.SetIni("Options", "CloudMaxTransferMB", c.maxMB);
    if (c.up != nullptr) host.SetIni("Options", "CloudUploadThreads", c.up);
    if (c.down != nullptr) host.SetIni("Options", "CloudDownloadThreads", c.down);
    if (c.tier != nullptr) host.SetIni("Options", "CloudDownloadPartSizeTier", c.tier);
    RecordingBucket maker(TestOptions(), std::make_shared<RecordingService>());
    std::shared_ptr<TCloudConn> s3 = maker.TableConn();
    s3->ReadSettings();
    EXPECT_EQ(s3->PartSize(), c.wantPart) << c.maxMB;
    EXPECT_EQ(s3->UploadThreads(), c.wantUp) << c.up;
    EXPECT_EQ(s3->DownloadThreads(), c.wantDown) << c.down;
    EXPECT_EQ(s3->DownloadPartSize(), c.wantDownPart) << c.tier;
  }
}

TEST(CloudBucket, EachConnectorReadsItsOwnSettings) {
  TestHost host;
  host.SetIni("Options", "CloudMaxTransferMB", "32");
  host.SetIni("Options", "CloudUploadThreads", "3");
  host.SetIni("Options", "CloudDownloadThreads", "2");
  host.SetIni("Options", "CloudDownloadPartSizeTier", "4");
  auto service = std::make_shared<RecordingService>();
  struct Case {
    uint32_t flag;
    uint32_t wantPart, wantUp, wantDown, wantTier;
  } cases[] = {
      {0, 32 * kCloudMiB, 3, 2, 4},
      {kCloudAzure, 32 * kCloudMiB, 3, 8, 2},
      {kCloudDropbox, 32 * kCloudMiB, 10, 8, 2},
      {kCloudBackblaze, kCloudDefaultPartSize, 10, 8, 2},
  };
  for (const Case& c : cases) {
    host.Clear();
    RecordingBucket maker(TestOptions(kCloudDefaultFlags | c.flag), service);
    std::shared_ptr<TCloudConn> conn = maker.TableConn();
    conn->ReadSettings();
    EXPECT_EQ(conn->PartSize(), c.wantPart) << c.flag;
    EXPECT_EQ(conn->UploadThreads(), c.wantUp) << c.flag;
    EXPECT_EQ(conn->DownloadThreads(), c.wantDown) << c.flag;
    EXPECT_EQ(conn->DownloadTier(), c.wantTier) << c.flag;
    std::vector<LoggedLine> azure = host.LinesWithFormat("TAzureBlobConn: MaxTransferMB=%lu UploadThreads=%u");
    ASSERT_EQ(azure.size(), c.flag == kCloudAzure ? 1u : 0u);
    if (!azure.empty()) {
      EXPECT_EQ(azure[0].text, "TAzureBlobConn: MaxTransferMB=32 UploadThreads=3");
    }
  }
}

TEST(CloudBucket, RetentionDateReachesObjectLock) {
  auto service = std::make_shared<RecordingService>();
  RecordingBucket bucket(TestOptions(), service);
  EXPECT_TRUE(bucket.GetBackupRetentionDate().IsDefault());
  // No date of its own and no retention date: the connector refuses.
  EXPECT_EQ(bucket.ExtendRetentionOnObject(TString(u"a"), nullptr), kErrBadParameter);
  TDate until(2031, 5, 6, 7, 8, 9, 0);
  bucket.SetBackupRetentionDate(&until);
  EXPECT_EQ(bucket.GetBackupRetentionDate(), until);
  EXPECT_EQ(bucket.ExtendRetentionOnObject(TString(u"a"), nullptr), 0);
  bucket.SetBackupRetentionDate(nullptr);
  EXPECT_TRUE(bucket.GetBackupRetentionDate().IsDefault());
  EXPECT_EQ(service->Count(RecOp::kLock), 2);
}

TEST(CloudBucket, StorageGroupFileRoundTripsWithoutSecrets) {
  auto service = std::make_shared<RecordingService>();
  TCloudOptions options = TestOptions(kCloudDefaultFlags | 0x100);
  options.SetPath(TString(u"office/"));
  options.SetSecretKey(TString(u"very-secret-key"));
  RecordingBucket bucket(options, service);
  const TString name(u" Nightly \"main\" group ");
  ASSERT_EQ(bucket.CreateCloudStorageGroupFile(name), 0);
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(service->GetObject("storagegroup.ini", &bytes));
  std::string text(bytes.begin(), bytes.end());
  EXPECT_EQ(text.find("very-secret-key"), std::string::npos);
  CloudStorageGroupSpec group;
  ASSERT_EQ(ParseCloudStorageGroup(text, &group), 0) << text;
  EXPECT_EQ(group.version, 1u);
  EXPECT_EQ(group.name, name);
  EXPECT_EQ(Utf8(group.host), "s3.example.test");
  EXPECT_EQ(Utf8(group.bucket), "backups");
  EXPECT_EQ(Utf8(group.path), "office/");
  EXPECT_EQ(group.flags, kCloudDefaultFlags | 0x100);
  TDate now;
  now.SetToCurrentDate();
  int64_t age = (now - group.created).TotalMilliseconds();
  EXPECT_GE(age, 0);
  EXPECT_LT(age, 60000);
  // A name that cannot be carried is refused before anything is sent.
  EXPECT_EQ(bucket.CreateCloudStorageGroupFile(TString(u"two\nlines")), kErrBadParameter);
  EXPECT_EQ(bucket.CreateCloudStorageGroupFile(TString()), kErrBadParameter);
}

TEST(CloudBucket, StorageGroupReaderRefusesWhatIsNotOne) {
  TestHost host;
  struct Case {
    const char* text;
    int want;
  } cases[] = {
      {"[CloudStorageGroup]\r\nVersion=1\r\nName=\"g\"\r\n", 0},
      {"[CloudStorageGroup]\r\nVersion=2\r\nName=\"g\"\r\nNew=1\r\n", kErrNotSupported},
      {"[CloudStorageGroup]\r\nName=\"g\"\r\n", kErrInvalidData},
      {"[CloudStorageGroup]\r\nVersion=one\r\nName=\"g\"\r\n", kErrInvalidData},
      {"[CloudStorageGroup]\r\nVersion=0\r\nName=\"g\"\r\n", kErrInvalidData},
      {"[Other]\r\nVersion=1\r\nName=\"g\"\r\n", kErrInvalidData},
      {"[CloudStorageGroup]\r\nVersion=1\r\n", kErrInvalidData},
      {"[CloudStorageGroup]\r\nVersion=1\r\nName=\"g\"\r\nFlags=0xZZ\r\n", kErrInvalidData},
      {"[CloudStorageGroup]\r\nVersion=1\r\nName=\"g\"\r\nCreated=yesterday\r\n", kErrInvalidData},
      {"[CloudStorageGroup]\r\nVersion=1\r\nName=\"g\"\r\nFlags=0x10\r\nUnknown=kept\r\n", 0},
      {"\xFF\xFE", kErrInvalidData},
  };
  for (const Case& c : cases) {
    CloudStorageGroupSpec group;
    EXPECT_EQ(ParseCloudStorageGroup(c.text, &group), c.want) << c.text;
  }
}

TEST(CloudBucket, SetLimitsReachesBothLimiters) {
  TCloudBucket::SetLimits(1000000, -5);
  EXPECT_EQ(CloudUploadLimiter().Rate(), 1000000u);
  EXPECT_EQ(CloudDownloadLimiter().Rate(), 0u);
  TCloudBucket::SetLimits(0, 250000);
  EXPECT_EQ(CloudUploadLimiter().Rate(), 0u);
  EXPECT_EQ(CloudDownloadLimiter().Rate(), 250000u);
  TCloudBucket::SetLimits(0, 0);
}

}  // namespace
