#include "files/ttextfile.h"

#include <cstring>

#include "foundation/errors.h"
#include "foundation/hooks.h"
#include "foundation/log.h"

namespace {

// What m_bytes points at while the buffer is empty: not null, so an empty
// file is read once only.
const unsigned char kNoBytes[1] = {0};

constexpr uint64_t kMaxTextSize = 0x7FFFFFFF;

}  // namespace

int TTextFile::UseBytes(const void* data, uint32_t size) {
  Reset();
  if (size >= kMaxTextSize) return -1;
  int code = m_buffer.AllocBuffer(size);
  if (code != 0) return code;
  if (size != 0) std::memcpy(m_buffer.MemPtr(), data, size);
  m_byteCount = size;
  m_bytes = size != 0 ? static_cast<const unsigned char*>(m_buffer.MemPtr()) : kNoBytes;
  return 0;
}

int TTextFile::LoadFile() {
  uint64_t length = 0;
  int code = GetLength(&length);
  if (code != 0) return code;
  if (length >= kMaxTextSize) {
    TString path = GetFullPath();
    LogLine(514, u"TTextFile::ReadLine: <%s> is too large, %~ld bytes", &path, static_cast<int64_t>(length));
    return -1;
  }
  auto size = static_cast<uint32_t>(length);
  code = m_buffer.AllocBuffer(size);
  if (code != 0) return code;
  uint32_t count = size;
  if (size != 0) {
    code = ReadAt(0, m_buffer.MemPtr(), &count);
    // A file that shrank since its length was taken: keep what is there.
    if (code != 0 && code != kErrEndOfFile) return code;
  }
  m_byteCount = count;
  m_position = 0;
  m_bytes = count != 0 ? static_cast<const unsigned char*>(m_buffer.MemPtr()) : kNoBytes;
  return 0;
}

int TTextFile::ReadLine(TString* line) {
  if (m_bytes == nullptr) {
    if (!IsOpen()) {
      Debug("ttextfile", __LINE__, 0);
      return kErrInvalidHandle;
    }
    int code = LoadFile();
    if (code != 0) return code;
  }
  if (m_position >= m_byteCount) return kErrEndOfFile;
  uint32_t start = m_position;
  uint32_t end = start;
  while (end < m_byteCount && m_bytes[end] != 10 && m_bytes[end] != 13) ++end;
  line->AssignAnsi(reinterpret_cast<const char*>(m_bytes + start), static_cast<int>(end - start));
  if (end < m_byteCount && m_bytes[end] == 13) ++end;
  if (end < m_byteCount && m_bytes[end] == 10) ++end;
  m_position = end;
  return 0;
}

int TTextFile::WriteLine(TString* line) {
  TString text(*line);
  text.ConvertNewlines(TString::kNewlineCrLf);
  int n = text.GetLength();
  if (n == 0 || text.GetConstBuffer()[n - 1] != u'\n') text += u"\r\n";
  return WriteString(text);
}

int TTextFile::MarkEOF() {
  static const unsigned char kEndMark = 0x1A;
  static const unsigned char kSeal = 0xA9;
  uint32_t count = 1;
  int code = Write(&kEndMark, &count);
  if (code == 0) {
    count = 1;
    code = Write(&kSeal, &count);
  }
  int closed = Close();
  return code != 0 ? code : closed;
}

void TTextFile::Reset() {
  m_byteCount = 0;
  m_position = 0;
  m_bytes = nullptr;
}

void TTextFile::SetReadPosition(uint32_t position) {
  m_position = position < m_byteCount ? position : m_byteCount;
}
