#include "containers/dict_core.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <utility>

#include "foundation/hooks.h"

namespace dict_internal {

int32_t TableSizeAtLeast(int64_t wanted) {
  for (int32_t size : kTableSizes) {
    if (size >= wanted) return size;
  }
  return kMaxTableSize;
}

bool IsTableSize(int64_t size) {
  for (int32_t s : kTableSizes) {
    if (s == size) return true;
  }
  return false;
}

template <typename Traits>
DictCore<Traits>::DictCore(int capacity, int ordered) : m_ordered(ordered) {
  Reset(capacity);
}

template <typename Traits>
DictCore<Traits>::DictCore(const DictCore& other) {
  *this = other;
}

template <typename Traits>
DictCore<Traits>& DictCore<Traits>::operator=(const DictCore& other) {
  if (this == &other) return *this;
  m_ordered = other.m_ordered;
  TMemory& store = m_stores[0];
  store = other.m_stores[other.m_current];
  m_stores[1].Reset();
  m_current = 0;
  if (store.GetSize() != static_cast<uint64_t>(other.m_size) * sizeof(Slot)) {
    // The copy was refused (and reported by the handle): start empty.
    Reset(0);
    return *this;
  }
  m_slots = static_cast<Slot*>(store.MemPtr());
  m_key0 = other.m_key0;
  m_size = other.m_size;
  m_mask = other.m_mask;
  m_shift = other.m_shift;
  m_used = other.m_used;
  m_deleted = other.m_deleted;
  m_dropped = other.m_dropped;
  m_low = other.m_low;
  m_high = other.m_high;
  m_deletedLimit = other.m_deletedLimit;
  return *this;
}

template <typename Traits>
void DictCore<Traits>::Assert(int line) const {
  Debug(Traits::kSource, line, 0);
}

template <typename Traits>
bool DictCore<Traits>::Build(int32_t size) {
  TMemory& idle = m_stores[1 - m_current];
  if (idle.AllocBuffer(static_cast<uint64_t>(size) * sizeof(Slot), kMemPriorityRequired) != 0) return false;
  m_current = 1 - m_current;
  m_slots = static_cast<Slot*>(idle.MemPtr());
  m_size = size;
  m_high = std::max(size * 80 / 100, 1);
  m_low = size * 20 / 100;
  m_deletedLimit = size * 50 / 100;
  m_used = 0;
  m_deleted = 0;
  m_dropped = 0;
  uint32_t top = std::bit_floor(static_cast<uint32_t>(size));
  m_mask = top - 1;
  int bits = std::popcount(m_mask);
  m_shift = bits > 16 ? 32 - bits : 16;
  return true;
}

template <typename Traits>
void DictCore<Traits>::Reset(int capacity) {
  int64_t wanted = capacity;
  int32_t size;
  if (wanted < 0) {
    if (IsTableSize(-wanted)) {
      size = static_cast<int32_t>(-wanted);
    } else {
      Assert(kLineExactSizeNotPrime);
      size = TableSizeAtLeast(-wanted);
    }
  } else if (wanted > kMaxTableSize) {
    Assert(kLineCapacityTooLarge);
    size = kMaxTableSize;
  } else {
    size = TableSizeAtLeast((wanted * 100 + 79) / 80);
  }
  // Without the memory for the size asked, the smallest table still works;
  // without even that, stop as MemAlloc does when the heap is exhausted.
  if (!Build(size) && !Build(kTableSizes[0])) std::abort();
  m_stores[1 - m_current].Reset();
  m_key0 = 0;
}

template <typename Traits>
int DictCore<Traits>::SlotOf(Key key) const {
  const uint32_t start = Home(key);
  const int32_t step = Step(start);
  uint32_t i = start;
  for (;;) {
    const Slot& s = m_slots[i];
    if (s.key == key) return static_cast<int>(i);
    if (s.key == 0) return -1;
    if (m_ordered != 0 && static_cast<UKey>(s.key) < static_cast<UKey>(key)) return -1;
    i = Next(i, step);
    if (i == start) return -1;
  }
}

template <typename Traits>
void DictCore<Traits>::Place(Key key, Value value) {
  Slot cur{key, value};
  uint32_t start = Home(key);
  int32_t step = Step(start);
  uint32_t i = start;
  for (;;) {
    Slot& s = m_slots[i];
    if (s.key == 0) {
      s = cur;
      ++m_used;
      return;
    }
    if (s.key == cur.key) {
      // Only the pair being defined can meet its own key: displaced keys
      // are unique in the table.
      if (s.value == 0 && --m_deleted < 0) {
        Assert(kLineDeletedBelowZero);
        m_deleted = 0;
      }
      s.value = cur.value;
      return;
    }
    if (m_ordered != 0 && static_cast<UKey>(s.key) < static_cast<UKey>(cur.key)) {
      std::swap(s, cur);
      if (cur.value == 0) {
        // A displaced tombstone is dropped and the counters stay as they
        // are: the deleted count now holds one tombstone that is gone, and
        // the rebuild checks come as that count says. m_dropped keeps the
        // live count and the checks of the counters true.
        ++m_dropped;
        return;
      }
      // Every slot ahead of this one on the displaced key's sequence holds a
      // larger key, so it carries on from here rather than from its home.
      start = Home(cur.key);
      step = Step(start);
    }
    i = Next(i, step);
    if (i == start) {
      Assert(kLineTableFull);
      return;
    }
  }
}

template <typename Traits>
void DictCore<Traits>::Define(Key key, Value value) {
  if (key == 0) {
    m_key0 = value;
    return;
  }
  if (value == 0) {
    Undefine(key);
    return;
  }
  if (m_used + 1 >= m_high) RehashCheck();
  Place(key, value);
}

template <typename Traits>
void DictCore<Traits>::Undefine(Key key) {
  if (key == 0) {
    m_key0 = 0;
    return;
  }
  int slot = SlotOf(key);
  if (slot < 0 || m_slots[slot].value == 0) return;
  m_slots[slot].value = 0;
  if (++m_deleted - m_dropped > m_used) {
    Assert(kLineDeletedAboveUsed);
    m_deleted = m_used + m_dropped;
  }
  if (m_used < m_low || m_deleted >= m_deletedLimit) RehashCheck();
}

template <typename Traits>
void DictCore<Traits>::RehashCheck() {
  int64_t live = static_cast<int64_t>(m_used) - m_deleted;
  // Below 0 by dropped tombstones alone is no corruption (the rebuild sizes
  // for the pairs really there).
  if (live < 0) {
    if (live + m_dropped < 0) Assert(kLineLiveNegative);
    live = 0;
  }
  int32_t size = live < 10737418 ? TableSizeAtLeast(live * 200 / 100 + 1) : kMaxTableSize;
  if (size == m_size && m_deleted < m_deletedLimit) return;
  Rebuild(size);
}

template <typename Traits>
void DictCore<Traits>::Rebuild(int32_t size) {
  // The counters may have been found corrupt: size for what is really there.
  int64_t live = 0;
  for (int32_t i = 0; i < m_size; ++i) live += m_slots[i].value != 0;
  size = std::max(size, live < 10737418 ? TableSizeAtLeast(live * 2 + 1) : kMaxTableSize);

  const Slot* old = m_slots;
  const int32_t oldSize = m_size;
  // Refused memory (reported by the handle) leaves the old table in place.
  if (!Build(size)) return;
  for (int32_t i = 0; i < oldSize; ++i) {
    if (old[i].value != 0) Place(old[i].key, old[i].value);
  }
  m_stores[1 - m_current].Reset();
}

template <typename Traits>
typename DictCore<Traits>::Key DictCore<Traits>::Find(Value value) const {
  if (value == 0 || value == m_key0) return 0;
  for (int32_t i = 0; i < m_size; ++i) {
    if (m_slots[i].value == value) return m_slots[i].key;
  }
  return 0;
}

template <typename Traits>
int DictCore<Traits>::Keydex(Key key) const {
  if (key == 0) return -1;
  int slot = SlotOf(key);
  if (slot < 0 || m_slots[slot].value == 0) return -1;
  int index = 0;
  for (int i = 0; i < slot; ++i) index += m_slots[i].value != 0;
  return index;
}

template <typename Traits>
int DictCore<Traits>::IndSlot(int i) const {
  if (i < 0) return m_size;
  for (int slot = 0; slot < m_size; ++slot) {
    if (m_slots[slot].value != 0 && i-- == 0) return slot;
  }
  return m_size;
}

template class DictCore<Dict32Traits>;
template class DictCore<Dict64Traits>;

}  // namespace dict_internal
