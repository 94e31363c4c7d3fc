#include "platform/named_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/log.h"
#include "foundation/tstring.h"
#include "platform/os_error.h"

namespace platform {
namespace {

constexpr char kLockFolder[] = "/tmp/";
constexpr char kLockPrefix[] = "plinth20-lock-";
// Leaves room below NAME_MAX for the prefix; longer names end in a hash.
constexpr size_t kMaxEncoded = 200;

bool IsPlain(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
         c == '-';
}

void AppendHex(uint64_t value, int digits, std::string* out) {
  static const char kHex[] = "0123456789ABCDEF";
  for (int i = digits - 1; i >= 0; --i) out->push_back(kHex[(value >> (i * 4)) & 0xF]);
}

}  // namespace

std::string NamedLockPath(const std::string& name) {
  std::string encoded;
  for (unsigned char c : name) {
    if (IsPlain(c)) {
      encoded.push_back(static_cast<char>(c));
    } else {
      encoded.push_back('%');
      AppendHex(c, 2, &encoded);
    }
  }
  if (encoded.size() > kMaxEncoded) {
    // FNV-1a over the whole name keeps long names apart.
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char c : name) hash = (hash ^ c) * 1099511628211ull;
    encoded.resize(kMaxEncoded - 17);
    encoded.push_back('#');
    AppendHex(hash, 16, &encoded);
  }
  return std::string(kLockFolder) + kLockPrefix + encoded;
}

int TryNamedLock(const std::string& name, int64_t* handle) {
  *handle = -1;
  std::string path = NamedLockPath(name);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  // Another user's lock file may be read-only to us; flock works on any mode.
  if (fd < 0 && errno == EACCES) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    TString context = TStringFromUTF8(path);
    int code = MapLastOsError(&context);
    LogLine(514, u"TryNamedLock: can't open %s: %E", &context, code);
    return code;
  }
  int rc;
  do {
    rc = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (rc != 0 && errno == EINTR);
  if (rc == 0) {
    *handle = fd;
    return 0;
  }
  int err = errno;
  ::close(fd);
  if (err == EWOULDBLOCK) return 1;
  TString context = TStringFromUTF8(path);
  int code = MapErrno(err, &context);
  LogLine(514, u"TryNamedLock: can't lock %s: %E", &context, code);
  return code;
}

void ReleaseNamedLock(int64_t handle) {
  if (handle < 0) return;
  // Closing the descriptor drops the flock.
  ::close(static_cast<int>(handle));
}

}  // namespace platform
