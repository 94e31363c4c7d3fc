// SHA1Digest, the SHA-1 message digest (FIPS 180-1), in two ways.
//
// The digest interface (digest.h: InitHash, HashData, EndHash, GetDigest)
// hashes through the system service. Independently of it the object carries
// a software implementation with a streaming interface:
//
//   SHA1Digest sha;
//   sha.update(bytes, 0, n);
//   sha.update(&fileLoc, 0, 0);      // a whole file
//   std::string hex;
//   sha.GetDigest(hex);              // 40 lower-case hex digits
//
// The software state is what the algorithm is defined on: the five chaining
// words, the 80-word schedule (a TSint32Buffer), the partial big-endian
// word (a TUint8Buffer of 4 bytes) with its byte count, the index of the
// next word in the block and the total count of bytes. Whole 64-byte blocks
// met on a block boundary go to the block function directly, with the CPU's
// SHA extensions where present (sha1_block.h). Copies carry the whole state
// of both ways.
#ifndef PLINTH_SECURITY_SHA1_H_
#define PLINTH_SECURITY_SHA1_H_

#include <cstdint>
#include <string>

#include "containers/typed_buffers.h"
#include "foundation/export.h"
#include "security/digest.h"

class TFileLoc;

class PLINTH_API SHA1Digest : public TDigestBase {
 public:
  static constexpr unsigned kDigestSize = 20;
  // Bytes read and hashed at a time from a file.
  static constexpr int kFileChunk = 10240;

  SHA1Digest();
  SHA1Digest(const SHA1Digest& other);
  SHA1Digest& operator=(const SHA1Digest& other);
  ~SHA1Digest() override;

  // ---- the system path ----
  int InitHash() override;
  using TDigestBase::HashData;
  int HashData(const unsigned char* data, unsigned length) override;
  int EndHash() override;
  using TDigestBase::GetDigest;
  // The value EndHash read.
  int GetDigest(unsigned char* out, unsigned size) override;
  _eDigestType GetType() override { return eDigestTypeSHA1; }
  int getDigestSize() override { return kDigestSize; }

  // ---- the software path ----
  void reset();
  void update(unsigned char byte);
  // A negative offset or length hashes nothing.
  void update(const unsigned char* data, int offset, int length);
  // Bytes [offset, offset + length) of `data`; a range outside the buffer
  // is a "sha1" assertion and is cut to the buffer.
  void update(TUint8Buffer* data, int offset, int length);
  // Hashes the file from `offset` on, `length` bytes (0: 0x7FFFFFFF), read
  // in chunks of kFileChunk bytes. Each chunk counts as a whole kFileChunk
  // against `length`, so the length is rounded up to whole chunks: a length
  // of 1 hashes up to the first 10240 bytes. The end of the file ends the
  // reading. 0, or the open, seek or read error.
  int update(TFileLoc* file, int offset, int length);
  // Pads and processes the last block; the chaining words are the digest.
  void finish();
  // finish(), writes the 20 digest bytes (big-endian words) at `offset`
  // (the buffer grows as needed), then reset(). 0 or the buffer's code.
  int doFinal(TUint8Buffer* out, int offset);
  // finish(), the digest as 40 lower-case hexadecimal digits, then reset().
  void GetDigest(std::string& out);

  int64_t GetByteCount() const { return m_byteCount; }

 private:
  int InitCrytoAPI();
  uint32_t* Schedule();
  unsigned char* PartialWord();
  void AddByte(unsigned char byte);
  void AddWord(uint32_t word);

  unsigned char m_digest[kDigestSize] = {};
  uint32_t m_h[5] = {};
  TSint32Buffer m_schedule;
  TUint8Buffer m_partial;
  int32_t m_partialCount = 0;
  int32_t m_wordIndex = 0;
  int64_t m_byteCount = 0;
};

#endif  // PLINTH_SECURITY_SHA1_H_
