#include "platform/locale.h"

#include <langinfo.h>
#include <locale.h>

#include <atomic>
#include <cstdint>

namespace platform {
namespace {

// Decodes a short UTF-8 text into `out`; false when it is empty, ill-formed
// or longer than the slot.
bool Store(const char* utf8, char16_t (&out)[kMaxSeparatorUnits + 1]) {
  if (utf8 == nullptr || utf8[0] == 0) return false;
  char16_t units[kMaxSeparatorUnits + 1] = {};
  int n = 0;
  const auto* p = reinterpret_cast<const unsigned char*>(utf8);
  while (*p != 0) {
    uint32_t cp = 0;
    int extra = 0;
    if (*p < 0x80) { cp = *p; } else if ((*p & 0xE0) == 0xC0) { cp = *p & 0x1F; extra = 1; }
    else if ((*p & 0xF0) == 0xE0) { cp = *p & 0x0F; extra = 2; }
    else if ((*p & 0xF8) == 0xF0) { cp = *p & 0x07; extra = 3; }
    else { return false; }
    ++p;
    for (int i = 0; i < extra; ++i, ++p) {
      if ((*p & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (*p & 0x3F);
    }
    if (cp >= 0xD800 && cp <= 0xDFFF) return false;
    if (cp > 0xFFFF) {
      if (n + 2 > kMaxSeparatorUnits || cp > 0x10FFFF) return false;
      cp -= 0x10000;
      units[n++] = static_cast<char16_t>(0xD800 + (cp >> 10));
      units[n++] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    } else {
      if (n + 1 > kMaxSeparatorUnits) return false;
      units[n++] = static_cast<char16_t>(cp);
    }
  }
  for (int i = 0; i <= kMaxSeparatorUnits; ++i) out[i] = units[i];
  return true;
}

// The literal text between the first two fields of a strftime time format
// ("%H:%M:%S" gives ":"; "%H.%M" gives ".").
bool TimeSeparatorOf(const char* format, char16_t (&out)[kMaxSeparatorUnits + 1]) {
  if (format == nullptr) return false;
  const char* p = format;
  while (*p != 0 && *p != '%') ++p;  // text before the first field
  if (*p == 0) return false;
  ++p;
  while (*p == 'E' || *p == 'O') ++p;  // field modifiers
  if (*p == 0) return false;
  ++p;
  char sep[8] = {};
  int n = 0;
  while (*p != 0 && *p != '%' && n < 7) sep[n++] = *p++;
  if (*p != '%') return false;
  return Store(sep, out);
}

// The field order and first separator of a strftime date format
// ("%m/%d/%y" gives MDY and "/"; "%d.%m.%Y" DMY and "."). False when the
// format does not name the three fields.
bool DateFormOf(const char* format, char (&order)[4], char16_t (&sep)[kMaxSeparatorUnits + 1]) {
  if (format == nullptr) return false;
  char fields[4] = {};
  int n = 0;
  char between[8] = {};
  int betweenUnits = 0;
  for (const char* p = format; *p != 0; ++p) {
    if (*p != '%') {
      if (n == 1 && betweenUnits < 7) between[betweenUnits++] = *p;
      continue;
    }
    ++p;
    while (*p == 'E' || *p == 'O' || *p == '-' || *p == '_' || *p == '0') ++p;
    if (*p == 0) break;
    char field = *p == 'd' || *p == 'e' ? 'D' : *p == 'm' || *p == 'b' || *p == 'B' ? 'M' : *p == 'y' || *p == 'Y' ? 'Y' : 0;
    if (*p == 'D') {  // %D is %m/%d/%y
      order[0] = 'M'; order[1] = 'D'; order[2] = 'Y'; order[3] = 0;
      return Store("/", sep);
    }
    if (field == 0 || n == 3) return false;
    fields[n++] = field;
  }
  if (n != 3 || fields[0] == fields[1] || fields[1] == fields[2] || fields[0] == fields[2]) return false;
  char16_t read[kMaxSeparatorUnits + 1] = {};
  if (!Store(between, read)) return false;
  for (int i = 0; i < 3; ++i) order[i] = fields[i];
  order[3] = 0;
  for (int i = 0; i <= kMaxSeparatorUnits; ++i) sep[i] = read[i];
  return true;
}

std::atomic<bool> g_overridden{false};
LocaleSeparatorsSpec g_override;

}  // namespace

LocaleSeparatorsSpec ReadLocaleSeparators(const char* name) {
  LocaleSeparatorsSpec seps;
  locale_t loc = newlocale(LC_ALL_MASK, name != nullptr ? name : "", static_cast<locale_t>(0));
  if (loc == static_cast<locale_t>(0)) return seps;
  // Store leaves the fallback in place when the locale gives nothing usable.
  Store(nl_langinfo_l(RADIXCHAR, loc), seps.decimal);
  Store(nl_langinfo_l(THOUSEP, loc), seps.thousands);
  Store(nl_langinfo_l(NEGATIVE_SIGN, loc), seps.negative);
  TimeSeparatorOf(nl_langinfo_l(T_FMT, loc), seps.time);
  DateFormOf(nl_langinfo_l(D_FMT, loc), seps.dateOrder, seps.date);
  freelocale(loc);
  return seps;
}

const LocaleSeparatorsSpec& LocaleSeparators() {
  if (g_overridden.load(std::memory_order_acquire)) return g_override;
  static const LocaleSeparatorsSpec user = ReadLocaleSeparators("");
  return user;
}

void SetLocaleSeparatorsForTesting(const LocaleSeparatorsSpec* seps) {
  if (seps == nullptr) {
    g_overridden.store(false, std::memory_order_release);
    return;
  }
  g_override = *seps;
  g_overridden.store(true, std::memory_order_release);
}

}  // namespace platform
