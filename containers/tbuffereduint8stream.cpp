#include "containers/tbuffereduint8stream.h"

#include <cstring>

#include "foundation/errors.h"
#include "foundation/format_checked.h"

namespace {

template <typename T>
void ToLittleEndian(T value, uint8_t* out) {
  for (size_t i = 0; i < sizeof(T); ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

template <typename T>
T FromLittleEndian(const uint8_t* in) {
  T value = 0;
  for (size_t i = 0; i < sizeof(T); ++i) value |= static_cast<T>(in[i]) << (8 * i);
  return value;
}

}  // namespace

TBufferedUint8Stream::TBufferedUint8Stream() : m_buffer(&m_own) {}

TBufferedUint8Stream::TBufferedUint8Stream(TUint8Buffer* buffer) : m_buffer(buffer) {}

uint32_t TBufferedUint8Stream::Remaining() const {
  uint32_t count = m_buffer->Count();
  return m_pos < count ? count - m_pos : 0;
}

void TBufferedUint8Stream::Reset() {
  m_buffer->SetCount(0);
  m_pos = 0;
}

int TBufferedUint8Stream::SeekFromStart(uint32_t pos) {
  if (pos > m_buffer->Count()) {
    LogLineChecked(514, u"TBufferedUint8Stream::SeekFromStart: position %~u past the end at %~u, %E", pos,
                   m_buffer->Count(), kErrSeek);
    return kErrSeek;
  }
  m_pos = pos;
  return 0;
}

int TBufferedUint8Stream::Get(void* out, uint32_t n) {
  uint32_t left = Remaining();
  if (n > left) {
    LogLineChecked(514, u"TBufferedUint8Stream::Get: %~u bytes wanted at %~u, %~u left, %E", n, m_pos, left,
                   kErrEndOfFile);
    return kErrEndOfFile;
  }
  if (n == 0) return 0;
  std::memcpy(out, m_buffer->PointAt(m_pos), n);
  m_pos += n;
  return 0;
}

int TBufferedUint8Stream::Get(uint16_t* out) {
  uint8_t bytes[2];
  int code = Get(bytes, sizeof bytes);
  if (code == 0) *out = FromLittleEndian<uint16_t>(bytes);
  return code;
}

int TBufferedUint8Stream::Get(uint32_t* out) {
  uint8_t bytes[4];
  int code = Get(bytes, sizeof bytes);
  if (code == 0) *out = FromLittleEndian<uint32_t>(bytes);
  return code;
}

int TBufferedUint8Stream::Get(uint64_t* out) {
  uint8_t bytes[8];
  int code = Get(bytes, sizeof bytes);
  if (code == 0) *out = FromLittleEndian<uint64_t>(bytes);
  return code;
}

int TBufferedUint8Stream::WriteAt(const char16_t* op, uint32_t pos, const void* data, uint32_t n) {
  uint32_t count = m_buffer->Count();
  if (pos > count) {
    TString name(op);
    LogLineChecked(514, u"TBufferedUint8Stream::%s: position %~u past the end at %~u, %E", &name, pos, count,
                   kErrSeek);
    return kErrSeek;
  }
  if (n == 0) return 0;
  uint64_t end = uint64_t{pos} + n;
  if (end > UINT32_MAX) {
    TString name(op);
    LogLineChecked(514, u"TBufferedUint8Stream::%s: %~u bytes at %~u pass 4 GiB, %E", &name, n, pos,
                   kErrMemSizeTooLarge);
    return kErrMemSizeTooLarge;
  }
  // Bytes taken from the buffer itself move when it grows: set them aside.
  TMemory aside;
  auto start = reinterpret_cast<uintptr_t>(m_buffer->MemPtr());
  auto at = reinterpret_cast<uintptr_t>(data);
  if (end > count && count != 0 && at < start + count && start < at + n) {
    int code = aside.SetSize(n);
    if (code != 0) return code;
    std::memcpy(aside.MemPtr(), data, n);
    data = aside.MemPtr();
  }
  if (end > count) {
    int code = m_buffer->SetCount(static_cast<uint32_t>(end));
    if (code != 0) return code;  // SetSize has logged why
  }
  std::memmove(m_buffer->PointAt(pos), data, n);
  return 0;
}

int TBufferedUint8Stream::Put(const void* data, uint32_t n) {
  int code = WriteAt(u"Put", m_pos, data, n);
  if (code == 0) m_pos += n;
  return code;
}

int TBufferedUint8Stream::Put(uint16_t value) {
  uint8_t bytes[2];
  ToLittleEndian(value, bytes);
  return Put(bytes, sizeof bytes);
}

int TBufferedUint8Stream::Put(uint32_t value) {
  uint8_t bytes[4];
  ToLittleEndian(value, bytes);
  return Put(bytes, sizeof bytes);
}

int TBufferedUint8Stream::Put(uint64_t value) {
  uint8_t bytes[8];
  ToLittleEndian(value, bytes);
  return Put(bytes, sizeof bytes);
}

int TBufferedUint8Stream::PutAt(uint32_t pos, const void* data, uint32_t n) { return WriteAt(u"PutAt", pos, data, n); }

int TBufferedUint8Stream::PutAt(uint32_t pos, uint16_t value) {
  uint8_t bytes[2];
  ToLittleEndian(value, bytes);
  return PutAt(pos, bytes, sizeof bytes);
}

int TBufferedUint8Stream::PutAt(uint32_t pos, uint32_t value) {
  uint8_t bytes[4];
  ToLittleEndian(value, bytes);
  return PutAt(pos, bytes, sizeof bytes);
}

int TBufferedUint8Stream::PutAt(uint32_t pos, uint64_t value) {
  uint8_t bytes[8];
  ToLittleEndian(value, bytes);
  return PutAt(pos, bytes, sizeof bytes);
}
