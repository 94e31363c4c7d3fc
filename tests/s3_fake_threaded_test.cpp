// The cloud files over the real S3 connector against the scripted server:
// failures that may pass are tried again within the attempt count, final
// ones are not, and a failed multipart upload is aborted on the service.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "cloud/tcloudbucket.h"
#include "foundation/errors.h"
#include "tests/cloud_testing.h"
#include "tests/s3_fake_rig.h"

namespace {

constexpr uint32_t kMiB = 1048576;

FakeAnswer Answer(int status, const std::string& body = std::string(), FakeHeaders headers = {}) {
  return FakeAnswer{status, std::move(headers), body};
}

FakeAnswer Broken(FakeFault fault, size_t cutAt) {
  FakeAnswer a = Answer(206, std::string(3000, '?'));
  a.fault = fault;
  a.cutAt = cutAt;
  return a;
}

// Serves byte ranges of `data`, as "Range" asks.
FakeRule Ranges(const std::string& data) {
  FakeRule rule;
  rule.method = "GET";
  rule.respond = [data](const FakeRequest& r) {
    unsigned long long first = 0, last = 0;
    if (std::sscanf(r.Header("Range").c_str(), "bytes=%llu-%llu", &first, &last) != 2 || last >= data.size()) {
      return FakeError(416, "InvalidRange");
    }
    return Answer(206, data.substr(first, last - first + 1));
  };
  return rule;
}

class S3FakeThreadedFiles : public S3FakeTest {
 protected:
  std::unique_ptr<TCloudBucket> Bucket(unsigned attempts) {
    auto bucket = std::make_unique<TCloudBucket>(Options(), nullptr, nullptr, attempts, attempts);
    bucket->SetRetryBackoff(0, 0);
    return bucket;
  }

  std::string Object(size_t size) {
    std::vector<uint8_t> bytes = TestBytes(size, 5);
    return std::string(bytes.begin(), bytes.end());
  }
};

TEST_F(S3FakeThreadedFiles, WholeUploadsAreTriedAgainOnlyForPassingFailures) {
  const struct {
    const char* what;
    unsigned attempts;
    std::vector<FakeAnswer> first;  // answers to the first PUTs
    int code;
    int puts;
  } cases[] = {
      {"500 then 503 then stored", 3, {FakeError(500, "InternalError"), FakeError(503, "SlowDown")}, 0, 3},
      {"503 every time", 2, {FakeError(503, "SlowDown"), FakeError(503, "SlowDown")}, kErrNetwork, 2},
      {"reset, then stored", 3, {Broken(FakeFault::kReset, 0)}, 0, 2},
      {"access denied is final", 3, {FakeError(403, "AccessDenied")}, kErrAccessDenied, 1},
      {"clock skew is final", 3, {FakeError(403, "RequestTimeTooSkewed")}, kErrClockSkew, 1},
      {"a missing bucket may pass", 2, {FakeError(404, "NoSuchBucket"), FakeError(404, "NoSuchBucket")}, kErrNotFound,
       2},
  };
  std::string data = Object(1000);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server.ClearRules();
    for (size_t i = 0; i < c.first.size(); ++i) server.OnNth("PUT", "", static_cast<int>(i + 1), c.first[i]);
    server.On("PUT", "", Answer(200, "", {{"ETag", "\"whole\""}}));
    int before = server.Count("PUT");
    auto bucket = Bucket(c.attempts);
    ASSERT_EQ(bucket->OpenFileForWrite(u"dir/obj"), 0);
    ASSERT_EQ(bucket->WriteToFile(data.data(), data.size()), 0);
    EXPECT_EQ(bucket->CloseFile(), c.code);
    EXPECT_EQ(server.Count("PUT") - before, c.puts);
    EXPECT_EQ(server.Requests().back().body, data);
  }
}

TEST_F(S3FakeThreadedFiles, MultipartUploadRetriesAPartAndCompletesInOrder) {
  host.SetIni("Options", "CloudUploadThreads", "2");
  host.SetIni("Options", "CloudMaxTransferMB", "5");
  FakeRule parts;
  parts.method = "PUT";
  parts.contains = "partNumber=";
  parts.respond = [](const FakeRequest& r) {
    return Answer(200, "", {{"ETag", "\"etag-" + QueryValue(r, "partNumber") + "\""}});
  };
  server.On("POST", "?uploads$", Answer(200, "<InitiateMultipartUploadResult><UploadId>M1</UploadId>"
                                             "</InitiateMultipartUploadResult>"));
  server.OnNth("PUT", "partNumber=2&", 1, FakeError(503, "SlowDown"));
  server.Add(parts);
  // InternalError inside a 200 is the service's own trouble: tried again.
  server.OnNth("POST", "?uploadId=M1", 1, Answer(200, FakeErrorXml("InternalError")));
  server.On("POST", "?uploadId=M1", Answer(200, "<CompleteMultipartUploadResult/>"));
  std::string data = Object(11 * kMiB + 5);
  auto bucket = Bucket(3);
  ASSERT_EQ(bucket->OpenFileForWrite(u"big"), 0);
  ASSERT_EQ(bucket->WriteToFile(data.data(), data.size()), 0);
  ASSERT_EQ(bucket->CloseFile(), 0);
  std::string stored;
  for (int part = 1; part <= 3; ++part) {
    std::string key = "partNumber=" + std::to_string(part) + "&uploadId=M1";
    EXPECT_EQ(server.Count("PUT", key), part == 2 ? 2 : 1);
    for (const FakeRequest& r : server.Requests()) {
      if (r.target.find(key) != std::string::npos && r.body.size() > 0) {
        stored += r.body;
        break;
      }
    }
  }
  EXPECT_TRUE(stored == data);
  EXPECT_EQ(server.Count("POST", "?uploadId=M1"), 2);
  EXPECT_EQ(server.Requests().back().body,
            "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>\"etag-1\"</ETag></Part><Part>"
            "<PartNumber>2</PartNumber><ETag>\"etag-2\"</ETag></Part><Part><PartNumber>3</PartNumber><ETag>"
            "\"etag-3\"</ETag></Part></CompleteMultipartUpload>");
  EXPECT_EQ(server.Count("DELETE"), 0);
}

TEST_F(S3FakeThreadedFiles, RefusedCompletionAbortsTheUpload) {
  host.SetIni("Options", "CloudUploadThreads", "2");
  host.SetIni("Options", "CloudMaxTransferMB", "5");
  server.On("POST", "?uploads$", Answer(200, "<InitiateMultipartUploadResult><UploadId>M2</UploadId>"
                                             "</InitiateMultipartUploadResult>"));
  server.On("PUT", "partNumber=", Answer(200, "", {{"ETag", "\"p\""}}));
  server.On("POST", "?uploadId=M2", Answer(200, FakeErrorXml("AccessDenied")));
  server.On("DELETE", "?uploadId=M2", Answer(204));
  std::string data = Object(6 * kMiB);
  auto bucket = Bucket(3);
  ASSERT_EQ(bucket->OpenFileForWrite(u"big"), 0);
  ASSERT_EQ(bucket->WriteToFile(data.data(), data.size()), 0);
  EXPECT_EQ(bucket->CloseFile(), kErrAccessDenied);
  EXPECT_EQ(server.Count("POST", "?uploadId=M2"), 1);
  EXPECT_EQ(server.Count("DELETE", "?uploadId=M2"), 1);
  EXPECT_TRUE(LoggedFailure("TCloudBucket::CloseFile: cannot complete big"));
}

TEST_F(S3FakeThreadedFiles, ReadsSurviveBrokenAnswersWithinTheAttempts) {
  host.SetIni("Options", "CloudStallSeconds", "1");
  std::string data = Object(3000);
  FakeAnswer stall = Broken(FakeFault::kStall, 100);
  const struct {
    const char* what;
    unsigned attempts;
    std::vector<FakeAnswer> first;
    int code;
    int gets;
  } cases[] = {
      {"reset, cut short, then whole", 3, {Broken(FakeFault::kReset, 700), Broken(FakeFault::kTruncate, 10)}, 0, 3},
      {"stalled, then whole", 2, {stall}, 0, 2},
      {"garbage every time", 2, {Broken(FakeFault::kGarbage, 0), Broken(FakeFault::kGarbage, 0)}, kErrNetwork, 2},
      {"too long every time", 2, {Answer(206, data + "+"), Answer(206, data + "+")}, kErrInvalidData, 2},
      {"too short every time", 2, {Answer(206, data.substr(1)), Answer(206, data.substr(1))}, kErrInvalidData, 2},
      {"rewritten meanwhile", 3, {FakeError(412, "PreconditionFailed")}, kErrBadParameter, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server.ClearRules();
    server.On("HEAD", "", Answer(200, "", {{"Content-Length", "3000"}, {"ETag", "\"r1\""}}));
    for (size_t i = 0; i < c.first.size(); ++i) server.OnNth("GET", "", static_cast<int>(i + 1), c.first[i]);
    server.Add(Ranges(data));
    int before = server.Count("GET");
    auto bucket = Bucket(c.attempts);
    std::string back(3000, '\0');
    uint64_t got = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(bucket->ReadFile(u"obj", 0, back.data(), back.size(), &got), c.code);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
    EXPECT_EQ(server.Count("GET") - before, c.gets);
    if (c.code == 0) { EXPECT_TRUE(back == data); }
    for (const FakeRequest& r : server.Requests()) {
      if (r.method == "GET") { EXPECT_EQ(r.Header("If-Match"), "\"r1\""); }
    }
  }
}

TEST_F(S3FakeThreadedFiles, VerifyAsksTenTimesOnlyWhileTheNetworkFails) {
  const struct {
    FakeAnswer answer;
    int code;
    int gets;
  } cases[] = {
      {FakeError(503, "SlowDown"), kErrNetwork, 10},
      {FakeError(403, "AccessDenied"), kErrAccessDenied, 1},
      {Answer(200, "<ListBucketResult><IsTruncated>false</IsTruncated></ListBucketResult>"), 0, 1},
  };
  for (const auto& c : cases) {
    server.ClearRules();
    server.On("GET", "", c.answer);
    int before = server.Count("GET");
    EXPECT_EQ(Bucket(1)->Verify(), c.code);
    EXPECT_EQ(server.Count("GET") - before, c.gets);
    FakeRequest last = server.Requests().back();
    EXPECT_EQ(QueryValue(last, "max-keys"), "1");
    EXPECT_EQ(QueryValue(last, "list-type"), "2");
  }
}

}  // namespace
