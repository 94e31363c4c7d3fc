// Conversions between TString (UTF-16) and UTF-8, UTF-32 and wide vectors.
#include <cstring>

#include "foundation/log.h"
#include "foundation/memory.h"
#include "foundation/tstring.h"
#include "foundation/tstring_internal.h"

namespace tstring_internal {

char32_t NextCodePoint(const char16_t* units, int n, int* i) {
  char32_t u = units[(*i)++];
  if (!IsSurrogate(u)) return u;
  if (IsHighSurrogate(u) && *i < n && IsLowSurrogate(units[*i])) {
    char32_t low = units[(*i)++];
    return 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
  }
  return kReplacement;
}

void AppendUtf8(std::string* out, char32_t cp) {
  if (cp < 0x80) {
    *out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out += static_cast<char>(0xC0 | (cp >> 6));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *out += static_cast<char>(0xE0 | (cp >> 12));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | (cp >> 18));
    *out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

int Utf8Bytes(const char16_t* units, int n, int i, int* unitsUsed) {
  int at = i;
  char32_t cp = NextCodePoint(units, n, &at);
  *unitsUsed = at - i;
  if (cp < 0x80) return 1;
  if (cp < 0x800) return 2;
  return cp < 0x10000 ? 3 : 4;
}

// Strict decoding after the well-formed byte sequences of the Unicode
// standard; each maximal ill-formed part becomes one U+FFFD.
void DecodeUtf8(const char* text, size_t n, TString* out) {
  out->Clear();
  if (n == 0) return;
  if (n > static_cast<size_t>(TString::kMaxLength)) {
    LogLine(514, u"TString: UTF-8 text of %~ld bytes is too long, %E", static_cast<int64_t>(n),
            kErrBadParameter);
    return;
  }
  // Never more UTF-16 units than UTF-8 bytes.
  char16_t* dst = out->GetBuffer(static_cast<int>(n));
  const auto* b = reinterpret_cast<const unsigned char*>(text);
  int w = 0;
  size_t i = 0;
  while (i < n) {
    unsigned char c = b[i];
    if (c < 0x80) {
      dst[w++] = c;
      ++i;
      continue;
    }
    int need = 0;
    char32_t cp = 0;
    unsigned char lo = 0x80;
    unsigned char hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      need = 1;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      need = 2;
      cp = c & 0x0F;
      if (c == 0xE0) lo = 0xA0;  // no overlong forms
      if (c == 0xED) hi = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      need = 3;
      cp = c & 0x07;
      if (c == 0xF0) lo = 0x90;  // no overlong forms
      if (c == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
    } else {
      dst[w++] = kReplacement;
      ++i;
      continue;
    }
    size_t j = i + 1;
    int got = 0;
    while (got < need && j < n && b[j] >= lo && b[j] <= hi) {
      cp = (cp << 6) | (b[j] & 0x3F);
      lo = 0x80;
      hi = 0xBF;
      ++j;
      ++got;
    }
    i = j;
    if (got < need) {
      dst[w++] = kReplacement;
    } else if (cp >= 0x10000) {
      dst[w++] = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
      dst[w++] = static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      dst[w++] = static_cast<char16_t>(cp);
    }
  }
  out->ReleaseBuffer(w);
}

}  // namespace tstring_internal

using tstring_internal::AppendUtf8;
using tstring_internal::NextCodePoint;

// ---- UTF-8 ------------------------------------------------------------------

std::string ConvertWideToAnsi(const char16_t* text, int length) {
  if (length < 0) length = tstring_internal::TextLength(text);
  std::string out;
  if (text == nullptr) return out;
  out.reserve(static_cast<size_t>(length));
  int i = 0;
  while (i < length) AppendUtf8(&out, NextCodePoint(text, length, &i));
  return out;
}

TString ConvertAnsiToWide(const char* text, int length) {
  TString out;
  out.AssignAnsi(text, length);
  return out;
}

std::string TStringAsString(const TString& s) { return ConvertWideToAnsi(s.GetConstBuffer(), s.GetLength()); }

TString TStringFromUTF8(const std::string& utf8) {
  TString out;
  tstring_internal::DecodeUtf8(utf8.data(), utf8.size(), &out);
  return out;
}

TString TStringFromUTF8(const char* utf8, int length) { return ConvertAnsiToWide(utf8, length); }

int TString::AssignAnsi(const char* text, int length) {
  if (text == nullptr && length > 0) {
    LogLine(514, u"TString::AssignAnsi: null text of %~d bytes, %E", length, kErrBadParameter);
    return kErrBadParameter;
  }
  size_t n = length >= 0 ? static_cast<size_t>(length) : (text != nullptr ? std::strlen(text) : 0);
  tstring_internal::DecodeUtf8(text, n, this);
  return 0;
}

int TString::LengthAnsi() const {
  int64_t bytes = 0;
  int i = 0;
  while (i < m_length) {
    int used = 0;
    bytes += tstring_internal::Utf8Bytes(m_data, m_length, i, &used);
    i += used;
  }
  return bytes > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(bytes);
}

char* TString::GetBufferAnsi(int minLength) {
  if (minLength > kMaxLength) {
    LogLine(514, u"TString::GetBufferAnsi: %~d bytes is too long, %E", minLength, kErrBadParameter);
    return nullptr;
  }
  std::string text = TStringAsString(*this);
  size_t size = (minLength > 0 && static_cast<size_t>(minLength) > text.size() ? static_cast<size_t>(minLength)
                                                                                 : text.size()) + 1;
  MemFree(m_ansi);
  m_ansi = static_cast<char*>(MemAlloc(size));
  m_ansiSize = static_cast<int>(size);
  std::memcpy(m_ansi, text.data(), text.size());
  return m_ansi;
}

int TString::ReleaseBufferAnsi(int newLength) {
  if (m_ansi == nullptr) {
    LogLine(514, u"TString::ReleaseBufferAnsi: no buffer was taken, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  int rc = 0;
  int limit = m_ansiSize - 1;
  if (newLength < 0) {
    const void* nul = std::memchr(m_ansi, 0, static_cast<size_t>(limit));
    newLength = nul != nullptr ? static_cast<int>(static_cast<const char*>(nul) - m_ansi) : limit;
  } else if (newLength > limit) {
    LogLine(514, u"TString::ReleaseBufferAnsi: length %~d beyond the buffer of %~d bytes, %E", newLength, limit,
            kErrBadParameter);
    newLength = limit;
    rc = kErrBadParameter;
  }
  tstring_internal::DecodeUtf8(m_ansi, static_cast<size_t>(newLength), this);
  CloseBufferAnsi();
  return rc;
}

const char* TString::ReadBufferAnsi() { return GetBufferAnsi(0); }

void TString::CloseBufferAnsi() {
  MemFree(m_ansi);
  m_ansi = nullptr;
  m_ansiSize = 0;
}

int TString::FillBufferAnsi(char* buffer, int bufferSize) const {
  if (buffer == nullptr || bufferSize < 1) {
    LogLine(514, u"TString::FillBufferAnsi: no room in a buffer of %~d bytes, %E", bufferSize, kErrBadParameter);
    return kErrBadParameter;
  }
  std::string piece;
  int written = 0;
  int i = 0;
  while (i < m_length) {
    piece.clear();
    AppendUtf8(&piece, NextCodePoint(m_data, m_length, &i));
    if (written + static_cast<int>(piece.size()) > bufferSize - 1) break;
    std::memcpy(buffer + written, piece.data(), piece.size());
    written += static_cast<int>(piece.size());
  }
  buffer[written] = 0;
  return written;
}

std::string TString::LeftAnsi(int maxBytes) const {
  std::string out;
  std::string piece;
  int i = 0;
  while (i < m_length) {
    piece.clear();
    AppendUtf8(&piece, NextCodePoint(m_data, m_length, &i));
    if (static_cast<int64_t>(out.size()) + static_cast<int64_t>(piece.size()) > maxBytes) break;
    out += piece;
  }
  return out;
}

// ---- wide vectors -------------------------------------------------------------

std::vector<char16_t> TStringAsWcharVector(const TString& s) {
  std::vector<char16_t> v(s.GetConstBuffer(), s.GetConstBuffer() + s.GetLength());
  v.push_back(0);
  return v;
}

TString TStringFromWcharVector(const std::vector<char16_t>& v) {
  size_t n = 0;
  while (n < v.size() && v[n] != 0) ++n;
  if (n > static_cast<size_t>(TString::kMaxLength)) n = static_cast<size_t>(TString::kMaxLength);
  return TString(v.data(), static_cast<int>(n));
}

std::vector<char16_t> WcharVectorFromWcharStr(const char16_t* text) {
  int n = tstring_internal::TextLength(text);
  std::vector<char16_t> v;
  if (text != nullptr) v.assign(text, text + n);
  v.push_back(0);
  return v;
}

// ---- UTF-32 -------------------------------------------------------------------

TString ConvertUTF32toUTF16(const char32_t* text, size_t length) {
  TString out;
  if (text == nullptr || length == 0) return out;
  if (length > static_cast<size_t>(TString::kMaxLength) / 2) {
    LogLine(514, u"ConvertUTF32toUTF16: %~ld code points is too long, %E", static_cast<int64_t>(length),
            kErrBadParameter);
    return out;
  }
  char16_t* dst = out.GetBuffer(static_cast<int>(length * 2));
  int w = 0;
  for (size_t i = 0; i < length; ++i) {
    char32_t cp = text[i];
    if (cp > 0x10FFFF || tstring_internal::IsSurrogate(cp)) cp = tstring_internal::kReplacement;
    if (cp >= 0x10000) {
      dst[w++] = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
      dst[w++] = static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      dst[w++] = static_cast<char16_t>(cp);
    }
  }
  out.ReleaseBuffer(w);
  return out;
}

TString ConvertUTF32toUTF16(const std::u32string& text) { return ConvertUTF32toUTF16(text.data(), text.size()); }

std::u32string ConvertUTF16toUTF32(const TString& s) {
  std::u32string out;
  const char16_t* p = s.GetConstBuffer();
  int n = s.GetLength();
  out.reserve(static_cast<size_t>(n));
  int i = 0;
  while (i < n) out.push_back(NextCodePoint(p, n, &i));
  return out;
}
