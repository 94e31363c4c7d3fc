// The file behind a TMemory: its own mapped file (kTMemMapped outside a
// pool) or the archive of a pooled block (kTMemMapped | kTMemArchived).
// Internal to the memory module.
#ifndef PLINTH_FOUNDATION_TMEMORY_FILE_H_
#define PLINTH_FOUNDATION_TMEMORY_FILE_H_

#include <cstdint>

#include "foundation/tobject.h"
#include "foundation/tstring.h"
#include "platform/map_file.h"

class TMemoryFile : public TObject {
 public:
  TString m_path;
  platform::TMapFile m_file;  // open only while it is mapped storage
};

// Archive files: "plinth20-<pid>-<n>.mem" in the temporary folder. Layout
// (little-endian): "PlMA", version (2 bytes), 2 zero bytes, content size
// (8 bytes), CRC-32 of the contents (CRC32::update from 0, 4 bytes), 4 zero
// bytes, the contents.
constexpr uint32_t kMemArchiveHeaderSize = 24;
constexpr uint16_t kMemArchiveVersion = 1;

// Makes a new scratch file of that name pattern, open in `file`, and
// answers its path through `path`.
int CreateMemScratchFile(platform::TMapFile* file, TString* path);
// Writes `size` bytes as a new archive file; on failure nothing is left.
int WriteMemArchive(const void* data, uint32_t size, TString* path);
// Reads the archive at `path` into `data`, which holds `size` bytes. A file
// whose header, length or checksum do not match is kErrFileCorrupt, and
// `data` may then hold part of it.
int ReadMemArchive(const TString& path, void* data, uint32_t size);

#endif  // PLINTH_FOUNDATION_TMEMORY_FILE_H_
