#include "cloud/s3/s3_client.h"

#include <cstdlib>
#include <cstring>

#include "cloud/cloud_domains.h"
#include "cloud/s3/s3_encode.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "platform/clock.h"
#include "platform/xml.h"

namespace {

constexpr char kUnsignedPayload[] = "UNSIGNED-PAYLOAD";

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

bool Contains(const std::string& host, const char16_t* domain) {
  return Lower(host).find(TStringAsString(TString(domain))) != std::string::npos;
}

// The status code of "HTTP/1.1 206 Partial Content"; 0 before one came.
long StatusOf(const std::string& statusLine) {
  size_t blank = statusLine.find(' ');
  if (blank == std::string::npos) return 0;
  return std::strtol(statusLine.c_str() + blank + 1, nullptr, 10);
}

// Carries the bytes of one exchange between the transport and the request.
class Exchanger : public platform::HttpObserver {
 public:
  // `reported` is shared by the exchanges of one request, so a body sent
  // again (to the right region) is counted once.
  Exchanger(const S3RequestSpec& request, S3AnswerSpec* answer, const platform::HttpResponseSpec* response,
            uint64_t* reported)
      : m_request(request), m_answer(answer), m_response(response), m_reported(reported) {}

  bool BodySent(size_t bytes) override {
    m_position += bytes;
    if (m_position <= *m_reported) return true;
    uint64_t fresh = m_position - *m_reported;
    *m_reported = m_position;
    return m_request.tap == nullptr || m_request.tap->Moved(fresh);
  }

  bool BodyReceived(const uint8_t* data, size_t size) override {
    long status = StatusOf(m_response->statusLine);
    if (m_request.sink != nullptr && status >= 200 && status < 300) {
      if (size > m_request.sinkSize - m_answer->received) {
        m_answer->overlong = true;
        return false;
      }
      std::memcpy(m_request.sink + m_answer->received, data, size);
      m_answer->received += static_cast<uint32_t>(size);
      return m_request.tap == nullptr || m_request.tap->Moved(size);
    }
    if (size > kS3MaxAnswerBytes - m_answer->body.size()) {
      m_answer->overlong = true;
      return false;
    }
    m_answer->body.append(reinterpret_cast<const char*>(data), size);
    return true;
  }

  bool StillWanted() override { return m_request.tap == nullptr || m_request.tap->Moved(0); }

 private:
  const S3RequestSpec& m_request;
  S3AnswerSpec* m_answer;
  const platform::HttpResponseSpec* m_response;
  uint64_t* m_reported;
  uint64_t m_position = 0;
};

}  // namespace

void S3MetaHeaders(const TCloudMetaData* meta, S3Pairs* headers) {
  if (meta == nullptr) return;
  TCloudMetaData defaults;
  for (eCloudMetaKey key : {eCloudMetaCreated, eCloudMetaModified, eCloudMetaReplicated}) {
    std::string value = meta->GetValue(key);
    if (!value.empty()) headers->emplace_back(defaults.GetKey(key), value);
  }
}

std::string S3RegionOfHost(const std::string& hostAndPort) {
  std::string host = Lower(hostAndPort.substr(0, hostAndPort.find(':')));
  const std::string amazon = ".amazonaws.com";
  if (host.size() <= amazon.size() || host.compare(host.size() - amazon.size(), amazon.size(), amazon) != 0) {
    return std::string();
  }
  std::string front = host.substr(0, host.size() - amazon.size());
  // "s3.REGION", "s3-REGION", "s3.dualstack.REGION", "BUCKET.s3.REGION".
  size_t at = front.rfind("s3.");
  size_t dash = front.rfind("s3-");
  if (dash != std::string::npos && (at == std::string::npos || dash > at)) {
    std::string region = front.substr(dash + 3);
    return region.find('.') == std::string::npos ? region : std::string();
  }
  if (at == std::string::npos) return std::string();
  std::string region = front.substr(at + 3);
  if (region.compare(0, 10, "dualstack.") == 0) region = region.substr(10);
  return region.find('.') == std::string::npos ? region : std::string();
}

S3EndpointSpec S3Endpoint(const TCloudOptions& options) {
  S3EndpointSpec out;
  bool https = (options.GetFlags() & kCloudUseSSL) != 0;
  out.scheme = https ? "https" : "http";
  std::string host = TStringAsString(options.GetHost());
  std::string bucket = TStringAsString(options.GetBucket());
  if (options.UseVirtualHostBasedURI()) {
    out.host = bucket + "." + host;
    out.pathBase.clear();
  } else {
    out.host = host;
    std::string encoded = S3UriEncode(bucket, false);
    out.pathBase.reserve(encoded.size() + 1);
    out.pathBase.push_back('/');
    out.pathBase.append(encoded);
  }
  // The default port goes unnamed in "Host", as clients send it.
  bool hasPort = !host.empty() && host.front() == '[' ? host.find("]:") != std::string::npos
                                                      : host.find(':') != std::string::npos;
  out.origin = out.scheme + "://" + out.host + (hasPort ? "" : (https ? ":443" : ":80"));
  return out;
}

TS3Client::TS3Client(const TCloudOptions& options, const std::string& region, const platform::HttpSettingsSpec& http)
    : m_options(options),
      m_endpoint(S3Endpoint(options)),
      m_region(region),
      m_google(Contains(TStringAsString(options.GetHost()), kGoogleStorageHost)) {
  m_session = std::make_unique<platform::HttpSession>(http);
}

void TS3Client::Exchange(const S3RequestSpec& request, S3AnswerSpec* answer, uint64_t* reported) {
  *answer = S3AnswerSpec();
  // The bucket itself is "/BUCKET" path style, "/" on a virtual host.
  std::string path = m_endpoint.pathBase + "/" + S3UriEncode(request.key, true);
  if (request.noBucket) path = "/";
  if (request.key.empty() && !m_endpoint.pathBase.empty()) path = m_endpoint.pathBase;
  std::string time = S3RequestTime(platform::UnixTimeMilliseconds() / 1000);
  std::string payload = request.unsignedPayload ? kUnsignedPayload : S3Sha256Hex(request.body, request.bodySize);
  S3SigningSpec signing;
  signing.method = request.method;
  signing.path = path;
  signing.query = request.query;
  signing.headers.emplace_back("Host", m_endpoint.host);
  signing.headers.emplace_back(m_google ? "x-goog-date" : "x-amz-date", time);
  signing.headers.emplace_back(m_google ? "x-goog-content-sha256" : "x-amz-content-sha256", payload);
  if (request.contentMd5) signing.headers.emplace_back("Content-MD5", S3Md5Base64(request.body, request.bodySize));
  for (const auto& header : request.headers) signing.headers.push_back(header);
  signing.payloadHash = payload;
  signing.time = time;
  signing.region = m_region;
  signing.service = "s3";
  signing.accessKey = TStringAsString(m_options.GetAccessKey());
  std::string secret = TStringAsString(m_options.GetSecretKey());
  S3SignatureSpec signature;
  bool signedOk = !payload.empty() && S3SignRequest(signing, secret, &signature);
  std::fill(secret.begin(), secret.end(), '\0');
  if (!signedOk) {
    answer->code = kErrEncryption;
    return;
  }

  platform::HttpRequestSpec http;
  http.method = request.method;
  std::string query = S3UrlQuery(request.query);
  http.url = m_endpoint.origin + path + (query.empty() ? "" : "?" + query);
  for (const auto& [name, value] : signing.headers) http.headers.push_back({name, value});
  http.headers.push_back({"Authorization", signature.authorization});
  http.body = request.body;
  http.bodySize = request.bodySize;
  platform::HttpResponseSpec response;
  Exchanger exchanger(request, answer, &response, reported);
  m_session->Perform(http, &exchanger, &response);
  answer->status = response.status;
  answer->headers = response.headers;
  bool failed = response.failure != platform::HttpFailure::kNone || response.status < 200 || response.status >= 300;
  if (answer->overlong) {
    answer->code = kErrInvalidData;
    answer->error.message = "the answer is longer than asked for";
    return;
  }
  if (!failed) return;
  S3MapError(response.status, response.failure, answer->body, answer->headers, &answer->error);
  if (response.failure != platform::HttpFailure::kNone) answer->error.message = response.failureText;
  answer->code = answer->error.code;
}

void TS3Client::Send(const S3RequestSpec& request, const char16_t* what, S3AnswerSpec* answer) {
  uint64_t reported = 0;
  Exchange(request, answer, &reported);
  // A wrong region is followed once, to the region the service names. A
  // HEAD answer carries no document: a bare 400 with the header says it.
  bool wrongRegion = answer->error.name == "AuthorizationHeaderMalformed" ||
                     (request.method == "HEAD" && answer->status == 400 && answer->error.name.empty());
  if (answer->code != 0 && wrongRegion && !answer->error.region.empty() && answer->error.region != m_region) {
    TString op(what), from = TStringFromUTF8(m_region), to = TStringFromUTF8(answer->error.region);
    LogLineChecked(519, u"%s: the bucket is in region %s, not %s; asking again there", &op, &to, &from);
    m_region = answer->error.region;
    Exchange(request, answer, &reported);
  }
  if (answer->code == 0 || (request.quietMissing && answer->code == kErrNotFound)) return;
  TString op(what);
  TString name = TStringFromUTF8(answer->error.name.empty() ? std::string("-") : answer->error.name);
  TString message = TStringFromUTF8(answer->error.message);
  LogLineChecked(514, u"%s: statusCode %d, %s: %s, %E", &op, static_cast<int>(answer->status), &name, &message,
                 answer->code);
}

int S3ReadResult(const S3AnswerSpec& answer, const char* expected, const char16_t* what, const TString& name,
                 platform::XmlElementSpec* root) {
  std::string why;
  // "operation: object" where there is an object.
  TString op(what);
  if (!name.IsEmpty()) {
    op += u": ";
    op += name;
  }
  if (!platform::ParseXml(answer.body.data(), answer.body.size(), root, &why)) {
    TString text = TStringFromUTF8(why);
    LogLineChecked(514, u"%s: unreadable answer: %s, %E", &op, &text, kErrInvalidData);
    return kErrInvalidData;
  }
  if (root->name == expected) return 0;
  S3ErrorSpec error;
  S3MapError(answer.status, platform::HttpFailure::kNone, answer.body, answer.headers, &error);
  int code = root->name == "Error" ? error.code : kErrInvalidData;
  TString got = TStringFromUTF8(root->name), detail = TStringFromUTF8(error.name + " " + error.message);
  LogLineChecked(514, u"%s: answer %s (%s), %E", &op, &got, &detail, code);
  return code;
}
