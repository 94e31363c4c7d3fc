#include "time/calendar.h"

namespace calendar {

namespace {

constexpr int kCumulative[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

}  // namespace

int DaysBeforeMonth(int year, int month) {
  if (month < 1 || month > 12) return 0;
  return kCumulative[IsLeapYear(year) ? 1 : 0][month - 1];
}

int DaysInMonth(int year, int month) {
  if (month < 1 || month > 12) return 0;
  const int* table = kCumulative[IsLeapYear(year) ? 1 : 0];
  return table[month] - table[month - 1];
}

void CivilFromDayNumber(int dayNumber, int* year, int* month, int* day) {
  // 146097 days make 400 years; the estimate is off by at most one year.
  int y = static_cast<int>(static_cast<int64_t>(dayNumber - 1) * 400 / 146097) + 1;
  if (y > kMaxYear) y = kMaxYear;
  while (y < kMaxYear && DaysBeforeYear(y + 1) < dayNumber) ++y;
  while (y > kMinYear && DaysBeforeYear(y) >= dayNumber) --y;
  int dayOfYear = dayNumber - DaysBeforeYear(y);  // 1-based
  const int* table = kCumulative[IsLeapYear(y) ? 1 : 0];
  int m = (dayOfYear - 1) / 31 + 1;  // never past the true month
  while (m < 12 && table[m] < dayOfYear) ++m;
  *year = y;
  *month = m;
  *day = dayOfYear - table[m - 1];
}

}  // namespace calendar
