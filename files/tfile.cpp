#include "files/tfile.h"

#include <string>

#include "foundation/errors.h"
#include "foundation/log.h"

namespace {

platform::FileOpenMode PlatformMode(TFileOpenMode mode) {
  switch (mode) {
    case kFileOpenReadWrite:
      return platform::FileOpenMode::kReadWrite;
    case kFileOpenReadWriteCreate:
      return platform::FileOpenMode::kReadWriteCreate;
    case kFileOpenCreateNew:
      return platform::FileOpenMode::kCreateNew;
    case kFileOpenRead:
      break;
  }
  return platform::FileOpenMode::kRead;
}

}  // namespace

TFile::TFile() = default;

TFile::~TFile() { Close(); }

int TFile::Refuse(const char16_t* format) {
  LogLine(514, format, kErrInvalidHandle);
  return kErrInvalidHandle;
}

int TFile::Failed(const char16_t* format, int code) {
  LogLine(514, format, &m_path, code);
  return code;
}

int TFile::Open(const TFileLoc& loc, TFileOpenMode mode) {
  Close();
  m_loc = loc;
  m_path = loc.GetFullPath();
  m_position = 0;
  if (!loc.IsValid()) {
    LogLine(514, u"TFile::Open: invalid location <%s>, %E", &m_path, kErrBadName);
    return kErrBadName;
  }
  int code = m_handle.Open(m_path, PlatformMode(mode));
  if (code != 0) return Failed(u"TFile::Open: cannot open <%s>, %E", code);
  m_writable = mode != kFileOpenRead;
  return 0;
}

int TFile::Close() {
  m_writable = false;
  if (!m_handle.IsOpen()) return 0;
  int code = m_handle.Close();
  if (code != 0) return Failed(u"TFile::Close: cannot close <%s>, %E", code);
  return 0;
}

int TFile::Read(void* buffer, uint32_t* count) {
  int code = ReadAt(m_position, buffer, count);
  m_position += *count;
  return code;
}

int TFile::Write(const void* buffer, uint32_t* count) {
  int code = WriteAt(m_position, buffer, count);
  m_position += *count;
  return code;
}

int TFile::ReadAt(uint64_t offset, void* buffer, uint32_t* count) {
  uint32_t asked = *count;
  *count = 0;
  if (!IsOpen()) return Refuse(u"TFile::Read: no file open, %E");
  int code = m_handle.ReadAt(offset, buffer, asked, count);
  if (code != 0) return Failed(u"TFile::Read: cannot read <%s>, %E", code);
  return *count < asked ? kErrEndOfFile : 0;
}

int TFile::WriteAt(uint64_t offset, const void* buffer, uint32_t* count) {
  uint32_t asked = *count;
  *count = 0;
  if (!IsOpen()) return Refuse(u"TFile::Write: no file open, %E");
  int code = m_handle.WriteAt(offset, buffer, asked, count);
  if (code != 0) return Failed(u"TFile::Write: cannot write <%s>, %E", code);
  return 0;
}

int TFile::WriteString(const TString& text) {
  std::string bytes = TStringAsString(text);
  auto count = static_cast<uint32_t>(bytes.size());
  return Write(bytes.data(), &count);
}

int TFile::GetLength(uint64_t* length) {
  *length = 0;
  if (!IsOpen()) return Refuse(u"TFile::GetLength: no file open, %E");
  int code = m_handle.GetLength(length);
  if (code != 0) return Failed(u"TFile::GetLength: cannot stat <%s>, %E", code);
  return 0;
}

int TFile::SetLength(uint64_t length) {
  if (!IsOpen()) return Refuse(u"TFile::SetLength: no file open, %E");
  int code = m_handle.SetLength(length);
  if (code != 0) return Failed(u"TFile::SetLength: cannot set the end of <%s>, %E", code);
  return 0;
}

int TFile::Flush() {
  if (!IsOpen()) return Refuse(u"TFile::Flush: no file open, %E");
  return 0;
}

int TFile::Sync() {
  if (!IsOpen()) return Refuse(u"TFile::Sync: no file open, %E");
  int code = m_handle.Sync();
  if (code != 0) return Failed(u"TFile::Sync: cannot sync <%s>, %E", code);
  return 0;
}

int TFile::LockWrite() {
  if (!IsOpen()) return Refuse(u"TFile::LockWrite: no file open, %E");
  int code = m_handle.LockWrite();
  if (code != 0) return Failed(u"TFile::LockWrite: cannot lock <%s>, %E", code);
  return 0;
}

int TFile::Unlock() {
  if (!IsOpen()) return Refuse(u"TFile::Unlock: no file open, %E");
  int code = m_handle.Unlock();
  if (code != 0) return Failed(u"TFile::Unlock: cannot unlock <%s>, %E", code);
  return 0;
}
