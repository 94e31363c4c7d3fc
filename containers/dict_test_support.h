// Test support for the hash dictionaries: the table geometry and placement
// computed the slow way (128-bit arithmetic and true modulo), and a peer that
// reaches the counters for fault injection.
#ifndef PLINTH_CONTAINERS_DICT_TEST_SUPPORT_H_
#define PLINTH_CONTAINERS_DICT_TEST_SUPPORT_H_

#include <cstdint>
#include <vector>

#include "containers/tdict.h"
#include "containers/tdict64.h"

namespace dict_internal {

class DictCorePeer {
 public:
  template <typename Dict>
  static auto& Table(Dict& dict) { return dict.m_table; }
  template <typename Dict>
  static int32_t& Used(Dict& dict) { return dict.m_table.m_used; }
  template <typename Dict>
  static int32_t& Deleted(Dict& dict) { return dict.m_table.m_deleted; }
  template <typename Dict>
  static int32_t& High(Dict& dict) { return dict.m_table.m_high; }
  template <typename Dict>
  static int32_t& Dropped(Dict& dict) { return dict.m_table.m_dropped; }
};

}  // namespace dict_internal

namespace dict_test {

using Peer = dict_internal::DictCorePeer;

// Home slot of `key` in a table of `size` slots whose keys are `width` bits
// wide: the square wrapped to the width and read as signed, floor-divided by
// 2^shift, taken modulo the largest power of two not above the size.
inline int64_t SlowHome(__int128 key, int64_t size, int width) {
  int64_t top = 1;
  int bits = 0;
  while (top * 2 <= size) {
    top *= 2;
    ++bits;
  }
  int shift = bits > 16 ? 32 - bits : 16;
  unsigned __int128 modulus = static_cast<unsigned __int128>(1) << width;
  unsigned __int128 square = static_cast<unsigned __int128>(key * key) % modulus;
  __int128 wrapped = square >= modulus / 2 ? static_cast<__int128>(square) - static_cast<__int128>(modulus)
                                           : static_cast<__int128>(square);
  __int128 divisor = static_cast<__int128>(1) << shift;
  __int128 quotient = wrapped / divisor;
  if (wrapped % divisor != 0 && wrapped < 0) --quotient;  // floor
  return static_cast<int64_t>(((quotient % top) + top) % top);
}

// The j-th slot of the probe sequence from `home`.
inline int64_t ProbeSlot(int64_t home, int64_t j, int64_t size) {
  int64_t step = home != 0 ? size - home : 1;
  return (((home - j * step) % size) + size) % size;
}

// The slot keys after defining `keys` in order (no deletions) in an
// unordered table of `size` slots that is never rebuilt.
inline std::vector<int64_t> PlaceKeys(const std::vector<int64_t>& keys, int64_t size, int width) {
  std::vector<int64_t> slots(size, 0);
  for (int64_t key : keys) {
    int64_t home = SlowHome(key, size, width);
    for (int64_t j = 0; j < size; ++j) {
      int64_t at = ProbeSlot(home, j, size);
      if (slots[at] == 0) {
        slots[at] = key;
        break;
      }
    }
  }
  return slots;
}

}  // namespace dict_test

#endif  // PLINTH_CONTAINERS_DICT_TEST_SUPPORT_H_
