// The typed buffers: arrays of one element type held in a TMemory.
//
//   TUint8Buffer  TSint16Buffer  TSint32Buffer  TSint64Buffer
//   TUint32Buffer TUint64Buffer  TDateBuffer    TMD5DigestBuffer
//   TUint32BufferReserve  TUint64BufferReserve
//
// Each named class is a thin TTypedBuffer<T> (or TTypedBufferReserve<T>);
// the element types differ and nothing else. They share the design of
// TDataBuffer (tdatabuffer.h): the buffer is the TMemory, the count is the
// used size divided by sizeof(T) and never stored, every change of count
// goes through TMemory::SetSize (so Add is amortised constant time), new
// elements are zero, and index errors are "tbuffer" assertions (see
// tdatabuffer.h for the lines) except in GetAt, which answers null.
// Addresses answered stay valid until the next change of count.
//
// Find searches from the last element backward: with duplicates the
// highest index wins (7, 3, 7 finds 7 at 2).
//
// Flat form of Export and Import (integer element types): the count as a
// 32-bit little-endian number, then the elements, each little-endian, with
// no padding: ExportSize() = 4 + Count() * sizeof(T) bytes. Export refuses
// a smaller buffer with kErrBufferTooSmall; Import refuses fewer than 4
// bytes, or fewer than the count asks for, with kErrInvalidData, reads
// nothing beyond `size` and leaves the buffer as it was. Bytes after the
// elements are not looked at (a flat form may sit inside a larger record).
//
// Load(values, n) replaces the contents with n values (zeros when `values`
// is null). Move(source) takes the contents of `source`, which is left
// empty (a copy: the storage itself is not handed over); when this buffer
// cannot grow both stay as they were.
//
// Reserve variants keep the storage (the TMemory's used size) apart from
// the count, so that storage can be reserved ahead: SetSize(bytes) sizes
// the storage and makes the count bytes / sizeof(T); Reserve(n) enlarges
// the storage to n elements when n is above the count and the storage is
// smaller, leaving the count; Add and SetCount change the count (growing
// the storage as needed, never shrinking it). Elements between the count
// and the end of the storage are kept zero.
//
// Not thread-safe: one thread at a time uses a buffer.
#ifndef PLINTH_CONTAINERS_TYPED_BUFFERS_H_
#define PLINTH_CONTAINERS_TYPED_BUFFERS_H_

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "containers/md5digest.h"
#include "containers/tdatabuffer.h"
#include "foundation/export.h"
#include "foundation/tmemory.h"
#include "time/tdate.h"

template <typename T>
class PLINTH_API TTypedBuffer : public TMemory {
  static_assert(std::is_trivially_copyable_v<T>, "elements are moved as bytes");

 public:
  using ValueType = T;

  TTypedBuffer() = default;
  TTypedBuffer(const TTypedBuffer& other) : TMemory(other) {}
  TTypedBuffer& operator=(const TTypedBuffer& other) {
    TMemory::operator=(other);
    return *this;
  }

  uint32_t Count() const { return GetSize() / sizeof(T); }
  // New elements are zero. 0 or the TMemory::SetSize code.
  int SetCount(uint32_t n);

  // i >= Count() is an assertion (line 444) and answers a scratch element.
  T& operator[](uint32_t i) {
    if (i >= Count()) [[unlikely]]
      return OutOfRange();
    return Data()[i];
  }
  void SetAt(uint32_t i, T value) { (*this)[i] = value; }

  // Element i without a bound check (null while empty).
  T* PointAt(uint32_t i) {
    T* data = Data();
    return data == nullptr ? nullptr : data + i;
  }
  T* GetAt(uint32_t i) { return i < Count() ? Data() + i : nullptr; }
  // Element i, null once i reaches Count(); see TDataBuffer::Enum.
  T* Enum(uint32_t i) { return GetAt(i); }

  // Grows by one element holding `value`. 0 or the TMemory::SetSize code.
  int Add(T value) {
    uint32_t count = Count();
    int code = SetSize(uint64_t{count} * sizeof(T) + sizeof(T), kTBufferPriorityOwn);
    if (code != 0) [[unlikely]]
      return code;
    Data()[count] = value;
    return 0;
  }
  // Copies n values to the end (zeros for null); answers the first new
  // element, null when n is 0 or the block cannot grow.
  T* Append(const T* values, uint32_t n);
  // Appends every element of `other` (which may be this buffer); answers
  // the new count.
  uint32_t Append(const TTypedBuffer* other);
  // `at` above Count() is an assertion (line 84), then inserts at the end.
  T* Insert(const T* values, uint32_t n, uint32_t at);
  T* Insert(T value, uint32_t at) { return Insert(&value, 1, at); }
  // i >= Count() is an assertion (line 474) answered with kErrBadParameter.
  int Remove(uint32_t i);
  // n above Count() is an assertion (line 497), then empties the buffer.
  int RemoveLast(uint32_t n);
  // Index of the last element equal to `value`, -1 when none.
  int64_t Find(T value) const;

  int Load(const T* values, uint32_t n);
  int Move(TTypedBuffer* source);

  // The flat form's size; only integer buffers have a flat form.
  uint64_t ExportSize() const { return 4 + uint64_t{Count()} * sizeof(T); }
  int Export(void* buffer, unsigned int size) const
    requires std::is_integral_v<T>;
  int Import(const void* buffer, unsigned int size)
    requires std::is_integral_v<T>;

 private:
  T* Data() { return static_cast<T*>(MemPtr()); }
  const T* Data() const { return static_cast<const T*>(const_cast<TTypedBuffer*>(this)->MemPtr()); }
  static T& OutOfRange();
};

template <typename T>
class PLINTH_API TTypedBufferReserve : public TMemory {
  static_assert(std::is_trivially_copyable_v<T>, "elements are moved as bytes");

 public:
  using ValueType = T;

  TTypedBufferReserve() = default;
  TTypedBufferReserve(const TTypedBufferReserve& other) : TMemory(other), m_count(other.m_count) {}
  TTypedBufferReserve& operator=(const TTypedBufferReserve& other) {
    if (this != &other) {
      TMemory::operator=(other);
      m_count = other.m_count;
    }
    return *this;
  }

  // Never more than the storage holds, even if the storage was cut through
  // the TMemory interface.
  uint32_t Count() const { return std::min<uint32_t>(m_count, Capacity()); }
  // The storage in elements.
  uint32_t Capacity() const { return GetSize() / sizeof(T); }
  int SetCount(uint32_t n);
  // Hides TMemory::SetSize: the storage and the count together.
  int SetSize(uint64_t bytes, int priority = kMemPriorityOwn);
  int Reserve(uint32_t n);

  T& operator[](uint32_t i) {
    if (i >= Count()) [[unlikely]]
      return OutOfRange();
    return Data()[i];
  }
  void SetAt(uint32_t i, T value) { (*this)[i] = value; }
  T* PointAt(uint32_t i) {
    T* data = Data();
    return data == nullptr ? nullptr : data + i;
  }
  T* GetAt(uint32_t i) { return i < Count() ? Data() + i : nullptr; }

  int Add(T value) {
    uint32_t count = Count();
    if (count == Capacity()) [[unlikely]] {
      int code = TMemory::SetSize(uint64_t{count} * sizeof(T) + sizeof(T), kTBufferPriorityOwn);
      if (code != 0) return code;
    }
    Data()[count] = value;
    m_count = count + 1;
    return 0;
  }
  T* Append(const T* values, uint32_t n);
  uint32_t Append(const TTypedBufferReserve* other);
  int64_t Find(T value) const;

 private:
  T* Data() { return static_cast<T*>(MemPtr()); }
  const T* Data() const { return static_cast<const T*>(const_cast<TTypedBufferReserve*>(this)->MemPtr()); }
  static T& OutOfRange();

  uint32_t m_count = 0;
};

// The instantiations live in the library.
extern template class TTypedBuffer<uint8_t>;
extern template class TTypedBuffer<int16_t>;
extern template class TTypedBuffer<int32_t>;
extern template class TTypedBuffer<int64_t>;
extern template class TTypedBuffer<uint32_t>;
extern template class TTypedBuffer<uint64_t>;
extern template class TTypedBuffer<TDate>;
extern template class TTypedBuffer<MD5DigestSpec>;
extern template class TTypedBufferReserve<uint32_t>;
extern template class TTypedBufferReserve<uint64_t>;

class PLINTH_API TUint8Buffer : public TTypedBuffer<uint8_t> {};
class PLINTH_API TSint16Buffer : public TTypedBuffer<int16_t> {};
class PLINTH_API TSint32Buffer : public TTypedBuffer<int32_t> {};
class PLINTH_API TSint64Buffer : public TTypedBuffer<int64_t> {};
class PLINTH_API TUint32Buffer : public TTypedBuffer<uint32_t> {};
class PLINTH_API TUint64Buffer : public TTypedBuffer<uint64_t> {};
class PLINTH_API TUint32BufferReserve : public TTypedBufferReserve<uint32_t> {};
class PLINTH_API TUint64BufferReserve : public TTypedBufferReserve<uint64_t> {};
// Elements are TDate values as they stand in memory (16 bytes each); a
// grown element is all zeros, not a default TDate.
class PLINTH_API TDateBuffer : public TTypedBuffer<TDate> {};

class PLINTH_API TMD5DigestBuffer : public TTypedBuffer<MD5DigestSpec> {
 public:
  // Digest i, without a bound check.
  MD5DigestSpec* pointAt(uint32_t i) { return PointAt(i); }
  // True when digest i exists and has been filled (is not all zeros).
  bool IsValid(uint32_t i) {
    const MD5DigestSpec* digest = GetAt(i);
    return digest != nullptr && !digest->IsZero();
  }
};

#endif  // PLINTH_CONTAINERS_TYPED_BUFFERS_H_
