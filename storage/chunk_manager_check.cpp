// The map check: the groups, then the slots in address order from the data
// start to the end of space, then the loaded-chunk table.
#include <algorithm>
#include <vector>

#include "foundation/format_checked.h"
#include "foundation/log.h"
#include "storage/chunk_manager.h"

namespace {

struct SlotSpec {
  int64_t address;
  int64_t freeLength;  // -1 for a chunk
  uint64_t slack;
};

}  // namespace

int ChunkManager::CHVerify() {
  if (m_file == nullptr) return Refuse(u"CHVerify");
  return MapCheck(false, true);
}

int ChunkManager::MapCheck(bool quiet, bool handles) const {
  auto fail = [quiet](const char16_t* message) {
    if (!quiet) LogLine(517, message);
    return kErrCHBadMap;
  };
  if (m_mapCount < 0 || static_cast<size_t>(m_mapCount) > m_map.size()) return fail(u"chMapCheck: invalid number");
  int64_t step = std::max<int64_t>(1, m_header.addressStep);
  int64_t start = static_cast<int64_t>(m_header.dataStart);
  int64_t end = static_cast<int64_t>(m_header.endOfSpace);
  if (start < static_cast<int64_t>(kCHFileHeaderSize) || start > end || start % step != 0) {
    return fail(u"chMapCheck: invalid starting address");
  }
  if (end % step != 0) return fail(u"chMapCheck: came out beyond available space");
  std::vector<SlotSpec> slots;
  bool mapListed = false;
  for (int i = 0; i < m_mapCount;) {
    const CHMapEntrySpec& head = m_map[i];
    if (head.address != kCHGroupHeadAddress) return fail(u"chMapCheck: invalid map termination");
    if (i > 0 && head.type <= m_map[i - 1].type) return fail(u"chMapCheck: invalid type sequence");
    if (head.id == 0 || head.id > static_cast<uint64_t>(m_mapCount - i - 1)) return fail(u"chMapCheck: type count wrong");
    if (head.type >= 0x80000000u && head.type != kCHFreeType) return fail(u"chMapCheck: invalid type");
    bool free = head.type == kCHFreeType;
    for (int k = 1; k <= static_cast<int>(head.id); ++k) {
      const CHMapEntrySpec& entry = m_map[i + k];
      const CHMapEntrySpec& before = m_map[i + k - 1];
      if (entry.type != head.type) return fail(u"chMapCheck: type count wrong");
      if (entry.address == kCHGroupHeadAddress) return fail(u"chMapCheck: invalid map termination");
      if (free) {
        if (k > 1 && entry.address <= before.address) return fail(u"chMapCheck: invalid address sequence");
        if (static_cast<int64_t>(entry.id) <= 0 || static_cast<int64_t>(entry.id) % step != 0) {
          return fail(u"chMapCheck: invalid chunk size");
        }
      } else {
        if (k > 1 && entry.id <= before.id) return fail(u"chMapCheck: invalid id sequence");
        if ((entry.state & kCHStateAllocating) != 0) return fail(u"chMapCheck: failed allocation not fixed");
        if (entry.type == kCHMapType && entry.address >= 1) {
          mapListed = true;
          // The saved map must fit the slot its entry gives it.
          if (entry.address == static_cast<int64_t>(m_header.mapAddress) && m_header.mapLength != 0 &&
              (entry.address >= end || static_cast<uint64_t>(SlotLengthAt(entry.address)) < m_header.mapLength)) {
            return fail(u"chMapCheck: invalid chunk size");
          }
        }
      }
      if (entry.address < 1) {
        // No place on disk and no handle: its data exists nowhere.
        if (free || m_loadedByKey.count({entry.type, entry.id}) == 0) return fail(u"chMapCheck: was never enumerated");
        continue;
      }
      if (entry.address < start || entry.address >= end || entry.address % step != 0) {
        return fail(u"chMapCheck: invalid address");
      }
      slots.push_back({entry.address, free ? static_cast<int64_t>(entry.id) : -1, free ? 0 : entry.slack});
    }
    i += 1 + static_cast<int>(head.id);
  }
  for (const ExtentSpec& extent : m_pending) slots.push_back({extent.address, extent.length, 0});
  if (!mapListed && m_header.mapLength != 0) slots.push_back({static_cast<int64_t>(m_header.mapAddress), -1, 0});

  std::sort(slots.begin(), slots.end(), [](const SlotSpec& a, const SlotSpec& b) { return a.address < b.address; });
  if (slots.empty() ? end != start : slots.front().address != start) {
    return fail(u"chMapCheck: can't find starting map entry");
  }
  for (size_t k = 0; k < slots.size(); ++k) {
    const SlotSpec& slot = slots[k];
    int64_t next = k + 1 < slots.size() ? slots[k + 1].address : end;
    if (next == slot.address) return fail(u"chMapCheck: already seen or not in list");
    if (next < slot.address) return fail(u"chMapCheck: went backwards somehow");
    int64_t length = next - slot.address;
    if (slot.freeLength >= 0) {
      if (slot.freeLength > end - slot.address) return fail(u"chMapCheck: came out beyond available space");
      if (slot.freeLength > length) return fail(u"chMapCheck: went backwards somehow");
      if (slot.freeLength < length) return fail(u"chMapCheck: impossible chunk size");
      continue;
    }
    if (slot.slack >= static_cast<uint64_t>(length) ||
        length - static_cast<int64_t>(slot.slack) < static_cast<int64_t>(m_chunkHdrSize)) {
      return fail(u"chMapCheck: invalid chunk size");
    }
    if (length - static_cast<int64_t>(slot.slack) - static_cast<int64_t>(m_chunkHdrSize) > 0x7FFFFFFF) {
      return fail(u"chMapCheck: impossible chunk size");
    }
  }

  if (!handles) return 0;
  if (m_loaded.size() != m_loadedByKey.size()) return fail(u"chMapCheck: wrong information");
  for (const auto& [key, memory] : m_loadedByKey) {
    auto it = m_loaded.find(memory);
    if (it == m_loaded.end() || it->second.handle.get() != memory || it->second.type != key.first ||
        it->second.id != key.second) {
      return fail(u"chMapCheck: wrong information");
    }
    const LoadedChunk& chunk = it->second;
    if (chunk.changed && !chunk.loaded) return fail(u"chMapCheck: nil handle or purged");
    bool found = false;
    FindEntry(chunk.type, chunk.id, &found);
    if (!found) return fail(u"chMapCheck: non-existent handle");
    if (chunk.loaded && !chunk.changed && chunk.handle->GetSize() != chunk.loadedSize) {
      return fail(u"chMapCheck: inconsistent handle size");
    }
  }
  return 0;
}
