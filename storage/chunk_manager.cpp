// Opening and closing a container, the loaded-chunk table and the
// operations on chunks.
#include "storage/chunk_manager.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "foundation/format_checked.h"
#include "foundation/hooks.h"
#include "foundation/log.h"

namespace {

// Data past this cannot be held in a handle with its header.
constexpr uint64_t kMaxChunkData = 0x7FFFFFFFull - 64;

// Types a caller may change or load: the map's own group is the manager's.
bool IsPublicType(int type) { return type >= 0 && static_cast<uint32_t>(type) != kCHMapType; }
// Types the enumeration shows: every group but the free one (whose type is
// negative as an int), the map's own included.
bool IsListedType(int type) { return type >= 0; }

}  // namespace

ChunkManager::ChunkManager() = default;

ChunkManager::ChunkManager(TFile* file) { CHOpenRef(file); }

ChunkManager::ChunkManager(TFileLoc* loc, int mode) { CHOpen(loc, mode); }

ChunkManager::~ChunkManager() { CHClose(); }

void ChunkManager::Reset() {
  m_file = nullptr;
  m_ownedFile.reset();
  m_dirty = false;
  m_createdNew = false;
  m_locked = false;
  m_markerOnDisk = false;
  m_mapDamaged = false;
  m_physicalLength = 0;
  m_mapCount = 0;
  m_map.clear();
  m_addresses.clear();
  m_savedSlots.clear();
  m_pending.clear();
  m_loaded.clear();
  m_loadedByKey.clear();
  m_header = {};
  m_savedHeader = {};
  m_is0100 = false;
  m_bigEndian = false;
  m_chunkHdrSize = kCHChunkHdrSize;
  m_generation = 0;
  m_writeBase = 0;
}

int ChunkManager::CHOpen(TFileLoc* loc, int mode) {
  CHClose();
  if (loc == nullptr || mode < kFileOpenRead || mode > kFileOpenCreateNew) {
    LogLineChecked(517, u"CHOpen: bad location or mode, %E", kErrBadParameter);
    return m_openStatus = kErrBadParameter;
  }
  auto file = std::make_unique<TFile>();
  int status = file->Open(*loc, static_cast<TFileOpenMode>(mode));
  if (status != 0) {
    LogLineChecked(517, u"chDoOpen: memory allocation or file access failed, %E", status);
    return m_openStatus = status;
  }
  status = CHOpenRef(file.get());
  if (status != 0) return status;
  m_ownedFile = std::move(file);
  return 0;
}

int ChunkManager::CHOpenRef(TFile* file) {
  CHClose();
  if (file == nullptr || !file->IsOpen()) {
    LogLineChecked(517, u"chDoOpen: memory allocation or file access failed, %E", kErrBadParameter);
    return m_openStatus = kErrBadParameter;
  }
  m_file = file;
  int status = DoOpen();
  m_openStatus = status;
  if (status != 0) Reset();
  return status;
}

int ChunkManager::DoOpen() {
  uint64_t length = 0;
  int status = m_file->GetLength(&length);
  if (status != 0) {
    LogLineChecked(517, u"chDoOpen: can't read from file, %E", status);
    return kErrCHUnreadable;
  }
  m_physicalLength = length;
  bool locked = false;
  if (m_file->GetLoc().IsValid() && m_file->GetLoc().IsWriteLocked(&locked) == 0) m_locked = locked;
  if (length == 0) {
    if (!m_file->IsWritable()) {
      LogLineChecked(517, u"chDoOpen: can't read from file, %E", kErrEndOfFile);
      return kErrCHUnreadable;
    }
    CHNewFileHeader(&m_header);
    m_savedHeader = m_header;
    m_savedHeader.unsaved = 0;
    m_header.unsaved = 0;
    m_createdNew = true;
    m_dirty = true;
    return 0;
  }
  unsigned char bytes[kCHFileHeaderSize];
  uint32_t count = kCHFileHeaderSize;
  status = m_file->ReadAt(0, bytes, &count);
  if (status == kErrEndOfFile) {
    LogLineChecked(517, u"chDoOpen: invalid file, %E", status);
    return kErrCHUnreadable;
  }
  if (status != 0) {
    LogLineChecked(517, u"chDoOpen: can't read from file, %E", status);
    return kErrCHUnreadable;
  }
  status = CHDecodeFileHeader(bytes, &m_header, &m_bigEndian);
  if (status != 0) {
    LogLineChecked(517, u"chDoOpen: invalid file, %E", status);
    return kErrCHInvalid;
  }
  m_is0100 = m_header.writer == kCHVersion0100;
  m_chunkHdrSize = CHChunkHdrSizeOf(m_is0100);
  if (m_header.unsaved != 0) {
    LogLineChecked(517, u"chDoOpen: file was not fully saved");
    return kErrCHNotSaved;
  }
  m_savedHeader = m_header;
  return ReadMap();
}

int ChunkManager::ReadMap() {
  m_mapCount = 0;
  m_map.clear();
  m_generation = 0;
  if (m_header.mapLength >= kCHMapLengthLimit) {
    Debug("chunkmanager", 160, 0);
    LogLineChecked(517, u"chReadMap: bad map");
    return kErrCHBadMap;
  }
  if (m_header.mapLength == 0) {
    RebuildIndexes();
    return 0;
  }
  size_t entrySize = CHMapEntrySizeOf(m_is0100);
  if (m_header.mapLength < m_chunkHdrSize || m_header.mapAddress > m_physicalLength ||
      m_header.mapLength > m_physicalLength - m_header.mapAddress) {
    LogLineChecked(517, u"chReadMap: bad map");
    return kErrCHBadMap;
  }
  std::vector<unsigned char> raw;
  try {
    raw.resize(m_header.mapLength);
  } catch (const std::bad_alloc&) {
    LogLine(517, m_is0100 ? u"chReadMap: not enough memory for 0100 map" : u"chReadMap: not enough memory");
    return kErrMemOutOfMemory;
  }
  uint32_t count = static_cast<uint32_t>(raw.size());
  int status = m_file->ReadAt(m_header.mapAddress, raw.data(), &count);
  if (status != 0) {
    LogLineChecked(517, u"chReadMap: bad map");
    return kErrCHBadMap;
  }
  CHChunkHdrSpec header;
  uint64_t entriesBytes = m_header.mapLength - m_chunkHdrSize;
  if (!CHDecodeChunkHeader(raw.data(), m_is0100, m_bigEndian, kCHMapType, &header) || header.length > entriesBytes ||
      CHChecksum(raw.data() + m_chunkHdrSize, header.length) != header.checksum) {
    LogLineChecked(517, u"chReadMap: bad map");
    return kErrCHBadMap;
  }
  size_t entries = entriesBytes / entrySize;
  try {
    m_map.resize(entries + 10);
  } catch (const std::bad_alloc&) {
    LogLine(517, m_is0100 ? u"chReadMap: not enough memory for converted map" : u"chReadMap: not enough memory");
    return kErrMemOutOfMemory;
  }
  CHDecodeMapEntries(raw.data() + m_chunkHdrSize, entries, m_is0100, m_bigEndian, m_map.data());
  m_mapCount = static_cast<int32_t>(entries);
  m_generation = header.generation;
  m_writeBase = std::max(m_writeBase, m_generation);
  // The lookups walk the groups by their counts; a map whose counts do not
  // add up is refused rather than walked.
  for (int i = 0; i < m_mapCount;) {
    const CHMapEntrySpec& head = m_map[i];
    if (head.address != kCHGroupHeadAddress || head.id == 0 ||
        head.id > static_cast<uint64_t>(m_mapCount - i - 1)) {
      LogLineChecked(517, u"chReadMap: bad map");
      m_mapCount = 0;
      return kErrCHBadMap;
    }
    for (uint64_t k = 1; k <= head.id; ++k) {
      if (m_map[i + k].type != head.type) {
        LogLineChecked(517, u"chReadMap: bad map");
        m_mapCount = 0;
        return kErrCHBadMap;
      }
    }
    i += 1 + static_cast<int>(head.id);
  }
  RebuildIndexes();
  m_mapDamaged = MapCheck(true, false) != 0;
  return 0;
}

void ChunkManager::RebuildIndexes() {
  m_addresses.clear();
  m_savedSlots.clear();
  m_pending.clear();
  for (int i = 0; i < m_mapCount; ++i) {
    const CHMapEntrySpec& entry = m_map[i];
    if (entry.address < 1) continue;
    m_addresses.insert(entry.address);
    if (entry.type != kCHFreeType) m_savedSlots.insert(entry.address);
  }
  // The map's slot is part of the saved state even in a map that does not
  // list it.
  if (m_header.mapLength != 0) {
    m_savedSlots.insert(static_cast<int64_t>(m_header.mapAddress));
    m_addresses.insert(static_cast<int64_t>(m_header.mapAddress));
  }
}

int ChunkManager::CHClose() {
  if (m_file == nullptr) return 0;
  int status = 0;
  if (m_markerOnDisk && m_file->IsWritable()) status = ClearMarker();
  int closed = m_ownedFile ? m_ownedFile->Close() : 0;
  Reset();
  return status != 0 ? status : closed;
}

int ChunkManager::Refuse(const char16_t* operation) {
  if (m_file == nullptr) {
    TString name(operation);
    LogLineChecked(517, u"%s: container is not open, %E", &name, kErrNotPossible);
    return kErrNotPossible;
  }
  TString name(operation);
  LogLineChecked(517, u"%s: map is damaged, %E", &name, kErrCHBadMap);
  return kErrCHBadMap;
}

int ChunkManager::CHSetLoad(int load) {
  int previous = m_load;
  m_load = load;
  return previous;
}

void ChunkManager::CHSetEncryptConfigs(int encrypt) {
  uint32_t marker = encrypt != 0 ? kCHEncryptionMarker : 0;
  if (m_header.encryption == marker) return;
  m_header.encryption = marker;
  m_dirty = true;
}

void ChunkManager::CHSetConfigPassword(const TString& password) { m_configPassword = password; }

int ChunkManager::CHCountTypes() {
  int types = 0;
  for (int i = 0; i < m_mapCount; i += 1 + static_cast<int>(m_map[i].id)) {
    if (IsListedType(static_cast<int>(m_map[i].type))) ++types;
  }
  return types;
}

int ChunkManager::CHEnumType(int index) {
  if (index < 1) return 0;
  int seen = 0;
  for (int i = 0; i < m_mapCount; i += 1 + static_cast<int>(m_map[i].id)) {
    if (IsListedType(static_cast<int>(m_map[i].type)) && ++seen == index) return static_cast<int>(m_map[i].type);
  }
  return 0;
}

int ChunkManager::CHCountChunks(int type) {
  if (!IsListedType(type)) return 0;
  bool found = false;
  int head = GroupHead(static_cast<uint32_t>(type), &found);
  return found ? static_cast<int>(m_map[head].id) : 0;
}

int ChunkManager::CHEnumChunk(int type, int index) {
  if (!IsListedType(type)) return 0;
  bool found = false;
  int head = GroupHead(static_cast<uint32_t>(type), &found);
  if (!found || index < 1 || static_cast<uint64_t>(index) > m_map[head].id) return 0;
  return static_cast<int>(static_cast<uint32_t>(m_map[head + index].id));
}

int ChunkManager::CHFindChunk(int type, int id) {
  if (!IsListedType(type)) return 0;
  bool found = false;
  FindEntry(static_cast<uint32_t>(type), static_cast<uint64_t>(static_cast<uint32_t>(id)), &found);
  return found ? 1 : 0;
}

int ChunkManager::CHUniqueID(int type, int hint) {
  if (!IsPublicType(type)) return 0;
  auto used = [this, type](int64_t id) {
    bool found = false;
    FindEntry(static_cast<uint32_t>(type), static_cast<uint64_t>(id), &found);
    return found;
  };
  if (hint >= 1 && !used(hint)) return hint;
  bool haveGroup = false;
  int head = GroupHead(static_cast<uint32_t>(type), &haveGroup);
  if (!haveGroup) return 1;
  uint64_t largest = m_map[head + static_cast<int>(m_map[head].id)].id;
  if (largest < 0x7FFFFFFF) return static_cast<int>(largest + 1);
  // The top is taken: the first gap from 1.
  uint64_t expect = 1;
  for (uint64_t k = 1; k <= m_map[head].id; ++k) {
    uint64_t id = m_map[head + static_cast<int>(k)].id;
    if (id < expect) continue;
    if (id > expect) break;
    ++expect;
  }
  return expect <= 0x7FFFFFFF ? static_cast<int>(expect) : 0;
}

int64_t ChunkManager::CHChunkSize(int type, int id) {
  bool found = false;
  int index = IsListedType(type) ? FindEntry(static_cast<uint32_t>(type), static_cast<uint32_t>(id), &found) : 0;
  if (!found) {
    LogLineChecked(517, u"CHChunkSize: can't find type/id");
    return kErrNotFound;
  }
  auto loaded = m_loadedByKey.find({static_cast<uint32_t>(type), static_cast<uint32_t>(id)});
  if (loaded != m_loadedByKey.end()) {
    const LoadedChunk& chunk = m_loaded[loaded->second];
    if (chunk.changed || m_map[index].address < 1) return chunk.handle->GetSize();
  }
  return std::max<int64_t>(0, StoredLength(index) - static_cast<int64_t>(m_chunkHdrSize));
}

int ChunkManager::CHPhysInfo(int type, int id, int64_t* address, int64_t* length) {
  bool found = false;
  int index = IsListedType(type) ? FindEntry(static_cast<uint32_t>(type), static_cast<uint32_t>(id), &found) : 0;
  if (!found) {
    LogLineChecked(517, u"CHPhysInfo: can't find type/id");
    return kErrNotFound;
  }
  auto loaded = m_loadedByKey.find({static_cast<uint32_t>(type), static_cast<uint32_t>(id)});
  if ((loaded != m_loadedByKey.end() && m_loaded[loaded->second].changed) || m_map[index].address < 1) {
    LogLineChecked(517, u"CHPhysInfo: chunk is dirty");
    return kErrNotPossible;
  }
  if (address != nullptr) *address = m_map[index].address;
  if (length != nullptr) *length = SlotLengthAt(m_map[index].address);
  return 0;
}

ChunkManager::LoadedChunk* ChunkManager::FindLoaded(TMemory* handle) {
  auto it = m_loaded.find(handle);
  return it == m_loaded.end() ? nullptr : &it->second;
}

int ChunkManager::CHGetChunk(int type, int id, TMemory** handle, int load) {
  if (handle == nullptr) {
    LogLineChecked(517, u"chDoGetChunk: no place for the handle, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  *handle = nullptr;
  if (m_file == nullptr) return Refuse(u"chDoGetChunk");
  bool found = false;
  int index = IsPublicType(type) ? FindEntry(static_cast<uint32_t>(type), static_cast<uint32_t>(id), &found) : 0;
  if (!found) {
    LogLineChecked(517, u"chDoGetChunk: can't find type/id, %E", kErrNotFound);
    return kErrNotFound;
  }
  bool wantData = load < 0 ? m_load != 0 : load != 0;
  ChunkKey key{static_cast<uint32_t>(type), static_cast<uint32_t>(id)};
  auto known = m_loadedByKey.find(key);
  if (known != m_loadedByKey.end()) {
    LoadedChunk& chunk = m_loaded[known->second];
    if (wantData && !chunk.loaded) {
      int status = ReadChunk(index, chunk.handle.get());
      if (status != 0) return status;
      chunk.loaded = true;
      chunk.loadedSize = chunk.handle->GetSize();
    }
    *handle = known->second;
    return 0;
  }
  auto memory = std::make_unique<TMemory>();
  if (wantData) {
    int status = ReadChunk(index, memory.get());
    if (status != 0) return status;
  }
  TMemory* raw = memory.get();
  try {
    LoadedChunk& chunk = m_loaded[raw];
    chunk.handle = std::move(memory);
    chunk.type = key.first;
    chunk.id = key.second;
    chunk.loaded = wantData;
    chunk.loadedSize = raw->GetSize();
    m_loadedByKey[key] = raw;
  } catch (const std::bad_alloc&) {
    m_loaded.erase(raw);
    LogLineChecked(517, u"chAddHandle: not enough memory, %E", kErrMemOutOfMemory);
    return kErrMemOutOfMemory;
  }
  *handle = raw;
  return 0;
}

int ChunkManager::CHAddChunk(TMemory* handle, int type, int id) {
  if (m_file == nullptr) return Refuse(u"CHAddChunk");
  if (handle != nullptr && handle->GetSize() > kMaxChunkData) {
    LogLineChecked(517, u"CHAddChunk: invalid handle size, %~d", static_cast<int>(handle->GetSize()));
    return kErrBadParameter;
  }
  if (handle == nullptr || !IsPublicType(type) || FindLoaded(handle) != nullptr) {
    LogLineChecked(517, u"CHAddChunk: invalid type %Y or handle already refers to a chunk", type);
    return kErrBadParameter;
  }
  if (m_mapDamaged) return Refuse(u"CHAddChunk");
  return AddLoaded(static_cast<uint32_t>(type), static_cast<uint32_t>(id), handle);
}

int ChunkManager::AddLoaded(uint32_t type, uint64_t id, TMemory* handle) {
  CHMapEntrySpec entry{};
  entry.type = type;
  entry.id = id;
  int status = InsertEntry(entry);
  if (status != 0) return status;
  try {
    LoadedChunk& chunk = m_loaded[handle];
    chunk.handle.reset(handle);
    chunk.type = type;
    chunk.id = id;
    chunk.changed = true;
    chunk.loaded = true;
    chunk.loadedSize = handle->GetSize();
    m_loadedByKey[{type, id}] = handle;
  } catch (const std::bad_alloc&) {
    auto it = m_loaded.find(handle);
    if (it != m_loaded.end()) {
      it->second.handle.release();  // still the caller's
      m_loaded.erase(it);
    }
    bool found = false;
    DeleteEntry(FindEntry(type, id, &found));
    LogLineChecked(517, u"chAddHandle: not enough memory, %E", kErrMemOutOfMemory);
    return kErrMemOutOfMemory;
  }
  return 0;
}

int ChunkManager::CHChangedChunk(TMemory* handle) {
  LoadedChunk* chunk = FindLoaded(handle);
  if (chunk == nullptr) {
    LogLineChecked(517, u"CHChangedChunk: handle doesn't refer to a chunk");
    return kErrInvalidHandle;
  }
  if (m_mapDamaged) return Refuse(u"CHChangedChunk");
  chunk->changed = true;
  chunk->loaded = true;
  m_dirty = true;
  return 0;
}

int ChunkManager::CHStoreChunk(TMemory* handle) {
  LoadedChunk* chunk = FindLoaded(handle);
  if (chunk == nullptr) {
    LogLineChecked(517, u"CHStoreChunk: handle doesn't refer to a chunk");
    return kErrInvalidHandle;
  }
  if (m_mapDamaged) return Refuse(u"CHStoreChunk");
  int status = WriteChunk(chunk);
  if (status == 0) status = FlushBatch();
  if (status != 0) return status;
  chunk->changed = false;
  chunk->loaded = true;
  chunk->loadedSize = handle->GetSize();
  return 0;
}

int ChunkManager::CHLoadChunk(TMemory* handle) {
  LoadedChunk* chunk = FindLoaded(handle);
  if (chunk == nullptr) {
    LogLineChecked(517, u"CHLoadChunk: handle doesn't refer to a chunk, %E", kErrInvalidHandle);
    return kErrInvalidHandle;
  }
  bool found = false;
  int index = FindEntry(chunk->type, chunk->id, &found);
  if (!found || m_map[index].address < 1) {
    LogLineChecked(517, u"CHLoadChunk: chunk has no stored data, %E", kErrNotPossible);
    return kErrNotPossible;
  }
  int status = ReadChunk(index, handle);
  if (status != 0) return status;
  chunk->loaded = true;
  chunk->changed = false;
  chunk->loadedSize = handle->GetSize();
  return 0;
}

int ChunkManager::CHDetachChunk(TMemory* handle) {
  LoadedChunk* chunk = FindLoaded(handle);
  if (chunk == nullptr) {
    LogLineChecked(517, u"CHDetachChunk: handle doesn't refer to a chunk, %E", kErrInvalidHandle);
    return kErrInvalidHandle;
  }
  // A changed chunk is written first: its data would otherwise leave with
  // the handle.
  if (chunk->changed) {
    int status = CHStoreChunk(handle);
    if (status != 0) return status;
  }
  m_loadedByKey.erase({chunk->type, chunk->id});
  chunk->handle.release();
  m_loaded.erase(handle);
  return 0;
}

int ChunkManager::CHRemoveChunk(TMemory* handle) {
  LoadedChunk* chunk = FindLoaded(handle);
  if (chunk == nullptr) {
    LogLineChecked(517, u"CHRemoveChunk: handle doesn't refer to a chunk");
    return kErrInvalidHandle;
  }
  if (m_mapDamaged) return Refuse(u"CHRemoveChunk");
  bool found = false;
  int index = FindEntry(chunk->type, chunk->id, &found);
  if (found) {
    int status = FreeSlot(index);
    if (status != 0) return status;
    index = FindEntry(chunk->type, chunk->id, &found);
    DeleteEntry(index);
  }
  m_loadedByKey.erase({chunk->type, chunk->id});
  chunk->handle.release();
  m_loaded.erase(handle);
  m_dirty = true;
  return 0;
}

int ChunkManager::CHGetInfo(TMemory* handle, int* type, int* id) {
  LoadedChunk* chunk = FindLoaded(handle);
  if (chunk == nullptr) {
    LogLineChecked(517, u"CHGetInfo: handle doesn't refer to a chunk, %E", kErrInvalidHandle);
    return kErrInvalidHandle;
  }
  if (type != nullptr) *type = static_cast<int>(chunk->type);
  if (id != nullptr) *id = static_cast<int>(static_cast<uint32_t>(chunk->id));
  return 0;
}

int ChunkManager::CHSetInfo(TMemory* handle, int type, int id) {
  if (type < 0) {
    LogLineChecked(517, u"CHSetInfo: can't set negative type, %Y", type);
    return kErrBadParameter;
  }
  LoadedChunk* chunk = FindLoaded(handle);
  if (chunk == nullptr) {
    LogLineChecked(517, u"CHSetInfo: handle doesn't refer to a chunk");
    return kErrInvalidHandle;
  }
  if (!IsPublicType(type)) {
    LogLineChecked(517, u"CHSetInfo: reserved type, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  if (m_mapDamaged) return Refuse(u"CHSetInfo");
  ChunkKey from{chunk->type, chunk->id};
  ChunkKey to{static_cast<uint32_t>(type), static_cast<uint32_t>(id)};
  if (from == to) return 0;
  // The stored copy names the old type and id, so the chunk is written
  // again under its new name.
  if (!chunk->loaded) {
    int status = CHLoadChunk(handle);
    if (status != 0) return status;
  }
  CHMapEntrySpec entry{};
  entry.type = to.first;
  entry.id = to.second;
  int status = InsertEntry(entry);
  if (status != 0) return status;
  bool found = false;
  int index = FindEntry(from.first, from.second, &found);
  if (found) {
    status = FreeSlot(index);
    if (status != 0) return status;
    DeleteEntry(FindEntry(from.first, from.second, &found));
  }
  m_loadedByKey.erase(from);
  m_loadedByKey[to] = handle;
  chunk->type = to.first;
  chunk->id = to.second;
  chunk->changed = true;
  chunk->loaded = true;
  return 0;
}

int ChunkManager::CHDuplicate(int type, int id, int newId) {
  if (m_file == nullptr) return Refuse(u"CHDuplicate");
  bool found = false;
  int index = IsPublicType(type) ? FindEntry(static_cast<uint32_t>(type), static_cast<uint32_t>(id), &found) : 0;
  if (!found) {
    LogLineChecked(517, u"CHDuplicate: can't find type/id, %E", kErrNotFound);
    return kErrNotFound;
  }
  auto copy = std::make_unique<TMemory>();
  auto known = m_loadedByKey.find({static_cast<uint32_t>(type), static_cast<uint32_t>(id)});
  int status = 0;
  if (known != m_loadedByKey.end() && m_loaded[known->second].loaded) {
    *copy = *known->second;
    status = copy->CheckError();
  } else {
    status = ReadChunk(index, copy.get());
  }
  if (status != 0) {
    LogLineChecked(517, u"CHDuplicate: can't copy the chunk, %E", status);
    return status;
  }
  TMemory* raw = copy.release();
  status = CHAddChunk(raw, type, newId);
  if (status != 0) delete raw;
  return status;
}
