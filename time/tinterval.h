// TInterval, an exact duration: days, hours, minutes, seconds and
// milliseconds, each a signed 32-bit part.
//
// Normal form. Every change leaves the interval normalised: all parts share
// the sign of the total duration, and |hours| < 24, |minutes| < 60,
// |seconds| < 60, |milliseconds| < 1000. So (0, 25, 0, 0, 0) becomes
// 1 day 1 hour, and (1, -1, 0, 0, 0) becomes 23 hours. A total beyond the
// day range of 32 bits saturates at the largest (or smallest) interval.
//
// Ordering is by total duration.
//
// ISO 8601 text. ToISOString writes "P%~dY%~dM%~dDT%~dH%~dM%~dS": the years
// and months are always 0 and all the days stand in D (a duration has no
// calendar to turn days into months), each part with its own sign, e.g.
// "P0Y0M-1DT-2H-3M-4S". Milliseconds, when there are any, are written as a
// three-digit fraction of the seconds ("T0H0M1.250S").
// FromISOString reads "P%dY%dM%dDT%dH%dM%dS" and the standard shorter forms
// in which absent parts are left out ("PT5M", "P3D", "P1DT12H", "PT0.5S"):
// "P", then any of nY nM nW nD in that order, then optionally "T" and any
// of nH nM nS, at least one part in all. A part may carry a sign, a leading
// '-' before "P" negates the whole, and the last part may have a decimal
// fraction ('.' or ','; kept to milliseconds). Years count 365 days, months
// 30 and weeks 7. Designators are upper case; nothing may follow the last
// part. Anything else is refused with kErrBadParameter.
//
// Stored form (StoreSize() = 22 bytes): 'I', version 1, then days, hours,
// minutes, seconds and milliseconds as little-endian 32-bit two's
// complement. Import renormalises what it reads.
#ifndef PLINTH_TIME_TINTERVAL_H_
#define PLINTH_TIME_TINTERVAL_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"


class PLINTH_API TInterval : public TObject {
 public:
  static constexpr int kStoreSize = 22;

  TInterval() = default;
  TInterval(int days, int hours, int minutes, int seconds, int milliseconds);
  // The interval of `total` milliseconds.
  static TInterval FromMilliseconds(int64_t total);

  void Set(int days, int hours, int minutes, int seconds, int milliseconds);
  void Clear() { Set(0, 0, 0, 0, 0); }
  // Brings the parts back to the normal form described above.
  void normalize();

  int GetDays() const { return m_days; }
  int GetHours() const { return m_hours; }
  int GetMinutes() const { return m_minutes; }
  int GetSeconds() const { return m_seconds; }
  int GetMilliseconds() const { return m_milliseconds; }
  bool IsNegative() const { return TotalMilliseconds() < 0; }
  bool IsZero() const { return TotalMilliseconds() == 0; }
  int64_t TotalMilliseconds() const;

  bool operator==(const TInterval& other) const { return TotalMilliseconds() == other.TotalMilliseconds(); }
  bool operator!=(const TInterval& other) const { return !(*this == other); }
  bool operator<(const TInterval& other) const { return TotalMilliseconds() < other.TotalMilliseconds(); }
  bool operator<=(const TInterval& other) const { return TotalMilliseconds() <= other.TotalMilliseconds(); }
  bool operator>(const TInterval& other) const { return TotalMilliseconds() > other.TotalMilliseconds(); }
  bool operator>=(const TInterval& other) const { return TotalMilliseconds() >= other.TotalMilliseconds(); }

  TInterval operator+(const TInterval& other) const;
  TInterval operator-(const TInterval& other) const;
  TInterval operator-() const;
  TInterval& operator+=(const TInterval& other);
  TInterval& operator-=(const TInterval& other);

  int StoreSize() const { return kStoreSize; }
  // Export refuses a buffer below StoreSize(); Import refuses fewer than
  // StoreSize() bytes or a wrong marker or version, leaving the interval
  // as it was. Both return 0 or a library error code and log refusals.
  int Export(void* buffer, int size) const;
  int Import(const void* buffer, int size);

  TString ToISOString() const;
  int FromISOString(const TString& text);

 private:
  void SetTotal(int64_t total);

  int32_t m_days = 0;
  int32_t m_hours = 0;
  int32_t m_minutes = 0;
  int32_t m_seconds = 0;
  int32_t m_milliseconds = 0;
};

#endif  // PLINTH_TIME_TINTERVAL_H_
