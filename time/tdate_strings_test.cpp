#include <gtest/gtest.h>
#include <time.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"
#include "time/date_test_support.h"
#include "time/tdate.h"

namespace {

using namespace date_test;

const char kISOReadFail[] = "TDate::FromISOString: cannot read \"%s\" as a date, %E";
const char kRFCReadFail[] = "TDate::FromRFCString: cannot read \"%s\" as a date, %E";

TDate Date(int y, int m, int d, int h = 0, int mi = 0, int s = 0, int ms = 0, short offset = -1) {
  TDate t(static_cast<unsigned short>(y), static_cast<unsigned short>(m), static_cast<unsigned short>(d),
          static_cast<unsigned short>(h), static_cast<unsigned short>(mi), static_cast<unsigned short>(s),
          static_cast<unsigned short>(ms));
  t.SetGMTOffset(offset);
  return t;
}

std::string Iso(const TDate& t) { return TStringAsString(t.ToISOString()); }

TString Wide(const std::string& s) { return TStringFromUTF8(s); }

short RandomOffset(std::mt19937_64& rng) {
  short offset = -1;
  while (offset == -1) offset = static_cast<short>(static_cast<int>(rng() % (2 * 1439 + 1)) - 1439);
  return offset;
}

// glibc's snprintf with the documented format, as the oracle of ToISOString.
std::string SnprintfIso(const TDate& t) {
  int offset = t.IsDefault() ? 0 : t.GetGMTOffset();
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%02d%c%02d%02d", t.GetYear(), t.GetMonth(),
                t.GetDay(), t.GetHour(), t.GetMinute(), t.GetSecond(), t.GetMillisecond(), offset < 0 ? '-' : '+',
                std::abs(offset) / 60, std::abs(offset) % 60);
  return text;
}

TEST(TDateText, ISOStringHandExamples) {
  EXPECT_EQ(Iso(Date(2024, 2, 29, 13, 5, 9, 5, 90)), "2024-02-29T13:05:09.05+0130");
  EXPECT_EQ(Iso(Date(2024, 2, 29, 13, 5, 9, 123, -300)), "2024-02-29T13:05:09.123-0500");
  EXPECT_EQ(Iso(Date(1, 1, 1, 0, 0, 0, 0, 0)), "0001-01-01T00:00:00.00+0000");
  EXPECT_EQ(Iso(Date(4000, 12, 31, 23, 59, 59, 999, -1)), "4000-12-31T23:59:59.999-0001");
  EXPECT_EQ(Iso(TDate()), "0000-00-00T00:00:00.00+0000");
  TDate zeroed = Date(2024, 7, 1, 8, 0, 0, 0, 120);
  zeroed.SetFlags(TDate::kFlagZeroOffsetInISO, 0);
  EXPECT_EQ(Iso(zeroed), "2024-07-01T08:00:00.00+0000");
  TString reused(u"something longer than the text that will replace it");
  Date(99, 3, 4, 5, 6, 7, 80, 15).ToISOString(&reused);
  EXPECT_EQ(TStringAsString(reused), "0099-03-04T05:06:07.80+0015");
}

TEST(TDateText, ISOStringsMatchSnprintfAndRoundTrip) {
  std::mt19937_64 rng(61);
  for (int i = 0; i < 20000; ++i) {
    TDate t = RandomDate(rng);
    t.SetGMTOffset(RandomOffset(rng));
    TString text = t.ToISOString();
    ASSERT_EQ(TStringAsString(text), SnprintfIso(t));
    TDate back;
    ASSERT_EQ(back.FromISOString(text), 0) << TStringAsString(text);
    ASSERT_TRUE(SameFields(back, t)) << TStringAsString(text) << " read as " << Iso(back);
    ASSERT_EQ(back.GetGMTOffset(), t.GetGMTOffset());
  }
  TDate reset = Date(2020, 1, 1);
  ASSERT_EQ(reset.FromISOString(TDate().ToISOString()), 0);
  EXPECT_TRUE(reset.IsDefault());
}

TEST(TDateText, ShortAndRFCFormsMatchGlibc) {
  std::mt19937_64 rng(62);
  for (int i = 0; i < 5000; ++i) {
    TDate t = RandomDate(rng, 2, 3999);
    t.SetGMTOffset(rng() % 4 == 0 ? -1 : RandomOffset(rng));
    // glibc breaks the absolute time down.
    time_t secs = static_cast<time_t>(t.ToUnixTime());
    struct tm gmt;
    ASSERT_NE(gmtime_r(&secs, &gmt), nullptr);
    char expect[96];
    std::snprintf(expect, sizeof expect, "%04d%02d%02dT%02d%02d%02dZ", gmt.tm_year + 1900, gmt.tm_mon + 1,
                  gmt.tm_mday, gmt.tm_hour, gmt.tm_min, gmt.tm_sec);
    ASSERT_EQ(TStringAsString(t.ToShortISOString()), expect);
    std::snprintf(expect, sizeof expect, "%04d-%02d-%02dT%02d:%02d:%02dZ", gmt.tm_year + 1900, gmt.tm_mon + 1,
                  gmt.tm_mday, gmt.tm_hour, gmt.tm_min, gmt.tm_sec);
    ASSERT_EQ(TStringAsString(t.ToShortDelimitedISOString()), expect);
    // strftime in the C locale gives the English names (its %Y would not pad).
    char names[16];
    ASSERT_GT(strftime(names, sizeof names, "%a, %d %b", &gmt), 0u);
    std::snprintf(expect, sizeof expect, "%s %04d %02d:%02d:%02d GMT", names, gmt.tm_year + 1900, gmt.tm_hour,
                  gmt.tm_min, gmt.tm_sec);
    ASSERT_EQ(TStringAsString(t.ToRFCString()), expect);

    // Every form reads back as the same instant.
    TDate back;
    ASSERT_EQ(back.FromRFCString(t.ToRFCString()), 0) << expect;
    ASSERT_EQ(back.ToUnixTime(), t.ToUnixTime());
    ASSERT_EQ(back.GetGMTOffset(), 0);
    ASSERT_EQ(back.FromISOString(t.ToShortISOString()), 0);
    ASSERT_EQ(back.ToUnixTime(), t.ToUnixTime());
    ASSERT_EQ(back.FromISOString(t.ToShortDelimitedISOString()), 0);
    ASSERT_EQ(back.ToUnixTime(), t.ToUnixTime());
  }
  TDate zeroed = Date(2024, 7, 1, 8, 0, 0, 0, 120);
  zeroed.SetFlags(TDate::kFlagZeroOffsetInISO, 0);
  EXPECT_EQ(TStringAsString(zeroed.ToShortISOString()), "20240701T080000Z");
  EXPECT_EQ(TStringAsString(TDate().ToShortDelimitedISOString()), "0000-00-00T00:00:00Z");
  EXPECT_EQ(TStringAsString(Date(1, 1, 1).ToRFCString()), "Mon, 01 Jan 0001 00:00:00 GMT");
}

TEST(TDateText, ReaderTolerance) {
  struct Case {
    const char* text;
    TDate expect;
  };
  const Case cases[] = {
      {"2024-01-31", Date(2024, 1, 31)},
      {"  2024-1-5T7:08:09  ", Date(2024, 1, 5, 7, 8, 9)},
      {"2024-01-31t12:30", Date(2024, 1, 31, 12, 30)},
      {"2024-01-31 12:30:15Z", Date(2024, 1, 31, 12, 30, 15, 0, 0)},
      {"20240131T123015", Date(2024, 1, 31, 12, 30, 15)},
      {"20240131T1230+01", Date(2024, 1, 31, 12, 30, 0, 0, 60)},
      {"2024-01-31T12:30:15.5", Date(2024, 1, 31, 12, 30, 15, 5)},
      {"2024-01-31T12:30:15,050-02:30", Date(2024, 1, 31, 12, 30, 15, 50, -150)},
      {"2024-01-31T12:30:15.123456789Z", Date(2024, 1, 31, 12, 30, 15, 123, 0)},
      {"2024-01-31T12:30:15.05+0100", Date(2024, 1, 31, 12, 30, 15, 5, 60)},
      {"2024-01-31T12:30:15.05+100", Date(2024, 1, 31, 12, 30, 15, 5, 60)},
      {"2024-01-31T12:30:15-0001", Date(2024, 1, 31, 12, 30, 15, 0, -1)},
      {"2024-02-29T23:59:59.999-2359", Date(2024, 2, 29, 23, 59, 59, 999, -1439)},
  };
  for (const Case& c : cases) {
    TDate t;
    t.SetFlags(0x8, 0);
    t.SetTimezone(3);
    ASSERT_EQ(t.FromISOString(Wide(c.text)), 0) << c.text;
    EXPECT_TRUE(SameFields(t, c.expect)) << c.text << " read as " << Iso(t);
    EXPECT_EQ(t.GetGMTOffset(), c.expect.GetGMTOffset()) << c.text;
    EXPECT_EQ(t.GetFlags(), 0x8);
    EXPECT_EQ(t.GetTimezone(), 3);
  }
  const Case rfc[] = {
      {"Thu, 01 Feb 2024 10:20:30 GMT", Date(2024, 2, 1, 10, 20, 30, 0, 0)},
      {"thu, 1 feb 2024 10:20:30 utc", Date(2024, 2, 1, 10, 20, 30, 0, 0)},
      {"Mon,1 Feb 2024 10:20", Date(2024, 2, 1, 10, 20, 0, 0, 0)},  // weekday not checked
      {"1 Feb 2024 10:20:30 +0530", Date(2024, 2, 1, 10, 20, 30, 0, 330)},
      {"  29 FEB 2024 00:00:00 Z ", Date(2024, 2, 29, 0, 0, 0, 0, 0)},
      {"29 Feb 2024 00:00:00 -0800", Date(2024, 2, 29, 0, 0, 0, 0, -480)},
      {"29 Feb 2024 00:00:00 UT", Date(2024, 2, 29, 0, 0, 0, 0, 0)},
  };
  for (const Case& c : rfc) {
    TDate t;
    ASSERT_EQ(t.FromRFCString(Wide(c.text)), 0) << c.text;
    EXPECT_TRUE(SameFields(t, c.expect)) << c.text << " read as " << Iso(t);
    EXPECT_EQ(t.GetGMTOffset(), c.expect.GetGMTOffset()) << c.text;
  }
}

TEST(TDateText, ReadersRefuseBadTextWithOneLogLine) {
  const char* badISO[] = {
      "", " ", "T", "2024", "2024-", "2024-01", "2024-01-", "2024/01/31", "2024-13-01", "2024-00-10", "2023-02-29",
      "2024-02-30", "0000-01-01", "4001-01-01", "99999999999999999999-01-01", "2024-001-01", "2024-01-31T",
      "2024-01-31T24:00:00", "2024-01-31T23:60", "2024-01-31T23:59:60", "2024-01-31T12", "2024-01-31T123",
      "2024-01-31T12:3a", "2024-01-31T12:30:15.", "2024-01-31T12:30:15.1234567890123456789",
      "2024-01-31T12:30.5", "2024-01-31T12:30:15+2400", "2024-01-31T12:30:15+0160", "2024-01-31T12:30:15+12345",
      "2024-01-31T12:30:15+", "2024-01-31T12:30:15ZZ", "2024-01-31x", "2024-01-31T12:30:15 junk", "202401",
      "2024013", "-2024-01-31", "+2024-01-31", "0000-00-00T00:00:01",
  };
  TestHost host;
  for (const char* text : badISO) {
    TDate keep = Date(1999, 9, 9, 9, 9, 9, 9, 99);
    EXPECT_EQ(keep.FromISOString(Wide(text)), kErrBadParameter) << text;
    EXPECT_TRUE(SameFields(keep, Date(1999, 9, 9, 9, 9, 9, 9))) << text;
    EXPECT_EQ(keep.GetGMTOffset(), 99);
  }
  auto lines = host.LinesWithFormat(kISOReadFail);
  ASSERT_EQ(lines.size(), sizeof badISO / sizeof badISO[0]);
  EXPECT_EQ(lines[1].selector, 514u);

  const char* badRFC[] = {
      "", "Thu", "Thu, ", "Xyz, 01 Feb 2024 10:20:30 GMT", "Thu 01 Feb 2024 10:20:30 GMT",
      "Thu, 01 Fev 2024 10:20:30 GMT", "Thu, 30 Feb 2024 10:20:30 GMT", "Thu, 01 Feb 24000 10:20:30 GMT",
      "Thu, 01 Feb 2024 10:20:30 EST", "Thu, 01 Feb 2024 10:20:30 GMTX", "Thu, 01 Feb 2024 10:20:30 +05",
      "Thu, 01 Feb 2024 25:20:30 GMT", "Thu, 01 Feb 2024 10:20:", "Thu, 01 Feb 202410:20:30 GMT",
      "Thu, 001 Feb 2024 10:20:30 GMT", "Thu, 01 Feb 0 10:20:30 GMT", "Thu, 01 Feb 2024 10:20:30 GMT extra",
  };
  for (const char* text : badRFC) {
    TDate keep = Date(1999, 9, 9);
    EXPECT_EQ(keep.FromRFCString(Wide(text)), kErrBadParameter) << text;
    EXPECT_TRUE(SameFields(keep, Date(1999, 9, 9))) << text;
  }
  EXPECT_EQ(host.LinesWithFormat(kRFCReadFail).size(), sizeof badRFC / sizeof badRFC[0]);
}

TEST(TDateText, HostileTextIsRefusedOrReadAsValidDates) {
  std::mt19937_64 rng(63);
  const std::u16string alphabet = u"0123456789-+:.,TtZz GMTMonFebJanSun\u00e9";
  for (int i = 0; i < 30000; ++i) {
    std::u16string text;
    int length = static_cast<int>(rng() % 40);
    for (int k = 0; k < length; ++k) {
      text += rng() % 8 == 0 ? static_cast<char16_t>(rng()) : alphabet[rng() % alphabet.size()];
    }
    // Exactly sized buffers, so ASan catches a read past the text.
    std::vector<char16_t> exact(text.begin(), text.end());
    TString s(exact.data(), static_cast<int>(exact.size()));
    TDate t;
    if (t.FromISOString(s) == 0) {
      ASSERT_TRUE(t.IsValid() || t.IsDefault());
      ASSERT_LE(t.GetDay(), t.GetMaxDays());
    }
    if (t.FromRFCString(s) == 0) {
      ASSERT_TRUE(t.IsValid());
    }
  }
  // Every cut of a full text: accepted cuts are valid dates.
  const std::u16string full = u"2024-02-29T23:59:59.999-0130";
  int accepted = 0;
  for (size_t n = 0; n <= full.size(); ++n) {
    std::vector<char16_t> exact(full.begin(), full.begin() + static_cast<long>(n));
    TDate t;
    if (t.FromISOString(TString(exact.data(), static_cast<int>(n))) == 0) {
      ++accepted;
      ASSERT_TRUE(t.IsValid());
    }
  }
  // Fields of one digit are read as numbers: "2024-02-2", "2024-02-29",
  // "T23:5", "T23:59", "T23:59:5", "T23:59:59", three fractions, then
  // "-0", "-01", "-013" (hhmm) and "-0130".
  EXPECT_EQ(accepted, 13);
}

}  // namespace
