// Byte order of stored values and records.
//
// Single values. The Swap* functions and the SwapScalar overloads reverse the
// bytes of one value; the 8-bit forms return their argument.
//
// Records. A stored record is converted in place between the host's byte
// order and the order of the file or wire by a layout string that names the
// record's multi-byte fields from its first byte on:
//   "l" a 4-byte field, "w" a 2-byte field, "v" an 8-byte field,
//   "b" a single byte (no order; it only moves past the byte),
// and a decimal count in front of a letter repeats it ("3v" is "vvv"). So the
// chunk container's file header is "l2w3v2lvl15l" (112 bytes). Fields need
// no alignment: packed records convert as well as aligned ones.
//
// Every converter takes the record's address, its layout and its size in
// bytes, and answers the address just after the record (record + size), so
// an array of records is walked by feeding the answer back in. The layout
// may describe less than the whole record: the bytes past it are left as
// they are (trailing text or padding has no byte order). It may not describe
// more.
//
// A malformed layout converts nothing: not a single byte, so a record is
// never left half converted and nothing past it is touched. Malformed are a
// character other than the letters above or digits, a count with no letter
// after it, a count of 0, and a layout that runs past the record's size; a
// null record or layout is refused too. The converter then writes one log
// line at 514, "<Name>: bad layout "%s" at %~d for a record of %~ld bytes, %E"
// (the layout, the index of the offending character, the record size, the
// code), stores kErrBadParameter in *status when given, and answers null.
// On success *status is 0.
//
// The converters keep no state and take no lock; any thread may call them.
//
// Which converter: the file or wire order is fixed by the format, the host
// order by the machine. HostToLittleEndian / LittleEndianToHost and their
// big-endian twins convert between the two and do nothing to the bytes on a
// host of that order (the layout is still checked). NetworkChangeEndian
// converts between host and network order (big-endian) in either direction.
// ChangeEndian reverses every field whatever the host: it turns a record
// read in the wrong order, found out by a byte-reversed magic, into the
// right one.
#ifndef PLINTH_CONTAINERS_BYTEORDER_H_
#define PLINTH_CONTAINERS_BYTEORDER_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/export.h"

PLINTH_API int16_t SwapSint16(int16_t value);
PLINTH_API uint16_t SwapUint16(uint16_t value);
PLINTH_API int32_t SwapSint32(int32_t value);
PLINTH_API uint32_t SwapUint32(uint32_t value);
PLINTH_API int64_t SwapSint64(int64_t value);
PLINTH_API uint64_t SwapUint64(uint64_t value);

// A plain char is taken as 8 bits here rather than promoted to int.
PLINTH_API char SwapScalar(char value);
PLINTH_API int8_t SwapScalar(int8_t value);
PLINTH_API uint8_t SwapScalar(uint8_t value);
PLINTH_API int16_t SwapScalar(int16_t value);
PLINTH_API uint16_t SwapScalar(uint16_t value);
PLINTH_API int32_t SwapScalar(int32_t value);
PLINTH_API uint32_t SwapScalar(uint32_t value);
PLINTH_API int64_t SwapScalar(int64_t value);
PLINTH_API uint64_t SwapScalar(uint64_t value);

// Record converters (see above).
PLINTH_API void* HostToBigEndian(void* record, const char* layout, size_t recordSize, int* status = nullptr);
PLINTH_API void* BigEndianToHost(void* record, const char* layout, size_t recordSize, int* status = nullptr);
PLINTH_API void* HostToLittleEndian(void* record, const char* layout, size_t recordSize, int* status = nullptr);
PLINTH_API void* LittleEndianToHost(void* record, const char* layout, size_t recordSize, int* status = nullptr);
PLINTH_API void* NetworkChangeEndian(void* record, const char* layout, size_t recordSize, int* status = nullptr);
PLINTH_API void* ChangeEndian(void* record, const char* layout, size_t recordSize, int* status = nullptr);

// The number of bytes `layout` describes, or -1 when it is malformed (the
// size limit aside) or describes more than 2147483647 bytes. Usable in
// constant expressions, so a record's declaration can check its layout:
//   static_assert(LayoutBytes("2l3v4l") == sizeof(CHMapEntrySpec));
constexpr int64_t LayoutBytes(std::string_view layout) {
  constexpr int64_t kLimit = 2147483647;
  int64_t total = 0;
  int64_t count = 0;
  bool counting = false;
  for (char c : layout) {
    if (c >= '0' && c <= '9') {
      count = count * 10 + (c - '0');
      if (count > kLimit) return -1;
      counting = true;
      continue;
    }
    int width = c == 'b' ? 1 : c == 'w' ? 2 : c == 'l' ? 4 : c == 'v' ? 8 : 0;
    if (width == 0) return -1;
    if (counting && count == 0) return -1;
    total += (counting ? count : 1) * width;
    if (total > kLimit) return -1;
    count = 0;
    counting = false;
  }
  return counting ? -1 : total;
}

#endif  // PLINTH_CONTAINERS_BYTEORDER_H_
