// Library error codes and the mapping of operating-system errors.
//
// Every fallible operation returns a signed 32-bit code: 0 for success, a
// negative number for failure. Operating-system errors never travel upward:
// the point that sees one maps it at once (MapError, MapOsError,
// MapAndLogErr, or MapErrno from platform/os_error.h) and returns the code.
//
// Windows error numbers are the mapping's input vocabulary, as the library's
// callers and stored data speak them; errno values of this platform go
// through MapErrno. A second table maps the status words of the CDL
// component (error_table_cdl.inc). Our reading of those words: 0 a failure
// without detail (-1201); 2..12 by twos general failures (not found, access,
// handle, memory, parameter, not supported); 0x1000 + 2n device failures;
// 0x2000 + 2n data corruption; 0x3000.. link failures (12291, the link closed
// by the peer, has a flag-only row ahead of its coded row); 0x4000 busy;
// 0x5000 refused in the current state; 65535 an unspecified status, left
// unmapped and logged as a warning.
//
// Texts. Each code has an English text in the resources, found through
// RMGetErrID's ranges:
//   group 16100  codes -1001 .. -1299  (top -1000, bottom -1300)
//   group 16101  codes  -601 ..  -699  (top  -600, bottom  -700; memory)
// The key is the four decimal digits of (top - code): -1017 is "0017" in
// group 16100, -625 is "0025" in group 16101. Group 16000 key "0000" is the
// text of a code outside every range, and key "Errr" the format ("%s (error
// %~d)") that puts a text and its code together.
#ifndef PLINTH_FOUNDATION_ERRORS_H_
#define PLINTH_FOUNDATION_ERRORS_H_

#include "foundation/export.h"

class TString;

// ---- codes produced by the mappings ------------------------------------
constexpr int kErrUnknown = -1001;            // every failed mapping
constexpr int kErrBadParameter = -1010;       // bad parameter or length
constexpr int kErrNotPossible = -1011;        // not possible here or now; host service not installed
constexpr int kErrNotSupported = -1012;
constexpr int kErrBadName = -1013;            // bad file, path or account name
constexpr int kErrTimeout = -1014;
constexpr int kErrAborted = -1015;            // cancelled or aborted
constexpr int kErrBufferTooSmall = -1016;
constexpr int kErrAccessDenied = -1017;       // access and logon failures
constexpr int kErrNoMemory = -1018;           // the system is out of memory
constexpr int kErrNoResources = -1019;        // a system resource or quota is exhausted
constexpr int kErrInUse = -1020;              // in use, sharing violation, busy
constexpr int kErrBrokenPipe = -1021;
constexpr int kErrModuleMissing = -1022;      // a program module is missing or invalid
constexpr int kErrAlreadyExists = -1023;
constexpr int kErrNoMoreItems = -1024;
constexpr int kErrPending = -1025;            // the operation is still in progress
constexpr int kErrFileTooLarge = -1026;
constexpr int kErrClockSkew = -1028;          // a service refused the request's time: the clocks differ too much
constexpr int kErrEncryption = -1032;         // encryption or decryption failed
constexpr int kErrOutOfPaper = -1050;
constexpr int kErrPrintQueueFull = -1051;
constexpr int kErrPrinterUnknown = -1052;
constexpr int kErrInvalidHandle = -1100;
constexpr int kErrNotFound = -1101;           // file, path or object not found
constexpr int kErrDeviceNotPresent = -1102;
constexpr int kErrWriteProtected = -1103;
constexpr int kErrNotReady = -1104;
constexpr int kErrSeek = -1105;
constexpr int kErrSectorNotFound = -1106;
constexpr int kErrReadFault = -1107;
constexpr int kErrWriteFault = -1108;
constexpr int kErrOpenFailed = -1109;
constexpr int kErrDeviceFault = -1110;
constexpr int kErrLockViolation = -1111;
constexpr int kErrTooManyOpenFiles = -1112;
constexpr int kErrWrongDisk = -1113;
constexpr int kErrEndOfFile = -1114;
constexpr int kErrDiskFull = -1115;
constexpr int kErrNetwork = -1116;            // network path or connection failure
constexpr int kErrIoDevice = -1117;           // I/O device error, direction unknown
constexpr int kErrCannotMake = -1118;
constexpr int kErrDirNotEmpty = -1119;
constexpr int kErrCannotCopy = -1120;
constexpr int kErrUnrecognizedVolume = -1121;
constexpr int kErrFileCorrupt = -1123;
constexpr int kErrInvalidData = -1124;
constexpr int kErrNoAssociation = -1126;
constexpr int kErrCrc = -1127;
constexpr int kErrCdl = -1201;                // the CDL component failed without detail

// ---- memory module ------------------------------------------------------
constexpr int kErrMemOutOfMemory = -625;
constexpr int kErrMemSizeTooLarge = -626;

// Mapping tables: `table` of MapError.
constexpr unsigned int kMapTableWindows = 0;
constexpr unsigned int kMapTableCdl = 1;

// A row of a mapping table. `logFlag`: -1 known and silent, 0 ordinary,
// 1 unexpected (worth a warning). A row with code 0 only carries its flag.
struct ErrorMapRowSpec {
  int code;
  unsigned int osError;
  int logFlag;
};

// Maps `osError` through the Windows table (0) or the CDL table (1); any
// other table is an assertion and gives 0. `logFlag`, when given, receives
// the flag of the matching row (0 when none matched). `context` is shown in
// the "unknown" log line.
//
// Windows table: an HRESULT of the Win32 facility is reduced to its low 16
// bits first. 0 means "the calling thread's last OS error"; on this platform
// that is errno, which is mapped by MapErrno instead of the Windows table.
// Logs "MapError: mapped Windows error %d to %E" at 519 on success;
// "MapError: unknown Windows error %d[ <%s>]" at 518 (flag 1) or 514
// (flag 0) otherwise, nothing for a flag -1 row; then returns -1001.
// CDL table: the same with "CDL" in the lines (and "%d,<%s>" for the
// context).
PLINTH_API int MapError(unsigned int osError, unsigned int table, int* logFlag, const TString* context);
// MapError(osError, 0, nullptr, context).
PLINTH_API int MapOsError(unsigned int osError, const TString* context);
// Maps through the Windows table (0: the last OS error) and logs
// "%s, %s, osErr %~d, error %~d" (what, where) or "%s, osErr %~d, error %~d"
// at 514 or 518 by the row's flag; nothing for a silent row.
PLINTH_API int MapAndLogErr(const TString* where, const char* what, int osError);

// True for the codes that may mean another process holds the file open:
// lock violation, not found, invalid handle, in use.
PLINTH_API bool IsPossibleOpenFileError(int code);

// The resource group and key of the text of `code`; 1 when the code lies in
// a range (bottom < code <= top), else 0 and both left untouched.
PLINTH_API int RMGetErrID(int code, unsigned short* group, unsigned int* key);

// The text of `code`: its own text, or the generic text of group 16000 key
// "0000" when it has none. Returns 1 when the code has a text of its own.
PLINTH_API int GetErrorText(int code, TString* out);

// The rows of the tables, for inspection and tests.
PLINTH_API const ErrorMapRowSpec* WindowsErrorTable(int* count);
PLINTH_API const ErrorMapRowSpec* CdlErrorTable(int* count);

#endif  // PLINTH_FOUNDATION_ERRORS_H_
