#include "platform/map_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "foundation/errors.h"
#include "platform/os_error.h"
#include "platform/posix_io_linux.h"
#include "platform/system.h"

namespace platform {

TString TempFolder() {
  std::string folder = EnvironmentValue("TMPDIR");
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  if (folder.empty()) folder = "/tmp";
  return TStringFromUTF8(folder);
}

uint32_t ProcessId() { return static_cast<uint32_t>(::getpid()); }

int TMapFile::Create(const TString& path) {
  Close();
  std::string name = TStringAsString(path);
  int fd = OpenRetrying(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return MapErrno(errno, &path);
  m_fd = fd;
  return 0;
}

int TMapFile::Open(const TString& path) {
  Close();
  std::string name = TStringAsString(path);
  int fd = OpenRetrying(name.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return MapErrno(errno, &path);
  m_fd = fd;
  return 0;
}

void TMapFile::Close() {
  Unmap();
  if (m_fd < 0) return;
  ::close(m_fd);
  m_fd = -1;
}

void TMapFile::Unmap() {
  if (m_address != nullptr) ::munmap(m_address, m_mappedLength);
  m_address = nullptr;
  m_mappedLength = 0;
}

int TMapFile::SetLength(uint64_t length) {
  if (m_fd < 0) return kErrInvalidHandle;
  int rc;
  do {
    rc = ::ftruncate(m_fd, static_cast<off_t>(length));
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) return MapIoErrno(errno, true, nullptr);
  return 0;
}

int TMapFile::Map(uint64_t length) {
  if (m_fd < 0) return kErrInvalidHandle;
  if (length == 0) {
    Unmap();
    return 0;
  }
  void* address = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
  if (address == MAP_FAILED) return MapErrno(errno, nullptr);
  Unmap();
  m_address = address;
  m_mappedLength = length;
  return 0;
}

int TMapFile::WriteAt(uint64_t offset, const void* data, uint32_t size) {
  if (m_fd < 0) return kErrInvalidHandle;
  const auto* in = static_cast<const unsigned char*>(data);
  uint32_t done = 0;
  while (done < size) {
    ssize_t n = ::pwrite(m_fd, in + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return MapIoErrno(errno, true, nullptr);
    }
    if (n == 0) return MapIoErrno(ENOSPC, true, nullptr);
    done += static_cast<uint32_t>(n);
  }
  return 0;
}

int TMapFile::ReadAt(uint64_t offset, void* data, uint32_t size) {
  if (m_fd < 0) return kErrInvalidHandle;
  auto* out = static_cast<unsigned char*>(data);
  uint32_t done = 0;
  while (done < size) {
    ssize_t n = ::pread(m_fd, out + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return MapIoErrno(errno, false, nullptr);
    }
    if (n == 0) return kErrEndOfFile;
    done += static_cast<uint32_t>(n);
  }
  return 0;
}

}  // namespace platform
