// POSIX helpers shared by the Linux sources of the platform layer.
#ifndef PLINTH_PLATFORM_POSIX_IO_LINUX_H_
#define PLINTH_PLATFORM_POSIX_IO_LINUX_H_

#include <fcntl.h>
#include <sys/types.h>

#include <cerrno>

namespace platform {

// open(2), tried again when a signal interrupts it; -1 with errno set.
inline int OpenRetrying(const char* name, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(name, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace platform

#endif  // PLINTH_PLATFORM_POSIX_IO_LINUX_H_
