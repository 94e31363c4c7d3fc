// The separators of the user's locale that the formatter writes: decimal,
// thousands, negative sign and time, and the order and separator of its
// numeric dates.
//
// They are read once, on first use, from the locale the environment names
// (LC_ALL, LC_NUMERIC, ... as the C library resolves them). A locale that
// gives no separator, or names a locale that is not installed, yields the
// English ones: "." "," "-" ":", dates month/day/year with "/". The date
// order and separator come from the locale's date format (D_FMT). Each
// separator is at most
// kMaxSeparatorUnits UTF-16 units; a longer one is replaced by its fallback.
#ifndef PLINTH_PLATFORM_LOCALE_H_
#define PLINTH_PLATFORM_LOCALE_H_

namespace platform {

constexpr int kMaxSeparatorUnits = 3;

struct LocaleSeparatorsSpec {
  // Terminated UTF-16 texts.
  char16_t decimal[kMaxSeparatorUnits + 1] = u".";
  char16_t thousands[kMaxSeparatorUnits + 1] = u",";
  char16_t negative[kMaxSeparatorUnits + 1] = u"-";
  char16_t time[kMaxSeparatorUnits + 1] = u":";
  char16_t date[kMaxSeparatorUnits + 1] = u"/";
  char dateOrder[4] = "MDY";  // the fields of a numeric date, in order
};

// The separators in force: those set by SetLocaleSeparatorsForTesting, else
// the user's locale's (read on the first call, thread-safely).
const LocaleSeparatorsSpec& LocaleSeparators();

// Reads the separators of the locale `name` now ("" for the one the
// environment names), with the fallbacks above.
LocaleSeparatorsSpec ReadLocaleSeparators(const char* name);

// Test seam: from now on LocaleSeparators() gives a copy of `*seps`; null
// goes back to the user's locale. Not to be called while other threads
// format.
void SetLocaleSeparatorsForTesting(const LocaleSeparatorsSpec* seps);

}  // namespace platform

#endif  // PLINTH_PLATFORM_LOCALE_H_
