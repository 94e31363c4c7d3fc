// TBufferedUint8Stream, a byte stream that reads and writes a TUint8Buffer
// at a position, as a file is read and written.
//
// The stream works over the caller's buffer (which must outlive it) or,
// built without one, over a buffer of its own; GetRef() answers the buffer
// either way. The position runs from 0 to the buffer's count.
//
// Writing (Put) stores at the position and moves it on, overwriting bytes
// that are there and growing the buffer past its end. PutAt writes at a
// given position without moving the stream's own (to fill in a length
// field once the record behind it is written); it may extend the buffer
// from any position up to its end, not beyond.
//
// Reading (Get) takes bytes from the position and moves it on. A read
// that wants more bytes than Remaining() takes nothing, leaves the
// position and the output alone, and answers kErrEndOfFile (-1114) with
// one log line.
//
// Integers are read and written little-endian, whatever the host.
//
// Errors: kErrEndOfFile as above; kErrSeek (-1105) for SeekFromStart or
// PutAt beyond the end of the buffer; the TMemory::SetSize code when the
// buffer cannot grow. Each failure writes one log line (selector 514).
//
// Not thread-safe: one thread at a time uses a stream.
#ifndef PLINTH_CONTAINERS_TBUFFEREDUINT8STREAM_H_
#define PLINTH_CONTAINERS_TBUFFEREDUINT8STREAM_H_

#include <cstdint>

#include "containers/typed_buffers.h"
#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API TBufferedUint8Stream : public TObject {
 public:
  // Over a buffer of its own, empty.
  TBufferedUint8Stream();
  // Over `buffer` (not owned), from position 0.
  explicit TBufferedUint8Stream(TUint8Buffer* buffer);
  TBufferedUint8Stream(const TBufferedUint8Stream&) = delete;
  TBufferedUint8Stream& operator=(const TBufferedUint8Stream&) = delete;

  TUint8Buffer* GetRef() { return m_buffer; }
  uint32_t GetPos() const { return m_pos; }
  // Bytes from the position to the end (0 if the buffer was cut below the
  // position behind the stream's back).
  uint32_t Remaining() const;
  // Empties the buffer and goes back to position 0.
  void Reset();
  int SeekFromStart(uint32_t pos);

  int Get(void* out, uint32_t n);
  int Get(uint8_t* out) { return Get(static_cast<void*>(out), 1); }
  int Get(uint16_t* out);
  int Get(uint32_t* out);
  int Get(uint64_t* out);

  int Put(const void* data, uint32_t n);
  int Put(uint8_t value) { return Put(&value, 1); }
  int Put(uint16_t value);
  int Put(uint32_t value);
  int Put(uint64_t value);

  int PutAt(uint32_t pos, const void* data, uint32_t n);
  int PutAt(uint32_t pos, uint8_t value) { return PutAt(pos, &value, 1); }
  int PutAt(uint32_t pos, uint16_t value);
  int PutAt(uint32_t pos, uint32_t value);
  int PutAt(uint32_t pos, uint64_t value);

 private:
  // Writes at `pos`, growing the buffer when the bytes reach past its end;
  // `pos` is at most the count.
  int WriteAt(const char16_t* op, uint32_t pos, const void* data, uint32_t n);

  TUint8Buffer m_own;
  TUint8Buffer* m_buffer;
  uint32_t m_pos = 0;
};

#endif  // PLINTH_CONTAINERS_TBUFFEREDUINT8STREAM_H_
