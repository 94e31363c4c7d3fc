// Machine-wide named locks.
//
// A name maps to a lock file in one fixed folder (/tmp), on which the
// holder keeps an exclusive flock. The kernel drops the lock when the
// holder's descriptor closes, including when the process dies, so a crashed
// holder never leaves a name held. Locks on separately opened descriptors
// exclude each other even within one process. A child made by fork (without
// exec) shares the descriptors, and so the locks, its parent holds at that
// moment, until it exits or execs. Lock files are left in place:
// removing one would let a second holder lock a fresh file of the same name.
#ifndef PLINTH_PLATFORM_NAMED_LOCK_H_
#define PLINTH_PLATFORM_NAMED_LOCK_H_

#include <cstdint>
#include <string>

namespace platform {

// The lock file of `name`: bytes other than letters, digits, '.', '_' and
// '-' are written as %XX, so distinct names never share a file.
std::string NamedLockPath(const std::string& name);

// One attempt, without waiting: 0 with *handle set when the lock is now
// held, 1 when another holder has it, else the mapped errno (one log line).
int TryNamedLock(const std::string& name, int64_t* handle);

// Releases a lock taken by TryNamedLock; a negative handle is ignored.
void ReleaseNamedLock(int64_t handle);

}  // namespace platform

#endif  // PLINTH_PLATFORM_NAMED_LOCK_H_
