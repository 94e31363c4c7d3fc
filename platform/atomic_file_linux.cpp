#include "platform/atomic_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "foundation/errors.h"
#include "foundation/log.h"
#include "platform/file.h"
#include "platform/os_error.h"
#include "platform/posix_io_linux.h"

namespace platform {
namespace {

std::atomic<AtomicWriteInterrupt> g_interrupt{nullptr};

// Closes the descriptor when it goes.
class FdCloser {
 public:
  explicit FdCloser(int fd) : m_fd(fd) {}
  ~FdCloser() {
    if (m_fd >= 0) ::close(m_fd);
  }
  FdCloser(const FdCloser&) = delete;
  FdCloser& operator=(const FdCloser&) = delete;
  int Release() {
    int fd = m_fd;
    m_fd = -1;
    return fd;
  }

 private:
  int m_fd;
};

std::string FolderOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// The file a path names once its symbolic links are followed (a link to a
// file not there yet names that file), so that a replacement goes to the
// target and leaves the links in place; false when the chain does not end.
bool FollowLinks(std::string* path) {
  constexpr int kMaxHops = 40;  // as the kernel allows
  for (int hop = 0; hop < kMaxHops; ++hop) {
    struct stat st;
    if (::lstat(path->c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return true;
    std::string target(static_cast<size_t>(st.st_size > 0 ? st.st_size : 4096) + 1, '\0');
    ssize_t n = ::readlink(path->c_str(), target.data(), target.size());
    if (n < 0 || static_cast<size_t>(n) >= target.size()) return false;
    target.resize(static_cast<size_t>(n));
    *path = target.front() == '/' ? target : FolderOf(*path) + "/" + target;
  }
  errno = ELOOP;
  return false;
}

int WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}

mode_t NewFileMode() {
  mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

int ReadWholeFile(const TString& path, size_t maxBytes, std::string* out) {
  out->clear();
  std::string name = TStringAsString(path);
  int fd = OpenRetrying(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int err = errno;
    int code = MapErrno(err, &path);
    if (err != ENOENT) LogLine(514, u"ReadWholeFile: cannot open %s, %E", &path, code);
    return code;
  }
  FdCloser closer(fd);
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    int code = MapErrno(errno, &path);
    LogLine(514, u"ReadWholeFile: cannot examine %s, %E", &path, code);
    return code;
  }
  if (!S_ISREG(st.st_mode)) {
    LogLine(514, u"ReadWholeFile: %s is not a file, %E", &path, kErrBadName);
    return kErrBadName;
  }
  if (static_cast<uint64_t>(st.st_size) > maxBytes) {
    LogLine(514, u"ReadWholeFile: %s holds %~ld bytes, more than %~ld, %E", &path, static_cast<int64_t>(st.st_size),
            static_cast<int64_t>(maxBytes), kErrFileTooLarge);
    return kErrFileTooLarge;
  }
  // The size may change under us; read until the end, within the limit.
  std::string data;
  char chunk[65536];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      int code = MapIoErrno(errno, false, &path);
      LogLine(514, u"ReadWholeFile: cannot read %s, %E", &path, code);
      return code;
    }
    if (n == 0) break;
    if (data.size() + static_cast<size_t>(n) > maxBytes) {
      LogLine(514, u"ReadWholeFile: %s grew past %~ld bytes, %E", &path, static_cast<int64_t>(maxBytes),
              kErrFileTooLarge);
      return kErrFileTooLarge;
    }
    data.append(chunk, static_cast<size_t>(n));
  }
  out->swap(data);
  return 0;
}

int WriteFileAtomic(const TString& path, const std::string& data) {
  std::string name = TStringAsString(path);
  if (!FollowLinks(&name)) {
    int code = MapErrno(errno == 0 ? ELOOP : errno, &path);
    LogLine(514, u"WriteFileAtomic: cannot follow the links of %s, %E", &path, code);
    return code;
  }
  std::string folder = FolderOf(name);
  mode_t mode = NewFileMode();
  struct stat st;
  bool existed = ::stat(name.c_str(), &st) == 0;
  if (existed) mode = st.st_mode & 07777;

  std::string fresh = name + ".tmpXXXXXX";
  int fd = ::mkostemp(fresh.data(), O_CLOEXEC);
  if (fd < 0) {
    int code = MapErrno(errno, &path);
    LogLine(514, u"WriteFileAtomic: cannot create a new file beside %s, %E", &path, code);
    return code;
  }
  FdCloser closer(fd);
  TString freshPath = TStringFromUTF8(fresh);
  int err = WriteAll(fd, data);
  // The owner stays where we may keep it (only a privileged writer can give
  // a file away); the mode always does.
  if (err == 0 && existed && ::fchown(fd, st.st_uid, st.st_gid) != 0 && errno != EPERM) err = errno;
  if (err == 0 && ::fchmod(fd, mode) != 0) err = errno;
  if (err == 0 && ::fsync(fd) != 0) err = errno;
  if (err != 0) {
    int code = MapIoErrno(err, true, &freshPath);
    ::unlink(fresh.c_str());
    LogLine(514, u"WriteFileAtomic: cannot write %s, %E", &freshPath, code);
    return code;
  }
  ::close(closer.Release());

  AtomicWriteInterrupt interrupt = g_interrupt.load();
  if (interrupt != nullptr && interrupt(freshPath) != 0) {
    LogLine(514, u"WriteFileAtomic: interrupted before replacing %s, %E", &path, kErrAborted);
    return kErrAborted;
  }

  if (::rename(fresh.c_str(), name.c_str()) != 0) {
    int code = MapErrno(errno, &path);
    ::unlink(fresh.c_str());
    LogLine(514, u"WriteFileAtomic: cannot replace %s, %E", &path, code);
    return code;
  }
  int dirFd = OpenRetrying(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0) {
    int code = MapErrno(errno, &path);
    LogLine(514, u"WriteFileAtomic: cannot open the folder of %s, %E", &path, code);
    return code;
  }
  FdCloser dirCloser(dirFd);
  if (::fsync(dirFd) != 0 && errno != EINVAL) {
    int code = MapIoErrno(errno, true, &path);
    LogLine(514, u"WriteFileAtomic: cannot flush the folder of %s, %E", &path, code);
    return code;
  }
  return 0;
}

bool FileIsPresent(const TString& path) {
  bool exists = false;
  bool isFolder = false;
  return PathStatus(path, &exists, &isFolder) == 0 && exists && !isFolder;
}

int RemoveFileAt(const TString& path, bool missingOk) {
  int code = RemoveFile(path);
  if (code == 0 || (code == kErrNotFound && missingOk)) return 0;
  LogLine(514, u"RemoveFileAt: cannot remove %s, %E", &path, code);
  return code;
}

int ListFolderFiles(const TString& folder, std::vector<TString>* names) {
  names->clear();
  std::string name = TStringAsString(folder);
  DIR* dir = ::opendir(name.c_str());
  if (dir == nullptr) {
    int code = MapErrno(errno, &folder);
    LogLine(514, u"ListFolderFiles: cannot open %s, %E", &folder, code);
    return code;
  }
  for (;;) {
    errno = 0;
    struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) break;
    std::string full = name + "/" + entry->d_name;
    struct stat st;
    if (::stat(full.c_str(), &st) == 0 && S_ISREG(st.st_mode)) names->push_back(TStringFromUTF8(entry->d_name));
  }
  int err = errno;
  ::closedir(dir);
  if (err != 0) {
    int code = MapErrno(err, &folder);
    LogLine(514, u"ListFolderFiles: cannot read %s, %E", &folder, code);
    return code;
  }
  return 0;
}

void SetAtomicWriteInterruptForTesting(AtomicWriteInterrupt interrupt) { g_interrupt.store(interrupt); }

}  // namespace platform
