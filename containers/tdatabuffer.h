// TDataBuffer, an array of fixed-size records held in a TMemory.
//
// The buffer is the TMemory itself: the count of records is never stored
// but always computed as the used size divided by the record size, so
// resizing the block resizes the array and every change of count goes
// through TMemory::SetSize, whose rounding of the allocation is the growth
// policy (geometric: a run of Appends moves the block a logarithmic number
// of times). Records beyond the count are zero, so growing shows zeros.
//
// Addresses. PointAt, GetAt, Enum and the pointers Append and Insert answer
// stay valid until the next change of count. On pooled storage each of them
// takes the pool lock through MemPtr(), which the caller releases with
// UnLock().
//
// Assertions (Debug, source "tbuffer"): Insert at a position above Count()
// (line 84, then inserts at the end); a typed buffer's operator[] at or past
// Count() (line 444, then answers a scratch element); Remove at or past
// Count() (line 474, then changes nothing); a record size of 0 at
// construction (line 40, taken as 1); RemoveLast of more records than the
// buffer holds (line 497, then empties it).
//
// Not thread-safe: one thread at a time uses a buffer.
#ifndef PLINTH_CONTAINERS_TDATABUFFER_H_
#define PLINTH_CONTAINERS_TDATABUFFER_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tmemory.h"

// Lines of the "tbuffer" assertions.
constexpr int kTBufferLineRecordSize = 40;
constexpr int kTBufferLineInsert = 84;
constexpr int kTBufferLineIndex = 444;
constexpr int kTBufferLineRemove = 474;
constexpr int kTBufferLineRemoveLast = 497;

// TMemory::SetSize's "own priority" as the buffers pass it.
constexpr int kTBufferPriorityOwn = 65535;

class PLINTH_API TDataBuffer : public TMemory {
 public:
  explicit TDataBuffer(unsigned int recordSize);
  // Copies the records; the record size comes along.
  TDataBuffer(const TDataBuffer& other);
  // Copies the bytes; this buffer keeps its own record size, so the count
  // is the other's byte count divided by it.
  TDataBuffer& operator=(const TDataBuffer& other);

  unsigned int GetRecordSize() const { return m_recordSize; }
  uint32_t Count() const { return GetSize() / m_recordSize; }
  // Resizes the block to n records; new records are zero. 0 or the
  // TMemory::SetSize code.
  int SetCount(uint32_t n);

  // The address of record i, without a bound check (null while empty).
  void* PointAt(uint32_t i);
  // As PointAt, but null when i >= Count().
  void* GetAt(uint32_t i);
  // For enumeration: record i, null once i reaches Count(), so
  //   for (uint32_t i = 0; void* r = buf.Enum(i); ++i) ...
  void* Enum(uint32_t i) { return GetAt(i); }

  // Grows by n and copies the n records to the end (zeros when `records` is
  // null); `records` may point into this buffer. Answers the first new
  // record, or null when n is 0 or the block cannot grow.
  void* Append(const void* records, uint32_t n);
  // Grows by n, moves the records from `at` on up by n and copies the new
  // ones in; Insert at Count() is Append. Answers the first new record, or
  // null when n is 0 or the block cannot grow.
  void* Insert(const void* records, uint32_t n, uint32_t at);
  // Shrinks by n records. 0 or the TMemory::SetSize code.
  int RemoveLast(uint32_t n);

 private:
  unsigned int m_recordSize;
};

#endif  // PLINTH_CONTAINERS_TDATABUFFER_H_
