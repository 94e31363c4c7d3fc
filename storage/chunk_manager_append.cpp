// A container added to another one.
#include <new>
#include <vector>

#include "foundation/format_checked.h"
#include "foundation/log.h"
#include "storage/chunk_manager.h"

int ChunkManager::CHAppend(TFile* target) {
  if (m_file == nullptr) return Refuse(u"CHAppend");
  if (target == nullptr || target == m_file) {
    LogLineChecked(517, u"CHAppend: no file to write to, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  ChunkManager other;
  int status = other.CHOpenRef(target);
  if (status != 0) return status;
  other.m_configPassword = m_configPassword;
  // Every name is checked before anything is added.
  for (int i = 0; i < m_mapCount; i += 1 + static_cast<int>(m_map[i].id)) {
    uint32_t type = m_map[i].type;
    if (type == kCHFreeType || type == kCHMapType) continue;
    for (int k = 1; k <= static_cast<int>(m_map[i].id); ++k) {
      bool found = false;
      other.FindEntry(type, m_map[i + k].id, &found);
      if (found) {
        LogLineChecked(517, u"CHAppend: duplicate ID, type %Y, id = %Y", static_cast<int>(type),
                       static_cast<int>(static_cast<uint32_t>(m_map[i + k].id)));
        return kErrCHDuplicate;
      }
    }
  }
  for (int i = 0; i < m_mapCount; i += 1 + static_cast<int>(m_map[i].id)) {
    uint32_t type = m_map[i].type;
    if (type == kCHFreeType || type == kCHMapType) continue;
    for (int k = 1; k <= static_cast<int>(m_map[i].id); ++k) {
      uint64_t id = m_map[i + k].id;
      std::unique_ptr<TMemory> copy;
      try {
        copy = std::make_unique<TMemory>();
      } catch (const std::bad_alloc&) {
        LogLineChecked(517, u"CHAppend: can't allocate move buffer");
        return kErrMemOutOfMemory;
      }
      auto known = m_loadedByKey.find({type, id});
      if (known != m_loadedByKey.end() && m_loaded[known->second].loaded) {
        *copy = *known->second;
        status = copy->CheckError();
      } else {
        status = ReadChunk(i + k, copy.get());
      }
      if (status != 0) {
        LogLineChecked(517, u"CHAppend: can't find map index for first chunk");
        return status;
      }
      status = other.AddLoaded(type, id, copy.get());
      if (status != 0) return status;
      copy.release();
    }
  }
  status = other.CHSave(0);
  if (status != 0 && other.m_is0100) LogLineChecked(517, u"CHAppend: can't convert to 0100 map, %E", status);
  return status;
}
