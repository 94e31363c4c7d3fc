// ChunkManager: the reader and writer of chunk container files.
//
// The manager opens one container (see chunk_format.h), keeps its map in
// memory and hands chunks out as TMemory handles:
//
//   ChunkManager cm;
//   cm.CHOpen(&loc, kFileOpenReadWriteCreate);
//   TMemory* data = new TMemory;           // fill it, then:
//   cm.CHAddChunk(data, type, cm.CHUniqueID(type, 1));   // cm owns `data` now
//   cm.CHSave(0);
//   TMemory* got = nullptr;
//   cm.CHGetChunk(type, id, &got, -1);     // owned by cm until detached
//
// Handles. Every handle in the loaded-chunk table belongs to the manager:
// CHGetChunk hands one out (the same handle again while the chunk stays
// loaded), CHAddChunk takes the caller's handle over. CHDetachChunk and
// CHRemoveChunk give the handle back to the caller, who then deletes it;
// CHClose deletes the handles still loaded. A handle the manager does not
// know is refused with its operation's message.
//
// Saving. Nothing reaches the file until a change must: CHSave, CHStoreChunk
// or a write of the file's tail. Before the first write after a save the
// header is written with the unsaved marker and put on stable storage; a
// save then writes the changed chunks, syncs, writes the map, writes the
// header with the new map (marker still set), syncs, and last clears the
// marker with a 4-byte write and syncs again. A file interrupted anywhere in
// between keeps the marker and is refused on opening (-645); CHRecover
// (chunk_recover.h) rebuilds a consistent container from it.
//
// Generations. A 0100 file stays 0100: the manager widens its map in memory
// and narrows it again when saving. New files are of the current one.
//
// Encrypted configuration chunks. With the encryption marker in the header,
// chunks of the two configuration types are stored encrypted under the
// configuration password (CHSetConfigPassword): AES-256-GCM under a key
// derived by PBKDF2-HMAC-SHA256 from the password and a random salt of the
// chunk's own, the chunk's type and id bound in as associated data. Reading
// decrypts every chunk whose flags say it is encrypted; a wrong password is
// an error, never garbage.
//
// Int arguments:
//   CHOpen(loc, mode): mode is a TFileOpenMode (0 read only, 1 read-write,
//     2 read-write made when missing, 3 made new).
//   CHSave(flags): 0 for a durable save; kCHSaveNoSync leaves the syncs out
//     (scratch files). The order of the writes is the same either way.
//   CHGetChunk(type, id, &handle, load): load 1 reads the data, 0 gives an
//     empty handle that CHLoadChunk fills later, -1 follows CHSetLoad.
//   CHSetLoad(load): the default for CHGetChunk (1 at first); answers the
//     previous setting.
//   CHUniqueID(type, hint): `hint` when it is at least 1 and unused, else one
//     past the largest id of the type, else the first unused id from 1.
//     Ids are 32-bit at this interface.
//
// Types and ids. Public types are non-negative 32-bit values. The map's own
// type (0x43684D70) is reserved: its slot is kept as an entry of that type
// (id 0) so that every byte from the data start to the end of space belongs
// to exactly one entry. The enumeration (CHCountTypes, CHEnumType,
// CHCountChunks, CHEnumChunk) and the look-ups (CHFindChunk, CHChunkSize,
// CHPhysInfo) show that group like any other once a save has written a map;
// only the free group is left out. Loading, adding, changing or removing a
// chunk of the map's type is refused: callers that read every listed chunk
// pass it by.
//
// Reuse of space. A slot given up since the last save (a chunk removed,
// moved or rewritten) becomes free space only after the next save has
// written its map: until then the saved map still points at it, and a crash
// before that save must find the old bytes there. The space a container
// gains back therefore shows one save later.
//
// Logging. Every failure writes one line at 517 ("<operation>: <what>",
// with %E for the code); the encryption lines go to 515 (failures) and 516
// (sizes).
//
// Not thread-safe: one thread at a time uses a manager.
#ifndef PLINTH_STORAGE_CHUNK_MANAGER_H_
#define PLINTH_STORAGE_CHUNK_MANAGER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "files/tfile.h"
#include "files/tfileloc.h"
#include "foundation/export.h"
#include "foundation/tmemory.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"
#include "storage/chunk_format.h"

constexpr int kCHSaveNoSync = 1;

class PLINTH_API ChunkManager : public TObject {
 public:
  ChunkManager();
  explicit ChunkManager(TFile* file);
  ChunkManager(TFileLoc* loc, int mode);
  ~ChunkManager();
  ChunkManager(const ChunkManager&) = delete;
  ChunkManager& operator=(const ChunkManager&) = delete;

  int CHOpen(TFileLoc* loc, int mode);
  // The caller keeps the file open for the manager's lifetime.
  int CHOpenRef(TFile* file);
  // Unsaved changes are dropped (the file keeps its last save).
  int CHClose();
  int CHSave(int flags);
  int CHRevert();
  int CHVerify();
  bool IsOpen() const { return m_file != nullptr; }
  // The status the last open failed with (0 after a good one).
  int GetOpenStatus() const { return m_openStatus; }

  int CHSetLoad(int load);
  void CHSetEncryptConfigs(int encrypt);
  // The password of the configuration chunks; empty means none.
  void CHSetConfigPassword(const TString& password);
  unsigned int CHGetChunkHdrSize() const { return static_cast<unsigned int>(m_chunkHdrSize); }
  TFile* CHRefnum() const { return m_file; }
  bool Is0100() const { return m_is0100; }
  bool IsBigEndian() const { return m_bigEndian; }
  bool IsDirty() const { return m_dirty; }
  const CHFileHeaderSpec& GetFileHeader() const { return m_header; }

  int CHCountTypes();
  int CHEnumType(int index);
  int CHCountChunks(int type);
  int CHEnumChunk(int type, int index);
  int CHFindChunk(int type, int id);
  int CHUniqueID(int type, int hint);
  int64_t CHChunkSize(int type, int id);
  int CHPhysInfo(int type, int id, int64_t* address, int64_t* length);

  int CHGetChunk(int type, int id, TMemory** handle, int load);
  int CHAddChunk(TMemory* handle, int type, int id);
  int CHChangedChunk(TMemory* handle);
  int CHStoreChunk(TMemory* handle);
  int CHLoadChunk(TMemory* handle);
  int CHDetachChunk(TMemory* handle);
  int CHRemoveChunk(TMemory* handle);
  int CHGetInfo(TMemory* handle, int* type, int* id);
  int CHSetInfo(TMemory* handle, int type, int id);
  // Copies the chunk (type, id) to (type, newId); written at the next save.
  int CHDuplicate(int type, int id, int newId);
  // Writes the container as it stands in memory, unsaved changes included,
  // into the empty file `target`, chunk after chunk from the data start and
  // without free space, in this file's generation. This file is unchanged.
  int CHTruncate(TFile* target);
  // Adds every chunk of this container, as it stands in memory, to the
  // container in `target` (empty files become new containers) and saves
  // it. A type and id present in both refuses the whole append with -646
  // before anything is written.
  int CHAppend(TFile* target);

  // Raw map access for checks and tools: the entries in host order.
  int GetMapCount() const { return m_mapCount; }
  const CHMapEntrySpec* GetMapEntries() const { return m_map.data(); }

 private:
  struct LoadedChunk {
    std::unique_ptr<TMemory> handle;
    uint32_t type = 0;
    uint64_t id = 0;
    bool changed = false;   // to be written at the next save
    bool loaded = false;    // holds the chunk's data
    uint32_t loadedSize = 0;
  };
  struct ExtentSpec {
    int64_t address;
    int64_t length;
  };
  using ChunkKey = std::pair<uint32_t, uint64_t>;

  void Reset();
  int DoOpen();
  int ReadMap();
  void RebuildIndexes();
  int Refuse(const char16_t* operation);

  // Map organisation (chunk_manager_map.cpp).
  int GroupHead(uint32_t type, bool* found) const;
  int FindEntry(uint32_t type, uint64_t id, bool* found) const;
  int InsertEntry(const CHMapEntrySpec& entry);
  void DeleteEntry(int index);
  int EnsureCapacity(int extra);
  int64_t SlotLengthAt(int64_t address) const;
  int64_t StoredLength(int index) const;
  // Space.
  int FreeSlot(int index);
  int AddFreeExtent(int64_t address, int64_t length);
  int AdoptTail();
  int FindSpace(int64_t need, bool take, int64_t* address, int64_t* granted);
  int AllocateSlot(uint32_t type, uint64_t id, int64_t need);

  // Transfers (chunk_manager_io.cpp).
  int MarkUnsaved();
  int WriteAtChecked(uint64_t offset, const void* data, uint64_t length, const char16_t* operation);
  int SyncIfDurable();
  int EncodeStored(uint32_t type, uint64_t id, TMemory* handle, std::vector<unsigned char>* stored,
                   CHChunkHdrSpec* header);
  int WriteChunk(LoadedChunk* chunk);
  int FlushBatch();
  int ReadStored(int index, std::vector<unsigned char>* stored, CHChunkHdrSpec* header);
  int ReadChunk(int index, TMemory* out);
  int WriteMap();
  int ClearMarker();
  int SaveSteps();
  bool HoldsNoChunks() const;
  // Enters a new chunk with its handle, which the manager owns on success
  // only.
  int AddLoaded(uint32_t type, uint64_t id, TMemory* handle);

  // Loaded-chunk table.
  LoadedChunk* FindLoaded(TMemory* handle);
  void DropLoaded(bool keepSaved);

  // Map check (chunk_manager_check.cpp).
  int MapCheck(bool quiet, bool handles) const;

  TFile* m_file = nullptr;
  std::unique_ptr<TFile> m_ownedFile;
  bool m_dirty = false;
  bool m_createdNew = false;
  bool m_locked = false;
  bool m_markerOnDisk = false;
  bool m_mapDamaged = false;
  uint64_t m_physicalLength = 0;
  int m_openStatus = 0;

  int32_t m_mapCount = 0;
  std::vector<CHMapEntrySpec> m_map;
  // Addresses of every slot and extent, pending ones included, for slot
  // lengths.
  std::set<int64_t> m_addresses;
  // Slots the last save's map refers to: never written over before the next
  // save commits, so the saved state survives any failure.
  std::set<int64_t> m_savedSlots;
  // Saved slots given up since the save; they become free extents once the
  // next save's map has been placed.
  std::vector<ExtentSpec> m_pending;
  std::unordered_map<TMemory*, LoadedChunk> m_loaded;
  std::map<ChunkKey, TMemory*> m_loadedByKey;

  CHFileHeaderSpec m_header{};
  CHFileHeaderSpec m_savedHeader{};  // as last written without the marker
  bool m_is0100 = false;
  bool m_bigEndian = false;
  size_t m_chunkHdrSize = kCHChunkHdrSize;
  uint64_t m_generation = 0;  // of the last save
  // Writes carry m_writeBase + 1; a revert after writes moves it on, so a
  // later save never shares a generation with chunks it dropped.
  uint64_t m_writeBase = 0;
  int m_saveFlags = 0;

  // Chunk writes of a save, gathered while their slots follow each other.
  std::vector<unsigned char> m_batch;
  uint64_t m_batchStart = 0;

  TString m_configPassword;
  int m_load = 1;
};

#endif  // PLINTH_STORAGE_CHUNK_MANAGER_H_
