#include "cloud/s3/s3_signer.h"

#include <algorithm>
#include <strings.h>

#include "cloud/cloud_metadata.h"
#include "cloud/s3/s3_encode.h"
#include "foundation/format_checked.h"
#include "platform/crypto.h"

namespace {

// The headers that are signed when present, in signing order.
std::vector<std::string> SignedHeaderOrder() {
  TCloudMetaData meta;
  return {"host",
          "content-md5",
          "x-amz-bucket-object-lock-enabled",
          "x-amz-content-sha256",
          "x-amz-copy-source",
          "x-amz-copy-source-range",
          "x-amz-date",
          meta.GetKey(eCloudMetaCreated),
          meta.GetKey(eCloudMetaModified),
          meta.GetKey(eCloudMetaReplicated),
          "x-amz-metadata-directive",
          "x-amz-object-lock-mode",
          "x-amz-object-lock-retain-until-date",
          "x-goog-bucket-retention-period",
          "x-goog-content-sha256",
          "x-goog-date",
          "x-goog-project-id"};
}

const std::string* FindHeader(const S3Pairs& headers, const std::string& name) {
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return &value;
  }
  return nullptr;
}

bool Hmac(const std::string& key, const std::string& data, std::string* out) {
  unsigned char value[platform::kHmacSha256Size];
  if (platform::HmacSha256(key.data(), key.size(), data.data(), data.size(), value) != 0) return false;
  out->assign(reinterpret_cast<const char*>(value), sizeof value);
  return true;
}

void Log(const char16_t* prefix, const std::string& text) {
  TString head(prefix);
  TString body = TStringFromUTF8(text);
  LogLineChecked(519, u"%s%s", &head, &body);
}

}  // namespace

namespace {

std::string JoinQuery(const S3Pairs& query, bool bareEmpty) {
  std::vector<std::pair<std::string, std::string>> encoded;
  encoded.reserve(query.size());
  for (const auto& [name, value] : query) encoded.emplace_back(S3UriEncode(name, false), S3UriEncode(value, false));
  std::sort(encoded.begin(), encoded.end());
  std::string out;
  for (const auto& [name, value] : encoded) {
    if (!out.empty()) out += '&';
    out += name;
    if (!bareEmpty || !value.empty()) out += "=" + value;
  }
  return out;
}

}  // namespace

std::string S3CanonicalQuery(const S3Pairs& query) { return JoinQuery(query, false); }

std::string S3UrlQuery(const S3Pairs& query) { return JoinQuery(query, true); }

bool S3SignRequest(const S3SigningSpec& request, const std::string& secretKey, S3SignatureSpec* out) {
  static const std::vector<std::string> kOrder = SignedHeaderOrder();
  std::string canonicalHeaders;
  std::string signedHeaders;
  for (const std::string& name : kOrder) {
    const std::string* value = FindHeader(request.headers, name);
    if (value == nullptr) continue;
    canonicalHeaders += name + ":" + *value + "\n";
    if (!signedHeaders.empty()) signedHeaders += ';';
    signedHeaders += name;
  }
  out->signedHeaders = signedHeaders;
  out->canonicalRequest = request.method + "\n" + request.path + "\n" + S3CanonicalQuery(request.query) + "\n" +
                          canonicalHeaders + "\n" + signedHeaders + "\n" + request.payloadHash;
  std::string date = request.time.substr(0, 8);
  std::string scope = date + "/" + request.region + "/" + request.service + "/aws4_request";
  const uint8_t* canonical = reinterpret_cast<const uint8_t*>(out->canonicalRequest.data());
  std::string canonicalHash = S3Sha256Hex(canonical, out->canonicalRequest.size());
  if (canonicalHash.empty()) return false;
  out->stringToSign = "AWS4-HMAC-SHA256\n" + request.time + "\n" + scope + "\n" + canonicalHash;
  std::string key;
  std::string secret = "AWS4" + secretKey;
  bool ok = Hmac(secret, date, &key) && Hmac(key, request.region, &key) && Hmac(key, request.service, &key) &&
            Hmac(key, "aws4_request", &key) && Hmac(key, out->stringToSign, &out->signature);
  std::fill(secret.begin(), secret.end(), '\0');
  std::fill(key.begin(), key.end(), '\0');
  if (!ok) return false;
  out->signature = S3Hex(reinterpret_cast<const uint8_t*>(out->signature.data()), out->signature.size());
  out->authorization = "AWS4-HMAC-SHA256 Credential=" + request.accessKey + "/" + scope +
                       ",SignedHeaders=" + signedHeaders + ",Signature=" + out->signature;
  Log(u"TS3Conn::s3_v4_authorization:canonicalRequest:", out->canonicalRequest);
  Log(u"TS3Conn::s3_v4_authorization:stringToSign:", out->stringToSign);
  Log(u"TS3Conn::s3_v4_authorization:authorization:", out->authorization);
  return true;
}
