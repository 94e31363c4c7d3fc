// TDigestBase, the abstract message digest, and the digest types.
//
// A digest object hashes through the system's digest service (see
// platform/crypto.h): construction acquires a provider for the class's
// algorithm, InitHash creates a hash object, HashData feeds it, EndHash
// reads the value into the object and destroys the hash object; GetDigest
// copies the value out. An object whose provider could not be acquired is
// invalid (IsValid() 0) but stays usable as an object: its InitHash fails.
//
// Results: InitHash, HashData and EndHash answer 1 (true) or 0 and log one
// line on failure (selector 514); EndHash also logs, at 519, how many bytes
// it hashed and in how many HashData calls ("blocks"). The printed error
// code is the service's (see platform/crypto.h).
//
// Not thread-safe: one thread at a time uses an object.
#ifndef PLINTH_SECURITY_DIGEST_H_
#define PLINTH_SECURITY_DIGEST_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "platform/crypto.h"

class TMemory;

enum _eDigestType : int {
  eDigestTypeMD5 = 1,
  eDigestTypeSHA1 = 2,
};

// The lines a digest class writes, with its own class name in them.
struct DigestTextsSpec {
  const char16_t* acquireFailed;
  const char16_t* createFailed;
  const char16_t* hashFailed;
  const char16_t* endDiagnostic;
  const char16_t* endFailed;
};

class PLINTH_API TDigestBase : public TObject {
 public:
  // 1 (true) when a hash object was created.
  virtual int InitHash() = 0;
  // Hashes the bytes of `data` (a null handle is a "digest" assertion and
  // answers 0).
  virtual int HashData(TMemory* data);
  virtual int HashData(const unsigned char* data, unsigned length) = 0;
  virtual int EndHash() = 0;
  // Sizes `out` to getDigestSize() bytes, clears it and copies the digest
  // in. 0 or the TMemory code (null handle: assertion, kErrBadParameter).
  virtual int GetDigest(TMemory* out);
  // Copies at most `size` bytes of the digest; answers the count.
  virtual int GetDigest(unsigned char* out, unsigned size) = 0;
  virtual _eDigestType GetType() = 0;
  virtual int getDigestSize() = 0;
  virtual ~TDigestBase();

  int IsValid() const { return m_valid; }

 protected:
  // The provider is acquired by Acquire(), which the class's constructor
  // calls.
  TDigestBase(_eDigestType type, const DigestTextsSpec& texts);
  // Shares the provider and duplicates a hash object in progress.
  TDigestBase(const TDigestBase& other);
  TDigestBase& operator=(const TDigestBase& other);

  // Marks the object valid, or logs the acquisition failure. 1 or 0.
  int Acquire();
  // The shared operating-system path; `value` receives the digest.
  int OsInitHash();
  int OsHashData(const unsigned char* data, unsigned length);
  int OsEndHash(unsigned char* value, unsigned size);

 private:
  void DestroyHash();

  _eDigestType m_type;
  const DigestTextsSpec* m_texts;
  int32_t m_valid = 0;
  platform::CryptHandle m_provider = 0;
  platform::CryptHandle m_hash = 0;
  unsigned long m_acquireError = 0;
  int64_t m_bytesHashed = 0;   // since InitHash
  int32_t m_blocksHashed = 0;  // HashData calls since InitHash
};

#endif  // PLINTH_SECURITY_DIGEST_H_
