#include "platform/file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "foundation/errors.h"
#include "foundation/log.h"
#include "platform/os_error.h"

namespace platform {

int TFileReader::Open(const TString& path) {
  Close();
  std::string name = TStringAsString(path);
  int fd;
  do {
    fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    int code = MapErrno(errno, &path);
    LogLine(514, u"TFileReader::Open: cannot open %s, %E", &path, code);
    return code;
  }
  m_fd = fd;
  m_path = path;
  return 0;
}

void TFileReader::Close() {
  if (m_fd < 0) return;
  ::close(m_fd);
  m_fd = -1;
}

int TFileReader::Seek(uint64_t offset) {
  if (m_fd < 0) {
    LogLine(514, u"TFileReader::Seek: no file open, %E", kErrInvalidHandle);
    return kErrInvalidHandle;
  }
  if (::lseek(m_fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    int code = MapErrno(errno, &m_path);
    LogLine(514, u"TFileReader::Seek: cannot seek %s to %~ld, %E", &m_path, static_cast<int64_t>(offset), code);
    return code;
  }
  return 0;
}

int TFileReader::Read(void* buffer, uint32_t size, uint32_t* bytesRead) {
  return ReadLoop(false, 0, buffer, size, bytesRead);
}

int TFileReader::ReadAt(uint64_t offset, void* buffer, uint32_t size, uint32_t* bytesRead) {
  return ReadLoop(true, offset, buffer, size, bytesRead);
}

int TFileReader::ReadLoop(bool positioned, uint64_t offset, void* buffer, uint32_t size, uint32_t* bytesRead) {
  *bytesRead = 0;
  if (m_fd < 0) {
    LogLine(514, u"TFileReader::Read: no file open, %E", kErrInvalidHandle);
    return kErrInvalidHandle;
  }
  auto* out = static_cast<unsigned char*>(buffer);
  uint32_t done = 0;
  while (done < size) {
    ssize_t n = positioned ? ::pread(m_fd, out + done, size - done, static_cast<off_t>(offset + done))
                           : ::read(m_fd, out + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      int code = MapIoErrno(errno, false, &m_path);
      LogLine(514, u"TFileReader::Read: cannot read %s, %E", &m_path, code);
      return code;
    }
    if (n == 0) break;
    done += static_cast<uint32_t>(n);
  }
  *bytesRead = done;
  if (done == 0 && size != 0) return kErrEndOfFile;
  return 0;
}

}  // namespace platform
