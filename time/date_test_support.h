// Test support for the date classes: random dates and the C++ standard
// library's civil calendar as the oracle.
#ifndef PLINTH_TIME_DATE_TEST_SUPPORT_H_
#define PLINTH_TIME_DATE_TEST_SUPPORT_H_

#include <chrono>
#include <cstdint>
#include <random>

#include "time/tdate.h"

namespace date_test {

namespace chr = std::chrono;

inline chr::year_month_day Ymd(int y, int m, int d) {
  return chr::year_month_day(chr::year(y), chr::month(static_cast<unsigned>(m)), chr::day(static_cast<unsigned>(d)));
}

inline int OracleMonthLength(int y, int m) {
  return static_cast<int>(static_cast<unsigned>((chr::year(y) / chr::month(static_cast<unsigned>(m)) / chr::last).day()));
}

// Milliseconds since 0001-01-01 00:00:00.000 by the standard library.
inline int64_t OracleLinearMs(int y, int m, int d, int h, int mi, int s, int ms) {
  chr::sys_days origin(Ymd(1, 1, 1));
  chr::sys_days day(Ymd(y, m, d));
  return (day - origin).count() * 86400000LL + h * 3600000LL + mi * 60000LL + s * 1000LL + ms;
}

inline int64_t OracleLinearMs(const TDate& t) {
  return OracleLinearMs(t.GetYear(), t.GetMonth(), t.GetDay(), t.GetHour(), t.GetMinute(), t.GetSecond(),
                        t.GetMillisecond());
}

// The date at a linear time, by the standard library.
inline TDate OracleDateAt(int64_t linear) {
  chr::sys_days origin(Ymd(1, 1, 1));
  int64_t days = linear / 86400000LL;
  int64_t rest = linear % 86400000LL;
  chr::year_month_day ymd(origin + chr::days(days));
  return TDate(static_cast<unsigned short>(static_cast<int>(ymd.year())),
               static_cast<unsigned short>(static_cast<unsigned>(ymd.month())),
               static_cast<unsigned short>(static_cast<unsigned>(ymd.day())),
               static_cast<unsigned short>(rest / 3600000), static_cast<unsigned short>(rest / 60000 % 60),
               static_cast<unsigned short>(rest / 1000 % 60), static_cast<unsigned short>(rest % 1000));
}

inline int64_t MaxLinearMs() { return OracleLinearMs(4000, 12, 31, 23, 59, 59, 999); }

// A valid date with every field random, years `lowYear`..`highYear`.
inline TDate RandomDate(std::mt19937_64& rng, int lowYear = 1, int highYear = 4000) {
  int y = std::uniform_int_distribution<int>(lowYear, highYear)(rng);
  int m = std::uniform_int_distribution<int>(1, 12)(rng);
  // Month ends and the 29th of February come up often on purpose.
  int last = OracleMonthLength(y, m);
  int d = (rng() % 4 == 0) ? last : std::uniform_int_distribution<int>(1, last)(rng);
  return TDate(static_cast<unsigned short>(y), static_cast<unsigned short>(m), static_cast<unsigned short>(d),
               static_cast<unsigned short>(rng() % 24), static_cast<unsigned short>(rng() % 60),
               static_cast<unsigned short>(rng() % 60), static_cast<unsigned short>(rng() % 1000));
}

inline bool SameFields(const TDate& a, const TDate& b) {
  return a.GetYear() == b.GetYear() && a.GetMonth() == b.GetMonth() && a.GetDay() == b.GetDay() &&
         a.GetHour() == b.GetHour() && a.GetMinute() == b.GetMinute() && a.GetSecond() == b.GetSecond() &&
         a.GetMillisecond() == b.GetMillisecond();
}

}  // namespace date_test

#endif  // PLINTH_TIME_DATE_TEST_SUPPORT_H_
