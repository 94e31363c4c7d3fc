// One S3 request, from its parts to its answer: addressing, signing and
// the exchange over the connector's own HTTP session.
//
// Addressing. A path-style location sends "/BUCKET/KEY" to the endpoint
// host; a virtual-host location (option flag kCloudVirtualHostURI) sends
// "/KEY" to "BUCKET.HOST". The port is 443 with the HTTPS flag and 80
// without, unless the host names one ("host:9000"), which is kept. Keys are
// percent-encoded by S3UriEncode with "/" kept, identically in the request
// and in the canonical request.
//
// Headers. Every request carries "Host", "x-amz-date" (for Google's storage
// host "x-goog-date"), "x-amz-content-sha256" (the hex SHA-256 of the body,
// or "UNSIGNED-PAYLOAD" for object reads) and "Authorization"; uploads add
// "Content-MD5", so that the service itself refuses a body damaged on the
// way. The caller's headers come after them.
//
// Answers. Status line and headers always; the body goes to the request's
// sink when it has one (object reads, straight into the caller's buffer),
// else it is kept, up to kS3MaxAnswerBytes (a longer answer is refused, not
// cut). Error answers are mapped by s3_errors.h.
#ifndef PLINTH_CLOUD_S3_S3_CLIENT_H_
#define PLINTH_CLOUD_S3_S3_CLIENT_H_

#include <cstdint>
#include <memory>
#include <string>

#include "cloud/cloud_metadata.h"
#include "cloud/cloud_options.h"
#include "cloud/s3/s3_errors.h"
#include "cloud/s3/s3_signer.h"
#include "cloud/tcloudconn.h"
#include "platform/http.h"
#include "platform/xml.h"

constexpr size_t kS3MaxAnswerBytes = 64u << 20;

struct S3RequestSpec {
  std::string method = "GET";
  std::string key;        // the full object key; empty for the bucket
  bool noBucket = false;  // the service itself (GET / lists buckets)
  S3Pairs query;
  S3Pairs headers;        // beside the ones every request carries
  const uint8_t* body = nullptr;
  size_t bodySize = 0;
  bool unsignedPayload = false;
  bool contentMd5 = false;
  bool quietMissing = false;  // a missing object (-1101) is no failure to log
  TCloudTap* tap = nullptr;
  // Object reads: the body goes here, at most `sinkSize` bytes.
  uint8_t* sink = nullptr;
  uint32_t sinkSize = 0;
};

struct S3AnswerSpec {
  long status = 0;
  std::string headers;
  std::string body;
  uint32_t received = 0;   // bytes that went to the sink
  bool overlong = false;   // the sink or the answer limit was passed
  S3ErrorSpec error;       // set when code != 0
  int code = 0;            // 0, or the library code of the failure
};

struct S3EndpointSpec {
  std::string scheme;   // "https" or "http"
  std::string host;     // what "Host" carries
  std::string origin;   // scheme://host[:port]
  std::string pathBase; // "/BUCKET" (path style) or "" (virtual host)
};

// The library's own dates of `meta` (keys 0 to 2) as the headers of an
// upload, under the default key names, which the signature covers.
void S3MetaHeaders(const TCloudMetaData* meta, S3Pairs* headers);

// Where requests of `options` go.
S3EndpointSpec S3Endpoint(const TCloudOptions& options);
// The region a host's name gives ("s3.REGION.amazonaws.com" and alike),
// empty when it names none.
std::string S3RegionOfHost(const std::string& host);

// The root element of a 200 answer, which must be named `expected`; an
// error document there (a failure inside a success) answers its code. One
// log line naming `what` and `name` on failure.
int S3ReadResult(const S3AnswerSpec& answer, const char* expected, const char16_t* what, const TString& name,
                 platform::XmlElementSpec* root);

class TS3Client {
 public:
  TS3Client(const TCloudOptions& options, const std::string& region, const platform::HttpSettingsSpec& http);

  // Sends the request (signed for the current region). `what` names the
  // operation in the failure's log line.
  void Send(const S3RequestSpec& request, const char16_t* what, S3AnswerSpec* answer);

  const std::string& Region() const { return m_region; }
  void SetRegion(const std::string& region) { m_region = region; }
  bool IsGoogle() const { return m_google; }
  const S3EndpointSpec& Endpoint() const { return m_endpoint; }

 private:
  void Exchange(const S3RequestSpec& request, S3AnswerSpec* answer, uint64_t* reported);

  TCloudOptions m_options;
  S3EndpointSpec m_endpoint;
  std::string m_region;
  bool m_google;
  std::unique_ptr<platform::HttpSession> m_session;
};

#endif  // PLINTH_CLOUD_S3_S3_CLIENT_H_
