// TDict, a hash dictionary from 32-bit keys to 32-bit values.
//
//   TDict ids;                 // 127 slots, unordered
//   ids.Define(42, 7);
//   int v = ids.Lookup(42);    // 7; 0 for a key that is not there
//
// Value 0 means absent: Define(k, 0) removes k, and Lookup answers 0 for a
// key it does not hold. Key 0 is a key like any other for Define, Undefine,
// Lookup and Find, but it never occupies a slot: GetCount, the iterator and
// the index functions (GetIndKey, GetIndData, LookupKeydex) cover the pairs in
// the table only.
//
// The table is an open-addressing hash table of prime size with tombstone
// deletion (see containers/dict_core.h for the hash, the probe, growth and
// shrinking). An ordered dictionary keeps the keys along every probe
// sequence in decreasing unsigned order, so a search for an absent key stops
// early, and its layout depends only on the keys present and the table size,
// not on the order of their definition (as long as nothing was deleted).
//
// Parents. A dictionary may have a parent (not owned); Lookup answers from
// the parent chain for keys the dictionary lacks. Nothing else looks at the
// parent. The chain must not loop.
//
// Order. The index functions and TDictIter walk the slots in index order and
// visit live pairs only; that order follows the hash and changes whenever the
// table is rebuilt. The index functions take time in proportion to the table.
// Define and Undefine may rebuild the table, which invalidates iterators and
// indexes.
//
// Misuse (sizes out of range, corrupt counters) is an assertion of source
// "dicthash"; nothing returns an error code. Not thread-safe: concurrent
// readers are fine, a writer needs the dictionary to itself.
#ifndef PLINTH_CONTAINERS_TDICT_H_
#define PLINTH_CONTAINERS_TDICT_H_

#include "containers/dict_core.h"
#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API TDict : public TObject {
 public:
  // Room for `capacity` entries at 80 per cent load (127 slots at least), or
  // exactly -capacity slots when negative; see Reset.
  explicit TDict(int capacity = 0, int ordered = 0);
  // Copies the pairs, the ordered flag and the parent pointer.
  TDict(const TDict& other);
  TDict& operator=(const TDict& other);
  ~TDict();

  // Empties the dictionary (key 0 too) and sizes the table: for `capacity`
  // entries at 80 per cent load, the first table size not below
  // (capacity * 100 + 79) / 80; or, with a negative capacity, exactly
  // -capacity slots, which must be a table size (else an assertion, line 123,
  // and the next table size up). Above 16777213 is an assertion (line 127)
  // and gives 16777213 slots. The ordered flag and the parent stay.
  void Reset(int capacity = 0);

  void Define(int key, int value);
  void Undefine(int key);
  // The value of `key`, searching the parents; 0 when no one holds it.
  int Lookup(int key) const {
    const TDict* dict = this;
    do {
      int value = dict->m_table.Own(key);
      if (value != 0) return value;
      dict = dict->m_parent;
    } while (dict != nullptr);
    return 0;
  }
  // The first key in slot order whose value is `value`; 0 when there is none,
  // when `value` is 0 or when it is the value of key 0. Parents are not searched.
  int Find(int value) const;
  // The position of `key` among the live pairs in slot order, -1 if absent.
  int LookupKeydex(int key) const;
  // The key and value of the i-th live pair in slot order; 0 out of range.
  int GetIndKey(int i) const;
  int GetIndData(int i) const;
  // Live pairs in the table (key 0 not counted).
  int GetCount() const { return m_table.Count(); }
  // The number of slots, one of the table sizes.
  int GetTableSize() const { return m_table.Size(); }
  int IsOrdered() const { return m_table.Ordered(); }

  TDict* GetParent() const { return m_parent; }
  void SetParent(TDict* parent) { m_parent = parent; }

 private:
  friend class TDictIter;
  friend class dict_internal::DictCorePeer;  // tests reach the counters

  dict_internal::DictCore<dict_internal::Dict32Traits> m_table;
  TDict* m_parent = nullptr;
};

// Walks a dictionary's live pairs in slot order:
//   for (TDictIter it(dict); it; ++it) Use(it.Key(), it.Data());
class PLINTH_API TDictIter : public TObject {
 public:
  explicit TDictIter(TDict& dict) : m_dict(&dict) { Reset(); }

  TDictIter& operator++() {
    if (m_slot < m_dict->m_table.Size()) m_slot = m_dict->m_table.NextLive(m_slot + 1);
    return *this;
  }
  // Non-zero while on a pair.
  operator int() const { return m_slot < m_dict->m_table.Size() ? 1 : 0; }
  int Key() const { return *this ? m_dict->m_table.At(m_slot).key : 0; }
  int Data() const { return *this ? m_dict->m_table.At(m_slot).value : 0; }
  // Back to the first pair.
  void Reset() { m_slot = m_dict->m_table.NextLive(0); }

 private:
  const TDict* m_dict;
  int m_slot = 0;
};

#endif  // PLINTH_CONTAINERS_TDICT_H_
