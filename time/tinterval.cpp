#include "time/tinterval.h"

#include <cstdint>
#include <limits>

#include "foundation/errors.h"
#include "foundation/log.h"
#include "foundation/tstring.h"
#include "time/calendar.h"
#include "time/date_text.h"
#include "time/store_le.h"

namespace {

constexpr uint8_t kStoreMarker = 'I';
constexpr uint8_t kStoreVersion = 1;

// The largest total whose day part still fits in 32 bits.
constexpr int64_t kMaxTotal =
    static_cast<int64_t>(std::numeric_limits<int32_t>::max()) * calendar::kMsPerDay + calendar::kMsPerDay - 1;

int64_t Saturate(int64_t total) {
  if (total > kMaxTotal) return kMaxTotal;
  if (total < -kMaxTotal) return -kMaxTotal;
  return total;
}

}  // namespace

TInterval::TInterval(int days, int hours, int minutes, int seconds, int milliseconds) {
  Set(days, hours, minutes, seconds, milliseconds);
}

TInterval TInterval::FromMilliseconds(int64_t total) {
  TInterval result;
  result.SetTotal(total);
  return result;
}

void TInterval::Set(int days, int hours, int minutes, int seconds, int milliseconds) {
  m_days = days;
  m_hours = hours;
  m_minutes = minutes;
  m_seconds = seconds;
  m_milliseconds = milliseconds;
  normalize();
}

int64_t TInterval::TotalMilliseconds() const {
  // Each product stays far inside 64 bits: 2^31 days are 1.9e17 ms.
  return m_days * calendar::kMsPerDay + m_hours * calendar::kMsPerHour + m_minutes * calendar::kMsPerMinute +
         m_seconds * calendar::kMsPerSecond + m_milliseconds;
}

void TInterval::normalize() { SetTotal(TotalMilliseconds()); }

void TInterval::SetTotal(int64_t total) {
  total = Saturate(total);
  // Truncating division gives every part the sign of the total.
  m_days = static_cast<int32_t>(total / calendar::kMsPerDay);
  total %= calendar::kMsPerDay;
  m_hours = static_cast<int32_t>(total / calendar::kMsPerHour);
  total %= calendar::kMsPerHour;
  m_minutes = static_cast<int32_t>(total / calendar::kMsPerMinute);
  total %= calendar::kMsPerMinute;
  m_seconds = static_cast<int32_t>(total / calendar::kMsPerSecond);
  m_milliseconds = static_cast<int32_t>(total % calendar::kMsPerSecond);
}

TInterval TInterval::operator+(const TInterval& other) const {
  return FromMilliseconds(TotalMilliseconds() + other.TotalMilliseconds());
}

TInterval TInterval::operator-(const TInterval& other) const {
  return FromMilliseconds(TotalMilliseconds() - other.TotalMilliseconds());
}

TInterval TInterval::operator-() const { return FromMilliseconds(-TotalMilliseconds()); }

TInterval& TInterval::operator+=(const TInterval& other) {
  SetTotal(TotalMilliseconds() + other.TotalMilliseconds());
  return *this;
}

TInterval& TInterval::operator-=(const TInterval& other) {
  SetTotal(TotalMilliseconds() - other.TotalMilliseconds());
  return *this;
}

int TInterval::Export(void* buffer, int size) const {
  if (buffer == nullptr || size < kStoreSize) {
    LogLine(514, u"TInterval::Export: buffer of %~d bytes, %~d needed, %E", buffer == nullptr ? 0 : size, kStoreSize,
            kErrBufferTooSmall);
    return kErrBufferTooSmall;
  }
  uint8_t* p = static_cast<uint8_t*>(buffer);
  p[0] = kStoreMarker;
  p[1] = kStoreVersion;
  store_le::Put32(p + 2, static_cast<uint32_t>(m_days));
  store_le::Put32(p + 6, static_cast<uint32_t>(m_hours));
  store_le::Put32(p + 10, static_cast<uint32_t>(m_minutes));
  store_le::Put32(p + 14, static_cast<uint32_t>(m_seconds));
  store_le::Put32(p + 18, static_cast<uint32_t>(m_milliseconds));
  return 0;
}

int TInterval::Import(const void* buffer, int size) {
  if (buffer == nullptr || size < kStoreSize) {
    LogLine(514, u"TInterval::Import: %~d bytes, %~d needed, %E", buffer == nullptr ? 0 : size, kStoreSize,
            kErrInvalidData);
    return kErrInvalidData;
  }
  const uint8_t* p = static_cast<const uint8_t*>(buffer);
  if (p[0] != kStoreMarker || p[1] != kStoreVersion) {
    LogLine(514, u"TInterval::Import: bad marker %~d or version %~d, %E", p[0], p[1], kErrInvalidData);
    return kErrInvalidData;
  }
  Set(static_cast<int32_t>(store_le::Get32(p + 2)), static_cast<int32_t>(store_le::Get32(p + 6)),
      static_cast<int32_t>(store_le::Get32(p + 10)), static_cast<int32_t>(store_le::Get32(p + 14)),
      static_cast<int32_t>(store_le::Get32(p + 18)));
  return 0;
}

TString TInterval::ToISOString() const {
  char16_t text[96];
  char16_t* p = text;
  *p++ = u'P';
  p = date_text::PutSigned(p, 0);
  *p++ = u'Y';
  p = date_text::PutSigned(p, 0);
  *p++ = u'M';
  p = date_text::PutSigned(p, m_days);
  *p++ = u'D';
  *p++ = u'T';
  p = date_text::PutSigned(p, m_hours);
  *p++ = u'H';
  p = date_text::PutSigned(p, m_minutes);
  *p++ = u'M';
  // Whole seconds, as the format has it: the milliseconds are not written.
  p = date_text::PutSigned(p, m_seconds);
  *p++ = u'S';
  return TString(text, static_cast<int>(p - text));
}

namespace {

// One "nX" part of a duration: a signed number, possibly with a fraction,
// in milliseconds of its unit; `unitMs` scales it.
bool ReadPart(date_text::Cursor* in, bool* hasFraction, int64_t* whole, int64_t* fractionMs) {
  bool negative = false;
  if (in->Take(u'-')) negative = true;
  else in->Take(u'+');
  int n = 0;
  int64_t value = in->Digits(&n);
  if (n == 0 || n > 10) return false;
  *hasFraction = false;
  *fractionMs = 0;
  if (in->Peek() == u'.' || in->Peek() == u',') {
    in->Advance();
    int digits = 0;
    int64_t fraction = in->Digits(&digits);
    if (digits == 0 || digits > 18) return false;
    // Keep the first three digits as milliseconds.
    while (digits > 3) {
      fraction /= 10;
      --digits;
    }
    while (digits < 3) {
      fraction *= 10;
      ++digits;
    }
    *hasFraction = true;
    *fractionMs = negative ? -fraction : fraction;
  }
  *whole = negative ? -value : value;
  return true;
}

bool ParseDuration(const char16_t* text, int length, int64_t* total) {
  date_text::Cursor in(text, length);
  bool negateAll = in.Take(u'-');
  if (!in.Take(u'P')) return false;
  // Designators in the order they may appear, with their lengths.
  struct Unit {
    char16_t letter;
    bool timePart;
    int64_t ms;
  };
  static constexpr Unit kUnits[] = {
      {u'Y', false, 365 * calendar::kMsPerDay}, {u'M', false, 30 * calendar::kMsPerDay},
      {u'W', false, 7 * calendar::kMsPerDay},   {u'D', false, calendar::kMsPerDay},
      {u'H', true, calendar::kMsPerHour},       {u'M', true, calendar::kMsPerMinute},
      {u'S', true, calendar::kMsPerSecond},
  };
  constexpr int kUnitCount = sizeof(kUnits) / sizeof(kUnits[0]);
  int next = 0;  // the first unit still allowed
  bool inTime = false;
  bool sawFraction = false;
  int parts = 0;
  int64_t sum = 0;
  while (!in.AtEnd()) {
    if (sawFraction) return false;  // only the last part may have a fraction
    if (in.Peek() == u'T') {
      if (inTime) return false;
      in.Advance();
      inTime = true;
      while (next < kUnitCount && !kUnits[next].timePart) ++next;
      if (in.AtEnd()) return false;  // "T" needs a part after it
      continue;
    }
    bool hasFraction = false;
    int64_t whole = 0;
    int64_t fractionMs = 0;
    if (!ReadPart(&in, &hasFraction, &whole, &fractionMs)) return false;
    char16_t letter = in.Peek();
    in.Advance();
    int unit = next;
    while (unit < kUnitCount && (kUnits[unit].letter != letter || kUnits[unit].timePart != inTime)) ++unit;
    if (unit == kUnitCount) return false;
    next = unit + 1;
    sawFraction = hasFraction;
    // Ten digits of years is 3.2e20 ms; refuse before the sum can overflow.
    int64_t limit = INT64_MAX / 4 / kUnits[unit].ms;
    if (whole > limit || whole < -limit) return false;
    sum += whole * kUnits[unit].ms + fractionMs * kUnits[unit].ms / 1000;
    if (sum > INT64_MAX / 4 || sum < -INT64_MAX / 4) return false;
    ++parts;
  }
  if (parts == 0) return false;
  *total = negateAll ? -sum : sum;
  return true;
}

}  // namespace

int TInterval::FromISOString(const TString& text) {
  int64_t total = 0;
  if (!ParseDuration(text.GetConstBuffer(), text.GetLength(), &total) || total > kMaxTotal || total < -kMaxTotal) {
    LogLine(514, u"TInterval::FromISOString: cannot read \"%s\" as a duration, %E", &text, kErrBadParameter);
    return kErrBadParameter;
  }
  SetTotal(total);
  return 0;
}
