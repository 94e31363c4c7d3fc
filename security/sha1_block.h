// The SHA-1 block function (FIPS 180-1), in two builds chosen at run time:
// portable code, and the CPU's SHA extensions where platform::CpuCapabilities
// reports them. Internal to the library.
#ifndef PLINTH_SECURITY_SHA1_BLOCK_H_
#define PLINTH_SECURITY_SHA1_BLOCK_H_

#include <cstddef>
#include <cstdint>

namespace sha1_internal {

// Hashes `blocks` 64-byte blocks of `data` into the five chaining words.
// `schedule` is room for the 80-word schedule (the SHA extensions need none).
using BlocksFn = void (*)(uint32_t state[5], uint32_t schedule[80], const unsigned char* data, size_t blocks);

void BlocksPortable(uint32_t state[5], uint32_t schedule[80], const unsigned char* data, size_t blocks);
void BlocksShaNi(uint32_t state[5], uint32_t schedule[80], const unsigned char* data, size_t blocks);

// The build in use: the SHA extensions when the CPU has them.
BlocksFn ActiveBlocks();

// Test and benchmark seam: which build ActiveBlocks answers from now on.
// kShaNi on a CPU without the extensions is refused (false).
enum class BlockPath { kAuto, kPortable, kShaNi };
bool SetBlockPath(BlockPath path);
bool ShaNiAvailable();

}  // namespace sha1_internal

#endif  // PLINTH_SECURITY_SHA1_BLOCK_H_
