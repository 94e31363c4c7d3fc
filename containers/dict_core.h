// The open-addressing table behind TDict and TDict64 (internal).
//
// Slots. The table is a flat array of (key, value) pairs. Key 0 marks an
// empty slot; value 0 marks a deleted one, a tombstone that keeps its key so
// that the probe sequences running through it stay intact. Key 0 itself is
// never stored in a slot: its value is held apart.
//
// Sizes. Tables come in the prime sizes of kTableSizes, the primes just below
// the powers of two from 2^7 to 2^24.
//
// Hash and probe. A key's home slot h is its square (wrapped to the key's
// width, taken as signed), shifted right arithmetically by `shift` and masked
// with `mask`, where mask + 1 is the largest power of two not above the size
// and shift is 32 - bits (bits = the number of one bits of mask) when bits is
// above 16, else 16. The probe visits h, h - step, h - 2 step, ... modulo the
// size, with step = size - h (1 when h is 0): the multiples of h. The size is
// prime, so every slot comes up once before the probe returns to h, and each
// step is a subtraction and a conditional add, never a division.
//
// The 64-bit table uses the same shift rule on the 64-bit square. Bit j of a
// square depends only on bits 0..j of the key, and the window never reaches
// bit 32, so a key below 2^32 gets the very slot and probe sequence TDict
// would give it, and keys that differ only above bit 31 share one probe
// sequence (they still work, but they cluster).
//
// Ordered tables keep, along every probe sequence, the keys in decreasing
// unsigned order: a search stops at the first smaller key, and an insertion
// that meets a smaller key takes its slot and carries the displaced pair on
// along the displaced key's own probe sequence.
//
// Growth and shrinking. Before an insertion brings the used slots (live or
// deleted) to the high-water mark (80 per cent), and after a deletion that
// leaves the used slots below the low-water mark (20 per cent) or the
// tombstones at their limit (50 per cent), the table is checked: it is rebuilt
// at 50 per cent load for its live pairs unless that gives the same size and
// the tombstones are below their limit.
//
// Counter corruption and misuse are assertions (Debug) of source "dicthash"
// (32-bit) or "dicthash64", with the same line numbers for both widths.
#ifndef PLINTH_CONTAINERS_DICT_CORE_H_
#define PLINTH_CONTAINERS_DICT_CORE_H_

#include <cstdint>

#include "foundation/tmemory.h"

namespace dict_internal {

class DictCorePeer;

inline constexpr int32_t kTableSizes[] = {127,     251,     509,     1021,    2039,     4093,
                                          8191,    16381,   32749,   65521,   131071,   262139,
                                          524287,  1048573, 2097143, 4194301, 8388593,  16777213};
inline constexpr int32_t kMaxTableSize = 16777213;

// Assertion lines.
constexpr int kLineExactSizeNotPrime = 123;    // Reset(-n) with n not a table size
constexpr int kLineCapacityTooLarge = 127;     // Reset(n) with n above kMaxTableSize
constexpr int kLineDeletedBelowZero = 329;     // a revived tombstone took the count below 0
constexpr int kLineTableFull = 345;            // no empty slot left for an insertion
constexpr int kLineDeletedAboveUsed = 394;     // more tombstones than used slots
constexpr int kLineLiveNegative = 423;         // the rehash check found used < deleted

// The first table size not below `wanted`; kMaxTableSize beyond the last.
int32_t TableSizeAtLeast(int64_t wanted);
bool IsTableSize(int64_t size);

struct Dict32Traits {
  using Key = int32_t;
  using UKey = uint32_t;
  using Value = int32_t;
  static constexpr const char* kSource = "dicthash";
};

struct Dict64Traits {
  using Key = int64_t;
  using UKey = uint64_t;
  using Value = int64_t;
  static constexpr const char* kSource = "dicthash64";
};

template <typename Traits>
class DictCore {
 public:
  using Key = typename Traits::Key;
  using UKey = typename Traits::UKey;
  using Value = typename Traits::Value;
  struct Slot {
    Key key;
    Value value;
  };

  DictCore(int capacity, int ordered);
  DictCore(const DictCore& other);
  DictCore& operator=(const DictCore& other);

  // Empties the dictionary and sizes the table for `capacity` entries (or,
  // negative, exactly -capacity slots); the ordered flag stays.
  void Reset(int capacity);

  // This table's value for `key` (key 0 included), 0 when absent.
  Value Own(Key key) const {
    if (key == 0) return m_key0;
    return m_ordered != 0 ? ProbeOrdered(key) : ProbeUnordered(key);
  }
  void Define(Key key, Value value);
  void Undefine(Key key);

  Key Find(Value value) const;
  int Keydex(Key key) const;
  // The slot index of the first live pair at or after `slot`; m_size if none.
  int NextLive(int slot) const {
    while (slot < m_size && m_slots[slot].value == 0) ++slot;
    return slot;
  }
  // The slot index of the i-th live pair; m_size if there is none.
  int IndSlot(int i) const;
  const Slot& At(int slot) const { return m_slots[slot]; }

  int Count() const { return m_used - m_deleted + m_dropped; }
  int Size() const { return m_size; }
  int Ordered() const { return m_ordered; }
  Value Key0() const { return m_key0; }

 private:
  friend class DictCorePeer;  // tests reach the counters

  uint32_t Home(Key key) const {
    UKey square = static_cast<UKey>(key) * static_cast<UKey>(key);
    return static_cast<uint32_t>(static_cast<Key>(square) >> m_shift) & m_mask;
  }
  int32_t Step(uint32_t home) const { return home != 0 ? m_size - static_cast<int32_t>(home) : 1; }
  uint32_t Next(uint32_t slot, int32_t step) const {
    int32_t next = static_cast<int32_t>(slot) - step;
    return static_cast<uint32_t>(next < 0 ? next + m_size : next);
  }

  Value ProbeUnordered(Key key) const {
    const uint32_t start = Home(key);
    const int32_t step = Step(start);
    uint32_t i = start;
    for (;;) {
      const Slot& s = m_slots[i];
      if (s.key == key) return s.value;
      if (s.key == 0) return 0;
      i = Next(i, step);
      if (i == start) return 0;
    }
  }
  // An empty slot's key 0 is below every key, so one comparison covers both.
  Value ProbeOrdered(Key key) const {
    const uint32_t start = Home(key);
    const int32_t step = Step(start);
    uint32_t i = start;
    for (;;) {
      const Slot& s = m_slots[i];
      if (s.key == key) return s.value;
      if (static_cast<UKey>(s.key) < static_cast<UKey>(key)) return 0;
      i = Next(i, step);
      if (i == start) return 0;
    }
  }
  // The slot holding `key` (live or deleted), or -1.
  int SlotOf(Key key) const;

  // Allocates a zeroed table of `size` slots in the idle store and makes it
  // current, with empty counters; false when the memory is refused.
  bool Build(int32_t size);
  // Puts a pair into the table without any rehash check.
  void Place(Key key, Value value);
  void RehashCheck();
  void Rebuild(int32_t size);
  void Assert(int line) const;

  int32_t m_ordered = 0;
  Value m_key0 = 0;
  int32_t m_size = 0;
  uint32_t m_mask = 0;
  int32_t m_shift = 16;
  int32_t m_used = 0;
  int32_t m_deleted = 0;
  // Tombstones dropped by ordered insertions since the table was built:
  // counted in m_deleted but no longer in the table.
  int32_t m_dropped = 0;
  int32_t m_low = 0;
  int32_t m_high = 0;
  int32_t m_deletedLimit = 0;
  // Two handles: a rebuild fills the idle one and then frees the old table,
  // so it needs no allocation but the new table itself.
  TMemory m_stores[2];
  int m_current = 0;
  Slot* m_slots = nullptr;
};

}  // namespace dict_internal

#endif  // PLINTH_CONTAINERS_DICT_CORE_H_
