// Configuration chunk envelopes: round trips, refusals that leave no output,
// and libcrypto used directly as an oracle for the documented layout, both
// reading what the library wrote and writing what the library must read.
#include "storage/chunk_cipher.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"

namespace {

using Bytes = std::vector<unsigned char>;

// One password in both forms: a non-BMP character proves the key is taken
// from UTF-8.
const TString kPassword(u"p\u00e4ss \U0001F511");
const std::string kPasswordUtf8("p\xc3\xa4ss \xf0\x9f\x94\x91");
constexpr uint32_t kType = 0x54594345;
constexpr uint64_t kId = 0x0102030405060708;

Bytes RandomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (auto& c : b) c = static_cast<unsigned char>(rng());
  return b;
}

void PutLE(unsigned char* p, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

using Ctx = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

// The envelope's parts, read from the table in chunk_cipher.h by hand.
struct OracleKeySpec {
  unsigned char key[32];
  unsigned char aad[12];
};
OracleKeySpec OracleKey(uint32_t iterations, const unsigned char* salt, uint32_t type, uint64_t id) {
  OracleKeySpec k{};
  EXPECT_EQ(PKCS5_PBKDF2_HMAC(kPasswordUtf8.data(), static_cast<int>(kPasswordUtf8.size()), salt, 16,
                              static_cast<int>(iterations), EVP_sha256(), 32, k.key),
            1);
  PutLE(k.aad, type, 4);
  PutLE(k.aad + 4, id, 8);
  return k;
}

// Decrypts a library envelope without the library; false on any mismatch.
bool OracleOpen(const Bytes& env, uint32_t type, uint64_t id, Bytes* plain) {
  if (env.size() < 52 || std::memcmp(env.data(), "Cnf1", 4) != 0) return false;
  uint32_t iterations = env[4] | env[5] << 8 | env[6] << 16 | static_cast<uint32_t>(env[7]) << 24;
  OracleKeySpec k = OracleKey(iterations, &env[8], type, id);
  size_t n = env.size() - 52;
  plain->assign(n + 1, 0);
  Bytes tag(env.end() - 16, env.end());
  Ctx ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  int len = 0;
  bool ok = EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, k.key, &env[24]) == 1 &&
            EVP_DecryptUpdate(ctx.get(), nullptr, &len, k.aad, 12) == 1 &&
            EVP_DecryptUpdate(ctx.get(), plain->data(), &len, &env[36], static_cast<int>(n)) == 1 &&
            EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, 16, tag.data()) == 1 &&
            EVP_DecryptFinal_ex(ctx.get(), plain->data() + n, &len) == 1;
  plain->resize(n);
  return ok;
}

// Writes an envelope without the library, with any iteration count.
Bytes OracleSeal(uint32_t iterations, uint32_t type, uint64_t id, const Bytes& plain) {
  Bytes env(plain.size() + 52);
  std::memcpy(env.data(), "Cnf1", 4);
  PutLE(&env[4], iterations, 4);
  Bytes salt_nonce = RandomBytes(28, iterations);
  std::copy(salt_nonce.begin(), salt_nonce.end(), env.begin() + 8);
  OracleKeySpec k = OracleKey(iterations, &env[8], type, id);
  Ctx ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  int len = 0;
  EXPECT_EQ(EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, k.key, &env[24]), 1);
  EXPECT_EQ(EVP_EncryptUpdate(ctx.get(), nullptr, &len, k.aad, 12), 1);
  EXPECT_EQ(EVP_EncryptUpdate(ctx.get(), &env[36], &len, plain.data(), static_cast<int>(plain.size())), 1);
  EXPECT_EQ(EVP_EncryptFinal_ex(ctx.get(), &env[36], &len), 1);
  EXPECT_EQ(EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, 16, &env[env.size() - 16]), 1);
  return env;
}

// Decrypts expecting -1032 and an emptied output.
void ExpectRefused(const Bytes& env, uint32_t type, uint64_t id, const TString& password = kPassword) {
  Bytes out(7, 0xEE);
  EXPECT_EQ(CHDecryptConfig(password, type, id, env.data(), env.size(), &out), kErrEncryption);
  EXPECT_TRUE(out.empty());
}

TEST(ChunkCipher, RoundTripsAndFreshSaltAndNonce) {
  for (size_t n : {size_t{0}, size_t{1}, size_t{15}, size_t{16}, size_t{17}, size_t{4096}, size_t{1} << 20}) {
    SCOPED_TRACE(n);
    Bytes plain = RandomBytes(n, static_cast<unsigned>(n));
    Bytes env, back;
    ASSERT_EQ(CHEncryptConfig(kPassword, kType, kId, plain.data(), n, &env), 0);
    ASSERT_EQ(env.size(), n + kCHCipherAdjustment);
    ASSERT_EQ(CHDecryptConfig(kPassword, kType, kId, env.data(), env.size(), &back), 0);
    EXPECT_EQ(back, plain);
  }
  // Same data twice: different bytes, both readable; in place both ways.
  Bytes plain = RandomBytes(100, 1);
  Bytes a, b = plain;
  ASSERT_EQ(CHEncryptConfig(kPassword, kType, kId, plain.data(), plain.size(), &a), 0);
  ASSERT_EQ(CHEncryptConfig(kPassword, kType, kId, b.data(), b.size(), &b), 0);
  EXPECT_NE(Bytes(a.begin() + 8, a.begin() + 24), Bytes(b.begin() + 8, b.begin() + 24));  // salt
  EXPECT_NE(Bytes(a.begin() + 24, a.begin() + 36), Bytes(b.begin() + 24, b.begin() + 36));  // nonce
  EXPECT_NE(Bytes(a.begin() + 36, a.end()), Bytes(b.begin() + 36, b.end()));
  ASSERT_EQ(CHDecryptConfig(kPassword, kType, kId, b.data(), b.size(), &b), 0);
  EXPECT_EQ(b, plain);
  ASSERT_EQ(CHDecryptConfig(kPassword, kType, kId, a.data(), a.size(), &a), 0);
  EXPECT_EQ(a, plain);
}

TEST(ChunkCipher, OracleReadsLibraryEnvelope) {
  Bytes plain = RandomBytes(333, 2), env, got;
  ASSERT_EQ(CHEncryptConfig(kPassword, kType, kId, plain.data(), plain.size(), &env), 0);
  EXPECT_EQ(Bytes(env.begin() + 4, env.begin() + 8), (Bytes{0xA0, 0x86, 0x01, 0x00}));  // 100000
  ASSERT_TRUE(OracleOpen(env, kType, kId, &got));
  EXPECT_EQ(got, plain);
  EXPECT_FALSE(OracleOpen(env, kType, kId + 1, &got));  // the oracle's id matters as well
}

TEST(ChunkCipher, LibraryReadsOracleEnvelope) {
  for (size_t n : {size_t{0}, size_t{29}}) {
    Bytes plain = RandomBytes(n, 3), got;
    Bytes env = OracleSeal(kCHCipherMinIterations, kType, kId, plain);
    ASSERT_EQ(CHDecryptConfig(kPassword, kType, kId, env.data(), env.size(), &got), 0);
    EXPECT_EQ(got, plain);
  }
}

TEST(ChunkCipher, WrongKeyTypeOrIdIsRefusedSilently) {
  TestHost host;
  Bytes plain = RandomBytes(64, 4), env;
  ASSERT_EQ(CHEncryptConfig(kPassword, kType, kId, plain.data(), plain.size(), &env), 0);
  ExpectRefused(env, kType, kId, TString(u"p\u00e4ss \U0001F512"));
  ExpectRefused(env, 0x54566864, kId);
  ExpectRefused(env, kType, kId ^ (uint64_t{1} << 40));  // all 64 bits of the id count
  EXPECT_TRUE(host.Lines().empty());
}

TEST(ChunkCipher, EveryBitFlipAndTruncationIsRefused) {
  Bytes env = OracleSeal(kCHCipherMinIterations, kType, kId, RandomBytes(20, 5));
  for (size_t bit = 0; bit < env.size() * 8; ++bit) {
    Bytes bad = env;
    bad[bit / 8] ^= static_cast<unsigned char>(1 << (bit % 8));
    // Raising the count far would only cost time.
    uint32_t count = bad[4] | bad[5] << 8 | bad[6] << 16 | static_cast<uint32_t>(bad[7]) << 24;
    if (count > 20000 && count <= kCHCipherMaxIterations) continue;
    SCOPED_TRACE(bit);
    ExpectRefused(bad, kType, kId);
  }
  for (size_t n = 0; n < env.size(); ++n) ExpectRefused(Bytes(env.begin(), env.begin() + n), kType, kId);
  Bytes longer = env;
  longer.push_back(0);
  ExpectRefused(longer, kType, kId);
  // A library envelope, sampled in every field.
  Bytes data = RandomBytes(20, 7), lib;
  ASSERT_EQ(CHEncryptConfig(kPassword, kType, kId, data.data(), data.size(), &lib), 0);
  for (size_t bit : {0, 37 /* count 100000 -> 99968 */, 63 /* count out of range */, 64, 287, 288, 447, 575}) {
    Bytes bad = lib;
    bad[bit / 8] ^= static_cast<unsigned char>(1 << (bit % 8));
    SCOPED_TRACE(bit);
    ExpectRefused(bad, kType, kId);
  }
}

TEST(ChunkCipher, IterationCountOutOfRangeIsRefusedAtOnce) {
  // Authentic under 999 rounds, yet below the floor.
  ExpectRefused(OracleSeal(kCHCipherMinIterations - 1, kType, kId, RandomBytes(8, 6)), kType, kId);
  Bytes env = OracleSeal(kCHCipherMinIterations, kType, kId, RandomBytes(8, 6));
  PutLE(&env[4], kCHCipherMaxIterations + 1, 4);
  auto start = std::chrono::steady_clock::now();
  ExpectRefused(env, kType, kId);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));  // 10M rounds take seconds
}

TEST(ChunkCipher, BadParametersLeaveNoOutput) {
  Bytes out(5, 1);
  unsigned char byte = 0;
  EXPECT_EQ(CHEncryptConfig(TString(), kType, kId, &byte, 1, &out), kErrBadParameter);
  EXPECT_TRUE(out.empty());
  out.assign(5, 1);
  EXPECT_EQ(CHEncryptConfig(kPassword, kType, kId, nullptr, 1, &out), kErrBadParameter);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(CHEncryptConfig(kPassword, kType, kId, &byte, 1, nullptr), kErrBadParameter);
  out.assign(5, 1);
  EXPECT_EQ(CHDecryptConfig(kPassword, kType, kId, nullptr, 60, &out), kErrBadParameter);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(CHDecryptConfig(kPassword, kType, kId, &byte, 1, nullptr), kErrBadParameter);
  // Empty data needs no pointer.
  ASSERT_EQ(CHEncryptConfig(kPassword, kType, kId, nullptr, 0, &out), 0);
  EXPECT_EQ(out.size(), kCHCipherAdjustment);
  Bytes back(3, 1);
  EXPECT_EQ(CHDecryptConfig(TString(), kType, kId, out.data(), out.size(), &back), kErrBadParameter);
  EXPECT_TRUE(back.empty());
}

}  // namespace
