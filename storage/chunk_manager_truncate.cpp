// A container rewritten compactly into a new file.
#include <new>
#include <vector>

#include "foundation/format_checked.h"
#include "foundation/log.h"
#include "storage/chunk_manager.h"
#include "storage/chunk_writer.h"

int ChunkManager::CHTruncate(TFile* target) {
  if (m_file == nullptr) return Refuse(u"CHTruncate");
  if (target == nullptr || target == m_file) {
    LogLineChecked(517, u"CHTruncate: no file to write to, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  TCHSequentialWriter writer(target, m_is0100, m_header.encryption, m_writeBase + 1);
  int status = writer.Begin();
  if (status != 0) return status;
  std::vector<unsigned char> stored;
  try {
    stored.reserve(1 << 16);
  } catch (const std::bad_alloc&) {
    LogLineChecked(517, u"CHTruncate: can't allocate move buffer");
    return kErrMemOutOfMemory;
  }
  for (int i = 0; i < m_mapCount; i += 1 + static_cast<int>(m_map[i].id)) {
    uint32_t type = m_map[i].type;
    if (type == kCHFreeType || type == kCHMapType) continue;
    for (int k = 1; k <= static_cast<int>(m_map[i].id); ++k) {
      const CHMapEntrySpec& entry = m_map[i + k];
      CHChunkHdrSpec header;
      const unsigned char* data = nullptr;
      auto known = m_loadedByKey.find({type, entry.id});
      bool fromHandle = known != m_loadedByKey.end() && (m_loaded[known->second].changed || entry.address < 1);
      if (fromHandle) {
        // Unsaved contents are encoded as a save would store them.
        std::vector<unsigned char> encrypted;
        status = EncodeStored(type, entry.id, known->second, &encrypted, &header);
        if (status != 0) return status;
        if (header.flags == 0) {
          data = static_cast<const unsigned char*>(known->second->MemPtr());
        } else {
          stored.swap(encrypted);
          data = stored.data();
        }
      } else {
        status = ReadStored(i + k, &stored, &header);
        if (status != 0) {
          LogLineChecked(517, u"CHTruncate: can't find first chunk map index");
          return status;
        }
        data = stored.data() + m_chunkHdrSize;
      }
      status = writer.AddChunk(header, data);
      if (status != 0) return status;
    }
  }
  status = writer.Finish(0);
  if (status != 0 && m_is0100) LogLineChecked(517, u"CHTruncate: can't convert to 0100 map, %E", status);
  return status;
}
