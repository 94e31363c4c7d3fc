#include "containers/tdict.h"

TDict::TDict(int capacity, int ordered) : m_table(capacity, ordered) {}

TDict::TDict(const TDict& other) : TObject(), m_table(other.m_table), m_parent(other.m_parent) {}

TDict& TDict::operator=(const TDict& other) {
  m_table = other.m_table;
  m_parent = other.m_parent;
  return *this;
}

TDict::~TDict() = default;

void TDict::Reset(int capacity) { m_table.Reset(capacity); }

void TDict::Define(int key, int value) { m_table.Define(key, value); }

void TDict::Undefine(int key) { m_table.Undefine(key); }

int TDict::Find(int value) const { return m_table.Find(value); }

int TDict::LookupKeydex(int key) const { return m_table.Keydex(key); }

int TDict::GetIndKey(int i) const {
  int slot = m_table.IndSlot(i);
  return slot < m_table.Size() ? m_table.At(slot).key : 0;
}

int TDict::GetIndData(int i) const {
  int slot = m_table.IndSlot(i);
  return slot < m_table.Size() ? m_table.At(slot).value : 0;
}
