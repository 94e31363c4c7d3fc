#include "foundation/tstring_scan.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <random>
#include <string>

#include "foundation/resources.h"
#include "foundation/tstring.h"

namespace {

TString Ascii(const std::string& s) { return TStringFromUTF8(s); }

std::u16string Wide(const std::string& s) { return std::u16string(s.begin(), s.end()); }

// Random fields separated by random blanks (at least one between numbers,
// whose digits would run on into each other: an overflowing field is where
// the two scanners differ by design); each field is a value of one of
// the conversions both scanners share.
TEST(ScanTest, MatchesSscanfOnRandomInputs) {
  std::mt19937_64 rng(42);
  const char* blanks[] = {"", " ", "  ", "\t", " \n "};
  for (int round = 0; round < 5000; ++round) {
    int d = static_cast<int>(rng());
    unsigned u = static_cast<unsigned>(rng()) >> (rng() % 32);
    unsigned x = static_cast<unsigned>(rng()) >> (rng() % 32);
    long long ld = static_cast<long long>(rng()) >> (rng() % 64);
    std::string word;
    for (int k = static_cast<int>(rng() % 8) + 1; k > 0; --k) word += static_cast<char>('a' + rng() % 26);
    char input[256];
    std::snprintf(input, sizeof input, "%s%d%s%u,%s%s%x %s%lld=%c%s", blanks[rng() % 5], d, blanks[1 + rng() % 4], u,
                  blanks[rng() % 5], rng() % 2 ? "0x" : "", x, blanks[rng() % 5], ld,
                  static_cast<char>('A' + rng() % 26), word.c_str());
    // Cut the input anywhere: both must stop at the same place.
    std::string text(input);
    text = text.substr(0, rng() % 4 == 0 ? rng() % (text.size() + 1) : text.size());

    int cd = 0, od = 0;
    unsigned cu = 0, ou = 0, cx = 0, ox = 0;
    long long cld = 0;
    int64_t old = 0;
    char cc = 0;
    char16_t oc = 0;
    char cword[64] = {};
    TString oword;
    int want = std::sscanf(text.c_str(), "%d %u ,%x%lld=%c%s", &cd, &cu, &cx, &cld, &cc, cword);
    if (want < 0) want = 0;
    int got = Ascii(text).SScanf(u"%d %u ,%x%ld=%c%s", &od, &ou, &ox, &old, &oc, &oword);
    ASSERT_EQ(got, want) << text;
    if (got > 0) {
      ASSERT_EQ(od, cd);
    }
    if (got > 1) {
      ASSERT_EQ(ou, cu);
    }
    if (got > 2) {
      ASSERT_EQ(ox, cx) << text;
    }
    if (got > 3) {
      ASSERT_EQ(old, cld);
    }
    if (got > 4) {
      ASSERT_EQ(oc, static_cast<char16_t>(cc));
    }
    if (got > 5) {
      ASSERT_EQ(TStringAsString(oword), cword);
    }
  }
}

TEST(ScanTest, WidthsMatchSscanf) {
  std::mt19937 rng(8);
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    for (int k = static_cast<int>(rng() % 12); k > 0; --k) text += "0123456789abcdef -+"[rng() % 19];
    int w1 = static_cast<int>(rng() % 5) + 1, w2 = static_cast<int>(rng() % 5) + 1;
    std::string cfmt = "%" + std::to_string(w1) + "d%" + std::to_string(w2) + "s";
    int cd = 0, od = 0;
    char cs[16] = {};
    TString os;
    int want = std::sscanf(text.c_str(), cfmt.c_str(), &cd, cs);
    if (want < 0) want = 0;
    int got = Ascii(text).SScanf(Wide(cfmt).c_str(), &od, &os);
    ASSERT_EQ(got, want) << text << " " << cfmt;
    if (got > 0) {
      ASSERT_EQ(od, cd);
    }
    if (got > 1) {
      ASSERT_EQ(TStringAsString(os), cs);
    }
  }
}

TEST(ScanTest, RefusesOverflowAndSigns) {
  int d = 0;
  int64_t ld = 0;
  unsigned u = 0;
  EXPECT_EQ(Ascii("2147483647 -2147483648").SScanf(u"%d %ld", &d, &ld), 2);
  EXPECT_EQ(d, INT32_MAX);
  EXPECT_EQ(ld, -2147483648LL);
  EXPECT_EQ(Ascii("-2147483648").SScanf(u"%d", &d), 1);
  EXPECT_EQ(d, INT32_MIN);
  d = 5;
  EXPECT_EQ(Ascii("2147483648").SScanf(u"%d", &d), 0);
  EXPECT_EQ(d, 5);
  EXPECT_EQ(Ascii("9223372036854775807").SScanf(u"%ld", &ld), 1);
  EXPECT_EQ(ld, INT64_MAX);
  EXPECT_EQ(Ascii("-9223372036854775808").SScanf(u"%ld", &ld), 1);
  EXPECT_EQ(ld, INT64_MIN);
  EXPECT_EQ(Ascii("9223372036854775808").SScanf(u"%ld", &ld), 0);
  EXPECT_EQ(Ascii("4294967296").SScanf(u"%u", &u), 0);
  EXPECT_EQ(Ascii("100000000").SScanf(u"%x", &u), 0);
  EXPECT_EQ(Ascii("-5").SScanf(u"%u", &u), 0);
  uint64_t lx = 0;
  EXPECT_EQ(Ascii("FFFFFFFFFFFFFFFF").SScanf(u"%lx", &lx), 1);
  EXPECT_EQ(lx, UINT64_MAX);
}

TEST(ScanTest, LiteralsCharactersAndSuppression) {
  int a = 0, b = 0;
  EXPECT_EQ(Ascii("a=1, b = 2").SScanf(u"a=%d, b = %d", &a, &b), 2);
  EXPECT_EQ(b, 2);
  EXPECT_EQ(Ascii("a=1; b=2").SScanf(u"a=%d, b=%d", &a, &b), 1);
  EXPECT_EQ(Ascii("50% done").SScanf(u"%d%% %*s", &a), 1);
  char16_t chars[3] = {};
  EXPECT_EQ(Ascii(" x yz").SScanf(u"%c%3c", &chars[0], &chars[0]), 2);
  EXPECT_EQ(std::u16string(chars, 3), u"x y");
  EXPECT_EQ(Ascii("ab").SScanf(u"%3c", chars), 0);  // too few units
  TString word;
  EXPECT_EQ(Ascii("  \u00E9t\u00E9 next").SScanf(u"%s", &word), 1);
  EXPECT_EQ(TStringAsString(word), "\u00E9t\u00E9");
  EXPECT_EQ(Ascii("7").SScanf(u"%q", &a), 0);
  EXPECT_EQ(Ascii("7").SScanf(u"%d", nullptr), 0);
  // A target may be the scanned string itself.
  TString self(u"first second");
  EXPECT_EQ(self.SScanf(u"%s", &self), 1);
  EXPECT_EQ(TStringAsString(self), "first");
  TString fmt(u"%d-%d");
  EXPECT_EQ(Ascii("3-4").SScanf(&fmt, &a, &b), 2);
  EXPECT_EQ(a * 10 + b, 34);
  EXPECT_EQ(Ascii("An error occurred").SScanf(16000, static_cast<int>(ResKey("0000"))), 0);
}

TEST(ScanTest, NeverReadsPastTheInput) {
  // The input is the first three units of a longer buffer.
  const char16_t buffer[] = u"12345 tail";
  int v = 0;
  auto scan = [&](const char16_t* fmt, int inputLength, ...) {
    va_list ap;
    va_start(ap, inputLength);
    int n = DoScanf(buffer, inputLength, fmt, -1, ap);
    va_end(ap);
    return n;
  };
  EXPECT_EQ(scan(u"%d", 3, &v), 1);
  EXPECT_EQ(v, 123);
  TString rest;
  EXPECT_EQ(scan(u"%d%s", 5, &v, &rest), 1);
  EXPECT_EQ(scan(u"%d%s", 0, &v, &rest), 0);
  // Inputs of every length cut from a heap copy: ASan sees any overread.
  for (int n = 0; n <= 10; ++n) {
    std::u16string exact(buffer, static_cast<size_t>(n));
    std::unique_ptr<char16_t[]> heap(new char16_t[static_cast<size_t>(n) + 1]);
    for (int k = 0; k < n; ++k) heap[static_cast<size_t>(k)] = exact[static_cast<size_t>(k)];
    heap[static_cast<size_t>(n)] = u'9';  // no terminator inside the input
    char16_t c = 0;
    auto cut = [&](const char16_t* fmt, ...) {
      va_list ap;
      va_start(ap, fmt);
      int r = DoScanf(heap.get(), n, fmt, -1, ap);
      va_end(ap);
      return r;
    };
    EXPECT_LE(cut(u"%d %s%c", &v, &rest, &c), 2);
  }
}

}  // namespace
