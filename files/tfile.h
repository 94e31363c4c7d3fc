// TFile: an open file at a TFileLoc.
//
// Transfers are positioned: Read and Write work at the file position and
// move it on; ReadAt and WriteAt name the offset and leave the position
// alone. Offsets and lengths are 64-bit; one transfer moves at most
// 4 GiB - 1 bytes. The count argument goes in as the number of bytes asked
// for and comes back as the number transferred, also on failure.
//
// A read that finds fewer bytes than asked (the end of the file) answers
// kErrEndOfFile (-1114) with the count of what it did read; that status is
// expected by readers and writes no log line. Every other failure is an
// operating-system error mapped where it happened and logged once at 514
// as "TFile::<Operation>: <what> <%s>, %E" with the file's path.
//
// Write locks are advisory and whole-file, held by this open (not by the
// process): LockWrite refuses with kErrLockViolation (-1111) while another
// open holds one, and closing the file drops it. TFileLoc::IsWriteLocked
// asks the same question from outside.
//
// Data goes to the system with each Write; Flush has nothing of its own to
// write, and Sync puts the file on stable storage (fsync).
#ifndef PLINTH_FILES_TFILE_H_
#define PLINTH_FILES_TFILE_H_

#include <cstdint>

#include "files/tfileloc.h"
#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"
#include "platform/file.h"

// How Open treats the file.
enum TFileOpenMode {
  kFileOpenRead = 0,             // read only; the file must exist
  kFileOpenReadWrite = 1,        // the file must exist
  kFileOpenReadWriteCreate = 2,  // made empty when missing
  kFileOpenCreateNew = 3,        // made; kErrAlreadyExists when present
};

class PLINTH_API TFile : public TObject {
 public:
  // Out of line, like the destructor: the descriptor under a TFile is the
  // library's own, so a host that makes one must not reach it inline.
  TFile();
  virtual ~TFile();
  TFile(const TFile&) = delete;
  TFile& operator=(const TFile&) = delete;

  // Closes any file held first. The position starts at 0.
  int Open(const TFileLoc& loc, TFileOpenMode mode = kFileOpenRead);
  // Virtual, with the transfers below: a file that is not on a disk (an
  // object in a bucket) answers for itself.
  virtual bool IsOpen() const { return m_handle.IsOpen(); }
  virtual bool IsWritable() const { return m_writable; }
  // 0 (also when nothing was open) or the mapped failure of the close.
  int Close();

  const TFileLoc& GetLoc() const { return m_loc; }
  TString GetFullPath() const { return m_loc.GetFullPath(); }

  uint64_t GetPosition() const { return m_position; }
  // Any position is allowed, past the end too; a write there leaves a hole.
  void SetPosition(uint64_t position) { m_position = position; }

  int Read(void* buffer, uint32_t* count);
  int Write(const void* buffer, uint32_t* count);
  // The positioned transfers, the length and the syncs are virtual so that
  // a test can stand a failing file in for a real one.
  virtual int ReadAt(uint64_t offset, void* buffer, uint32_t* count);
  virtual int WriteAt(uint64_t offset, const void* buffer, uint32_t* count);
  // Writes the UTF-8 form of `text` at the position.
  int WriteString(const TString& text);

  virtual int GetLength(uint64_t* length);
  // Truncates or extends (with zeros) the file to `length`; the position
  // stays where it was.
  virtual int SetLength(uint64_t length);
  virtual int Flush();
  virtual int Sync();

  int LockWrite();
  int Unlock();

 private:
  int Refuse(const char16_t* format);
  int Failed(const char16_t* format, int code);

  platform::TFileHandle m_handle;
  TFileLoc m_loc;
  TString m_path;  // full path, for log lines
  uint64_t m_position = 0;
  bool m_writable = false;
};

#endif  // PLINTH_FILES_TFILE_H_
