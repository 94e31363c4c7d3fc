// TDateStep, a calendar step: years, months, weeks, days, hours, minutes,
// seconds and milliseconds, each an unsigned 16-bit count. Adding one to a
// date (TDate::sum) moves the months and years along the calendar and the
// rest as exact time; the step itself carries no sign.
//
// Ordering compares the parts from the largest unit down (years, then
// months, weeks, days, hours, minutes, seconds, milliseconds): a step of
// one month sorts after a step of forty days. Equality is part by part.
//
// Stored form (StoreSize() = 18 bytes): 'S', version 1, then the eight
// parts as little-endian 16-bit values from milliseconds to years.
#ifndef PLINTH_TIME_TDATESTEP_H_
#define PLINTH_TIME_TDATESTEP_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API TDateStep : public TObject {
 public:
  static constexpr int kStoreSize = 18;

  TDateStep() = default;
  // The parts from the smallest unit to the largest.
  TDateStep(uint16_t milliseconds, uint16_t seconds, uint16_t minutes, uint16_t hours, uint16_t days,
            uint16_t weeks, uint16_t months, uint16_t years);

  void SetMilliseconds(uint16_t v) { m_parts[kMs] = v; }
  void SetSeconds(uint16_t v) { m_parts[kSec] = v; }
  void SetMinutes(uint16_t v) { m_parts[kMin] = v; }
  void SetHours(uint16_t v) { m_parts[kHour] = v; }
  void SetDays(uint16_t v) { m_parts[kDay] = v; }
  void SetWeeks(uint16_t v) { m_parts[kWeek] = v; }
  void SetMonths(uint16_t v) { m_parts[kMonth] = v; }
  void SetYears(uint16_t v) { m_parts[kYear] = v; }

  uint16_t GetMilliseconds() const { return m_parts[kMs]; }
  uint16_t GetSeconds() const { return m_parts[kSec]; }
  uint16_t GetMinutes() const { return m_parts[kMin]; }
  uint16_t GetHours() const { return m_parts[kHour]; }
  uint16_t GetDays() const { return m_parts[kDay]; }
  uint16_t GetWeeks() const { return m_parts[kWeek]; }
  uint16_t GetMonths() const { return m_parts[kMonth]; }
  uint16_t GetYears() const { return m_parts[kYear]; }

  bool IsZero() const;

  bool operator==(const TDateStep& other) const { return Compare(other) == 0; }
  bool operator!=(const TDateStep& other) const { return Compare(other) != 0; }
  bool operator<(const TDateStep& other) const { return Compare(other) < 0; }
  bool operator<=(const TDateStep& other) const { return Compare(other) <= 0; }
  bool operator>(const TDateStep& other) const { return Compare(other) > 0; }
  bool operator>=(const TDateStep& other) const { return Compare(other) >= 0; }

  int StoreSize() const { return kStoreSize; }
  // Export refuses a buffer below StoreSize(); Import refuses fewer bytes or
  // a wrong marker or version and leaves the step as it was. 0 or a library
  // error code; refusals are logged.
  int Export(void* buffer, int size) const;
  int Import(const void* buffer, int size);

 private:
  enum Part { kMs, kSec, kMin, kHour, kDay, kWeek, kMonth, kYear, kPartCount };
  // -1, 0 or 1, from the years down.
  int Compare(const TDateStep& other) const;

  uint16_t m_parts[kPartCount] = {};
};

#endif  // PLINTH_TIME_TDATESTEP_H_
