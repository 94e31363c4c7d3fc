// Pieces shared by the TString source files; not part of the interface.
#ifndef PLINTH_FOUNDATION_TSTRING_INTERNAL_H_
#define PLINTH_FOUNDATION_TSTRING_INTERNAL_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/tstring.h"

namespace tstring_internal {

inline constexpr char32_t kReplacement = 0xFFFD;

inline bool IsHighSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
inline bool IsLowSurrogate(uint32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }
inline bool IsSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDFFF; }

// Units up to the terminator; 0 for null.
int TextLength(const char16_t* text);

// Reads the code point at units[*i] (of n), advancing *i; an unpaired
// surrogate gives U+FFFD.
char32_t NextCodePoint(const char16_t* units, int n, int* i);
// Appends the UTF-8 form of `cp` (a scalar value).
void AppendUtf8(std::string* out, char32_t cp);
// Bytes of the UTF-8 form of the code point at units[i] and its unit count.
int Utf8Bytes(const char16_t* units, int n, int i, int* unitsUsed);
// Decodes UTF-8 into `out` (appending).
void DecodeUtf8(const char* bytes, size_t n, TString* out);

// Simple case mapping of one unit.
char16_t UpperUnit(char16_t u);
char16_t LowerUnit(char16_t u);

}  // namespace tstring_internal

#endif  // PLINTH_FOUNDATION_TSTRING_INTERNAL_H_
