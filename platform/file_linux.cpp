#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "foundation/errors.h"
#include "foundation/log.h"
#include "platform/os_error.h"
#include "platform/posix_io_linux.h"

namespace platform {

int TFileReader::Open(const TString& path) {
  Close();
  std::string name = TStringAsString(path);
  int fd = OpenRetrying(name.c_str(), O_RDONLY | O_CLOEXEC);
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

namespace {

int OpenFlags(FileOpenMode mode) {
  switch (mode) {
    case FileOpenMode::kRead:
      return O_RDONLY;
    case FileOpenMode::kReadWrite:
      return O_RDWR;
    case FileOpenMode::kReadWriteCreate:
      return O_RDWR | O_CREAT;
    case FileOpenMode::kCreateNew:
      return O_RDWR | O_CREAT | O_EXCL;
  }
  return O_RDONLY;
}

struct flock WholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;  // to the end, however far it grows
  return lock;
}

}  // namespace

int TFileHandle::Open(const TString& path, FileOpenMode mode) {
  Close();
  std::string name = TStringAsString(path);
  int fd = OpenRetrying(name.c_str(), OpenFlags(mode) | O_CLOEXEC, 0666);
  if (fd < 0) return MapErrno(errno, &path);
  // A read-only open of a folder succeeds on this system; refuse it as a
  // writable one would be.
  struct stat info;
  if (::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
    ::close(fd);
    return MapErrno(EISDIR, &path);
  }
  m_fd = fd;
  m_writable = mode != FileOpenMode::kRead;
  return 0;
}

int TFileHandle::Close() {
  if (m_fd < 0) return 0;
  int rc = ::close(m_fd);
  m_fd = -1;
  // After EINTR the descriptor is gone on this system; do not retry.
  if (rc < 0 && errno != EINTR) return MapIoErrno(errno, true, nullptr);
  return 0;
}

int TFileHandle::ReadAt(uint64_t offset, void* buffer, uint32_t size, uint32_t* done) {
  *done = 0;
  if (m_fd < 0) return kErrInvalidHandle;
  auto* out = static_cast<unsigned char*>(buffer);
  while (*done < size) {
    ssize_t n = ::pread(m_fd, out + *done, size - *done, static_cast<off_t>(offset + *done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return MapIoErrno(errno, false, nullptr);
    }
    if (n == 0) break;
    *done += static_cast<uint32_t>(n);
  }
  return 0;
}

int TFileHandle::WriteAt(uint64_t offset, const void* buffer, uint32_t size, uint32_t* done) {
  *done = 0;
  if (m_fd < 0) return kErrInvalidHandle;
  const auto* in = static_cast<const unsigned char*>(buffer);
  while (*done < size) {
    ssize_t n = ::pwrite(m_fd, in + *done, size - *done, static_cast<off_t>(offset + *done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return MapIoErrno(errno, true, nullptr);
    }
    // A write that takes nothing and reports no error: the device is full.
    if (n == 0) return MapIoErrno(ENOSPC, true, nullptr);
    *done += static_cast<uint32_t>(n);
  }
  return 0;
}

int TFileHandle::GetLength(uint64_t* length) {
  *length = 0;
  if (m_fd < 0) return kErrInvalidHandle;
  struct stat info;
  if (::fstat(m_fd, &info) < 0) return MapErrno(errno, nullptr);
  *length = static_cast<uint64_t>(info.st_size);
  return 0;
}

int TFileHandle::SetLength(uint64_t length) {
  if (m_fd < 0) return kErrInvalidHandle;
  if (!m_writable) return MapErrno(EBADF, nullptr);
  if (length > static_cast<uint64_t>(INT64_MAX)) return MapErrno(EFBIG, nullptr);
  int rc;
  do {
    rc = ::ftruncate(m_fd, static_cast<off_t>(length));
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) return MapIoErrno(errno, true, nullptr);
  return 0;
}

int TFileHandle::Sync() {
  if (m_fd < 0) return kErrInvalidHandle;
  if (::fsync(m_fd) < 0) return MapIoErrno(errno, true, nullptr);
  return 0;
}

int TFileHandle::LockWrite() {
  if (m_fd < 0) return kErrInvalidHandle;
  struct flock lock = WholeFile(F_WRLCK);
  if (::fcntl(m_fd, F_OFD_SETLK, &lock) < 0) {
    // EACCES and EAGAIN both mean "held by another" here.
    int err = errno == EACCES ? EAGAIN : errno;
    return MapErrno(err, nullptr);
  }
  return 0;
}

int TFileHandle::Unlock() {
  if (m_fd < 0) return kErrInvalidHandle;
  struct flock lock = WholeFile(F_UNLCK);
  if (::fcntl(m_fd, F_OFD_SETLK, &lock) < 0) return MapErrno(errno, nullptr);
  return 0;
}

int TFileHandle::IsWriteLocked(bool* locked) {
  *locked = false;
  if (m_fd < 0) return kErrInvalidHandle;
  struct flock lock = WholeFile(F_WRLCK);
  if (::fcntl(m_fd, F_OFD_GETLK, &lock) < 0) return MapErrno(errno, nullptr);
  *locked = lock.l_type != F_UNLCK;
  return 0;
}

int PathStatus(const TString& path, bool* exists, bool* isFolder) {
  *exists = false;
  *isFolder = false;
  std::string name = TStringAsString(path);
  struct stat info;
  if (::stat(name.c_str(), &info) < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return 0;
    return MapErrno(errno, &path);
  }
  *exists = true;
  *isFolder = S_ISDIR(info.st_mode);
  return 0;
}

int RemoveFile(const TString& path) {
  std::string name = TStringAsString(path);
  if (::unlink(name.c_str()) < 0) return MapErrno(errno, &path);
  return 0;
}

int MakeFolder(const TString& path) {
  std::string name = TStringAsString(path);
  if (::mkdir(name.c_str(), 0777) < 0) return MapErrno(errno, &path);
  return 0;
}

int IsPathWriteLocked(const TString& path, bool* locked) {
  *locked = false;
  TFileHandle handle;
  int code = handle.Open(path, FileOpenMode::kRead);
  if (code == kErrNotFound) return 0;
  if (code != 0) return code;
  return handle.IsWriteLocked(locked);
}

}  // namespace platform
