// Digit writing and reading for the text forms of dates and intervals,
// straight on UTF-16 units, without the formatter.
#ifndef PLINTH_TIME_DATE_TEXT_H_
#define PLINTH_TIME_DATE_TEXT_H_

#include <cstdint>

namespace date_text {

// Writes `value` in decimal with at least `minDigits` digits (zero padded)
// and returns the position after it.
inline char16_t* PutDecimal(char16_t* p, uint32_t value, int minDigits) {
  char16_t tmp[10];
  int n = 0;
  do {
    tmp[n++] = static_cast<char16_t>(u'0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n < minDigits) tmp[n++] = u'0';
  while (n > 0) *p++ = tmp[--n];
  return p;
}

inline char16_t* PutTwo(char16_t* p, uint32_t value) {
  if (value >= 100) return PutDecimal(p, value, 2);
  p[0] = static_cast<char16_t>(u'0' + value / 10);
  p[1] = static_cast<char16_t>(u'0' + value % 10);
  return p + 2;
}

// "%~d": an optional '-', then the digits.
inline char16_t* PutSigned(char16_t* p, int64_t value) {
  uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  if (value < 0) *p++ = u'-';
  char16_t tmp[20];
  int n = 0;
  do {
    tmp[n++] = static_cast<char16_t>(u'0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  while (n > 0) *p++ = tmp[--n];
  return p;
}

inline bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
inline bool IsBlank(char16_t c) { return c == u' ' || c == u'\t'; }
inline char16_t AsciiUpper(char16_t c) { return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c; }

// A reading position over a text that is never read past its end.
class Cursor {
 public:
  Cursor(const char16_t* text, int length) : m_p(text), m_end(text + (length > 0 ? length : 0)) {}

  bool AtEnd() const { return m_p == m_end; }
  char16_t Peek() const { return m_p == m_end ? 0 : *m_p; }
  int Remaining() const { return static_cast<int>(m_end - m_p); }
  void Advance() {
    if (m_p != m_end) ++m_p;
  }
  bool Take(char16_t c) {
    if (m_p == m_end || *m_p != c) return false;
    ++m_p;
    return true;
  }
  // ASCII letter, either case.
  bool TakeLetter(char16_t upper) {
    if (m_p == m_end || AsciiUpper(*m_p) != upper) return false;
    ++m_p;
    return true;
  }
  int SkipBlanks() {
    int n = 0;
    while (m_p != m_end && IsBlank(*m_p)) {
      ++m_p;
      ++n;
    }
    return n;
  }
  // Reads a run of digits. `count` gets its length (0 when there is none);
  // the value saturates at 10^18 so that long runs cannot overflow.
  int64_t Digits(int* count) {
    int64_t value = 0;
    int n = 0;
    while (m_p != m_end && IsDigit(*m_p)) {
      if (value < 1000000000000000000LL / 10) value = value * 10 + (*m_p - u'0');
      else value = 1000000000000000000LL;
      ++m_p;
      ++n;
    }
    *count = n;
    return value;
  }
  // A run of 1..maxDigits digits; false when there is none or it is longer.
  bool Number(int maxDigits, int* value) {
    int n = 0;
    int64_t v = Digits(&n);
    if (n == 0 || n > maxDigits) return false;
    *value = static_cast<int>(v);
    return true;
  }
  // Three ASCII letters upper-cased into `out` (a three-unit name).
  bool Name3(char16_t out[3]) {
    if (Remaining() < 3) return false;
    for (int i = 0; i < 3; ++i) {
      char16_t c = AsciiUpper(m_p[i]);
      if (c < u'A' || c > u'Z') return false;
      out[i] = c;
    }
    m_p += 3;
    return true;
  }

 private:
  const char16_t* m_p;
  const char16_t* m_end;
};

}  // namespace date_text

#endif  // PLINTH_TIME_DATE_TEXT_H_
