// Whole-file reads and crash-safe whole-file writes.
//
// WriteFileAtomic never leaves a half-written target: the new contents go to
// a fresh file beside the target, which is flushed to disk and then renamed
// over the target, after which the folder is flushed so the rename itself
// survives a crash. A crash at any point leaves either the old file or the
// new one, never a mixture. A crash can leave the fresh file behind; its name
// is the target's name followed by ".tmp" and six random characters.
//
// Every failure returns the mapped errno (MapErrno, MapIoErrno) or a library
// code and writes one log line (514).
#ifndef PLINTH_PLATFORM_ATOMIC_FILE_H_
#define PLINTH_PLATFORM_ATOMIC_FILE_H_

#include <cstddef>
#include <string>
#include <vector>

#include "foundation/tstring.h"

namespace platform {

// Reads all of `path` into `out`. A file larger than `maxBytes` is refused
// with kErrFileTooLarge (-1026) before it is read; a missing file answers the
// mapped ENOENT (-1101) without a log line, since callers often expect it.
int ReadWholeFile(const TString& path, size_t maxBytes, std::string* out);

// Replaces (or creates) `path` with `data` as the header describes. An
// existing target's permission bits are kept; a new file gets 0666 less the
// process's umask.
int WriteFileAtomic(const TString& path, const std::string& data);

// Whether `path` names an existing regular file.
bool FileIsPresent(const TString& path);

// Removes the file `path`. With `missingOk` a file that is not there is
// success and logs nothing.
int RemoveFileAt(const TString& path, bool missingOk);

// The names of the regular files in `folder`, unsorted.
int ListFolderFiles(const TString& folder, std::vector<TString>* names);

// Test seam: called with the fresh file's path once it is written and flushed,
// just before the rename. A non-zero answer stops the write there, as a crash
// would: the fresh file stays, the target is untouched, and WriteFileAtomic
// returns kErrAborted (-1015). Null restores normal writing.
using AtomicWriteInterrupt = int (*)(const TString& freshPath);
void SetAtomicWriteInterruptForTesting(AtomicWriteInterrupt interrupt);

}  // namespace platform

#endif  // PLINTH_PLATFORM_ATOMIC_FILE_H_
