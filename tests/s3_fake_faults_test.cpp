// The connector against failing answers: the error table row by row, the
// wrong region, broken transports, broken documents and answers longer than
// asked for. Each failure must give the mapped code and a log line, and
// none may hang.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "cloud/s3/s3_client.h"
#include "foundation/errors.h"
#include "tests/s3_fake_rig.h"

namespace {

FakeAnswer Status(int status, const std::string& body = std::string(), FakeHeaders headers = {}) {
  return FakeAnswer{status, std::move(headers), body};
}

FakeAnswer Fault(FakeFault fault, size_t cutAt, int status = 206, const std::string& body = std::string(100, 'x')) {
  FakeAnswer a = Status(status, body);
  a.fault = fault;
  a.cutAt = cutAt;
  return a;
}

std::string Mapped(int code) { return "(error " + std::to_string(code) + ")"; }

class S3FakeFaults : public S3FakeTest {
 protected:
  int Read(TS3Conn& conn, uint32_t length, uint32_t* received) {
    std::vector<uint8_t> buffer(length);
    CloudDownloadSpec fetch;
    fetch.name = u"obj";
    return conn.DownloadBytes(fetch, buffer.data(), length, received);
  }
};

TEST_F(S3FakeFaults, ServiceErrorsMapInTheTablesOrder) {
  const std::string aws4 = "<StringToSign>AWS4-HMAC-SHA256\n20240102T030405Z</StringToSign>";
  const struct {
    FakeAnswer answer;
    int code;
    const char* logged;
  } rows[] = {
      // One row per code through the wire (the whole table is s3_errors_test's):
      // the status line, the document and the log line travel intact.
      {FakeError(400, "AuthorizationHeaderMalformed", aws4), kErrBadParameter, "400, AuthorizationHeaderMalformed"},
      {FakeError(403, "RequestTimeTooSkewed", aws4), kErrClockSkew, "403, RequestTimeTooSkewed"},
      {FakeError(403, "SignatureDoesNotMatch", aws4), kErrNetwork, "403, SignatureDoesNotMatch"},
      {FakeError(403, "InvalidAccessKeyId"), kErrAccessDenied, "403, InvalidAccessKeyId"},
      {FakeError(404, "NoSuchKey"), kErrNotFound, "404, NoSuchKey"},
      {FakeError(503, "SlowDown"), kErrNetwork, "503, SlowDown"},
      {Status(502, "<html>bad gateway</html>"), kErrNetwork, "502, -"},
      {Status(409, "not xml at all"), kErrBadParameter, "409, -"},
      {Fault(FakeFault::kGarbage, 0, 200, "\x16\x03\x01 no http here\r\n\r\n"), kErrNetwork, "0, -: "},
      {Fault(FakeFault::kGarbage, 0, 200, ""), kErrNetwork, "0, -: "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.logged);
    server.ClearRules();
    server.On("DELETE", "", row.answer);
    ForgetLog();
    EXPECT_EQ(Conn().DeleteCloudObject(u"obj"), row.code);
    EXPECT_TRUE(LoggedFailure(std::string("TS3Conn::DeleteCloudObject: statusCode ") + row.logged));
    EXPECT_TRUE(LoggedFailure(Mapped(row.code)));
  }
  // A missing object asked quietly is no failure to log.
  ForgetLog();
  server.ClearRules();
  server.On("HEAD", "", Status(404));
  EXPECT_EQ(Conn().ObjectExists(u"obj", nullptr, true), kErrNotFound);
  EXPECT_FALSE(LoggedFailure("TS3Conn::ObjectExists"));
  EXPECT_EQ(Conn().ObjectExists(u"obj", nullptr, false), kErrNotFound);
  EXPECT_TRUE(LoggedFailure("TS3Conn::ObjectExists: statusCode 404"));
}

TEST_F(S3FakeFaults, WrongRegionIsFollowedOnceAndKept) {
  const struct {
    const char* what;
    FakeAnswer first;
    FakeAnswer second;
    int code;
    int requests;
    const char* region;  // the region the connector keeps
  } cases[] = {
      {"named in the document", FakeError(400, "AuthorizationHeaderMalformed", "<Region>eu-west-1</Region>"),
       Status(204), 0, 2, "eu-west-1"},
      {"named in the header",
       Status(400, FakeErrorXml("AuthorizationHeaderMalformed"), {{"x-amz-bucket-region", "ap-south-1"}}),
       Status(204), 0, 2, "ap-south-1"},
      {"wrong again", FakeError(400, "AuthorizationHeaderMalformed", "<Region>eu-west-2</Region>"),
       FakeError(400, "AuthorizationHeaderMalformed", "<Region>eu-west-3</Region>"), kErrBadParameter, 2,
       "eu-west-2"},
      {"the region it used", FakeError(400, "AuthorizationHeaderMalformed", "<Region>us-east-1</Region>"),
       Status(204), kErrBadParameter, 1, "us-east-1"},
      {"another code naming a region", FakeError(403, "AccessDenied", "<Region>eu-west-1</Region>"), Status(204),
       kErrAccessDenied, 1, "us-east-1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server.ClearRules();
    server.OnNth("DELETE", "", 1, c.first);
    server.OnNth("DELETE", "", 2, c.second);
    server.On("DELETE", "", Status(204));
    std::unique_ptr<TS3Conn> conn = MakeConn(Options());
    size_t before = server.Requests().size();
    EXPECT_EQ(conn->DeleteCloudObject(u"obj"), c.code);
    std::vector<FakeRequest> sent = server.Requests();
    ASSERT_EQ(sent.size() - before, static_cast<size_t>(c.requests));
    EXPECT_EQ(CheckSignedRequest(sent[before], host.Lines()).region, "us-east-1");
    if (c.requests == 2) { EXPECT_EQ(CheckSignedRequest(sent.back(), host.Lines()).region, c.region); }
    EXPECT_EQ(conn->Region(), c.region);
    // Kept: the next request, and a part connection's, go there at once.
    EXPECT_EQ(conn->DeleteCloudObject(u"obj"), 0);
    std::shared_ptr<TCloudConn> part;
    ASSERT_EQ(conn->NewPartConn(&part), 0);
    EXPECT_EQ(part->DeleteCloudObject(u"obj"), 0);
    sent = server.Requests();
    ASSERT_EQ(sent.size() - before, static_cast<size_t>(c.requests + 2));
    EXPECT_EQ(CheckSignedRequest(sent[sent.size() - 2], host.Lines()).region, c.region);
    EXPECT_EQ(CheckSignedRequest(sent.back(), host.Lines()).region, c.region);
  }
  // A HEAD answer has no document: its header alone names the region.
  server.ClearRules();
  server.OnNth("HEAD", "", 1, Status(400, "", {{"x-amz-bucket-region", "eu-central-1"}}));
  server.On("HEAD", "", Status(200, "", {{"Content-Length", "5"}}));
  std::unique_ptr<TS3Conn> conn = MakeConn(Options());
  EXPECT_EQ(conn->ObjectExists(u"obj", nullptr, false), 0);
  EXPECT_EQ(conn->Region(), "eu-central-1");
  EXPECT_EQ(server.Count("HEAD"), 2);
}

TEST_F(S3FakeFaults, BrokenTransportsFailFastAndTheNextRequestReconnects) {
  host.SetIni("Options", "CloudStallSeconds", "1");
  std::unique_ptr<TS3Conn> conn = MakeConn(Options());
  uint32_t warm = 0;
  server.On("GET", "", Status(206, std::string(100, 'y')));
  ASSERT_EQ(Read(*conn, 100, &warm), 0);
  FakeAnswer never = Status(200);
  never.delayMs = 60000;
  const struct {
    const char* what;
    FakeAnswer answer;
    uint32_t received;  // what reached the buffer before the failure
    int minMs;
  } cases[] = {
      {"reset in the body", Fault(FakeFault::kReset, 40), 40, 0},
      {"closed short of its length", Fault(FakeFault::kTruncate, 60), 60, 0},
      {"stalled in the body", Fault(FakeFault::kStall, 30), 30, 900},
      {"never answered", never, 0, 900},
      {"garbage", Fault(FakeFault::kGarbage, 0, 200, "HTTP/9 nonsense\r\n\r\n"), 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server.ClearRules();
    server.OnNth("GET", "", 1, c.answer);
    server.On("GET", "", Status(206, std::string(100, 'y')));
    ForgetLog();
    int connections = server.Connections();
    auto start = std::chrono::steady_clock::now();
    uint32_t received = 0;
    EXPECT_EQ(Read(*conn, 100, &received), kErrNetwork);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(ms, c.minMs);
    EXPECT_LT(ms, 5000);
    EXPECT_LE(received, c.received);
    EXPECT_TRUE(LoggedFailure("TS3Conn::DownloadBytes: statusCode 0"));
    EXPECT_TRUE(LoggedFailure(Mapped(kErrNetwork)));
    EXPECT_EQ(Read(*conn, 100, &received), 0);
    EXPECT_EQ(received, 100u);
    EXPECT_EQ(server.Connections(), connections + 1);
  }
}

TEST_F(S3FakeFaults, KeptAliveConnectionServesManyRequestsAndIsLeftWhenClosed) {
  server.On("HEAD", "", Status(200, "", {{"Content-Length", "1"}}));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Conn().ObjectExists(u"obj", nullptr, false), 0);
  EXPECT_EQ(server.Connections(), 1);
  EXPECT_EQ(server.Count("HEAD"), 5);
  // Closed unanswered, as a server drops an idle connection: the upload
  // goes again, whole, on a new one.
  server.OnNth("PUT", "", 1, Fault(FakeFault::kGarbage, 0, 200, ""));
  server.On("PUT", "", Status(200, "", {{"ETag", "\"t\""}}));
  std::string body(300000, 'b');
  CloudUploadSpec put;
  put.name = u"obj";
  std::string etag;
  EXPECT_EQ(Conn().UploadBytes(put, reinterpret_cast<const uint8_t*>(body.data()), body.size(), &etag), 0);
  EXPECT_EQ(etag, "\"t\"");
  EXPECT_EQ(server.Count("PUT"), 2);
  for (const FakeRequest& r : server.Requests()) {
    if (r.method == "PUT") { EXPECT_TRUE(r.body == body); }
  }
  EXPECT_EQ(server.Connections(), 2);
}

TEST_F(S3FakeFaults, BrokenDocumentsAreRefusedWithALogLine) {
  const struct {
    const char* what;
    std::function<int(TS3Conn&)> run;
    FakeAnswer answer;
    int code;
    const char* logged;
  } cases[] = {
      {"listing cut short",
       [](TS3Conn& c) {
         std::vector<TCloudObject> all;
         return c.GetAllObjectsInPath(TString(), all, true, nullptr);
       },
       Status(200, "<ListBucketResult><Contents><Key>a</Key><Si"), kErrInvalidData, "TS3Conn::GetAllObjectsInPath: "},
      {"listing of garbage",
       [](TS3Conn& c) {
         std::vector<TCloudObject> all;
         return c.GetAllObjectsInPath(TString(), all, true, nullptr);
       },
       Status(200, "\x89PNG\r\n\x1a\n\x00\x01"), kErrInvalidData, "TS3Conn::GetAllObjectsInPath: "},
      {"listing of another kind",
       [](TS3Conn& c) {
         std::vector<TCloudObject> all;
         return c.GetAllObjectsInPath(TString(), all, true, nullptr);
       },
       Status(200, "<ListVersionsResult/>"), kErrInvalidData, "TS3Conn::GetAllObjectsInPath: not a listing"},
      {"completion failing inside a success",
       [](TS3Conn& c) { return c.FinishMultiPartUpload(u"obj", "U", {{1, "\"e\"", 5}}); },
       Status(200, FakeErrorXml("AccessDenied")), kErrAccessDenied,
       "TS3Conn::FinishMultiPartUpload: obj: answer Error (AccessDenied refused)"},
      {"completion that is no result",
       [](TS3Conn& c) { return c.FinishMultiPartUpload(u"obj", "U", {{1, "\"e\"", 5}}); },
       Status(200, "<Something/>"), kErrInvalidData, "TS3Conn::FinishMultiPartUpload: obj: answer Something"},
      {"copy failing inside a success",
       [](TS3Conn& c) { return c.CopyObject(u"a", u"b", 1, 0, 0, nullptr, nullptr); },
       Status(200, FakeErrorXml("InvalidObjectState")), kErrNotFound, "TS3Conn::CopyObject: b: answer Error"},
      {"copy cut short", [](TS3Conn& c) { return c.CopyObject(u"a", u"b", 1, 0, 0, nullptr, nullptr); },
       Status(200, "<CopyObjectResult><ETag>"), kErrInvalidData, "TS3Conn::CopyObject: b: unreadable answer"},
      {"start without an id", [](TS3Conn& c) {
         std::string id;
         return c.StartMultiPartUpload(u"obj", nullptr, &id);
       },
       Status(200, "<InitiateMultipartUploadResult/>"), kErrInvalidData,
       "TS3Conn::StartMultiPartUpload: obj: no UploadId"},
      {"upload without an entity tag",
       [](TS3Conn& c) {
         CloudUploadSpec put;
         put.name = u"obj";
         std::string etag;
         return c.UploadBytes(put, reinterpret_cast<const uint8_t*>("x"), 1, &etag);
       },
       Status(200), kErrInvalidData, "TS3Conn::UploadBytes: obj: no ETag in the answer"},
      {"versioning of another kind", [](TS3Conn& c) {
         TString status;
         return c.get_BucketVersioning(&status);
       },
       Status(200, "<LifecycleConfiguration/>"), kErrInvalidData,
       "TS3Conn::get_BucketVersioning: answer LifecycleConfiguration"},
      {"retention days missing", [](TS3Conn& c) {
         uint32_t days = 0;
         return c.GetWormDays(&days);
       },
       Status(200, "<WormConfiguration><State>Locked</State></WormConfiguration>"), kErrInvalidData,
       "TS3Conn::GetWormDays: no RetentionPeriodInDays"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server.ClearRules();
    server.On("", "", c.answer);
    ForgetLog();
    EXPECT_EQ(c.run(Conn()), c.code);
    EXPECT_TRUE(LoggedFailure(c.logged));
    EXPECT_TRUE(LoggedFailure(Mapped(c.code)));
  }
}

TEST_F(S3FakeFaults, AnswersLongerThanAskedForAreRefused) {
  const struct {
    const char* what;
    FakeAnswer answer;
  } cases[] = {
      {"a range with a byte too many", Status(206, std::string(101, 'z'))},
      {"the whole object instead of the range", Status(200, std::string(5000, 'w'))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server.ClearRules();
    server.On("GET", "", c.answer);
    ForgetLog();
    uint32_t received = 0;
    EXPECT_EQ(Read(Conn(), 100, &received), kErrInvalidData);
    EXPECT_LE(received, 100u);
    EXPECT_TRUE(LoggedFailure("TS3Conn::DownloadBytes: statusCode 0, -: the answer is longer than asked for"));
  }
  // An answer kept whole stops at its limit, however much more comes.
  FakeAnswer huge = Status(200, "<ListBucketResult>");
  huge.padTo = kS3MaxAnswerBytes + 1;
  server.ClearRules();
  server.On("GET", "", huge);
  std::vector<TCloudObject> all;
  EXPECT_EQ(Conn().GetAllObjectsInPath(TString(), all, true, nullptr), kErrInvalidData);
  EXPECT_TRUE(LoggedFailure("the answer is longer than asked for"));
}

}  // namespace
