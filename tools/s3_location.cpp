#include "tools/s3_location.h"

namespace {

constexpr char kScheme[] = "s3://";
constexpr size_t kSchemeLength = sizeof(kScheme) - 1;

// Letters, digits, dots, hyphens and underscores: anything else would have
// to be escaped in the request's path, and no service allows it.
bool IsBucketName(const std::string& name) {
  if (name.empty() || name.size() > 255) return false;
  for (char c : name) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
              c == '_';
    if (!ok) return false;
  }
  return true;
}

}  // namespace

bool IsS3Location(const std::string& text) { return text.compare(0, kSchemeLength, kScheme) == 0; }

bool ParseS3Location(const std::string& text, S3LocationSpec* out, std::string* why) {
  if (!IsS3Location(text)) {
    *why = "'" + text + "' is not an s3://BUCKET/KEY location";
    return false;
  }
  std::string rest = text.substr(kSchemeLength);
  size_t slash = rest.find('/');
  out->bucket = rest.substr(0, slash);
  out->key = slash == std::string::npos ? std::string() : rest.substr(slash + 1);
  if (out->bucket.empty()) {
    *why = "'" + text + "' names no bucket";
    return false;
  }
  if (!IsBucketName(out->bucket)) {
    *why = "'" + out->bucket + "' is not a bucket name (letters, digits, '.', '-' and '_' only)";
    return false;
  }
  return true;
}

std::string S3LocationText(const S3LocationSpec& location) {
  return std::string(kScheme) + location.bucket + "/" + location.key;
}

std::string S3KeyBaseName(const std::string& key) {
  size_t slash = key.rfind('/');
  return slash == std::string::npos ? key : key.substr(slash + 1);
}
