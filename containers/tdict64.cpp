#include "containers/tdict64.h"

#include <cstring>

#include "foundation/errors.h"
#include "foundation/format_checked.h"

namespace {

constexpr unsigned char kMagic[4] = {'T', 'D', '6', '4'};
constexpr uint32_t kFlagOrdered = 1;

void PutLE(unsigned char* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint64_t GetLE(const unsigned char* in, int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(in[i]) << (8 * i);
  return value;
}

}  // namespace

TDict64::TDict64(int capacity, int ordered) : m_table(capacity, ordered) {}

TDict64::TDict64(const TDict64& other) : TObject(), m_table(other.m_table), m_parent(other.m_parent) {}

TDict64& TDict64::operator=(const TDict64& other) {
  m_table = other.m_table;
  m_parent = other.m_parent;
  return *this;
}

TDict64::~TDict64() = default;

void TDict64::Reset(int capacity) { m_table.Reset(capacity); }

void TDict64::Define(int64_t key, int64_t value) { m_table.Define(key, value); }

void TDict64::Undefine(int64_t key) { m_table.Undefine(key); }

int64_t TDict64::Find(int64_t value) const { return m_table.Find(value); }

int TDict64::LookupKeydex(int64_t key) const { return m_table.Keydex(key); }

int64_t TDict64::GetIndKey(int i) const {
  int slot = m_table.IndSlot(i);
  return slot < m_table.Size() ? m_table.At(slot).key : 0;
}

int64_t TDict64::GetIndData(int i) const {
  int slot = m_table.IndSlot(i);
  return slot < m_table.Size() ? m_table.At(slot).value : 0;
}

int TDict64::StoreSize() const { return kImageHeaderBytes + kImagePairBytes * GetCount(); }

int TDict64::Export(void* buffer, int size) const {
  if (buffer == nullptr) {
    LogLineChecked(514, u"TDict64::Export: no buffer, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  int need = StoreSize();
  if (size < need) {
    LogLineChecked(514, u"TDict64::Export: %~d bytes given, %~d needed, %E", size, need, kErrBufferTooSmall);
    return kErrBufferTooSmall;
  }
  auto* out = static_cast<unsigned char*>(buffer);
  std::memcpy(out, kMagic, sizeof(kMagic));
  PutLE(out + 4, m_table.Ordered() != 0 ? kFlagOrdered : 0, 4);
  PutLE(out + 8, static_cast<uint64_t>(m_table.Key0()), 8);
  PutLE(out + 16, static_cast<uint64_t>(GetCount()), 8);
  out += kImageHeaderBytes;
  for (int slot = m_table.NextLive(0); slot < m_table.Size(); slot = m_table.NextLive(slot + 1)) {
    PutLE(out, static_cast<uint64_t>(m_table.At(slot).key), 8);
    PutLE(out + 8, static_cast<uint64_t>(m_table.At(slot).value), 8);
    out += kImagePairBytes;
  }
  return 0;
}

int TDict64::Import(const void* buffer, int size) {
  if (buffer == nullptr || size < 0) {
    LogLineChecked(514, u"TDict64::Import: no buffer or a negative size %~d, %E", size, kErrBadParameter);
    return kErrBadParameter;
  }
  if (size < kImageHeaderBytes) {
    LogLineChecked(514, u"TDict64::Import: %~d bytes are too few for the header, %E", size, kErrInvalidData);
    return kErrInvalidData;
  }
  const auto* in = static_cast<const unsigned char*>(buffer);
  if (std::memcmp(in, kMagic, sizeof(kMagic)) != 0) {
    LogLineChecked(514, u"TDict64::Import: not a dictionary image, %E", kErrInvalidData);
    return kErrInvalidData;
  }
  uint32_t flags = static_cast<uint32_t>(GetLE(in + 4, 4));
  if ((flags & ~kFlagOrdered) != 0) {
    LogLineChecked(514, u"TDict64::Import: unknown flags %~u, %E", flags, kErrInvalidData);
    return kErrInvalidData;
  }
  uint64_t pairs = GetLE(in + 16, 8);
  uint64_t room = static_cast<uint64_t>(size - kImageHeaderBytes) / kImagePairBytes;
  if (pairs > room || pairs > kImageMaxPairs) {
    LogLineChecked(514, u"TDict64::Import: %~lu pairs do not fit in %~d bytes, %E", pairs, size, kErrInvalidData);
    return kErrInvalidData;
  }
  int count = static_cast<int>(pairs);
  TDict64 fresh(count, (flags & kFlagOrdered) != 0 ? 1 : 0);
  fresh.m_table.Define(0, static_cast<int64_t>(GetLE(in + 8, 8)));
  const unsigned char* pair = in + kImageHeaderBytes;
  for (int i = 0; i < count; ++i, pair += kImagePairBytes) {
    auto key = static_cast<int64_t>(GetLE(pair, 8));
    auto value = static_cast<int64_t>(GetLE(pair + 8, 8));
    if (key == 0 || value == 0) {
      LogLineChecked(514, u"TDict64::Import: pair %~d holds a zero key or value, %E", i, kErrInvalidData);
      return kErrInvalidData;
    }
    if (fresh.m_table.Own(key) != 0) {
      LogLineChecked(514, u"TDict64::Import: the key of pair %~d repeats, %E", i, kErrInvalidData);
      return kErrInvalidData;
    }
    fresh.m_table.Define(key, value);
  }
  m_table = fresh.m_table;
  return 0;
}
