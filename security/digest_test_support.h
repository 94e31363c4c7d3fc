// Oracles and inputs shared by the digest tests: libcrypto's one-shot
// digests, hexadecimal forms and random byte strings.
#ifndef PLINTH_SECURITY_DIGEST_TEST_SUPPORT_H_
#define PLINTH_SECURITY_DIGEST_TEST_SUPPORT_H_

#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

namespace digest_test {

using Bytes = std::vector<unsigned char>;

inline Bytes OracleDigest(const char* name, const unsigned char* data, size_t n) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  const EVP_MD* md = std::string(name) == "MD5" ? EVP_md5() : EVP_sha1();
  if (EVP_Digest(data, n, out, &size, md, nullptr) != 1) return {};
  return Bytes(out, out + size);
}
inline Bytes OracleDigest(const char* name, const Bytes& data) { return OracleDigest(name, data.data(), data.size()); }
inline Bytes OracleDigest(const char* name, const std::string& data) {
  return OracleDigest(name, reinterpret_cast<const unsigned char*>(data.data()), data.size());
}

inline std::string Hex(const unsigned char* p, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += kDigits[p[i] >> 4];
    s += kDigits[p[i] & 15];
  }
  return s;
}
inline std::string Hex(const Bytes& b) { return Hex(b.data(), b.size()); }

inline Bytes RandomBytes(std::mt19937& rng, size_t n) {
  Bytes b(n);
  for (auto& c : b) c = static_cast<unsigned char>(rng());
  return b;
}

// Cut points that split [0, n) into random pieces, some empty, some long.
inline std::vector<size_t> RandomSplits(std::mt19937& rng, size_t n) {
  std::vector<size_t> cuts{0};
  while (cuts.back() < n) {
    size_t step = rng() % 4 == 0 ? rng() % 300 : rng() % 9;
    cuts.push_back(std::min(n, cuts.back() + step));
  }
  return cuts;
}

// The test vectors of the MD5 and SHA-1 standards.
struct VectorSpec {
  std::string input;
  const char* md5;
  const char* sha1;  // null where the standard gives none
};

inline std::vector<VectorSpec> StandardVectors() {
  return {
      {"", "d41d8cd98f00b204e9800998ecf8427e", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"a", "0cc175b9c0f1b6a831c399e269772661", nullptr},
      {"abc", "900150983cd24fb0d6963f7d28e17f72", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0", nullptr},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b", nullptr},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f",
       nullptr},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a", nullptr},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "8215ef0796a20bcaaae116d3876c664a",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21", "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
  };
}

}  // namespace digest_test

#endif  // PLINTH_SECURITY_DIGEST_TEST_SUPPORT_H_
