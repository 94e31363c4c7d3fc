// The formatter's date, time and interval conversions.
//
//   D  pointer to TDate. Null prints nothing. Without "~" the date in the
//      locale's numeric form (field order and separator of the locale, see
//      platform/locale.h), chosen by the precision: none or 0 the four-digit
//      year, 1 the two-digit year, 2 the ISO form "YYYY-MM-DD" whatever the
//      locale. Day and month have no leading zero unless the "0" flag asks
//      for one (the ISO form always has them). With "~" a never-set date
//      (TDate::IsDefault) prints the text of group 16000 key "Nevr", any
//      other the date as above, a blank and the time as "%T" would.
//   T  pointer to TDate: the time of day on the 24-hour clock with the
//      locale's time separator; precision none or 0 "h:mm:ss", 1 "h:mm",
//      2 "h:mm:ss" and the milliseconds after the decimal separator. The
//      hour has no leading zero unless "0". Null prints nothing.
//   Raw form of D and T: "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ%c%02d:%02d"
//      (the fields, then the offset from GMT; an unknown offset as +00:00);
//      a null or never-set date gives "0000-00-00T00:00:00.000Z+00:00".
//   I  pointer to TInterval, shown by magnitude after the negative sign
//      (the locale's, or "-" with "~"): with days "%~d %02d:%02d:%02d";
//      without, by precision: none or 0 "%02d:%02d:%02d" (hours, minutes,
//      seconds), 1 "%d:%02d:%02d", 2 "%d:%02d" (all the minutes, then the
//      seconds); ":" is the locale's time separator. "~" appends the
//      milliseconds as "%03d" after the decimal separator. Null prints
//      nothing. Raw form: "%dT%02d:%02d:%02d.%03d" of the magnitudes with a
//      leading "-" when negative; "" for null.
#include "foundation/resources.h"
#include "foundation/tstring.h"
#include "foundation/tstring_format_internal.h"
#include "platform/locale.h"
#include "time/tdate.h"
#include "time/tinterval.h"

namespace format_internal {
namespace {

constexpr char16_t kNullDateRaw[] = u"0000-00-00T00:00:00.000Z+00:00";

// `v` with at least `digits` digits.
void PutPadded(OutBuffer* out, int64_t v, int digits) {
  uint64_t magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  if (v < 0) out->Put(u'-');
  char16_t text[24];
  int at = 24;
  do {
    text[--at] = static_cast<char16_t>(u'0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  for (int k = 24 - at; k < digits; ++k) out->Put(u'0');
  out->Put(text + at, 24 - at);
}

void PutText(OutBuffer* out, const char16_t* text) { out->Put(text, Units(text)); }

void DateRaw(const TDate& d, OutBuffer* raw) {
  if (d.IsDefault()) {
    PutText(raw, kNullDateRaw);
    return;
  }
  PutPadded(raw, d.GetYear(), 4);
  raw->Put(u'-');
  PutPadded(raw, d.GetMonth(), 2);
  raw->Put(u'-');
  PutPadded(raw, d.GetDay(), 2);
  raw->Put(u'T');
  PutPadded(raw, d.GetHour(), 2);
  raw->Put(u':');
  PutPadded(raw, d.GetMinute(), 2);
  raw->Put(u':');
  PutPadded(raw, d.GetSecond(), 2);
  raw->Put(u'.');
  PutPadded(raw, d.GetMillisecond(), 3);
  raw->Put(u'Z');
  // An unknown offset (-1) is written as it stands: "-00:01".
  int offset = d.GetGMTOffset();
  raw->Put(offset < 0 ? u'-' : u'+');
  if (offset < 0) offset = -offset;
  PutPadded(raw, offset / 60, 2);
  raw->Put(u':');
  PutPadded(raw, offset % 60, 2);
}

void PutDate(OutBuffer* out, const TDate& d, const ConversionSpec& conv) {
  const platform::LocaleSeparatorsSpec& seps = platform::LocaleSeparators();
  int form = conv.precision < 0 ? 0 : conv.precision;
  if (form == 2) {
    PutPadded(out, d.GetYear(), 4);
    out->Put(u'-');
    PutPadded(out, d.GetMonth(), 2);
    out->Put(u'-');
    PutPadded(out, d.GetDay(), 2);
    return;
  }
  int small = conv.zero ? 2 : 1;
  for (int i = 0; i < 3; ++i) {
    if (i > 0) PutText(out, seps.date);
    switch (seps.dateOrder[i]) {
      case 'D': PutPadded(out, d.GetDay(), small); break;
      case 'M': PutPadded(out, d.GetMonth(), small); break;
      default: PutPadded(out, form == 1 ? d.GetYear() % 100 : d.GetYear(), form == 1 ? 2 : 4); break;
    }
  }
}

void PutTime(OutBuffer* out, const TDate& d, const ConversionSpec& conv) {
  const platform::LocaleSeparatorsSpec& seps = platform::LocaleSeparators();
  int form = conv.precision < 0 ? 0 : conv.precision;
  PutPadded(out, d.GetHour(), conv.zero ? 2 : 1);
  PutText(out, seps.time);
  PutPadded(out, d.GetMinute(), 2);
  if (form == 1) return;
  PutText(out, seps.time);
  PutPadded(out, d.GetSecond(), 2);
  if (form != 2) return;
  PutText(out, seps.decimal);
  PutPadded(out, d.GetMillisecond(), 3);
}

int64_t Magnitude(int v) { return v < 0 ? -static_cast<int64_t>(v) : v; }

void PutInterval(OutBuffer* out, const TInterval& iv, const ConversionSpec& conv, OutBuffer* raw) {
  const platform::LocaleSeparatorsSpec& seps = platform::LocaleSeparators();
  bool negative = iv.IsNegative();
  int64_t days = Magnitude(iv.GetDays());
  int64_t hours = Magnitude(iv.GetHours());
  int64_t minutes = Magnitude(iv.GetMinutes());
  int64_t seconds = Magnitude(iv.GetSeconds());
  int64_t ms = Magnitude(iv.GetMilliseconds());
  if (negative) PutText(out, conv.tilde ? u"-" : seps.negative);
  int form = conv.precision < 0 ? 0 : conv.precision;
  if (days != 0) {
    PutPadded(out, days, 1);
    out->Put(u' ');
    PutPadded(out, hours, 2);
    PutText(out, seps.time);
    PutPadded(out, minutes, 2);
    PutText(out, seps.time);
    PutPadded(out, seconds, 2);
  } else if (form == 2) {
    PutPadded(out, hours * 60 + minutes, 1);
    PutText(out, seps.time);
    PutPadded(out, seconds, 2);
  } else {
    PutPadded(out, hours, form == 1 ? 1 : 2);
    PutText(out, seps.time);
    PutPadded(out, minutes, 2);
    PutText(out, seps.time);
    PutPadded(out, seconds, 2);
  }
  if (conv.tilde) {
    PutText(out, seps.decimal);
    PutPadded(out, ms, 3);
  }
  if (negative) raw->Put(u'-');
  PutPadded(raw, days, 1);
  raw->Put(u'T');
  PutPadded(raw, hours, 2);
  raw->Put(u':');
  PutPadded(raw, minutes, 2);
  raw->Put(u':');
  PutPadded(raw, seconds, 2);
  raw->Put(u'.');
  PutPadded(raw, ms, 3);
}

}  // namespace

void FormatTimeValue(const ConversionSpec& conv, const void* value, OutBuffer* out, TString* raw) {
  OutBuffer rawText;
  if (conv.conversion == u'I') {
    if (value != nullptr) PutInterval(out, *static_cast<const TInterval*>(value), conv, &rawText);
    raw->Assign(rawText.Data(), rawText.Length());
    return;
  }
  if (value == nullptr) {
    *raw = kNullDateRaw;
    return;
  }
  const TDate& d = *static_cast<const TDate*>(value);
  DateRaw(d, &rawText);
  raw->Assign(rawText.Data(), rawText.Length());
  if (conv.conversion == u'T') {
    PutTime(out, d, conv);
    return;
  }
  if (conv.tilde && d.IsDefault()) {
    TString never;
    if (!LoadResourceText(16000, ResKey("Nevr"), &never)) never = u"Never";
    out->Put(never.GetConstBuffer(), never.GetLength());
    return;
  }
  PutDate(out, d, conv);
  if (conv.tilde) {
    out->Put(u' ');
    ConversionSpec time;
    PutTime(out, d, time);
  }
}

}  // namespace format_internal
