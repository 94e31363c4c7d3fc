// CRC-32 checksums and the quick block hashes built on them.
//
// The CRC is the one of polynomial 0x04C11DB7 processed most significant bit
// first: every byte shifts the value left by 8 bits and XORs in the table
// entry indexed by the value's top byte XOR the input byte. There is no
// initial or final inversion: the caller's value is the start, and the result
// is the new value, so calls chain:
//   update(update(c, a, n), b, m) == update(c, ab, n + m)
// (The usual inverted form of this CRC, as in POSIX cksum or the "IEEE"
// checksum of other libraries, is ~update(~c, ...).)
//
// Large inputs are folded with carry-less multiplication (PCLMULQDQ, or
// VPCLMULQDQ on 256- or 512-bit registers) when the CPU has it; the choice
// is made once, on first use. Otherwise a table loop (slicing by 8) serves.
//
// HashBlock fingerprints a stored block: the CRC from 0, with a result of 0
// replaced by 1 so that 0 can stand for "no hash".
#ifndef PLINTH_SECURITY_CRC32_H_
#define PLINTH_SECURITY_CRC32_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API CRC32 : public TObject {
 public:
  // The byte table of the polynomial, most significant bit first
  // (m_table[1] == 0x04C11DB7), shared by all instances.
  static const unsigned int m_table[256];

  // Continues `crc` over `length` bytes of `data` and returns the new value.
  // A negative length, or null data with a positive length, is refused:
  // the result is `crc` unchanged and one line is logged (514). A length of
  // 0 returns `crc`.
  static unsigned int update(unsigned int crc, const unsigned char* data, int length);
};

// CRC32::update(0, data, length), with 0 replaced by 1.
PLINTH_API unsigned int HashBlock(const unsigned char* data, int length);

// The CRC from 0 over the 8 bytes of *key (least significant first, as the
// key is stored on this platform), then the 4 bytes of `value` (the same
// order), then `length` bytes of `data`; 0 replaced by 1. A null key is
// refused like null data: logged, and its 8 bytes are left out.
PLINTH_API unsigned int HashBlock(const uint64_t* key, unsigned int value, const unsigned char* data, int length);

#endif  // PLINTH_SECURITY_CRC32_H_
