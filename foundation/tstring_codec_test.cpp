// Serialisation, raw imports, binary data and Base64/Base16.
#include <gtest/gtest.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "foundation/tstring.h"
#include "tests/test_host.h"
#include "tests/tstring_testing.h"

namespace {

std::vector<uint8_t> Bytes(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

TString RandomText(std::mt19937& rng, int maxLength) {
  std::u16string s;
  for (int n = static_cast<int>(rng() % static_cast<unsigned>(maxLength + 1)); n > 0; --n) {
    s += static_cast<char16_t>(rng());  // any unit, surrogates included
  }
  return Make(s);
}

// ---- Base64 / Base16 -----------------------------------------------------------

TEST(TStringCodecTest, Rfc4648Vectors) {
  const char* kPlain[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
  const char16_t* k64[] = {u"", u"Zg==", u"Zm8=", u"Zm9v", u"Zm9vYg==", u"Zm9vYmE=", u"Zm9vYmFy"};
  const char16_t* k16[] = {u"", u"66", u"666F", u"666F6F", u"666F6F62", u"666F6F6261", u"666F6F626172"};
  for (int i = 0; i < 7; ++i) {
    std::vector<uint8_t> plain = Bytes(kPlain[i]);
    EXPECT_EQ(TString::Base64Encode(plain.data(), plain.size()), k64[i]);
    EXPECT_EQ(TString::Base16Encode(plain.data(), plain.size()), k16[i]);
    std::vector<uint8_t> back{0xAA};
    EXPECT_EQ(TString(k64[i]).Base64Decode(&back), 0);
    EXPECT_EQ(back, plain);
    back = {0xAA};
    EXPECT_EQ(TString(k16[i]).Base16Decode(&back), 0);
    EXPECT_EQ(back, plain);
    TString inPlace = ConvertAnsiToWide(kPlain[i]);
    inPlace.Base64Encode();
    EXPECT_EQ(inPlace, k64[i]);
    EXPECT_EQ(inPlace.Base64Decode(), 0);
    EXPECT_EQ(TStringAsString(inPlace), kPlain[i]);
  }
  std::vector<uint8_t> lower;
  EXPECT_EQ(TString(u"666f6F").Base16Decode(&lower), 0);
  EXPECT_EQ(lower, Bytes("foo"));
  const uint8_t b[] = {0xAB, 0x01};
  EXPECT_EQ(TString::Base16Encode(b, 2, false), u"ab01");
}

TEST(TStringCodecTest, InPlaceEncodingUsesUtf8) {
  TString s(u"\u00E9\U0001F600");
  s.Base16Encode();
  EXPECT_EQ(s, u"C3A9F09F9880");
  EXPECT_EQ(s.Base16Decode(), 0);
  EXPECT_EQ(s, u"\u00E9\U0001F600");
  TString bad(u"/w==");  // decodes to the lone byte 0xFF
  EXPECT_EQ(bad.Base64Decode(), 0);
  EXPECT_EQ(bad, u"\uFFFD");
}

// Encode then decode gives the bytes back; the encoded length is exact.
TEST(TStringCodecTest, RandomRoundTrips) {
  std::mt19937 rng(23);
  for (int round = 0; round < 500; ++round) {
    std::vector<uint8_t> data = RandomBytes(rng, rng() % 100);
    TString b64 = TString::Base64Encode(data.data(), data.size());
    EXPECT_EQ(static_cast<size_t>(b64.GetLength()), (data.size() + 2) / 3 * 4);
    std::vector<uint8_t> back;
    ASSERT_EQ(b64.Base64Decode(&back), 0);
    EXPECT_EQ(back, data);
    TString b16 = TString::Base16Encode(data.data(), data.size(), round % 2 == 0);
    back.clear();
    ASSERT_EQ(b16.Base16Decode(&back), 0);
    EXPECT_EQ(back, data);
  }
}

// coreutils' base64 as an independent encoder.
TEST(TStringCodecTest, MatchesCoreutilsBase64) {
  std::mt19937 rng(29);
  char path[] = "/tmp/plinth_b64_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  for (int round = 0; round < 12; ++round) {
    std::vector<uint8_t> data = RandomBytes(rng, rng() % 200);
    FILE* f = std::fopen(path, "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(data.data(), 1, data.size(), f);
    std::fclose(f);
    std::string command = std::string("base64 -w0 ") + path + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) GTEST_SKIP() << "no base64 tool";
    std::string expected;
    char chunk[256];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) expected.append(chunk, got);
    if (pclose(pipe) != 0) GTEST_SKIP() << "base64 tool failed";
    EXPECT_EQ(TStringAsString(TString::Base64Encode(data.data(), data.size())), expected);
  }
  std::remove(path);
}

TEST(TStringCodecTest, BadBase64IsRefused) {
  TestHost host;
  const char16_t* kBad[] = {u"Zm9vY",    u"Zm9",      u"Zm9v!A==", u"Zg=a",  u"=Zg=", u"Zg===",
                            u"Zh==",     u"Zm9=",     u"Zg==Zg==", u"Z===",  u"Zm\u00E9v", u"Zg==x"};
  for (const char16_t* text : kBad) {
    std::vector<uint8_t> out{1, 2, 3};
    EXPECT_EQ(TString(text).Base64Decode(&out), kErrBadParameter) << TStringAsString(TString(text));
    EXPECT_EQ(out, (std::vector<uint8_t>{1, 2, 3}));
  }
  EXPECT_EQ(host.Lines().size(), sizeof kBad / sizeof kBad[0]);
  EXPECT_EQ(host.Lines().at(0).format, "TString::Base64Decode: %s, %E");
  std::vector<uint8_t> out;
  EXPECT_EQ(TString(u"Zm9v\r\n YmFy\t").Base64Decode(&out), 0);  // line breaks are skipped
  EXPECT_EQ(out, Bytes("foobar"));
  for (const char16_t* text : {u"ABC", u"0G", u"\u0660\u0661", u"1 2 "}) {
    EXPECT_EQ(TString(text).Base16Decode(&out), kErrBadParameter);
  }
  TString keep(u"Zm9vY");
  EXPECT_EQ(keep.Base64Decode(), kErrBadParameter);
  EXPECT_EQ(keep, u"Zm9vY");
}

// Decoding is strict, so whatever it accepts is the canonical encoding of
// what it returned.
TEST(TStringCodecTest, FuzzedTextDecodesOnlyCanonicalForms) {
  std::mt19937 rng(31);
  const char16_t kAlphabet[] = u"ABab+/09==\n x!\u00FF";
  int accepted = 0;
  for (int round = 0; round < 20000; ++round) {
    std::u16string text;
    int n = static_cast<int>(rng() % 13);
    for (int i = 0; i < n; ++i) text += kAlphabet[rng() % (sizeof kAlphabet / 2 - 1)];
    std::vector<uint8_t> out;
    if (TString(text.data(), static_cast<int>(text.size())).Base64Decode(&out) != 0) continue;
    ++accepted;
    std::u16string stripped;
    for (char16_t u : text) {
      if (u != u'\n' && u != u' ') stripped += u;
    }
    EXPECT_EQ(TString::Base64Encode(out.data(), out.size()), stripped.c_str());
  }
  EXPECT_GT(accepted, 100);
}

// ---- stored form ------------------------------------------------------------------

TEST(TStringCodecTest, ExportImportRoundTrips) {
  std::mt19937 rng(37);
  for (int round = 0; round < 300; ++round) {
    TString s = RandomText(rng, 40);
    std::vector<uint8_t> host(s.StoreSize());
    std::vector<uint8_t> net(s.NetStoreSize());
    ASSERT_EQ(s.Export(host.data(), host.size()), 0);
    ASSERT_EQ(s.NetExport(net.data(), net.size()), 0);
    TString a(u"old");
    TString b(u"old");
    size_t usedA = 0;
    size_t usedB = 0;
    ASSERT_EQ(a.Import(host.data(), host.size(), &usedA), 0);
    ASSERT_EQ(b.NetImport(net.data(), net.size(), &usedB), 0);
    EXPECT_EQ(a, s);
    EXPECT_EQ(b, s);
    EXPECT_EQ(usedA, host.size());
    EXPECT_EQ(usedB, net.size());
  }
}

TEST(TStringCodecTest, HandLaidImages) {
  TString s(u"A\u00E9\U0001F600");
  uint8_t net[12];
  ASSERT_EQ(s.NetExport(net, sizeof net), 0);
  const uint8_t kNet[] = {0, 0, 0, 4, 0x00, 0x41, 0x00, 0xE9, 0xD8, 0x3D, 0xDE, 0x00};
  EXPECT_EQ(std::vector<uint8_t>(net, net + 12), std::vector<uint8_t>(kNet, kNet + 12));
  uint8_t host[12];
  ASSERT_EQ(s.Export(host, sizeof host), 0);
  if (std::endian::native == std::endian::little) {
    const uint8_t kLe[] = {4, 0, 0, 0, 0x41, 0x00, 0xE9, 0x00, 0x3D, 0xD8, 0x00, 0xDE};
    EXPECT_EQ(std::vector<uint8_t>(host, host + 12), std::vector<uint8_t>(kLe, kLe + 12));
  }
  // Two records back to back, read with the consumed counts.
  const uint8_t kTwo[] = {0, 0, 0, 1, 0, 0x78, 0, 0, 0, 2, 0, 0x79, 0, 0x7A, 0xEE};
  TString first, second;
  size_t used = 0;
  ASSERT_EQ(first.NetImport(kTwo, sizeof kTwo, &used), 0);
  EXPECT_EQ(used, 6u);
  ASSERT_EQ(second.NetImport(kTwo + used, sizeof kTwo - used, &used), 0);
  EXPECT_EQ(used, 8u);
  EXPECT_EQ(first, u"x");
  EXPECT_EQ(second, u"yz");
  uint8_t small[5];
  EXPECT_EQ(s.Export(small, sizeof small), kErrBadParameter);
  EXPECT_EQ(s.NetExport(nullptr, 100), kErrBadParameter);
}

TEST(TStringCodecTest, HostileImportsAreRefused) {
  TestHost host;
  const std::vector<std::vector<uint8_t>> kHostile = {
      {},                               // no count
      {0, 0, 0},                        // short count
      {0, 0, 0, 2, 0, 0x41, 0},         // count beyond the units
      {0xFF, 0xFF, 0xFF, 0xFF, 0, 0},   // huge count
      {0x40, 0, 0, 0, 0, 0},            // above kMaxLength
  };
  for (const auto& bytes : kHostile) {
    auto copy = std::make_unique<uint8_t[]>(bytes.size() + 1);  // exact size for the sanitizer
    std::copy(bytes.begin(), bytes.end(), copy.get());
    TString s(u"kept");
    size_t used = 99;
    EXPECT_EQ(s.NetImport(copy.get(), bytes.size(), &used), kErrBadParameter);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(s, u"kept");
  }
  TString s(u"kept");
  EXPECT_EQ(s.Import(nullptr, 10), kErrBadParameter);
  auto lines = host.LinesWithFormat("TString::NetImport: count %~ld does not fit in %~ld bytes, %E");
  ASSERT_EQ(lines.size(), kHostile.size());
  EXPECT_EQ(lines[2].args.at(0), 2u);
  EXPECT_EQ(lines[2].args.at(1), 7u);
  EXPECT_EQ(static_cast<int32_t>(lines[2].args.at(2)), -1010);
  EXPECT_EQ(host.LinesWithFormat("TString::Import: count %~ld does not fit in %~ld bytes, %E").size(), 1u);
}

// Random buffers, each in a block of exactly its size so that any read past
// it trips the address sanitizer.
TEST(TStringCodecTest, FuzzedImportBuffers) {
  std::mt19937 rng(41);
  for (int round = 0; round < 5000; ++round) {
    size_t n = rng() % 24;
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[n == 0 ? 1 : n]);
    for (size_t i = 0; i < n; ++i) buffer[i] = static_cast<uint8_t>(rng());
    if (n >= 4 && round % 2 == 0) buffer[0] = buffer[1] = buffer[2] = 0;  // plausible small counts
    TString s(u"kept");
    size_t used = 0;
    int rc = round % 3 == 0 ? s.Import(buffer.get(), n, &used) : s.NetImport(buffer.get(), n, &used);
    if (rc == 0) {
      EXPECT_EQ(used, s.StoreSize());
      EXPECT_LE(used, n);
    } else {
      EXPECT_EQ(s, u"kept");
    }
  }
}

// ---- raw UTF-16 and binary ---------------------------------------------------

TEST(TStringCodecTest, RawUtf16ImportAndStore) {
  const uint8_t kLeBom[] = {0xFF, 0xFE, 0x41, 0x00, 0xE9, 0x00};
  const uint8_t kBeBom[] = {0xFE, 0xFF, 0x00, 0x41, 0x00, 0xE9};
  const uint8_t kBe[] = {0x00, 0x41, 0x00, 0xE9};
  TString s;
  EXPECT_EQ(s.AssignImport(kLeBom, sizeof kLeBom), 0);
  EXPECT_EQ(s, u"A\u00E9");
  EXPECT_EQ(s.getByteOrder(), TString::kLittleEndian);
  EXPECT_EQ(s.AssignImport(kBeBom, sizeof kBeBom), 0);
  EXPECT_EQ(s, u"A\u00E9");
  EXPECT_EQ(s.getByteOrder(), TString::kBigEndian);
  EXPECT_EQ(s.AssignImport(kBe, sizeof kBe), 0);  // no mark: the string's order, now big-endian
  EXPECT_EQ(s, u"A\u00E9");
  TString be;
  EXPECT_EQ(be.AssignImportBE(kBeBom, sizeof kBeBom), 0);
  EXPECT_EQ(be, u"A\u00E9");
  EXPECT_EQ(be.AssignImportBE(kBe, 3), kErrBadParameter);  // odd
  EXPECT_EQ(be, u"A\u00E9");
  EXPECT_EQ(be.AssignImport(nullptr, 4), kErrBadParameter);

  uint8_t out[4];
  EXPECT_EQ(s.StorBuffer(out, sizeof out), 0);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 4), std::vector<uint8_t>(kBe, kBe + 4));
  EXPECT_EQ(s.StorBufferLE(out, sizeof out), 0);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 4), (std::vector<uint8_t>{0x41, 0, 0xE9, 0}));
  EXPECT_EQ(s.StorBuffer(out, 3), kErrBadParameter);

  std::mt19937 rng(43);
  for (int round = 0; round < 100; ++round) {
    TString text = RandomText(rng, 20);
    text.setByteOrder(round % 2 ? TString::kBigEndian : TString::kLittleEndian);
    std::vector<uint8_t> raw(2 * static_cast<size_t>(text.GetLength()) + 1);
    ASSERT_EQ(text.StorBuffer(raw.data(), raw.size()), 0);
    TString back;
    back.setByteOrder(text.getByteOrder());
    // A text that starts with a byte-order mark would be read as one.
    if (text.GetAt(0) == 0xFEFF || text.GetAt(0) == 0xFFFE) continue;
    ASSERT_EQ(back.AssignImport(raw.data(), raw.size() - 1), 0);
    EXPECT_EQ(back, text);
  }
}

TEST(TStringCodecTest, BinaryRoundTrip) {
  std::mt19937 rng(47);
  for (int round = 0; round < 100; ++round) {
    std::vector<uint8_t> data = RandomBytes(rng, rng() % 50);
    TString s;
    ASSERT_EQ(s.AssignBinary(data.data(), data.size()), 0);
    EXPECT_EQ(s.GetBinarySize(), data.size());
    std::vector<uint8_t> back(data.size());
    ASSERT_EQ(s.GetBinary(back.data(), back.size()), 0);
    EXPECT_EQ(back, data);
  }
  TString s(u"ab\u0100");
  uint8_t out[8];
  EXPECT_EQ(s.GetBinary(out, sizeof out), kErrBadParameter);  // not a byte
  TString small(u"abc");
  EXPECT_EQ(small.GetBinary(out, 2), kErrBadParameter);
  EXPECT_EQ(small.AssignBinary(nullptr, 3), kErrBadParameter);
}

}  // namespace
