// Reading values back out of a text: DoScanf, the core of TString::SScanf.
//
// The format is matched against the input from the start:
//   - blanks, tabs, CR, LF, VT, FF in the format match any run of those in
//     the input, including none;
//   - any other character matches itself, "%%" a "%";
//   - a conversion "%" [*] [width] [l|L] char reads one value; "*" reads it
//     without assigning (and does not count it), the width caps the units
//     the field may use, "l" selects the 64-bit target.
// Conversions and their targets:
//   d   optional sign and decimal digits      int*      (l: int64_t*)
//   u   optional "+" and decimal digits       unsigned* (l: uint64_t*)
//   x X optional "0x"/"0X" and hex digits     unsigned* (l: uint64_t*)
//   s   a run of non-blank units              TString*
//   c   exactly `width` units (1 by default), blanks included, no skipping
//                                             char16_t* (room for width units)
// d u x X s skip blanks in the input first, as C's scanf does. A value
// that does not fit its target is refused: it is not assigned and the scan
// stops there, as at any other mismatch. A "-" is refused by u, x and X
// (C would wrap it round). Any other conversion character stops the scan.
//
// The result is the number of values assigned; unlike C, running out of
// input before the first conversion gives 0, not EOF. The input is never
// read past `inputLength` units; null targets are refused (the scan stops).
#ifndef PLINTH_FOUNDATION_TSTRING_SCAN_H_
#define PLINTH_FOUNDATION_TSTRING_SCAN_H_

#include <cstdarg>

#include "foundation/export.h"

// `inputLength` and `formatLength` -1 read up to the terminator.
PLINTH_API int DoScanf(const char16_t* input, int inputLength, const char16_t* format, int formatLength, va_list ap);

#endif  // PLINTH_FOUNDATION_TSTRING_SCAN_H_
