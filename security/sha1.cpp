#include "security/sha1.h"

#include <algorithm>
#include <cstring>

#include "files/tfileloc.h"
#include "foundation/errors.h"
#include "foundation/hooks.h"
#include "foundation/log.h"
#include "platform/file.h"
#include "security/sha1_block.h"

namespace {

// The creation line names TMD5 on purpose: callers' log readers know it so.
const DigestTextsSpec kSha1Texts = {
    u"SHA1Digest::SHA1Digest() error. UCryptAcquireContext(...) failed. GetLastError() returned 0x%04lx.",
    u"TMD5::InitHash() error. Failed to create digest. UCryptCreateHash(...) returned 0x%04lx.",
    u"SHA1Digest::HashData() error. UCryptHashData(...) call failed. GetLastError() returned 0x%04lx.",
    u"SHA1Digest::EndHash() : %d bytes parsed, in %d blocks.",
    u"SHA1Digest::EndHash() error. UCryptGetHashParam(...) call failed. GetLastError() returned 0x%04lx.",
};

constexpr uint32_t kInitialState[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};

// Room for the schedule and the partial word should their buffers fail to
// grow; the digest is then still right for one thread at a time.
thread_local uint32_t t_spareSchedule[80];
thread_local unsigned char t_sparePartial[4];

void StoreBigEndian(uint32_t w, unsigned char* p) {
  p[0] = static_cast<unsigned char>(w >> 24);
  p[1] = static_cast<unsigned char>(w >> 16);
  p[2] = static_cast<unsigned char>(w >> 8);
  p[3] = static_cast<unsigned char>(w);
}

}  // namespace

SHA1Digest::SHA1Digest() : TDigestBase(eDigestTypeSHA1, kSha1Texts) {
  m_schedule.SetCount(80);
  m_partial.SetCount(4);
  reset();
  InitCrytoAPI();
}

SHA1Digest::SHA1Digest(const SHA1Digest& other) : TDigestBase(other) {
  m_schedule.SetCount(80);
  m_partial.SetCount(4);
  *this = other;
}

SHA1Digest& SHA1Digest::operator=(const SHA1Digest& other) {
  if (this == &other) return *this;
  TDigestBase::operator=(other);
  std::memcpy(m_digest, other.m_digest, sizeof m_digest);
  std::memcpy(m_h, other.m_h, sizeof m_h);
  std::memcpy(Schedule(), const_cast<SHA1Digest&>(other).Schedule(), 80 * sizeof(uint32_t));
  std::memcpy(PartialWord(), const_cast<SHA1Digest&>(other).PartialWord(), 4);
  m_partialCount = other.m_partialCount;
  m_wordIndex = other.m_wordIndex;
  m_byteCount = other.m_byteCount;
  return *this;
}

SHA1Digest::~SHA1Digest() = default;

int SHA1Digest::InitCrytoAPI() { return Acquire(); }

int SHA1Digest::InitHash() { return OsInitHash(); }

int SHA1Digest::HashData(const unsigned char* data, unsigned length) { return OsHashData(data, length); }

int SHA1Digest::EndHash() { return OsEndHash(m_digest, kDigestSize); }

int SHA1Digest::GetDigest(unsigned char* out, unsigned size) {
  unsigned n = std::min(size, kDigestSize);
  if (n != 0) std::memcpy(out, m_digest, n);
  return static_cast<int>(n);
}

uint32_t* SHA1Digest::Schedule() {
  auto* words = reinterpret_cast<uint32_t*>(m_schedule.GetAt(79) == nullptr ? nullptr : m_schedule.PointAt(0));
  return words != nullptr ? words : t_spareSchedule;
}

unsigned char* SHA1Digest::PartialWord() {
  unsigned char* bytes = m_partial.GetAt(3) == nullptr ? nullptr : m_partial.PointAt(0);
  return bytes != nullptr ? bytes : t_sparePartial;
}

void SHA1Digest::reset() {
  std::memcpy(m_h, kInitialState, sizeof m_h);
  std::memset(Schedule(), 0, 80 * sizeof(uint32_t));
  std::memset(PartialWord(), 0, 4);
  m_partialCount = 0;
  m_wordIndex = 0;
  m_byteCount = 0;
}

void SHA1Digest::AddWord(uint32_t word) {
  uint32_t* schedule = Schedule();
  schedule[m_wordIndex++] = word;
  if (m_wordIndex < 16) return;
  m_wordIndex = 0;
  unsigned char block[64];
  for (int i = 0; i < 16; ++i) StoreBigEndian(schedule[i], block + 4 * i);
  sha1_internal::ActiveBlocks()(m_h, schedule, block, 1);
}

void SHA1Digest::AddByte(unsigned char byte) {
  unsigned char* partial = PartialWord();
  partial[m_partialCount++] = byte;
  if (m_partialCount < 4) return;
  m_partialCount = 0;
  AddWord((uint32_t{partial[0]} << 24) | (uint32_t{partial[1]} << 16) | (uint32_t{partial[2]} << 8) |
          uint32_t{partial[3]});
}

void SHA1Digest::update(unsigned char byte) {
  AddByte(byte);
  ++m_byteCount;
}

void SHA1Digest::update(const unsigned char* data, int offset, int length) {
  if (data == nullptr || offset < 0 || length <= 0) return;
  const unsigned char* p = data + offset;
  size_t n = static_cast<size_t>(length);
  m_byteCount += length;
  while (m_partialCount != 0 && n != 0) {
    AddByte(*p++);
    --n;
  }
  while (m_wordIndex != 0 && n >= 4) {
    AddWord((uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]});
    p += 4;
    n -= 4;
  }
  if (m_wordIndex == 0 && n >= 64) {
    size_t blocks = n / 64;
    sha1_internal::ActiveBlocks()(m_h, Schedule(), p, blocks);
    p += blocks * 64;
    n -= blocks * 64;
  }
  for (; n != 0; --n) AddByte(*p++);
}

void SHA1Digest::update(TUint8Buffer* data, int offset, int length) {
  if (data == nullptr) {
    Debug("sha1", __LINE__, 0);
    return;
  }
  int64_t count = data->Count();
  if (offset < 0 || length < 0 || int64_t{offset} + length > count) {
    Debug("sha1", __LINE__, 0);
    offset = static_cast<int>(std::clamp<int64_t>(offset, 0, count));
    length = static_cast<int>(std::clamp<int64_t>(length, 0, count - offset));
  }
  if (length == 0) return;
  update(data->PointAt(0), offset, length);
}

int SHA1Digest::update(TFileLoc* file, int offset, int length) {
  if (file == nullptr || offset < 0) {
    Debug("sha1", __LINE__, 0);
    LogLine(514, u"SHA1Digest::update: no file or a negative offset, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  platform::TFileReader reader;
  int code = reader.Open(file->GetFullPath());
  if (code != 0) return code;
  if (offset != 0) {
    code = reader.Seek(static_cast<uint64_t>(offset));
    if (code != 0) return code;
  }
  int64_t remaining = length == 0 ? 0x7FFFFFFF : length;
  unsigned char chunk[kFileChunk];
  while (remaining > 0) {
    uint32_t got = 0;
    code = reader.Read(chunk, kFileChunk, &got);
    if (code == kErrEndOfFile) break;
    if (code != 0) return code;
    update(chunk, 0, static_cast<int>(got));
    remaining = std::max<int64_t>(remaining - kFileChunk, 0);
  }
  return 0;
}

void SHA1Digest::finish() {
  uint64_t bits = static_cast<uint64_t>(m_byteCount) * 8;
  AddByte(0x80);
  while (m_partialCount != 0) AddByte(0);
  while (m_wordIndex != 14) AddWord(0);
  AddWord(static_cast<uint32_t>(bits >> 32));
  AddWord(static_cast<uint32_t>(bits));
}

int SHA1Digest::doFinal(TUint8Buffer* out, int offset) {
  if (out == nullptr || offset < 0) {
    Debug("sha1", __LINE__, 0);
    LogLine(514, u"SHA1Digest::doFinal: no buffer or a negative offset, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  finish();
  uint32_t end = static_cast<uint32_t>(offset) + kDigestSize;
  if (out->Count() < end) {
    int code = out->SetCount(end);
    if (code != 0) {
      reset();
      return code;
    }
  }
  unsigned char* p = out->PointAt(static_cast<uint32_t>(offset));
  for (int i = 0; i < 5; ++i) StoreBigEndian(m_h[i], p + 4 * i);
  reset();
  return 0;
}

void SHA1Digest::GetDigest(std::string& out) {
  static constexpr char kHex[] = "0123456789abcdef";
  finish();
  out.clear();
  out.reserve(2 * kDigestSize);
  for (uint32_t word : m_h) {
    for (int shift = 28; shift >= 0; shift -= 4) out += kHex[(word >> shift) & 0xF];
  }
  reset();
}
