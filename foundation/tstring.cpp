#include "foundation/tstring.h"

#include <cstring>
#include <utility>

#include "foundation/memory.h"

namespace {

const char16_t kEmpty[1] = {0};

int TextLength(const char16_t* text) {
  if (text == nullptr) return 0;
  int n = 0;
  while (text[n] != 0) ++n;
  return n;
}

}  // namespace

TString::TString() = default;

TString::TString(const TString& other) { Assign(other.GetConstBuffer(), other.m_length); }

TString::TString(TString&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)),
      m_length(std::exchange(other.m_length, 0)),
      m_capacity(std::exchange(other.m_capacity, 0)) {}

TString::TString(const char16_t* text, int length) { Assign(text, length); }

TString::~TString() { MemFree(m_data); }

TString& TString::operator=(const TString& other) {
  if (this != &other) Assign(other.GetConstBuffer(), other.m_length);
  return *this;
}

TString& TString::operator=(TString&& other) noexcept {
  if (this != &other) {
    MemFree(m_data);
    m_data = std::exchange(other.m_data, nullptr);
    m_length = std::exchange(other.m_length, 0);
    m_capacity = std::exchange(other.m_capacity, 0);
  }
  return *this;
}

TString& TString::operator=(const char16_t* text) {
  Assign(text);
  return *this;
}

const char16_t* TString::GetConstBuffer() const { return m_data != nullptr ? m_data : kEmpty; }

void TString::Clear() { m_length = 0; if (m_data != nullptr) m_data[0] = 0; }

void TString::Reserve(int minLength) {
  if (minLength <= m_capacity) return;
  int grown = m_capacity + m_capacity / 2;
  int capacity = grown > minLength ? grown : minLength;
  if (capacity < 15) capacity = 15;
  m_data = static_cast<char16_t*>(MemRealloc(m_data, (static_cast<size_t>(capacity) + 1) * sizeof(char16_t)));
  m_capacity = capacity;
}

void TString::Assign(const char16_t* text, int length) {
  if (length < 0) length = TextLength(text);
  if (text == nullptr) length = 0;
  Reserve(length);
  if (length > 0) std::memmove(m_data, text, static_cast<size_t>(length) * sizeof(char16_t));
  m_length = length;
  if (m_data != nullptr) m_data[length] = 0;
}

void TString::Append(const char16_t* text, int length) {
  if (length < 0) length = TextLength(text);
  if (text == nullptr || length == 0) return;
  // `text` may point into this string; Reserve may move it.
  if (m_data != nullptr && text >= m_data && text < m_data + m_capacity + 1) {
    TString copy(text, length);
    Append(copy.GetConstBuffer(), length);
    return;
  }
  Reserve(m_length + length);
  std::memcpy(m_data + m_length, text, static_cast<size_t>(length) * sizeof(char16_t));
  m_length += length;
  m_data[m_length] = 0;
}

bool TString::operator==(const TString& other) const {
  return m_length == other.m_length &&
         std::memcmp(GetConstBuffer(), other.GetConstBuffer(), static_cast<size_t>(m_length) * sizeof(char16_t)) == 0;
}

std::string TStringAsString(const TString& s) {
  std::string out;
  const char16_t* p = s.GetConstBuffer();
  int n = s.GetLength();
  out.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    uint32_t cp = p[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n && p[i + 1] >= 0xDC00 && p[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (p[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
}

TString TStringFromUTF8(const std::string& utf8) {
  TString out;
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  size_t n = utf8.size();
  size_t i = 0;
  while (i < n) {
    uint32_t c = p[i];
    uint32_t cp = 0xFFFD;
    size_t need = 0;
    uint32_t min = 0;
    if (c < 0x80) { cp = c; need = 0; }
    else if (c >= 0xC2 && c <= 0xDF) { cp = c & 0x1F; need = 1; min = 0x80; }
    else if (c >= 0xE0 && c <= 0xEF) { cp = c & 0x0F; need = 2; min = 0x800; }
    else if (c >= 0xF0 && c <= 0xF4) { cp = c & 0x07; need = 3; min = 0x10000; }
    else { out += char16_t(0xFFFD); ++i; continue; }
    size_t j = 1;
    for (; j <= need; ++j) {
      if (i + j >= n || (p[i + j] & 0xC0) != 0x80) break;
      cp = (cp << 6) | (p[i + j] & 0x3F);
    }
    if (j <= need || cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
      out += char16_t(0xFFFD);
      i += (j > 1 ? j : 1);
      continue;
    }
    i += need + 1;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out += char16_t(0xD800 + (cp >> 10));
      out += char16_t(0xDC00 + (cp & 0x3FF));
    } else {
      out += char16_t(cp);
    }
  }
  return out;
}
