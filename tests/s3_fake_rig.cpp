#include "tests/s3_fake_rig.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>

namespace {

// The headers a signature takes when a request carries them, in order.
const char* const kSignedOrder[] = {"host",
                                    "content-md5",
                                    "x-amz-bucket-object-lock-enabled",
                                    "x-amz-content-sha256",
                                    "x-amz-copy-source",
                                    "x-amz-copy-source-range",
                                    "x-amz-date",
                                    "x-amz-meta-created",
                                    "x-amz-meta-modified",
                                    "x-amz-meta-replicated",
                                    "x-amz-metadata-directive",
                                    "x-amz-object-lock-mode",
                                    "x-amz-object-lock-retain-until-date",
                                    "x-goog-bucket-retention-period",
                                    "x-goog-content-sha256",
                                    "x-goog-date",
                                    "x-goog-project-id"};
// Headers beside those that a request may carry.
const char* const kUnsignedAllowed[] = {"authorization", "content-length", "range", "if-match"};
constexpr char kCanonicalPrefix[] = "TS3Conn::s3_v4_authorization:canonicalRequest:";

std::string Hex(const unsigned char* data, size_t size) {
  std::string out;
  char two[3];
  for (size_t i = 0; i < size; ++i) {
    std::snprintf(two, sizeof two, "%02x", data[i]);
    out += two;
  }
  return out;
}

std::string Hmac(const std::string& key, const std::string& data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(data.data()),
       data.size(), out, &size);
  return std::string(reinterpret_cast<char*>(out), size);
}

std::string Between(const std::string& text, const std::string& from, const std::string& to) {
  size_t at = text.find(from);
  if (at == std::string::npos) return std::string();
  at += from.size();
  size_t end = to.empty() ? text.size() : text.find(to, at);
  return end == std::string::npos ? std::string() : text.substr(at, end - at);
}

std::vector<std::string> Split(const std::string& text, char by) {
  std::vector<std::string> out;
  size_t at = 0;
  for (size_t end; (end = text.find(by, at)) != std::string::npos; at = end + 1) {
    out.push_back(text.substr(at, end - at));
  }
  out.push_back(text.substr(at));
  return out;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string PercentDecode(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string CanonicalQueryOf(const std::string& query) {
  if (query.empty()) return std::string();
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const std::string& piece : Split(query, '&')) {
    size_t eq = piece.find('=');
    pairs.emplace_back(piece.substr(0, eq), eq == std::string::npos ? std::string() : piece.substr(eq + 1));
  }
  std::sort(pairs.begin(), pairs.end());
  std::string out;
  for (const auto& [name, value] : pairs) out += (out.empty() ? "" : "&") + name + "=" + value;
  return out;
}

// Any eight characters running of the secret key: a part of it shows too.
bool ShowsSecret(const std::string& text) {
  const std::string secret = kFakeSecretKey;
  for (size_t at = 0; at + 8 <= secret.size(); ++at) {
    if (text.find(secret.substr(at, 8)) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

std::string OracleSha256Hex(const std::string& data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(data.data(), data.size(), out, &size, EVP_sha256(), nullptr);
  return Hex(out, size);
}

std::string OracleMd5Base64(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(data.data(), data.size(), digest, &size, EVP_md5(), nullptr);
  unsigned char text[64] = {};
  int length = EVP_EncodeBlock(text, digest, static_cast<int>(size));
  return std::string(reinterpret_cast<char*>(text), static_cast<size_t>(length));
}

std::vector<std::pair<std::string, std::string>> QueryOf(const FakeRequest& request) {
  std::vector<std::pair<std::string, std::string>> out;
  if (request.query.empty()) return out;
  for (const std::string& piece : Split(request.query, '&')) {
    size_t eq = piece.find('=');
    out.emplace_back(PercentDecode(piece.substr(0, eq)),
                     eq == std::string::npos ? std::string() : PercentDecode(piece.substr(eq + 1)));
  }
  return out;
}

std::string QueryValue(const FakeRequest& request, const std::string& name) {
  for (const auto& [key, value] : QueryOf(request)) {
    if (key == name) return value;
  }
  return "<absent>";
}

WireSignature CheckSignedRequest(const FakeRequest& r, const std::vector<LoggedLine>& lines) {
  WireSignature w;
  std::string auth = r.Header("Authorization");
  std::vector<std::string> credential = Split(Between(auth, "AWS4-HMAC-SHA256 Credential=", ",SignedHeaders="), '/');
  EXPECT_EQ(credential.size(), 5u) << auth;
  if (credential.size() != 5) return w;
  w.accessKey = credential[0];
  w.date = credential[1];
  w.region = credential[2];
  w.service = credential[3];
  EXPECT_EQ(credential[4], "aws4_request");
  w.signedHeaders = Between(auth, ",SignedHeaders=", ",Signature=");
  w.signature = Between(auth, ",Signature=", "");
  EXPECT_EQ(w.accessKey, kFakeAccessKey);
  EXPECT_EQ(w.service, "s3");

  // The selection: the fixed order, filtered by what went out.
  std::string expected;
  for (const char* name : kSignedOrder) {
    if (r.Has(name)) expected += (expected.empty() ? "" : ";") + std::string(name);
  }
  EXPECT_EQ(w.signedHeaders, expected) << r.requestLine;
  std::set<std::string> allowed(std::begin(kSignedOrder), std::end(kSignedOrder));
  allowed.insert(std::begin(kUnsignedAllowed), std::end(kUnsignedAllowed));
  for (const auto& [name, value] : r.headers) EXPECT_EQ(allowed.count(Lower(name)), 1u) << name << " in " << r.head;

  bool google = r.Has("x-goog-date");
  EXPECT_NE(google, r.Has("x-amz-date")) << r.head;
  std::string time = r.Header(google ? "x-goog-date" : "x-amz-date");
  EXPECT_TRUE(time.size() == 16 && time[8] == 'T' && time[15] == 'Z') << time;
  EXPECT_EQ(time.substr(0, 8), w.date);
  std::string payload = r.Header(google ? "x-goog-content-sha256" : "x-amz-content-sha256");
  if (payload == "UNSIGNED-PAYLOAD") {
    EXPECT_EQ(r.method, "GET");
    EXPECT_TRUE(r.body.empty());
  } else {
    EXPECT_EQ(payload, OracleSha256Hex(r.body)) << r.requestLine;
  }
  if (r.Has("Content-MD5")) { EXPECT_EQ(r.Header("Content-MD5"), OracleMd5Base64(r.body)) << r.requestLine; }
  if (r.method == "PUT" || r.method == "POST") { EXPECT_EQ(r.Header("Content-Length"), std::to_string(r.body.size())); }

  // The canonical request as the wire shows it must be the one logged, and
  // the signature must be over it.
  std::string canonical = r.method + "\n" + r.path + "\n" + CanonicalQueryOf(r.query) + "\n";
  for (const std::string& name : Split(w.signedHeaders, ';')) canonical += name + ":" + r.Header(name) + "\n";
  canonical += "\n" + w.signedHeaders + "\n" + payload;
  bool logged = std::any_of(lines.begin(), lines.end(),
                            [&](const LoggedLine& l) { return l.text == kCanonicalPrefix + canonical; });
  EXPECT_TRUE(logged) << "not logged as signed:\n" << canonical;
  std::string scope = w.date + "/" + w.region + "/s3/aws4_request";
  std::string toSign = "AWS4-HMAC-SHA256\n" + time + "\n" + scope + "\n" + OracleSha256Hex(canonical);
  std::string key = Hmac(Hmac(Hmac(Hmac(std::string("AWS4") + kFakeSecretKey, w.date), w.region), "s3"),
                         "aws4_request");
  std::string mac = Hmac(key, toSign);
  EXPECT_EQ(w.signature, Hex(reinterpret_cast<const unsigned char*>(mac.data()), mac.size())) << r.requestLine;
  return w;
}

S3FakeTest::S3FakeTest() {
  // Nothing here should take long: a hang shows within seconds.
  host.SetIni("Options", "CloudStallSeconds", "5");
  host.SetIni("Options", "CloudConnectSeconds", "5");
}

void S3FakeTest::TearDown() {
  server.Stop();
  m_conn.reset();
  std::vector<LoggedLine> lines = host.Lines();
  for (const FakeRequest& request : server.Requests()) {
    CheckSignedRequest(request, lines);
    EXPECT_FALSE(ShowsSecret(request.head + request.body)) << request.head;
  }
  for (const LoggedLine& line : lines) {
    EXPECT_FALSE(ShowsSecret(line.text)) << line.text;
    if (HasFailure() && line.selector != 519) std::fprintf(stderr, "log %u: %s\n", line.selector, line.text.c_str());
  }
}

TCloudOptions S3FakeTest::Options(const std::string& hostName, uint32_t flags, const std::string& path) const {
  TCloudOptions options;
  options.SetFlags(flags);
  options.SetHost(TStringFromUTF8(server.HostPort(hostName)));
  options.SetBucket(TStringFromUTF8(kFakeBucket));
  options.SetPath(TStringFromUTF8(path));
  options.SetAccessKey(TStringFromUTF8(kFakeAccessKey));
  options.SetSecretKey(TStringFromUTF8(kFakeSecretKey));
  return options;
}

std::unique_ptr<TS3Conn> S3FakeTest::MakeConn(const TCloudOptions& options) const {
  auto conn = std::make_unique<TS3Conn>(options);
  conn->ReadSettings();
  return conn;
}

TS3Conn& S3FakeTest::Conn() {
  if (!m_conn) m_conn = MakeConn(Options());
  return *m_conn;
}

FakeRequest S3FakeTest::Only(const std::string& method, const std::string& contains) const {
  std::vector<FakeRequest> found;
  for (const FakeRequest& r : server.Requests()) {
    if (r.method == method && FakeTargetHas(r.target, contains)) found.push_back(r);
  }
  EXPECT_EQ(found.size(), 1u) << method << " " << contains;
  return found.empty() ? FakeRequest() : found.front();
}

bool S3FakeTest::LoggedFailure(const std::string& text) const {
  std::vector<LoggedLine> lines = host.Lines();
  for (size_t i = m_since; i < lines.size(); ++i) {
    const LoggedLine& line = lines[i];
    if ((line.selector == 514 || line.selector == 518) && line.text.find(text) != std::string::npos) return true;
  }
  return false;
}
