// Files that hold TMemory contents: the private mapped files of blocks with
// kTMemMapped and the archives of pooled blocks.
//
// Such files are scratch: made new (never opened when they exist) in the
// temporary folder, readable by the owner only, and removed by their block.
// Every member answers 0 or a library code mapped from errno (MapErrno,
// MapIoErrno, which write their own detail line); the caller writes the
// 514 line naming the operation.
#ifndef PLINTH_PLATFORM_MAP_FILE_H_
#define PLINTH_PLATFORM_MAP_FILE_H_

#include <cstdint>

#include "foundation/tstring.h"

namespace platform {

// The folder for scratch files, without a trailing delimiter: $TMPDIR when
// set and not empty, else /tmp. Read at every call, so a process may move it.
TString TempFolder();

// The calling process's identifier.
uint32_t ProcessId();

class TMapFile {
 public:
  TMapFile() = default;
  // Unmaps and closes; the file stays where it is.
  ~TMapFile() { Close(); }
  TMapFile(const TMapFile&) = delete;
  TMapFile& operator=(const TMapFile&) = delete;

  // Makes `path` anew with mode 0600 and opens it for reading and writing;
  // an existing file is refused (kErrAlreadyExists).
  int Create(const TString& path);
  // Opens an existing file for reading and writing.
  int Open(const TString& path);
  bool IsOpen() const { return m_fd >= 0; }
  void Close();

  // Truncates or extends the file to `length` bytes (new bytes read zero).
  int SetLength(uint64_t length);
  // Maps the first `length` bytes shared and read-write in place of any
  // earlier mapping, which stays when this fails; a length of 0 only
  // unmaps. The file must be at least that long.
  int Map(uint64_t length);
  void* Address() const { return m_address; }
  uint64_t MappedLength() const { return m_mappedLength; }

  // Positioned transfers of all `size` bytes; a read past the end answers
  // kErrEndOfFile.
  int WriteAt(uint64_t offset, const void* data, uint32_t size);
  int ReadAt(uint64_t offset, void* data, uint32_t size);

 private:
  void Unmap();

  int m_fd = -1;
  void* m_address = nullptr;
  uint64_t m_mappedLength = 0;
};

}  // namespace platform

#endif  // PLINTH_PLATFORM_MAP_FILE_H_
