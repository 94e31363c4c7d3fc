// Files: a reader (open for reading, sequential or positioned reads) and
// TFileHandle, the descriptor under TFile; path queries and removal.
//
// Reads answer 0 with the count of bytes read (fewer than asked only at the
// end of the file), or kErrEndOfFile (-1114) with a count of 0 when the
// file position is at or past the end, or the mapped errno (MapIoErrno).
// Every failure but the end of the file writes one log line (514).
#ifndef PLINTH_PLATFORM_FILE_H_
#define PLINTH_PLATFORM_FILE_H_

#include <cstdint>

#include "foundation/tstring.h"

namespace platform {

class TFileReader {
 public:
  TFileReader() = default;
  ~TFileReader() { Close(); }
  TFileReader(const TFileReader&) = delete;
  TFileReader& operator=(const TFileReader&) = delete;

  // Closes any file held first. 0 or the mapped errno.
  int Open(const TString& path);
  bool IsOpen() const { return m_fd >= 0; }
  void Close();

  // Moves the position for Read. 0 or the mapped errno.
  int Seek(uint64_t offset);
  int Read(void* buffer, uint32_t size, uint32_t* bytesRead);
  // Reads at `offset`; the position for Read stays.
  int ReadAt(uint64_t offset, void* buffer, uint32_t size, uint32_t* bytesRead);

 private:
  int ReadLoop(bool positioned, uint64_t offset, void* buffer, uint32_t size, uint32_t* bytesRead);

  int m_fd = -1;
  TString m_path;
};

// An open file descriptor, closed when the object goes. The primitives of
// TFile: positioned transfers, length, sync and advisory locks.
//
// Every member answers 0 or a library code mapped from errno at the call
// that failed (MapErrno, MapIoErrno; those write their own detail line).
// The 514 line naming the operation is written by the caller, which knows
// what the operation was.
//
// Locks are open-file-description locks (fcntl F_OFD_SETLK): they belong to
// one open of the file, not to the process, so two opens in one process see
// each other's locks, and a lock goes with the last descriptor of its open.
// They are advisory: they stop only those who ask.
enum class FileOpenMode { kRead, kReadWrite, kReadWriteCreate, kCreateNew };

class TFileHandle {
 public:
  TFileHandle() = default;
  ~TFileHandle() { Close(); }
  TFileHandle(const TFileHandle&) = delete;
  TFileHandle& operator=(const TFileHandle&) = delete;

  // Closes any descriptor held first. A folder is refused (EISDIR), whatever
  // the mode.
  int Open(const TString& path, FileOpenMode mode);
  bool IsOpen() const { return m_fd >= 0; }
  // 0, or the mapped error of close(2) (the descriptor is gone either way).
  int Close();

  // Transfer up to `size` bytes at `offset`, looping over partial
  // transfers and EINTR; `*done` is what was transferred, also on failure.
  // A read stops early only at the end of the file (answer 0).
  int ReadAt(uint64_t offset, void* buffer, uint32_t size, uint32_t* done);
  int WriteAt(uint64_t offset, const void* buffer, uint32_t size, uint32_t* done);

  int GetLength(uint64_t* length);
  // Truncates or extends (with a hole) to `length`. On a read-only open
  // this fails as a write does (EBADF), not with ftruncate's EINVAL.
  int SetLength(uint64_t length);
  // fsync(2): data and metadata on stable storage.
  int Sync();

  // Takes a whole-file write lock without waiting; kErrLockViolation when
  // another open holds a lock.
  int LockWrite();
  int Unlock();
  // Whether some other open holds a lock that would stop a write lock.
  int IsWriteLocked(bool* locked);

 private:
  int m_fd = -1;
  bool m_writable = false;
};

// Whether `path` names something; `*isFolder` tells a folder from the rest.
// A missing path answers 0 with `*exists` false.
int PathStatus(const TString& path, bool* exists, bool* isFolder);
// Removes a file (not a folder).
int RemoveFile(const TString& path);
// Makes one folder; an existing one answers kErrAlreadyExists.
int MakeFolder(const TString& path);
// Whether another open holds a lock on the file at `path` that would stop a
// write lock. A missing file is not locked.
int IsPathWriteLocked(const TString& path, bool* locked);

}  // namespace platform

#endif  // PLINTH_PLATFORM_FILE_H_
