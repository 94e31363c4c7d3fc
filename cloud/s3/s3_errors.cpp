#include "cloud/s3/s3_errors.h"

#include <strings.h>

#include "foundation/errors.h"
#include "platform/xml.h"

namespace {

bool Is(const std::string& name, std::initializer_list<const char*> names) {
  for (const char* n : names) {
    if (name == n) return true;
  }
  return false;
}

}  // namespace

bool S3IsRegionName(const std::string& text) {
  if (text.empty() || text.size() > kS3MaxRegionName) return false;
  for (char c : text) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
              c == '.';
    if (!ok) return false;
  }
  return true;
}

std::string S3HeaderValue(const std::string& headers, const char* name) {
  size_t length = std::char_traits<char>::length(name);
  size_t at = 0;
  while (at < headers.size()) {
    size_t end = headers.find('\n', at);
    if (end == std::string::npos) end = headers.size();
    std::string line = headers.substr(at, end - at);
    at = end + 1;
    if (line.size() > length && line[length] == ':' && strncasecmp(line.c_str(), name, length) == 0) {
      size_t from = line.find_first_not_of(" \t", length + 1);
      size_t to = line.find_last_not_of(" \t\r");
      return from == std::string::npos || to < from ? std::string() : line.substr(from, to - from + 1);
    }
  }
  return std::string();
}

int S3EarlierCode(long status, platform::HttpFailure failure) {
  if (failure != platform::HttpFailure::kNone) {
    switch (failure) {
      case platform::HttpFailure::kStopped:
        return kErrAborted;
      case platform::HttpFailure::kCertificate:
        return kErrAccessDenied;
      default:
        return kErrNetwork;
    }
  }
  if (status >= 500) return kErrNetwork;
  if (status == 403) return kErrAccessDenied;
  if (status == 404) return kErrNotFound;
  if (status >= 300) return kErrBadParameter;
  return 0;
}

void S3MapError(long status, platform::HttpFailure failure, const std::string& body, const std::string& headers,
                S3ErrorSpec* out) {
  *out = S3ErrorSpec();
  int earlier = S3EarlierCode(status, failure);
  out->region = S3HeaderValue(headers, "x-amz-bucket-region");
  if (!S3IsRegionName(out->region)) out->region.clear();
  if (status == 0) {
    // No answer: what the transport said, or -1010 when it said nothing.
    out->code = earlier != 0 ? earlier : kErrBadParameter;
    return;
  }
  platform::XmlElementSpec root;
  std::string why;
  if (!body.empty() && platform::ParseXml(body.data(), body.size(), &root, &why) && root.name == "Error") {
    out->name = root.ChildText("Code");
    out->message = root.ChildText("Message");
    std::string region = root.ChildText("Region");
    if (S3IsRegionName(region)) out->region = region;
  }
  const std::string& name = out->name;
  // An error document inside a success is the service's own trouble when
  // it names that, as a 5xx status would.
  if (status < 300 && Is(name, {"InternalError", "SlowDown", "ServiceUnavailable"})) earlier = kErrNetwork;
  if (name == "AuthorizationHeaderMalformed") {
    out->code = kErrBadParameter;
  } else if (name == "RequestTimeTooSkewed") {
    out->code = kErrClockSkew;
  } else if (status >= 400 && body.find("AWS4-HMAC-SHA256") != std::string::npos) {
    out->code = kErrNetwork;
  } else if (Is(name, {"InvalidAccessKeyId", "SignatureDoesNotMatch", "AccessDenied"})) {
    out->code = kErrAccessDenied;
  } else if (Is(name, {"NoSuchBucket", "NoSuchKey", "InvalidObjectState"})) {
    out->code = kErrNotFound;
  } else if (earlier == kErrNetwork) {
    out->code = kErrNetwork;
  } else if (name.empty()) {
    out->code = earlier != 0 ? earlier : kErrBadParameter;
  } else {
    out->code = kErrBadParameter;
  }
}
