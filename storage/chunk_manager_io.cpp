// Reading and writing chunks, saving and reverting.
#include <algorithm>
#include <cstring>
#include <new>

#include "foundation/format_checked.h"
#include "foundation/hooks.h"
#include "foundation/log.h"
#include "storage/chunk_cipher.h"
#include "storage/chunk_manager.h"

namespace {

constexpr size_t kBatchLimit = 4u << 20;

}  // namespace

int ChunkManager::WriteAtChecked(uint64_t offset, const void* data, uint64_t length, const char16_t* operation) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  while (length > 0) {
    uint32_t count = length > 0x40000000u ? 0x40000000u : static_cast<uint32_t>(length);
    uint32_t asked = count;
    int status = m_file->WriteAt(offset, bytes, &count);
    if (status == 0 && count != asked) status = kErrWriteFault;
    if (status != 0) {
      TString name(operation);
      LogLineChecked(517, u"%s: write failed, %E", &name, status);
      return status;
    }
    offset += count;
    bytes += count;
    length -= count;
  }
  return 0;
}

int ChunkManager::SyncIfDurable() {
  if ((m_saveFlags & kCHSaveNoSync) != 0) return 0;
  int status = m_file->Sync();
  if (status != 0) LogLineChecked(517, u"CHSave: sync failed, %E", status);
  return status;
}

int ChunkManager::MarkUnsaved() {
  if (m_markerOnDisk) return 0;
  if (!m_file->IsWritable()) {
    LogLineChecked(517, u"CHSave: file is read only, %E", kErrWriteProtected);
    return kErrWriteProtected;
  }
  // The saved header with the marker: nothing else on disk changes yet.
  CHFileHeaderSpec marked = m_savedHeader;
  marked.unsaved = kCHUnsavedMarker;
  unsigned char bytes[kCHFileHeaderSize];
  CHEncodeFileHeader(marked, bytes);
  int status = WriteAtChecked(0, bytes, sizeof(bytes), u"CHSave");
  if (status == 0) status = SyncIfDurable();
  if (status != 0) return status;
  m_markerOnDisk = true;
  if (m_physicalLength < kCHFileHeaderSize) m_physicalLength = kCHFileHeaderSize;
  return 0;
}

int ChunkManager::ClearMarker() {
  // The saved header again, in two steps so that a torn write leaves the
  // marker set rather than a header of two minds.
  CHFileHeaderSpec marked = m_savedHeader;
  marked.unsaved = kCHUnsavedMarker;
  unsigned char bytes[kCHFileHeaderSize];
  CHEncodeFileHeader(marked, bytes);
  int status = WriteAtChecked(0, bytes, sizeof(bytes), u"CHSave");
  if (status == 0) status = SyncIfDurable();
  const unsigned char zero[4] = {0, 0, 0, 0};
  if (status == 0) status = WriteAtChecked(32, zero, sizeof(zero), u"CHSave");
  if (status == 0) status = SyncIfDurable();
  if (status == 0) m_markerOnDisk = false;
  return status;
}

int ChunkManager::EncodeStored(uint32_t type, uint64_t id, TMemory* handle, std::vector<unsigned char>* stored,
                               CHChunkHdrSpec* header) {
  std::memset(header, 0, sizeof(*header));
  header->type = type;
  header->id = id;
  header->generation = m_writeBase + 1;
  const unsigned char* data = static_cast<const unsigned char*>(handle->MemPtr());
  uint32_t size = handle->GetSize();
  stored->clear();
  if (m_header.encryption != kCHEncryptionMarker || !CHIsConfigType(type)) {
    header->length = size;
    header->checksum = CHChecksum(data, size);
    return 0;
  }
  if (m_configPassword.IsEmpty()) {
    LogLineChecked(515, u"ChunkManager::chWriteChunk: encryption is required but password is invalid");
    return kErrEncryption;
  }
  int status = CHEncryptConfig(m_configPassword, type, id, data, size, stored);
  if (status != 0) {
    LogLineChecked(515, u"ChunkManager::chWriteChunk: Configs can not be encrypted");
    return status;
  }
  LogLineChecked(516, u"ChunkManager::chWriteChunk: initial data size %ld, encrypted size %ld, cipherAdjustment %ld",
          static_cast<int64_t>(size), static_cast<int64_t>(stored->size()),
          static_cast<int64_t>(stored->size()) - static_cast<int64_t>(size));
  header->length = stored->size();
  header->flags = kCHFlagEncrypted;
  header->checksum = CHEncryptedChecksum(type, id, stored->data(), stored->size());
  return 0;
}

int ChunkManager::FlushBatch() {
  if (m_batch.empty()) return 0;
  int status = WriteAtChecked(m_batchStart, m_batch.data(), m_batch.size(), u"chWriteChunk");
  if (status == 0) m_physicalLength = std::max<uint64_t>(m_physicalLength, m_batchStart + m_batch.size());
  m_batch.clear();
  return status;
}

int ChunkManager::WriteChunk(LoadedChunk* chunk) {
  if (!m_file->IsWritable()) {
    LogLineChecked(517, u"chWriteChunk: file is read only, %E", kErrWriteProtected);
    return kErrWriteProtected;
  }
  std::vector<unsigned char> encrypted;
  CHChunkHdrSpec header;
  int status = EncodeStored(chunk->type, chunk->id, chunk->handle.get(), &encrypted, &header);
  if (status != 0) return status;
  status = MarkUnsaved();
  if (status != 0) return status;
  int64_t need = static_cast<int64_t>(m_chunkHdrSize + header.length);
  status = AllocateSlot(chunk->type, chunk->id, need);
  if (status != 0) return status;
  bool found = false;
  const CHMapEntrySpec& entry = m_map[FindEntry(chunk->type, chunk->id, &found)];
  uint64_t address = static_cast<uint64_t>(entry.address);
  uint64_t slot = static_cast<uint64_t>(SlotLengthAt(entry.address));
  if (!m_batch.empty() && (m_batchStart + m_batch.size() != address || m_batch.size() + slot > kBatchLimit)) {
    status = FlushBatch();
    if (status != 0) return status;
  }
  if (m_batch.empty()) m_batchStart = address;
  const unsigned char* data =
      encrypted.empty() && header.flags == 0 ? static_cast<const unsigned char*>(chunk->handle->MemPtr()) : encrypted.data();
  try {
    size_t at = m_batch.size();
    // The whole slot, so that the next one follows on; the slack is zeros.
    m_batch.resize(at + slot, 0);
    CHEncodeChunkHeader(header, m_is0100, m_batch.data() + at);
    if (header.length != 0) std::memcpy(m_batch.data() + at + m_chunkHdrSize, data, header.length);
  } catch (const std::bad_alloc&) {
    m_batch.clear();
    LogLineChecked(517, u"chWriteChunk: not enough memory, %E", kErrMemOutOfMemory);
    return kErrMemOutOfMemory;
  }
  if (m_batch.size() >= kBatchLimit) return FlushBatch();
  return 0;
}

int ChunkManager::ReadStored(int index, std::vector<unsigned char>* stored, CHChunkHdrSpec* header) {
  const CHMapEntrySpec& entry = m_map[index];
  int64_t length = StoredLength(index);
  if (entry.address < 1 || length < static_cast<int64_t>(m_chunkHdrSize) ||
      static_cast<uint64_t>(entry.address) > m_physicalLength ||
      static_cast<uint64_t>(length) > m_physicalLength - static_cast<uint64_t>(entry.address) ||
      static_cast<uint64_t>(length) > 0x7FFFFFFFull) {
    LogLineChecked(517, u"chDoGetChunk: chunk lies outside the file, %E", kErrFileCorrupt);
    return kErrFileCorrupt;
  }
  try {
    stored->resize(static_cast<size_t>(length));
  } catch (const std::bad_alloc&) {
    LogLineChecked(517, u"chDoGetChunk: not enough memory, %E", kErrMemOutOfMemory);
    return kErrMemOutOfMemory;
  }
  uint32_t count = static_cast<uint32_t>(length);
  int status = m_file->ReadAt(static_cast<uint64_t>(entry.address), stored->data(), &count);
  if (status != 0) {
    LogLineChecked(517, u"chDoGetChunk: can't read the chunk, %E", status);
    return status;
  }
  // A saved big-endian file keeps its older chunks in that order, so the
  // header is taken in whichever order names this chunk and verifies.
  uint64_t room = static_cast<uint64_t>(length) - m_chunkHdrSize;
  const unsigned char* data = stored->data() + m_chunkHdrSize;
  bool named = false;
  for (bool bigEndian : {m_bigEndian, !m_bigEndian}) {
    CHDecodeChunkHeader(stored->data(), m_is0100, bigEndian, 0, header);
    if (header->type != entry.type || header->id != entry.id || header->length > room) continue;
    named = true;
    uint32_t checksum = (header->flags & kCHFlagEncrypted) != 0
                            ? CHEncryptedChecksum(header->type, header->id, data, header->length)
                            : CHChecksum(data, header->length);
    if (checksum == header->checksum) return 0;
  }
  if (!named) {
    LogLineChecked(517, u"chDoGetChunk: chunk header does not match the map, %E", kErrFileCorrupt);
    return kErrFileCorrupt;
  }
  LogLineChecked(517, u"chDoGetChunk: checksum does not match, %E", kErrCrc);
  return kErrCrc;
}

int ChunkManager::ReadChunk(int index, TMemory* out) {
  std::vector<unsigned char> stored;
  CHChunkHdrSpec header;
  int status = ReadStored(index, &stored, &header);
  if (status != 0) return status;
  const unsigned char* data = stored.data() + m_chunkHdrSize;
  std::vector<unsigned char> plain;
  uint64_t size = header.length;
  if ((header.flags & kCHFlagEncrypted) != 0) {
    if (m_configPassword.IsEmpty()) {
      LogLineChecked(515, u"ChunkManager::chReadChunk: data is encrypted but password is invalid");
      return kErrEncryption;
    }
    LogLineChecked(516, u"ChunkManager::chReadChunk: amount to decrypt %ld", static_cast<int64_t>(header.length));
    status = CHDecryptConfig(m_configPassword, header.type, header.id, data, header.length, &plain);
    if (status != 0) {
      LogLineChecked(515, u"ChunkManager::chReadChunk: some config data could not be decrypted");
      return kErrEncryption;
    }
    data = plain.data();
    size = plain.size();
  }
  status = out->AllocBuffer(size);
  if (status != 0) {
    LogLineChecked(517, u"chDoGetChunk: not enough memory, %E", status);
    return status;
  }
  if (size != 0) std::memcpy(out->MemPtr(), data, size);
  return 0;
}

int ChunkManager::WriteMap() {
  bool found = false;
  FindEntry(kCHMapType, 0, &found);
  if (!found) {
    CHMapEntrySpec own{};
    own.type = kCHMapType;
    int status = InsertEntry(own);
    if (status != 0) return status;
  }
  size_t entrySize = CHMapEntrySizeOf(m_is0100);
  // Room for what placing the map and the pending extents may add.
  int64_t bound = m_mapCount + static_cast<int64_t>(m_pending.size()) + 4;
  int64_t need = static_cast<int64_t>(m_chunkHdrSize) + bound * static_cast<int64_t>(entrySize);
  int status = AllocateSlot(kCHMapType, 0, need);
  if (status != 0) return status;
  for (const ExtentSpec& extent : m_pending) {
    status = AddFreeExtent(extent.address, extent.length);
    if (status != 0) return status;
  }
  m_pending.clear();
  int index = FindEntry(kCHMapType, 0, &found);
  int64_t address = m_map[index].address;
  uint64_t dataBytes = static_cast<uint64_t>(m_mapCount) * entrySize;
  uint64_t length = m_chunkHdrSize + dataBytes;
  int64_t slot = SlotLengthAt(address);
  if (static_cast<int64_t>(length) > slot) {
    Debug("chunkmanager", 212, 0);
    return kErrCHBadMap;
  }
  m_map[index].slack = static_cast<uint64_t>(slot) - length;
  std::vector<unsigned char> bytes;
  try {
    bytes.resize(length);
  } catch (const std::bad_alloc&) {
    LogLine(517, m_is0100 ? u"chWriteMH: not enough memory to convert to 0100" : u"chWriteMH: not enough memory");
    return kErrMemOutOfMemory;
  }
  CHEncodeMapEntries(m_map.data(), static_cast<size_t>(m_mapCount), m_is0100, bytes.data() + m_chunkHdrSize);
  CHChunkHdrSpec header{};
  header.type = kCHMapType;
  header.length = dataBytes;
  header.generation = m_writeBase + 1;
  header.checksum = CHChecksum(bytes.data() + m_chunkHdrSize, dataBytes);
  CHEncodeChunkHeader(header, m_is0100, bytes.data());
  status = WriteAtChecked(static_cast<uint64_t>(address), bytes.data(), bytes.size(), u"chWriteMH");
  if (status != 0) return status;
  m_physicalLength = std::max<uint64_t>(m_physicalLength, static_cast<uint64_t>(address) + length);
  m_header.mapAddress = static_cast<uint64_t>(address);
  m_header.mapLength = length;
  return 0;
}

int ChunkManager::SaveSteps() {
  int status = MarkUnsaved();
  if (status != 0) return status;
  for (auto& [key, memory] : m_loadedByKey) {
    LoadedChunk& chunk = m_loaded[memory];
    if (!chunk.changed) continue;
    status = WriteChunk(&chunk);
    if (status != 0) {
      m_batch.clear();
      return status;
    }
  }
  status = FlushBatch();
  // The chunks are on disk before any map names them.
  if (status == 0) status = SyncIfDurable();
  if (status != 0) return status;
  bool empty = HoldsNoChunks();
  if (empty) {
    // A container without chunks has no map and no space: its tail is cut
    // once the header says so.
    m_mapCount = 0;
    m_addresses.clear();
    m_pending.clear();
    m_header.mapAddress = 0;
    m_header.mapLength = 0;
    m_header.endOfSpace = m_header.dataStart;
  } else {
    status = WriteMap();
  }
  if (status == 0 && !empty && m_physicalLength != m_header.endOfSpace) {
    status = m_file->SetLength(m_header.endOfSpace);
    if (status != 0) LogLineChecked(517, u"CHSave: can't set the file's end, %E", status);
    if (status == 0) m_physicalLength = m_header.endOfSpace;
  }
  if (status != 0) return status;
  // The new header with the marker still set, then the marker cleared on
  // its own: a torn header write can never pass for a finished save.
  CHFileHeaderSpec header = m_header;
  header.unsaved = kCHUnsavedMarker;
  unsigned char bytes[kCHFileHeaderSize];
  CHEncodeFileHeader(header, bytes);
  status = SyncIfDurable();
  if (status == 0) status = WriteAtChecked(0, bytes, sizeof(bytes), u"chWriteMH");
  if (status == 0) status = SyncIfDurable();
  const unsigned char zero[4] = {0, 0, 0, 0};
  if (status == 0) status = WriteAtChecked(32, zero, sizeof(zero), u"chWriteMH");
  if (status == 0) status = SyncIfDurable();
  if (status == 0 && empty && m_physicalLength != m_header.endOfSpace) {
    // The save stands even if the cut fails: the tail is free space then.
    if (m_file->SetLength(m_header.endOfSpace) == 0) {
      m_physicalLength = m_header.endOfSpace;
    } else {
      LogLineChecked(517, u"CHSave: can't set the file's end, %E", kErrWriteFault);
    }
  }
  return status;
}

bool ChunkManager::HoldsNoChunks() const {
  for (int i = 0; i < m_mapCount; i += 1 + static_cast<int>(m_map[i].id)) {
    if (m_map[i].type != kCHMapType && m_map[i].type != kCHFreeType) return false;
  }
  return true;
}

int ChunkManager::CHSave(int flags) {
  if (m_file == nullptr) return Refuse(u"CHSave");
  if (m_mapDamaged) return Refuse(u"CHSave");
  bool changed = std::any_of(m_loaded.begin(), m_loaded.end(), [](const auto& item) { return item.second.changed; });
  if (!m_dirty && !changed && !m_markerOnDisk) return 0;
  if (!m_file->IsWritable()) {
    LogLineChecked(517, u"CHSave: file is read only, %E", kErrWriteProtected);
    return kErrWriteProtected;
  }
  m_saveFlags = flags;
  // A failed save is undone in memory, so the saved slots stay out of the
  // free space until a save commits.
  std::vector<CHMapEntrySpec> map;
  std::set<int64_t> addresses;
  std::vector<ExtentSpec> pending;
  CHFileHeaderSpec header = m_header;
  int32_t count = m_mapCount;
  try {
    map.assign(m_map.begin(), m_map.begin() + m_mapCount);
    addresses = m_addresses;
    pending = m_pending;
  } catch (const std::bad_alloc&) {
    LogLineChecked(517, u"CHSave: not enough memory, %E", kErrMemOutOfMemory);
    return kErrMemOutOfMemory;
  }
  int status = SaveSteps();
  m_saveFlags = 0;
  if (status != 0) {
    // Back to the state before the save; the changed chunks stay changed
    // and are written again by the next attempt.
    std::copy(map.begin(), map.end(), m_map.begin());
    m_mapCount = count;
    m_addresses = std::move(addresses);
    m_pending = std::move(pending);
    m_header = header;
    m_batch.clear();
    return status;
  }
  m_header.unsaved = 0;
  m_savedHeader = m_header;
  m_markerOnDisk = false;
  m_bigEndian = false;  // the header and map are little-endian on disk now
  m_generation = m_writeBase + 1;
  m_writeBase = m_generation;
  m_dirty = false;
  m_createdNew = false;
  m_pending.clear();
  m_savedSlots.clear();
  for (int i = 0; i < m_mapCount; ++i) {
    if (m_map[i].address >= 1 && m_map[i].type != kCHFreeType) m_savedSlots.insert(m_map[i].address);
  }
  for (auto& item : m_loaded) {
    item.second.changed = false;
    item.second.loadedSize = item.second.handle->GetSize();
  }
  return 0;
}

int ChunkManager::CHRevert() {
  if (m_file == nullptr) return Refuse(u"CHRevert");
  int status = 0;
  if (m_markerOnDisk) {
    status = ClearMarker();
    m_writeBase += 1;
  }
  m_header = m_savedHeader;
  m_pending.clear();
  m_batch.clear();
  int read = ReadMap();
  if (read != 0) return read;
  m_dirty = m_createdNew;
  // Handles of chunks that exist in the saved state get their saved data;
  // the others go, as on closing.
  for (auto it = m_loadedByKey.begin(); it != m_loadedByKey.end();) {
    LoadedChunk& chunk = m_loaded[it->second];
    bool found = false;
    int index = FindEntry(chunk.type, chunk.id, &found);
    bool keep = found && m_map[index].address >= 1 && (!chunk.loaded || ReadChunk(index, chunk.handle.get()) == 0);
    if (keep) {
      chunk.changed = false;
      chunk.loadedSize = chunk.handle->GetSize();
      ++it;
      continue;
    }
    m_loaded.erase(it->second);
    it = m_loadedByKey.erase(it);
  }
  return status;
}
