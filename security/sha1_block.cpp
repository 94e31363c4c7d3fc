#include "security/sha1_block.h"

#include <immintrin.h>

#include <atomic>

#include "platform/system.h"

namespace sha1_internal {
namespace {

inline uint32_t Rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t LoadBigEndian(const unsigned char* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

BlocksFn AutoBlocks() { return ShaNiAvailable() ? BlocksShaNi : BlocksPortable; }

std::atomic<BlocksFn>& Active() {
  static std::atomic<BlocksFn> active{AutoBlocks()};
  return active;
}

// One group of four rounds with the SHA extensions. The round function is an
// immediate operand, hence the switch (folded once the loop is unrolled).
__attribute__((target("sha,sse4.1"))) inline __m128i Rounds4(__m128i abcd, __m128i e, int function) {
  switch (function) {
    case 0: return _mm_sha1rnds4_epu32(abcd, e, 0);
    case 1: return _mm_sha1rnds4_epu32(abcd, e, 1);
    case 2: return _mm_sha1rnds4_epu32(abcd, e, 2);
    default: return _mm_sha1rnds4_epu32(abcd, e, 3);
  }
}

}  // namespace

bool ShaNiAvailable() {
  constexpr uint32_t kNeeded = platform::kCpuShaNi;
  return (platform::CpuCapabilities() & kNeeded) == kNeeded && __builtin_cpu_supports("sse4.1");
}

BlocksFn ActiveBlocks() { return Active().load(std::memory_order_relaxed); }

bool SetBlockPath(BlockPath path) {
  BlocksFn fn = AutoBlocks();
  if (path == BlockPath::kPortable) fn = BlocksPortable;
  if (path == BlockPath::kShaNi) {
    if (!ShaNiAvailable()) return false;
    fn = BlocksShaNi;
  }
  Active().store(fn, std::memory_order_relaxed);
  return true;
}

void BlocksPortable(uint32_t state[5], uint32_t w[80], const unsigned char* data, size_t blocks) {
  for (; blocks != 0; --blocks, data += 64) {
    for (int t = 0; t < 16; ++t) w[t] = LoadBigEndian(data + 4 * t);
#pragma GCC unroll 20
    for (int t = 16; t < 80; ++t) w[t] = Rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    // One loop per round function, so that none branches per step.
    auto step = [&](uint32_t f, uint32_t k, uint32_t word) {
      uint32_t temp = Rotl(a, 5) + f + e + k + word;
      e = d;
      d = c;
      c = Rotl(b, 30);
      b = a;
      a = temp;
    };
#pragma GCC unroll 20
    for (int t = 0; t < 20; ++t) step((b & c) | (~b & d), 0x5A827999, w[t]);             // selection
#pragma GCC unroll 20
    for (int t = 20; t < 40; ++t) step(b ^ c ^ d, 0x6ED9EBA1, w[t]);                     // parity
#pragma GCC unroll 20
    for (int t = 40; t < 60; ++t) step((b & c) | (b & d) | (c & d), 0x8F1BBCDC, w[t]);  // majority
#pragma GCC unroll 20
    for (int t = 60; t < 80; ++t) step(b ^ c ^ d, 0xCA62C1D6, w[t]);
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
  }
}

// Groups of four rounds; message words for group k+4 are prepared while
// group k runs (msg1 at k, the xor at k+1, msg2 at k+2).
__attribute__((target("sha,sse4.1"))) void BlocksShaNi(uint32_t state[5], uint32_t* /*schedule*/,
                                                        const unsigned char* data, size_t blocks) {
  const __m128i byteSwap = _mm_set_epi64x(0x0001020304050607LL, 0x08090a0b0c0d0e0fLL);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0x1B);
  __m128i e0 = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
  for (; blocks != 0; --blocks, data += 64) {
    const __m128i abcdSaved = abcd;
    const __m128i eSaved = e0;
    __m128i msg[4];
    __m128i e[2] = {e0, _mm_setzero_si128()};
#pragma GCC unroll 20
    for (int k = 0; k < 20; ++k) {
      const int m = k & 3;
      const int cur = k & 1;  // e[cur] feeds this group, e[cur ^ 1] keeps abcd
      if (k < 4) {
        msg[m] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * k)), byteSwap);
      }
      e[cur] = k == 0 ? _mm_add_epi32(e[cur], msg[m]) : _mm_sha1nexte_epu32(e[cur], msg[m]);
      e[cur ^ 1] = abcd;
      if (k >= 3 && k <= 18) msg[(k + 1) & 3] = _mm_sha1msg2_epu32(msg[(k + 1) & 3], msg[m]);
      abcd = Rounds4(abcd, e[cur], k / 5);
      if (k >= 1 && k <= 16) msg[(k + 3) & 3] = _mm_sha1msg1_epu32(msg[(k + 3) & 3], msg[m]);
      if (k >= 2 && k <= 17) msg[(k + 2) & 3] = _mm_xor_si128(msg[(k + 2) & 3], msg[m]);
    }
    // After group 19 e[0] holds the fifth word's rounds.
    e0 = _mm_sha1nexte_epu32(e[0], eSaved);
    abcd = _mm_add_epi32(abcd, abcdSaved);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_shuffle_epi32(abcd, 0x1B));
  state[4] = static_cast<uint32_t>(_mm_extract_epi32(e0, 3));
}

}  // namespace sha1_internal
