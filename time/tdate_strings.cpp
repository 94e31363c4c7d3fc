// The ISO 8601 and RFC 822-style text forms of TDate.
#include "foundation/errors.h"
#include "foundation/log.h"
#include "foundation/tstring.h"
#include "time/calendar.h"
#include "time/date_text.h"
#include "time/tdate.h"

namespace {

using date_text::Cursor;
using date_text::PutTwo;

constexpr char16_t kDayNames[7][4] = {u"SUN", u"MON", u"TUE", u"WED", u"THU", u"FRI", u"SAT"};
constexpr char16_t kMonthNames[12][4] = {u"JAN", u"FEB", u"MAR", u"APR", u"MAY", u"JUN",
                                         u"JUL", u"AUG", u"SEP", u"OCT", u"NOV", u"DEC"};
constexpr char16_t kDayText[7][4] = {u"Sun", u"Mon", u"Tue", u"Wed", u"Thu", u"Fri", u"Sat"};
constexpr char16_t kMonthText[12][4] = {u"Jan", u"Feb", u"Mar", u"Apr", u"May", u"Jun",
                                        u"Jul", u"Aug", u"Sep", u"Oct", u"Nov", u"Dec"};

// Longest text any writer makes, with every field at its widest.
constexpr int kTextUnits = 48;

// The numbers a writer prints: the date's fields, or zeros for the default date.
struct Fields {
  uint32_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
};

Fields FieldsOf(const TDate& date) {
  Fields f;
  if (date.IsDefault()) return f;
  f.year = date.GetYear();
  f.month = date.GetMonth();
  f.day = date.GetDay();
  f.hour = date.GetHour();
  f.minute = date.GetMinute();
  f.second = date.GetSecond();
  f.millisecond = date.GetMillisecond();
  return f;
}

// "%04d-%02d-%02dT%02d:%02d:%02d" or, without delimiters, "%04d%02d%02dT%02d%02d%02d".
char16_t* PutDateTime(char16_t* p, const Fields& f, bool delimited) {
  p = date_text::PutDecimal(p, f.year, 4);
  if (delimited) *p++ = u'-';
  p = PutTwo(p, f.month);
  if (delimited) *p++ = u'-';
  p = PutTwo(p, f.day);
  *p++ = u'T';
  p = PutTwo(p, f.hour);
  if (delimited) *p++ = u':';
  p = PutTwo(p, f.minute);
  if (delimited) *p++ = u':';
  return PutTwo(p, f.second);
}

TString ShortISO(const TDate& date, bool delimited) {
  TDate abs(date);
  if ((date.GetFlags() & TDate::kFlagZeroOffsetInISO) == 0 && !date.IsDefault()) abs.FloatingToAbs();
  char16_t text[kTextUnits];
  char16_t* p = PutDateTime(text, date.IsDefault() ? Fields() : FieldsOf(abs), delimited);
  *p++ = u'Z';
  return TString(text, static_cast<int>(p - text));
}

// What the readers take from a text.
struct Parsed {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
  int gmtOffset = TDate::kUnknownGMTOffset;
};

bool InRange(const Parsed& v) {
  return v.year >= calendar::kMinYear && v.year <= calendar::kMaxYear && v.month >= 1 && v.month <= 12 &&
         v.day >= 1 && v.day <= calendar::DaysInMonth(v.year, v.month) && v.hour <= 23 && v.minute <= 59 &&
         v.second <= 59 && v.millisecond <= 999;
}

bool IsAllZero(const Parsed& v) {
  return v.year == 0 && v.month == 0 && v.day == 0 && v.hour == 0 && v.minute == 0 && v.second == 0 &&
         v.millisecond == 0;
}

// "+hh", "+hh:mm" or "+hhmm" after the sign.
bool ReadNumericZone(Cursor* in, int* minutes) {
  bool negative = in->Peek() == u'-';
  in->Advance();
  int n = 0;
  int64_t v = in->Digits(&n);
  int hours = 0;
  int mins = 0;
  if (n == 1 || n == 2) {
    hours = static_cast<int>(v);
    if (in->Take(u':') && !in->Number(2, &mins)) return false;
  } else if (n == 3 || n == 4) {
    hours = static_cast<int>(v / 100);
    mins = static_cast<int>(v % 100);
  } else {
    return false;
  }
  if (hours > 23 || mins > 59) return false;
  *minutes = (negative ? -1 : 1) * (hours * 60 + mins);
  return true;
}

bool ParseISO(const char16_t* text, int length, Parsed* v) {
  Cursor in(text, length);
  in.SkipBlanks();
  int n = 0;
  int64_t first = in.Digits(&n);
  if (n == 0) return false;
  if (in.Take(u'-')) {
    if (n > 9) return false;
    v->year = static_cast<int>(first);
    if (!in.Number(2, &v->month) || !in.Take(u'-') || !in.Number(2, &v->day)) return false;
  } else if (n == 8) {
    v->year = static_cast<int>(first / 10000);
    v->month = static_cast<int>(first / 100 % 100);
    v->day = static_cast<int>(first % 100);
  } else {
    return false;
  }
  char16_t sep = in.Peek();
  if (sep == u'T' || sep == u't' || (sep == u' ' && in.SkipBlanks() > 0 && !in.AtEnd())) {
    if (sep != u' ') in.Advance();
    int64_t t = in.Digits(&n);
    bool withSeconds = false;
    if ((n == 1 || n == 2) && in.Take(u':')) {
      v->hour = static_cast<int>(t);
      if (!in.Number(2, &v->minute)) return false;
      if (in.Take(u':')) {
        if (!in.Number(2, &v->second)) return false;
        withSeconds = true;
      }
    } else if (n == 4) {
      v->hour = static_cast<int>(t / 100);
      v->minute = static_cast<int>(t % 100);
    } else if (n == 6) {
      v->hour = static_cast<int>(t / 10000);
      v->minute = static_cast<int>(t / 100 % 100);
      v->second = static_cast<int>(t % 100);
      withSeconds = true;
    } else {
      return false;
    }
    if (withSeconds && (in.Peek() == u'.' || in.Peek() == u',')) {
      in.Advance();
      int digits = 0;
      int64_t fraction = in.Digits(&digits);
      if (digits == 0 || digits > 18) return false;
      // Up to three digits are the millisecond count ToISOString writes.
      while (digits > 3) {
        fraction /= 10;
        --digits;
      }
      v->millisecond = static_cast<int>(fraction);
    }
    if (in.Peek() == u'Z' || in.Peek() == u'z') {
      in.Advance();
      v->gmtOffset = 0;
    } else if (in.Peek() == u'+' || in.Peek() == u'-') {
      if (!ReadNumericZone(&in, &v->gmtOffset)) return false;
    }
  }
  in.SkipBlanks();
  return in.AtEnd();
}

int NameIndex(const char16_t (*names)[4], int count, const char16_t name[3]) {
  for (int i = 0; i < count; ++i) {
    if (names[i][0] == name[0] && names[i][1] == name[1] && names[i][2] == name[2]) return i;
  }
  return -1;
}

bool ParseRFC(const char16_t* text, int length, Parsed* v) {
  Cursor in(text, length);
  in.SkipBlanks();
  char16_t name[3];
  if (!date_text::IsDigit(in.Peek())) {
    if (!in.Name3(name) || NameIndex(kDayNames, 7, name) < 0 || !in.Take(u',')) return false;
    in.SkipBlanks();
  }
  if (!in.Number(2, &v->day)) return false;
  in.SkipBlanks();
  if (!in.Name3(name)) return false;
  v->month = NameIndex(kMonthNames, 12, name) + 1;
  if (v->month == 0) return false;
  in.SkipBlanks();
  if (!in.Number(4, &v->year)) return false;
  if (in.SkipBlanks() == 0) return false;
  if (!in.Number(2, &v->hour) || !in.Take(u':') || !in.Number(2, &v->minute)) return false;
  if (in.Take(u':') && !in.Number(2, &v->second)) return false;
  in.SkipBlanks();
  v->gmtOffset = 0;
  if (in.Peek() == u'+' || in.Peek() == u'-') {
    bool negative = in.Peek() == u'-';
    in.Advance();
    int n = 0;
    int64_t hhmm = in.Digits(&n);
    if (n != 4 || hhmm / 100 > 23 || hhmm % 100 > 59) return false;
    v->gmtOffset = (negative ? -1 : 1) * static_cast<int>(hhmm / 100 * 60 + hhmm % 100);
  } else if (!in.AtEnd() && !date_text::IsBlank(in.Peek())) {
    char16_t zone[3] = {0, 0, 0};
    int letters = 0;
    for (char16_t c = date_text::AsciiUpper(in.Peek()); letters < 3 && c >= u'A' && c <= u'Z';
         c = date_text::AsciiUpper(in.Peek())) {
      zone[letters++] = c;
      in.Advance();
    }
    bool known = (letters == 3 && zone[0] == u'G' && zone[1] == u'M' && zone[2] == u'T') ||
                 (letters == 3 && zone[0] == u'U' && zone[1] == u'T' && zone[2] == u'C') ||
                 (letters == 2 && zone[0] == u'U' && zone[1] == u'T') || (letters == 1 && zone[0] == u'Z');
    if (!known) return false;
  }
  in.SkipBlanks();
  return in.AtEnd();
}

}  // namespace

void TDate::ToISOString(TString* out) const {
  Fields f = FieldsOf(*this);
  int offset = 0;
  // An unknown offset (-1) is written as it stands: "-0001".
  if (!IsDefault() && (m_flags & kFlagZeroOffsetInISO) == 0) {
    offset = m_gmtOffset;
  }
  char16_t text[kTextUnits];
  char16_t* p = PutDateTime(text, f, true);
  *p++ = u'.';
  p = PutTwo(p, f.millisecond);
  *p++ = offset < 0 ? u'-' : u'+';
  int magnitude = offset < 0 ? -offset : offset;
  p = PutTwo(p, static_cast<uint32_t>(magnitude / 60));
  p = PutTwo(p, static_cast<uint32_t>(magnitude % 60));
  out->Assign(text, static_cast<int>(p - text));
}

TString TDate::ToISOString() const {
  TString out;
  ToISOString(&out);
  return out;
}

TString TDate::ToShortISOString() const { return ShortISO(*this, false); }

TString TDate::ToShortDelimitedISOString() const { return ShortISO(*this, true); }

TString TDate::ToRFCString() const {
  TDate abs(*this);
  abs.FloatingToAbs();
  int dow = abs.GetDOW();
  int month = abs.m_month;
  char16_t text[kTextUnits];
  char16_t* p = text;
  for (int i = 0; i < 3; ++i) *p++ = kDayText[dow][i];
  *p++ = u',';
  *p++ = u' ';
  p = PutTwo(p, abs.m_day);
  *p++ = u' ';
  for (int i = 0; i < 3; ++i) *p++ = (month >= 1 && month <= 12) ? kMonthText[month - 1][i] : u'?';
  *p++ = u' ';
  p = date_text::PutDecimal(p, abs.m_year, 4);
  *p++ = u' ';
  p = PutTwo(p, abs.m_hour);
  *p++ = u':';
  p = PutTwo(p, abs.m_minute);
  *p++ = u':';
  p = PutTwo(p, abs.m_second);
  for (char16_t c : {u' ', u'G', u'M', u'T'}) *p++ = c;
  return TString(text, static_cast<int>(p - text));
}

int TDate::FromISOString(const TString& text) {
  Parsed v;
  bool ok = ParseISO(text.GetConstBuffer(), text.GetLength(), &v);
  if (ok && IsAllZero(v)) {
    Reset();
    return 0;
  }
  if (!ok || !InRange(v)) {
    LogLine(514, u"TDate::FromISOString: cannot read \"%s\" as a date, %E", &text, kErrBadParameter);
    return kErrBadParameter;
  }
  Set(static_cast<unsigned short>(v.year), static_cast<unsigned short>(v.month), static_cast<unsigned short>(v.day),
      static_cast<unsigned short>(v.hour), static_cast<unsigned short>(v.minute),
      static_cast<unsigned short>(v.second), static_cast<unsigned short>(v.millisecond));
  m_gmtOffset = static_cast<int16_t>(v.gmtOffset);
  return 0;
}

int TDate::FromRFCString(const TString& text) {
  Parsed v;
  if (!ParseRFC(text.GetConstBuffer(), text.GetLength(), &v) || !InRange(v)) {
    LogLine(514, u"TDate::FromRFCString: cannot read \"%s\" as a date, %E", &text, kErrBadParameter);
    return kErrBadParameter;
  }
  Set(static_cast<unsigned short>(v.year), static_cast<unsigned short>(v.month), static_cast<unsigned short>(v.day),
      static_cast<unsigned short>(v.hour), static_cast<unsigned short>(v.minute),
      static_cast<unsigned short>(v.second), static_cast<unsigned short>(v.millisecond));
  m_gmtOffset = static_cast<int16_t>(v.gmtOffset);
  return 0;
}
