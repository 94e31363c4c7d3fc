// The S3 connector's requests byte for byte, as the scripted server received
// them: targets, headers, bodies and signatures (the fixture checks the
// signature of every request, see s3_fake_rig.h).
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "cloud/cloud_options.h"
#include "foundation/errors.h"
#include "tests/s3_fake_rig.h"

namespace {

constexpr char kNs[] = "http://s3.amazonaws.com/doc/2006-03-01/";
// 2024-01-02T03:04:05Z as a Windows file time, and its ISO text.
constexpr uint64_t kFileTime = 133486382450000000ull;
constexpr char kFileTimeIso[] = "2024-01-02T03:04:05.00+0000";

FakeAnswer Ok(const std::string& body = std::string(), FakeHeaders headers = {}) {
  FakeAnswer a;
  a.body = body;
  a.headers = std::move(headers);
  return a;
}

TDate RetainDate() {
  TDate date;
  date.Set(2031, 5, 6, 7, 8, 9, 0);
  return date;
}

struct RequestCase {
  const char* what;
  std::function<int(TS3Conn&)> run;
  FakeAnswer answer;
  const char* method;
  const char* target;
  const char* signedHeaders;
  const char* body;      // null: no body
  FakeHeaders carries;   // header values the request must hold
};

class S3FakeRequests : public S3FakeTest {};

TEST_F(S3FakeRequests, EachOperationSendsItsDocumentedForm) {
  TCloudMetaData meta;
  meta.SetStringValue(eCloudMetaCreated, "2020-01-01T00:00:00.00+0000");
  meta.SetStringValue(eCloudMetaModified, "2021-01-01T00:00:00.00+0000");
  meta.SetStringValue(eCloudMetaReplicated, "2022-01-01T00:00:00.00+0000");
  const std::string retention = std::string("<Retention xmlns=\"") + kNs +
                                "\"><Mode>COMPLIANCE</Mode><RetainUntilDate>2031-05-06T07:08:09Z</RetainUntilDate>"
                                "</Retention>";
  const std::string versioning =
      std::string("<VersioningConfiguration xmlns=\"") + kNs + "\"><Status>Enabled</Status></VersioningConfiguration>";
  const std::string complete =
      "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>\"e1\"</ETag></Part><Part><PartNumber>2"
      "</PartNumber><ETag>\"e&amp;2\"</ETag></Part></CompleteMultipartUpload>";
  const std::string created =
      "<CreateBucketConfiguration><LocationConstraint>eu-west-1</LocationConstraint></CreateBucketConfiguration>";
  std::string etag;
  TString status;
  uint32_t got = 0;
  uint8_t buffer[1024];
  const RequestCase cases[] = {
      {"whole upload with dates",
       [&](TS3Conn& c) {
         CloudUploadSpec put;
         put.name = u"dir/obj";
         put.meta = &meta;
         return c.UploadBytes(put, reinterpret_cast<const uint8_t*>("hello"), 5, &etag);
       },
       Ok("", {{"ETag", "\"5d41\""}}), "PUT", "/bkt/dir/obj",
       "host;content-md5;x-amz-content-sha256;x-amz-date;x-amz-meta-created;x-amz-meta-modified;"
       "x-amz-meta-replicated",
       "hello",
       {{"x-amz-meta-created", "2020-01-01T00:00:00.00+0000"},
        {"x-amz-meta-modified", "2021-01-01T00:00:00.00+0000"},
        {"x-amz-meta-replicated", "2022-01-01T00:00:00.00+0000"}}},
      {"part upload",
       [&](TS3Conn& c) {
         CloudUploadSpec put;
         put.name = u"obj";
         put.uploadId = "U 1+/=";
         put.partNumber = 3;
         put.meta = &meta;  // parts carry no dates
         return c.UploadBytes(put, reinterpret_cast<const uint8_t*>("part"), 4, &etag);
       },
       Ok("", {{"ETag", "\"p3\""}}), "PUT", "/bkt/obj?partNumber=3&uploadId=U%201%2B%2F%3D",
       "host;content-md5;x-amz-content-sha256;x-amz-date", "part", {}},
      {"ranged read",
       [&](TS3Conn& c) {
         CloudDownloadSpec fetch;
         fetch.name = u"obj";
         return c.DownloadBytes(fetch, buffer, sizeof buffer, &got);
       },
       [] {
         FakeAnswer a = Ok(std::string(1024, 'r'));
         a.status = 206;
         return a;
       }(),
       "GET", "/bkt/obj", "host;x-amz-content-sha256;x-amz-date", nullptr,
       {{"Range", "bytes=0-1023"}, {"x-amz-content-sha256", "UNSIGNED-PAYLOAD"}}},
      {"ranged read naming the entity tag",
       [&](TS3Conn& c) {
         CloudDownloadSpec fetch;
         fetch.name = u"obj";
         fetch.offset = 5000000000ull;
         fetch.etag = "\"e9\"";
         return c.DownloadBytes(fetch, buffer, 10, &got);
       },
       [] {
         FakeAnswer a = Ok("0123456789");
         a.status = 206;
         return a;
       }(),
       "GET", "/bkt/obj", "host;x-amz-content-sha256;x-amz-date", nullptr,
       {{"Range", "bytes=5000000000-5000000009"}, {"If-Match", "\"e9\""}}},
      {"exists", [&](TS3Conn& c) { return c.ObjectExists(u"obj", nullptr, false); },
       Ok("", {{"Content-Length", "77"}}), "HEAD", "/bkt/obj", "host;x-amz-content-sha256;x-amz-date", nullptr, {}},
      {"delete", [&](TS3Conn& c) { return c.DeleteCloudObject(u"obj"); }, Ok(), "DELETE", "/bkt/obj",
       "host;x-amz-content-sha256;x-amz-date", nullptr, {}},
      {"object lock", [&](TS3Conn& c) { return c.put_ObjectLock(u"obj", RetainDate()); }, Ok(), "PUT",
       "/bkt/obj?retention", "host;content-md5;x-amz-content-sha256;x-amz-date", retention.c_str(), {}},
      {"copy with new dates and a lock",
       [&](TS3Conn& c) {
         TDate replicated, until = RetainDate();
         replicated.Set(2024, 1, 2, 3, 4, 5, 0);
         return c.CopyObject(u"src x", u"dst", 10, kFileTime, kFileTime, &replicated, &until);
       },
       Ok("<CopyObjectResult><ETag>\"c\"</ETag></CopyObjectResult>"), "PUT", "/bkt/dst",
       "host;x-amz-content-sha256;x-amz-copy-source;x-amz-date;x-amz-meta-created;x-amz-meta-modified;"
       "x-amz-meta-replicated;x-amz-metadata-directive;x-amz-object-lock-mode;x-amz-object-lock-retain-until-date",
       "",
       {{"x-amz-copy-source", "/bkt/src%20x"},
        {"x-amz-metadata-directive", "REPLACE"},
        {"x-amz-meta-created", kFileTimeIso},
        {"x-amz-meta-modified", kFileTimeIso},
        {"x-amz-meta-replicated", kFileTimeIso},
        {"x-amz-object-lock-mode", "COMPLIANCE"},
        {"x-amz-object-lock-retain-until-date", "2031-05-06T07:08:09Z"}}},
      {"copy without dates",
       [&](TS3Conn& c) { return c.CopyObject(u"a", u"b", 10, 0, 0, nullptr, nullptr); },
       Ok("<CopyObjectResult/>"), "PUT", "/bkt/b",
       "host;x-amz-content-sha256;x-amz-copy-source;x-amz-date;x-amz-metadata-directive", "",
       {{"x-amz-copy-source", "/bkt/a"}}},
      {"versioning read", [&](TS3Conn& c) { return c.get_BucketVersioning(&status); },
       Ok(std::string("<VersioningConfiguration xmlns=\"") + kNs + "\"><Status>Suspended</Status>"
          "</VersioningConfiguration>"),
       "GET", "/bkt?versioning", "host;x-amz-content-sha256;x-amz-date", nullptr, {}},
      {"versioning on", [&](TS3Conn& c) { return c.put_BucketVersioning(true); }, Ok(), "PUT", "/bkt?versioning",
       "host;content-md5;x-amz-content-sha256;x-amz-date", versioning.c_str(), {}},
      {"multipart start",
       [&](TS3Conn& c) { return c.StartMultiPartUpload(u"obj", &meta, &etag); },
       Ok("<InitiateMultipartUploadResult><UploadId>U-9</UploadId></InitiateMultipartUploadResult>"), "POST",
       "/bkt/obj?uploads",
       "host;x-amz-content-sha256;x-amz-date;x-amz-meta-created;x-amz-meta-modified;x-amz-meta-replicated", "", {}},
      {"multipart completion",
       [&](TS3Conn& c) {
         return c.FinishMultiPartUpload(u"obj", "U-9", {{1, "\"e1\"", 5}, {2, "\"e&2\"", 1}});
       },
       Ok("<CompleteMultipartUploadResult><ETag>\"x-2\"</ETag></CompleteMultipartUploadResult>"), "POST",
       "/bkt/obj?uploadId=U-9", "host;x-amz-content-sha256;x-amz-date", complete.c_str(), {}},
      {"multipart abort", [&](TS3Conn& c) { return c.AbortMultiPartUpload(u"obj", "U-9"); }, Ok(), "DELETE",
       "/bkt/obj?uploadId=U-9", "host;x-amz-content-sha256;x-amz-date", nullptr, {}},
      {"bucket in a region, locked",
       [&](TS3Conn& c) { return c.CreateBucket(u"eu-west-1", true, 0).IsEmpty() ? 0 : -1; }, Ok(), "PUT", "/bkt",
       "host;content-md5;x-amz-bucket-object-lock-enabled;x-amz-content-sha256;x-amz-date", created.c_str(),
       {{"x-amz-bucket-object-lock-enabled", "true"}}},
      {"bucket in the default region",
       [&](TS3Conn& c) { return c.CreateBucket(TString(), false, 0).IsEmpty() ? 0 : -1; }, Ok(), "PUT", "/bkt",
       "host;x-amz-content-sha256;x-amz-date", "", {}},
  };
  for (const RequestCase& c : cases) {
    SCOPED_TRACE(c.what);
    server.ClearRules();
    server.On("", "", c.answer);
    size_t before = server.Requests().size();
    EXPECT_EQ(c.run(Conn()), 0);
    std::vector<FakeRequest> sent = server.Requests();
    ASSERT_EQ(sent.size(), before + 1);
    const FakeRequest& r = sent.back();
    EXPECT_EQ(r.requestLine, std::string(c.method) + " " + c.target + " HTTP/1.1");
    EXPECT_EQ(CheckSignedRequest(r, host.Lines()).signedHeaders, c.signedHeaders);
    EXPECT_EQ(r.Header("Host"), server.HostPort());
    if (c.body != nullptr) { EXPECT_EQ(r.body, c.body); }
    if (c.body == nullptr) { EXPECT_FALSE(r.Has("Content-Length")) << r.head; }
    for (const auto& [name, value] : c.carries) EXPECT_EQ(r.Header(name), value) << name;
  }
  EXPECT_EQ(status, u"Suspended");
  EXPECT_EQ(etag, "U-9");
}

TEST_F(S3FakeRequests, KeysAreEncodedAlikeOnTheWireAndInTheSignature) {
  server.On("HEAD", "", Ok("", {{"Content-Length", "0"}}));
  server.On("GET", "", Ok("<ListBucketResult><IsTruncated>false</IsTruncated></ListBucketResult>"));
  std::unique_ptr<TS3Conn> conn = MakeConn(Options("127.0.0.1", 0, "root dir/"));
  const struct {
    const char* name;
    const char* path;
  } keys[] = {
      {"plain", "/bkt/root%20dir/plain"},
      {"a b", "/bkt/root%20dir/a%20b"},
      {"a+b", "/bkt/root%20dir/a%2Bb"},
      {"a%b", "/bkt/root%20dir/a%25b"},
      {"a=b", "/bkt/root%20dir/a%3Db"},
      {"a~b-c_d.e", "/bkt/root%20dir/a~b-c_d.e"},
      {"caf\xC3\xA9", "/bkt/root%20dir/caf%C3%A9"},
      {"\xE6\x97\xA5\xE6\x9C\xAC", "/bkt/root%20dir/%E6%97%A5%E6%9C%AC"},
      {"folder/", "/bkt/root%20dir/folder/"},
      {"d/e f/g", "/bkt/root%20dir/d/e%20f/g"},
      {"a&b'c*d:e", "/bkt/root%20dir/a%26b%27c%2Ad%3Ae"},
      // Dot segments are part of the key, never squashed on the way.
      {"x/../y", "/bkt/root%20dir/x/../y"},
      {"./z/.", "/bkt/root%20dir/./z/."},
  };
  for (const auto& key : keys) {
    EXPECT_EQ(conn->ObjectExists(TStringFromUTF8(key.name), nullptr, false), 0) << key.name;
    EXPECT_EQ(server.Requests().back().target, key.path);
  }
  std::vector<TCloudObject> all;
  ASSERT_EQ(conn->GetAllObjectsInPath(TStringFromUTF8("a b/+/~\xC3\xA9"), all, true, nullptr), 0);
  EXPECT_EQ(server.Requests().back().query, "list-type=2&max-keys=1000&prefix=root%20dir%2Fa%20b%2F%2B%2F~%C3%A9");
}

TEST_F(S3FakeRequests, GoogleStorageGetsItsOwnHeadersAndNoPerObjectLock) {
  const std::string google = "storage.googleapis.com.localhost";
  TCloudOptions options = Options(google);
  options.SetAccessKey(TStringFromUTF8(std::string("proj-7/") + kFakeAccessKey));
  std::unique_ptr<TS3Conn> conn = MakeConn(options);
  server.On("PUT", "", Ok());
  FakeAnswer read = Ok("abc");
  read.status = 206;
  server.On("GET", "", read);
  EXPECT_EQ(conn->CreateBucket(TString(), true, 30), TString());
  FakeRequest create = Only("PUT");
  EXPECT_EQ(CheckSignedRequest(create, host.Lines()).signedHeaders,
            "host;x-goog-bucket-retention-period;x-goog-content-sha256;x-goog-date;x-goog-project-id");
  EXPECT_EQ(create.Header("x-goog-project-id"), "proj-7");
  EXPECT_EQ(create.Header("x-goog-bucket-retention-period"), "2592000");
  EXPECT_EQ(create.Header("Host"), server.HostPort(google));

  CloudDownloadSpec fetch;
  fetch.name = u"o";
  uint8_t buffer[3];
  uint32_t got = 0;
  EXPECT_EQ(conn->DownloadBytes(fetch, buffer, 3, &got), 0);
  FakeRequest get = Only("GET");
  EXPECT_EQ(get.Header("x-goog-content-sha256"), "UNSIGNED-PAYLOAD");
  EXPECT_EQ(CheckSignedRequest(get, host.Lines()).signedHeaders, "host;x-goog-content-sha256;x-goog-date");

  EXPECT_EQ(conn->put_ObjectLock(u"o", RetainDate()), kErrNotSupported);
  std::vector<LoggedLine> refused =
      host.LinesWithFormat("TS3Conn::put_ObjectLock: %s does not support per-object retention at this time");
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].text, "TS3Conn::put_ObjectLock: " + server.HostPort(google) +
                                 " does not support per-object retention at this time");
  EXPECT_EQ(server.Requests().size(), 2u);
}

TEST_F(S3FakeRequests, DefaultRetentionDateIsRefusedBeforeAnyRequest) {
  EXPECT_EQ(Conn().put_ObjectLock(u"o", TDate()), kErrBadParameter);
  std::vector<LoggedLine> lines = host.LinesWithFormat("TS3Conn::put_ObjectLock: Error: default retention date");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "TS3Conn::put_ObjectLock: Error: default retention date");
  EXPECT_EQ(server.Requests().size(), 0u);
}

TEST_F(S3FakeRequests, AlibabaBucketGetsAWormPolicyOnAVirtualHost) {
  const std::string oss = "oss-cn-hangzhou.aliyuncs.com.localhost";
  std::unique_ptr<TS3Conn> conn = MakeConn(Options(oss, kCloudVirtualHostURI));
  server.On("PUT", "", Ok());
  server.On("POST", "?worm$", Ok("", {{"x-oss-worm-id", "W-77"}}));
  server.On("POST", "?wormId=", Ok());
  server.On("GET", "?worm$",
            Ok("<WormConfiguration><WormId>W-77</WormId><State>Locked</State>"
               "<RetentionPeriodInDays>30</RetentionPeriodInDays></WormConfiguration>"));
  EXPECT_EQ(conn->CreateBucket(TString(), true, 30), TString());
  FakeRequest create = Only("PUT");
  EXPECT_EQ(create.requestLine, "PUT / HTTP/1.1");
  EXPECT_EQ(create.Header("Host"), "bkt." + server.HostPort(oss));
  // Alibaba locks by its policy, not by the S3 header.
  EXPECT_FALSE(create.Has("x-amz-bucket-object-lock-enabled"));
  FakeRequest worm = Only("POST", "?worm$");
  EXPECT_EQ(worm.requestLine, "POST /?worm HTTP/1.1");
  EXPECT_EQ(worm.body,
            "<InitiateWormConfiguration><RetentionPeriodInDays>30</RetentionPeriodInDays></InitiateWormConfiguration>");
  EXPECT_TRUE(worm.Has("Content-MD5"));
  FakeRequest bind = Only("POST", "?wormId=");
  EXPECT_EQ(bind.requestLine, "POST /?wormId=W-77 HTTP/1.1");
  EXPECT_EQ(bind.body, "");
  uint32_t days = 0;
  EXPECT_EQ(conn->GetWormDays(&days), 0);
  EXPECT_EQ(days, 30u);
  EXPECT_EQ(conn->put_ObjectLock(u"o", RetainDate()), kErrNotSupported);
  EXPECT_EQ(host.LinesWithFormat("TS3Conn::put_ObjectLock: %s does not support per-object retention at this time")
                .size(), 1u);
  // A policy without its id is a failure of the creation.
  server.ClearRules();
  server.On("PUT", "", Ok());
  server.On("POST", "?worm$", Ok());
  EXPECT_EQ(conn->CreateBucket(TString(), true, 30), u"WormFailed");
  EXPECT_TRUE(LoggedFailure("TS3Conn::InitiateWorm: no x-oss-worm-id in the answer"));
}

TEST_F(S3FakeRequests, LargeCopiesGoInRangesAndAbortOnAFailedPart) {
  constexpr uint64_t kGiB = uint64_t{1} << 30;
  server.On("POST", "?uploads$", Ok("<InitiateMultipartUploadResult><UploadId>C1</UploadId>"
                                    "</InitiateMultipartUploadResult>"));
  server.On("PUT", "partNumber=", Ok("<CopyPartResult><ETag>\"cp\"</ETag></CopyPartResult>"));
  server.On("POST", "?uploadId=C1", Ok("<CompleteMultipartUploadResult/>"));
  EXPECT_EQ(Conn().CopyObject(u"big src", u"dst", 2 * kGiB + 1, kFileTime, 0, nullptr, nullptr), 0);
  const char* ranges[] = {"bytes=0-1073741823", "bytes=1073741824-2147483647", "bytes=2147483648-2147483648"};
  for (int part = 1; part <= 3; ++part) {
    FakeRequest r = Only("PUT", "partNumber=" + std::to_string(part) + "&");
    EXPECT_EQ(r.Header("x-amz-copy-source"), "/bkt/big%20src");
    EXPECT_EQ(r.Header("x-amz-copy-source-range"), ranges[part - 1]);
    EXPECT_EQ(CheckSignedRequest(r, host.Lines()).signedHeaders,
              "host;x-amz-content-sha256;x-amz-copy-source;x-amz-copy-source-range;x-amz-date");
  }
  FakeRequest start = Only("POST", "?uploads$");
  EXPECT_EQ(start.Header("x-amz-meta-created"), kFileTimeIso);
  EXPECT_FALSE(start.Has("x-amz-metadata-directive"));
  EXPECT_EQ(Only("POST", "?uploadId=C1").body,
            "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>\"cp\"</ETag></Part><Part><PartNumber>2"
            "</PartNumber><ETag>\"cp\"</ETag></Part><Part><PartNumber>3</PartNumber><ETag>\"cp\"</ETag></Part>"
            "</CompleteMultipartUpload>");

  server.ClearRules();
  server.On("POST", "?uploads$", Ok("<InitiateMultipartUploadResult><UploadId>C2</UploadId>"
                                    "</InitiateMultipartUploadResult>"));
  server.OnNth("PUT", "uploadId=C2", 2, FakeError(403, "AccessDenied"));
  server.On("PUT", "uploadId=C2", Ok("<CopyPartResult><ETag>\"cp\"</ETag></CopyPartResult>"));
  server.On("DELETE", "uploadId=C2", Ok());
  EXPECT_EQ(Conn().CopyObject(u"big src", u"dst", 3 * kGiB, 0, 0, nullptr, nullptr), kErrAccessDenied);
  EXPECT_EQ(server.Count("PUT", "uploadId=C2"), 2);
  EXPECT_EQ(server.Count("DELETE", "uploadId=C2"), 1);
  EXPECT_EQ(server.Count("POST", "?uploadId=C2"), 0);
}

}  // namespace
