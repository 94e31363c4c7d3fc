// TString storage, construction, access and the parameter members.
#include "foundation/tstring.h"

#include <cstring>
#include <utility>

#include "foundation/log.h"
#include "foundation/memory.h"
#include "foundation/resources.h"
#include "foundation/tstring_internal.h"
#include "foundation/tstring_params.h"

using tstring_internal::TextLength;

namespace tstring_internal {

int TextLength(const char16_t* text) {
  if (text == nullptr) return 0;
  int n = 0;
  while (text[n] != 0 && n < TString::kMaxLength) ++n;
  return n;
}

}  // namespace tstring_internal

namespace {

bool PointsInto(const char16_t* p, const char16_t* block, int units) {
  auto a = reinterpret_cast<uintptr_t>(p);
  auto b = reinterpret_cast<uintptr_t>(block);
  return a >= b && a <= b + static_cast<uintptr_t>(units) * sizeof(char16_t);
}

}  // namespace

// ---- storage ----------------------------------------------------------------

TString::TString() = default;

TString::TString(const TString& other) {
  Assign(other.m_data, other.m_length);
  if (other.m_params != nullptr) m_params = new TStringParameterList(*other.m_params);
  m_byteOrder = other.m_byteOrder;
}

TString::TString(TString&& other) noexcept { TakeFrom(&other); }

TString::TString(const char16_t* text, int length) { Assign(text, length); }

TString::TString(char16_t ch) { Assign(&ch, 1); }

TString::TString(unsigned short group, unsigned int key) { LoadKString(group, key); }

TString::TString(const char* text, int length) { AssignAnsi(text, length); }

TString::~TString() {
  if (m_data != m_inline) MemFree(m_data);
  delete m_params;
  MemFree(m_ansi);
}

TString& TString::operator=(const TString& other) {
  if (this == &other) return *this;
  Assign(other.m_data, other.m_length);
  if (other.m_params != nullptr) m_params = new TStringParameterList(*other.m_params);
  m_byteOrder = other.m_byteOrder;
  return *this;
}

TString& TString::operator=(TString&& other) noexcept {
  if (this == &other) return *this;
  if (m_data != m_inline) MemFree(m_data);
  delete m_params;
  MemFree(m_ansi);
  TakeFrom(&other);
  return *this;
}

// Moves `other`'s text, parameters and buffers into this string, whose own
// storage is already released, and leaves `other` empty.
void TString::TakeFrom(TString* other) {
  m_length = other->m_length;
  m_capacity = other->m_capacity;
  m_params = std::exchange(other->m_params, nullptr);
  m_ansi = std::exchange(other->m_ansi, nullptr);
  m_ansiSize = std::exchange(other->m_ansiSize, 0);
  m_byteOrder = other->m_byteOrder;
  if (other->m_data == other->m_inline) {
    m_data = m_inline;
    std::memcpy(m_inline, other->m_inline, sizeof m_inline);
  } else {
    m_data = other->m_data;
  }
  other->m_data = other->m_inline;
  other->m_capacity = kInlineUnits;
  other->m_length = 0;
  other->m_inline[0] = 0;
}

TString& TString::operator=(const char16_t* text) {
  Assign(text);
  return *this;
}

bool TString::Reserve(int minLength) {
  if (minLength <= m_capacity) return true;
  if (minLength > kMaxLength || minLength < 0) return false;
  int64_t grown = static_cast<int64_t>(m_capacity) + m_capacity / 2;
  int capacity = grown > minLength ? static_cast<int>(grown > kMaxLength ? kMaxLength : grown) : minLength;
  size_t bytes = (static_cast<size_t>(capacity) + 1) * sizeof(char16_t);
  if (m_data == m_inline) {
    auto* block = static_cast<char16_t*>(MemAlloc(bytes));
    std::memcpy(block, m_inline, (static_cast<size_t>(m_length) + 1) * sizeof(char16_t));
    m_data = block;
  } else {
    m_data = static_cast<char16_t*>(MemRealloc(m_data, bytes));
  }
  m_capacity = capacity;
  return true;
}

void TString::SetLength(int length) {
  m_length = length;
  m_data[length] = 0;
}

void TString::DropParameters() {
  delete m_params;
  m_params = nullptr;
}

// Replaces the text; `text` must not point into this string's buffer.
void TString::ReplaceText(const char16_t* text, int length) {
  DropParameters();
  if (!Reserve(length)) {
    LogLine(514, u"TString::ReplaceText: %~d units is too long, %E", length, kErrBadParameter);
    return;
  }
  if (length > 0) std::memcpy(m_data, text, static_cast<size_t>(length) * sizeof(char16_t));
  SetLength(length);
}

// ---- construction and assignment --------------------------------------------

int TString::LoadKString(unsigned short group, unsigned int key) {
  DropParameters();
  SetLength(0);
  return LoadResourceText(group, key, this) != 0 ? 1 : 0;
}

int TString::Assign(const char16_t* text, int length) {
  if (length < 0) length = TextLength(text);
  if (text == nullptr && length > 0) {
    LogLine(514, u"TString::Assign: null text of %~d units, %E", length, kErrBadParameter);
    return kErrBadParameter;
  }
  if (!Reserve(length)) {
    LogLine(514, u"TString::Assign: %~d units is too long, %E", length, kErrBadParameter);
    return kErrBadParameter;
  }
  DropParameters();
  // Reserve left the block alone when `text` lies inside it (length <= m_length).
  if (length > 0) std::memmove(m_data, text, static_cast<size_t>(length) * sizeof(char16_t));
  SetLength(length);
  return 0;
}

int TString::Assign(const TString& other) {
  if (this == &other) return 0;
  *this = other;
  return 0;
}

int TString::Append(const char16_t* text, int length) {
  if (length < 0) length = TextLength(text);
  if (length == 0) return 0;
  if (text == nullptr) {
    LogLine(514, u"TString::Append: null text of %~d units, %E", length, kErrBadParameter);
    return kErrBadParameter;
  }
  if (static_cast<int64_t>(m_length) + length > kMaxLength) {
    LogLine(514, u"TString::Append: %~d units is too long, %E", length, kErrBadParameter);
    return kErrBadParameter;
  }
  if (PointsInto(text, m_data, m_capacity)) {
    TString copy(text, length);
    return Append(copy.m_data, length);
  }
  Reserve(m_length + length);
  std::memcpy(m_data + m_length, text, static_cast<size_t>(length) * sizeof(char16_t));
  SetLength(m_length + length);
  if (m_params != nullptr) m_params->DropFormat();
  return 0;
}

int TString::Append(const TString& other) {
  int offset = m_length;
  if (this == &other) {
    TString copy(other);
    return Append(copy);
  }
  int rc = Append(other.m_data, other.m_length);
  if (rc != 0 || other.m_params == nullptr || other.m_params->Count() == 0) return rc;
  if (m_params == nullptr) m_params = new TStringParameterList();
  m_params->DropFormat();
  m_params->AppendShifted(*other.m_params, offset);
  return 0;
}

int TString::AppendWithReplace(const TString& text, const TString& from, const TString& to) {
  if (from.IsEmpty()) return Append(text);
  TString piece(text);
  piece.ReplaceSubstring(from, to);
  return Append(piece.m_data, piece.m_length);
}

char32_t TString::RemoveLastChar() {
  if (m_length == 0) return 0;
  int cut = 1;
  char32_t cp = m_data[m_length - 1];
  if (m_length >= 2 && tstring_internal::IsLowSurrogate(m_data[m_length - 1]) &&
      tstring_internal::IsHighSurrogate(m_data[m_length - 2])) {
    cp = 0x10000 + ((static_cast<char32_t>(m_data[m_length - 2]) - 0xD800) << 10) + (cp - 0xDC00);
    cut = 2;
  }
  if (m_params != nullptr) m_params->Keep(0, m_length - cut);
  SetLength(m_length - cut);
  return cp;
}

void TString::Clear() {
  DropParameters();
  SetLength(0);
}

int TString::SetAt(int index, char16_t ch) {
  if (index < 0 || index >= m_length) {
    LogLine(514, u"TString::SetAt: index %~d outside a text of %~d units, %E", index, m_length, kErrBadParameter);
    return kErrBadParameter;
  }
  m_data[index] = ch;
  if (m_params != nullptr) m_params->DropFormat();
  return 0;
}

int TString::Fill(char16_t ch, int count) {
  if (count < 0 || count > kMaxLength) {
    LogLine(514, u"TString::Fill: bad count %~d, %E", count, kErrBadParameter);
    return kErrBadParameter;
  }
  DropParameters();
  Reserve(count);
  for (int i = 0; i < count; ++i) m_data[i] = ch;
  SetLength(count);
  return 0;
}

char16_t TString::GetAt(int index) const { return index >= 0 && index < m_length ? m_data[index] : 0; }

// Cuts the text to [start, start + count); both already clamped.
void TString::KeepPart(int start, int count) {
  if (start > 0) std::memmove(m_data, m_data + start, static_cast<size_t>(count) * sizeof(char16_t));
  SetLength(count);
  if (m_params != nullptr) m_params->Keep(start, start + count);
}

TString TString::Left(int count) const { return Mid(0, count < 0 ? 0 : count); }

TString TString::Mid(int start, int count) const {
  if (start < 0) start = 0;
  if (start > m_length) start = m_length;
  if (count < 0 || count > m_length - start) count = m_length - start;
  if (start == 0 && count == m_length) return *this;
  TString out(m_data + start, count);
  if (m_params != nullptr) {
    out.m_params = new TStringParameterList(*m_params);
    out.m_params->Keep(start, start + count);
  }
  out.m_byteOrder = m_byteOrder;
  return out;
}

TString TString::Right(int count) const {
  if (count < 0) count = 0;
  if (count > m_length) count = m_length;
  return Mid(m_length - count, count);
}

// ---- direct buffer access ---------------------------------------------------

char16_t* TString::GetBuffer(int minLength) {
  if (minLength < m_length) minLength = m_length;
  if (!Reserve(minLength)) {
    LogLine(514, u"TString::GetBuffer: %~d units is too long, %E", minLength, kErrBadParameter);
    return nullptr;
  }
  for (int i = m_length; i <= m_capacity; ++i) m_data[i] = 0;
  return m_data;
}

int TString::ReleaseBuffer(int newLength) {
  DropParameters();
  m_data[m_capacity] = 0;
  if (newLength < 0) {
    int n = 0;
    while (m_data[n] != 0) ++n;
    SetLength(n);
    return 0;
  }
  if (newLength > m_capacity) {
    LogLine(514, u"TString::ReleaseBuffer: length %~d beyond the buffer of %~d units, %E", newLength, m_capacity,
            kErrBadParameter);
    SetLength(m_capacity);
    return kErrBadParameter;
  }
  SetLength(newLength);
  return 0;
}

// ---- parameters ----------------------------------------------------------------

int TString::GetParameterCount() const { return m_params != nullptr ? m_params->Count() : 0; }

const TStringParameter* TString::GetParameter(int index) const {
  if (index < 0 || index >= GetParameterCount()) return nullptr;
  return &m_params->At(index);
}

int TString::GetParametric(int index, TString* raw, char16_t* kind, int* position, int* length) const {
  if (index < 0) {
    LogLine(514, u"TString::GetParametric: bad index %~d, %E", index, kErrBadParameter);
    return kErrBadParameter;
  }
  const TStringParameter* p = GetParameter(index);
  if (p == nullptr) {
    LogLine(519, u"TString::GetParametric: index %~d past %~d parameters, %E", index, GetParameterCount(),
            kErrNoMoreItems);
    return kErrNoMoreItems;
  }
  if (raw != nullptr) *raw = p->raw;
  if (kind != nullptr) *kind = p->kind;
  if (position != nullptr) *position = p->position;
  if (length != nullptr) *length = p->length;
  return 0;
}

int TString::GetFormatString(TString* format) const {
  if (m_params == nullptr || !m_params->HasFormat()) {
    LogLine(519, u"TString::GetFormatString: the string has no format, %E", kErrNotFound);
    return kErrNotFound;
  }
  if (format != nullptr) *format = m_params->Format();
  return 0;
}

int TString::RemoveParametric(int index) {
  if (index < 0 || index >= GetParameterCount()) {
    LogLine(514, u"TString::RemoveParametric: index %~d outside %~d parameters, %E", index, GetParameterCount(),
            kErrBadParameter);
    return kErrBadParameter;
  }
  m_params->Remove(index);
  if (m_params->Empty()) DropParameters();
  return 0;
}

void TString::ClearParameters() { DropParameters(); }

int TString::AddParameter(char16_t kind, int position, int length, const TString& raw) {
  if (position < 0 || length < 0 || position > m_length || length > m_length - position) {
    LogLine(514, u"TString::AddParameter: %~d units at %~d outside a text of %~d units, %E", length, position,
            m_length, kErrBadParameter);
    return kErrBadParameter;
  }
  if (m_params == nullptr) m_params = new TStringParameterList();
  m_params->Add(kind, position, length, raw);
  return 0;
}

void TString::ReplaceFormatted(const char16_t* text, int length) {
  if (m_params == nullptr) {
    ReplaceText(text, length);
    return;
  }
  TStringParameterList* kept = m_params;
  m_params = nullptr;
  ReplaceText(text, length);
  kept->Reset();
  m_params = kept;
}

int TString::AddParameter(char16_t kind, int position, int length, const char16_t* raw, int rawLength) {
  if (position < 0 || length < 0 || position > m_length || length > m_length - position || rawLength < 0 ||
      (raw == nullptr && rawLength > 0)) {
    LogLine(514, u"TString::AddParameter: %~d units at %~d outside a text of %~d units, %E", length, position,
            m_length, kErrBadParameter);
    return kErrBadParameter;
  }
  if (m_params == nullptr) m_params = new TStringParameterList();
  m_params->Add(kind, position, length, raw, rawLength);
  return 0;
}

void TString::SetFormatString(const char16_t* format, int length) {
  if (m_params == nullptr) m_params = new TStringParameterList();
  m_params->SetFormat(format, length);
}

void TString::SetFormatString(const TString& format) {
  if (m_params == nullptr) m_params = new TStringParameterList();
  m_params->SetFormat(format);
}

void TString::LeftParameters(int count) { MidParameters(0, count); }

void TString::MidParameters(int start, int count) {
  if (m_params == nullptr) return;
  if (start < 0) start = 0;
  if (count < 0) count = 0;
  m_params->Keep(start, static_cast<int>(static_cast<int64_t>(start) + count > kMaxLength ? kMaxLength
                                                                                          : start + count));
  if (m_params->Empty()) DropParameters();
}

void TString::RightParameters(int count) {
  if (count < 0) count = 0;
  if (count > m_length) count = m_length;
  MidParameters(m_length - count, count);
}

void TString::RelocateParameters(int from, int delta) {
  if (m_params == nullptr) return;
  m_params->Shift(from, delta);
  if (m_params->Empty()) DropParameters();
}
