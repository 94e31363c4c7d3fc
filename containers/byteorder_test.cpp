#include "containers/byteorder.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"

namespace {

static_assert(LayoutBytes("l2w3v2lvl15l") == 112);
static_assert(LayoutBytes("2l3v4l4l") == 64);
static_assert(LayoutBytes("2l3v4l") == 48);
static_assert(LayoutBytes("") == 0 && LayoutBytes("3b") == 3);
static_assert(LayoutBytes("0l") == -1 && LayoutBytes("2") == -1 && LayoutBytes("lx") == -1);

// Bytes from a hand-written hex listing such as "2E 68 66 43".
std::vector<uint8_t> Hex(const std::string& text) {
  std::istringstream in(text);
  std::vector<uint8_t> out;
  unsigned int byte;
  while (in >> std::hex >> byte) out.push_back(static_cast<uint8_t>(byte));
  return out;
}

// The reference: the bytes of `value`, `width` wide, most significant first
// when `big`, by arithmetic alone.
void PutOrdered(uint8_t* p, uint64_t value, int width, bool big) {
  for (int i = 0; i < width; ++i) {
    int shift = 8 * (big ? width - 1 - i : i);
    p[i] = static_cast<uint8_t>((value >> shift) & 0xFF);
  }
}

// `value` in host order, through the compiler's own integer types.
void PutHost(uint8_t* p, uint64_t value, int width) {
  uint8_t v8 = static_cast<uint8_t>(value);
  uint16_t v16 = static_cast<uint16_t>(value);
  uint32_t v32 = static_cast<uint32_t>(value);
  const void* from = width == 1 ? static_cast<const void*>(&v8) : width == 2 ? static_cast<const void*>(&v16)
                   : width == 4 ? static_cast<const void*>(&v32) : &value;
  std::memcpy(p, from, width);
}

// The bytes of `value`, `width` wide, in reverse, by arithmetic.
uint64_t Reversed(uint64_t value, int width) {
  uint64_t out = 0;
  for (int i = 0; i < width; ++i) out |= ((value >> (8 * i)) & 0xFF) << (8 * (width - 1 - i));
  return out;
}

struct FieldSpec {
  int width;
  uint64_t value;
};

std::vector<uint8_t> HostImage(const std::vector<FieldSpec>& fields) {
  std::vector<uint8_t> out;
  for (const FieldSpec& f : fields) {
    out.resize(out.size() + f.width);
    PutHost(out.data() + out.size() - f.width, f.value, f.width);
  }
  return out;
}

using Converter = void* (*)(void*, const char*, size_t, int*);

// Converts a copy of `bytes` (a heap block of exactly its size, so ASan sees
// any byte touched past it) and answers it, checking the end address.
std::vector<uint8_t> Converted(Converter convert, std::vector<uint8_t> bytes, const char* layout) {
  bytes.reserve(1);  // a record of no bytes still has an address
  int status = 1;
  void* end = convert(bytes.data(), layout, bytes.size(), &status);
  EXPECT_EQ(status, 0) << layout;
  EXPECT_EQ(end, bytes.data() + bytes.size()) << layout;
  return bytes;
}

// Every converter against a hand-laid big-endian and little-endian image.
void CheckImages(const char* layout, const std::vector<FieldSpec>& fields, const std::vector<uint8_t>& big,
                 const std::vector<uint8_t>& little) {
  std::vector<uint8_t> host = HostImage(fields);
  ASSERT_EQ(host.size(), big.size());
  ASSERT_EQ(host.size(), little.size());
  ASSERT_EQ(LayoutBytes(layout), static_cast<int64_t>(host.size()));
  EXPECT_EQ(Converted(HostToBigEndian, host, layout), big);
  EXPECT_EQ(Converted(NetworkChangeEndian, host, layout), big);
  EXPECT_EQ(Converted(HostToLittleEndian, host, layout), little);
  EXPECT_EQ(Converted(BigEndianToHost, big, layout), host);
  EXPECT_EQ(Converted(NetworkChangeEndian, big, layout), host);
  EXPECT_EQ(Converted(LittleEndianToHost, little, layout), host);
  EXPECT_EQ(Converted(ChangeEndian, little, layout), big);
  EXPECT_EQ(Converted(ChangeEndian, big, layout), little);
}

// Each width against the arithmetic reference; 8-bit values stay as they are.
TEST(ByteOrderTest, SingleValues) {
  EXPECT_EQ(SwapScalar(static_cast<uint8_t>(0xA5)), 0xA5);
  EXPECT_EQ(SwapScalar(static_cast<int8_t>(-3)), -3);
  EXPECT_EQ(SwapScalar('q'), 'q');
  std::mt19937_64 rng(11);
  for (int i = 0; i < 1000; ++i) {
    uint64_t v = rng() >> (rng() % 64);
    auto v16 = static_cast<uint16_t>(v);
    auto v32 = static_cast<uint32_t>(v);
    ASSERT_EQ(SwapUint64(v), Reversed(v, 8));
    ASSERT_EQ(SwapUint32(v32), Reversed(v32, 4));
    ASSERT_EQ(SwapUint16(v16), Reversed(v16, 2));
    ASSERT_EQ(SwapSint64(static_cast<int64_t>(v)), static_cast<int64_t>(Reversed(v, 8)));
    ASSERT_EQ(SwapSint32(static_cast<int32_t>(v32)), static_cast<int32_t>(Reversed(v32, 4)));
    ASSERT_EQ(SwapSint16(static_cast<int16_t>(v16)), static_cast<int16_t>(Reversed(v16, 2)));
    ASSERT_EQ(SwapScalar(v), SwapUint64(v));
    ASSERT_EQ(SwapScalar(v32), SwapUint32(v32));
    ASSERT_EQ(SwapScalar(v16), SwapUint16(v16));
    ASSERT_EQ(SwapScalar(static_cast<int64_t>(v)), SwapSint64(static_cast<int64_t>(v)));
    ASSERT_EQ(SwapScalar(static_cast<int32_t>(v32)), SwapSint32(static_cast<int32_t>(v32)));
    ASSERT_EQ(SwapScalar(static_cast<int16_t>(v16)), SwapSint16(static_cast<int16_t>(v16)));
  }
}

TEST(ByteOrderTest, ChunkFileHeaderImage) {
  std::vector<FieldSpec> fields = {
      {4, 0x4366682E}, {2, 0x0100}, {2, 0x0111}, {8, 0x0102030405060708}, {8, 0x1112131415161718},
      {8, 0x2122232425262728}, {4, 0x42616421}, {4, 0x31323334}, {8, 0x4142434445464748}, {4, 0x456E6321}};
  for (uint32_t w = 0x50515253; w <= 0x88898A8B; w += 0x04040404) fields.push_back({4, w});
  CheckImages("l2w3v2lvl15l", fields,
              Hex("43 66 68 2E  01 00  01 11  01 02 03 04 05 06 07 08  11 12 13 14 15 16 17 18"
                  "  21 22 23 24 25 26 27 28  42 61 64 21  31 32 33 34  41 42 43 44 45 46 47 48"
                  "  45 6E 63 21  50 51 52 53 54 55 56 57 58 59 5A 5B 5C 5D 5E 5F 60 61 62 63 64 65 66 67"
                  "  68 69 6A 6B 6C 6D 6E 6F 70 71 72 73 74 75 76 77 78 79 7A 7B 7C 7D 7E 7F"
                  "  80 81 82 83 84 85 86 87 88 89 8A 8B"),
              Hex("2E 68 66 43  00 01  11 01  08 07 06 05 04 03 02 01  18 17 16 15 14 13 12 11"
                  "  28 27 26 25 24 23 22 21  21 64 61 42  34 33 32 31  48 47 46 45 44 43 42 41"
                  "  21 63 6E 45  53 52 51 50 57 56 55 54 5B 5A 59 58 5F 5E 5D 5C 63 62 61 60 67 66 65 64"
                  "  6B 6A 69 68 6F 6E 6D 6C 73 72 71 70 77 76 75 74 7B 7A 79 78 7F 7E 7D 7C"
                  "  83 82 81 80 87 86 85 84 8B 8A 89 88"));
}

TEST(ByteOrderTest, ChunkHeaderAndMapEntryImages) {
  CheckImages("2l3v4l4l",
              {{4, 0x43684D70}, {4, 0x0A0B0C0D}, {8, 0x0102030405060708}, {8, 0x1011121314151617},
               {8, 0x2021222324252627}, {4, 0x30313233}, {4, 0x34353637}, {4, 0x38393A3B}, {4, 0x3C3D3E3F},
               {4, 0x40414243}, {4, 0x44454647}, {4, 0x48494A4B}, {4, 0x4C4D4E4F}},
              Hex("43 68 4D 70  0A 0B 0C 0D  01 02 03 04 05 06 07 08  10 11 12 13 14 15 16 17"
                  "  20 21 22 23 24 25 26 27  30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E 3F"
                  "  40 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F"),
              Hex("70 4D 68 43  0D 0C 0B 0A  08 07 06 05 04 03 02 01  17 16 15 14 13 12 11 10"
                  "  27 26 25 24 23 22 21 20  33 32 31 30 37 36 35 34 3B 3A 39 38 3F 3E 3D 3C"
                  "  43 42 41 40 47 46 45 44 4B 4A 49 48 4F 4E 4D 4C"));
  CheckImages("2l3v4l",
              {{4, 0x43684D70}, {4, 0x01020304}, {8, 0xF1F2F3F4F5F6F7F8}, {8, 0x8090A0B0C0D0E0F0},
               {8, 0x1122334455667788}, {4, 0x99AABBCC}, {4, 0xDDEEFF00}, {4, 0x01234567}, {4, 0x89ABCDEF}},
              Hex("43 68 4D 70  01 02 03 04  F1 F2 F3 F4 F5 F6 F7 F8  80 90 A0 B0 C0 D0 E0 F0"
                  "  11 22 33 44 55 66 77 88  99 AA BB CC  DD EE FF 00  01 23 45 67  89 AB CD EF"),
              Hex("70 4D 68 43  04 03 02 01  F8 F7 F6 F5 F4 F3 F2 F1  F0 E0 D0 C0 B0 A0 90 80"
                  "  88 77 66 55 44 33 22 11  CC BB AA 99  00 FF EE DD  67 45 23 01  EF CD AB 89"));
}

// Random layouts (with runs, counts and single bytes), random values and a
// random tail past the layout, against the arithmetic reference.
TEST(ByteOrderTest, RandomRecordsMatchReference) {
  std::mt19937_64 rng(20240611);
  const char letters[] = {'b', 'w', 'l', 'v'};
  const int widths[] = {1, 2, 4, 8};
  for (int trial = 0; trial < 3000; ++trial) {
    std::string layout;
    std::vector<FieldSpec> fields;
    int tokens = static_cast<int>(rng() % 8);
    for (int t = 0; t < tokens; ++t) {
      int kind = static_cast<int>(rng() % 4);
      int count = rng() % 3 == 0 ? 1 + static_cast<int>(rng() % 20) : 1;
      if (count > 1 || rng() % 8 == 0) layout += std::to_string(count);
      layout += letters[kind];
      for (int k = 0; k < count; ++k) {
        uint64_t value = rng();
        if (widths[kind] < 8) value &= (uint64_t{1} << (8 * widths[kind])) - 1;
        fields.push_back({widths[kind], value});
      }
    }
    std::vector<uint8_t> host = HostImage(fields);
    size_t layoutSize = host.size();
    ASSERT_EQ(LayoutBytes(layout), static_cast<int64_t>(layoutSize)) << layout;
    size_t tail = rng() % 4 == 0 ? rng() % 9 : 0;
    for (size_t k = 0; k < tail; ++k) host.push_back(static_cast<uint8_t>(rng()));
    std::vector<uint8_t> big(host.size()), little(host.size());
    size_t at = 0;
    for (const FieldSpec& f : fields) {
      PutOrdered(big.data() + at, f.value, f.width, true);
      PutOrdered(little.data() + at, f.value, f.width, false);
      at += f.width;
    }
    std::copy(host.begin() + layoutSize, host.end(), big.begin() + layoutSize);
    std::copy(host.begin() + layoutSize, host.end(), little.begin() + layoutSize);
    ASSERT_EQ(Converted(HostToBigEndian, host, layout.c_str()), big) << layout;
    ASSERT_EQ(Converted(HostToLittleEndian, host, layout.c_str()), little) << layout;
    ASSERT_EQ(Converted(BigEndianToHost, big, layout.c_str()), host) << layout;
    ASSERT_EQ(Converted(LittleEndianToHost, little, layout.c_str()), host) << layout;
    ASSERT_EQ(Converted(NetworkChangeEndian, big, layout.c_str()), host) << layout;
    ASSERT_EQ(Converted(ChangeEndian, Converted(ChangeEndian, host, layout.c_str()), layout.c_str()), host) << layout;
    ASSERT_EQ(Converted(ChangeEndian, big, layout.c_str()), little) << layout;
  }
}

struct BadLayoutSpec {
  const char* layout;
  size_t size;
  int index;  // where the log line says the layout went wrong
};

// Refused layouts convert nothing and touch no byte past the record (each
// buffer is exactly the record's size), whichever converter is asked.
TEST(ByteOrderTest, MalformedLayoutsAreRefused) {
  const BadLayoutSpec cases[] = {
      {"x", 8, 0},          {"lx", 8, 1},           {"l2", 8, 1},          {"0l", 8, 0},
      {"l00w", 8, 1},       {"L", 8, 0},            {"l w", 8, 1},         {"2l", 7, 0},
      {"l2w3v2lvl15l", 111, 9}, {"2l3v4l4l", 63, 6}, {"2l3v4l", 47, 4},    {"v", 4, 0},
      {"99999999999999999999l", 100, 0},             {"4294967297w", 4, 0}, {"3-l", 64, 1},
      {"l2w3v2lvl15l", 0, 0},
  };
  const Converter converters[] = {HostToBigEndian, BigEndianToHost, HostToLittleEndian,
                                  LittleEndianToHost, NetworkChangeEndian, ChangeEndian};
  const char* const names[] = {"HostToBigEndian", "BigEndianToHost", "HostToLittleEndian",
                               "LittleEndianToHost", "NetworkChangeEndian", "ChangeEndian"};
  for (const BadLayoutSpec& c : cases) {
    std::vector<uint8_t> pattern(c.size);
    for (size_t i = 0; i < c.size; ++i) pattern[i] = static_cast<uint8_t>(0x11 * (i % 15 + 1));
    for (int k = 0; k < 6; ++k) {
      TestHost host;
      std::vector<uint8_t> buffer = pattern;
      int status = 0;
      EXPECT_EQ(converters[k](buffer.data(), c.layout, c.size, &status), nullptr) << c.layout;
      EXPECT_EQ(status, kErrBadParameter);
      EXPECT_EQ(buffer, pattern) << names[k] << " " << c.layout;
      std::string format = std::string(names[k]) + ": bad layout \"%s\" at %~d for a record of %~ld bytes, %E";
      std::vector<LoggedLine> lines = host.LinesWithFormat(format);
      ASSERT_EQ(lines.size(), 1u) << names[k] << " " << c.layout;
      EXPECT_EQ(host.Lines().size(), 1u);
      EXPECT_EQ(lines[0].selector, 514u);
      std::string prefix = std::string(names[k]) + ": bad layout \"" + c.layout + "\" at " +
                           std::to_string(c.index) + " for a record of " + std::to_string(c.size) + " bytes, ";
      EXPECT_EQ(lines[0].text.substr(0, prefix.size()), prefix);
    }
  }
}

// Null record or layout is refused; an empty layout names no field.
TEST(ByteOrderTest, NullsAndEmptyLayouts) {
  TestHost host;
  uint8_t bytes[4] = {1, 2, 3, 4};
  int status = 0;
  EXPECT_EQ(ChangeEndian(nullptr, "l", 4, &status), nullptr);
  EXPECT_EQ(ChangeEndian(bytes, nullptr, 4), nullptr);
  EXPECT_EQ(status, kErrBadParameter);
  EXPECT_EQ(host.Lines().size(), 2u);
  EXPECT_EQ(ChangeEndian(bytes, "", 4, &status), bytes + 4);
  EXPECT_EQ(ChangeEndian(bytes, "4b", 4, &status), bytes + 4);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 4), (std::vector<uint8_t>{1, 2, 3, 4}));
  EXPECT_EQ(host.Lines().size(), 2u);
}

}  // namespace
