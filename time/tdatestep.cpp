#include "time/tdatestep.h"

#include "foundation/errors.h"
#include "foundation/log.h"
#include "time/store_le.h"

namespace {

constexpr uint8_t kStoreMarker = 'S';
constexpr uint8_t kStoreVersion = 1;

}  // namespace

TDateStep::TDateStep(uint16_t milliseconds, uint16_t seconds, uint16_t minutes, uint16_t hours, uint16_t days,
                     uint16_t weeks, uint16_t months, uint16_t years)
    : m_parts{milliseconds, seconds, minutes, hours, days, weeks, months, years} {}

bool TDateStep::IsZero() const {
  for (uint16_t part : m_parts) {
    if (part != 0) return false;
  }
  return true;
}

int TDateStep::Compare(const TDateStep& other) const {
  for (int i = kPartCount - 1; i >= 0; --i) {
    if (m_parts[i] != other.m_parts[i]) return m_parts[i] < other.m_parts[i] ? -1 : 1;
  }
  return 0;
}

int TDateStep::Export(void* buffer, int size) const {
  if (buffer == nullptr || size < kStoreSize) {
    LogLine(514, u"TDateStep::Export: buffer of %~d bytes, %~d needed, %E", buffer == nullptr ? 0 : size, kStoreSize,
            kErrBufferTooSmall);
    return kErrBufferTooSmall;
  }
  uint8_t* p = static_cast<uint8_t*>(buffer);
  p[0] = kStoreMarker;
  p[1] = kStoreVersion;
  for (int i = 0; i < kPartCount; ++i) store_le::Put16(p + 2 + 2 * i, m_parts[i]);
  return 0;
}

int TDateStep::Import(const void* buffer, int size) {
  if (buffer == nullptr || size < kStoreSize) {
    LogLine(514, u"TDateStep::Import: %~d bytes, %~d needed, %E", buffer == nullptr ? 0 : size, kStoreSize,
            kErrInvalidData);
    return kErrInvalidData;
  }
  const uint8_t* p = static_cast<const uint8_t*>(buffer);
  if (p[0] != kStoreMarker || p[1] != kStoreVersion) {
    LogLine(514, u"TDateStep::Import: bad marker %~d or version %~d, %E", p[0], p[1], kErrInvalidData);
    return kErrInvalidData;
  }
  for (int i = 0; i < kPartCount; ++i) m_parts[i] = store_le::Get16(p + 2 + 2 * i);
  return 0;
}
