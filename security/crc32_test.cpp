// CRC-32: the constants against slow polynomial arithmetic, every path
// against the byte-at-a-time loop, the result against POSIX cksum, and the
// block hashes.
#include "security/crc32.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "security/crc32_internal.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

using crc32_internal::CrcPath;

uint32_t Bytewise(uint32_t crc, const std::string& s) {
  return crc32_internal::UpdateTable(crc, reinterpret_cast<const uint8_t*>(s.data()), s.size());
}

uint32_t Update(uint32_t crc, const std::string& s) {
  return CRC32::update(crc, reinterpret_cast<const unsigned char*>(s.data()), static_cast<int>(s.size()));
}

// The CRC one bit at a time, without any table.
uint32_t Bitwise(uint32_t crc, const std::string& s) {
  for (unsigned char byte : s) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool top = ((crc >> 31) ^ (byte >> bit)) & 1;
      crc = (crc << 1) ^ (top ? 0x04C11DB7u : 0u);
    }
  }
  return crc;
}

std::string RandomBytes(std::mt19937_64& rng, size_t n) {
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

TEST(Crc32, TableConstantsAndCatalogueValues) {
  EXPECT_EQ(CRC32::m_table[1], 0x04C11DB7u);
  for (int i = 0; i < 256; ++i) {
    ASSERT_EQ(CRC32::m_table[i], Bitwise(0, std::string(1, static_cast<char>(i)))) << i;
  }
  // Catalogued check values of "123456789": start ~0 without final
  // inversion, and start 0 with it.
  EXPECT_EQ(Update(0xFFFFFFFFu, "123456789"), 0x0376E6E7u);
  EXPECT_EQ(~Update(0, "123456789"), 0x765E7680u);

  // x^n mod P is the CRC of the one-bit message x^(n-32): byte 1 and then
  // (n-32)/8 zero bytes.
  for (unsigned n : {64u, 96u, 128u, 192u, 256u, 320u, 512u, 576u, 1024u, 1088u, 2048u, 2112u}) {
    const std::string msg = std::string(1, '\1') + std::string((n - 32) / 8, '\0');
    EXPECT_EQ(crc32_internal::XPowModP(n), Bitwise(0, msg)) << n;
  }
  for (unsigned n = 0; n < 32; ++n) EXPECT_EQ(crc32_internal::XPowModP(n), 1u << n);

  // mu = floor(x^64 / P) exactly when mu*P is x^64 plus something below x^32.
  const uint64_t mu = crc32_internal::BarrettMu();
  uint64_t lo = 0, hi = 0;
  for (int i = 0; i < 64; ++i) {
    if ((mu >> i) & 1) {
      lo ^= crc32_internal::kPoly << i;
      if (i > 0) hi ^= crc32_internal::kPoly >> (64 - i);
    }
  }
  EXPECT_EQ(hi, 1u);
  EXPECT_EQ(lo >> 32, 0u);
}

class Crc32Paths : public ::testing::TestWithParam<CrcPath> {
 protected:
  void SetUp() override {
    if (!crc32_internal::PathAvailable(GetParam())) GTEST_SKIP() << "this CPU lacks the path";
    ASSERT_TRUE(crc32_internal::ForcePath(GetParam()));
    ASSERT_EQ(crc32_internal::ActivePath(), GetParam());
  }
  void TearDown() override { crc32_internal::ForcePath(CrcPath::kAuto); }
};

TEST_P(Crc32Paths, EveryShortLengthAndOffset) {
  std::mt19937_64 rng(17);
  const std::string buf = RandomBytes(rng, 1200);
  for (size_t offset = 0; offset < 64; offset += 7) {
    for (size_t n = 0; n <= 1100; ++n) {
      const std::string piece = buf.substr(offset, n);
      const uint32_t start = static_cast<uint32_t>(rng());
      ASSERT_EQ(Update(start, piece), Bytewise(start, piece)) << "offset " << offset << " length " << n;
    }
  }
}

TEST_P(Crc32Paths, RandomLengthsSplitsAndStarts) {
  std::mt19937_64 rng(1234);
  for (int round = 0; round < 300; ++round) {
    size_t n = rng() % 9000;
    if (round % 100 == 99) n = (3u << 20) + rng() % 5000;  // a few MiB
    const size_t offset = rng() % 64;
    const std::string buf = RandomBytes(rng, n + offset);
    const std::string data = buf.substr(offset);
    const uint32_t start = static_cast<uint32_t>(rng());
    const uint32_t want = Bytewise(start, data);
    // Up to four pieces, split at random points; each piece starts wherever
    // the split leaves it.
    std::vector<size_t> cuts = {0, n};
    for (int i = rng() % 4; i > 0; --i) cuts.push_back(n == 0 ? 0 : rng() % n);
    std::sort(cuts.begin(), cuts.end());
    uint32_t crc = start;
    const unsigned char* base = reinterpret_cast<const unsigned char*>(buf.data()) + offset;
    for (size_t i = 0; i + 1 < cuts.size(); ++i) {
      crc = CRC32::update(crc, base + cuts[i], static_cast<int>(cuts[i + 1] - cuts[i]));
    }
    ASSERT_EQ(crc, want) << "round " << round << " length " << n;
  }
}

TEST_P(Crc32Paths, AgreesWithPosixCksum) {
  TempDir dir;
  std::mt19937_64 rng(99);
  for (size_t n : {size_t{0}, size_t{1}, size_t{255}, size_t{256}, size_t{65543}, size_t{(1u << 20) + 3}}) {
    const std::string data = RandomBytes(rng, n);
    const std::string path = dir.WriteFile("data.bin", data);
    FILE* pipe = popen(("cksum < '" + path + "' 2>/dev/null").c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    unsigned long theirs = 0;
    const int fields = std::fscanf(pipe, "%lu", &theirs);
    const int status = pclose(pipe);
    if (fields != 1 || status != 0) GTEST_SKIP() << "no cksum program";
    // cksum: the CRC of the data followed by its length, least significant
    // byte first and as few bytes as needed, inverted.
    std::string length;
    for (size_t v = n; v != 0; v >>= 8) length.push_back(static_cast<char>(v & 0xFF));
    EXPECT_EQ(~Update(Update(0, data), length), theirs) << n;
  }
}

INSTANTIATE_TEST_SUITE_P(All, Crc32Paths, ::testing::Values(CrcPath::kTable, CrcPath::kPclmul, CrcPath::kVpclmul256, CrcPath::kVpclmul),
                         [](const ::testing::TestParamInfo<CrcPath>& info) {
                           switch (info.param) {
                             case CrcPath::kTable: return std::string("Table");
                             case CrcPath::kPclmul: return std::string("Pclmul");
                             case CrcPath::kVpclmul256: return std::string("Vpclmul256");
                             case CrcPath::kVpclmul: return std::string("Vpclmul512");
                             default: return std::string("Auto");
                           }
                         });

TEST(Crc32, RefusedInputLeavesTheValueAndLogs) {
  TestHost host;
  const unsigned char byte = 0x5A;
  EXPECT_EQ(CRC32::update(0x12345678u, &byte, -1), 0x12345678u);
  EXPECT_EQ(CRC32::update(0x12345678u, nullptr, 5), 0x12345678u);
  EXPECT_EQ(CRC32::update(0x12345678u, nullptr, 0), 0x12345678u);
  ASSERT_EQ(host.LinesWithFormat("CRC32::update: negative length %~d, %E").size(), 1u);
  EXPECT_EQ(host.LinesWithFormat("CRC32::update: negative length %~d, %E")[0].selector, 514u);
  EXPECT_EQ(host.LinesWithFormat("CRC32::update: no data for %~d bytes, %E").size(), 1u);
  EXPECT_EQ(host.Lines().size(), 2u);
}

TEST(HashBlock, EmptyZeroAndKeyOrder) {
  TestHost host;
  EXPECT_EQ(HashBlock(nullptr, 0), 1u);
  const std::string block = "stored block contents";
  const auto* bytes = reinterpret_cast<const unsigned char*>(block.data());
  EXPECT_EQ(HashBlock(bytes, static_cast<int>(block.size())), Bitwise(0, block));

  // Appending the CRC itself, most significant byte first, makes the CRC 0.
  const uint32_t crc = Bitwise(0, block);
  std::string zero = block;
  for (int shift = 24; shift >= 0; shift -= 8) zero.push_back(static_cast<char>(crc >> shift));
  ASSERT_EQ(Update(0, zero), 0u);
  EXPECT_EQ(HashBlock(reinterpret_cast<const unsigned char*>(zero.data()), static_cast<int>(zero.size())), 1u);

  // Key form: key and value least significant byte first, then the data.
  const uint64_t key = 0x0102030405060708ull;
  const unsigned value = 0xA1B2C3D4u;
  const std::string head = std::string("\x08\x07\x06\x05\x04\x03\x02\x01", 8) + "\xD4\xC3\xB2\xA1";
  EXPECT_EQ(HashBlock(&key, value, bytes, static_cast<int>(block.size())), Bitwise(0, head + block));
  const uint64_t otherKey = key ^ 1;
  EXPECT_NE(HashBlock(&otherKey, value, bytes, static_cast<int>(block.size())),
            HashBlock(&key, value, bytes, static_cast<int>(block.size())));
  // And its own zero: data that ends with the CRC of everything before it.
  const uint32_t headCrc = Bitwise(0, head + block);
  std::string tail = block;
  for (int shift = 24; shift >= 0; shift -= 8) tail.push_back(static_cast<char>(headCrc >> shift));
  ASSERT_EQ(Bitwise(0, head + tail), 0u);
  EXPECT_EQ(HashBlock(&key, value, reinterpret_cast<const unsigned char*>(tail.data()), static_cast<int>(tail.size())),
            1u);
  EXPECT_TRUE(host.Lines().empty());

  // A null key is left out and logged.
  EXPECT_EQ(HashBlock(nullptr, value, bytes, static_cast<int>(block.size())), Bitwise(0, head.substr(8) + block));
  EXPECT_EQ(host.LinesWithFormat("HashBlock: no key, %E").size(), 1u);
}

}  // namespace
