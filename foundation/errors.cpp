#include "foundation/errors.h"

#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/resources.h"
#include "foundation/tstring.h"
#include "platform/os_error.h"

namespace {

constexpr ErrorMapRowSpec kWindowsTable[] = {
#include "foundation/error_table_windows.inc"
};
constexpr ErrorMapRowSpec kCdlTable[] = {
#include "foundation/error_table_cdl.inc"
};
static_assert(sizeof kWindowsTable / sizeof kWindowsTable[0] == 550);
static_assert(sizeof kCdlTable / sizeof kCdlTable[0] == 23);

struct ErrorRangeSpec {
  unsigned short group;
  int top;     // inclusive
  int bottom;  // exclusive
};

constexpr ErrorRangeSpec kErrorRanges[] = {
    {16100, -1000, -1300},
    {16101, -600, -700},
};

struct TableLines {
  const char16_t* mapped;
  const char16_t* unknownWithContext;
  const char16_t* unknown;
};

constexpr TableLines kWindowsLines = {u"MapError: mapped Windows error %d to %E",
                                      u"MapError: unknown Windows error %d <%s>",
                                      u"MapError: unknown Windows error %d"};
// No blank after the comma: the line has always read that way and log
// readers match it.
constexpr TableLines kCdlLines = {u"MapError: mapped CDL error %d to %E", u"MapError: unknown CDL error %d,<%s>",
                                  u"MapError: unknown CDL error %d"};

template <size_t N>
int MapThroughTable(const ErrorMapRowSpec (&rows)[N], const TableLines& lines, unsigned int number, int* logFlag,
                    const TString* context) {
  int flag = 0;
  for (const ErrorMapRowSpec& row : rows) {
    if (row.osError != number) continue;
    flag = row.logFlag;
    if (logFlag != nullptr) *logFlag = flag;
    // A code-0 row only lends its flag; a later row may still name a code.
    if (row.code != 0) {
      LogLine(519, lines.mapped, static_cast<int>(number), row.code);
      return row.code;
    }
  }
  if (flag == -1) return kErrUnknown;
  unsigned int selector = flag == 1 ? 518 : 514;
  if (context != nullptr) {
    LogLine(selector, lines.unknownWithContext, static_cast<int>(number), context);
  } else {
    LogLine(selector, lines.unknown, static_cast<int>(number));
  }
  return kErrUnknown;
}

}  // namespace

int MapError(unsigned int osError, unsigned int table, int* logFlag, const TString* context) {
  if (logFlag != nullptr) *logFlag = 0;
  if (table == kMapTableCdl) return MapThroughTable(kCdlTable, kCdlLines, osError, logFlag, context);
  if (table != kMapTableWindows) {
    Debug("error", 736, 0);
    return 0;
  }
  // There is no thread-wide Windows error here: the last error is errno,
  // and errno has its own table.
  if (osError == 0) return platform::MapLastOsError(context);
  // An HRESULT of the Win32 facility carries the Windows error in its low word.
  if (((osError >> 16) & 0x1FFFu) == 7) osError &= 0xFFFFu;
  return MapThroughTable(kWindowsTable, kWindowsLines, osError, logFlag, context);
}

int MapOsError(unsigned int osError, const TString* context) { return MapError(osError, 0, nullptr, context); }

int MapAndLogErr(const TString* where, const char* what, int osError) {
  int number = osError;
  int flag = 0;
  int code = 0;
  if (number == 0) {
    number = platform::LastOsError();
    code = MapErrno(number, nullptr);
  } else {
    code = MapError(static_cast<unsigned int>(number), kMapTableWindows, &flag, nullptr);
  }
  if (flag == -1) return code;
  unsigned int selector = flag == 1 ? 518 : 514;
  TString whatText;
  if (what != nullptr) whatText = TStringFromUTF8(what);
  const TString* shown = what != nullptr ? &whatText : nullptr;
  if (where != nullptr) {
    LogLine(selector, u"%s, %s, osErr %~d, error %~d", shown, where, number, code);
  } else {
    LogLine(selector, u"%s, osErr %~d, error %~d", shown, number, code);
  }
  return code;
}

bool IsPossibleOpenFileError(int code) {
  return code == kErrLockViolation || code == kErrNotFound || code == kErrInvalidHandle || code == kErrInUse;
}

int RMGetErrID(int code, unsigned short* group, unsigned int* key) {
  for (const ErrorRangeSpec& range : kErrorRanges) {
    if (!(range.bottom < code && code <= range.top)) continue;
    int offset = range.top - code;  // 0 .. 9999 for the ranges above
    unsigned int k = 0;
    for (int divisor = 1000; divisor >= 1; divisor /= 10) {
      k = (k << 8) | static_cast<unsigned int>('0' + (offset / divisor) % 10);
    }
    if (group != nullptr) *group = range.group;
    if (key != nullptr) *key = k;
    return 1;
  }
  return 0;
}

int GetErrorText(int code, TString* out) {
  unsigned short group = 0;
  unsigned int key = 0;
  if (RMGetErrID(code, &group, &key) && LoadResourceText(group, key, out)) return 1;
  LoadResourceText(16000, ResKey("0000"), out);
  return 0;
}

const ErrorMapRowSpec* WindowsErrorTable(int* count) {
  if (count != nullptr) *count = static_cast<int>(sizeof kWindowsTable / sizeof kWindowsTable[0]);
  return kWindowsTable;
}

const ErrorMapRowSpec* CdlErrorTable(int* count) {
  if (count != nullptr) *count = static_cast<int>(sizeof kCdlTable / sizeof kCdlTable[0]);
  return kCdlTable;
}
