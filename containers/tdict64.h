// TDict64, a hash dictionary from 64-bit keys to 64-bit values.
//
// Everything said of TDict (containers/tdict.h) holds, with 64-bit keys and
// values and assertions of source "dicthash64" (same lines). The hash takes
// the 64-bit square of the key through TDict's shift rule, so keys below 2^32
// sit exactly where TDict would put them; bits above 31 of a key do not
// reach the hash, and keys that differ only there share a probe sequence.
//
// Saving. Export writes the dictionary into StoreSize() bytes, Import
// replaces the dictionary (pairs, key 0 and the ordered flag; not the parent)
// with what Export wrote. The image, all numbers little-endian:
//   offset  0  4 bytes  "TD64"
//   offset  4  uint32   flags: bit 0 ordered; other bits 0
//   offset  8  int64    the value of key 0 (0 when unset)
//   offset 16  uint64   n, the number of pairs
//   offset 24  n pairs of (int64 key, int64 value), in slot order
// Import reads nothing past `size`, and refuses (kErrInvalidData, one log
// line, dictionary unchanged) an image that is short, has another magic or
// unknown flags, more pairs than the largest table takes (13421769), a pair
// with key 0 or value 0, or a key twice. Trailing bytes beyond the pairs are
// ignored. The imported table is sized for its n pairs, so its slot order may
// differ from the exported one.
#ifndef PLINTH_CONTAINERS_TDICT64_H_
#define PLINTH_CONTAINERS_TDICT64_H_

#include <cstdint>

#include "containers/dict_core.h"
#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API TDict64 : public TObject {
 public:
  // The size of the image's fixed part and of one pair.
  static constexpr int kImageHeaderBytes = 24;
  static constexpr int kImagePairBytes = 16;
  // The most pairs an image may hold: one below the largest table's
  // high-water mark.
  static constexpr int kImageMaxPairs = 13421769;

  explicit TDict64(int capacity = 0, int ordered = 0);
  TDict64(const TDict64& other);
  TDict64& operator=(const TDict64& other);
  ~TDict64();

  void Reset(int capacity = 0);
  void Define(int64_t key, int64_t value);
  void Undefine(int64_t key);
  int64_t Lookup(int64_t key) const {
    const TDict64* dict = this;
    do {
      int64_t value = dict->m_table.Own(key);
      if (value != 0) return value;
      dict = dict->m_parent;
    } while (dict != nullptr);
    return 0;
  }
  int64_t Find(int64_t value) const;
  int LookupKeydex(int64_t key) const;
  int64_t GetIndKey(int i) const;
  int64_t GetIndData(int i) const;
  int GetCount() const { return m_table.Count(); }
  int GetTableSize() const { return m_table.Size(); }
  int IsOrdered() const { return m_table.Ordered(); }

  TDict64* GetParent() const { return m_parent; }
  void SetParent(TDict64* parent) { m_parent = parent; }

  // Bytes that Export writes.
  int StoreSize() const;
  // 0, or kErrBufferTooSmall when `size` is below StoreSize() (nothing
  // written), or kErrBadParameter for a null buffer.
  int Export(void* buffer, int size) const;
  // 0, or kErrInvalidData / kErrBadParameter (see above).
  int Import(const void* buffer, int size);

 private:
  friend class TDict64Iter;
  friend class dict_internal::DictCorePeer;  // tests reach the counters

  dict_internal::DictCore<dict_internal::Dict64Traits> m_table;
  TDict64* m_parent = nullptr;
};

// Walks a dictionary's live pairs in slot order.
class PLINTH_API TDict64Iter : public TObject {
 public:
  explicit TDict64Iter(TDict64& dict) : m_dict(&dict) { Reset(); }

  TDict64Iter& operator++() {
    if (m_slot < m_dict->m_table.Size()) m_slot = m_dict->m_table.NextLive(m_slot + 1);
    return *this;
  }
  // Non-zero while on a pair.
  operator int() const { return m_slot < m_dict->m_table.Size() ? 1 : 0; }
  int64_t Key() const { return *this ? m_dict->m_table.At(m_slot).key : 0; }
  int64_t Data() const { return *this ? m_dict->m_table.At(m_slot).value : 0; }
  void Reset() { m_slot = m_dict->m_table.NextLive(0); }

 private:
  const TDict64* m_dict;
  int m_slot = 0;
};

#endif  // PLINTH_CONTAINERS_TDICT64_H_
