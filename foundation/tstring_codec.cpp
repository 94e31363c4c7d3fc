// TString serialisation, raw UTF-16 import, binary data and the Base64 and
// Base16 encodings.
#include <bit>
#include <cstring>
#include <utility>

#include "foundation/log.h"
#include "foundation/tstring.h"
#include "foundation/tstring_internal.h"

namespace {

constexpr bool kHostIsBig = std::endian::native == std::endian::big;

bool IsBig(TString::ByteOrder order) {
  return order == TString::kBigEndian || (order == TString::kHostOrder && kHostIsBig);
}

uint16_t ReadUnit(const unsigned char* p, bool big) {
  return big ? static_cast<uint16_t>((p[0] << 8) | p[1]) : static_cast<uint16_t>((p[1] << 8) | p[0]);
}

void WriteUnit(unsigned char* p, uint16_t u, bool big) {
  p[big ? 0 : 1] = static_cast<unsigned char>(u >> 8);
  p[big ? 1 : 0] = static_cast<unsigned char>(u & 0xFF);
}

uint32_t ReadCount(const unsigned char* p, bool big) {
  return big ? (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3]
             : (uint32_t{p[3]} << 24) | (uint32_t{p[2]} << 16) | (uint32_t{p[1]} << 8) | p[0];
}

void WriteCount(unsigned char* p, uint32_t n, bool big) {
  for (int i = 0; i < 4; ++i) p[big ? 3 - i : i] = static_cast<unsigned char>(n >> (8 * i));
}

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Base64Value(char16_t u) {
  if (u >= u'A' && u <= u'Z') return u - u'A';
  if (u >= u'a' && u <= u'z') return u - u'a' + 26;
  if (u >= u'0' && u <= u'9') return u - u'0' + 52;
  if (u == u'+') return 62;
  if (u == u'/') return 63;
  return -1;
}

int HexValue(char16_t u) {
  if (u >= u'0' && u <= u'9') return u - u'0';
  if (u >= u'a' && u <= u'f') return u - u'a' + 10;
  if (u >= u'A' && u <= u'F') return u - u'A' + 10;
  return -1;
}

}  // namespace

// ---- stored form ------------------------------------------------------------

namespace {

int ExportTo(const TString& s, void* buffer, size_t bufferSize, bool big, const char16_t* failFormat) {
  size_t need = s.StoreSize();
  if (buffer == nullptr || bufferSize < need) {
    LogLine(514, failFormat, static_cast<int64_t>(need), static_cast<int64_t>(bufferSize), kErrBadParameter);
    return kErrBadParameter;
  }
  auto* p = static_cast<unsigned char*>(buffer);
  WriteCount(p, static_cast<uint32_t>(s.GetLength()), big);
  const char16_t* units = s.GetConstBuffer();
  for (int i = 0; i < s.GetLength(); ++i) WriteUnit(p + 4 + 2 * static_cast<size_t>(i), units[i], big);
  return 0;
}

}  // namespace

int TString::Export(void* buffer, size_t bufferSize) const {
  return ExportTo(*this, buffer, bufferSize, kHostIsBig, u"TString::Export: %~ld bytes do not fit in %~ld, %E");
}

int TString::NetExport(void* buffer, size_t bufferSize) const {
  return ExportTo(*this, buffer, bufferSize, true, u"TString::NetExport: %~ld bytes do not fit in %~ld, %E");
}

namespace {

// Reads the stored form into `s`; on failure `s` is untouched. Returns the
// bytes used, or 0 after logging with `failFormat`.
size_t ImportFrom(TString* s, const void* buffer, size_t available, bool big, const char16_t* failFormat) {
  const auto* p = static_cast<const unsigned char*>(buffer);
  uint64_t count = 0;
  bool ok = buffer != nullptr && available >= 4;
  if (ok) {
    count = ReadCount(p, big);
    ok = count <= static_cast<uint64_t>(TString::kMaxLength) && count <= (available - 4) / 2;
  }
  if (!ok) {
    LogLine(514, failFormat, static_cast<int64_t>(count), static_cast<int64_t>(available),
            kErrBadParameter);
    return 0;
  }
  int n = static_cast<int>(count);
  s->Clear();
  char16_t* dst = s->GetBuffer(n);
  for (int i = 0; i < n; ++i) dst[i] = ReadUnit(p + 4 + 2 * static_cast<size_t>(i), big);
  s->ReleaseBuffer(n);
  return 4 + 2 * static_cast<size_t>(n);
}

}  // namespace

int TString::Import(const void* buffer, size_t available, size_t* consumed) {
  size_t used = ImportFrom(this, buffer, available, kHostIsBig,
                           u"TString::Import: count %~ld does not fit in %~ld bytes, %E");
  if (consumed != nullptr) *consumed = used;
  return used > 0 ? 0 : kErrBadParameter;
}

int TString::NetImport(const void* buffer, size_t available, size_t* consumed) {
  size_t used = ImportFrom(this, buffer, available, true,
                           u"TString::NetImport: count %~ld does not fit in %~ld bytes, %E");
  if (consumed != nullptr) *consumed = used;
  return used > 0 ? 0 : kErrBadParameter;
}

namespace {

int StoreUnits(const TString& s, void* buffer, size_t bufferSize, bool big, const char16_t* failFormat) {
  size_t need = 2 * static_cast<size_t>(s.GetLength());
  if ((buffer == nullptr && need > 0) || bufferSize < need) {
    LogLine(514, failFormat, static_cast<int64_t>(need), static_cast<int64_t>(bufferSize), kErrBadParameter);
    return kErrBadParameter;
  }
  auto* p = static_cast<unsigned char*>(buffer);
  const char16_t* units = s.GetConstBuffer();
  for (int i = 0; i < s.GetLength(); ++i) WriteUnit(p + 2 * static_cast<size_t>(i), units[i], big);
  return 0;
}

}  // namespace

int TString::StorBuffer(void* buffer, size_t bufferSize) const {
  return StoreUnits(*this, buffer, bufferSize, IsBig(m_byteOrder),
                    u"TString::StorBuffer: %~ld bytes do not fit in %~ld, %E");
}

int TString::StorBufferLE(void* buffer, size_t bufferSize) const {
  return StoreUnits(*this, buffer, bufferSize, false, u"TString::StorBufferLE: %~ld bytes do not fit in %~ld, %E");
}

// ---- raw UTF-16 and binary --------------------------------------------------

namespace {

// Replaces the text of `s` with `byteCount` bytes of UTF-16 units.
int AssignUnits(TString* s, const unsigned char* p, size_t byteCount, bool big) {
  size_t n = byteCount / 2;
  if (n > static_cast<size_t>(TString::kMaxLength)) {
    LogLine(514, u"TString::AssignImport: %~ld bytes is too long, %E", static_cast<int64_t>(byteCount),
            kErrBadParameter);
    return kErrBadParameter;
  }
  s->Clear();
  char16_t* dst = s->GetBuffer(static_cast<int>(n));
  for (size_t i = 0; i < n; ++i) dst[i] = ReadUnit(p + 2 * i, big);
  s->ReleaseBuffer(static_cast<int>(n));
  return 0;
}

bool BadRaw(const void* bytes, size_t byteCount, const char16_t* failFormat) {
  if ((bytes != nullptr || byteCount == 0) && byteCount % 2 == 0) return false;
  LogLine(514, failFormat, static_cast<int64_t>(byteCount), kErrBadParameter);
  return true;
}

}  // namespace

int TString::AssignImport(const void* bytes, size_t byteCount) {
  if (BadRaw(bytes, byteCount, u"TString::AssignImport: refused %~ld bytes, %E")) return kErrBadParameter;
  const auto* p = static_cast<const unsigned char*>(bytes);
  bool big = IsBig(m_byteOrder);
  if (byteCount >= 2 && ((p[0] == 0xFF && p[1] == 0xFE) || (p[0] == 0xFE && p[1] == 0xFF))) {
    big = p[0] == 0xFE;
    m_byteOrder = big ? kBigEndian : kLittleEndian;
    return AssignUnits(this, p + 2, byteCount - 2, big);
  }
  return AssignUnits(this, p, byteCount, big);
}

int TString::AssignImportBE(const void* bytes, size_t byteCount) {
  if (BadRaw(bytes, byteCount, u"TString::AssignImportBE: refused %~ld bytes, %E")) return kErrBadParameter;
  const auto* p = static_cast<const unsigned char*>(bytes);
  if (byteCount >= 2 && p[0] == 0xFE && p[1] == 0xFF) return AssignUnits(this, p + 2, byteCount - 2, true);
  return AssignUnits(this, p, byteCount, true);
}

int TString::AssignBinary(const void* data, size_t size) {
  if ((data == nullptr && size > 0) || size > static_cast<size_t>(kMaxLength)) {
    LogLine(514, u"TString::AssignBinary: refused %~ld bytes, %E", static_cast<int64_t>(size), kErrBadParameter);
    return kErrBadParameter;
  }
  const auto* p = static_cast<const unsigned char*>(data);
  Clear();
  char16_t* dst = GetBuffer(static_cast<int>(size));
  for (size_t i = 0; i < size; ++i) dst[i] = p[i];
  ReleaseBuffer(static_cast<int>(size));
  return 0;
}

int TString::GetBinary(void* out, size_t size) const {
  if ((out == nullptr && m_length > 0) || size < static_cast<size_t>(m_length)) {
    LogLine(514, u"TString::GetBinary: %~d bytes do not fit in %~ld, %E", m_length, static_cast<int64_t>(size),
            kErrBadParameter);
    return kErrBadParameter;
  }
  for (int i = 0; i < m_length; ++i) {
    if (m_data[i] > 0xFF) {
      LogLine(514, u"TString::GetBinary: unit %~d is not a byte, %E", i, kErrBadParameter);
      return kErrBadParameter;
    }
  }
  auto* p = static_cast<unsigned char*>(out);
  for (int i = 0; i < m_length; ++i) p[i] = static_cast<unsigned char>(m_data[i]);
  return 0;
}

// ---- Base64 and Base16 --------------------------------------------------------

TString TString::Base64Encode(const uint8_t* data, size_t size) {
  TString out;
  if (data == nullptr || size == 0) return out;
  if (size > static_cast<size_t>(kMaxLength) / 4 * 3) {
    LogLine(514, u"TString::Base64Encode: %~ld bytes is too long, %E", static_cast<int64_t>(size), kErrBadParameter);
    return out;
  }
  int n = static_cast<int>((size + 2) / 3 * 4);
  char16_t* dst = out.GetBuffer(n);
  int w = 0;
  for (size_t i = 0; i < size; i += 3) {
    uint32_t v = uint32_t{data[i]} << 16;
    if (i + 1 < size) v |= uint32_t{data[i + 1]} << 8;
    if (i + 2 < size) v |= data[i + 2];
    dst[w++] = static_cast<char16_t>(kBase64[(v >> 18) & 63]);
    dst[w++] = static_cast<char16_t>(kBase64[(v >> 12) & 63]);
    dst[w++] = i + 1 < size ? static_cast<char16_t>(kBase64[(v >> 6) & 63]) : u'=';
    dst[w++] = i + 2 < size ? static_cast<char16_t>(kBase64[v & 63]) : u'=';
  }
  out.ReleaseBuffer(w);
  return out;
}

int TString::Base64Decode(std::vector<uint8_t>* out) const {
  std::vector<uint8_t> bytes;
  bytes.reserve(static_cast<size_t>(m_length) / 4 * 3);
  int quantum[4];
  int have = 0;     // characters of the current quantum
  int padding = 0;  // '=' seen; only more '=' may follow
  const char16_t* why = nullptr;
  for (int i = 0; i < m_length && why == nullptr; ++i) {
    char16_t u = m_data[i];
    if (u == u' ' || u == u'\t' || u == u'\r' || u == u'\n') continue;
    if (u == u'=') {
      if (have < 2) why = u"misplaced '='";
      ++padding;
      quantum[have++] = 0;
    } else {
      int v = Base64Value(u);
      if (v < 0) why = u"a character outside the alphabet";
      if (padding > 0) why = u"text after '='";
      quantum[have++] = v;
    }
    if (have < 4 || why != nullptr) continue;
    uint32_t v = (uint32_t(quantum[0]) << 18) | (uint32_t(quantum[1]) << 12) | (uint32_t(quantum[2]) << 6) |
                 uint32_t(quantum[3]);
    if ((padding == 1 && (v & 0xFF) != 0) || (padding == 2 && (v & 0xFFFF) != 0)) why = u"pad bits that are not zero";
    bytes.push_back(static_cast<uint8_t>(v >> 16));
    if (padding < 2) bytes.push_back(static_cast<uint8_t>(v >> 8));
    if (padding < 1) bytes.push_back(static_cast<uint8_t>(v));
    have = 0;
  }
  if (why == nullptr && have != 0) why = u"a truncated quantum";
  if (why != nullptr) {
    TString reason(why);
    LogLine(514, u"TString::Base64Decode: %s, %E", &reason, kErrBadParameter);
    return kErrBadParameter;
  }
  if (out != nullptr) out->swap(bytes);
  return 0;
}

TString TString::Base16Encode(const uint8_t* data, size_t size, bool upperCase) {
  TString out;
  if (data == nullptr || size == 0) return out;
  if (size > static_cast<size_t>(kMaxLength) / 2) {
    LogLine(514, u"TString::Base16Encode: %~ld bytes is too long, %E", static_cast<int64_t>(size), kErrBadParameter);
    return out;
  }
  const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
  char16_t* dst = out.GetBuffer(static_cast<int>(size * 2));
  for (size_t i = 0; i < size; ++i) {
    dst[2 * i] = static_cast<char16_t>(digits[data[i] >> 4]);
    dst[2 * i + 1] = static_cast<char16_t>(digits[data[i] & 15]);
  }
  out.ReleaseBuffer(static_cast<int>(size * 2));
  return out;
}

int TString::Base16Decode(std::vector<uint8_t>* out) const {
  if (m_length % 2 != 0) {
    LogLine(514, u"TString::Base16Decode: odd number of digits %~d, %E", m_length, kErrBadParameter);
    return kErrBadParameter;
  }
  std::vector<uint8_t> bytes(static_cast<size_t>(m_length / 2));
  for (int i = 0; i < m_length; i += 2) {
    int hi = HexValue(m_data[i]);
    int lo = HexValue(m_data[i + 1]);
    if (hi < 0 || lo < 0) {
      LogLine(514, u"TString::Base16Decode: not a hex digit at %~d, %E", hi < 0 ? i : i + 1, kErrBadParameter);
      return kErrBadParameter;
    }
    bytes[static_cast<size_t>(i / 2)] = static_cast<uint8_t>((hi << 4) | lo);
  }
  if (out != nullptr) out->swap(bytes);
  return 0;
}

void TString::Base64Encode() {
  std::string utf8 = TStringAsString(*this);
  ByteOrder order = m_byteOrder;
  *this = Base64Encode(reinterpret_cast<const uint8_t*>(utf8.data()), utf8.size());
  m_byteOrder = order;
}

void TString::Base16Encode() {
  std::string utf8 = TStringAsString(*this);
  ByteOrder order = m_byteOrder;
  *this = Base16Encode(reinterpret_cast<const uint8_t*>(utf8.data()), utf8.size());
  m_byteOrder = order;
}

int TString::Base64Decode() {
  std::vector<uint8_t> bytes;
  int rc = Base64Decode(&bytes);
  if (rc != 0) return rc;
  tstring_internal::DecodeUtf8(reinterpret_cast<const char*>(bytes.data()), bytes.size(), this);
  return 0;
}

int TString::Base16Decode() {
  std::vector<uint8_t> bytes;
  int rc = Base16Decode(&bytes);
  if (rc != 0) return rc;
  tstring_internal::DecodeUtf8(reinterpret_cast<const char*>(bytes.data()), bytes.size(), this);
  return 0;
}
