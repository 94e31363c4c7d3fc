#include "containers/byteorder.h"

#include <bit>
#include <cstring>

#include "foundation/errors.h"
#include "foundation/log.h"
#include "foundation/tstring.h"

static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big,
              "mixed-endian hosts are not supported");

int16_t SwapSint16(int16_t value) { return static_cast<int16_t>(__builtin_bswap16(static_cast<uint16_t>(value))); }
uint16_t SwapUint16(uint16_t value) { return __builtin_bswap16(value); }
int32_t SwapSint32(int32_t value) { return static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(value))); }
uint32_t SwapUint32(uint32_t value) { return __builtin_bswap32(value); }
int64_t SwapSint64(int64_t value) { return static_cast<int64_t>(__builtin_bswap64(static_cast<uint64_t>(value))); }
uint64_t SwapUint64(uint64_t value) { return __builtin_bswap64(value); }

char SwapScalar(char value) { return value; }
int8_t SwapScalar(int8_t value) { return value; }
uint8_t SwapScalar(uint8_t value) { return value; }
int16_t SwapScalar(int16_t value) { return SwapSint16(value); }
uint16_t SwapScalar(uint16_t value) { return SwapUint16(value); }
int32_t SwapScalar(int32_t value) { return SwapSint32(value); }
uint32_t SwapScalar(uint32_t value) { return SwapUint32(value); }
int64_t SwapScalar(int64_t value) { return SwapSint64(value); }
uint64_t SwapScalar(uint64_t value) { return SwapUint64(value); }

namespace {

constexpr bool kHostLittle = std::endian::native == std::endian::little;

int LetterWidth(char c) {
  switch (c) {
    case 'b': return 1;
    case 'w': return 2;
    case 'l': return 4;
    case 'v': return 8;
    default: return 0;
  }
}

// The index in `layout` where it goes wrong for a record of `size` bytes
// (the offending character, or the start of the count or letter of the
// field that is malformed or runs past the record), or -1 when it is sound.
long FindLayoutFault(const char* layout, size_t size) {
  size_t used = 0;
  long tokenStart = -1;  // index of the first digit of a pending count
  size_t count = 0;
  long i = 0;
  for (; layout[i] != 0; ++i) {
    char c = layout[i];
    if (c >= '0' && c <= '9') {
      if (tokenStart < 0) tokenStart = i;
      count = count * 10 + static_cast<size_t>(c - '0');
      if (count > size) return tokenStart;  // can only run past the record; also keeps count from overflowing
      continue;
    }
    int width = LetterWidth(c);
    if (width == 0) return i;
    long start = tokenStart < 0 ? i : tokenStart;
    if (tokenStart >= 0 && count == 0) return start;
    size_t bytes = (tokenStart < 0 ? 1 : count) * static_cast<size_t>(width);  // count <= size: no overflow
    if (bytes > size - used) return start;
    used += bytes;
    tokenStart = -1;
    count = 0;
  }
  return tokenStart;  // a count with no letter after it
}

template <typename T, T (*kSwap)(T)>
inline uint8_t* SwapRun(uint8_t* p, size_t n) {
  for (size_t k = 0; k < n; ++k, p += sizeof(T)) {
    T v;
    std::memcpy(&v, p, sizeof v);
    v = kSwap(v);
    std::memcpy(p, &v, sizeof v);
  }
  return p;
}

// Reverses every field of a layout already found sound.
void SwapFields(uint8_t* p, const char* layout) {
  size_t count = 0;
  for (const char* c = layout; *c != 0; ++c) {
    if (*c >= '0' && *c <= '9') {
      count = count * 10 + static_cast<size_t>(*c - '0');
      continue;
    }
    size_t n = count == 0 ? 1 : count;
    count = 0;
    switch (*c) {
      case 'b': p += n; break;
      case 'w': p = SwapRun<uint16_t, SwapUint16>(p, n); break;
      case 'l': p = SwapRun<uint32_t, SwapUint32>(p, n); break;
      default: p = SwapRun<uint64_t, SwapUint64>(p, n); break;
    }
  }
}

void* Convert(void* record, const char* layout, size_t size, int* status, bool swap, const char16_t* badLayoutFmt) {
  long fault = 0;
  if (record != nullptr && layout != nullptr) fault = FindLayoutFault(layout, size);
  if (fault >= 0) {
    TString text = TStringFromUTF8(layout != nullptr ? layout : "");
    LogLine(514, badLayoutFmt, &text, static_cast<int>(fault), static_cast<int64_t>(size), kErrBadParameter);
    if (status != nullptr) *status = kErrBadParameter;
    return nullptr;
  }
  if (swap) SwapFields(static_cast<uint8_t*>(record), layout);
  if (status != nullptr) *status = 0;
  return static_cast<uint8_t*>(record) + size;
}

}  // namespace

void* HostToBigEndian(void* record, const char* layout, size_t recordSize, int* status) {
  return Convert(record, layout, recordSize, status, kHostLittle,
                 u"HostToBigEndian: bad layout \"%s\" at %~d for a record of %~ld bytes, %E");
}

void* BigEndianToHost(void* record, const char* layout, size_t recordSize, int* status) {
  return Convert(record, layout, recordSize, status, kHostLittle,
                 u"BigEndianToHost: bad layout \"%s\" at %~d for a record of %~ld bytes, %E");
}

void* HostToLittleEndian(void* record, const char* layout, size_t recordSize, int* status) {
  return Convert(record, layout, recordSize, status, !kHostLittle,
                 u"HostToLittleEndian: bad layout \"%s\" at %~d for a record of %~ld bytes, %E");
}

void* LittleEndianToHost(void* record, const char* layout, size_t recordSize, int* status) {
  return Convert(record, layout, recordSize, status, !kHostLittle,
                 u"LittleEndianToHost: bad layout \"%s\" at %~d for a record of %~ld bytes, %E");
}

void* NetworkChangeEndian(void* record, const char* layout, size_t recordSize, int* status) {
  return Convert(record, layout, recordSize, status, kHostLittle,
                 u"NetworkChangeEndian: bad layout \"%s\" at %~d for a record of %~ld bytes, %E");
}

void* ChangeEndian(void* record, const char* layout, size_t recordSize, int* status) {
  return Convert(record, layout, recordSize, status, true,
                 u"ChangeEndian: bad layout \"%s\" at %~d for a record of %~ld bytes, %E");
}
