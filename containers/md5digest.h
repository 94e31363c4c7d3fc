// MD5DigestSpec, the 16 bytes of an MD5 digest as a plain record.
//
// The digest code fills `bytes` in the digest's own order (the order in
// which the hexadecimal form is written); records compare bytewise, so the
// ordering is that of the hexadecimal texts. An all-zero record is the
// "not yet computed" value that a freshly grown TMD5DigestBuffer holds.
#ifndef PLINTH_CONTAINERS_MD5DIGEST_H_
#define PLINTH_CONTAINERS_MD5DIGEST_H_

#include <compare>
#include <cstdint>

struct MD5DigestSpec {
  static constexpr int kSize = 16;

  uint8_t bytes[kSize];

  bool IsZero() const {
    for (uint8_t b : bytes) {
      if (b != 0) return false;
    }
    return true;
  }

  bool operator==(const MD5DigestSpec& other) const = default;
  auto operator<=>(const MD5DigestSpec& other) const = default;
};

static_assert(sizeof(MD5DigestSpec) == 16, "a digest record is its 16 bytes");

#endif  // PLINTH_CONTAINERS_MD5DIGEST_H_
