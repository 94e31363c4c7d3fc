#include "time/tinterval.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"
#include "time/tdatestep.h"

namespace {

constexpr int64_t kDay = 86400000;

std::string Iso(const TInterval& i) { return TStringAsString(i.ToISOString()); }

int32_t RandomPart(std::mt19937_64& rng) {
  switch (rng() % 4) {
    case 0: return 0;
    case 1: return static_cast<int32_t>(rng() % 200) - 100;
    case 2: return static_cast<int32_t>(rng() % 200000) - 100000;
    default: return static_cast<int32_t>(rng() % 20000000) - 10000000;
  }
}

void ExpectNormal(const TInterval& i, int64_t total) {
  ASSERT_EQ(i.TotalMilliseconds(), total);
  const int64_t parts[] = {i.GetDays(), i.GetHours(), i.GetMinutes(), i.GetSeconds(), i.GetMilliseconds()};
  for (int64_t p : parts) {
    ASSERT_TRUE(total >= 0 ? p >= 0 : p <= 0) << "part " << p << " of total " << total;
  }
  ASSERT_LT(std::llabs(i.GetHours()), 24);
  ASSERT_LT(std::llabs(i.GetMinutes()), 60);
  ASSERT_LT(std::llabs(i.GetSeconds()), 60);
  ASSERT_LT(std::llabs(i.GetMilliseconds()), 1000);
  ASSERT_EQ(i.IsNegative(), total < 0);
}

TEST(TInterval, NormalFormKeepsTheTotalAndOneSign) {
  TInterval a(0, 25, 0, 0, 0);
  EXPECT_EQ(a.GetDays(), 1);
  EXPECT_EQ(a.GetHours(), 1);
  TInterval b(1, -1, 0, 0, 0);
  EXPECT_EQ(b.GetDays(), 0);
  EXPECT_EQ(b.GetHours(), 23);
  TInterval c(0, 0, 0, -1, 1);
  EXPECT_EQ(c.GetSeconds(), 0);
  EXPECT_EQ(c.GetMilliseconds(), -999);
  std::mt19937_64 rng(71);
  for (int i = 0; i < 20000; ++i) {
    int32_t d = RandomPart(rng), h = RandomPart(rng), m = RandomPart(rng), s = RandomPart(rng), ms = RandomPart(rng);
    int64_t total = d * kDay + h * 3600000LL + m * 60000LL + s * 1000LL + ms;
    TInterval x(d, h, m, s, ms);
    ExpectNormal(x, total);
    TInterval y;
    y.Set(d, h, m, s, ms);
    ASSERT_TRUE(x == y);
    TInterval z = TInterval::FromMilliseconds(total);
    ASSERT_EQ(z.GetDays(), x.GetDays());
    ASSERT_EQ(z.GetMilliseconds(), x.GetMilliseconds());
  }
  // A total past 2^31 days saturates.
  TInterval huge(INT32_MAX, 48, 0, 0, 0);
  EXPECT_EQ(huge.GetDays(), INT32_MAX);
  EXPECT_EQ(huge.GetHours(), 23);
  TInterval low(INT32_MIN, -48, 0, 0, 0);
  EXPECT_EQ(low.GetDays(), -INT32_MAX);
}

TEST(TInterval, ArithmeticAndOrderFollowTheTotal) {
  std::mt19937_64 rng(72);
  for (int i = 0; i < 20000; ++i) {
    TInterval a(RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng));
    TInterval b(RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng));
    int64_t ta = a.TotalMilliseconds();
    int64_t tb = b.TotalMilliseconds();
    ExpectNormal(a + b, ta + tb);
    ExpectNormal(a - b, ta - tb);
    ExpectNormal(-a, -ta);
    TInterval c = a;
    c += b;
    ASSERT_EQ(c.TotalMilliseconds(), ta + tb);
    c -= b;
    ASSERT_TRUE(c == a);
    ASSERT_EQ(a < b, ta < tb);
    ASSERT_EQ(a <= b, ta <= tb);
    ASSERT_EQ(a > b, ta > tb);
    ASSERT_EQ(a >= b, ta >= tb);
    ASSERT_EQ(a != b, ta != tb);
  }
}

TEST(TInterval, ISODurationsWriteAndReadBack) {
  EXPECT_EQ(Iso(TInterval()), "P0Y0M0DT0H0M0S");
  EXPECT_EQ(Iso(TInterval(400, 2, 3, 4, 0)), "P0Y0M400DT2H3M4S");
  EXPECT_EQ(Iso(TInterval(-1, -2, -3, -4, 0)), "P0Y0M-1DT-2H-3M-4S");
  // Whole seconds: the milliseconds are dropped, not rounded.
  EXPECT_EQ(Iso(TInterval(0, 0, 0, 1, 999)), "P0Y0M0DT0H0M1S");
  EXPECT_EQ(Iso(TInterval(0, 0, 0, -1, -250)), "P0Y0M0DT0H0M-1S");
  EXPECT_EQ(Iso(TInterval(0, 0, 0, 0, -5)), "P0Y0M0DT0H0M0S");
  std::mt19937_64 rng(73);
  for (int i = 0; i < 20000; ++i) {
    TInterval a(RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng));
    TInterval back(9, 9, 9, 9, 9);
    ASSERT_EQ(back.FromISOString(a.ToISOString()), 0) << Iso(a);
    ASSERT_EQ(back.TotalMilliseconds(), a.TotalMilliseconds() - a.GetMilliseconds()) << Iso(a);
  }
  struct Case {
    const char16_t* text;
    int64_t total;
  };
  const Case cases[] = {
      {u"PT5M", 5 * 60000},
      {u"P3D", 3 * kDay},
      {u"P1W", 7 * kDay},
      {u"P1Y", 365 * kDay},
      {u"P2M", 60 * kDay},
      {u"P1DT12H", kDay + 12 * 3600000},
      {u"PT0.5S", 500},
      {u"PT1,25S", 1250},
      {u"PT1.23456S", 1234},
      {u"PT1.5M", 90000},
      {u"-P1DT2H", -(kDay + 2 * 3600000)},
      {u"P-1DT+2H", -kDay + 2 * 3600000},
      {u"P1Y2M3W4DT5H6M7.008S",
       365 * kDay + 60 * kDay + 21 * kDay + 4 * kDay + 5 * 3600000 + 6 * 60000 + 7008},
      {u"PT36H", 36 * 3600000LL},
  };
  for (const Case& c : cases) {
    TInterval x;
    ASSERT_EQ(x.FromISOString(TString(c.text)), 0) << TStringAsString(TString(c.text));
    EXPECT_EQ(x.TotalMilliseconds(), c.total) << TStringAsString(TString(c.text));
  }
}

TEST(TInterval, ISODurationReaderRefusesGarbage) {
  const char16_t* bad[] = {
      u"", u"P", u"PT", u"P1DT", u"5M", u"P5", u"PT5X", u"P1M1Y", u"P1D1D", u"PT1.5M2S", u"P1H", u"PT1D",
      u"p1d", u"P 1D", u"P1D ", u"P99999999999D", u"P9999999999Y", u"P1.D", u"P.5D", u"PT1H1H", u"--P1D",
      u"P--1D", u"PTT1H", u"P1DTT1H", u"P2147483648D",
  };
  TestHost host;
  for (const char16_t* text : bad) {
    TInterval keep(1, 2, 3, 4, 5);
    EXPECT_EQ(keep.FromISOString(TString(text)), kErrBadParameter) << TStringAsString(TString(text));
    EXPECT_TRUE(keep == TInterval(1, 2, 3, 4, 5));
  }
  EXPECT_EQ(host.LinesWithFormat("TInterval::FromISOString: cannot read \"%s\" as a duration, %E").size(),
            sizeof bad / sizeof bad[0]);
  // Random text over the duration alphabet: refused, or a normal interval.
  std::mt19937_64 rng(74);
  const std::u16string alphabet = u"PTYMWDHS0123456789.,-+ x";
  for (int i = 0; i < 30000; ++i) {
    std::vector<char16_t> text(rng() % 30);
    for (char16_t& c : text) c = alphabet[rng() % alphabet.size()];
    TInterval x;
    if (x.FromISOString(TString(text.data(), static_cast<int>(text.size()))) == 0) {
      ExpectNormal(x, x.TotalMilliseconds());
    }
  }
}

TEST(TInterval, StoredFormRoundTripsAndRefusesShortBuffers) {
  std::mt19937_64 rng(75);
  for (int i = 0; i < 2000; ++i) {
    TInterval a(RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng));
    uint8_t buffer[TInterval::kStoreSize];
    ASSERT_EQ(a.Export(buffer, a.StoreSize()), 0);
    TInterval back;
    ASSERT_EQ(back.Import(buffer, sizeof buffer), 0);
    ASSERT_EQ(back.GetDays(), a.GetDays());
    ASSERT_EQ(back.GetMilliseconds(), a.GetMilliseconds());
    ASSERT_TRUE(back == a);
  }
  uint8_t bytes[TInterval::kStoreSize];
  ASSERT_EQ(TInterval(-2, -3, 0, 0, -1).Export(bytes, sizeof bytes), 0);
  const uint8_t expect[] = {'I', 1, 0xFE, 0xFF, 0xFF, 0xFF, 0xFD, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0,
                            0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + sizeof bytes), std::vector<uint8_t>(expect, expect + sizeof expect));

  TestHost host;
  TInterval keep(1, 0, 0, 0, 0);
  for (int size = 0; size < TInterval::kStoreSize; ++size) {
    std::vector<uint8_t> cut(bytes, bytes + size);
    EXPECT_EQ(keep.Import(cut.data(), size), kErrInvalidData);
    EXPECT_EQ(keep.Export(cut.data(), size), kErrBufferTooSmall);
  }
  bytes[0] = 'D';
  EXPECT_EQ(keep.Import(bytes, sizeof bytes), kErrInvalidData);
  EXPECT_TRUE(keep == TInterval(1, 0, 0, 0, 0));
  EXPECT_EQ(host.LinesWithFormat("TInterval::Import: %~d bytes, %~d needed, %E").size(), 22u);
  EXPECT_EQ(host.LinesWithFormat("TInterval::Import: bad marker %~d or version %~d, %E").size(), 1u);
  // Parts stored out of normal form are brought back to it.
  uint8_t loose[TInterval::kStoreSize] = {'I', 1, 0, 0, 0, 0, 25, 0, 0, 0};
  ASSERT_EQ(keep.Import(loose, sizeof loose), 0);
  EXPECT_EQ(keep.GetDays(), 1);
  EXPECT_EQ(keep.GetHours(), 1);
}

TEST(TDateStep, PartsOrderAndStoredForm) {
  TDateStep s(1, 2, 3, 4, 5, 6, 7, 8);
  EXPECT_EQ((std::vector<int>{s.GetMilliseconds(), s.GetSeconds(), s.GetMinutes(), s.GetHours(), s.GetDays(),
                              s.GetWeeks(), s.GetMonths(), s.GetYears()}),
            (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8}));
  TDateStep t;
  EXPECT_TRUE(t.IsZero());
  t.SetMilliseconds(1);
  t.SetSeconds(2);
  t.SetMinutes(3);
  t.SetHours(4);
  t.SetDays(5);
  t.SetWeeks(6);
  t.SetMonths(7);
  t.SetYears(8);
  EXPECT_TRUE(s == t);

  // From the largest unit down.
  EXPECT_TRUE(TDateStep(0, 0, 0, 0, 40, 0, 0, 0) < TDateStep(0, 0, 0, 0, 0, 0, 1, 0));
  EXPECT_TRUE(TDateStep(999, 0, 0, 0, 0, 0, 0, 0) < TDateStep(0, 1, 0, 0, 0, 0, 0, 0));
  EXPECT_TRUE(TDateStep(0, 0, 0, 0, 0, 0, 0, 1) > TDateStep(65535, 65535, 65535, 65535, 65535, 65535, 65535, 0));
  EXPECT_TRUE(s <= t && s >= t && !(s != t));

  std::mt19937_64 rng(76);
  for (int i = 0; i < 2000; ++i) {
    TDateStep a(static_cast<uint16_t>(rng()), static_cast<uint16_t>(rng()), static_cast<uint16_t>(rng()),
                static_cast<uint16_t>(rng()), static_cast<uint16_t>(rng()), static_cast<uint16_t>(rng()),
                static_cast<uint16_t>(rng()), static_cast<uint16_t>(rng()));
    uint8_t buffer[TDateStep::kStoreSize];
    ASSERT_EQ(a.Export(buffer, a.StoreSize()), 0);
    TDateStep back;
    ASSERT_EQ(back.Import(buffer, sizeof buffer), 0);
    ASSERT_TRUE(back == a);
  }
  uint8_t bytes[TDateStep::kStoreSize];
  ASSERT_EQ(TDateStep(0x0102, 0, 0, 0, 0, 0, 0, 0xA0B0).Export(bytes, sizeof bytes), 0);
  const uint8_t expect[] = {'S', 1, 0x02, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB0, 0xA0};
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + sizeof bytes), std::vector<uint8_t>(expect, expect + sizeof expect));
  TestHost host;
  for (int size = 0; size < TDateStep::kStoreSize; ++size) {
    std::vector<uint8_t> cut(bytes, bytes + size);
    EXPECT_EQ(t.Import(cut.data(), size), kErrInvalidData);
    EXPECT_EQ(t.Export(cut.data(), size), kErrBufferTooSmall);
  }
  bytes[1] = 0;
  EXPECT_EQ(t.Import(bytes, sizeof bytes), kErrInvalidData);
  EXPECT_TRUE(t == s);
  EXPECT_EQ(host.LinesWithFormat("TDateStep::Import: %~d bytes, %~d needed, %E").size(), 18u);
  EXPECT_EQ(host.LinesWithFormat("TDateStep::Export: buffer of %~d bytes, %~d needed, %E").size(), 18u);
}

}  // namespace
