// The S3 connector against the scripted server (tests/fake_s3_server.h),
// with oracles of its own: digests and the signature are computed here
// with OpenSSL directly, from the bytes the server received, never through
// the library.
//
// Every test of the fixture ends by checking every request it made: the
// signed-header list is the fixed order filtered by what was sent, the
// canonical request rebuilt from the wire is the one the connector logged,
// the Authorization value is the HMAC chain over it, the body hashes match,
// no stray header went out, and the secret key is in no log line and no
// request.
#ifndef PLINTH_TESTS_S3_FAKE_RIG_H_
#define PLINTH_TESTS_S3_FAKE_RIG_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cloud/s3/ts3conn.h"
#include "tests/fake_s3_server.h"
#include "tests/test_host.h"

constexpr char kFakeAccessKey[] = "AKIDFAKE0123456789";
constexpr char kFakeSecretKey[] = "fake/Secret+Key=never~logged%2F0123";
constexpr char kFakeBucket[] = "bkt";

std::string OracleSha256Hex(const std::string& data);
std::string OracleMd5Base64(const std::string& data);

// What an Authorization value said.
struct WireSignature {
  std::string accessKey, date, region, service, signedHeaders, signature;
};

// Checks `request` as described above; failures are the test's.
WireSignature CheckSignedRequest(const FakeRequest& request, const std::vector<LoggedLine>& lines);

// Percent-decoded query parameters of a target, in the order sent.
std::vector<std::pair<std::string, std::string>> QueryOf(const FakeRequest& request);
std::string QueryValue(const FakeRequest& request, const std::string& name);

class S3FakeTest : public ::testing::Test {
 protected:
  S3FakeTest();
  void TearDown() override;

  // Path-style options on the server under `hostName` (which must lead to
  // loopback: "127.0.0.1", or a name under ".localhost").
  TCloudOptions Options(const std::string& hostName = "127.0.0.1", uint32_t flags = 0,
                        const std::string& path = std::string()) const;
  // A connector with its settings read.
  std::unique_ptr<TS3Conn> MakeConn(const TCloudOptions& options) const;
  TS3Conn& Conn();
  // The one request of `method` whose target holds `contains`.
  FakeRequest Only(const std::string& method, const std::string& contains = std::string()) const;
  // A log line of selector 514 or 518 since the last ForgetLog whose text
  // holds `text`.
  bool LoggedFailure(const std::string& text) const;
  void ForgetLog() { m_since = host.Lines().size(); }

  TestHost host;
  FakeS3Server server;

 private:
  std::unique_ptr<TS3Conn> m_conn;
  size_t m_since = 0;
};

#endif  // PLINTH_TESTS_S3_FAKE_RIG_H_
