#include "containers/typed_buffers.h"

#include <bit>
#include <cstring>

#include "containers/tbuffer_internal.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/hooks.h"
#include "foundation/tstring.h"

namespace {

// The class name for log lines.
template <typename T>
const char16_t* BufferName() {
  if constexpr (std::is_same_v<T, uint8_t>) return u"TUint8Buffer";
  if constexpr (std::is_same_v<T, int16_t>) return u"TSint16Buffer";
  if constexpr (std::is_same_v<T, int32_t>) return u"TSint32Buffer";
  if constexpr (std::is_same_v<T, int64_t>) return u"TSint64Buffer";
  if constexpr (std::is_same_v<T, uint32_t>) return u"TUint32Buffer";
  if constexpr (std::is_same_v<T, uint64_t>) return u"TUint64Buffer";
  if constexpr (std::is_same_v<T, TDate>) return u"TDateBuffer";
  return u"TMD5DigestBuffer";
}

template <typename T>
void StoreLittleEndian(uint8_t* out, const T* values, uint32_t n) {
  if constexpr (std::endian::native == std::endian::little || sizeof(T) == 1) {
    if (n != 0) std::memcpy(out, values, size_t{n} * sizeof(T));
  } else {
    for (uint32_t i = 0; i < n; ++i) {
      auto v = static_cast<std::make_unsigned_t<T>>(values[i]);
      for (size_t b = 0; b < sizeof(T); ++b) *out++ = static_cast<uint8_t>(v >> (8 * b));
    }
  }
}

template <typename T>
void LoadLittleEndian(T* values, const uint8_t* in, uint32_t n) {
  if constexpr (std::endian::native == std::endian::little || sizeof(T) == 1) {
    if (n != 0) std::memcpy(values, in, size_t{n} * sizeof(T));
  } else {
    for (uint32_t i = 0; i < n; ++i) {
      std::make_unsigned_t<T> v = 0;
      for (size_t b = 0; b < sizeof(T); ++b) v |= static_cast<std::make_unsigned_t<T>>(*in++) << (8 * b);
      values[i] = static_cast<T>(v);
    }
  }
}

template <typename T>
int64_t FindBackward(const T* data, uint32_t count, const T& value) {
  for (uint32_t i = count; i > 0; --i) {
    if (data[i - 1] == value) return i - 1;
  }
  return -1;
}

}  // namespace

// ---- TTypedBuffer ---------------------------------------------------------

template <typename T>
int TTypedBuffer<T>::SetCount(uint32_t n) {
  return SetSize(uint64_t{n} * sizeof(T), kTBufferPriorityOwn);
}

template <typename T>
T& TTypedBuffer<T>::OutOfRange() {
  Debug("tbuffer", kTBufferLineIndex, 0);
  // The caller carries on after the assertion; give it somewhere harmless
  // to read and write.
  static thread_local T scratch;
  scratch = T{};
  return scratch;
}

template <typename T>
T* TTypedBuffer<T>::Append(const T* values, uint32_t n) {
  return static_cast<T*>(tbuffer::AppendRecords(this, sizeof(T), values, n));
}

template <typename T>
uint32_t TTypedBuffer<T>::Append(const TTypedBuffer* other) {
  uint32_t n = other->Count();
  if (n != 0) Append(other->Data(), n);
  return Count();
}

template <typename T>
T* TTypedBuffer<T>::Insert(const T* values, uint32_t n, uint32_t at) {
  return static_cast<T*>(tbuffer::InsertRecords(this, sizeof(T), values, n, at));
}

template <typename T>
int TTypedBuffer<T>::Remove(uint32_t i) {
  return tbuffer::RemoveRecord(this, sizeof(T), i);
}

template <typename T>
int TTypedBuffer<T>::RemoveLast(uint32_t n) {
  return tbuffer::RemoveLastRecords(this, sizeof(T), n);
}

template <typename T>
int64_t TTypedBuffer<T>::Find(T value) const {
  return FindBackward(Data(), Count(), value);
}

template <typename T>
int TTypedBuffer<T>::Load(const T* values, uint32_t n) {
  // Values from this very buffer survive the resize only if set aside.
  TTypedBuffer aside;
  if (values != nullptr && n != 0 && Count() != 0) {
    auto start = reinterpret_cast<uintptr_t>(Data());
    auto at = reinterpret_cast<uintptr_t>(values);
    if (at < start + GetSize() && start < at + uint64_t{n} * sizeof(T)) {
      if (aside.Append(values, n) == nullptr) return aside.CheckError();
      values = aside.Data();
    }
  }
  int code = SetSize(uint64_t{n} * sizeof(T), kTBufferPriorityOwn);
  if (code != 0) return code;
  if (n == 0) return 0;
  if (values != nullptr) {
    std::memcpy(Data(), values, size_t{n} * sizeof(T));
  } else {
    std::memset(static_cast<void*>(Data()), 0, size_t{n} * sizeof(T));
  }
  return 0;
}

template <typename T>
int TTypedBuffer<T>::Move(TTypedBuffer* source) {
  if (source == this) return 0;
  uint32_t bytes = source->Count() * static_cast<uint32_t>(sizeof(T));
  int code = SetSize(bytes, kTBufferPriorityOwn);
  if (code != 0) return code;
  if (bytes != 0) std::memcpy(Data(), source->Data(), bytes);
  return source->SetSize(0, kTBufferPriorityOwn);
}

template <typename T>
int TTypedBuffer<T>::Export(void* buffer, unsigned int size) const
  requires std::is_integral_v<T>
{
  uint64_t needed = ExportSize();
  if (buffer == nullptr || size < needed) {
    TString name(BufferName<T>());
    LogLineChecked(514, u"%s::Export: %~u bytes given, %~ld needed, %E", &name, size, static_cast<int64_t>(needed),
                   kErrBufferTooSmall);
    return kErrBufferTooSmall;
  }
  uint32_t count = Count();
  auto* out = static_cast<uint8_t*>(buffer);
  StoreLittleEndian<uint32_t>(out, &count, 1);
  StoreLittleEndian<T>(out + 4, Data(), count);
  return 0;
}

template <typename T>
int TTypedBuffer<T>::Import(const void* buffer, unsigned int size)
  requires std::is_integral_v<T>
{
  if (buffer == nullptr || size < 4) {
    TString name(BufferName<T>());
    LogLineChecked(514, u"%s::Import: %~u bytes hold no count, %E", &name, buffer == nullptr ? 0u : size,
                   kErrInvalidData);
    return kErrInvalidData;
  }
  const auto* in = static_cast<const uint8_t*>(buffer);
  uint32_t count = 0;
  LoadLittleEndian<uint32_t>(&count, in, 1);
  uint64_t needed = 4 + uint64_t{count} * sizeof(T);
  if (needed > size) {
    TString name(BufferName<T>());
    LogLineChecked(514, u"%s::Import: count %~u needs %~ld bytes, %~u given, %E", &name, count,
                   static_cast<int64_t>(needed), size, kErrInvalidData);
    return kErrInvalidData;
  }
  const uint8_t* elements = in + 4;
  uint64_t bytes = uint64_t{count} * sizeof(T);
  // The source may be this buffer's own bytes, which move when it resizes.
  TMemory aside;
  auto start = reinterpret_cast<uintptr_t>(MemPtr());
  auto at = reinterpret_cast<uintptr_t>(elements);
  if (count != 0 && GetSize() != 0 && at < start + GetSize() && start < at + bytes) {
    int code = aside.SetSize(bytes);
    if (code != 0) return code;
    std::memcpy(aside.MemPtr(), elements, bytes);
    elements = static_cast<const uint8_t*>(aside.MemPtr());
  }
  int code = SetSize(bytes, kTBufferPriorityOwn);
  if (code != 0) return code;
  LoadLittleEndian<T>(Data(), elements, count);
  return 0;
}

// ---- TTypedBufferReserve --------------------------------------------------

template <typename T>
T& TTypedBufferReserve<T>::OutOfRange() {
  Debug("tbuffer", kTBufferLineIndex, 0);
  static thread_local T scratch;
  scratch = T{};
  return scratch;
}

template <typename T>
int TTypedBufferReserve<T>::SetSize(uint64_t bytes, int priority) {
  int code = TMemory::SetSize(bytes, priority);
  if (code != 0) return code;
  m_count = Capacity();
  return 0;
}

template <typename T>
int TTypedBufferReserve<T>::Reserve(uint32_t n) {
  if (n <= Count() || n <= Capacity()) return 0;
  return TMemory::SetSize(uint64_t{n} * sizeof(T), kTBufferPriorityOwn);
}

template <typename T>
int TTypedBufferReserve<T>::SetCount(uint32_t n) {
  uint32_t count = Count();
  if (n > Capacity()) {
    int code = TMemory::SetSize(uint64_t{n} * sizeof(T), kTBufferPriorityOwn);
    if (code != 0) return code;
  }
  // The storage is kept; what lies past the count is kept zero.
  if (n < count) std::memset(static_cast<void*>(Data() + n), 0, size_t{count - n} * sizeof(T));
  m_count = n;
  return 0;
}

template <typename T>
T* TTypedBufferReserve<T>::Append(const T* values, uint32_t n) {
  if (n == 0) return nullptr;
  uint32_t count = Count();
  uint64_t wanted = uint64_t{count} + n;
  if (wanted > Capacity()) {
    // Values from this very buffer survive the growth only if set aside.
    TTypedBuffer<T> aside;
    if (values != nullptr && count != 0) {
      auto start = reinterpret_cast<uintptr_t>(Data());
      auto at = reinterpret_cast<uintptr_t>(values);
      if (at < start + GetSize() && start < at + uint64_t{n} * sizeof(T)) {
        values = aside.Append(values, n);
        if (values == nullptr) return nullptr;
      }
    }
    if (TMemory::SetSize(wanted * sizeof(T), kTBufferPriorityOwn) != 0) return nullptr;
  }
  T* dst = Data() + count;
  if (values != nullptr) {
    std::memmove(dst, values, size_t{n} * sizeof(T));
  } else {
    std::memset(static_cast<void*>(dst), 0, size_t{n} * sizeof(T));
  }
  m_count = static_cast<uint32_t>(wanted);
  return dst;
}

template <typename T>
uint32_t TTypedBufferReserve<T>::Append(const TTypedBufferReserve* other) {
  uint32_t n = other->Count();
  if (n != 0) Append(other->Data(), n);
  return Count();
}

template <typename T>
int64_t TTypedBufferReserve<T>::Find(T value) const {
  return FindBackward(Data(), Count(), value);
}

template class TTypedBuffer<uint8_t>;
template class TTypedBuffer<int16_t>;
template class TTypedBuffer<int32_t>;
template class TTypedBuffer<int64_t>;
template class TTypedBuffer<uint32_t>;
template class TTypedBuffer<uint64_t>;
template class TTypedBuffer<TDate>;
template class TTypedBuffer<MD5DigestSpec>;
template class TTypedBufferReserve<uint32_t>;
template class TTypedBufferReserve<uint64_t>;
