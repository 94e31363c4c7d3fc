// The formatter of TString (TString::SPrintf and its va_list core
// TString::VSPrintf), and the argument sources it reads from.
//
// Format string. A format that opens with "{" has its brace-balanced
// opening block (nested braces counted) taken apart: the block is not
// displayed and holds no conversions; it stays in the format string the
// result records (GetFormatString gives the whole format, block included),
// which is where a reader finds it again (FormatLeadingBlockLength in
// format_args.h tells its length). A block that never closes is no block:
// the whole format is formatted. Elsewhere "{" and "}" are copied like any
// other character.
//
// Conversion syntax after "%", in this order: "-" (left-justify), "0" (pad
// numbers with zeros), a width (digits or "*"), "." and a precision (digits
// or "*"), "~" (the plain, machine form), ";" (accepted, no effect), "l" or
// "L" (64-bit argument), the conversion character. A "*" width that is
// negative means "-" and its magnitude; a negative "*" precision means none.
// Widths and precisions are clamped to kFormatMaxField.
//
// Locale. Numbers take the thousands separator, decimal separator and
// negative sign, intervals the time separator, of the user's locale
// (platform/locale.h). "~" drops the grouping and writes the sign as an ASCII
// "-"; the decimal separator stays the locale's.
//
// Conversions; the raw (machine) form recorded as the parameter follows "=>".
//   d i   int (64-bit with l): decimal, grouped by threes unless "~". Width,
//         "-", "0" and the precision (minimum digits) as in C.  => "%I64d"
//   u     unsigned int: as d, unsigned.  => decimal digits
//   x X   unsigned int: hexadecimal, lower/upper case digits; width, "-",
//         "0" and precision as in C; never grouped.  => decimal digits
//   #     two numbers, part and whole: part * 100 / whole with `precision`
//         decimals (truncated), grouped unless "~". A whole of 0 gives 100.
//         When the part is 21474836 or more (2^63 / 100 or more with l) both
//         are divided by 100 first, so the product cannot overflow the
//         32-bit (64-bit) form; the precision lost there is deliberate.
//         => the percentage, ungrouped, "." and "-"
//   F     int: fixed point, the value divided by 10^precision, the remainder
//         after the decimal separator; grouped unless "~".  => "%I64d"
//   $     pointer to bytes: hex dump, two digits per byte, one blank between
//         bytes. The width is the byte count (at most 21845, so the text is
//         at most 65534 units: width * 3 - 1); a precision cuts the text to
//         that many units. "~" upper-case digits. A null pointer dumps
//         nothing.  => the whole dump in upper case
//   E     library error code: the code's text (errors.h GetErrorText, group
//         16000 key "0000" when it has none), blanks stripped at both ends,
//         put into the format of group 16000 key "Errr" with the code
//         ("%s (error %~d)" when that key is missing); "~" gives the text
//         alone.  => the code
//   D T   pointer to TDate: the date, the time of day; I pointer to
//         TInterval. Forms and raw forms in tstring_format_dates.cpp; null
//         prints nothing and records "0000-00-00T00:00:00.000Z+00:00" (D T)
//         or "" (I).
//   K k   size in kilobytes (64-bit with l): 0 prints the text of group
//         16000 key "Zero" and a blank; up to 1023 the number, a blank and
//         the first unit letter (never grouped); above, while the value is
//         1023898 or more and fewer than eleven units are used it is divided
//         by 1024, rounding up, and then shown in tenths of the next unit
//         (value * 10 / 1024, rounded to nearest) as "%.1LF %c" ("~": the
//         ungrouped form). Unit letters from group 16000 key "KMkm", else
//         "KMGTPEZYkmgtpezy"; k starts at the ninth.  => "%I64u"
//   p     pointer to four bytes: "%u.%u.%u.%u"; null prints nothing.
//         => the text
//   s     TString*: the string, cut to the precision when one is given
//         (never inside a surrogate pair); null prints "nil".  => the whole
//         string ("" for null)
//   S     as s, with the precision 31 when none is given
//   c C   character: a UTF-16 unit (a lone surrogate is kept, as TString
//         keeps them) or a code point, written as a pair above U+FFFF and
//         as U+FFFD beyond U+10FFFF.  => the character
//   Y     int: the text of group 16000 key "Yes_" (non-zero) or "No__" (0).
//   y     int: "true" or "false", never translated.  Y y => "1" or "0"
//   % ^ { }  the character itself; no argument, no parameter.
// Any other conversion character, and a "%" left unterminated at the end of
// the format, are copied as they stand, consuming nothing. Text, numbers and
// characters are padded with blanks to the width (on the right with "-").
//
// Parameters. One record per conversion that takes an argument (the kind is
// the conversion character, "i" recorded as "i"); its span is the whole
// field written, padding included. The result also records the format.
//
// Output beyond kFormatMaxOutput units is cut. Formatting never fails.
#ifndef PLINTH_FOUNDATION_TSTRING_FORMAT_H_
#define PLINTH_FOUNDATION_TSTRING_FORMAT_H_

#include <cstdarg>
#include <cstdint>

#include "foundation/export.h"
#include "foundation/format_args.h"

class TString;

constexpr int kFormatMaxField = 65535;
constexpr int kFormatMaxOutput = 1 << 24;

// One argument with the kind it was given as: kInt, kLong or kPointer.
struct FormatArgWord {
  FormatArgKind kind = FormatArgKind::kNone;
  uint64_t value = 0;
};

// Where the formatter takes its arguments: a va_list (read by the
// conversion table of format_args.h), or typed words. Typed words are
// checked: a pointer asked where an integer was given, or the reverse, or
// an argument past the last, reads as 0, so a wrong argument can never be
// dereferenced.
class PLINTH_API FormatArgSource {
 public:
  explicit FormatArgSource(va_list* ap) : m_ap(ap) {}
  FormatArgSource(const FormatArgWord* words, int count) : m_words(words), m_count(count) {}

  // `kind` is kInt, kLong or kPointer.
  uint64_t Take(FormatArgKind kind);

 private:
  va_list* m_ap = nullptr;
  const FormatArgWord* m_words = nullptr;
  int m_count = 0;
  int m_next = 0;
};

// Replaces `out`'s text with `format` (`length` units, -1 up to the
// terminator) rendered with `args`; records the parameters and the format
// when `record`. Returns the length of the result.
PLINTH_API int FormatWithSource(TString* out, const char16_t* format, int length, FormatArgSource* args,
                                bool record);

#endif  // PLINTH_FOUNDATION_TSTRING_FORMAT_H_
