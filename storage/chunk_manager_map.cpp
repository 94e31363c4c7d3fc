// The map of a chunk container in memory: groups, lookup, insertion and
// removal of entries, slot lengths, free space and allocation.
#include <algorithm>
#include <new>

#include "foundation/hooks.h"
#include "foundation/format_checked.h"
#include "foundation/log.h"
#include "storage/chunk_manager.h"

namespace {

int64_t RoundUp(int64_t value, int64_t step) { return step <= 1 ? value : (value + step - 1) / step * step; }

}  // namespace

int ChunkManager::GroupHead(uint32_t type, bool* found) const {
  int i = 0;
  while (i < m_mapCount) {
    const CHMapEntrySpec& head = m_map[i];
    if (head.type == type) {
      *found = true;
      return i;
    }
    if (head.type > type) break;
    i += 1 + static_cast<int>(head.id);
  }
  *found = false;
  return std::min(i, static_cast<int>(m_mapCount));
}

int ChunkManager::FindEntry(uint32_t type, uint64_t id, bool* found) const {
  bool haveGroup = false;
  int head = GroupHead(type, &haveGroup);
  *found = false;
  if (!haveGroup) return head;
  int lo = head + 1;
  int hi = head + 1 + static_cast<int>(m_map[head].id);
  while (lo < hi) {
    int mid = lo + (hi - lo) / 2;
    if (m_map[mid].id < id) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  *found = lo < head + 1 + static_cast<int>(m_map[head].id) && m_map[lo].id == id;
  return lo;
}

int ChunkManager::EnsureCapacity(int extra) {
  size_t needed = static_cast<size_t>(m_mapCount) + static_cast<size_t>(extra);
  if (needed <= m_map.size()) return 0;
  // Ten spare entries at least; geometric beyond that, so that a million
  // insertions do not copy the map a hundred thousand times.
  size_t grown = std::max(needed + 10, m_map.size() + m_map.size() / 2);
  try {
    m_map.resize(grown);
  } catch (const std::bad_alloc&) {
    LogLineChecked(517, u"chMapEnlarge: not enough memory");
    return kErrMemOutOfMemory;
  }
  return 0;
}

int ChunkManager::InsertEntry(const CHMapEntrySpec& entry) {
  bool haveGroup = false;
  int head = GroupHead(entry.type, &haveGroup);
  int at = head;
  if (entry.type == kCHFreeType) {
    if (haveGroup) {
      at = head + 1;
      int end = head + 1 + static_cast<int>(m_map[head].id);
      while (at < end && m_map[at].address < entry.address) ++at;
    }
  } else if (haveGroup) {
    bool found = false;
    at = FindEntry(entry.type, entry.id, &found);
    if (found) {
      LogLineChecked(517, u"chMapInsert: duplicate ID, type %Y, id = %Y", static_cast<int>(entry.type),
                   static_cast<int>(static_cast<uint32_t>(entry.id)));
      return kErrCHDuplicate;
    }
  }
  int inserted = haveGroup ? 1 : 2;
  int status = EnsureCapacity(inserted);
  if (status != 0) return status;
  std::copy_backward(m_map.begin() + at, m_map.begin() + m_mapCount, m_map.begin() + m_mapCount + inserted);
  if (haveGroup) {
    m_map[at] = entry;
    m_map[head].id += 1;
  } else {
    CHMapEntrySpec groupHead{};
    groupHead.type = entry.type;
    groupHead.id = 1;
    groupHead.address = kCHGroupHeadAddress;
    m_map[at] = groupHead;
    m_map[at + 1] = entry;
  }
  m_mapCount += inserted;
  if (entry.address >= 1) m_addresses.insert(entry.address);
  m_dirty = true;
  return 0;
}

void ChunkManager::DeleteEntry(int index) {
  bool haveGroup = false;
  int head = GroupHead(m_map[index].type, &haveGroup);
  if (!haveGroup || index <= head) {
    Debug("chunkmanager", 110, 0);
    return;
  }
  if (m_map[index].address >= 1) m_addresses.erase(m_map[index].address);
  int first = index;
  int removed = 1;
  if (m_map[head].id <= 1) {
    first = head;
    removed = 2;
  } else {
    m_map[head].id -= 1;
  }
  std::copy(m_map.begin() + first + removed, m_map.begin() + m_mapCount, m_map.begin() + first);
  m_mapCount -= removed;
  m_dirty = true;
}

int64_t ChunkManager::SlotLengthAt(int64_t address) const {
  auto next = m_addresses.lower_bound(address + std::max<int64_t>(1, m_header.addressStep));
  int64_t end = next == m_addresses.end() ? static_cast<int64_t>(m_header.endOfSpace) : *next;
  return end - address;
}

int64_t ChunkManager::StoredLength(int index) const {
  const CHMapEntrySpec& entry = m_map[index];
  if (entry.address < 1) return 0;
  return SlotLengthAt(entry.address) - static_cast<int64_t>(entry.slack);
}

int ChunkManager::AddFreeExtent(int64_t address, int64_t length) {
  CHMapEntrySpec extent{};
  extent.type = kCHFreeType;
  extent.id = static_cast<uint64_t>(length);
  extent.address = address;
  return InsertEntry(extent);
}

int ChunkManager::FreeSlot(int index) {
  CHMapEntrySpec& entry = m_map[index];
  if (entry.address < 1) return 0;
  int64_t address = entry.address;
  int64_t length = SlotLengthAt(address);
  entry.address = 0;
  entry.slack = 0;
  entry.state &= ~kCHStateHasSpace;
  m_dirty = true;
  if (m_savedSlots.count(address) != 0) {
    // Still part of the saved state: the address stays taken until the next
    // save has placed its map.
    m_pending.push_back({address, length});
    return 0;
  }
  m_addresses.erase(address);
  return AddFreeExtent(address, length);
}

int ChunkManager::AdoptTail() {
  int64_t step = std::max<int64_t>(1, m_header.addressStep);
  int64_t physical = RoundUp(static_cast<int64_t>(m_physicalLength), step);
  int64_t end = static_cast<int64_t>(m_header.endOfSpace);
  if (physical <= end) return 0;
  int status = AddFreeExtent(end, physical - end);
  if (status != 0) return status;
  m_header.endOfSpace = static_cast<uint64_t>(physical);
  return 0;
}

int ChunkManager::FindSpace(int64_t need, bool take, int64_t* address, int64_t* granted) {
  bool haveGroup = false;
  int head = GroupHead(kCHFreeType, &haveGroup);
  if (!haveGroup) return kErrNotFound;
  int64_t step = std::max<int64_t>(1, m_header.addressStep);
  int chosen = -1;
  int64_t chosenLeft = 0;
  int i = head + 1;
  while (i < head + 1 + static_cast<int>(m_map[head].id)) {
    CHMapEntrySpec& extent = m_map[i];
    if (chosen < 0 && i > head + 1) {
      CHMapEntrySpec& before = m_map[i - 1];
      if (before.address + static_cast<int64_t>(before.id) == extent.address) {
        before.id += extent.id;
        DeleteEntry(i);
        --i;  // the grown extent is a candidate again
      }
    }
    const CHMapEntrySpec& candidate = m_map[i];
    int64_t length = static_cast<int64_t>(candidate.id);
    if (length >= need && (chosen < 0 || length - need < chosenLeft)) {
      chosen = i;
      chosenLeft = length - need;
    }
    ++i;
  }
  if (chosen < 0) {
    // A last extent that reaches the end of space starts a slot the file's
    // growth completes.
    int last = head + static_cast<int>(m_map[head].id);
    const CHMapEntrySpec& tail = m_map[last];
    if (tail.address + static_cast<int64_t>(tail.id) != static_cast<int64_t>(m_header.endOfSpace)) return kErrNotFound;
    *address = tail.address;
    *granted = static_cast<int64_t>(tail.id);
    if (take) DeleteEntry(last);
    return 1;
  }
  CHMapEntrySpec& extent = m_map[chosen];
  *address = extent.address;
  if (chosenLeft >= step) {
    *granted = need + chosenLeft % step;
    if (take) {
      m_addresses.erase(extent.address);
      extent.address += *granted;
      extent.id -= static_cast<uint64_t>(*granted);
      m_addresses.insert(extent.address);
      m_dirty = true;
    }
  } else {
    *granted = static_cast<int64_t>(extent.id);
    if (take) DeleteEntry(chosen);
  }
  return 0;
}

int ChunkManager::AllocateSlot(uint32_t type, uint64_t id, int64_t need) {
  bool found = false;
  int index = FindEntry(type, id, &found);
  if (!found) return kErrNotFound;
  int status = FreeSlot(index);
  if (status != 0) return status;
  status = AdoptTail();
  if (status != 0) return status;
  int64_t step = std::max<int64_t>(1, m_header.addressStep);
  int64_t address = 0;
  int64_t granted = 0;
  int64_t slot = 0;
  int fit = FindSpace(need, false, &address, &granted);
  if (fit == 0) {
    FindSpace(need, true, &address, &granted);
    slot = granted;
  } else {
    // Grow the file; a trailing extent becomes the start of the slot.
    int64_t end = static_cast<int64_t>(m_header.endOfSpace);
    int64_t trailing = 0;
    if (fit == 1) {
      FindSpace(need, true, &address, &trailing);
    } else {
      address = end;
    }
    int64_t newEnd = end + RoundUp(need - trailing, step);
    m_header.endOfSpace = static_cast<uint64_t>(newEnd);
    slot = newEnd - address;
  }
  index = FindEntry(type, id, &found);
  CHMapEntrySpec& entry = m_map[index];
  entry.address = address;
  entry.slack = static_cast<uint64_t>(slot - need);
  entry.state = (entry.state | kCHStateHasSpace) & ~kCHStateAllocating;
  m_addresses.insert(address);
  m_dirty = true;
  return 0;
}
