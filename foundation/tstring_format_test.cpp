#include "foundation/tstring_format.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "foundation/format_args.h"
#include "foundation/hooks.h"
#include "foundation/resources.h"
#include "foundation/tstring.h"
#include "platform/locale.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

std::string F(const char16_t* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  TString s;
  s.VSPrintf(fmt, -1, ap);
  va_end(ap);
  return TStringAsString(s);
}

std::string C(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char buffer[512];
  std::vsnprintf(buffer, sizeof buffer, fmt, ap);
  va_end(ap);
  return buffer;
}

// Formats with typed words, as the checked front does.
std::string Words(const char16_t* fmt, const std::vector<FormatArgWord>& words) {
  FormatArgSource source(words.data(), static_cast<int>(words.size()));
  TString s;
  FormatWithSource(&s, fmt, -1, &source, true);
  return TStringAsString(s);
}

// Inserts `sep` every three digits of a snprintf'd integer.
std::string Grouped(const std::string& plain, const std::string& sep) {
  size_t first = plain[0] == '-' ? 1 : 0;
  std::string digits = plain.substr(first);
  std::string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += sep;
    out += digits[i];
  }
  return plain.substr(0, first) + out;
}

class FormatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::LocaleSeparatorsSpec english;
    platform::SetLocaleSeparatorsForTesting(&english);
  }
  void TearDown() override { platform::SetLocaleSeparatorsForTesting(nullptr); }
};

TEST_F(FormatTest, EdgeCasesOfTheTable) {
  EXPECT_EQ(F(u"%~d", -1234567), "-1234567");
  EXPECT_EQ(F(u"%d", -1234567), "-1,234,567");
  EXPECT_EQ(F(u"%K", 0), "0 ");
  EXPECT_EQ(F(u"%K", 1023), "1023 K");
  EXPECT_EQ(F(u"%k", 1023), "1023 k");
  EXPECT_EQ(F(u"%#", 5, 0), "100");
  EXPECT_EQ(F(u"%.2#", 5, 0), "100.00");
  EXPECT_EQ(F(u"%%%^%{%}"), "%^{}");
  EXPECT_EQ(F(u"%i|%5i", 7, -3), "7|   -3");
}

TEST_F(FormatTest, SeparatorsComeFromTheLocaleSeam) {
  platform::LocaleSeparatorsSpec german;
  std::u16string(u",").copy(german.decimal, 1);
  std::u16string(u".").copy(german.thousands, 1);
  platform::SetLocaleSeparatorsForTesting(&german);
  EXPECT_EQ(F(u"%d", 1234567), "1.234.567");
  EXPECT_EQ(F(u"%.2F", 123456), "1.234,56");
  EXPECT_EQ(F(u"%.1~F", -123456), "-12345,6");
  EXPECT_EQ(F(u"%lK", 1536LL), "1,5 M");
  // Multi-unit and non-ASCII separators: narrow no-break space, minus sign.
  platform::LocaleSeparatorsSpec french;
  french.thousands[0] = 0x202F;
  french.thousands[1] = 0;
  french.negative[0] = 0x2212;
  french.negative[1] = 0;
  std::u16string(u"<>").copy(french.decimal, 2);
  platform::SetLocaleSeparatorsForTesting(&french);
  EXPECT_EQ(F(u"%d", -1234), "\u2212" "1\u202F" "234");
  EXPECT_EQ(F(u"%~d", -1234), "-1234");
  EXPECT_EQ(F(u"%.1F", 15), "1<>5");
  // The OS reading: the C locale gives no grouping and falls back.
  platform::LocaleSeparatorsSpec c = platform::ReadLocaleSeparators("C");
  EXPECT_EQ(std::u16string(c.thousands), u",");
  EXPECT_EQ(std::u16string(c.decimal), u".");
  EXPECT_EQ(std::u16string(c.negative), u"-");
  EXPECT_EQ(std::u16string(c.time), u":");
  platform::LocaleSeparatorsSpec missing = platform::ReadLocaleSeparators("xx_NOWHERE.UTF-8");
  EXPECT_EQ(std::u16string(missing.thousands), u",");
}

TEST_F(FormatTest, MachineFormsMatchSnprintf) {
  std::mt19937_64 rng(20240611);
  const char16_t conversions[] = u"duxX";
  for (int round = 0; round < 20000; ++round) {
    char16_t conv = conversions[rng() % 4];
    bool wide = rng() % 2 == 0;
    bool left = rng() % 4 == 0;
    bool zero = rng() % 3 == 0;
    int width = rng() % 3 == 0 ? 0 : static_cast<int>(rng() % 26);
    int precision = rng() % 3 == 0 ? static_cast<int>(rng() % 22) : -1;
    uint64_t bits = rng();
    int shift = static_cast<int>(rng() % 64);
    bits >>= shift;  // all magnitudes
    if (rng() % 2) bits = ~bits;
    std::u16string ours = u"%";
    std::string theirs = "%";
    if (left) { ours += u'-'; theirs += '-'; }
    if (zero) { ours += u'0'; theirs += '0'; }
    if (width > 0) {
      std::string w = std::to_string(width);
      ours += std::u16string(w.begin(), w.end());
      theirs += w;
    }
    if (precision >= 0) {
      std::string p = "." + std::to_string(precision);
      ours += std::u16string(p.begin(), p.end());
      theirs += p;
    }
    ours += u'~';
    if (wide) { ours += u'l'; theirs += "ll"; }
    ours += conv;
    theirs += static_cast<char>(conv);
    std::string got, want;
    if (wide) {
      got = F(ours.c_str(), static_cast<long long>(bits));
      want = C(theirs.c_str(), static_cast<long long>(bits));
    } else {
      got = F(ours.c_str(), static_cast<int>(bits));
      want = C(theirs.c_str(), static_cast<int>(bits));
    }
    ASSERT_EQ(got, want) << TStringAsString(TString(ours.c_str())) << " value " << bits;
  }
}

TEST_F(FormatTest, GroupedFormsMatchGroupedSnprintf) {
  std::mt19937_64 rng(7);
  for (int round = 0; round < 5000; ++round) {
    int64_t v = static_cast<int64_t>(rng()) >> (rng() % 63);
    int width = static_cast<int>(rng() % 30);
    std::string want = Grouped(C("%lld", static_cast<long long>(v)), ",");
    ASSERT_EQ(F(u"%ld", v), want);
    std::string padded = F(u"%*ld", width, v);
    ASSERT_EQ(padded, std::string(want.size() < static_cast<size_t>(width) ? width - want.size() : 0, ' ') + want);
    uint32_t u = static_cast<uint32_t>(rng());
    ASSERT_EQ(F(u"%u", u), Grouped(C("%u", u), ","));
  }
  EXPECT_EQ(F(u"%08d", -1234), "-001,234");
  EXPECT_EQ(F(u"%-8d|", 1234), "1,234   |");
  EXPECT_EQ(F(u"%ld", INT64_MIN), "-9,223,372,036,854,775,808");
  EXPECT_EQ(F(u"%lu", UINT64_MAX), "18,446,744,073,709,551,615");
}

TEST_F(FormatTest, FixedPointAndPercentages) {
  std::mt19937_64 rng(11);
  for (int round = 0; round < 5000; ++round) {
    int v = static_cast<int>(rng());
    int decimals = static_cast<int>(rng() % 6);
    long long magnitude = v < 0 ? -static_cast<long long>(v) : v;
    long long scale = 1;
    for (int k = 0; k < decimals; ++k) scale *= 10;
    std::string want = C("%s%lld", v < 0 ? "-" : "", magnitude / scale);
    if (decimals > 0) want += "." + C("%0*lld", decimals, magnitude % scale);
    std::u16string fmt = u"%." + std::u16string(1, static_cast<char16_t>(u'0' + decimals)) + u"~F";
    ASSERT_EQ(F(fmt.c_str(), v), want);

    // Percentages below the pre-division bound: exact integer arithmetic.
    int part = static_cast<int>(rng() % 21474836);
    int whole = static_cast<int>(rng() % 100000000) + 1;
    long long hundredths = static_cast<long long>(part) * 10000 / whole;
    ASSERT_EQ(F(u"%.2~#", part, whole), C("%lld.%02lld", hundredths / 100, hundredths % 100));
  }
  // From 21474836 on, both are divided by 100 first (the whole 99 becomes 0).
  EXPECT_EQ(F(u"%#", 21474836, 42949672), "50");
  EXPECT_EQ(F(u"%#", 21474836, 99), "100");
  EXPECT_EQ(F(u"%#", 21474835, 99), "21,691,752");
  EXPECT_EQ(F(u"%l#", 1LL << 40, 1LL << 41), "50");
  EXPECT_EQ(F(u"%.1#", -1, 3), "-33.3");
  EXPECT_EQ(F(u"%.3F", 5), "0.005");
  EXPECT_EQ(F(u"%.2F", -1234567), "-12,345.67");
}

TEST_F(FormatTest, SizesFollowTheDivisionRule) {
  std::mt19937_64 rng(3);
  const char* upper = "KMGTPEZY";
  for (int round = 0; round < 20000; ++round) {
    uint64_t v = rng() >> (rng() % 64);
    std::string got = F(u"%~lK", v);
    if (v == 0) { ASSERT_EQ(got, "0 "); continue; }
    if (v <= 1023) { ASSERT_EQ(got, std::to_string(v) + " K"); continue; }
    // Independently: find the unit in floating point, then check the shown
    // tenths are the value in that unit within the rounding of the ceilings.
    long double exact = static_cast<long double>(v);
    int unit = 0;
    uint64_t scaled = v;
    while (scaled >= 1023898) {
      scaled = (scaled + 1023) / 1024;
      exact /= 1024;
      ++unit;
    }
    long double shown = exact / 1024;
    double tenths = 0;
    char letter = 0;
    ASSERT_EQ(std::sscanf(got.c_str(), "%lf %c", &tenths, &letter), 2) << got;
    ASSERT_EQ(letter, upper[unit + 1]) << v;
    ASSERT_NEAR(static_cast<double>(shown), tenths, 0.051 + static_cast<double>(shown) * 1e-5) << v << " " << got;
    ASSERT_LT(tenths, 1000.0) << got;
  }
  EXPECT_EQ(F(u"%lK", 1024LL), "1.0 M");
  EXPECT_EQ(F(u"%lk", 1536LL), "1.5 m");
  EXPECT_EQ(F(u"%lK", 1023897LL), "999.9 M");
  EXPECT_EQ(F(u"%lK", 1023898LL), "1.0 G");
  EXPECT_EQ(F(u"%lK", UINT64_MAX), "16.0 Z");
  EXPECT_EQ(F(u"%8K|%-8K|", 5, 5), "     5 K|5 K     |");
}

TEST_F(FormatTest, DumpsAddressesTextsAndCharacters) {
  std::vector<uint8_t> bytes(30000);
  std::mt19937 rng(5);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
  std::string want;
  for (int i = 0; i < 6; ++i) want += C(i ? " %02x" : "%02x", bytes[i]);
  EXPECT_EQ(F(u"%6$", bytes.data()), want);
  EXPECT_EQ(F(u"%6.7$", bytes.data()), want.substr(0, 7));
  EXPECT_EQ(F(u"%2~$", bytes.data()), C("%02X %02X", bytes[0], bytes[1]));
  EXPECT_EQ(F(u"%$|%3$", bytes.data(), nullptr), "|");
  EXPECT_EQ(F(u"%30000$", bytes.data()).size(), 65534u);

  const uint8_t ip[4] = {192, 168, 0, 255};
  EXPECT_EQ(F(u"%p", ip), "192.168.0.255");
  EXPECT_EQ(F(u"[%p]", nullptr), "[]");

  TString word(u"hello");
  EXPECT_EQ(F(u"%s|%8s|%-8s|%.3s", &word, &word, &word, &word), "hello|   hello|hello   |hel");
  EXPECT_EQ(F(u"%s %S", nullptr, nullptr), "nil nil");
  TString longText(std::u16string(40, u'a').c_str());
  EXPECT_EQ(F(u"%S", &longText).size(), 31u);
  EXPECT_EQ(F(u"%.40S", &longText).size(), 40u);
  TString pair(u"ab\U0001F600");
  EXPECT_EQ(F(u"%.3s", &pair), "ab");  // half a pair is never shown
  EXPECT_EQ(F(u"%c%C%3c|%lc", u'A', u'\u00E9', u'z', 0x1F600LL), "A\u00E9  z|\U0001F600");
  EXPECT_EQ(F(u"%c", 0x110000), "\uFFFD");
  EXPECT_EQ(F(u"%Y %Y %y %y", 1, 0, 5, 0), "Yes No true false");
}

TEST_F(FormatTest, ErrorCodesShowTheirTexts) {
  EXPECT_EQ(F(u"%E", kErrAccessDenied), "Access denied (error -1017)");
  EXPECT_EQ(F(u"%~E", kErrAccessDenied), "Access denied");
  EXPECT_EQ(F(u"%E", 5), "An error occurred (error 5)");
  EXPECT_EQ(F(u"[%30~E]", kErrAccessDenied), "[                 Access denied]");
  TString text;
  GetErrorText(kErrNotFound, &text);
  EXPECT_EQ(F(u"%~E", kErrNotFound), TStringAsString(text));

  // Host texts: blanks are stripped, and an "Errr" format that names %E
  // itself cannot recurse for ever.
  TempDir dir;
  std::string path = dir.WriteFile("texts.txt", "16100 0017   Locked out  \n16000 Errr <%s|%~d|%E>\n");
  ASSERT_EQ(LoadResourceFile(TStringFromUTF8(path)), 0);
  std::string shown = F(u"%E", kErrAccessDenied);
  ClearHostResources();
  EXPECT_EQ(F(u"%~E", kErrAccessDenied), "Access denied");
  // The nested %E finds no third word (code 0); one level further down it
  // shows the text alone.
  EXPECT_EQ(shown, "<Locked out|-1017|<An error occurred|0|An error occurred>>");
}

TEST_F(FormatTest, BracesAndTheLeadingBlock) {
  TString s;
  s.SPrintf(u"{id %d {nested}}x=%d {y} }", 5);
  EXPECT_EQ(TStringAsString(s), "x=5 {y} }");
  TString format;
  ASSERT_EQ(s.GetFormatString(&format), 0);
  EXPECT_EQ(TStringAsString(format), "{id %d {nested}}x=%d {y} }");
  EXPECT_EQ(F(u"{unclosed %d", 7), "{unclosed 7");
  EXPECT_EQ(F(u"{}"), "");
  EXPECT_EQ(F(u"}{%d", 1), "}{1");
}

TEST_F(FormatTest, ParametersAreRecordedAndFollowCuts) {
  TString name(u"disk");
  TString s;
  int n = s.SPrintf(u"a=%5d b=%s c=%~E %%", 12345, &name, kErrNotFound);
  EXPECT_EQ(n, s.GetLength());
  ASSERT_EQ(s.GetParameterCount(), 3);
  const char16_t kinds[] = u"dsE";
  const char* raws[] = {"12345", "disk", "-1101"};
  const char* shown[] = {"12,345", "disk", "Not found"};
  for (int i = 0; i < 3; ++i) {
    TString raw;
    char16_t kind = 0;
    int position = 0, length = 0;
    ASSERT_EQ(s.GetParametric(i, &raw, &kind, &position, &length), 0);
    EXPECT_EQ(kind, kinds[i]);
    EXPECT_EQ(TStringAsString(raw), raws[i]);
    EXPECT_EQ(TStringAsString(s.Mid(position, length)), shown[i]);
  }
  TString format;
  ASSERT_EQ(s.GetFormatString(&format), 0);
  EXPECT_EQ(TStringAsString(format), "a=%5d b=%s c=%~E %%");

  // Every cut keeps each parameter over the same displayed text.
  for (int start = 0; start <= s.GetLength(); ++start) {
    TString mid = s.Mid(start);
    TString right = s.Right(s.GetLength() - start);
    TString left = s.Left(start);
    for (const TString* part : {&mid, &right, &left}) {
      int offset = part == &left ? 0 : start;
      for (int i = 0; i < part->GetParameterCount(); ++i) {
        const TStringParameter* p = part->GetParameter(i);
        EXPECT_EQ(TStringAsString(part->Mid(p->position, p->length)),
                  TStringAsString(s.Mid(p->position + offset, p->length)));
      }
      if (part->GetLength() < s.GetLength()) {
        EXPECT_NE(part->GetFormatString(nullptr), 0);
      }
    }
  }
  EXPECT_EQ(s.Mid(2, 6).GetParameterCount(), 1);
  EXPECT_EQ(s.Right(9).GetParameterCount(), 1);
  s.RelocateParameters(0, 3);
  EXPECT_EQ(s.GetParameter(0)->position, 5);
  s.ClearParameters();
  EXPECT_EQ(s.GetParameterCount(), 0);

  // Conversions that print nothing still record; literals record nothing.
  TString empty;
  empty.SPrintf(u"%%%p%^", nullptr);
  ASSERT_EQ(empty.GetParameterCount(), 1);
  EXPECT_EQ(empty.GetParameter(0)->length, 0);
}

TEST_F(FormatTest, ResourceFormatsAndSelfReference) {
  TString s;
  s.SPrintf(16000, static_cast<int>(ResKey("Errr")), nullptr, 1234);
  EXPECT_EQ(TStringAsString(s), "nil (error 1234)");
  s.SPrintf(16000, static_cast<int>(ResKey("None")), 1);
  EXPECT_TRUE(s.IsEmpty());
  TString t(u"ab%s");
  t.SPrintf(&t, &t);
  EXPECT_EQ(TStringAsString(t), "abab%s");
  t.SPrintf(u"%s-%s", &t, &t);
  EXPECT_EQ(TStringAsString(t), "abab%s-abab%s");
  t.SPrintf(static_cast<TString*>(nullptr));
  EXPECT_TRUE(t.IsEmpty());
}

// Every conversion takes from a va_list exactly what the forwarding table
// of format_args.h says, so hosts receive the arguments they format.
TEST_F(FormatTest, ConsumptionMatchesTheForwardingTable) {
  uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  TString str(u"s");
  for (char16_t c : std::u16string(u"diuxX#F$EDTIKkpsScCYy%^{}q")) {
    for (bool wide : {false, true}) {
      std::u16string fmt = u"%";
      if (wide) fmt += u'l';
      fmt += c;
      fmt += u"|%~d";
      FormatArgKind kind = FormatConversionArg(c, wide);
      std::string got;
      switch (kind) {
        case FormatArgKind::kNone: got = F(fmt.c_str(), 777); break;
        case FormatArgKind::kInt: got = F(fmt.c_str(), 1, 777); break;
        case FormatArgKind::kLong: got = F(fmt.c_str(), 1LL, 777); break;
        case FormatArgKind::kTwoInts: got = F(fmt.c_str(), 1, 2, 777); break;
        case FormatArgKind::kTwoLongs: got = F(fmt.c_str(), 1LL, 2LL, 777); break;
        case FormatArgKind::kPointer:
          got = F(fmt.c_str(), (c == u's' || c == u'S') ? static_cast<void*>(&str)
                               : (c == u'D' || c == u'T' || c == u'I') ? nullptr
                                                                       : static_cast<void*>(bytes),
                  777);
          break;
      }
      ASSERT_GE(got.size(), 4u);
      EXPECT_EQ(got.substr(got.size() - 4), "|777") << static_cast<char>(c) << " wide " << wide;
    }
  }
}

TEST_F(FormatTest, HostileFormatsNeverCrash) {
  EXPECT_EQ(F(u"100%"), "100%");
  EXPECT_EQ(F(u"%-0*.*~;l"), "%-0*.*~;l");
  EXPECT_EQ(F(u"%q%5w"), "%q%5w");
  EXPECT_EQ(F(u"%99999999999d", 1).size(), static_cast<size_t>(kFormatMaxField));
  EXPECT_EQ(F(u"%.99999999999d", 1).size(), static_cast<size_t>(kFormatMaxField + (kFormatMaxField - 1) / 3));
  EXPECT_EQ(F(u"%*d|", INT32_MIN, 1).size(), static_cast<size_t>(kFormatMaxField + 1));
  EXPECT_EQ(F(u"%.*d", -5, 42), "42");
  EXPECT_EQ(F(u"%.*s", INT32_MIN, nullptr), "nil");
  // Random formats over typed words: pointers are null, integers random.
  std::mt19937_64 rng(99);
  const std::u16string alphabet = u"%%%%%-0*.~;lL123456789diuxX#F$EKkpsScCYy^{}ab ";
  for (int round = 0; round < 3000; ++round) {
    std::u16string fmt;
    int length = static_cast<int>(rng() % 40);
    for (int k = 0; k < length; ++k) fmt += alphabet[rng() % alphabet.size()];
    std::vector<FormatArgWord> words(static_cast<size_t>(rng() % 12));
    for (FormatArgWord& w : words) {
      w.kind = rng() % 3 == 0 ? FormatArgKind::kPointer : rng() % 2 ? FormatArgKind::kInt : FormatArgKind::kLong;
      w.value = w.kind == FormatArgKind::kPointer ? 0 : rng() >> (rng() % 64);
      if (w.kind == FormatArgKind::kInt && rng() % 2) w.value = rng() % 40;  // sensible widths too
    }
    std::string out = Words(fmt.c_str(), words);
    ASSERT_LE(out.size(), static_cast<size_t>(kFormatMaxOutput) * 3);
  }
}

TEST_F(FormatTest, TypedWordsRefuseWrongKinds) {
  TString s(u"x");
  // A pointer asked where an integer was given reads null, and the reverse 0.
  EXPECT_EQ(Words(u"%s|%d", {{FormatArgKind::kInt, 12345}, {FormatArgKind::kPointer, reinterpret_cast<uintptr_t>(&s)}}),
            "nil|0");
  EXPECT_EQ(Words(u"%s|%d|%d", {{FormatArgKind::kPointer, reinterpret_cast<uintptr_t>(&s)}, {FormatArgKind::kLong, 7}}),
            "x|7|0");
}

TEST(FormatHostTest, AlertsAndLogLinesUseTheFormatter) {
  TestHost host;
  TString fmt(u"!#/a/b/c/d/e/%d files, %E");
  Alertf(&fmt, 12000, kErrDiskFull);
  ASSERT_EQ(host.FatalAlerts().size(), 1u);
  EXPECT_EQ(host.FatalAlerts()[0], "12,000 files, The disk is full (error -1115)");
  TString log(u"copy: %s %lK");
  TString name(u"a.bin");
  DebugLogf(514, &log, &name, 2048LL);
  auto lines = host.LinesWithFormat("copy: %s %lK");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "copy: a.bin 2.0 M");
  EXPECT_EQ(lines[0].args.size(), 2u);
}

}  // namespace
