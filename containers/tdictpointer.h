// TDictPointer, a hash dictionary from 64-bit keys to pointers, over TDict64.
//
// A pointer is stored as its address bits (uintptr_t, widened to 64 bits)
// and comes back unchanged; the null pointer is the absent value, as 0 is in
// TDict64. The dictionary does not own what the pointers point to. Parents,
// ordering, iteration order and assertions are those of TDict64
// (source "dicthash64").
#ifndef PLINTH_CONTAINERS_TDICTPOINTER_H_
#define PLINTH_CONTAINERS_TDICTPOINTER_H_

#include <cstdint>

#include "containers/tdict64.h"
#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API TDictPointer : public TObject {
 public:
  explicit TDictPointer(int capacity = 0, int ordered = 0) : m_dict(capacity, ordered) {}

  static int64_t FromPointer(const void* pointer) {
    return static_cast<int64_t>(reinterpret_cast<uintptr_t>(pointer));
  }
  static void* ToPointer(int64_t value) { return reinterpret_cast<void*>(static_cast<uintptr_t>(value)); }

  void Reset(int capacity = 0) { m_dict.Reset(capacity); }
  void Define(int64_t key, const void* value) { m_dict.Define(key, FromPointer(value)); }
  void Undefine(int64_t key) { m_dict.Undefine(key); }
  void* Lookup(int64_t key) const { return ToPointer(m_dict.Lookup(key)); }
  int64_t Find(const void* value) const { return m_dict.Find(FromPointer(value)); }
  int LookupKeydex(int64_t key) const { return m_dict.LookupKeydex(key); }
  int64_t GetIndKey(int i) const { return m_dict.GetIndKey(i); }
  void* GetIndData(int i) const { return ToPointer(m_dict.GetIndData(i)); }
  int GetCount() const { return m_dict.GetCount(); }
  int GetTableSize() const { return m_dict.GetTableSize(); }

  TDictPointer* GetParent() const { return m_parent; }
  void SetParent(TDictPointer* parent) {
    m_parent = parent;
    m_dict.SetParent(parent != nullptr ? &parent->m_dict : nullptr);
  }

 private:
  friend class TDictPointerIter;

  TDict64 m_dict;
  TDictPointer* m_parent = nullptr;
};

// Walks a dictionary's live pairs in slot order.
class PLINTH_API TDictPointerIter : public TObject {
 public:
  explicit TDictPointerIter(TDictPointer& dict) : m_iter(dict.m_dict) {}

  TDictPointerIter& operator++() {
    ++m_iter;
    return *this;
  }
  operator int() const { return m_iter; }
  int64_t Key() const { return m_iter.Key(); }
  void* Data() const { return TDictPointer::ToPointer(m_iter.Data()); }
  void Reset() { m_iter.Reset(); }

 private:
  TDict64Iter m_iter;
};

#endif  // PLINTH_CONTAINERS_TDICTPOINTER_H_
