// TDictLinear, a small map from 64-bit keys to 64-bit values kept as an
// unsorted array: for a handful of pairs it beats hashing and costs 16 bytes
// a pair.
//
// As with TDict, value 0 means absent (Define(k, 0) removes k); key 0 is an
// ordinary key here. New pairs are appended; Undefine closes the gap, so the
// index functions see the pairs in the order of their first definition.
// Lookup, Define and Undefine take time in proportion to the count.
//
// The first pair of the array is a sentinel: a search writes its key there
// and scans from the last pair backward, so the loop needs no bound check;
// stopping on the sentinel means not found, and the search goes on in the
// parent (not owned; the chain must not loop). Because a search writes the
// sentinel, even concurrent Lookups need the dictionary to themselves.
//
// Growth: the array doubles when full, from room for 7 pairs.
#ifndef PLINTH_CONTAINERS_TDICTLINEAR_H_
#define PLINTH_CONTAINERS_TDICTLINEAR_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tmemory.h"
#include "foundation/tobject.h"

class PLINTH_API TDictLinear : public TObject {
 public:
  // Room for `capacity` pairs before the first growth.
  explicit TDictLinear(int capacity = 0);
  // Copies the pairs and the parent pointer.
  TDictLinear(const TDictLinear& other);
  TDictLinear& operator=(const TDictLinear& other);
  ~TDictLinear();

  // Empties the dictionary with room for `capacity` pairs; the parent stays.
  void Reset(int capacity = 0);
  void Define(int64_t key, int64_t value);
  void Undefine(int64_t key);
  // The value of `key`, searching the parents; 0 when no one holds it.
  int64_t Lookup(int64_t key) const;
  // The first key in array order whose value is `value`; 0 when none or
  // when `value` is 0.
  int64_t Find(int64_t value) const;
  // The position of `key` in the array, -1 if absent.
  int LookupKeydex(int64_t key) const;
  // The key and value of the i-th pair; 0 out of range.
  int64_t GetIndKey(int i) const;
  int64_t GetIndData(int i) const;
  int GetCount() const { return m_count; }

  TDictLinear* GetParent() const { return m_parent; }
  void SetParent(TDictLinear* parent) { m_parent = parent; }

 private:
  struct Pair {
    int64_t key;
    int64_t value;
  };
  // The array index of `key` (1..count), 0 when absent.
  int IndexOf(int64_t key) const;
  // Makes room for `pairs` pairs besides the sentinel.
  void Reserve(int pairs);

  TMemory m_store;
  Pair* m_pairs = nullptr;  // m_pairs[0] is the sentinel
  int m_count = 0;
  int m_room = 0;
  TDictLinear* m_parent = nullptr;
};

#endif  // PLINTH_CONTAINERS_TDICTLINEAR_H_
