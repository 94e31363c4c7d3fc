// Formatting a TString from a format and a va_list.
//
// VFormat renders every conversion in its plain machine form: d i u as
// ungrouped decimal (64-bit with 'l'), x X as hexadecimal, c C as the
// character, s S as the string ("nil" for null), E as the code's number,
// % ^ { } as themselves. Width, '-' and '0' are honoured. The locale-aware
// forms and the date, size and dump conversions belong to SPrintf.
#ifndef PLINTH_FOUNDATION_TSTRING_FORMAT_H_
#define PLINTH_FOUNDATION_TSTRING_FORMAT_H_

#include <cstdarg>

#include "foundation/export.h"

class TString;

// Replaces `out` with `format` (of `length` units, -1 up to the terminator)
// rendered with the arguments in `ap`.
PLINTH_API void VFormat(TString* out, const char16_t* format, int length, va_list ap);

#endif  // PLINTH_FOUNDATION_TSTRING_FORMAT_H_
