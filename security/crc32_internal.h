// Internals of the CRC-32: the code paths, the constants of the folding
// paths and the seam that lets tests force a path.
#ifndef PLINTH_SECURITY_CRC32_INTERNAL_H_
#define PLINTH_SECURITY_CRC32_INTERNAL_H_

#include <cstddef>
#include <cstdint>

namespace crc32_internal {

// The polynomial with its x^32 term.
constexpr uint64_t kPoly = 0x104C11DB7ull;

// x^n mod P, by shifting one bit at a time.
constexpr uint32_t XPowModP(unsigned int n) {
  uint64_t r = 1;
  for (unsigned int i = 0; i < n; ++i) {
    r <<= 1;
    if (r & (1ull << 32)) r ^= kPoly;
  }
  return static_cast<uint32_t>(r);
}

// floor(x^64 / P), the Barrett constant (33 bits), by long division: the
// dividend's 65 bits (a 1 and 64 zeros) go through a remainder register.
constexpr uint64_t BarrettMu() {
  uint64_t r = 0;
  uint64_t q = 0;
  for (int bit = 64; bit >= 0; --bit) {
    r = (r << 1) | (bit == 64 ? 1u : 0u);
    q <<= 1;
    if (r & (1ull << 32)) {
      r ^= kPoly;
      q |= 1;
    }
  }
  return q;
}

// kTable is the slicing loop; the byte loop is the reference of the tests.
enum class CrcPath { kAuto, kTable, kPclmul, kVpclmul256, kVpclmul };

typedef uint32_t (*CrcUpdateFn)(uint32_t crc, const uint8_t* data, size_t length);

// The byte-at-a-time table loop.
uint32_t UpdateTable(uint32_t crc, const uint8_t* data, size_t length);
// Slicing by 8: the portable path for long inputs.
uint32_t UpdateSlice8(uint32_t crc, const uint8_t* data, size_t length);
// Folding with 128-bit carry-less multiplication (PCLMULQDQ + SSSE3/SSE4.1).
uint32_t UpdatePclmul(uint32_t crc, const uint8_t* data, size_t length);
// Folding on 256-bit registers (VPCLMULQDQ + AVX2).
uint32_t UpdateVpclmul256(uint32_t crc, const uint8_t* data, size_t length);
// Folding on 512-bit registers (VPCLMULQDQ + AVX-512 F/VL/BW).
uint32_t UpdateVpclmul(uint32_t crc, const uint8_t* data, size_t length);

// True when this CPU can run `path` (kAuto and kTable always).
bool PathAvailable(CrcPath path);
// The path CRC32::update takes now: the forced one, else the best available.
CrcPath ActivePath();
// Makes CRC32::update take `path` (kAuto: the best available again).
// Returns false, changing nothing, when the CPU cannot run it. For tests.
bool ForcePath(CrcPath path);

}  // namespace crc32_internal

#endif  // PLINTH_SECURITY_CRC32_INTERNAL_H_
