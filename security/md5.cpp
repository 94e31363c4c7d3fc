#include "security/md5.h"

#include <algorithm>
#include <cstring>

#include "foundation/hooks.h"

namespace {

const DigestTextsSpec kMd5Texts = {
    u"TMD5::TMD5() error. UCryptAcquireContext(...) failed. GetLastError() returned 0x%04lx.",
    u"TMD5::InitHash() error. Failed to create digest. UCryptCreateHash(...) returned 0x%04lx.",
    u"TMD5::HashData() error. UCryptHashData(...) call failed. GetLastError() returned 0x%04lx.",
    u"TMD5::EndHash() : %d bytes parsed, in %d blocks.",
    u"TMD5::EndHash() error. UCryptGetHashParam(...) call failed. GetLastError() returned 0x%04lx.",
};

}  // namespace

TMD5::TMD5() : TDigestBase(eDigestTypeMD5, kMd5Texts) { Acquire(); }

TMD5::~TMD5() = default;

int TMD5::InitHash() { return OsInitHash(); }

int TMD5::HashData(const unsigned char* data, unsigned length) { return OsHashData(data, length); }

int TMD5::EndHash() { return OsEndHash(m_digest, kDigestSize); }

int TMD5::GetDigest(unsigned char* out, unsigned size) {
  unsigned n = std::min(size, kDigestSize);
  if (n != 0) std::memcpy(out, m_digest, n);
  return static_cast<int>(n);
}

void TMD5::ResetDigest(unsigned char* digest, unsigned size) {
  if (digest == nullptr) {
    Debug("digest", __LINE__, 0);
    return;
  }
  std::memset(digest, 0, std::min(size, kDigestSize));
}

bool TMD5::DigestsEqual(const unsigned char* digest, unsigned n) const { return DigestsEqual(m_digest, digest, n); }

bool TMD5::DigestsEqual(const unsigned char* a, const unsigned char* b, unsigned n) {
  if (a == nullptr || b == nullptr) {
    Debug("digest", __LINE__, 0);
    return false;
  }
  return std::memcmp(a, b, std::min(n, kDigestSize)) == 0;
}

int TMD5::ReadHash(const unsigned char* digest, unsigned size) {
  if (digest == nullptr) {
    Debug("digest", __LINE__, 0);
    return 0;
  }
  unsigned n = std::min(size, kDigestSize);
  std::memset(m_digest, 0, kDigestSize);
  std::memcpy(m_digest, digest, n);
  return static_cast<int>(n);
}
