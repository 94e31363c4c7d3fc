// The S3 connector against a real signature-checking server on loopback:
// objects, metadata, ranges, copies, credentials and TLS.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "cloud/tcloudbucket.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "tests/s3/s3_fixture.h"

namespace {

using S3Objects = S3Fixture;

TEST_F(S3Objects, KeysOfEveryKindRoundTrip) {
  const char* names[] = {"plain", "with space", "plus+sign", "per%cent", "eq=ual", "tilde~x", "caf\xC3\xA9",
                         "\xE6\x97\xA5\xE6\x9C\xAC", "dir/sub/file", "amp&x", "quote'x", "folder/", "a-b.c_d"};
  for (const char* name : names) {
    std::vector<uint8_t> data = TestBytes(100 + std::strlen(name), static_cast<uint32_t>(std::strlen(name)));
    ASSERT_EQ(Put(conn.get(), name, data), 0) << name;
    TCloudMetaData meta;
    ASSERT_EQ(conn->ObjectExists(TStringFromUTF8(name), &meta, false), 0) << name;
    EXPECT_EQ(meta.GetHeader("Content-Length"), std::to_string(data.size())) << name;
    std::vector<uint8_t> back;
    ASSERT_EQ(Get(conn.get(), name, 0, static_cast<uint32_t>(data.size()), &back), 0) << name;
    EXPECT_TRUE(back == data) << name;
  }
  std::vector<TCloudObject> all;
  ASSERT_EQ(conn->GetAllObjectsInPath(TString(), all, true, nullptr), 0);
  std::set<std::string> listed;
  for (const TCloudObject& o : all) listed.insert(TStringAsString(o.GetName()));
  for (const char* name : names) {
    // The server escapes "&" and "'" twice in its listings (its own fault;
    // the fake server's tests show how we read both).
    if (std::strchr(name, '&') != nullptr || std::strchr(name, '\'') != nullptr) continue;
    EXPECT_EQ(listed.count(name), 1u) << name;
  }
  for (const char* name : names) EXPECT_EQ(conn->DeleteCloudObject(TStringFromUTF8(name)), 0) << name;
  host.Clear();
  EXPECT_EQ(conn->ObjectExists(TString(u"plain"), nullptr, true), kErrNotFound);
  EXPECT_TRUE(host.LinesWithFormat("%s: statusCode %d, %s: %s, %E").empty()) << "a quiet miss logs nothing";
  EXPECT_EQ(conn->ObjectExists(TString(u"plain"), nullptr, false), kErrNotFound);
  EXPECT_EQ(host.LinesWithFormat("%s: statusCode %d, %s: %s, %E").size(), 1u);
}

TEST_F(S3Objects, RangesAtBothEndsAndEmptyObjects) {
  const std::vector<uint8_t> data = TestBytes(100000, 3);
  ASSERT_EQ(Put(conn.get(), "obj", data), 0);
  struct Case {
    uint64_t offset;
    uint32_t length;
    int want;
    uint32_t wantBytes;
  } cases[] = {
      // This server ignores the range "bytes=0-0" and sends the whole
      // object: the answer is refused, never cut down and taken.
      {0, 1, kErrInvalidData, 0},
      {0, 2, 0, 2},          {0, 1024, 0, 1024},  {99999, 1, 0, 1},           {50000, 50000, 0, 50000},
      {99000, 5000, 0, 1000},  // the server clips a range that runs past the end
      {100000, 1, kErrBadParameter, 0},  // a range wholly past the end is refused (416)
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> out;
    EXPECT_EQ(Get(conn.get(), "obj", c.offset, c.length, &out), c.want) << c.offset;
    ASSERT_EQ(out.size(), c.wantBytes) << c.offset;
    if (c.wantBytes > 0) {
      EXPECT_EQ(std::memcmp(out.data(), data.data() + c.offset, c.wantBytes), 0) << c.offset;
    }
  }
  ASSERT_EQ(Put(conn.get(), "empty", {}), 0);
  TCloudMetaData meta;
  ASSERT_EQ(conn->ObjectExists(TString(u"empty"), &meta, false), 0);
  EXPECT_EQ(meta.GetHeader("Content-Length"), "0");
  TCloudBucket bucket(Options(), nullptr, nullptr, 2, 2);
  TMemory memory;
  EXPECT_EQ(bucket.ReadToTMemory(TString(u"empty"), &memory), 0);
  EXPECT_EQ(memory.GetSize(), 0u);
  uint64_t got = 1;
  char one;
  EXPECT_EQ(bucket.ReadFile(TString(u"empty"), 0, &one, 1, &got), kErrEndOfFile);
  EXPECT_EQ(got, 0u);
}

TEST_F(S3Objects, LibraryDatesTravelAsSignedMetadataAndComeBack) {
  TCloudMetaData meta;
  const uint64_t created = 133000000000000000ull;  // 2022-06-18
  const uint64_t modified = created + 36000000000ull;
  meta.SetDateValue(eCloudMetaCreated, &created);
  meta.SetDateValue(eCloudMetaModified, &modified);
  meta.SetStringValue(eCloudMetaReplicated, "2099-01-01T00:00:00.00+0000");
  ASSERT_EQ(Put(conn.get(), "dated", TestBytes(10, 1), &meta), 0);
  // The three keys were signed (the server checked the signature over them).
  bool signedAll = false;
  for (const LoggedLine& line : host.Lines()) {
    if (line.text.find("canonicalRequest:PUT") != std::string::npos &&
        line.text.find("x-amz-meta-created;x-amz-meta-modified;x-amz-meta-replicated") != std::string::npos) {
      signedAll = true;
    }
  }
  EXPECT_TRUE(signedAll);
  TCloudMetaData back;
  ASSERT_EQ(conn->ObjectExists(TString(u"dated"), &back, false), 0);
  EXPECT_EQ(back.GetValue(eCloudMetaCreated), meta.GetValue(eCloudMetaCreated));
  EXPECT_EQ(back.GetValue(eCloudMetaModified), meta.GetValue(eCloudMetaModified));
  // Written "after" its last replication: the service's date wins.
  EXPECT_FALSE(back.GetValue(eCloudMetaLastModified).empty());
  EXPECT_EQ(back.GetValue(eCloudMetaReplicated), meta.GetValue(eCloudMetaReplicated));
  // Copy with REPLACE: new dates on the copy, the bytes the same.
  TDate replicated(2030, 2, 3, 4, 5, 6, 0);
  replicated.SetGMTOffset(0);
  ASSERT_EQ(conn->CopyObject(TString(u"dated"), TString(u"copy"), 10, modified, modified, &replicated, nullptr), 0);
  TCloudMetaData copied;
  ASSERT_EQ(conn->ObjectExists(TString(u"copy"), &copied, false), 0);
  EXPECT_EQ(copied.GetValue(eCloudMetaCreated), meta.GetValue(eCloudMetaModified));
  EXPECT_EQ(copied.GetValue(eCloudMetaReplicated), "2030-02-03T04:05:06.00+0000");
  std::vector<uint8_t> bytes;
  ASSERT_EQ(Get(conn.get(), "copy", 0, 10, &bytes), 0);
  EXPECT_TRUE(bytes == TestBytes(10, 1));
  EXPECT_EQ(conn->CopyObject(TString(u"missing"), TString(u"x"), 1, 0, 0, nullptr, nullptr), kErrNotFound);
}

TEST_F(S3Objects, CredentialsThatDoNotSignAreRefused) {
  struct Case {
    const char* what;
    const char* access;
    const char* secret;
    int want;
  } cases[] = {
      // The service's refusal quotes the string to sign, so the table's
      // third row maps it to a network failure, which may be retried.
      {"wrong secret", "S3RVER", "not-the-secret", kErrNetwork},
      {"unknown access key", "NOBODY", "S3RVER", kErrAccessDenied},
  };
  for (const Case& c : cases) {
    TCloudOptions options = Options();
    options.SetAccessKey(TString(c.access));
    options.SetSecretKey(TStringFromUTF8(c.secret));
    TS3Conn wrong(options);
    wrong.ReadSettings();
    host.Clear();
    EXPECT_EQ(wrong.Verify(), c.want) << c.what;
    EXPECT_EQ(TCloudBucket::IsRetryError(c.want), c.want == kErrNetwork) << c.what;
    for (const LoggedLine& line : host.Lines()) {
      EXPECT_EQ(line.text.find(c.secret), std::string::npos) << c.what << ": " << line.text;
    }
  }
}

TEST_F(S3Objects, TlsTrustsTheGivenAuthorityAndRefusesAnotherName) {
  struct Case {
    const char* what;
    S3Peers::Server server;
    bool trust;
    int want;
  } cases[] = {
      {"trusted", S3Peers::kHttps, true, 0},
      {"unknown authority", S3Peers::kHttps, false, kErrAccessDenied},
      {"certificate for another name", S3Peers::kWrongName, true, kErrAccessDenied},
  };
  for (const Case& c : cases) {
    host.SetIni("Options", "CloudCAFile", c.trust ? S3Peers::Get().Value("S3_CA_FILE") : "/nonexistent-ca.pem");
    TCloudOptions options = S3Peers::Get().Options(c.server, S3Peers::Get().Value("S3_BUCKET"));
    TS3Conn tls(options);
    tls.ReadSettings();
    host.Clear();
    EXPECT_EQ(tls.Verify(), c.want) << c.what;
    if (c.want != 0) {
      std::vector<LoggedLine> lines = host.LinesWithFormat("%s: statusCode %d, %s: %s, %E");
      ASSERT_EQ(lines.size(), 1u) << c.what;
      EXPECT_NE(lines[0].text.find("statusCode 0"), std::string::npos) << lines[0].text;
    }
  }
}

}  // namespace
