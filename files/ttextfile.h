// TTextFile: an open file read line by line from an in-memory copy of the
// whole file, and written line by line.
//
// Reading. The first ReadLine reads the whole file into a TMemory buffer
// (a file of 0x7FFFFFFF bytes or more gives status -1); later calls walk the
// buffer. A line ends at a carriage return, a line feed, or the pair CR LF;
// LF followed by CR ends two lines, the second empty. The last line needs no
// end. Past the last line ReadLine answers kErrEndOfFile (-1114). Lines are
// decoded from the system's 8-bit code page, which here is UTF-8: ill-formed
// bytes become U+FFFD, and since no byte of a multi-byte UTF-8 character is
// a CR or an LF, the double-byte lead-byte rule of other code pages has
// nothing to do on this system.
//
// Writing. WriteLine writes at the file position: the text with its line
// ends made CR LF, plus CR LF unless it ends with a line end already.
// MarkEOF writes the end marks 0x1A then 0xA9 and closes the file.
//
// Reset forgets the buffer, so the next ReadLine reads the file again from
// its start.
#ifndef PLINTH_FILES_TTEXTFILE_H_
#define PLINTH_FILES_TTEXTFILE_H_

#include <cstdint>

#include "files/tfile.h"
#include "foundation/export.h"
#include "foundation/tmemory.h"
#include "foundation/tstring.h"

class PLINTH_API TTextFile : public TFile {
 public:
  TTextFile() = default;

  // 0, kErrEndOfFile, -1 for a file too large, or the read's failure.
  int ReadLine(TString* line);
  // 0 or the write's failure.
  int WriteLine(TString* line);
  // 0, or the first failure of the two writes and the close.
  int MarkEOF();
  void Reset();

  // Reads lines from a copy of `data` instead of the file: the buffer is
  // filled as the first ReadLine would fill it. For parsing text held in
  // memory (and for tests).
  int UseBytes(const void* data, uint32_t size);

 protected:
  uint32_t GetReadPosition() const { return m_position; }
  // Moves the read position within the buffer (clamped to its end).
  void SetReadPosition(uint32_t position);

 private:
  int LoadFile();

  TMemory m_buffer;
  uint32_t m_byteCount = 0;
  uint32_t m_position = 0;
  const unsigned char* m_bytes = nullptr;
};

#endif  // PLINTH_FILES_TTEXTFILE_H_
