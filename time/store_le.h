// Little-endian field access for the stored forms of the date classes, so
// a stored value reads the same on every host.
#ifndef PLINTH_TIME_STORE_LE_H_
#define PLINTH_TIME_STORE_LE_H_

#include <cstdint>

namespace store_le {

inline void Put16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void Put32(uint8_t* p, uint32_t v) {
  Put16(p, static_cast<uint16_t>(v));
  Put16(p + 2, static_cast<uint16_t>(v >> 16));
}
inline uint16_t Get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t Get32(const uint8_t* p) { return Get16(p) | (static_cast<uint32_t>(Get16(p + 2)) << 16); }

}  // namespace store_le

#endif  // PLINTH_TIME_STORE_LE_H_
