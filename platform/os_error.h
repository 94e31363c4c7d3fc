// Errors of this operating system (errno) and their library codes.
//
// Every errno this platform defines has a row in one table
// (errno_table_linux.inc); anything else becomes -1001. A raw errno never
// leaves the platform layer: the call that sees one maps it here.
#ifndef PLINTH_PLATFORM_OS_ERROR_H_
#define PLINTH_PLATFORM_OS_ERROR_H_

#include "foundation/export.h"

class TString;

struct ErrnoMapRowSpec {
  int err;
  int code;
};

// Maps `err` to a library code. Logs "MapErrno: mapped errno %d to %E" at
// 519, or "MapErrno: unknown errno %d[ <%s>]" at 514 and returns -1001.
PLINTH_API int MapErrno(int err, const TString* context);
// As MapErrno, for a read or write that failed: EIO, which says nothing of
// the direction, becomes the read fault (-1107) or the write fault (-1108).
PLINTH_API int MapIoErrno(int err, bool writing, const TString* context);
// The rows of the table, for inspection and tests.
PLINTH_API const ErrnoMapRowSpec* ErrnoTable(int* count);

namespace platform {

// The calling thread's last operating-system error: errno.
int LastOsError();
// Maps the calling thread's last error as the platform knows it (MapErrno of
// errno here), read before anything can change it.
int MapLastOsError(const TString* context);

}  // namespace platform

#endif  // PLINTH_PLATFORM_OS_ERROR_H_
