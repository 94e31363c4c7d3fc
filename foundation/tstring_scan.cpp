#include "foundation/tstring_scan.h"

#include <cstdint>

#include "foundation/resources.h"
#include "foundation/tstring.h"

namespace {

bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\v' || c == u'\f';
}

int DigitValue(char16_t c, int base) {
  int v = -1;
  if (c >= u'0' && c <= u'9') v = c - u'0';
  else if (c >= u'a' && c <= u'f') v = c - u'a' + 10;
  else if (c >= u'A' && c <= u'F') v = c - u'A' + 10;
  return v >= 0 && v < base ? v : -1;
}

int Length(const char16_t* text) {
  int n = 0;
  if (text == nullptr) return 0;
  while (text[n] != 0) ++n;
  return n;
}

// The input and a cursor that never passes its end.
struct Cursor {
  const char16_t* text;
  int length;
  int at = 0;
  bool AtEnd() const { return at >= length; }
  char16_t Peek() const { return at < length ? text[at] : 0; }
  void SkipBlanks() {
    while (at < length && IsBlank(text[at])) ++at;
  }
};

// Reads an integer of at most `width` units (0: any). `negativeAllowed`
// for d. On success stores magnitude and sign; false when no digits were
// found or the magnitude exceeds `limit` (for a negative value, limit + 1).
bool ReadInteger(Cursor* in, int width, int base, bool negativeAllowed, uint64_t limit, uint64_t* magnitude,
                 bool* negative) {
  int end = width > 0 && in->at + width < in->length ? in->at + width : in->length;
  int i = in->at;
  *negative = false;
  if (i < end && (in->text[i] == u'+' || (negativeAllowed && in->text[i] == u'-'))) {
    *negative = in->text[i] == u'-';
    ++i;
  }
  if (base == 16 && i + 1 < end && in->text[i] == u'0' && (in->text[i + 1] == u'x' || in->text[i + 1] == u'X') &&
      i + 2 < end && DigitValue(in->text[i + 2], 16) >= 0) {
    i += 2;
  }
  uint64_t max = *negative ? limit + 1 : limit;
  uint64_t v = 0;
  int digits = 0;
  for (; i < end; ++i) {
    int d = DigitValue(in->text[i], base);
    if (d < 0) break;
    if (v > (max - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) return false;  // overflow
    v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    ++digits;
  }
  if (digits == 0) return false;
  in->at = i;
  *magnitude = v;
  return true;
}

}  // namespace

int DoScanf(const char16_t* input, int inputLength, const char16_t* format, int formatLength, va_list ap) {
  if (input == nullptr) inputLength = 0;
  if (inputLength < 0) inputLength = Length(input);
  if (format == nullptr) return 0;
  if (formatLength < 0) formatLength = Length(format);
  va_list args;
  va_copy(args, ap);
  Cursor in{input, inputLength};
  int assigned = 0;
  int f = 0;
  while (f < formatLength) {
    char16_t c = format[f];
    if (IsBlank(c)) {
      while (f < formatLength && IsBlank(format[f])) ++f;
      in.SkipBlanks();
      continue;
    }
    if (c != u'%' || (f + 1 < formatLength && format[f + 1] == u'%')) {
      if (c == u'%') ++f;  // "%%"
      if (in.AtEnd() || in.Peek() != format[f]) break;
      ++in.at;
      ++f;
      continue;
    }
    ++f;
    bool suppress = false;
    if (f < formatLength && format[f] == u'*') {
      suppress = true;
      ++f;
    }
    int width = 0;
    while (f < formatLength && format[f] >= u'0' && format[f] <= u'9') {
      if (width < 1000000) width = width * 10 + (format[f] - u'0');
      ++f;
    }
    bool wide = false;
    if (f < formatLength && (format[f] == u'l' || format[f] == u'L')) {
      wide = true;
      ++f;
    }
    if (f >= formatLength) break;
    char16_t conversion = format[f++];
    bool ok = true;
    switch (conversion) {
      case u'd': case u'u': case u'x': case u'X': {
        in.SkipBlanks();
        bool isSigned = conversion == u'd';
        int base = conversion == u'd' || conversion == u'u' ? 10 : 16;
        uint64_t limit = isSigned ? (wide ? INT64_MAX : INT32_MAX) : (wide ? UINT64_MAX : UINT32_MAX);
        uint64_t magnitude = 0;
        bool negative = false;
        if (!ReadInteger(&in, width, base, isSigned, limit, &magnitude, &negative)) {
          ok = false;
          break;
        }
        if (suppress) break;
        void* target = va_arg(args, void*);
        if (target == nullptr) {
          ok = false;
          break;
        }
        uint64_t value = negative ? 0 - magnitude : magnitude;
        if (wide) {
          *static_cast<uint64_t*>(target) = value;
        } else {
          *static_cast<uint32_t*>(target) = static_cast<uint32_t>(value);
        }
        ++assigned;
        break;
      }
      case u's': {
        in.SkipBlanks();
        int start = in.at;
        int end = width > 0 && in.at + width < in.length ? in.at + width : in.length;
        while (in.at < end && !IsBlank(in.text[in.at])) ++in.at;
        if (in.at == start) {
          ok = false;
          break;
        }
        if (suppress) break;
        auto* target = va_arg(args, TString*);
        if (target == nullptr) {
          ok = false;
          break;
        }
        target->Assign(in.text + start, in.at - start);
        ++assigned;
        break;
      }
      case u'c': {
        int count = width > 0 ? width : 1;
        if (in.length - in.at < count) {
          ok = false;
          break;
        }
        if (!suppress) {
          auto* target = va_arg(args, char16_t*);
          if (target == nullptr) {
            ok = false;
            break;
          }
          for (int k = 0; k < count; ++k) target[k] = in.text[in.at + k];
          ++assigned;
        }
        in.at += count;
        break;
      }
      default:
        ok = false;
        break;
    }
    if (!ok) break;
  }
  va_end(args);
  return assigned;
}

// ---- TString members --------------------------------------------------------------

int TString::SScanf(TString* format, ...) const {
  va_list ap;
  va_start(ap, format);
  // A target may be this string or the format: scan copies.
  TString kept;
  if (format != nullptr) kept = *format;
  TString input(*this);
  int n = DoScanf(input.m_data, input.m_length, kept.GetConstBuffer(), kept.GetLength(), ap);
  va_end(ap);
  return n;
}

int TString::SScanf(const char16_t* format, ...) const {
  va_list ap;
  va_start(ap, format);
  // A target may be this string: scan a copy of the input.
  TString input(*this);
  int n = DoScanf(input.m_data, input.m_length, format, -1, ap);
  va_end(ap);
  return n;
}

int TString::SScanf(unsigned short group, int key, ...) const {
  TString format;
  LoadResourceText(group, static_cast<unsigned int>(key), &format);
  va_list ap;
  va_start(ap, key);
  TString input(*this);
  int n = DoScanf(input.m_data, input.m_length, format.GetConstBuffer(), format.GetLength(), ap);
  va_end(ap);
  return n;
}
