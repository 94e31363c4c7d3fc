#include "security/blockhash.h"

#include <algorithm>
#include <cstring>

#include "foundation/errors.h"
#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/tmemory.h"
#include "foundation/tstring.h"
#include "security/md5.h"
#include "security/sha1.h"

namespace {

// True when the first `n` bytes of both handles are there and equal.
bool SameBytes(TMemory& a, TMemory& b, uint32_t n) {
  if (a.GetSize() < n || b.GetSize() < n) return false;
  return n == 0 || std::memcmp(a.MemPtr(), b.MemPtr(), n) == 0;
}

}  // namespace

TBlockHash::TBlockHash(unsigned char type) { CreateEngine(type); }

TBlockHash::TBlockHash(_eDigestType type) { CreateEngine(static_cast<unsigned char>(type & 0xFF)); }

TBlockHash::~TBlockHash() { delete m_engine; }

void TBlockHash::CreateEngine(unsigned char type) {
  delete m_engine;
  m_engine = nullptr;
  if (type == eDigestTypeMD5) {
    m_engine = new TMD5;
  } else if (type == eDigestTypeSHA1) {
    m_engine = new SHA1Digest;
  } else {
    LogLine(514, u"TBlockHash::CreateEngine: unknown digest type %~d, %E", static_cast<int>(type), kErrNotSupported);
  }
}

int TBlockHash::NoEngine(const char16_t* operation) {
  TString name(operation);
  LogLine(514, u"TBlockHash::%s: no digest engine, %E", &name, kErrNotSupported);
  return kErrNotSupported;
}

int TBlockHash::GetDigestType() { return m_engine != nullptr ? m_engine->GetType() : 0; }

int TBlockHash::GetDigestLen() { return m_engine != nullptr ? m_engine->getDigestSize() : 0; }

int TBlockHash::Init() {
  if (m_engine == nullptr) {
    NoEngine(u"Init");
    return 0;
  }
  return m_engine->InitHash();
}

int TBlockHash::HashBlock(uint64_t* key, unsigned value, unsigned char* data, int length) {
  if (m_engine == nullptr) {
    NoEngine(u"HashBlock");
    return 0;
  }
  if (key == nullptr || length < 0 || (data == nullptr && length != 0)) {
    Debug("util", __LINE__, 0);
    return 0;
  }
  unsigned char head[12];
  std::memcpy(head, key, 8);
  std::memcpy(head + 8, &value, 4);
  if (!m_engine->HashData(head, sizeof head)) return 0;
  if (length != 0 && !m_engine->HashData(data, static_cast<unsigned>(length))) return 0;
  return m_engine->EndHash();
}

int TBlockHash::HashBlock(uint64_t* key, unsigned value, TMemory* data) {
  if (data == nullptr) {
    Debug("util", __LINE__, 0);
    return 0;
  }
  return HashBlock(key, value, static_cast<unsigned char*>(data->MemPtr()), static_cast<int>(data->GetSize()));
}

int TBlockHash::GetDigest(unsigned char* out, unsigned size) {
  if (m_engine == nullptr) {
    NoEngine(u"GetDigest");
    return 0;
  }
  return m_engine->GetDigest(out, size);
}

int TBlockHash::GetDigest(TMemory* out) {
  if (m_engine == nullptr) return NoEngine(u"GetDigest");
  return m_engine->GetDigest(out);
}

bool TBlockHash::IsEqual(const unsigned char* digest, unsigned length) {
  if (m_engine == nullptr) {
    NoEngine(u"IsEqual");
    return false;
  }
  if (length != static_cast<unsigned>(GetDigestLen())) Debug("util", __LINE__, 0);
  if (digest == nullptr) {
    Debug("util", __LINE__, 0);
    return false;
  }
  TMemory mine;
  if (GetDigest(&mine) != 0) return false;
  TMemory theirs;
  uint32_t n = std::min<uint32_t>(length, mine.GetSize());
  if (theirs.SetSize(n) != 0) return false;
  if (n != 0) std::memcpy(theirs.MemPtr(), digest, n);
  return SameBytes(mine, theirs, n);
}

bool TBlockHash::operator==(TBlockHash& other) {
  if (m_engine == nullptr || other.m_engine == nullptr) {
    NoEngine(u"operator==");
    return false;
  }
  if (GetDigestType() != other.GetDigestType()) Debug("util", __LINE__, 0);
  TMemory mine;
  TMemory theirs;
  if (GetDigest(&mine) != 0 || other.GetDigest(&theirs) != 0) return false;
  return SameBytes(mine, theirs, std::min(mine.GetSize(), theirs.GetSize()));
}

bool TBlockHash::operator==(TMemory& digest) {
  if (m_engine == nullptr) {
    NoEngine(u"operator==");
    return false;
  }
  TMemory mine;
  if (GetDigest(&mine) != 0) return false;
  return digest.GetSize() == mine.GetSize() && SameBytes(mine, digest, mine.GetSize());
}
