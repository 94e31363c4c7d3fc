#include "time/tdate.h"

#include "foundation/errors.h"
#include "foundation/log.h"
#include "platform/clock.h"
#include "time/calendar.h"
#include "time/store_le.h"

namespace {

constexpr uint8_t kStoreMarker = 'D';
constexpr uint8_t kStoreVersion = 1;

constexpr int64_t kTicksPerMs = 10000;
// Linear milliseconds of the two epochs.
constexpr int64_t kUnixEpochMs = (calendar::kUnixEpochDay - 1) * calendar::kMsPerDay;
constexpr int64_t kFileTimeEpochMs = (calendar::kFileTimeEpochDay - 1) * calendar::kMsPerDay;

int64_t FloorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0)) ? 1 : 0); }

}  // namespace

TDate::TDate(unsigned short year, unsigned short month, unsigned short day, unsigned short hour,
             unsigned short minute, unsigned short second, unsigned short millisecond) {
  Set(year, month, day, hour, minute, second, millisecond);
  m_flags = kFlagBrokenDown;
}

TDate::TDate(const SystemTimeSpec& systemTime) { FromSystemTime(systemTime); }

TDate::TDate(const FileTimeSpec& fileTime) { FromFileTime(&fileTime); }

TDate::TDate(uint64_t fileTime) { FromFileTime(&fileTime); }

TDate::TDate(const UnixTimeSpec& unixTime) { FromUnixTime(unixTime.seconds, unixTime.milliseconds); }

TDate::TDate(short dosDate, short dosTime) {
  FromDosDateTime(static_cast<unsigned short>(dosDate), static_cast<unsigned short>(dosTime));
}

void TDate::Reset() { *this = TDate(); }

bool TDate::IsValid() const {
  return m_year >= calendar::kMinYear && m_year <= calendar::kMaxYear && m_month >= 1 && m_month <= 12 &&
         m_day >= 1 && m_day <= 31 && m_millisecond <= 999 && m_second <= 59 && m_minute <= 59 && m_hour <= 23;
}

bool TDate::IsDefault() const {
  return m_flags == 0 && m_spare == 0 && m_timezone == 0 && m_gmtOffset == kUnknownGMTOffset && IsMinTDate();
}

bool TDate::IsMinTDate() const {
  return m_year == 1 && m_month == 1 && m_day == 1 && m_hour == 0 && m_minute == 0 && m_second == 0 &&
         m_millisecond == 0;
}

bool TDate::IsMaxTDate() const {
  return m_year == calendar::kMaxYear && m_month == 12 && m_day == 31 && m_hour == 23 && m_minute == 59 &&
         m_second == 59 && m_millisecond == 999;
}

void TDate::SetToMax() { Set(calendar::kMaxYear, 12, 31, 23, 59, 59, 999); }

bool TDate::IsMagic() const {
  return (m_flags & kFlagNotMagic) == 0 && m_year == 1 && m_month == 1 && m_hour == 9 && m_minute == 0 &&
         m_millisecond <= 1;
}

void TDate::Set(unsigned short year, unsigned short month, unsigned short day, unsigned short hour,
                unsigned short minute, unsigned short second, unsigned short millisecond) {
  SetYear(year);
  SetMonth(month);
  SetDay(day);
  SetHour(hour);
  SetMinute(minute);
  SetSecond(second);
  SetMillisecond(millisecond);
}

// ---- calendar ---------------------------------------------------------------

int TDate::getTotalDays() const {
  return calendar::DaysBeforeYear(m_year) + calendar::DaysBeforeMonth(m_year, m_month) + m_day;
}

int TDate::getTotalMilliseconds() const {
  return m_hour * 3600000 + m_minute * 60000 + m_second * 1000 + m_millisecond;
}

int TDate::GetDOW() const { return calendar::DayOfWeek(getTotalDays()); }

int TDate::GetMaxDays() const { return calendar::DaysInMonth(m_year, m_month); }

int TDate::GetMonthWeek() const { return (m_day - 1) / 7 + 1; }

int TDate::GetMaxWeeks() const {
  int firstOccurrence = (m_day - 1) % 7 + 1;
  return (GetMaxDays() - firstOccurrence) / 7 + 1;
}

int TDate::GetMonthWeekDay(int week, int weekday) const {
  if (week < 1 || weekday < 0 || weekday > 6 || GetMaxDays() == 0) {
    LogLine(514, u"TDate::GetMonthWeekDay: bad week %~d or weekday %~d, %E", week, weekday, kErrBadParameter);
    return kErrBadParameter;
  }
  int firstDow = calendar::DayOfWeek(calendar::DayNumber(m_year, m_month, 1));
  int firstDay = 1 + (weekday - firstDow + 7) % 7;
  int last = firstDay + 7 * ((GetMaxDays() - firstDay) / 7);
  int day = firstDay + 7 * (week - 1);
  return day > last ? last : day;
}

// ---- linear time ------------------------------------------------------------

int64_t TDate::LinearMs() const {
  return (static_cast<int64_t>(getTotalDays()) - 1) * calendar::kMsPerDay + getTotalMilliseconds();
}

void TDate::SetLinearMs(int64_t linear) {
  if (linear < 0) linear = 0;
  if (linear > calendar::kMaxLinearMs) linear = calendar::kMaxLinearMs;
  int year = 0;
  int month = 0;
  int day = 0;
  calendar::CivilFromDayNumber(static_cast<int>(linear / calendar::kMsPerDay) + 1, &year, &month, &day);
  int ms = static_cast<int>(linear % calendar::kMsPerDay);
  Set(static_cast<unsigned short>(year), static_cast<unsigned short>(month), static_cast<unsigned short>(day),
      static_cast<unsigned short>(ms / 3600000), static_cast<unsigned short>(ms / 60000 % 60),
      static_cast<unsigned short>(ms / 1000 % 60), static_cast<unsigned short>(ms % 1000));
}

int64_t TDate::AbsLinearMs() const {
  if (m_gmtOffset == kUnknownGMTOffset) return LinearMs();
  return LinearMs() - m_gmtOffset * calendar::kMsPerMinute;
}

void TDate::FloatingToAbs() {
  if (m_gmtOffset == kUnknownGMTOffset) return;
  SetLinearMs(AbsLinearMs());
  m_gmtOffset = 0;
}

void TDate::AbsToFloating(short gmtOffset) {
  if (gmtOffset == kUnknownGMTOffset) return;
  FloatingToAbs();
  SetLinearMs(LinearMs() + gmtOffset * calendar::kMsPerMinute);
  m_gmtOffset = gmtOffset;
}

void TDate::MakeEven() {
  if (m_second % 2 == 0) return;
  SetLinearMs(LinearMs() + calendar::kMsPerSecond);
}

// ---- arithmetic -------------------------------------------------------------

TDate& TDate::sum(const TDateStep& step, short sign) {
  // Months first; the carry goes into the year.
  int m = m_month + sign * step.GetMonths();
  int carry = 0;
  int month = 0;
  if (m >= 1) {
    carry = (m - 1) / 12;
    month = (m - 1) % 12 + 1;
  } else {
    carry = m / 12 - 1;
    month = m % 12 + 12;
  }
  int year = m_year + sign * step.GetYears() + carry;
  if (year > calendar::kMaxYear) {
    SetToMax();
    return *this;
  }
  if (year >= calendar::kMinYear) {
    m_year = static_cast<uint16_t>(year);
    m_month = static_cast<uint8_t>(month);
    int last = calendar::DaysInMonth(year, month);
    if (m_day > last) m_day = static_cast<uint8_t>(last);
  } else {
    // The computed month is kept on purpose.
    Set(1, static_cast<unsigned short>(month), 1, 0, 0, 0, 0);
  }
  // Then the exact parts, each overflow carried upward by the linear sum.
  int64_t days = static_cast<int64_t>(getTotalDays()) - 1 + sign * (7 * step.GetWeeks() + step.GetDays());
  int64_t linear = days * calendar::kMsPerDay + (m_hour + sign * step.GetHours()) * calendar::kMsPerHour +
                   (m_minute + sign * step.GetMinutes()) * calendar::kMsPerMinute +
                   (m_second + sign * step.GetSeconds()) * calendar::kMsPerSecond +
                   (m_millisecond + sign * step.GetMilliseconds());
  SetLinearMs(linear);
  return *this;
}

TDate& TDate::sum(const TInterval& interval, short sign) {
  SetLinearMs(LinearMs() + sign * interval.TotalMilliseconds());
  return *this;
}

TDate TDate::operator+(const TDateStep& step) const {
  TDate result(*this);
  return result.sum(step, 1);
}

TDate TDate::operator-(const TDateStep& step) const {
  TDate result(*this);
  return result.sum(step, -1);
}

TDate TDate::operator+(const TInterval& interval) const {
  TDate result(*this);
  return result.sum(interval, 1);
}

TDate TDate::operator-(const TInterval& interval) const {
  TDate result(*this);
  return result.sum(interval, -1);
}

void TDate::OrderingPair(const TDate& other, int64_t* mine, int64_t* theirs) const {
  if (IgnoreGMTOffset() || other.IgnoreGMTOffset()) {
    *mine = LinearMs();
    *theirs = other.LinearMs();
    return;
  }
  *mine = AbsLinearMs();
  *theirs = other.AbsLinearMs();
}

int TDate::Order(const TDate& other) const {
  int64_t mine = 0;
  int64_t theirs = 0;
  OrderingPair(other, &mine, &theirs);
  return mine < theirs ? -1 : (mine > theirs ? 1 : 0);
}

TInterval TDate::operator-(const TDate& other) const {
  int64_t mine = 0;
  int64_t theirs = 0;
  OrderingPair(other, &mine, &theirs);
  return TInterval::FromMilliseconds(mine - theirs);
}

bool TDate::operator==(const TDate& other) const {
  if (m_year == other.m_year && m_month == other.m_month && m_day == other.m_day && m_hour == other.m_hour &&
      m_minute == other.m_minute && m_second == other.m_second && m_millisecond == other.m_millisecond) {
    return true;
  }
  TDate a(*this);
  TDate b(other);
  a.FloatingToAbs();
  b.FloatingToAbs();
  return a.m_year == b.m_year && a.m_month == b.m_month && a.m_day == b.m_day && a.m_hour == b.m_hour &&
         a.m_minute == b.m_minute && a.m_second == b.m_second && a.m_millisecond == b.m_millisecond;
}

// ---- operating-system forms -----------------------------------------------

int TDate::FromFileTime(const uint64_t* fileTime) {
  if (fileTime == nullptr || *fileTime == 0) {
    Reset();
    return 0;
  }
  uint64_t ms = *fileTime / kTicksPerMs;
  if (ms > static_cast<uint64_t>(calendar::kMaxLinearMs - kFileTimeEpochMs)) {
    LogLine(514, u"TDate::FromFileTime: file time %~ld is past the year 4000, %E", static_cast<int64_t>(*fileTime),
            kErrBadParameter);
    return kErrBadParameter;
  }
  SetLinearMs(kFileTimeEpochMs + static_cast<int64_t>(ms));
  m_gmtOffset = 0;
  return 0;
}

int TDate::FromFileTime(const FileTimeSpec* fileTime) {
  if (fileTime == nullptr) return FromFileTime(static_cast<const uint64_t*>(nullptr));
  uint64_t ticks = (static_cast<uint64_t>(fileTime->highDateTime) << 32) | fileTime->lowDateTime;
  return FromFileTime(&ticks);
}

uint64_t TDate::ToFileTime() const {
  if (m_year == 1) return 0;
  int64_t linear = AbsLinearMs();
  if (linear < kFileTimeEpochMs) return 0;
  return static_cast<uint64_t>(linear - kFileTimeEpochMs) * kTicksPerMs;
}

void TDate::ToFileTime(FileTimeSpec* out) const {
  uint64_t ticks = ToFileTime();
  out->lowDateTime = static_cast<uint32_t>(ticks);
  out->highDateTime = static_cast<uint32_t>(ticks >> 32);
}

int TDate::FromSystemTime(const SystemTimeSpec& st) {
  bool valid = st.year >= calendar::kMinYear && st.year <= calendar::kMaxYear && st.month >= 1 && st.month <= 12 &&
               st.day >= 1 && st.day <= calendar::DaysInMonth(st.year, st.month) && st.hour <= 23 &&
               st.minute <= 59 && st.second <= 59 && st.milliseconds <= 999;
  if (!valid) {
    LogLine(514, u"TDate::FromSystemTime: bad time %~d-%~d-%~d %~d:%~d:%~d.%~d, %E", st.year, st.month, st.day,
            st.hour, st.minute, st.second, st.milliseconds, kErrBadParameter);
    return kErrBadParameter;
  }
  Set(st.year, st.month, st.day, st.hour, st.minute, st.second, st.milliseconds);
  m_gmtOffset = 0;
  return 0;
}

void TDate::ToSystemTime(SystemTimeSpec* out) const {
  TDate abs(*this);
  abs.FloatingToAbs();
  out->year = abs.m_year;
  out->month = abs.m_month;
  out->dayOfWeek = static_cast<uint16_t>(abs.GetDOW());
  out->day = abs.m_day;
  out->hour = abs.m_hour;
  out->minute = abs.m_minute;
  out->second = abs.m_second;
  out->milliseconds = abs.m_millisecond;
}

int TDate::FromUnixTime(int64_t seconds, int milliseconds) {
  // Bounds first, so the product below cannot overflow.
  constexpr int64_t kMinSeconds = -kUnixEpochMs / 1000;
  constexpr int64_t kMaxSeconds = (calendar::kMaxLinearMs - kUnixEpochMs) / 1000;
  if (seconds < kMinSeconds || seconds > kMaxSeconds || milliseconds < 0 || milliseconds > 999) {
    LogLine(514, u"TDate::FromUnixTime: %~ld.%~d seconds is outside the years 1 to 4000, %E", seconds, milliseconds,
            kErrBadParameter);
    return kErrBadParameter;
  }
  SetLinearMs(kUnixEpochMs + seconds * 1000 + milliseconds);
  m_gmtOffset = 0;
  return 0;
}

int TDate::FromDosDateTime(unsigned short dosDate, unsigned short dosTime) {
  int year = 1980 + (dosDate >> 9);
  int month = (dosDate >> 5) & 0x0F;
  int day = dosDate & 0x1F;
  int hour = dosTime >> 11;
  int minute = (dosTime >> 5) & 0x3F;
  int second = (dosTime & 0x1F) * 2;
  if (month < 1 || month > 12 || day < 1 || day > calendar::DaysInMonth(year, month) || hour > 23 || minute > 59 ||
      second > 59) {
    LogLine(514, u"TDate::FromDosDateTime: %~u %~u names no date, %E", static_cast<unsigned int>(dosDate),
            static_cast<unsigned int>(dosTime), kErrBadParameter);
    return kErrBadParameter;
  }
  Set(static_cast<unsigned short>(year), static_cast<unsigned short>(month), static_cast<unsigned short>(day),
      static_cast<unsigned short>(hour), static_cast<unsigned short>(minute), static_cast<unsigned short>(second), 0);
  m_gmtOffset = kUnknownGMTOffset;
  return 0;
}

int TDate::ToDosDateTime(unsigned short* dosDate, unsigned short* dosTime) const {
  if (m_year < 1980 || m_year > 2107 || !IsValid()) {
    LogLine(514, u"TDate::ToDosDateTime: year %~u has no FAT form, %E", static_cast<unsigned int>(m_year),
            kErrBadParameter);
    return kErrBadParameter;
  }
  *dosDate = static_cast<unsigned short>(((m_year - 1980) << 9) | (m_month << 5) | m_day);
  *dosTime = static_cast<unsigned short>((m_hour << 11) | (m_minute << 5) | (m_second / 2));
  return 0;
}

int64_t TDate::ToUnixTime() const { return FloorDiv(AbsLinearMs() - kUnixEpochMs, 1000); }

void TDate::SetToCurrentDate() {
  int64_t now = platform::UnixTimeMilliseconds();
  int offset = platform::LocalGmtOffsetMinutes(FloorDiv(now, 1000));
  SetLinearMs(kUnixEpochMs + now + offset * calendar::kMsPerMinute);
  m_gmtOffset = static_cast<int16_t>(offset);
}

// ---- stored form ----------------------------------------------------------------

int TDate::Export(void* buffer, int size) const {
  if (buffer == nullptr || size < kStoreSize) {
    LogLine(514, u"TDate::Export: buffer of %~d bytes, %~d needed, %E", buffer == nullptr ? 0 : size, kStoreSize,
            kErrBufferTooSmall);
    return kErrBufferTooSmall;
  }
  uint8_t* p = static_cast<uint8_t*>(buffer);
  p[0] = kStoreMarker;
  p[1] = kStoreVersion;
  store_le::Put16(p + 2, m_flags);
  store_le::Put16(p + 4, m_year);
  p[6] = m_month;
  p[7] = m_day;
  store_le::Put16(p + 8, m_millisecond);
  p[10] = m_second;
  p[11] = m_minute;
  p[12] = m_hour;
  p[13] = m_spare;
  store_le::Put16(p + 14, static_cast<uint16_t>(m_timezone));
  store_le::Put16(p + 16, static_cast<uint16_t>(m_gmtOffset));
  return 0;
}

int TDate::ReadStored(const void* buffer, int size, bool contentOnly, TDate* out) {
  const char16_t* shortFormat = contentOnly ? u"TDate::ImportContentOnly: %~d bytes, %~d needed, %E"
                                            : u"TDate::Import: %~d bytes, %~d needed, %E";
  const char16_t* markerFormat = contentOnly ? u"TDate::ImportContentOnly: bad marker %~d or version %~d, %E"
                                             : u"TDate::Import: bad marker %~d or version %~d, %E";
  const char16_t* rangeFormat =
      contentOnly ? u"TDate::ImportContentOnly: stored fields out of range (%~d-%~d-%~d %~d:%~d:%~d.%~d), %E"
                  : u"TDate::Import: stored fields out of range (%~d-%~d-%~d %~d:%~d:%~d.%~d), %E";
  if (buffer == nullptr || size < kStoreSize) {
    LogLine(514, shortFormat, buffer == nullptr ? 0 : size, kStoreSize, kErrInvalidData);
    return kErrInvalidData;
  }
  const uint8_t* p = static_cast<const uint8_t*>(buffer);
  if (p[0] != kStoreMarker || p[1] != kStoreVersion) {
    LogLine(514, markerFormat, p[0], p[1], kErrInvalidData);
    return kErrInvalidData;
  }
  out->m_flags = store_le::Get16(p + 2);
  out->m_year = store_le::Get16(p + 4);
  out->m_month = p[6];
  out->m_day = p[7];
  out->m_millisecond = store_le::Get16(p + 8);
  out->m_second = p[10];
  out->m_minute = p[11];
  out->m_hour = p[12];
  out->m_spare = p[13];
  out->m_timezone = static_cast<int16_t>(store_le::Get16(p + 14));
  out->m_gmtOffset = static_cast<int16_t>(store_le::Get16(p + 16));
  if (!out->IsValid()) {
    LogLine(514, rangeFormat, out->m_year, out->m_month, out->m_day, out->m_hour, out->m_minute, out->m_second,
            out->m_millisecond, kErrInvalidData);
    return kErrInvalidData;
  }
  return 0;
}

int TDate::Import(const void* buffer, int size) {
  TDate stored;
  int rc = ReadStored(buffer, size, false, &stored);
  if (rc != 0) return rc;
  *this = stored;
  return 0;
}

int TDate::ImportContentOnly(const void* buffer, int size) {
  TDate stored;
  int rc = ReadStored(buffer, size, true, &stored);
  if (rc != 0) return rc;
  Set(stored.m_year, stored.m_month, stored.m_day, stored.m_hour, stored.m_minute, stored.m_second,
      stored.m_millisecond);
  m_gmtOffset = stored.m_gmtOffset;
  return 0;
}
