#include "cloud/s3/s3_encode.h"

#include <ctime>

#include "platform/crypto.h"

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kUpperHex[] = "0123456789ABCDEF";
constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool Unreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

// One-shot digest through the platform's service; false when it fails.
bool Digest(platform::CryptAlgorithm algorithm, const uint8_t* data, size_t size, unsigned char* out,
            unsigned want) {
  platform::CryptHandle provider = 0, hash = 0;
  unsigned written = 0;
  bool ok = platform::CryptAcquire(algorithm, &provider) == 0 && platform::CryptCreateHash(provider, &hash) == 0 &&
            platform::CryptHashData(hash, data, size) == 0 &&
            platform::CryptGetHashValue(hash, out, want, &written) == 0 && written == want;
  platform::CryptDestroyHash(hash);
  platform::CryptRelease(provider);
  return ok;
}

}  // namespace

std::string S3UriEncode(const std::string& text, bool keepSlash) {
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (Unreserved(c) || (keepSlash && c == '/')) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kUpperHex[c >> 4];
      out += kUpperHex[c & 15];
    }
  }
  return out;
}

std::string S3Hex(const uint8_t* data, size_t size) {
  std::string out;
  out.reserve(2 * size);
  for (size_t i = 0; i < size; ++i) {
    out += kHexDigits[data[i] >> 4];
    out += kHexDigits[data[i] & 15];
  }
  return out;
}

std::string S3Base64(const uint8_t* data, size_t size) {
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  for (size_t i = 0; i < size; i += 3) {
    uint32_t v = static_cast<uint32_t>(data[i]) << 16;
    if (i + 1 < size) v |= static_cast<uint32_t>(data[i + 1]) << 8;
    if (i + 2 < size) v |= data[i + 2];
    out += kBase64[(v >> 18) & 63];
    out += kBase64[(v >> 12) & 63];
    out += i + 1 < size ? kBase64[(v >> 6) & 63] : '=';
    out += i + 2 < size ? kBase64[v & 63] : '=';
  }
  return out;
}

std::string S3RequestTime(int64_t unixSeconds) {
  std::time_t t = static_cast<std::time_t>(unixSeconds);
  std::tm parts{};
  gmtime_r(&t, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
  return text;
}

std::string S3Sha256Hex(const uint8_t* data, size_t size) {
  unsigned char value[32];
  return Digest(platform::CryptAlgorithm::kSha256, data, size, value, 32) ? S3Hex(value, 32) : std::string();
}

std::string S3Md5Base64(const uint8_t* data, size_t size) {
  unsigned char value[16];
  return Digest(platform::CryptAlgorithm::kMd5, data, size, value, 16) ? S3Base64(value, 16) : std::string();
}

std::string S3XmlEscape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out += c;
    }
  }
  return out;
}
