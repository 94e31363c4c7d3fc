#include "security/digest.h"

#include "foundation/errors.h"
#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/tmemory.h"

TDigestBase::TDigestBase(_eDigestType type, const DigestTextsSpec& texts) : m_type(type), m_texts(&texts) {}

TDigestBase::TDigestBase(const TDigestBase& other)
    : TObject(other), m_type(other.m_type), m_texts(other.m_texts) {
  *this = other;
}

int TDigestBase::Acquire() {
  platform::CryptRelease(m_provider);
  m_provider = 0;
  m_valid = 0;
  platform::CryptAlgorithm algorithm =
      m_type == eDigestTypeMD5 ? platform::CryptAlgorithm::kMd5 : platform::CryptAlgorithm::kSha1;
  m_acquireError = platform::CryptAcquire(algorithm, &m_provider);
  if (m_acquireError != 0) {
    LogLine(514, m_texts->acquireFailed, m_acquireError);
    return 0;
  }
  m_valid = 1;
  return 1;
}

TDigestBase& TDigestBase::operator=(const TDigestBase& other) {
  if (this == &other) return *this;
  DestroyHash();
  platform::CryptRelease(m_provider);
  m_provider = 0;
  m_type = other.m_type;
  m_texts = other.m_texts;
  m_valid = other.m_valid;
  m_acquireError = other.m_acquireError;
  m_bytesHashed = other.m_bytesHashed;
  m_blocksHashed = other.m_blocksHashed;
  if (other.m_provider != 0 && platform::CryptAddRef(other.m_provider) == 0) m_provider = other.m_provider;
  // A copy that cannot duplicate the hash in progress has none: its
  // HashData and EndHash then fail and say so.
  if (other.m_hash != 0) platform::CryptDuplicateHash(other.m_hash, &m_hash);
  return *this;
}

TDigestBase::~TDigestBase() {
  DestroyHash();
  platform::CryptRelease(m_provider);
}

void TDigestBase::DestroyHash() {
  platform::CryptDestroyHash(m_hash);
  m_hash = 0;
}

int TDigestBase::HashData(TMemory* data) {
  if (data == nullptr) {
    Debug("digest", __LINE__, 0);
    return 0;
  }
  return HashData(static_cast<const unsigned char*>(data->MemPtr()), data->GetSize());
}

int TDigestBase::GetDigest(TMemory* out) {
  if (out == nullptr) {
    Debug("digest", __LINE__, 0);
    return kErrBadParameter;
  }
  int size = getDigestSize();
  int code = out->AllocBuffer(static_cast<uint64_t>(size));
  if (code != 0) {
    LogLine(514, u"TDigestBase::GetDigest: handle not sized to %~d bytes, %E", size, code);
    return code;
  }
  GetDigest(static_cast<unsigned char*>(out->MemPtr()), static_cast<unsigned>(size));
  return 0;
}

int TDigestBase::OsInitHash() {
  DestroyHash();
  m_bytesHashed = 0;
  m_blocksHashed = 0;
  // Without a provider the creation fails for the reason the acquisition did.
  unsigned long err = m_provider == 0 ? m_acquireError : platform::CryptCreateHash(m_provider, &m_hash);
  if (m_provider == 0 && err == 0) err = platform::kCryptBadHandle;
  if (err != 0) {
    LogLine(514, m_texts->createFailed, err);
    return 0;
  }
  return 1;
}

int TDigestBase::OsHashData(const unsigned char* data, unsigned length) {
  unsigned long err = platform::CryptHashData(m_hash, data, length);
  if (err != 0) {
    LogLine(514, m_texts->hashFailed, err);
    return 0;
  }
  m_bytesHashed += length;
  ++m_blocksHashed;
  return 1;
}

int TDigestBase::OsEndHash(unsigned char* value, unsigned size) {
  unsigned written = 0;
  unsigned long err = platform::CryptGetHashValue(m_hash, value, size, &written);
  DestroyHash();
  if (err != 0) {
    LogLine(514, m_texts->endFailed, err);
    return 0;
  }
  LogLine(519, m_texts->endDiagnostic, static_cast<int>(m_bytesHashed), m_blocksHashed);
  return 1;
}
