// Conversions checked against glibc's iconv and wide-character case mapping.
#include <gtest/gtest.h>
#include <iconv.h>
#include <locale.h>
#include <wctype.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "foundation/tstring.h"
#include "tests/test_host.h"
#include "tests/tstring_testing.h"

namespace {

// Converts with iconv; false when iconv refuses any part of the input.
bool Iconv(const char* to, const char* from, const std::string& in, std::string* out) {
  iconv_t cd = iconv_open(to, from);
  if (cd == reinterpret_cast<iconv_t>(-1)) return false;
  out->assign(in.size() * 4 + 16, '\0');
  char* ip = const_cast<char*>(in.data());
  size_t il = in.size();
  char* op = out->data();
  size_t ol = out->size();
  size_t r = iconv(cd, &ip, &il, &op, &ol);
  iconv_close(cd);
  out->resize(out->size() - ol);
  return r != static_cast<size_t>(-1) && il == 0;
}

std::string Bytes16(const std::u16string& s) {
  std::string b;
  for (char16_t u : s) {
    b += static_cast<char>(u & 0xFF);
    b += static_cast<char>(u >> 8);
  }
  return b;
}

std::u16string Units16(const std::string& b) {
  std::u16string s;
  for (size_t i = 0; i + 1 < b.size(); i += 2) {
    s += static_cast<char16_t>(static_cast<unsigned char>(b[i]) | (static_cast<unsigned char>(b[i + 1]) << 8));
  }
  return s;
}

// Random scalar values, weighted towards every encoding length.
char32_t RandomScalar(std::mt19937& rng) {
  static const char32_t kTop[] = {0x7F, 0x7FF, 0xFFFF, 0x10FFFF};
  char32_t cp;
  do {
    cp = std::uniform_int_distribution<char32_t>(0, kTop[rng() % 4])(rng);
  } while (cp == 0 || (cp >= 0xD800 && cp <= 0xDFFF));
  return cp;
}

std::string Utf8Of(char32_t cp) {
  std::string out;
  EXPECT_TRUE(Iconv("UTF-8", "UTF-32LE", std::string(reinterpret_cast<const char*>(&cp), 4), &out));
  return out;
}

std::u16string Utf16Of(char32_t cp) {
  std::string out;
  EXPECT_TRUE(Iconv("UTF-16LE", "UTF-32LE", std::string(reinterpret_cast<const char*>(&cp), 4), &out));
  return Units16(out);
}

TEST(TStringConvertTest, ValidTextMatchesIconv) {
  std::mt19937 rng(7);
  for (int round = 0; round < 300; ++round) {
    std::u32string text;
    int n = static_cast<int>(rng() % 40);
    for (int i = 0; i < n; ++i) text += RandomScalar(rng);
    std::string utf32(reinterpret_cast<const char*>(text.data()), text.size() * 4);
    std::string utf8, utf16;
    ASSERT_TRUE(Iconv("UTF-8", "UTF-32LE", utf32, &utf8));
    ASSERT_TRUE(Iconv("UTF-16LE", "UTF-32LE", utf32, &utf16));
    std::u16string units = Units16(utf16);

    TString fromUtf32 = ConvertUTF32toUTF16(text);
    EXPECT_EQ(Units(fromUtf32), units);
    EXPECT_EQ(Units(TStringFromUTF8(utf8)), units);
    EXPECT_EQ(Units(ConvertAnsiToWide(utf8.c_str())), units);
    EXPECT_EQ(TStringAsString(fromUtf32), utf8);
    EXPECT_EQ(ConvertWideToAnsi(units.c_str(), static_cast<int>(units.size())), utf8);
    EXPECT_EQ(ConvertUTF16toUTF32(fromUtf32), text);
    EXPECT_EQ(fromUtf32.LengthAnsi(), static_cast<int>(utf8.size()));
  }
}

// UTF-16 with unpaired surrogates: each becomes U+FFFD, the characters
// around them convert as iconv converts them.
TEST(TStringConvertTest, UnpairedSurrogatesBecomeReplacement) {
  std::mt19937 rng(11);
  const char16_t kLone[] = {0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xD9AB};
  for (int round = 0; round < 300; ++round) {
    std::u16string units;
    std::string expected8;
    std::u32string expected32;
    for (int n = static_cast<int>(rng() % 30); n > 0; --n) {
      char32_t cp = RandomScalar(rng);
      if (rng() % 4 == 0) {  // a lone surrogate, then 'a' so that a high one cannot pair
        units += kLone[rng() % 5];
        expected8 += "\xEF\xBF\xBD";
        expected32 += U'\xFFFD';
        cp = U'a';
      }
      units += Utf16Of(cp);
      expected8 += Utf8Of(cp);
      expected32 += cp;
    }
    TString s = Make(units);
    EXPECT_EQ(TStringAsString(s), expected8);
    EXPECT_EQ(ConvertUTF16toUTF32(s), expected32);
    EXPECT_EQ(s.LengthAnsi(), static_cast<int>(expected8.size()));
  }
}

// Ill-formed UTF-8 built from known pieces, each with its number of U+FFFD
// under the maximal-subpart rule, between valid characters converted by iconv.
TEST(TStringConvertTest, IllFormedUtf8PiecesBetweenValidText) {
  struct Piece {
    const char* bytes;
    int replacements;
    bool truncated;  // a valid prefix: must not be followed by a continuation byte
  };
  const Piece kPieces[] = {
      {"\x80", 1, false},         {"\xBF\x80", 2, false},     {"\xC0\xAF", 2, false},
      {"\xC1\xBF", 2, false},     {"\xE0\x80\x80", 3, false}, {"\xED\xA0\x80", 3, false},
      {"\xED\xBF\xBF", 3, false}, {"\xF4\x90\x80\x80", 4, false}, {"\xF5\x80", 2, false},
      {"\xFE", 1, false},         {"\xFF", 1, false},         {"\xF0\x80\x80\x80", 4, false},
      {"\xC2", 1, true},          {"\xE1\x80", 1, true},      {"\xF0\x90\x80", 1, true},
      {"\xF4\x8F", 1, true},      {"\xE0\xA0", 1, true},      {"\xED\x9F", 1, true},
  };
  std::mt19937 rng(13);
  for (int round = 0; round < 500; ++round) {
    std::string input;
    std::u16string expected;
    int n = static_cast<int>(rng() % 12);
    for (int i = 0; i < n; ++i) {
      const Piece& p = kPieces[rng() % (sizeof kPieces / sizeof kPieces[0])];
      input += p.bytes;
      expected.append(static_cast<size_t>(p.replacements), u'\xFFFD');
      // A valid character (or the end) after each piece keeps pieces apart.
      if (p.truncated || rng() % 2 == 0) {
        char32_t cp = RandomScalar(rng);
        input += Utf8Of(cp);
        expected += Utf16Of(cp);
      }
    }
    TString s = TStringFromUTF8(input);
    EXPECT_EQ(Units(s), expected) << "round " << round;
  }
}

// Random bytes never break the decoder: the result is well-formed UTF-16,
// and equals iconv's wherever iconv accepts the input.
TEST(TStringConvertTest, RandomBytesDecodeToWellFormedText) {
  std::mt19937 rng(17);
  for (int round = 0; round < 2000; ++round) {
    std::string input;
    int n = static_cast<int>(rng() % 24);
    for (int i = 0; i < n; ++i) input += static_cast<char>(round % 2 ? rng() : 0x80 + rng() % 0x80);
    TString s = TStringFromUTF8(input);
    std::string reencoded;
    std::string utf16 = Bytes16(Units(s));
    ASSERT_TRUE(Iconv("UTF-8", "UTF-16LE", utf16, &reencoded)) << "unpaired surrogate in output";
    std::string oracle;
    if (Iconv("UTF-16LE", "UTF-8", input, &oracle)) {
      EXPECT_EQ(Units(s), Units16(oracle));
    } else {
      EXPECT_NE(Units(s).find(u'\xFFFD'), std::u16string::npos);
    }
  }
}

TEST(TStringConvertTest, Utf32OutsideTheScalarRangeBecomesReplacement) {
  const char32_t in[] = {U'A', 0xD800, 0x110000, 0xFFFFFFFF, 0x10FFFF, 0xDFFF};
  TString s = ConvertUTF32toUTF16(in, 6);
  EXPECT_EQ(Units(s), (std::u16string{u'A', 0xFFFD, 0xFFFD, 0xFFFD, 0xDBFF, 0xDFFF, 0xFFFD}));
  EXPECT_TRUE(ConvertUTF32toUTF16(nullptr, 5).IsEmpty());
}

TEST(TStringConvertTest, AnsiBuffersRoundTrip) {
  TString s(u"gr\u00FC\u00DF \U0001F600 x");
  std::string utf8 = TStringAsString(s);
  char* buffer = s.GetBufferAnsi(64);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(std::string(buffer), utf8);
  std::strcpy(buffer, "caf\xC3\xA9 \xFF");
  EXPECT_EQ(s.ReleaseBufferAnsi(), 0);
  EXPECT_EQ(Units(s), u"caf\u00E9 \uFFFD");
  EXPECT_EQ(s.ReleaseBufferAnsi(), kErrBadParameter);  // nothing taken

  buffer = s.GetBufferAnsi(4);
  EXPECT_EQ(s.ReleaseBufferAnsi(3), 0);
  EXPECT_EQ(Units(s), u"caf");
  s.GetBufferAnsi(0);
  EXPECT_EQ(s.ReleaseBufferAnsi(100), kErrBadParameter);  // clamped
  EXPECT_EQ(Units(s), u"caf");

  const char* read = s.ReadBufferAnsi();
  EXPECT_STREQ(read, "caf");
  s.CloseBufferAnsi();
  EXPECT_EQ(s.AssignAnsi(nullptr, 3), kErrBadParameter);
  EXPECT_EQ(Units(s), u"caf");
  EXPECT_EQ(s.AssignAnsi("\xE2\x82\xAC", -1), 0);
  EXPECT_EQ(Units(s), u"\u20AC");
}

// FillBufferAnsi and LeftAnsi cut at character boundaries: the bytes kept
// are the longest prefix of the UTF-8 form made of whole characters.
TEST(TStringConvertTest, AnsiCutsKeepWholeCharacters) {
  std::mt19937 rng(19);
  for (int round = 0; round < 200; ++round) {
    std::u32string text;
    int n = static_cast<int>(rng() % 10);
    for (int i = 0; i < n; ++i) text += RandomScalar(rng);
    TString s = ConvertUTF32toUTF16(text);
    int limit = static_cast<int>(rng() % 30);
    std::string expected;
    for (char32_t cp : text) {
      std::string c = Utf8Of(cp);
      if (expected.size() + c.size() > static_cast<size_t>(limit)) break;
      expected += c;
    }
    EXPECT_EQ(s.LeftAnsi(limit), expected);
    std::vector<char> buffer(static_cast<size_t>(limit) + 1, 'x');
    EXPECT_EQ(s.FillBufferAnsi(buffer.data(), limit + 1), static_cast<int>(expected.size()));
    EXPECT_EQ(std::string(buffer.data()), expected);
  }
  TestHost host;
  TString s(u"abc");
  char one[1];
  EXPECT_EQ(s.FillBufferAnsi(one, 0), kErrBadParameter);
  EXPECT_EQ(host.Lines().size(), 1u);
}

TEST(TStringConvertTest, WcharVectors) {
  TString s(u"a\u00E9\U0001F600");
  std::vector<char16_t> v = TStringAsWcharVector(s);
  EXPECT_EQ(v, (std::vector<char16_t>{u'a', 0xE9, 0xD83D, 0xDE00, 0}));
  EXPECT_EQ(TStringFromWcharVector(v), s);
  EXPECT_EQ(TStringFromWcharVector({u'x', u'y'}), u"xy");  // no terminator
  EXPECT_EQ(TStringFromWcharVector({u'x', 0, u'y'}), u"x");
  EXPECT_EQ(WcharVectorFromWcharStr(u"hi"), (std::vector<char16_t>{u'h', u'i', 0}));
  EXPECT_EQ(WcharVectorFromWcharStr(nullptr), std::vector<char16_t>{0});
}

// Case mapping over the covered blocks agrees with glibc's simple mapping.
TEST(TStringConvertTest, CaseMappingMatchesGlibc) {
  locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
  if (utf8 == static_cast<locale_t>(0)) GTEST_SKIP() << "no C.UTF-8 locale";
  const std::pair<char16_t, char16_t> kCovered[] = {{0x0001, 0x017F}, {0x0386, 0x03CE}, {0x0400, 0x045F}};
  for (auto [first, last] : kCovered) {
    for (char16_t u = first; u <= last; ++u) {
      TString up(u);
      up.ToUpper();
      TString low(u);
      low.ToLower();
      EXPECT_EQ(up.GetAt(0), static_cast<char16_t>(towupper_l(u, utf8))) << std::hex << int(u);
      EXPECT_EQ(low.GetAt(0), static_cast<char16_t>(towlower_l(u, utf8))) << std::hex << int(u);
    }
  }
  freelocale(utf8);
  TString outside(u"\u0180\u1E00\uFF41\U0001F600");
  TString copy = outside;
  outside.ToUpper();
  EXPECT_EQ(outside, copy);
}

}  // namespace
