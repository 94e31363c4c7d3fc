#include "time/tdate.h"

#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"
#include "time/date_test_support.h"

namespace {

using namespace date_test;

TDate Date(int y, int m, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
  return TDate(static_cast<unsigned short>(y), static_cast<unsigned short>(m), static_cast<unsigned short>(d),
               static_cast<unsigned short>(h), static_cast<unsigned short>(mi), static_cast<unsigned short>(s),
               static_cast<unsigned short>(ms));
}

TDate WithOffset(TDate t, short offset) {
  t.SetGMTOffset(offset);
  return t;
}

// The calendar step by the standard library: months and years through
// year_month, the rest as exact time, clamped to the date range.
TDate OracleStep(const TDate& t, const TDateStep& s, int sign) {
  chr::year_month ym = chr::year(t.GetYear()) / chr::month(t.GetMonth());
  ym += chr::months(sign * s.GetMonths());
  int y = static_cast<int>(ym.year()) + sign * s.GetYears();  // beyond what chrono::year holds
  int m = static_cast<int>(static_cast<unsigned>(ym.month()));
  if (y > 4000) return Date(4000, 12, 31, 23, 59, 59, 999);
  int64_t linear = 0;
  if (y < 1) {
    linear = OracleLinearMs(1, m, 1, 0, 0, 0, 0);
  } else {
    int d = std::min<int>(t.GetDay(), OracleMonthLength(y, m));
    linear = OracleLinearMs(y, m, d, t.GetHour(), t.GetMinute(), t.GetSecond(), t.GetMillisecond());
  }
  linear += sign * ((7LL * s.GetWeeks() + s.GetDays()) * 86400000LL + s.GetHours() * 3600000LL +
                    s.GetMinutes() * 60000LL + s.GetSeconds() * 1000LL + s.GetMilliseconds());
  return OracleDateAt(std::clamp<int64_t>(linear, 0, MaxLinearMs()));
}

uint16_t RandomPart(std::mt19937_64& rng) {
  switch (rng() % 4) {
    case 0: return 0;
    case 1: return static_cast<uint16_t>(rng() % 3);
    case 2: return static_cast<uint16_t>(rng() % 40);
    default: return static_cast<uint16_t>(rng());  // up to 65535: exercises the clamps
  }
}

TEST(TDateState, ResetDefaultAndSpecialValues) {
  TDate t;
  EXPECT_TRUE(t.IsDefault());
  EXPECT_TRUE(t.IsMinTDate());
  EXPECT_TRUE(t.IsValid());
  EXPECT_EQ(t.GetGMTOffset(), -1);
  EXPECT_EQ(t.GetFlags(), 0);

  TDate set = Date(2024, 2, 29, 13, 4, 5, 6);
  EXPECT_EQ(set.GetFlags(), TDate::kFlagBrokenDown);
  EXPECT_FALSE(set.IsDefault());
  set.SetTimezone(7);
  set.SetGMTOffset(60);
  set.Reset();
  EXPECT_TRUE(set.IsDefault());
  EXPECT_EQ(set.GetTimezone(), 0);

  // A reset date with any field changed is no longer the default.
  TDate flagged;
  flagged.SetFlags(0x8, 0);
  EXPECT_FALSE(flagged.IsDefault());
  EXPECT_TRUE(flagged.IsMinTDate());
  flagged.SetFlags(0x400, 0x8);
  EXPECT_EQ(flagged.GetFlags(), 0x400);
  EXPECT_TRUE(flagged.IgnoreGMTOffset());

  TDate max;
  max.SetToMax();
  EXPECT_TRUE(max.IsMaxTDate());
  EXPECT_TRUE(max.IsValid());
  EXPECT_FALSE(Date(4000, 12, 31, 23, 59, 59, 998).IsMaxTDate());
}

TEST(TDateState, IsValidChecksFieldRangesButNotMonthLength) {
  EXPECT_TRUE(Date(2023, 2, 31).IsValid());  // not checked against the month, by design
  for (TDate bad : {Date(0, 1, 1), Date(4001, 1, 1), Date(2000, 0, 1), Date(2000, 13, 1), Date(2000, 1, 0),
                    Date(2000, 1, 32), Date(2000, 1, 1, 24), Date(2000, 1, 1, 0, 60), Date(2000, 1, 1, 0, 0, 60),
                    Date(2000, 1, 1, 0, 0, 0, 1000)}) {
    EXPECT_FALSE(bad.IsValid()) << TStringAsString(bad.ToISOString());
  }
}

TEST(TDateState, MagicDateIgnoresDayAndSecond) {
  EXPECT_TRUE(Date(1, 1, 17, 9, 0, 42, 0).IsMagic());
  EXPECT_TRUE(Date(1, 1, 1, 9, 0, 0, 1).IsMagic());
  EXPECT_FALSE(Date(1, 1, 1, 9, 0, 0, 2).IsMagic());
  EXPECT_FALSE(Date(1, 2, 1, 9, 0, 0, 0).IsMagic());
  EXPECT_FALSE(Date(2, 1, 1, 9, 0, 0, 0).IsMagic());
  EXPECT_FALSE(Date(1, 1, 1, 9, 1, 0, 0).IsMagic());
  EXPECT_FALSE(Date(1, 1, 1, 10, 0, 0, 0).IsMagic());
  TDate excluded = Date(1, 1, 5, 9, 0, 30, 0);
  excluded.SetFlags(TDate::kFlagNotMagic, 0);
  EXPECT_FALSE(excluded.IsMagic());
}

TEST(TDateCalendar, DayNumbersWeekdaysAndMonthLengthsMatchStdChrono) {
  std::mt19937_64 rng(11);
  chr::sys_days origin(Ymd(1, 1, 1));
  for (int i = 0; i < 20000; ++i) {
    TDate t = RandomDate(rng);
    chr::sys_days day(Ymd(t.GetYear(), t.GetMonth(), t.GetDay()));
    ASSERT_EQ(t.getTotalDays(), (day - origin).count() + 1) << TStringAsString(t.ToISOString());
    ASSERT_EQ(t.GetDOW(), static_cast<int>(chr::weekday(day).c_encoding()));
    ASSERT_EQ(t.GetMaxDays(), OracleMonthLength(t.GetYear(), t.GetMonth()));
    ASSERT_EQ(t.getTotalMilliseconds(),
              t.GetHour() * 3600000 + t.GetMinute() * 60000 + t.GetSecond() * 1000 + t.GetMillisecond());
  }
  // Every month end of the leap-year edge cases.
  for (int y : {1, 4, 100, 200, 400, 1600, 1900, 2000, 2023, 2024, 2100, 3999, 4000}) {
    for (int m = 1; m <= 12; ++m) {
      TDate t = Date(y, m, 1);
      EXPECT_EQ(t.GetMaxDays(), OracleMonthLength(y, m)) << y << "-" << m;
      TDate end = Date(y, m, OracleMonthLength(y, m));
      EXPECT_EQ(end.getTotalDays(), (chr::sys_days(Ymd(y, m, OracleMonthLength(y, m))) - origin).count() + 1);
    }
  }
  EXPECT_EQ(Date(1, 1, 1).GetDOW(), 1);  // a Monday
  EXPECT_EQ(Date(4000, 12, 31).getTotalDays(), (chr::sys_days(Ymd(4000, 12, 31)) - origin).count() + 1);
  EXPECT_EQ(Date(0, 1, 1).getTotalDays(), 1);  // a year outside the range counts no days
}

TEST(TDateCalendar, MonthWeeksMatchStdChronoIndexedWeekdays) {
  std::mt19937_64 rng(12);
  for (int i = 0; i < 3000; ++i) {
    TDate t = RandomDate(rng);
    chr::year_month ym = chr::year(t.GetYear()) / chr::month(t.GetMonth());
    chr::weekday own = chr::weekday(chr::sys_days(Ymd(t.GetYear(), t.GetMonth(), t.GetDay())));
    // The date is the GetMonthWeek-th of its weekday.
    chr::year_month_weekday indexed(ym / own[static_cast<unsigned>(t.GetMonthWeek())]);
    ASSERT_EQ(static_cast<unsigned>(chr::year_month_day(indexed).day()), t.GetDay());
    int count = 0;
    for (unsigned n = 1; n <= 5; ++n) count += (ym / own[n]).ok() ? 1 : 0;
    ASSERT_EQ(t.GetMaxWeeks(), count);
    for (unsigned wd = 0; wd < 7; ++wd) {
      for (int week = 1; week <= 6; ++week) {
        unsigned day = week <= 4 ? static_cast<unsigned>(chr::year_month_day(ym / chr::weekday(wd)[week]).day())
                                 : static_cast<unsigned>(chr::year_month_day(ym / chr::weekday(wd)[chr::last]).day());
        ASSERT_EQ(t.GetMonthWeekDay(week, static_cast<int>(wd)), static_cast<int>(day));
      }
    }
  }
  TestHost host;
  EXPECT_EQ(Date(2024, 1, 1).GetMonthWeekDay(0, 1), kErrBadParameter);
  EXPECT_EQ(Date(2024, 1, 1).GetMonthWeekDay(1, 7), kErrBadParameter);
  EXPECT_EQ(host.LinesWithFormat("TDate::GetMonthWeekDay: bad week %~d or weekday %~d, %E").size(), 2u);
}

TEST(TDateArithmetic, StepsMatchTheCalendarModel) {
  std::mt19937_64 rng(21);
  for (int i = 0; i < 20000; ++i) {
    TDate t = RandomDate(rng);
    TDateStep s(RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng), RandomPart(rng),
                RandomPart(rng), RandomPart(rng), rng() % 3 == 0 ? RandomPart(rng) : 0);
    int sign = (rng() & 1) ? 1 : -1;
    TDate expect = OracleStep(t, s, sign);
    TDate got = sign > 0 ? t + s : t - s;
    ASSERT_TRUE(SameFields(got, expect))
        << TStringAsString(t.ToISOString()) << (sign > 0 ? " + " : " - ") << s.GetYears() << "y" << s.GetMonths()
        << "m" << s.GetWeeks() << "w" << s.GetDays() << "d " << s.GetHours() << ":" << s.GetMinutes() << ":"
        << s.GetSeconds() << "." << s.GetMilliseconds() << " gave " << TStringAsString(got.ToISOString())
        << " expected " << TStringAsString(expect.ToISOString());
    ASSERT_TRUE(got.IsValid());
    TDate inPlace = t;
    (sign > 0 ? inPlace += s : inPlace -= s);
    ASSERT_TRUE(SameFields(inPlace, got));
  }
}

TEST(TDateArithmetic, CalendarEdgeCases) {
  TDateStep oneMonth(0, 0, 0, 0, 0, 0, 1, 0);
  TDateStep oneYear(0, 0, 0, 0, 0, 0, 0, 1);
  EXPECT_TRUE(SameFields(Date(2023, 1, 31) + oneMonth, Date(2023, 2, 28)));
  EXPECT_TRUE(SameFields(Date(2024, 1, 31) + oneMonth, Date(2024, 2, 29)));
  EXPECT_TRUE(SameFields(Date(2024, 3, 31) - oneMonth, Date(2024, 2, 29)));
  EXPECT_TRUE(SameFields(Date(2024, 2, 29) + oneYear, Date(2025, 2, 28)));
  EXPECT_TRUE(SameFields(Date(2024, 1, 15) - TDateStep(0, 0, 0, 0, 0, 0, 13, 0), Date(2022, 12, 15)));
  EXPECT_TRUE(SameFields(Date(2024, 12, 15) + oneMonth, Date(2025, 1, 15)));

  // Below year 1: day 1 of the computed month at midnight.
  EXPECT_TRUE(SameFields(Date(1, 3, 15, 10, 20, 30, 400) - oneYear, Date(1, 3, 1)));
  EXPECT_TRUE(SameFields(Date(1, 3, 15) - TDateStep(0, 0, 0, 0, 0, 0, 5, 0), Date(1, 10, 1)));

  // Passing 4000 gives the last date, whatever else the step holds.
  TDate max;
  max.SetToMax();
  EXPECT_TRUE(SameFields(Date(4000, 6, 1) + oneYear, max));
  EXPECT_TRUE(SameFields(Date(3999, 12, 31) + TDateStep(0, 0, 0, 0, 0, 0, 13, 0), max));
  EXPECT_TRUE(SameFields(Date(4000, 12, 31, 23, 59, 59) + TDateStep(0, 1, 0, 0, 0, 0, 0, 0), max));
  EXPECT_TRUE(SameFields(Date(4000, 12, 31, 23, 59, 59, 999) + TDateStep(0, 0, 0, 0, 1, 0, 0, 0), max));
  EXPECT_TRUE(SameFields(Date(2000, 1, 1) + TDateStep(0, 0, 0, 0, 0, 0, 0, 2001), max));
  EXPECT_TRUE((Date(1, 1, 1) - TDateStep(0, 0, 0, 0, 1, 0, 0, 0)).IsMinTDate());

  // Exact parts carry through every unit.
  EXPECT_TRUE(SameFields(Date(2023, 12, 31, 23, 59, 59, 999) + TDateStep(1, 0, 0, 0, 0, 0, 0, 0), Date(2024, 1, 1)));
  EXPECT_TRUE(SameFields(Date(2024, 3, 1) - TDateStep(0, 0, 0, 0, 1, 0, 0, 0), Date(2024, 2, 29)));
  EXPECT_TRUE(SameFields(Date(2024, 1, 1) + TDateStep(0, 0, 0, 0, 0, 2, 0, 0), Date(2024, 1, 15)));
}

TEST(TDateArithmetic, IntervalsAndDifferencesMatchLinearTime) {
  std::mt19937_64 rng(22);
  for (int i = 0; i < 20000; ++i) {
    TDate a = RandomDate(rng);
    TDate b = RandomDate(rng, rng() % 2 ? 1 : std::max(1, a.GetYear() - 2), rng() % 2 ? 4000 : a.GetYear() + 2 > 4000 ? 4000 : a.GetYear() + 2);
    TInterval diff = a - b;
    int64_t expect = OracleLinearMs(a) - OracleLinearMs(b);
    ASSERT_EQ(diff.TotalMilliseconds(), expect);
    ASSERT_TRUE(SameFields(b + diff, a));
    ASSERT_TRUE(SameFields(a - diff, b));
    TInterval step(static_cast<int>(rng() % 2000000) - 1000000, static_cast<int>(rng() % 100) - 50,
                   static_cast<int>(rng() % 100) - 50, static_cast<int>(rng() % 100) - 50,
                   static_cast<int>(rng() % 3000) - 1500);
    TDate moved = a;
    moved += step;
    ASSERT_TRUE(SameFields(moved, OracleDateAt(std::clamp<int64_t>(OracleLinearMs(a) + step.TotalMilliseconds(), 0,
                                                                    MaxLinearMs()))));
    moved = a;
    moved -= step;
    ASSERT_TRUE(SameFields(moved, OracleDateAt(std::clamp<int64_t>(OracleLinearMs(a) - step.TotalMilliseconds(), 0,
                                                                    MaxLinearMs()))));
  }
}

TEST(TDateCompare, OrderingFollowsAbsoluteTime) {
  std::mt19937_64 rng(31);
  for (int i = 0; i < 20000; ++i) {
    TDate a = RandomDate(rng, 1990, 1992);
    TDate b = rng() % 4 == 0 ? a : RandomDate(rng, 1990, 1992);
    short oa = static_cast<short>(rng() % 3 == 0 ? -1 : static_cast<int>(rng() % 1681) - 840);
    short ob = static_cast<short>(rng() % 3 == 0 ? -1 : static_cast<int>(rng() % 1681) - 840);
    a.SetGMTOffset(oa);
    b.SetGMTOffset(ob);
    int64_t ua = OracleLinearMs(a) - (oa == -1 ? 0 : oa * 60000LL);
    int64_t ub = OracleLinearMs(b) - (ob == -1 ? 0 : ob * 60000LL);
    ASSERT_EQ(a < b, ua < ub);
    ASSERT_EQ(a <= b, ua <= ub);
    ASSERT_EQ(a > b, ua > ub);
    ASSERT_EQ(a >= b, ua >= ub);
    ASSERT_EQ(a == b, ua == ub || SameFields(a, b));
    ASSERT_EQ(a != b, !(a == b));
    ASSERT_EQ((a - b).TotalMilliseconds(), ua - ub);
  }
}

TEST(TDateCompare, FloatingDatesAndOffsets) {
  TDate berlin = WithOffset(Date(2024, 1, 1, 12, 0, 0), 60);
  TDate london = WithOffset(Date(2024, 1, 1, 11, 0, 0), 0);
  TDate unknown = Date(2024, 1, 1, 11, 30, 0);
  EXPECT_TRUE(berlin == london);
  EXPECT_FALSE(berlin < london);
  EXPECT_TRUE(london < unknown);  // an unknown offset is taken as it stands
  // 0x400 on either side: the fields are compared as they stand.
  TDate floating = berlin;
  floating.SetFlags(TDate::kFlagIgnoreGMTOffset, 0);
  EXPECT_TRUE(london < floating);
  EXPECT_TRUE(unknown < floating);
  EXPECT_EQ((floating - london).TotalMilliseconds(), 3600000);
  EXPECT_TRUE(floating == london);  // equality always tries absolute time

  TDate abs = berlin;
  abs.FloatingToAbs();
  EXPECT_TRUE(SameFields(abs, Date(2024, 1, 1, 11, 0, 0)));
  EXPECT_EQ(abs.GetGMTOffset(), 0);
  abs.AbsToFloating(-300);
  EXPECT_TRUE(SameFields(abs, Date(2024, 1, 1, 6, 0, 0)));
  EXPECT_EQ(abs.GetGMTOffset(), -300);
  abs.AbsToFloating(-1);
  EXPECT_EQ(abs.GetGMTOffset(), -300);
  TDate still = unknown;
  still.FloatingToAbs();
  EXPECT_TRUE(SameFields(still, unknown));
  EXPECT_EQ(still.GetGMTOffset(), -1);
  // Clamped at the ends of the range.
  TDate early = WithOffset(Date(1, 1, 1, 0, 30), 60);
  early.FloatingToAbs();
  EXPECT_TRUE(early.IsMinTDate());
}

TEST(TDateArithmetic, MakeEven) {
  const std::pair<TDate, TDate> cases[] = {
      {Date(2024, 5, 6, 10, 0, 58), Date(2024, 5, 6, 10, 0, 58)},
      {Date(2024, 5, 6, 10, 0, 57, 300), Date(2024, 5, 6, 10, 0, 58, 300)},
      {Date(2024, 5, 6, 10, 0, 59), Date(2024, 5, 6, 10, 1, 0)},
      {Date(2023, 12, 31, 23, 59, 59), Date(2024, 1, 1)}};
  for (auto [t, want] : cases) {
    t.MakeEven();
    EXPECT_TRUE(SameFields(t, want)) << TStringAsString(want.ToISOString());
  }
  TDate t;
  t.SetToMax();
  t.MakeEven();
  EXPECT_TRUE(t.IsMaxTDate());
}

TEST(TDateSystem, FileTimesAgainstKnownValues) {
  EXPECT_EQ(Date(1970, 1, 1).ToFileTime(), 116444736000000000ULL);
  EXPECT_EQ(Date(1601, 1, 1).ToFileTime(), 0ULL);
  EXPECT_EQ(Date(1601, 1, 1, 0, 0, 0, 1).ToFileTime(), 10000ULL);
  EXPECT_EQ(Date(2000, 1, 1).ToFileTime(), 125911584000000000ULL);
  EXPECT_EQ(Date(1, 6, 1).ToFileTime(), 0ULL);
  EXPECT_EQ(Date(1500, 6, 1).ToFileTime(), 0ULL);
  EXPECT_EQ(WithOffset(Date(1970, 1, 1, 1, 0, 0), 60).ToFileTime(), 116444736000000000ULL);

  TDate t(static_cast<uint64_t>(116444736000000000ULL + 12345678));  // 1.2345678 s after the epoch
  EXPECT_TRUE(SameFields(t, Date(1970, 1, 1, 0, 0, 1, 234)));
  EXPECT_EQ(t.GetGMTOffset(), 0);
  FileTimeSpec record;
  Date(2000, 1, 1).ToFileTime(&record);
  EXPECT_EQ((static_cast<uint64_t>(record.highDateTime) << 32) | record.lowDateTime, 125911584000000000ULL);
  EXPECT_TRUE(SameFields(TDate(record), Date(2000, 1, 1)));

  TDate reset = Date(2020, 2, 2);
  uint64_t zero = 0;
  EXPECT_EQ(reset.FromFileTime(&zero), 0);
  EXPECT_TRUE(reset.IsDefault());
  reset = Date(2020, 2, 2);
  EXPECT_EQ(reset.FromFileTime(static_cast<const uint64_t*>(nullptr)), 0);
  EXPECT_TRUE(reset.IsDefault());

  TestHost host;
  uint64_t huge = ~0ULL;
  TDate keep = Date(2020, 2, 2);
  EXPECT_EQ(keep.FromFileTime(&huge), kErrBadParameter);
  EXPECT_TRUE(SameFields(keep, Date(2020, 2, 2)));
  EXPECT_EQ(host.LinesWithFormat("TDate::FromFileTime: file time %~ld is past the year 4000, %E").size(), 1u);

  std::mt19937_64 rng(41);
  for (int i = 0; i < 5000; ++i) {
    TDate d = RandomDate(rng, 1601, 4000);
    uint64_t ticks = d.ToFileTime();
    ASSERT_EQ(ticks, static_cast<uint64_t>(OracleLinearMs(d) - OracleLinearMs(1601, 1, 1, 0, 0, 0, 0)) * 10000);
    TDate back;
    ASSERT_EQ(back.FromFileTime(&ticks), 0);
    ASSERT_TRUE(SameFields(back, d));
  }
  TDate last;
  last.SetToMax();
  uint64_t lastTicks = last.ToFileTime() + 9999;  // the rest of the last millisecond
  EXPECT_EQ(TDate(lastTicks).IsMaxTDate(), true);
}

TEST(TDateSystem, UnixTimesAgainstGlibc) {
  EXPECT_EQ(Date(1970, 1, 1).ToUnixTime(), 0);
  EXPECT_EQ(Date(1969, 12, 31, 23, 59, 59, 500).ToUnixTime(), -1);  // floored
  EXPECT_EQ(Date(2038, 1, 19, 3, 14, 8).ToUnixTime(), 2147483648LL);
  std::mt19937_64 rng(42);
  for (int i = 0; i < 5000; ++i) {
    TDate d = RandomDate(rng);
    int64_t secs = d.ToUnixTime();
    // glibc's timegm as the independent reference.
    struct tm tm = {};
    tm.tm_year = d.GetYear() - 1900;
    tm.tm_mon = d.GetMonth() - 1;
    tm.tm_mday = d.GetDay();
    tm.tm_hour = d.GetHour();
    tm.tm_min = d.GetMinute();
    tm.tm_sec = d.GetSecond();
    ASSERT_EQ(secs, static_cast<int64_t>(timegm(&tm)));
    TDate back(UnixTimeSpec{secs, d.GetMillisecond()});
    ASSERT_TRUE(SameFields(back, d));
    ASSERT_EQ(back.GetGMTOffset(), 0);
  }
  TestHost host;
  TDate keep = Date(2020, 2, 2);
  EXPECT_EQ(keep.FromUnixTime(-62135596801LL), kErrBadParameter);  // a second before year 1
  EXPECT_EQ(keep.FromUnixTime(64092211200LL), kErrBadParameter);  // 4001-01-01
  EXPECT_EQ(keep.FromUnixTime(0, 1000), kErrBadParameter);
  EXPECT_EQ(keep.FromUnixTime(INT64_MIN), kErrBadParameter);
  EXPECT_TRUE(SameFields(keep, Date(2020, 2, 2)));
  EXPECT_EQ(host.LinesWithFormat("TDate::FromUnixTime: %~ld.%~d seconds is outside the years 1 to 4000, %E").size(),
            4u);
  EXPECT_EQ(keep.FromUnixTime(-62135596800LL), 0);
  EXPECT_TRUE(keep.IsMinTDate());
}

TEST(TDateSystem, SystemTimeRecords) {
  TDate t = WithOffset(Date(2024, 2, 29, 0, 30, 15, 250), 120);
  SystemTimeSpec st;
  t.ToSystemTime(&st);
  // GMT is two hours earlier: Wednesday the 28th.
  EXPECT_EQ((std::vector<int>{st.year, st.month, st.day, st.hour, st.minute, st.second, st.milliseconds,
                              st.dayOfWeek}),
            (std::vector<int>{2024, 2, 28, 22, 30, 15, 250, 3}));
  TDate back(st);
  EXPECT_TRUE(back == t);
  EXPECT_EQ(back.GetGMTOffset(), 0);

  TestHost host;
  TDate keep = Date(2020, 2, 2);
  SystemTimeSpec bad = st;
  bad.day = 30;
  EXPECT_EQ(keep.FromSystemTime(bad), kErrBadParameter);
  bad = st;
  bad.milliseconds = 1000;
  EXPECT_EQ(keep.FromSystemTime(bad), kErrBadParameter);
  EXPECT_TRUE(SameFields(keep, Date(2020, 2, 2)));
  EXPECT_EQ(host.LinesWithFormat("TDate::FromSystemTime: bad time %~d-%~d-%~d %~d:%~d:%~d.%~d, %E").size(), 2u);
}

TEST(TDateSystem, CurrentDateIsLocalTimeWithItsOffset) {
  TDate now;
  now.SetToCurrentDate();
  int64_t system = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch()).count();
  EXPECT_LE(std::llabs(now.ToUnixTime() - system), 5);
  // The offset by glibc: local broken-down time read back as if it were GMT.
  time_t t = static_cast<time_t>(now.ToUnixTime());
  struct tm local;
  ASSERT_NE(localtime_r(&t, &local), nullptr);
  EXPECT_EQ(now.GetGMTOffset(), (timegm(&local) - t) / 60);
  EXPECT_EQ(now.GetHour(), local.tm_hour);
  EXPECT_TRUE(now.IsValid());
}

TEST(TDateStore, RoundTripsAndLayout) {
  std::mt19937_64 rng(51);
  for (int i = 0; i < 2000; ++i) {
    TDate d = RandomDate(rng);
    d.SetFlags(static_cast<unsigned short>(rng()), 0xFFFF);
    d.SetTimezone(static_cast<short>(rng()));
    d.SetGMTOffset(static_cast<short>(rng()));
    uint8_t buffer[TDate::kStoreSize];
    ASSERT_EQ(d.Export(buffer, d.StoreSize()), 0);
    TDate back;
    ASSERT_EQ(back.Import(buffer, sizeof buffer), 0);
    ASSERT_TRUE(SameFields(back, d));
    ASSERT_EQ(back.GetFlags(), d.GetFlags());
    ASSERT_EQ(back.GetTimezone(), d.GetTimezone());
    ASSERT_EQ(back.GetGMTOffset(), d.GetGMTOffset());
  }
  TDate d = WithOffset(Date(2024, 2, 29, 13, 4, 5, 678), -330);
  d.SetTimezone(0x1234);
  uint8_t bytes[TDate::kStoreSize];
  ASSERT_EQ(d.Export(bytes, sizeof bytes), 0);
  const uint8_t expect[] = {'D', 1, 0x01, 0x00, 0xE8, 0x07, 2, 29, 0xA6, 0x02, 5, 4, 13, 0, 0x34, 0x12, 0xB6, 0xFE};
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + sizeof bytes), std::vector<uint8_t>(expect, expect + sizeof expect));

  // Content only: the instant comes over, flags and zone stay.
  TDate target;
  target.SetFlags(0x400, 0);
  target.SetTimezone(9);
  ASSERT_EQ(target.ImportContentOnly(bytes, sizeof bytes), 0);
  EXPECT_TRUE(SameFields(target, d));
  EXPECT_EQ(target.GetGMTOffset(), -330);
  EXPECT_EQ(target.GetFlags(), 0x400);
  EXPECT_EQ(target.GetTimezone(), 9);
}

TEST(TDateStore, RefusesShortAndMalformedBuffers) {
  TestHost host;
  TDate d = Date(2024, 2, 29, 13, 4, 5, 678);
  uint8_t bytes[TDate::kStoreSize];
  ASSERT_EQ(d.Export(bytes, sizeof bytes), 0);
  TDate keep = Date(1999, 9, 9);
  for (int size = 0; size < TDate::kStoreSize; ++size) {
    // A buffer of exactly `size` bytes, so ASan sees any read past it.
    std::vector<uint8_t> cut(bytes, bytes + size);
    EXPECT_EQ(keep.Import(cut.data(), size), kErrInvalidData);
    EXPECT_EQ(keep.ImportContentOnly(cut.data(), size), kErrInvalidData);
    EXPECT_EQ(d.Export(cut.data(), size), kErrBufferTooSmall);
  }
  EXPECT_EQ(keep.Import(nullptr, 100), kErrInvalidData);
  EXPECT_EQ(keep.Import(bytes, -5), kErrInvalidData);
  // {byte, value}: marker, version, month 13, millisecond 4262.
  for (auto [at, value] : {std::pair{0, 'X'}, {1, 2}, {6, 13}, {9, 0x10}}) {
    uint8_t bad[TDate::kStoreSize];
    std::copy(bytes, bytes + sizeof bytes, bad);
    bad[at] = static_cast<uint8_t>(value);
    EXPECT_EQ(keep.Import(bad, sizeof bad), kErrInvalidData) << at;
    if (at == 6) {
      EXPECT_EQ(keep.ImportContentOnly(bad, sizeof bad), kErrInvalidData);
    }
  }
  EXPECT_TRUE(SameFields(keep, Date(1999, 9, 9)));
  EXPECT_EQ(keep.GetFlags(), TDate::kFlagBrokenDown);
  EXPECT_EQ(host.LinesWithFormat("TDate::Import: %~d bytes, %~d needed, %E").size(), 20u);
  EXPECT_EQ(host.LinesWithFormat("TDate::Import: bad marker %~d or version %~d, %E").size(), 2u);
  EXPECT_EQ(host.LinesWithFormat("TDate::Import: stored fields out of range (%~d-%~d-%~d %~d:%~d:%~d.%~d), %E").size(),
            2u);
  EXPECT_EQ(host.LinesWithFormat("TDate::Export: buffer of %~d bytes, %~d needed, %E").size(), 18u);

  // Random bytes: either refused, or a valid date.
  std::mt19937_64 rng(52);
  for (int i = 0; i < 5000; ++i) {
    uint8_t noise[TDate::kStoreSize];
    for (uint8_t& b : noise) b = static_cast<uint8_t>(rng());
    noise[0] = 'D';
    noise[1] = 1;
    TDate t;
    if (t.Import(noise, sizeof noise) == 0) {
      ASSERT_TRUE(t.IsValid());
    }
  }
}

}  // namespace

namespace {

// The FAT words are checked against a packing written from the field layout,
// with std::chrono telling which days exist.
TEST(TDateOsForms, DosDateTimeWordsRoundTripAndRefuseNonDates) {
  TDate leap(static_cast<short>((44 << 9) | (2 << 5) | 29), static_cast<short>((12 << 11) | (34 << 5) | 28));
  EXPECT_TRUE(SameFields(leap, TDate(2024, 2, 29, 12, 34, 56, 0)));
  EXPECT_EQ(leap.GetGMTOffset(), TDate::kUnknownGMTOffset);

  std::mt19937 rng(5);
  for (int i = 0; i < 20000; ++i) {
    unsigned short date = static_cast<unsigned short>(rng());
    unsigned short time = static_cast<unsigned short>(rng());
    unsigned int y = 1980 + (date >> 9), mo = (date >> 5) & 15, d = date & 31;
    unsigned int h = time >> 11, mi = (time >> 5) & 63, s2 = time & 31;
    std::chrono::year_month_day ymd{std::chrono::year(static_cast<int>(y)), std::chrono::month(mo),
                                    std::chrono::day(d)};
    bool real = ymd.ok() && h <= 23 && mi <= 59 && s2 <= 29;
    TestHost host;
    TDate parsed;
    parsed.SetToMax();
    int rc = parsed.FromDosDateTime(date, time);
    if (!real) {
      EXPECT_EQ(rc, kErrBadParameter) << date << " " << time;
      EXPECT_TRUE(parsed.IsMaxTDate());
      EXPECT_EQ(host.Lines().size(), 1u);
      continue;
    }
    ASSERT_EQ(rc, 0) << date << " " << time;
    unsigned short backDate = 0, backTime = 0;
    ASSERT_EQ(parsed.ToDosDateTime(&backDate, &backTime), 0);
    EXPECT_EQ(backDate, date);
    EXPECT_EQ(backTime, time);
  }
  unsigned short dd = 0, dt = 0;
  EXPECT_EQ(TDate(1979, 12, 31, 23, 59, 59, 0).ToDosDateTime(&dd, &dt), kErrBadParameter);
  EXPECT_EQ(TDate(2108, 1, 1, 0, 0, 0, 0).ToDosDateTime(&dd, &dt), kErrBadParameter);
  TDate odd(2000, 1, 1, 0, 0, 59, 0);
  ASSERT_EQ(odd.ToDosDateTime(&dd, &dt), 0);
  EXPECT_EQ(dt & 31, 29);  // halved, rounded down
}

}  // namespace
