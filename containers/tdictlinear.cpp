#include "containers/tdictlinear.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kFirstRoom = 7;

}  // namespace

TDictLinear::TDictLinear(int capacity) { Reset(capacity); }

TDictLinear::TDictLinear(const TDictLinear& other) : TObject() { *this = other; }

TDictLinear& TDictLinear::operator=(const TDictLinear& other) {
  if (this == &other) return *this;
  Reset(other.m_count);
  if (other.m_count != 0) std::memcpy(m_pairs + 1, other.m_pairs + 1, sizeof(Pair) * other.m_count);
  m_count = other.m_count;
  m_parent = other.m_parent;
  return *this;
}

TDictLinear::~TDictLinear() = default;

void TDictLinear::Reserve(int pairs) {
  if (pairs <= m_room) return;
  // A refused growth is reported by the handle (and is an assertion, as the
  // priority is Required); the pair is then not stored.
  if (m_store.SetSize((static_cast<uint64_t>(pairs) + 1) * sizeof(Pair), kMemPriorityRequired) != 0) return;
  m_pairs = static_cast<Pair*>(m_store.MemPtr());
  m_room = pairs;
}

void TDictLinear::Reset(int capacity) {
  m_store.Reset();
  m_pairs = nullptr;
  m_count = 0;
  m_room = 0;
  Reserve(std::max(capacity, kFirstRoom));
}

int TDictLinear::IndexOf(int64_t key) const {
  if (m_pairs == nullptr) return 0;
  m_pairs[0].key = key;
  int i = m_count;
  while (m_pairs[i].key != key) --i;
  return i;
}

void TDictLinear::Define(int64_t key, int64_t value) {
  if (value == 0) {
    Undefine(key);
    return;
  }
  int i = IndexOf(key);
  if (i != 0) {
    m_pairs[i].value = value;
    return;
  }
  if (m_count == m_room) Reserve(m_room * 2);
  if (m_count == m_room) return;
  ++m_count;
  m_pairs[m_count] = {key, value};
}

void TDictLinear::Undefine(int64_t key) {
  int i = IndexOf(key);
  if (i == 0) return;
  std::memmove(m_pairs + i, m_pairs + i + 1, sizeof(Pair) * (m_count - i));
  m_pairs[m_count] = {0, 0};
  --m_count;
}

int64_t TDictLinear::Lookup(int64_t key) const {
  for (const TDictLinear* dict = this; dict != nullptr; dict = dict->m_parent) {
    int i = dict->IndexOf(key);
    if (i != 0) return dict->m_pairs[i].value;
  }
  return 0;
}

int64_t TDictLinear::Find(int64_t value) const {
  if (value == 0) return 0;
  for (int i = 1; i <= m_count; ++i) {
    if (m_pairs[i].value == value) return m_pairs[i].key;
  }
  return 0;
}

int TDictLinear::LookupKeydex(int64_t key) const { return IndexOf(key) - 1; }

int64_t TDictLinear::GetIndKey(int i) const { return i >= 0 && i < m_count ? m_pairs[i + 1].key : 0; }

int64_t TDictLinear::GetIndData(int i) const { return i >= 0 && i < m_count ? m_pairs[i + 1].value : 0; }
