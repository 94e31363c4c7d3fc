// TBlockHash against libcrypto over the same key, value and bytes; its
// comparisons and their assertions; the refusal of an unknown type.
#include "security/blockhash.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "security/digest_test_support.h"
#include "tests/test_host.h"

namespace {

using digest_test::Bytes;
using digest_test::Hex;
using digest_test::OracleDigest;

// The message a block hash digests: the key as stored, the value as
// stored (little-endian on this machine), the bytes.
Bytes Message(uint64_t key, uint32_t value, const Bytes& data) {
  Bytes m(12);
  std::memcpy(m.data(), &key, 8);
  std::memcpy(m.data() + 8, &value, 4);
  m.insert(m.end(), data.begin(), data.end());
  return m;
}

Bytes Digest(TBlockHash& h) {
  Bytes out(h.GetDigestLen());
  EXPECT_EQ(h.GetDigest(out.data(), static_cast<unsigned>(out.size())), h.GetDigestLen());
  return out;
}

TEST(BlockHash, TypesLengthsAndEnumLowByte) {
  TBlockHash sha(static_cast<unsigned char>(2));
  EXPECT_EQ(sha.GetDigestLen(), 20);
  EXPECT_EQ(sha.GetDigestType(), 2);
  TBlockHash md5(eDigestTypeMD5);
  EXPECT_EQ(md5.GetDigestLen(), 16);
  EXPECT_EQ(md5.GetDigestType(), 1);
  TBlockHash high(static_cast<_eDigestType>(0x302));  // the low byte chooses
  EXPECT_EQ(high.GetDigestType(), 2);
}

TEST(BlockHash, RandomBlocksMatchLibcrypto) {
  std::mt19937_64 rng(11);
  for (unsigned char type : {1, 2}) {
    for (int round = 0; round < 40; ++round) {
      uint64_t key = rng();
      uint32_t value = static_cast<uint32_t>(rng());
      std::mt19937 bytesRng(static_cast<uint32_t>(round));
      Bytes data = digest_test::RandomBytes(bytesRng, round == 0 ? 0 : rng() % 3000);
      TBlockHash h(type);
      ASSERT_EQ(h.Init(), 1);
      ASSERT_EQ(h.HashBlock(&key, value, data.data(), static_cast<int>(data.size())), 1);
      Bytes want = OracleDigest(type == 1 ? "MD5" : "SHA1", Message(key, value, data));
      EXPECT_EQ(Hex(Digest(h)), Hex(want));
      EXPECT_TRUE(h.IsEqual(want.data(), static_cast<unsigned>(want.size())));

      // The handle form gives the same digest.
      TMemory block;
      ASSERT_EQ(block.SetSize(data.size()), 0);
      if (!data.empty()) std::memcpy(block.MemPtr(), data.data(), data.size());
      TBlockHash viaHandle(type);
      ASSERT_EQ(viaHandle.Init(), 1);
      ASSERT_EQ(viaHandle.HashBlock(&key, value, &block), 1);
      EXPECT_TRUE(viaHandle == h);
      TMemory out;
      ASSERT_EQ(viaHandle.GetDigest(&out), 0);
      EXPECT_TRUE(h == out);
    }
  }
}

TEST(BlockHash, EqualityFollowsKeyValueAndBytes) {
  for (unsigned char type : {1, 2}) {
    unsigned char data[] = "stored block";
    uint64_t key = 0x0102030405060708ull;
    auto make = [&](uint64_t k, unsigned v, unsigned char last) {
      auto h = std::make_unique<TBlockHash>(type);
      data[5] = last;
      EXPECT_EQ(h->Init(), 1);
      EXPECT_EQ(h->HashBlock(&k, v, data, sizeof data), 1);
      return h;
    };
    auto base = make(key, 7, 'd');
    auto same = make(key, 7, 'd');
    EXPECT_TRUE(*base == *same);
    EXPECT_FALSE(*base != *same);
    EXPECT_TRUE(*base != *make(key ^ (1ull << 63), 7, 'd'));  // only the key
    EXPECT_TRUE(*base != *make(key, 8, 'd'));
    EXPECT_TRUE(*base != *make(key, 7, 'e'));
    // Init starts over: the same object hashes the first block again.
    auto reused = make(key + 1, 7, 'd');
    ASSERT_EQ(reused->Init(), 1);
    data[5] = 'd';
    ASSERT_EQ(reused->HashBlock(&key, 7, data, sizeof data), 1);
    EXPECT_TRUE(*base == *reused);

    TMemory wrongSize;
    ASSERT_EQ(wrongSize.SetSize(base->GetDigestLen() - 1), 0);
    base->GetDigest(static_cast<unsigned char*>(wrongSize.MemPtr()), wrongSize.GetSize());
    EXPECT_FALSE(*base == wrongSize);
  }
}

TEST(BlockHash, MismatchesAreUtilAssertionsAndStillCompare) {
  TestHost host;
  uint64_t key = 42;
  unsigned char data[20] = {};
  TBlockHash md5(eDigestTypeMD5);
  TBlockHash sha(eDigestTypeSHA1);
  ASSERT_EQ(md5.Init(), 1);
  ASSERT_EQ(md5.HashBlock(&key, 1, data, 20), 1);
  ASSERT_EQ(sha.Init(), 1);
  ASSERT_EQ(sha.HashBlock(&key, 1, data, 20), 1);
  EXPECT_FALSE(md5 == sha);
  Bytes digest = Digest(md5);
  EXPECT_TRUE(md5.IsEqual(digest.data(), 10));   // the first 10 bytes agree
  digest[3] ^= 1;
  EXPECT_FALSE(md5.IsEqual(digest.data(), 16));
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>(2, "util"));
  EXPECT_EQ(md5.HashBlock(nullptr, 1, data, 20), 0);
  EXPECT_EQ(md5.HashBlock(&key, 1, nullptr, 20), 0);
  EXPECT_EQ(md5.HashBlock(&key, 1, static_cast<TMemory*>(nullptr)), 0);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>(5, "util"));
}

TEST(BlockHash, UnknownTypeIsRefusedWithoutAnEngine) {
  TestHost host;
  TBlockHash none(static_cast<unsigned char>(3));
  EXPECT_FALSE(none.HasEngine());
  auto refused = host.LinesWithFormat("TBlockHash::CreateEngine: unknown digest type %~d, %E");
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].args[0], 3u);
  host.Clear();

  uint64_t key = 1;
  unsigned char data[4] = {1, 2, 3, 4};
  unsigned char out[20];
  TMemory handle;
  TBlockHash other(eDigestTypeMD5);
  EXPECT_EQ(none.GetDigestType(), 0);
  EXPECT_EQ(none.GetDigestLen(), 0);
  EXPECT_EQ(none.Init(), 0);
  EXPECT_EQ(none.HashBlock(&key, 0, data, 4), 0);
  EXPECT_EQ(none.GetDigest(out, sizeof out), 0);
  EXPECT_EQ(none.GetDigest(&handle), kErrNotSupported);
  EXPECT_FALSE(none.IsEqual(out, 16));
  EXPECT_FALSE(none == other);
  EXPECT_FALSE(other == none);
  EXPECT_FALSE(none == handle);
  std::vector<std::string> operations;
  for (const auto& l : host.LinesWithFormat("TBlockHash::%s: no digest engine, %E")) operations.push_back(l.text);
  EXPECT_EQ(operations.size(), 8u);
  EXPECT_NE(operations[0].find("TBlockHash::Init: no digest engine"), std::string::npos) << operations[0];
  EXPECT_EQ(host.AssertCount(), 0);
}

}  // namespace
