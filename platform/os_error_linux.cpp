#include "platform/os_error.h"

#include <cerrno>

#include "foundation/errors.h"
#include "foundation/log.h"
#include "foundation/tstring.h"

namespace {

// One row per errno value of Linux; aliases (EWOULDBLOCK, EDEADLOCK,
// ENOTSUP) share the value of the row that names them in its comment.
constexpr ErrnoMapRowSpec kErrnoTable[] = {
#include "platform/errno_table_linux.inc"
};

}  // namespace

int MapErrno(int err, const TString* context) {
  for (const ErrnoMapRowSpec& row : kErrnoTable) {
    if (row.err != err) continue;
    LogLine(519, u"MapErrno: mapped errno %d to %E", err, row.code);
    return row.code;
  }
  if (context != nullptr) {
    LogLine(514, u"MapErrno: unknown errno %d <%s>", err, context);
  } else {
    LogLine(514, u"MapErrno: unknown errno %d", err);
  }
  return kErrUnknown;
}

int MapIoErrno(int err, bool writing, const TString* context) {
  if (err != EIO) return MapErrno(err, context);
  int code = writing ? kErrWriteFault : kErrReadFault;
  LogLine(519, u"MapErrno: mapped errno %d to %E", err, code);
  return code;
}

const ErrnoMapRowSpec* ErrnoTable(int* count) {
  if (count != nullptr) *count = static_cast<int>(sizeof kErrnoTable / sizeof kErrnoTable[0]);
  return kErrnoTable;
}

namespace platform {

int LastOsError() { return errno; }

int MapLastOsError(const TString* context) { return MapErrno(errno, context); }

}  // namespace platform
