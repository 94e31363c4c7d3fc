// Pieces shared by the formatter's source files; not part of the interface.
#ifndef PLINTH_FOUNDATION_TSTRING_FORMAT_INTERNAL_H_
#define PLINTH_FOUNDATION_TSTRING_FORMAT_INTERNAL_H_

#include <cstdint>

#include "foundation/tstring_format.h"

class TString;

namespace format_internal {

struct ConversionSpec {
  bool left = false;
  bool zero = false;
  bool tilde = false;
  bool semicolon = false;
  bool wide = false;
  int width = 0;
  int precision = -1;  // none
  char16_t conversion = 0;
};

// The text being built: on the stack while short, then in a MemAlloc'd
// block; never longer than kFormatMaxOutput (the excess is dropped).
class OutBuffer {
 public:
  OutBuffer() = default;
  OutBuffer(const OutBuffer&) = delete;
  OutBuffer& operator=(const OutBuffer&) = delete;
  ~OutBuffer();

  void Put(char16_t c) {
    if (m_length < m_capacity || Grow(1)) m_data[m_length++] = c;
  }
  void Put(const char16_t* text, int n);
  void Fill(char16_t c, int n);
  void PutAscii(const char* text);
  int Length() const { return m_length; }
  char16_t* Data() { return m_data; }

 private:
  bool Grow(int extra);

  char16_t m_stack[256];
  char16_t* m_data = m_stack;
  int m_length = 0;
  int m_capacity = 256;
};

// Units up to the terminator.
int Units(const char16_t* text);
void PutUnsigned(OutBuffer* out, uint64_t v);
void PutSigned(OutBuffer* out, int64_t v);
// Pads the field that starts at `start` with blanks to the conversion's width.
void Pad(OutBuffer* out, const ConversionSpec& conv, int start);
// Writes a number: the sign (locale's, or "-" with "~"), zero padding when
// the conversion asks for it, the `n` integer digits grouped every `groupEvery`
// (0: never) with the locale's thousands separator, then the locale's
// decimal separator and `fraction` when it is given; padded to the width.
void PutNumber(OutBuffer* out, const ConversionSpec& conv, bool negative, const char16_t* digits, int n,
               int groupEvery, const char16_t* fraction, int fractionUnits);

// True for the conversion characters of the table.
bool IsConversion(char16_t c);

// D, T and I: writes the display of the TDate or TInterval at `value` (may
// be null) and sets `raw`.
void FormatTimeValue(const ConversionSpec& conv, const void* value, OutBuffer* out, TString* raw);

}  // namespace format_internal

#endif  // PLINTH_FOUNDATION_TSTRING_FORMAT_INTERNAL_H_
