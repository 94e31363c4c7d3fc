// Reading a file: open for reading, sequential or positioned reads, close.
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

}  // namespace platform

#endif  // PLINTH_PLATFORM_FILE_H_
