// CRC-32 by folding with carry-less multiplication.
//
// Bytes are taken 16 at a time and byte-reversed, so that a 128-bit lane
// holds a piece of the message as a polynomial with its first bit at x^127.
// Folding a lane forward over D bits multiplies it by x^D; modulo P that is
//   hi * (x^(D+64) mod P)  +  lo * (x^D mod P)
// two 64x32-bit carry-less products that still fit the lane, XORed onto the
// data D bits further on. Nothing but congruence modulo P is kept, so at the
// end one lane A remains with A*x^32 mod P the CRC, found by two more folds
// to 64 bits and a Barrett reduction. The caller's start value goes onto the
// first 32 bits of the message; bytes after the last whole lane go through
// the table loop.
//
// Every constant comes from XPowModP and BarrettMu at compile time. The
// functions carry their instruction sets as target attributes, so the rest of
// the library keeps the baseline; they are only called after the CPU check.
#include <immintrin.h>

#include "security/crc32_internal.h"

namespace crc32_internal {
namespace {

#define PLINTH_CRC_TARGET_128 __attribute__((target("pclmul,sse4.1,ssse3")))
#define PLINTH_CRC_TARGET_256 __attribute__((target("vpclmulqdq,avx2,pclmul,sse4.1,ssse3")))
#define PLINTH_CRC_TARGET_512 \
  __attribute__((target("vpclmulqdq,avx512f,avx512vl,avx512bw,avx2,pclmul,sse4.1,ssse3")))

// Fold constants for a distance of D bits: high half x^(D+64), low half x^D.
constexpr uint64_t kFold128Hi = XPowModP(128 + 64), kFold128Lo = XPowModP(128);
constexpr uint64_t kFold512Hi = XPowModP(512 + 64), kFold512Lo = XPowModP(512);
constexpr uint64_t kFold256Hi = XPowModP(256 + 64), kFold256Lo = XPowModP(256);
constexpr uint64_t kFold1024Hi = XPowModP(1024 + 64), kFold1024Lo = XPowModP(1024);
constexpr uint64_t kFold2048Hi = XPowModP(2048 + 64), kFold2048Lo = XPowModP(2048);
constexpr uint64_t kX96 = XPowModP(96), kX64 = XPowModP(64);
constexpr uint64_t kMu = BarrettMu();

PLINTH_CRC_TARGET_128 inline __m128i Reverse16() {
  return _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
}

PLINTH_CRC_TARGET_128 inline __m128i Load128(const uint8_t* p, __m128i reverse) {
  return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), reverse);
}

PLINTH_CRC_TARGET_128 inline __m128i Fold128(__m128i x, __m128i k) {
  return _mm_xor_si128(_mm_clmulepi64_si128(x, k, 0x00), _mm_clmulepi64_si128(x, k, 0x11));
}

// A*x^32 mod P for the 128-bit lane A.
PLINTH_CRC_TARGET_128 inline uint32_t Reduce128(__m128i a) {
  // A*x^32 = hi*x^96 + lo*x^32: 96 bits.
  __m128i t = _mm_xor_si128(_mm_clmulepi64_si128(a, _mm_cvtsi64_si128(kX96), 0x01),
                            _mm_slli_si128(_mm_move_epi64(a), 4));
  // Bits 64..95 times x^64 mod P onto the low 64 bits.
  t = _mm_xor_si128(_mm_clmulepi64_si128(t, _mm_cvtsi64_si128(kX64), 0x01), _mm_move_epi64(t));
  // Barrett: q = floor(floor(R / x^32) * mu / x^32); R mod P = R + q*P.
  const __m128i r = t;
  const __m128i q = _mm_srli_epi64(_mm_clmulepi64_si128(_mm_srli_epi64(r, 32), _mm_cvtsi64_si128(kMu), 0x00), 32);
  const __m128i qp = _mm_clmulepi64_si128(q, _mm_cvtsi64_si128(static_cast<int64_t>(kPoly)), 0x00);
  return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_xor_si128(r, qp)));
}

// Folds whole 16-byte lanes of p onto `a` and reduces; the rest of the bytes
// through the table.
PLINTH_CRC_TARGET_128 inline uint32_t Finish128(__m128i a, const uint8_t* p, size_t n) {
  const __m128i reverse = Reverse16();
  const __m128i k128 = _mm_set_epi64x(kFold128Hi, kFold128Lo);
  while (n >= 16) {
    a = _mm_xor_si128(Fold128(a, k128), Load128(p, reverse));
    p += 16;
    n -= 16;
  }
  return UpdateTable(Reduce128(a), p, n);
}

// The start value onto the top 32 bits of the first lane.
PLINTH_CRC_TARGET_128 inline __m128i StartValue(uint32_t crc) {
  return _mm_set_epi32(static_cast<int>(crc), 0, 0, 0);
}

}  // namespace

// Four lanes in flight, 64 bytes a round, to cover the multiplier's latency.
PLINTH_CRC_TARGET_128 uint32_t UpdatePclmul(uint32_t crc, const uint8_t* p, size_t n) {
  if (n < 64) return UpdateTable(crc, p, n);
  const __m128i reverse = Reverse16();
  __m128i x0 = _mm_xor_si128(Load128(p, reverse), StartValue(crc));
  __m128i x1 = Load128(p + 16, reverse);
  __m128i x2 = Load128(p + 32, reverse);
  __m128i x3 = Load128(p + 48, reverse);
  p += 64;
  n -= 64;
  const __m128i k512 = _mm_set_epi64x(kFold512Hi, kFold512Lo);
  while (n >= 64) {
    x0 = _mm_xor_si128(Fold128(x0, k512), Load128(p, reverse));
    x1 = _mm_xor_si128(Fold128(x1, k512), Load128(p + 16, reverse));
    x2 = _mm_xor_si128(Fold128(x2, k512), Load128(p + 32, reverse));
    x3 = _mm_xor_si128(Fold128(x3, k512), Load128(p + 48, reverse));
    p += 64;
    n -= 64;
  }
  const __m128i k128 = _mm_set_epi64x(kFold128Hi, kFold128Lo);
  x1 = _mm_xor_si128(Fold128(x0, k128), x1);
  x2 = _mm_xor_si128(Fold128(x1, k128), x2);
  x3 = _mm_xor_si128(Fold128(x2, k128), x3);
  return Finish128(x3, p, n);
}

namespace {

PLINTH_CRC_TARGET_256 inline __m256i Load256(const uint8_t* p, __m256i reverse) {
  return _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)), reverse);
}

PLINTH_CRC_TARGET_256 inline __m256i Fold256(__m256i x, __m256i k, __m256i data) {
  return _mm256_xor_si256(_mm256_xor_si256(_mm256_clmulepi64_epi128(x, k, 0x00), _mm256_clmulepi64_epi128(x, k, 0x11)),
                          data);
}

}  // namespace

// For CPUs with VPCLMULQDQ but without AVX-512: four 256-bit registers
// (8 lanes), 128 bytes a round.
PLINTH_CRC_TARGET_256 uint32_t UpdateVpclmul256(uint32_t crc, const uint8_t* p, size_t n) {
  if (n < 128) return UpdatePclmul(crc, p, n);
  const __m256i reverse = _mm256_broadcastsi128_si256(Reverse16());
  __m256i y0 = _mm256_xor_si256(Load256(p, reverse), _mm256_zextsi128_si256(StartValue(crc)));
  __m256i y1 = Load256(p + 32, reverse);
  __m256i y2 = Load256(p + 64, reverse);
  __m256i y3 = Load256(p + 96, reverse);
  p += 128;
  n -= 128;
  const __m256i k1024 = _mm256_broadcastsi128_si256(_mm_set_epi64x(kFold1024Hi, kFold1024Lo));
  while (n >= 128) {
    y0 = Fold256(y0, k1024, Load256(p, reverse));
    y1 = Fold256(y1, k1024, Load256(p + 32, reverse));
    y2 = Fold256(y2, k1024, Load256(p + 64, reverse));
    y3 = Fold256(y3, k1024, Load256(p + 96, reverse));
    p += 128;
    n -= 128;
  }
  const __m256i k256 = _mm256_broadcastsi128_si256(_mm_set_epi64x(kFold256Hi, kFold256Lo));
  y1 = Fold256(y0, k256, y1);
  y2 = Fold256(y1, k256, y2);
  y3 = Fold256(y2, k256, y3);
  while (n >= 32) {
    y3 = Fold256(y3, k256, Load256(p, reverse));
    p += 32;
    n -= 32;
  }
  const __m128i k128 = _mm_set_epi64x(kFold128Hi, kFold128Lo);
  const __m128i a = _mm_xor_si128(Fold128(_mm256_castsi256_si128(y3), k128), _mm256_extracti128_si256(y3, 1));
  return Finish128(a, p, n);
}

namespace {

// As with the extract below, the maskless broadcast trips GCC 12's
// maybe-uninitialized warning; a full mask gives the same instruction.
PLINTH_CRC_TARGET_512 inline __m512i Broadcast(__m128i x) { return _mm512_maskz_broadcast_i32x4(0xFFFF, x); }

PLINTH_CRC_TARGET_512 inline __m512i Load512(const uint8_t* p, __m512i reverse) {
  return _mm512_shuffle_epi8(_mm512_loadu_si512(p), reverse);
}

// Fold(x) XOR data, in one three-way XOR.
PLINTH_CRC_TARGET_512 inline __m512i Fold512(__m512i x, __m512i k, __m512i data) {
  return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(x, k, 0x00), _mm512_clmulepi64_epi128(x, k, 0x11),
                                   data, 0x96);
}

// The zero-masked extract, for the same reason as Broadcast.
template <int kLane>
PLINTH_CRC_TARGET_512 inline __m128i Lane(__m512i z) {
  return _mm512_maskz_extracti32x4_epi32(0xF, z, kLane);
}

}  // namespace

// Four 512-bit registers (16 lanes) in flight, 256 bytes a round; then the
// registers fold into one, its four lanes into one, and the 128-bit path
// finishes.
PLINTH_CRC_TARGET_512 uint32_t UpdateVpclmul(uint32_t crc, const uint8_t* p, size_t n) {
  if (n < 256) return UpdatePclmul(crc, p, n);
  const __m512i reverse = Broadcast(Reverse16());
  __m512i z0 = _mm512_xor_si512(Load512(p, reverse), _mm512_zextsi128_si512(StartValue(crc)));
  __m512i z1 = Load512(p + 64, reverse);
  __m512i z2 = Load512(p + 128, reverse);
  __m512i z3 = Load512(p + 192, reverse);
  p += 256;
  n -= 256;
  const __m512i k2048 = Broadcast(_mm_set_epi64x(kFold2048Hi, kFold2048Lo));
  while (n >= 256) {
    z0 = Fold512(z0, k2048, Load512(p, reverse));
    z1 = Fold512(z1, k2048, Load512(p + 64, reverse));
    z2 = Fold512(z2, k2048, Load512(p + 128, reverse));
    z3 = Fold512(z3, k2048, Load512(p + 192, reverse));
    p += 256;
    n -= 256;
  }
  const __m512i k512 = Broadcast(_mm_set_epi64x(kFold512Hi, kFold512Lo));
  z1 = Fold512(z0, k512, z1);
  z2 = Fold512(z1, k512, z2);
  z3 = Fold512(z2, k512, z3);
  while (n >= 64) {
    z3 = Fold512(z3, k512, Load512(p, reverse));
    p += 64;
    n -= 64;
  }
  const __m128i k128 = _mm_set_epi64x(kFold128Hi, kFold128Lo);
  __m128i a = Lane<0>(z3);
  a = _mm_xor_si128(Fold128(a, k128), Lane<1>(z3));
  a = _mm_xor_si128(Fold128(a, k128), Lane<2>(z3));
  a = _mm_xor_si128(Fold128(a, k128), Lane<3>(z3));
  return Finish128(a, p, n);
}

}  // namespace crc32_internal
