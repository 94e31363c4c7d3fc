// The text forms of S3 requests: percent-encoding by the signature's rules,
// hex and Base64 of digests, and the request time.
#ifndef PLINTH_CLOUD_S3_S3_ENCODE_H_
#define PLINTH_CLOUD_S3_S3_ENCODE_H_

#include <cstddef>
#include <cstdint>
#include <string>

// Percent-encodes the UTF-8 bytes of `text`: the unreserved characters
// A-Z a-z 0-9 - . _ ~ stay, every other byte becomes %XX (upper-case hex);
// with `keepSlash` "/" stays too (object keys in a path).
std::string S3UriEncode(const std::string& text, bool keepSlash);
// Lower-case hex of `size` bytes.
std::string S3Hex(const uint8_t* data, size_t size);
std::string S3Base64(const uint8_t* data, size_t size);
// "%Y%m%dT%H%M%SZ" of a Unix time (UTC).
std::string S3RequestTime(int64_t unixSeconds);
// Hex SHA-256 and Base64 MD5 of a body; empty when the digest service fails.
std::string S3Sha256Hex(const uint8_t* data, size_t size);
std::string S3Md5Base64(const uint8_t* data, size_t size);
// `text` as the content of an element of a request body: "&", "<" and ">"
// escaped, quotes left as they are, so that an entity tag ("\"...\"") goes
// out as the service gave it.
std::string S3XmlEscape(const std::string& text);

#endif  // PLINTH_CLOUD_S3_S3_ENCODE_H_
