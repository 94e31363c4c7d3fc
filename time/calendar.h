// Proleptic Gregorian calendar arithmetic shared by the date classes.
//
// Day numbers count from 1 for 1 January of year 1 (a Monday) and cover the
// years 1..4000. A "linear" time is milliseconds since 1 January of year 1,
// 00:00:00.000: the form every exact addition and comparison goes through.
#ifndef PLINTH_TIME_CALENDAR_H_
#define PLINTH_TIME_CALENDAR_H_

#include <cstdint>

namespace calendar {

constexpr int kMinYear = 1;
constexpr int kMaxYear = 4000;
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kMsPerMinute = 60 * kMsPerSecond;
constexpr int64_t kMsPerHour = 60 * kMsPerMinute;
constexpr int64_t kMsPerDay = 24 * kMsPerHour;

constexpr bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// Days of the years before `year`; 0 for a year outside 1..4000.
constexpr int DaysBeforeYear(int year) {
  if (year < kMinYear || year > kMaxYear) return 0;
  int y = year - 1;
  return y * 365 + y / 4 - y / 100 + y / 400;
}

// Days of the months before `month` (1..12) in `year`; 0 for a month outside.
int DaysBeforeMonth(int year, int month);
// Length of `month` (1..12) in `year`; 0 for a month outside.
int DaysInMonth(int year, int month);

// The day number of a date whose fields lie in range.
inline int DayNumber(int year, int month, int day) { return DaysBeforeYear(year) + DaysBeforeMonth(year, month) + day; }

// Inverse of DayNumber for 1..DayNumber(4000, 12, 31).
void CivilFromDayNumber(int dayNumber, int* year, int* month, int* day);

// 0 = Sunday .. 6 = Saturday.
inline int DayOfWeek(int dayNumber) { return dayNumber % 7; }

constexpr int kMaxDayNumber = DaysBeforeYear(kMaxYear) + 366;  // 31 December 4000 (a leap year)
constexpr int64_t kMaxLinearMs = static_cast<int64_t>(kMaxDayNumber) * kMsPerDay - 1;

// Day number of the Unix epoch (1970-01-01) and of the file-time epoch
// (1601-01-01).
constexpr int kUnixEpochDay = DaysBeforeYear(1970) + 1;
constexpr int kFileTimeEpochDay = DaysBeforeYear(1601) + 1;

}  // namespace calendar

#endif  // PLINTH_TIME_CALENDAR_H_
