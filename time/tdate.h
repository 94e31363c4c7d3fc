// TDate, the library's calendar date and time: a broken-down value (year to
// millisecond) in the proleptic Gregorian calendar from 1 January of year 1
// to 31 December 4000, with an optional offset from GMT.
//
// Offsets. The GMT offset is in minutes east of GMT (+60 for a time one
// hour ahead of GMT), so GMT = local time - offset. -1 (kUnknownGMTOffset)
// says no offset is known; such a date is taken as it stands wherever an
// absolute time is needed. "Absolute" time is GMT: FloatingToAbs turns a
// date with a known offset into GMT with offset 0; AbsToFloating turns it
// into the local time of a given offset. The time zone field is a value of
// the caller's, kept and stored but used by nothing here.
//
// Flags. 1: set by the broken-down constructor. 0x100: the offset is
// written as 0 in ISO strings (and the short ISO forms take the fields as
// they stand). 0x200: the date is never the marker date (IsMagic).
// 0x400 (IgnoreGMTOffset): a floating local time; ordering and differences
// do not apply offsets when either date has it. Other bits are the
// caller's and are kept.
//
// Ordering. == holds when the seven broken-down fields are equal, or else
// when they are equal once both dates are made absolute. <, <=, >, >= and
// the difference of two dates make both absolute unless either has 0x400,
// then compare day numbers and, on equal days, the milliseconds of the day.
//
// Arithmetic. sum(step, sign) adds (sign +1) or subtracts (-1) a calendar
// step: the months first (carrying into the year), then the years (past
// 4000 the date becomes 31 December 4000 23:59:59.999; a day past the end
// of the new month is clamped to its last day; below year 1 the date
// becomes day 1 of the computed month of year 1 at midnight), then the
// exact parts with carries. sum(interval, sign) adds the exact parts alone.
// Exact results before 1 January of year 1 or after the last millisecond
// of 4000 are clamped to those ends (so MakeEven of the last second, and
// any step past 4000, gives the last date). A date whose fields are out of range
// is not refused: arithmetic works from its day number (a year outside
// 1..4000 counts no days) and leaves a valid date.
//
// Weekdays are 0 = Sunday .. 6 = Saturday. Weeks of a month follow the
// "n-th weekday" rule of schedules: days 1-7 are week 1, 8-14 week 2 and so
// on, so GetMonthWeek of the third Tuesday of a month is 3.
//
// Operating-system forms. SystemTimeSpec and FileTimeSpec are the portable
// twins of the Windows SYSTEMTIME and FILETIME records; both, like Unix
// times, are GMT. From* fill the date with GMT fields and offset 0 and keep
// the flags and the time zone; To* first make the date absolute.
//
// Text. ToISOString writes "%04d-%02d-%02dT%02d:%02d:%02d.%02d%c%02d%02d":
// the millisecond count as it is (5 ms as "05", 123 as "123"), then '-' for
// a negative offset or '+', and the offset's hours and minutes. The offset
// is written as 0 with flag 0x100 and when it is unknown. A default date
// writes every number as 0: "0000-00-00T00:00:00.00+0000".
// ToShortISOString ("%04d%02d%02dT%02d%02d%02dZ") and
// ToShortDelimitedISOString ("%04d-%02d-%02dT%02d:%02d:%02dZ") write the
// absolute time followed by 'Z' (without flag 0x100, which takes the fields
// as they stand); a default date again writes zeros. ToRFCString writes
// "Www, DD Mon YYYY hh:mm:ss GMT" of the absolute time, English names.
//
// FromISOString reads what ToISOString and the short forms write, and:
// leading and trailing blanks; the date alone ("2024-01-31", time
// midnight); 'T', 't' or a blank before the time; the basic forms
// ("20240131T120000"); hours and minutes without seconds; a fraction after
// '.' or ','; a zone of 'Z', or '+'/'-' with hh, hh:mm or hhmm (hh up to 23,
// mm up to 59); no zone (offset unknown). A fraction of one to three
// digits is the millisecond count, as ToISOString wrote it (".05" is 5 ms,
// ".5" is 5 ms); longer fractions are decimal fractions cut to milliseconds
// (".1234" is 123 ms). "-0001" reads as the unknown offset. A text whose
// date and time are all zeros (what a default date writes) resets the
// date. Otherwise fields must lie in range and the day in its month.
// FromRFCString reads "[Www,] D Mon YYYY hh:mm[:ss] [zone]", blanks between
// the parts, names in either case, the weekday not checked
// against the date, the zone GMT, UT, UTC, Z (offset 0), +hhmm or -hhmm, or
// none (GMT). Both readers otherwise leave the flags and the time zone as
// they are, and refuse anything else with kErrBadParameter and one log
// line, leaving the date alone.
//
// Stored form (StoreSize() = 18 bytes, little-endian): 'D', version 1,
// flags (2), year (2), month, day, millisecond (2), second, minute, hour,
// the spare byte, time zone (2), GMT offset (2). Import refuses a short
// buffer, a wrong marker or version, or fields out of range (as IsValid),
// without changing the date. ImportContentOnly reads the same form but
// takes only the seven broken-down fields and the GMT offset, keeping the
// flags, the spare byte and the time zone.
#ifndef PLINTH_TIME_TDATE_H_
#define PLINTH_TIME_TDATE_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"
#include "time/tdatestep.h"
#include "time/tinterval.h"


// Windows SYSTEMTIME, field for field (GMT here).
struct SystemTimeSpec {
  uint16_t year = 0;
  uint16_t month = 0;      // 1..12
  uint16_t dayOfWeek = 0;  // 0 = Sunday; ignored on input
  uint16_t day = 0;
  uint16_t hour = 0;
  uint16_t minute = 0;
  uint16_t second = 0;
  uint16_t milliseconds = 0;
};

// Windows FILETIME: 100-nanosecond ticks since 1601-01-01 00:00:00 GMT.
struct FileTimeSpec {
  uint32_t lowDateTime = 0;
  uint32_t highDateTime = 0;
};

// Seconds (and milliseconds) since 1970-01-01 00:00:00 GMT.
struct UnixTimeSpec {
  int64_t seconds = 0;
  uint16_t milliseconds = 0;  // 0..999
};

class PLINTH_API TDate : public TObject {
 public:
  static constexpr unsigned short kFlagBrokenDown = 0x1;
  static constexpr unsigned short kFlagZeroOffsetInISO = 0x100;
  static constexpr unsigned short kFlagNotMagic = 0x200;
  static constexpr unsigned short kFlagIgnoreGMTOffset = 0x400;
  static constexpr short kUnknownGMTOffset = -1;
  static constexpr int kStoreSize = 18;

  TDate() = default;
  TDate(const TDate& other) = default;
  TDate& operator=(const TDate& other) = default;
  // Sets flag 1; the fields are taken as given (IsValid tells).
  TDate(unsigned short year, unsigned short month, unsigned short day, unsigned short hour, unsigned short minute,
        unsigned short second, unsigned short millisecond);
  explicit TDate(const SystemTimeSpec& systemTime);
  explicit TDate(const FileTimeSpec& fileTime);
  explicit TDate(uint64_t fileTime);
  explicit TDate(const UnixTimeSpec& unixTime);
  // The two 16-bit words of a FAT directory entry: the date (bits 15-9 years
  // since 1980, 8-5 month, 4-0 day) and the time (15-11 hour, 10-5 minute,
  // 4-0 seconds / 2). A local time with no known offset. Words that name no
  // real date leave the date reset (FromDosDateTime tells why).
  TDate(short dosDate, short dosTime);

  // ---- state --------------------------------------------------------------
  // 1 January of year 1, 00:00:00.000, flags 0, zone 0, offset unknown.
  void Reset();
  void SetFlags(unsigned short set, unsigned short clear) {
    m_flags = static_cast<uint16_t>((m_flags & ~clear) | set);
  }
  unsigned short GetFlags() const { return m_flags; }
  // Every field in range (a day of 31 in a short month passes).
  bool IsValid() const;
  bool IsDefault() const;
  bool IsMinTDate() const;
  bool IsMaxTDate() const;
  void SetToMax();
  // The marker date: year 1, January, 09:00, millisecond 0 or 1, any day
  // and second, without flag 0x200.
  bool IsMagic() const;

  // ---- fields ----------------------------------------------------------
  unsigned short GetYear() const { return m_year; }
  unsigned short GetMonth() const { return m_month; }
  unsigned short GetDay() const { return m_day; }
  unsigned short GetHour() const { return m_hour; }
  unsigned short GetMinute() const { return m_minute; }
  unsigned short GetSecond() const { return m_second; }
  unsigned short GetMillisecond() const { return m_millisecond; }
  short GetGMTOffset() const { return m_gmtOffset; }
  short GetTimezone() const { return m_timezone; }
  bool IgnoreGMTOffset() const { return (m_flags & kFlagIgnoreGMTOffset) != 0; }

  // Setters store what they are given; bytes keep the low 8 bits.
  void Set(unsigned short year, unsigned short month, unsigned short day, unsigned short hour,
           unsigned short minute, unsigned short second, unsigned short millisecond);
  void SetYear(unsigned short year) { m_year = year; }
  void SetMonth(unsigned short month) { m_month = static_cast<uint8_t>(month); }
  void SetDay(unsigned short day) { m_day = static_cast<uint8_t>(day); }
  void SetHour(unsigned short hour) { m_hour = static_cast<uint8_t>(hour); }
  void SetMinute(unsigned short minute) { m_minute = static_cast<uint8_t>(minute); }
  void SetSecond(unsigned short second) { m_second = static_cast<uint8_t>(second); }
  void SetMillisecond(unsigned short millisecond) { m_millisecond = millisecond; }
  void SetGMTOffset(short minutes) { m_gmtOffset = minutes; }
  void SetTimezone(short zone) { m_timezone = zone; }

  // ---- calendar --------------------------------------------------------
  // Days from 1 January of year 1 (day 1); a year outside 1..4000 counts 0.
  int getTotalDays() const;
  // Milliseconds since midnight.
  int getTotalMilliseconds() const;
  int GetDOW() const;  // 0 = Sunday
  int GetMaxDays() const;  // length of the date's month
  int GetMonthWeek() const;  // 1..5: (day - 1) / 7 + 1
  // Weeks (1..5) that hold the date's weekday in its month: 4 or 5.
  int GetMaxWeeks() const;
  // The day of the month of the `week`-th (1..4) `weekday` (0 = Sunday) of
  // the date's month; week 5 or more means the last one. kErrBadParameter
  // for a week below 1 or a weekday outside 0..6.
  int GetMonthWeekDay(int week, int weekday) const;

  // ---- arithmetic ---------------------------------------------------------
  TDate& sum(const TDateStep& step, short sign);
  TDate& sum(const TInterval& interval, short sign);
  TDate operator+(const TDateStep& step) const;
  TDate operator-(const TDateStep& step) const;
  TDate& operator+=(const TDateStep& step) { return sum(step, 1); }
  TDate& operator-=(const TDateStep& step) { return sum(step, -1); }
  TDate operator+(const TInterval& interval) const;
  TDate operator-(const TInterval& interval) const;
  TDate& operator+=(const TInterval& interval) { return sum(interval, 1); }
  TDate& operator-=(const TInterval& interval) { return sum(interval, -1); }
  // this - other, both made absolute unless either has flag 0x400.
  TInterval operator-(const TDate& other) const;

  bool operator==(const TDate& other) const;
  bool operator!=(const TDate& other) const { return !(*this == other); }
  bool operator<(const TDate& other) const { return Order(other) < 0; }
  bool operator<=(const TDate& other) const { return Order(other) <= 0; }
  bool operator>(const TDate& other) const { return Order(other) > 0; }
  bool operator>=(const TDate& other) const { return Order(other) >= 0; }

  // Local time with a known offset becomes GMT with offset 0; an unknown
  // offset changes nothing.
  void FloatingToAbs();
  // GMT (after FloatingToAbs) becomes the local time of `gmtOffset`
  // minutes, which the date then carries; -1 changes nothing.
  void AbsToFloating(short gmtOffset);

  // Raises an odd second by one; second 59 carries into the next minute
  // (clamped at the last date).
  void MakeEven();

  // ---- operating-system forms -------------------------------------------
  // A null or zero file time resets the date; ticks past 4000 are refused.
  int FromFileTime(const uint64_t* fileTime);
  int FromFileTime(const FileTimeSpec* fileTime);
  // 0 for year 1 and for dates before 1601, which a file time cannot hold.
  uint64_t ToFileTime() const;
  void ToFileTime(FileTimeSpec* out) const;
  // Refuses fields out of range (the day must exist in its month).
  int FromSystemTime(const SystemTimeSpec& systemTime);
  void ToSystemTime(SystemTimeSpec* out) const;
  // Refuses times outside years 1..4000 and milliseconds above 999.
  int FromUnixTime(int64_t seconds, int milliseconds = 0);
  // The FAT date and time words (see the constructor); a month, day, hour,
  // minute or second out of range (the day against its month) is refused
  // with -1010 and the date left as it was.
  int FromDosDateTime(unsigned short dosDate, unsigned short dosTime);
  // Refuses dates before 1980 or after 2107 with -1010; seconds are halved
  // (rounded down), so MakeEven first keeps the round trip exact.
  int ToDosDateTime(unsigned short* dosDate, unsigned short* dosTime) const;
  // Seconds since 1970 of the absolute time (floored; negative before 1970).
  int64_t ToUnixTime() const;
  // The local time now, with the local offset in effect.
  void SetToCurrentDate();

  // ---- text ----------------------------------------------------------------
  TString ToISOString() const;
  void ToISOString(TString* out) const;
  TString ToShortISOString() const;
  TString ToShortDelimitedISOString() const;
  TString ToRFCString() const;
  int FromISOString(const TString& text);
  int FromRFCString(const TString& text);

  // ---- stored form -----------------------------------------------------
  int StoreSize() const { return kStoreSize; }
  int Export(void* buffer, int size) const;
  int Import(const void* buffer, int size);
  int ImportContentOnly(const void* buffer, int size);

 private:
  // Milliseconds since 1 January of year 1 of the fields as they stand.
  int64_t LinearMs() const;
  // Sets the seven fields from a linear time, clamped to the date range.
  void SetLinearMs(int64_t linear);
  // LinearMs of the absolute time (the fields when the offset is unknown).
  int64_t AbsLinearMs() const;
  // The linear times `Order` and the difference compare.
  void OrderingPair(const TDate& other, int64_t* mine, int64_t* theirs) const;
  int Order(const TDate& other) const;
  static int ReadStored(const void* buffer, int size, bool contentOnly, TDate* out);

  uint16_t m_flags = 0;
  uint16_t m_year = 1;
  uint8_t m_month = 1;
  uint8_t m_day = 1;
  uint16_t m_millisecond = 0;
  uint8_t m_second = 0;
  uint8_t m_minute = 0;
  uint8_t m_hour = 0;
  uint8_t m_spare = 0;  // cleared by Reset, stored, otherwise unused
  int16_t m_timezone = 0;
  int16_t m_gmtOffset = kUnknownGMTOffset;
};

#endif  // PLINTH_TIME_TDATE_H_
