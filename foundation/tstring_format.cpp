#include "foundation/tstring_format.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <functional>
#include <utility>

#include "foundation/errors.h"
#include "foundation/memory.h"
#include "foundation/resources.h"
#include "foundation/tstring.h"
#include "foundation/tstring_format_internal.h"
#include "platform/locale.h"

using format_internal::ConversionSpec;
using format_internal::OutBuffer;

uint64_t FormatArgSource::Take(FormatArgKind kind) {
  if (m_ap != nullptr) {
    switch (kind) {
      case FormatArgKind::kInt: return static_cast<uint64_t>(static_cast<int64_t>(va_arg(*m_ap, int)));
      case FormatArgKind::kLong: return static_cast<uint64_t>(va_arg(*m_ap, long long));
      case FormatArgKind::kPointer: return reinterpret_cast<uintptr_t>(va_arg(*m_ap, void*));
      default: return 0;
    }
  }
  if (m_next >= m_count) return 0;
  const FormatArgWord& w = m_words[m_next++];
  bool wantPointer = kind == FormatArgKind::kPointer;
  bool isPointer = w.kind == FormatArgKind::kPointer;
  if (wantPointer != isPointer) return 0;
  if (kind == FormatArgKind::kInt) return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(w.value)));
  return w.value;
}

namespace format_internal {

OutBuffer::~OutBuffer() {
  if (m_data != m_stack) MemFree(m_data);
}

bool OutBuffer::Grow(int extra) {
  if (m_length + static_cast<int64_t>(extra) > kFormatMaxOutput) return false;
  int want = m_length + extra;
  if (want <= m_capacity) return true;
  int capacity = m_capacity * 2;
  if (capacity < want) capacity = want;
  if (capacity > kFormatMaxOutput) capacity = kFormatMaxOutput;
  auto* data = static_cast<char16_t*>(MemAlloc(sizeof(char16_t) * static_cast<size_t>(capacity)));
  if (data == nullptr) return false;
  std::memcpy(data, m_data, sizeof(char16_t) * static_cast<size_t>(m_length));
  if (m_data != m_stack) MemFree(m_data);
  m_data = data;
  m_capacity = capacity;
  return true;
}

void OutBuffer::Put(const char16_t* text, int n) {
  if (n <= 0) return;
  if (m_length + n > m_capacity && !Grow(n)) {
    n = m_capacity - m_length;  // cut at the limit
    if (n <= 0) return;
  }
  char16_t* to = m_data + m_length;
  if (n <= 16) {
    for (int i = 0; i < n; ++i) to[i] = text[i];  // cheaper than a call for the usual short pieces
  } else {
    std::memcpy(to, text, sizeof(char16_t) * static_cast<size_t>(n));
  }
  m_length += n;
}

void OutBuffer::Fill(char16_t c, int n) {
  if (n <= 0) return;
  if (m_length + n > m_capacity && !Grow(n)) n = m_capacity - m_length;
  for (int i = 0; i < n; ++i) m_data[m_length++] = c;
}

void OutBuffer::PutAscii(const char* text) {
  while (*text != 0) Put(static_cast<char16_t>(*text++));
}

int Units(const char16_t* text) {
  int n = 0;
  while (text[n] != 0) ++n;
  return n;
}

void PutUnsigned(OutBuffer* out, uint64_t v) {
  char16_t digits[24];
  int at = 24;
  do {
    digits[--at] = static_cast<char16_t>(u'0' + v % 10);
    v /= 10;
  } while (v != 0);
  out->Put(digits + at, 24 - at);
}

void PutSigned(OutBuffer* out, int64_t v) {
  if (v < 0) out->Put(u'-');
  PutUnsigned(out, v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v));
}

void Pad(OutBuffer* out, const ConversionSpec& conv, int start) {
  int written = out->Length() - start;
  if (written >= conv.width) return;
  int pad = conv.width - written;
  if (conv.left) {
    out->Fill(u' ', pad);
    return;
  }
  // Move the field right by `pad` units.
  out->Fill(u' ', pad);
  char16_t* d = out->Data();
  int end = out->Length();
  if (end - start < conv.width) return;  // cut at the output limit
  std::memmove(d + start + pad, d + start, sizeof(char16_t) * static_cast<size_t>(written));
  for (int i = 0; i < pad; ++i) d[start + i] = u' ';
}

void PutNumber(OutBuffer* out, const ConversionSpec& conv, bool negative, const char16_t* digits, int n,
               int groupEvery, const char16_t* fraction, int fractionUnits) {
  const platform::LocaleSeparatorsSpec& seps = platform::LocaleSeparators();
  const char16_t* sign = negative ? (conv.tilde ? u"-" : seps.negative) : u"";
  int signUnits = Units(sign);
  const char16_t* group = seps.thousands;
  int groupUnits = groupEvery > 0 ? Units(group) : 0;
  int separators = groupUnits > 0 && n > 0 ? (n - 1) / groupEvery : 0;
  int body = signUnits + n + separators * groupUnits;
  if (fraction != nullptr) body += Units(seps.decimal) + fractionUnits;
  int zeros = 0;
  if (conv.zero && !conv.left && conv.width > body) zeros = conv.width - body;
  int start = out->Length();
  out->Put(sign, signUnits);
  out->Fill(u'0', zeros);
  for (int i = 0; i < n; ++i) {
    if (i > 0 && groupUnits > 0 && (n - i) % groupEvery == 0) out->Put(group, groupUnits);
    out->Put(digits[i]);
  }
  if (fraction != nullptr) {
    out->Put(seps.decimal, Units(seps.decimal));
    out->Put(fraction, fractionUnits);
  }
  Pad(out, conv, start);
}

}  // namespace format_internal

namespace {

using format_internal::Pad;
using format_internal::PutNumber;
using format_internal::PutSigned;
using format_internal::PutUnsigned;
using format_internal::Units;

constexpr char16_t kHexLower[] = u"0123456789abcdef";
constexpr char16_t kHexUpper[] = u"0123456789ABCDEF";
constexpr int kMaxDumpBytes = 21845;
constexpr int kMaxNesting = 2;

// Decimal digits of v, most significant first; returns the count.
int DecimalDigits(uint64_t v, char16_t* out) {
  char16_t rev[24];
  int n = 0;
  do {
    rev[n++] = static_cast<char16_t>(u'0' + v % 10);
    v /= 10;
  } while (v != 0);
  for (int i = 0; i < n; ++i) out[i] = rev[n - 1 - i];
  return n;
}

// A formatted value; its raw form is [rawStart, rawStart + rawLength) of the
// formatter's raw buffer.
struct Record {
  char16_t kind;
  int position;
  int length;
  int rawStart;
  int rawLength;
};

class Formatter {
 public:
  Formatter(FormatArgSource* args, int nesting, bool record)
      : m_args(args), m_nesting(nesting), m_record(record), m_out(m_ownOut) {}
  // A nested format (the "Errr" text) writes straight into the outer text.
  Formatter(FormatArgSource* args, int nesting, format_internal::OutBuffer* into)
      : m_args(args), m_nesting(nesting), m_record(false), m_out(*into) {}

  void Run(const char16_t* f, int n);
  format_internal::OutBuffer& Out() { return m_out; }
  int RecordCount() const { return m_recordCount; }
  const Record& RecordAt(int i) const { return m_records[i]; }
  const char16_t* RawUnits(const Record& r) { return m_raw.Data() + r.rawStart; }

  ~Formatter() {
    if (m_records != m_recordStack) MemFree(m_records);
  }

 private:
  bool Parse(const char16_t* f, int n, int* i, ConversionSpec* conv);
  void Convert(const ConversionSpec& conv);
  // Records the field written since `start`; its raw form is then put into
  // m_raw by the caller (RawSigned ... or directly) before the next record.
  bool AddRecord(char16_t kind, int start);
  void Raw(const char16_t* units, int n) { m_raw.Put(units, n); CloseRaw(); }
  void RawSigned(int64_t v) { format_internal::PutSigned(&m_raw, v); CloseRaw(); }
  void RawUnsigned(uint64_t v) { format_internal::PutUnsigned(&m_raw, v); CloseRaw(); }
  void CloseRaw() {
    if (m_recordCount > 0) {
      Record& r = m_records[m_recordCount - 1];
      r.rawLength = m_raw.Length() - r.rawStart;
    }
  }

  int64_t TakeSigned(const ConversionSpec& conv) {
    uint64_t w = m_args->Take(conv.wide ? FormatArgKind::kLong : FormatArgKind::kInt);
    return conv.wide ? static_cast<int64_t>(w) : static_cast<int32_t>(w);
  }
  uint64_t TakeUnsigned(const ConversionSpec& conv) {
    uint64_t w = m_args->Take(conv.wide ? FormatArgKind::kLong : FormatArgKind::kInt);
    return conv.wide ? w : static_cast<uint32_t>(w);
  }
  const void* TakePointer() {
    return reinterpret_cast<const void*>(static_cast<uintptr_t>(m_args->Take(FormatArgKind::kPointer)));
  }

  void Integer(const ConversionSpec& conv, bool negative, uint64_t magnitude, bool grouped);
  void Hex(const ConversionSpec& conv, uint64_t v);
  void Percent(const ConversionSpec& conv);
  void Fixed(const ConversionSpec& conv);
  void Dump(const ConversionSpec& conv);
  void Error(const ConversionSpec& conv);
  void Size(const ConversionSpec& conv);
  void Address(const ConversionSpec& conv);
  void Text(const ConversionSpec& conv);
  void Character(const ConversionSpec& conv);
  void Boolean(const ConversionSpec& conv);

  FormatArgSource* m_args;
  int m_nesting;
  bool m_record;
  format_internal::OutBuffer m_ownOut;
  format_internal::OutBuffer& m_out;
  format_internal::OutBuffer m_raw;
  Record m_recordStack[16];
  Record* m_records = m_recordStack;
  int m_recordCount = 0;
  int m_recordCapacity = 16;
};

bool Formatter::AddRecord(char16_t kind, int start) {
  if (!m_record) return false;
  if (m_recordCount == m_recordCapacity) {
    int capacity = m_recordCapacity * 2;
    auto* records = static_cast<Record*>(MemAlloc(sizeof(Record) * static_cast<size_t>(capacity)));
    if (records == nullptr) return false;
    std::memcpy(records, m_records, sizeof(Record) * static_cast<size_t>(m_recordCount));
    if (m_records != m_recordStack) MemFree(m_records);
    m_records = records;
    m_recordCapacity = capacity;
  }
  m_records[m_recordCount++] = Record{kind, start, m_out.Length() - start, m_raw.Length(), 0};
  return true;
}

// Reads the conversion after the '%' at f[*i - 1]; false (and *i unchanged)
// when the format ends before the conversion character.
bool Formatter::Parse(const char16_t* f, int n, int* at, ConversionSpec* conv) {
  int i = *at;
  auto number = [&](int* value) {
    int64_t v = 0;
    while (i < n && f[i] >= u'0' && f[i] <= u'9') {
      v = v * 10 + (f[i++] - u'0');
      if (v > kFormatMaxField) v = kFormatMaxField;
    }
    *value = static_cast<int>(v);
  };
  if (i < n && f[i] == u'-') { conv->left = true; ++i; }
  if (i < n && f[i] == u'0') { conv->zero = true; ++i; }
  // Flags in the other order, as C allows.
  while (i < n && (f[i] == u'-' || f[i] == u'0')) (f[i++] == u'-' ? conv->left : conv->zero) = true;
  if (i < n && f[i] == u'*') {
    ++i;
    int64_t w = static_cast<int32_t>(m_args->Take(FormatArgKind::kInt));
    if (w < 0) {
      conv->left = true;
      w = -w;
    }
    conv->width = static_cast<int>(w > kFormatMaxField ? kFormatMaxField : w);
  } else {
    number(&conv->width);
  }
  if (i < n && f[i] == u'.') {
    ++i;
    if (i < n && f[i] == u'*') {
      ++i;
      int64_t p = static_cast<int32_t>(m_args->Take(FormatArgKind::kInt));
      conv->precision = p < 0 ? -1 : static_cast<int>(p > kFormatMaxField ? kFormatMaxField : p);
    } else {
      number(&conv->precision);
    }
  }
  if (i < n && f[i] == u'~') { conv->tilde = true; ++i; }
  if (i < n && f[i] == u';') { conv->semicolon = true; ++i; }
  if (i < n && (f[i] == u'l' || f[i] == u'L')) { conv->wide = true; ++i; }
  if (i >= n) return false;
  conv->conversion = f[i++];
  *at = i;
  return true;
}

void Formatter::Run(const char16_t* f, int n) {
  int i = static_cast<int>(FormatLeadingBlockLength(f, static_cast<size_t>(n)));
  while (i < n) {
    int literal = i;
    while (i + 4 <= n && f[i] != u'%' && f[i + 1] != u'%' && f[i + 2] != u'%' && f[i + 3] != u'%') i += 4;
    while (i < n && f[i] != u'%') ++i;
    m_out.Put(f + literal, i - literal);
    if (i >= n) break;
    int percent = i++;
    ConversionSpec conv;
    if (!Parse(f, n, &i, &conv)) {
      m_out.Put(f + percent, n - percent);  // unterminated: copied as it stands
      break;
    }
    if (!format_internal::IsConversion(conv.conversion)) {
      m_out.Put(f + percent, i - percent);
      continue;
    }
    Convert(conv);
  }
}

void Formatter::Convert(const ConversionSpec& conv) {
  int start = m_out.Length();
  switch (conv.conversion) {
    case u'%': case u'^': case u'{': case u'}':
      m_out.Put(conv.conversion);
      return;
    case u'd': case u'i': {
      int64_t v = TakeSigned(conv);
      uint64_t magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
      Integer(conv, v < 0, magnitude, !conv.tilde);
      if (AddRecord(conv.conversion, start)) RawSigned(v);
      return;
    }
    case u'u': {
      uint64_t v = TakeUnsigned(conv);
      Integer(conv, false, v, !conv.tilde);
      if (AddRecord(conv.conversion, start)) RawUnsigned(v);
      return;
    }
    case u'x': case u'X': {
      uint64_t v = TakeUnsigned(conv);
      Hex(conv, v);
      if (AddRecord(conv.conversion, start)) RawUnsigned(v);
      return;
    }
    case u'#': Percent(conv); return;
    case u'F': Fixed(conv); return;
    case u'$': Dump(conv); return;
    case u'E': Error(conv); return;
    case u'K': case u'k': Size(conv); return;
    case u'p': Address(conv); return;
    case u's': case u'S': Text(conv); return;
    case u'c': case u'C': Character(conv); return;
    case u'Y': case u'y': Boolean(conv); return;
    case u'D': case u'T': case u'I': {
      const void* p = TakePointer();
      TString raw;
      format_internal::FormatTimeValue(conv, p, &m_out, &raw);
      Pad(&m_out, conv, start);
      if (AddRecord(conv.conversion, start)) Raw(raw.GetConstBuffer(), raw.GetLength());
      return;
    }
    default:
      return;
  }
}

void Formatter::Integer(const ConversionSpec& conv, bool negative, uint64_t magnitude, bool grouped) {
  if (!grouped && conv.width == 0 && conv.precision < 0) {  // "%~d", the log lines' form
    if (negative) m_out.Put(u'-');
    PutUnsigned(&m_out, magnitude);
    return;
  }
  char16_t digits[24];
  int n = DecimalDigits(magnitude, digits);
  if (conv.precision == 0 && magnitude == 0) n = 0;
  ConversionSpec s = conv;
  if (conv.precision > n) {
    // Minimum digits, as C; the leading zeros are grouped with the rest.
    format_internal::OutBuffer padded;
    padded.Fill(u'0', conv.precision - n);
    padded.Put(digits, n);
    s.zero = false;
    PutNumber(&m_out, s, negative, padded.Data(), padded.Length(), grouped ? 3 : 0, nullptr, 0);
    return;
  }
  if (conv.precision >= 0) s.zero = false;
  PutNumber(&m_out, s, negative, digits, n, grouped ? 3 : 0, nullptr, 0);
}

void Formatter::Hex(const ConversionSpec& conv, uint64_t v) {
  const char16_t* table = conv.conversion == u'X' ? kHexUpper : kHexLower;
  char16_t rev[16];
  int n = 0;
  do {
    rev[n++] = table[v & 15];
    v >>= 4;
  } while (v != 0);
  if (conv.precision == 0 && n == 1 && rev[0] == u'0') n = 0;
  ConversionSpec s = conv;
  if (conv.precision >= 0) s.zero = false;
  int start = m_out.Length();
  int lead = conv.precision > n ? conv.precision - n : 0;
  if (s.zero && !s.left && s.width > n) lead = s.width - n;
  m_out.Fill(u'0', lead);
  while (n > 0) m_out.Put(rev[--n]);
  Pad(&m_out, s, start);
}

void Formatter::Percent(const ConversionSpec& conv) {
  int start = m_out.Length();
  int64_t part = TakeSigned(conv);
  int64_t whole = TakeSigned(conv);
  int64_t limit = conv.wide ? INT64_MAX / 100 : 21474836;
  if (part >= limit) {
    part /= 100;
    whole /= 100;
  }
  int decimals = conv.precision < 0 ? 0 : conv.precision;
  bool negative = false;
  unsigned __int128 quotient = 100;
  unsigned __int128 remainder = 0;
  unsigned __int128 divisor = 1;
  if (whole != 0) {
    __int128 product = static_cast<__int128>(part) * 100;
    negative = (product < 0) != (whole < 0) && product != 0;
    unsigned __int128 p = product < 0 ? static_cast<unsigned __int128>(-product) : static_cast<unsigned __int128>(product);
    divisor = whole < 0 ? static_cast<unsigned __int128>(-static_cast<__int128>(whole)) : static_cast<unsigned __int128>(whole);
    quotient = p / divisor;
    remainder = p % divisor;
  }
  // The quotient fits 64 bits: |part| * 100 / |whole| <= 2^63 * 100.
  char16_t digits[48];
  int n = 0;
  {
    char16_t rev[48];
    unsigned __int128 q = quotient;
    do {
      rev[n++] = static_cast<char16_t>(u'0' + static_cast<int>(q % 10));
      q /= 10;
    } while (q != 0);
    for (int k = 0; k < n; ++k) digits[k] = rev[n - 1 - k];
  }
  format_internal::OutBuffer fraction;
  for (int k = 0; k < decimals; ++k) {
    remainder *= 10;
    fraction.Put(static_cast<char16_t>(u'0' + static_cast<int>(remainder / divisor)));
    remainder %= divisor;
  }
  bool allZero = quotient == 0;
  for (int k = 0; k < fraction.Length() && allZero; ++k) allZero = fraction.Data()[k] == u'0';
  if (allZero) negative = false;
  PutNumber(&m_out, conv, negative, digits, n, conv.tilde ? 0 : 3, decimals > 0 ? fraction.Data() : nullptr,
            fraction.Length());
  if (!AddRecord(u'#', start)) return;
  if (negative) m_raw.Put(u'-');
  m_raw.Put(digits, n);
  if (decimals > 0) {
    m_raw.Put(u'.');
    m_raw.Put(fraction.Data(), fraction.Length());
  }
  CloseRaw();
}

void Formatter::Fixed(const ConversionSpec& conv) {
  int start = m_out.Length();
  int64_t v = TakeSigned(conv);
  uint64_t magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  int decimals = conv.precision < 0 ? 0 : conv.precision;
  char16_t digits[24];
  int n = DecimalDigits(magnitude, digits);
  format_internal::OutBuffer all;
  // At least one digit before the point.
  if (n <= decimals) all.Fill(u'0', decimals - n + 1);
  all.Put(digits, n);
  int whole = all.Length() - decimals;
  PutNumber(&m_out, conv, v < 0, all.Data(), whole, conv.tilde ? 0 : 3, decimals > 0 ? all.Data() + whole : nullptr,
            decimals);
  if (AddRecord(u'F', start)) RawSigned(v);
}

void Formatter::Dump(const ConversionSpec& conv) {
  int start = m_out.Length();
  const auto* bytes = static_cast<const uint8_t*>(TakePointer());
  int count = conv.width > kMaxDumpBytes ? kMaxDumpBytes : conv.width;
  if (bytes == nullptr) count = 0;
  const char16_t* table = conv.tilde ? kHexUpper : kHexLower;
  int limit = count > 0 ? count * 3 - 1 : 0;
  if (conv.precision >= 0 && conv.precision < limit) limit = conv.precision;
  for (int b = 0; b < count; ++b) {
    char16_t three[3] = {table[bytes[b] >> 4], table[bytes[b] & 15], u' '};
    int at = b * 3;
    int take = b + 1 < count ? 3 : 2;
    if (at < limit) m_out.Put(three, limit - at < take ? limit - at : take);
  }
  if (!AddRecord(u'$', start)) return;
  for (int b = 0; b < count; ++b) {
    char16_t three[3] = {kHexUpper[bytes[b] >> 4], kHexUpper[bytes[b] & 15], u' '};
    m_raw.Put(three, b + 1 < count ? 3 : 2);
  }
  CloseRaw();
}

void Formatter::Error(const ConversionSpec& conv) {
  int start = m_out.Length();
  int code = static_cast<int>(TakeSigned(conv));
  TString text;
  GetErrorText(code, &text);
  // Blanks at both ends go.
  int first = 0;
  int last = text.GetLength();
  const char16_t* units = text.GetConstBuffer();
  while (first < last && units[first] == u' ') ++first;
  while (last > first && units[last - 1] == u' ') --last;
  if (first > 0 || last < text.GetLength()) {
    TString stripped(units + first, last - first);
    text = std::move(stripped);
  }
  if (conv.tilde || m_nesting >= kMaxNesting) {
    m_out.Put(text.GetConstBuffer(), text.GetLength());
  } else {
    TString format;
    if (!LoadResourceText(16000, ResKey("Errr"), &format)) format = u"%s (error %~d)";
    FormatArgWord words[2];
    words[0].kind = FormatArgKind::kPointer;
    words[0].value = reinterpret_cast<uintptr_t>(&text);
    words[1].kind = FormatArgKind::kInt;
    words[1].value = static_cast<uint64_t>(static_cast<int64_t>(code));
    FormatArgSource source(words, 2);
    Formatter nested(&source, m_nesting + 1, &m_out);
    nested.Run(format.GetConstBuffer(), format.GetLength());
  }
  Pad(&m_out, conv, start);
  if (AddRecord(u'E', start)) RawSigned(code);
}

void Formatter::Size(const ConversionSpec& conv) {
  int start = m_out.Length();
  uint64_t v = TakeUnsigned(conv);
  uint64_t given = v;
  static constexpr char16_t kLetters[] = u"KMGTPEZYkmgtpezy";
  TString letters;
  LoadResourceText(16000, ResKey("KMkm"), &letters);
  auto letter = [&](int index) {
    return index < letters.GetLength() ? letters.GetAt(index) : kLetters[index < 16 ? index : 15];
  };
  int first = conv.conversion == u'k' ? 8 : 0;
  if (v == 0) {
    TString zero;
    if (!LoadResourceText(16000, ResKey("Zero"), &zero)) zero = u"0";
    m_out.Put(zero.GetConstBuffer(), zero.GetLength());
    m_out.Put(u' ');
  } else if (v <= 1023) {
    PutUnsigned(&m_out, v);
    m_out.Put(u' ');
    m_out.Put(letter(first));
  } else {
    int units = 1;
    while (v >= 1023898 && units < 11) {
      v = v / 1024 + (v % 1024 != 0 ? 1 : 0);
      ++units;
    }
    uint64_t tenths = static_cast<uint64_t>((static_cast<unsigned __int128>(v) * 10 + 512) / 1024);
    ConversionSpec fixed;
    fixed.tilde = conv.tilde;
    char16_t digits[24];
    int n = DecimalDigits(tenths, digits);
    char16_t all[25];
    int m = 0;
    if (n < 2) all[m++] = u'0';
    for (int k = 0; k < n; ++k) all[m++] = digits[k];
    PutNumber(&m_out, fixed, false, all, m - 1, conv.tilde ? 0 : 3, all + m - 1, 1);
    m_out.Put(u' ');
    int index = first + units;
    m_out.Put(letter(index < first + 8 ? index : first + 7));
  }
  Pad(&m_out, conv, start);
  if (AddRecord(conv.conversion, start)) RawUnsigned(given);
}

void Formatter::Address(const ConversionSpec& conv) {
  int start = m_out.Length();
  const auto* bytes = static_cast<const uint8_t*>(TakePointer());
  if (bytes != nullptr) {
    for (int b = 0; b < 4; ++b) {
      if (b > 0) m_out.Put(u'.');
      PutUnsigned(&m_out, bytes[b]);
    }
  }
  int shown = m_out.Length() - start;
  Pad(&m_out, conv, start);
  if (!AddRecord(u'p', start)) return;
  // The dotted text without the padding.
  const char16_t* field = m_out.Data() + start;
  int first = 0;
  while (first < m_out.Length() - start && field[first] == u' ') ++first;
  Raw(field + first, shown);
}

void Formatter::Text(const ConversionSpec& conv) {
  int start = m_out.Length();
  const auto* s = static_cast<const TString*>(TakePointer());
  int precision = conv.precision;
  if (precision < 0 && conv.conversion == u'S') precision = 31;
  if (s == nullptr) {
    m_out.Put(u"nil", 3);
    Pad(&m_out, conv, start);
    if (AddRecord(conv.conversion, start)) CloseRaw();
    return;
  }
  int n = s->GetLength();
  const char16_t* units = s->GetConstBuffer();
  if (precision >= 0 && precision < n) {
    n = precision;
    // Never leave half a surrogate pair.
    if (n > 0 && units[n - 1] >= 0xD800 && units[n - 1] <= 0xDBFF && units[n] >= 0xDC00 && units[n] <= 0xDFFF) --n;
  }
  m_out.Put(units, n);
  Pad(&m_out, conv, start);
  if (AddRecord(conv.conversion, start)) Raw(units, s->GetLength());
}

void Formatter::Character(const ConversionSpec& conv) {
  int start = m_out.Length();
  uint32_t cp = static_cast<uint32_t>(TakeUnsigned(conv));
  // A lone surrogate unit is kept as it is (TString keeps them); a code
  // point beyond Unicode becomes U+FFFD.
  if (cp > 0x10FFFF) cp = 0xFFFD;
  char16_t units[2];
  int n = 1;
  if (cp > 0xFFFF) {
    units[0] = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
    units[1] = static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    n = 2;
  } else {
    units[0] = static_cast<char16_t>(cp);
  }
  m_out.Put(units, n);
  Pad(&m_out, conv, start);
  if (AddRecord(conv.conversion, start)) Raw(units, n);
}

void Formatter::Boolean(const ConversionSpec& conv) {
  int start = m_out.Length();
  bool yes = TakeUnsigned(conv) != 0;
  if (conv.conversion == u'Y') {
    TString text;
    if (!LoadResourceText(16000, yes ? ResKey("Yes_") : ResKey("No__"), &text)) text = yes ? u"Yes" : u"No";
    m_out.Put(text.GetConstBuffer(), text.GetLength());
  } else {
    m_out.PutAscii(yes ? "true" : "false");
  }
  Pad(&m_out, conv, start);
  if (AddRecord(conv.conversion, start)) Raw(yes ? u"1" : u"0", 1);
}

}  // namespace

namespace format_internal {

bool IsConversion(char16_t c) {
  switch (c) {
    case u'd': case u'i': case u'u': case u'x': case u'X': case u'#': case u'F': case u'$': case u'E':
    case u'D': case u'T': case u'I': case u'K': case u'k': case u'p': case u's': case u'S': case u'c':
    case u'C': case u'Y': case u'y': case u'%': case u'^': case u'{': case u'}':
      return true;
    default:
      return false;
  }
}

}  // namespace format_internal

int FormatWithSource(TString* out, const char16_t* format, int length, FormatArgSource* args, bool record) {
  int n = length;
  if (format == nullptr) n = 0;
  if (n < 0) n = Units(format);
  Formatter formatter(args, 0, record);
  if (n > 0) formatter.Run(format, n);
  format_internal::OutBuffer& text = formatter.Out();
  // The format may live in `out` itself: copy it before the text changes.
  TString keptFormat;
  std::less<const char16_t*> before;
  const char16_t* own = out->GetConstBuffer();
  bool aliased = !before(format, own) && before(format, own + out->GetLength() + 1);
  if (record && aliased) keptFormat.Assign(format, n);
  if (record) {
    out->ReplaceFormatted(text.Data(), text.Length());
  } else {
    out->Assign(text.Data(), text.Length());
  }
  if (record) {
    for (int k = 0; k < formatter.RecordCount(); ++k) {
      const Record& r = formatter.RecordAt(k);
      out->AddParameter(r.kind, r.position, r.length, formatter.RawUnits(r), r.rawLength);
    }
    if (aliased) {
      out->SetFormatString(keptFormat);
    } else {
      out->SetFormatString(format, n);
    }
  }
  return out->GetLength();
}

// ---- TString members --------------------------------------------------------------

int TString::VSPrintf(const char16_t* format, int length, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  FormatArgSource source(&copy);
  int n = FormatWithSource(this, format, length, &source, true);
  va_end(copy);
  return n;
}

int TString::SPrintf(TString* format, ...) {
  va_list ap;
  va_start(ap, format);
  int n = 0;
  if (format == nullptr) {
    n = VSPrintf(u"", 0, ap);
  } else if (format == this) {
    TString kept(*format);
    n = VSPrintf(kept.GetConstBuffer(), kept.GetLength(), ap);
  } else {
    n = VSPrintf(format->GetConstBuffer(), format->GetLength(), ap);
  }
  va_end(ap);
  return n;
}

int TString::SPrintf(const char16_t* format, ...) {
  va_list ap;
  va_start(ap, format);
  int n = VSPrintf(format, -1, ap);
  va_end(ap);
  return n;
}

int TString::SPrintf(unsigned short group, int key, ...) {
  TString format;
  LoadResourceText(group, static_cast<unsigned int>(key), &format);
  va_list ap;
  va_start(ap, key);
  int n = VSPrintf(format.GetConstBuffer(), format.GetLength(), ap);
  va_end(ap);
  return n;
}
