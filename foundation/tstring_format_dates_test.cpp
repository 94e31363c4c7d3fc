#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <random>
#include <string>

#include "foundation/tstring.h"
#include "platform/locale.h"
#include "time/tdate.h"
#include "time/tinterval.h"

namespace {

TString Formatted(const char16_t* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  TString s;
  s.VSPrintf(fmt, -1, ap);
  va_end(ap);
  return s;
}

std::string F(const char16_t* fmt, const void* value) { return TStringAsString(Formatted(fmt, value)); }

std::string Raw(const char16_t* fmt, const void* value) {
  TString s = Formatted(fmt, value);
  TString raw;
  EXPECT_EQ(s.GetParametric(0, &raw), 0);
  return TStringAsString(raw);
}

class FormatDatesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::LocaleSeparatorsSpec english;
    platform::SetLocaleSeparatorsForTesting(&english);
  }
  void TearDown() override { platform::SetLocaleSeparatorsForTesting(nullptr); }
};

TEST_F(FormatDatesTest, NullAndNeverSetDates) {
  EXPECT_EQ(F(u"[%D]", nullptr), "[]");
  EXPECT_EQ(Raw(u"%D", nullptr), "0000-00-00T00:00:00.000Z+00:00");
  EXPECT_EQ(Raw(u"%T", nullptr), "0000-00-00T00:00:00.000Z+00:00");
  TDate never;
  EXPECT_EQ(F(u"%~D", &never), "Never");
  EXPECT_EQ(F(u"%D", &never), "1/1/0001");
  EXPECT_EQ(Raw(u"%D", &never), "0000-00-00T00:00:00.000Z+00:00");
  EXPECT_EQ(F(u"[%I]", nullptr), "[]");
  EXPECT_EQ(Raw(u"%I", nullptr), "");
}

TEST_F(FormatDatesTest, DateAndTimeForms) {
  TDate d(2024, 3, 7, 14, 5, 9, 7);
  d.SetGMTOffset(90);
  EXPECT_EQ(F(u"%D", &d), "3/7/2024");
  EXPECT_EQ(F(u"%0D", &d), "03/07/2024");
  EXPECT_EQ(F(u"%.1D", &d), "3/7/24");
  EXPECT_EQ(F(u"%.2D", &d), "2024-03-07");
  EXPECT_EQ(F(u"%~D", &d), "3/7/2024 14:05:09");
  EXPECT_EQ(TStringAsString(Formatted(u"%T|%.1T|%.2T", &d, &d, &d)), "14:05:09|14:05|14:05:09.007");
  TDate morning(2024, 3, 7, 9, 5, 0, 0);
  EXPECT_EQ(TStringAsString(Formatted(u"%T %0T %12D|", &morning, &morning, &morning)), "9:05:00 09:05:00     3/7/2024|");
  EXPECT_EQ(Raw(u"%D", &d), "2024-03-07T14:05:09.007Z+01:30");
  d.SetGMTOffset(-330);
  EXPECT_EQ(Raw(u"%T", &d), "2024-03-07T14:05:09.007Z-05:30");
  d.SetGMTOffset(TDate::kUnknownGMTOffset);
  EXPECT_EQ(Raw(u"%D", &d), "2024-03-07T14:05:09.007Z-00:01");
  EXPECT_EQ(Raw(u"%T", &d), "2024-03-07T14:05:09.007Z-00:01");

  platform::LocaleSeparatorsSpec german;
  german.decimal[0] = u',';
  german.date[0] = u'.';
  german.dateOrder[0] = 'D';
  german.dateOrder[1] = 'M';
  german.time[0] = u'.';
  platform::SetLocaleSeparatorsForTesting(&german);
  EXPECT_EQ(F(u"%D", &d), "7.3.2024");
  EXPECT_EQ(F(u"%.2T", &d), "14.05.09,007");
  // The C locale's date format is month/day/year with '/'.
  platform::LocaleSeparatorsSpec c = platform::ReadLocaleSeparators("C");
  EXPECT_EQ(std::string(c.dateOrder), "MDY");
  EXPECT_EQ(std::u16string(c.date), u"/");
}

TEST_F(FormatDatesTest, RawFormsMatchSnprintf) {
  std::mt19937 rng(17);
  for (int round = 0; round < 2000; ++round) {
    int year = 1 + static_cast<int>(rng() % 4000), month = 1 + static_cast<int>(rng() % 12),
        day = 1 + static_cast<int>(rng() % 28), hour = static_cast<int>(rng() % 24),
        minute = static_cast<int>(rng() % 60), second = static_cast<int>(rng() % 60),
        ms = static_cast<int>(rng() % 1000), offset = static_cast<int>(rng() % 1681) - 840;
    TDate d(static_cast<unsigned short>(year), static_cast<unsigned short>(month), static_cast<unsigned short>(day),
            static_cast<unsigned short>(hour), static_cast<unsigned short>(minute),
            static_cast<unsigned short>(second), static_cast<unsigned short>(ms));
    d.SetGMTOffset(static_cast<short>(offset));
    char want[64];
    int magnitude = offset < 0 ? -offset : offset;
    std::snprintf(want, sizeof want, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ%c%02d:%02d", year, month, day, hour, minute,
                  second, ms, offset < 0 ? '-' : '+', magnitude / 60, magnitude % 60);
    ASSERT_EQ(Raw(u"%D", &d), want);
    std::snprintf(want, sizeof want, "%d/%d/%04d %d:%02d:%02d", month, day, year, hour, minute, second);
    ASSERT_EQ(F(u"%~D", &d), want);
  }
}

TEST_F(FormatDatesTest, IntervalForms) {
  TInterval withDays(2, 3, 4, 5, 6);
  EXPECT_EQ(F(u"%I", &withDays), "2 03:04:05");
  EXPECT_EQ(F(u"%~I", &withDays), "2 03:04:05.006");
  EXPECT_EQ(Raw(u"%I", &withDays), "2T03:04:05.006");
  TInterval hours(0, 3, 4, 5, 6);
  EXPECT_EQ(F(u"%I", &hours), "03:04:05");
  EXPECT_EQ(F(u"%.1I", &hours), "3:04:05");
  EXPECT_EQ(F(u"%.2I", &hours), "184:05");
  TInterval negative(0, -1, -2, -3, -40);
  EXPECT_EQ(F(u"%I", &negative), "-01:02:03");
  EXPECT_EQ(F(u"%~I", &negative), "-01:02:03.040");
  EXPECT_EQ(Raw(u"%I", &negative), "-0T01:02:03.040");
  // Random intervals: the raw form read back gives the same total.
  std::mt19937_64 rng(23);
  for (int round = 0; round < 2000; ++round) {
    int64_t total = static_cast<int64_t>(rng() % 20000000000ULL) - 10000000000LL;
    TInterval iv = TInterval::FromMilliseconds(total);
    std::string raw = Raw(u"%I", &iv);
    long long days = 0;
    int h = 0, m = 0, s = 0, ms = 0;
    bool minus = raw[0] == '-';
    ASSERT_EQ(std::sscanf(raw.c_str() + (minus ? 1 : 0), "%lldT%d:%d:%d.%d", &days, &h, &m, &s, &ms), 5) << raw;
    int64_t back = (((days * 24 + h) * 60 + m) * 60 + s) * 1000 + ms;
    ASSERT_EQ(minus ? -back : back, total) << raw;
  }
}

}  // namespace
