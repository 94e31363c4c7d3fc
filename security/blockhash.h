// TBlockHash, the cryptographic fingerprint of a stored block with its
// identity: a 64-bit key, a 32-bit value and the block's bytes go into one
// message digest, MD5 (type 1) or SHA-1 (type 2).
//
//   TBlockHash hash(eDigestTypeSHA1);
//   hash.Init();
//   hash.HashBlock(&key, value, bytes, n);   // final on return
//   hash.GetDigest(out, hash.GetDigestLen());
//
// HashBlock ends the hash itself, so its digest can be read and compared at
// once; hashing another block needs Init() again.
//
// Any other type leaves the object without an engine: it is refused in the
// constructor with a log line, and every operation then answers 0 (false,
// no bytes, type 0, length 0) or kErrNotSupported, with a log line for the
// fallible ones. Mismatched types or lengths in the comparisons are "util"
// assertions; the comparison still runs (over the shorter length).
#ifndef PLINTH_SECURITY_BLOCKHASH_H_
#define PLINTH_SECURITY_BLOCKHASH_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "security/digest.h"

class TMemory;

class PLINTH_API TBlockHash : public TObject {
 public:
  explicit TBlockHash(unsigned char type);
  // Uses the low byte of the value.
  explicit TBlockHash(_eDigestType type);
  ~TBlockHash();
  TBlockHash(const TBlockHash&) = delete;
  TBlockHash& operator=(const TBlockHash&) = delete;

  bool HasEngine() const { return m_engine != nullptr; }
  int GetDigestType();
  int GetDigestLen();
  // Starts a new hash: 1 (true) or 0.
  int Init();
  // Feeds the 8 bytes of *key as stored in memory, the 4 bytes of `value`,
  // `length` bytes of `data`, and ends the hash. 1 (true) or 0.
  int HashBlock(uint64_t* key, unsigned value, unsigned char* data, int length);
  int HashBlock(uint64_t* key, unsigned value, TMemory* data);
  // Bytes copied.
  int GetDigest(unsigned char* out, unsigned size);
  // 0 or a library code.
  int GetDigest(TMemory* out);

  bool IsEqual(const unsigned char* digest, unsigned length);
  bool operator==(TBlockHash& other);
  bool operator!=(TBlockHash& other) { return !(*this == other); }
  bool operator==(TMemory& digest);

 private:
  void CreateEngine(unsigned char type);
  // Logs the refusal of `operation` for want of an engine.
  int NoEngine(const char16_t* operation);

  TDigestBase* m_engine = nullptr;
};

#endif  // PLINTH_SECURITY_BLOCKHASH_H_
