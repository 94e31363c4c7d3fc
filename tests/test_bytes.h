// Deterministic test bytes: a linear congruential stream, so a misplaced
// run of bytes shows at once.
#ifndef PLINTH_TESTS_TEST_BYTES_H_
#define PLINTH_TESTS_TEST_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <vector>

inline std::vector<uint8_t> TestBytes(size_t size, uint32_t seed = 1) {
  std::vector<uint8_t> out(size);
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1664525u + 1013904223u;
    out[i] = static_cast<uint8_t>(x >> 24);
  }
  return out;
}

#endif  // PLINTH_TESTS_TEST_BYTES_H_
