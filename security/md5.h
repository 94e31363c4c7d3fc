// TMD5, the MD5 message digest (RFC 1321) through the system service.
//
//   TMD5 md5;
//   md5.InitHash();
//   md5.HashData(bytes, n);
//   md5.EndHash();
//   md5.GetDigest(out, 16);
//
// Besides the digest interface (digest.h) it compares and clears 16-byte
// digests; a null digest pointer there is a "digest" assertion, answered
// with false (nothing written).
#ifndef PLINTH_SECURITY_MD5_H_
#define PLINTH_SECURITY_MD5_H_

#include "foundation/export.h"
#include "security/digest.h"

class PLINTH_API TMD5 : public TDigestBase {
 public:
  static constexpr unsigned kDigestSize = 16;

  TMD5();
  TMD5(const TMD5& other) = default;
  TMD5& operator=(const TMD5& other) = default;
  ~TMD5() override;

  int InitHash() override;
  using TDigestBase::HashData;
  int HashData(const unsigned char* data, unsigned length) override;
  // Reads the value into the object; see digest.h.
  int EndHash() override;
  using TDigestBase::GetDigest;
  int GetDigest(unsigned char* out, unsigned size) override;
  _eDigestType GetType() override { return eDigestTypeMD5; }
  int getDigestSize() override { return kDigestSize; }

  // Fills the first min(size, 16) bytes of `digest` with zero.
  static void ResetDigest(unsigned char* digest, unsigned size);
  // True when the first min(n, 16) bytes of the object's digest equal
  // `digest`'s.
  bool DigestsEqual(const unsigned char* digest, unsigned n) const;
  static bool DigestsEqual(const unsigned char* a, const unsigned char* b, unsigned n);
  // Takes a digest computed elsewhere (a stored one) as the object's own:
  // min(size, 16) bytes, the rest zero. Answers the count taken.
  int ReadHash(const unsigned char* digest, unsigned size);

 private:
  unsigned char m_digest[kDigestSize] = {};
};

#endif  // PLINTH_SECURITY_MD5_H_
