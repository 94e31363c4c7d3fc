// TCHSequentialWriter: writes a new, compact chunk container front to back.
//
// The writer fills an empty file with a container that has no free space:
// the header at 0, the chunks one after the other from the data start (512)
// in the order they are added, each in a slot rounded up to the address
// step (4), then the map in the last slot. It is how a container is copied
// without its holes (ChunkManager::CHTruncate) and how a damaged one is
// rebuilt (CHRecover).
//
//   TCHSequentialWriter writer(&file, false, 0, generation);
//   writer.Begin();
//   writer.AddChunk(header, bytes);   // once per chunk
//   writer.Finish(0);
//
// Chunks are stored as given: the header's type, id, length, generation,
// extra word, flags and checksum are written unchanged and the data bytes
// are copied verbatim, so an encrypted chunk stays encrypted and keeps its
// checksum. The writer does not compute or check checksums; its callers
// copy them from a source they have checked. Reserved header words are
// written as zero.
//
// The map is organised as ChunkManager keeps it: one group per type in
// ascending order of the type as an unsigned 32-bit value, each a group
// head (id = the group's count, address all ones) followed by the group's
// chunks in ascending order of id, every chunk entry with state bit 0 set
// and its slot's slack. The map's own slot is the entry (kCHMapType, 0) in
// a group of its own. The map chunk carries the writer's generation. A
// container with no chunks gets no map, like a new, empty container saved
// by the manager: map address 0, map length 0, end of space 512.
//
// Durability follows the manager's save: the header carries the unsaved
// marker from Begin until Finish has written the map and the final header
// and synced; the marker is then cleared with a 4-byte write and the file
// synced again. A file abandoned before that is refused on opening and can
// be given to CHRecover.
//
// Every failure returns a library code and writes one line at 517. After
// a failed transfer the writer refuses further calls; a refused AddChunk
// (duplicate, reserved type) changes nothing and the writer carries on.
#ifndef PLINTH_STORAGE_CHUNK_WRITER_H_
#define PLINTH_STORAGE_CHUNK_WRITER_H_

#include <cstdint>
#include <map>
#include <utility>

#include "files/tfile.h"
#include "foundation/export.h"
#include "foundation/tobject.h"
#include "storage/chunk_format.h"

class PLINTH_API TCHSequentialWriter : public TObject {
 public:
  // `target` stays the caller's and must outlive the writer. `is0100`
  // writes the 0100 generation (writer version 0x0100, 56-byte chunk
  // headers, 44-byte map entries). `encryptionMarker` goes to the header
  // as given (kCHEncryptionMarker or 0). `generation` is stored in the map
  // chunk's header.
  TCHSequentialWriter(TFile* target, bool is0100, uint32_t encryptionMarker, uint64_t generation);
  TCHSequentialWriter(const TCHSequentialWriter&) = delete;
  TCHSequentialWriter& operator=(const TCHSequentialWriter&) = delete;

  // Writes the header with the unsaved marker. The target must be open,
  // writable and empty (else kErrBadParameter).
  int Begin();
  // Appends one chunk; `data` holds header.length stored bytes (may be null
  // when the length is 0; at most 0x7FFFFFFF). Refuses the map type and
  // types with the top bit set, the free type among them (kErrBadParameter),
  // and a type and id already added (kErrCHDuplicate).
  int AddChunk(const CHChunkHdrSpec& header, const unsigned char* data);
  // Writes the map and the header and clears the unsaved marker; `flags`
  // kCHSaveNoSync (chunk_manager.h) leaves the syncs out.
  int Finish(int flags);

  // Chunks added so far.
  size_t GetChunkCount() const { return m_entries.size(); }
  // Where the next slot starts; the end of space once finished.
  uint64_t GetNextAddress() const { return m_next; }

 private:
  enum class State { kNew, kOpen, kFinished, kFailed };
  using Key = std::pair<uint32_t, uint64_t>;

  int OutOfOrder(const char16_t* operation);
  int WriteBytes(uint64_t offset, const unsigned char* bytes, uint64_t length);
  int SyncUnless(int flags);
  uint64_t SlotLength(uint64_t stored) const;

  TFile* m_target;
  bool m_is0100;
  uint32_t m_encryption;
  uint64_t m_generation;
  size_t m_hdrSize;
  State m_state = State::kNew;
  uint64_t m_next = kCHNewDataStart;
  // Chunk entries by type (unsigned) and id: already in map order.
  std::map<Key, CHMapEntrySpec> m_entries;
};

#endif  // PLINTH_STORAGE_CHUNK_WRITER_H_
