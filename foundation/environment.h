// The environment object and the machine check.
//
// The library builds one PlinthEnvType, PlinthEnv, when it is loaded. The
// host calls PlinthEnv.Init(), installs its hooks, may call
// TestPlinthEnvirons() to refuse an unfit machine, and then uses the library.
// Nothing checks that Init ran.
//
// On Linux the fields are filled from the counterparts of the Windows
// queries:
//   osVersion       uname(2) and os-release; `major` is the kernel's major
//                   version, which the "WrVr" requirement is checked against
//   serverFlags     always 0: Linux has no workstation/server product type
//   language        the user's locale (LC_ALL, LC_MESSAGES, LANG) picks the
//                   row by its language part; anything else is en-US
//   displayVersion  os-release PRETTY_NAME
//   isWow64         1 for a 32-bit process on a 64-bit kernel
//   platformProbe   the CPU feature bits of platform/system.h, read by the
//                   checksum and digest code to choose its fast paths
// Folders:
//   installFolder   the folder of the loaded library; SetResourcesFolder
//                   copies it into resourcesFolder (a host may set it first)
//   workFolder      $XDG_CACHE_HOME/plinth20, else ~/.cache/plinth20;
//                   /var/cache/plinth20 for a service account
//   userFolder      $XDG_DATA_HOME/plinth20, else ~/.local/share/plinth20;
//                   /var/lib/plinth20 for a service account (the accounts
//                   "NetworkService", "NetShowServices", "LocalService" by
//                   name, and any system account: uid 1..999 or no home)
// The folders are named, not created.
#ifndef PLINTH_FOUNDATION_ENVIRONMENT_H_
#define PLINTH_FOUNDATION_ENVIRONMENT_H_

#include <cstdint>

#include "files/tfolderloc.h"
#include "foundation/export.h"
#include "foundation/tstring.h"

struct OsVersionSpec {
  unsigned int major = 0;
  unsigned int minor = 0;
  unsigned int build = 0;
  TString systemName;  // "Linux"
  TString release;     // the kernel release text
  TString machine;     // "x86_64"
};

class PLINTH_API PlinthEnvType {
 public:
  PlinthEnvType();
  ~PlinthEnvType();
  PlinthEnvType& operator=(const PlinthEnvType& other);

  void Init();
  void SetResourcesFolder();
  void SetWorkFolder();
  void SetUserFolder();

  OsVersionSpec osVersion;
  unsigned int serverFlags = 0;  // bit 0 "servernt", bit 1 "lanmannt"
  unsigned int langId = 1033;
  TString cultureTag;
  TString languageName;
  TString displayVersion;
  unsigned int isWow64 = 0;
  unsigned int initialised = 0;
  TFolderLoc resourcesFolder;
  TFolderLoc workFolder;
  TFolderLoc userFolder;
  TFolderLoc installFolder;
  unsigned int platformProbe = 0;
};

PLINTH_API extern PlinthEnvType PlinthEnv;

// The product's minimums, from resource group 16020 key "Reqs": four
// unsigned numbers separated by blanks: total physical memory in MB, the
// OS major version, available memory in MB (as MemAvail(1, 100) measures
// it) and disk working space in KB.
struct RequirementsSpec {
  unsigned int physicalMB = 0;
  unsigned int osMajor = 0;
  unsigned int availableMB = 0;
  unsigned int diskKB = 0;
};
// Reads the record; returns 1 when found and well formed, else 0.
PLINTH_API int LoadRequirements(RequirementsSpec* out);

// 0 when the machine is fit; -1 after raising a fatal alert with the reason
// ("NoPM", "WrVr", "NoMe", "NoSp" of group 16020, or "Cannot execute:
// program resources missing").
PLINTH_API int TestPlinthEnvirons();

// Free space for the user on the work folder's volume, in KB (capped at
// 4294967295). Returns 0 or a library error code.
PLINTH_API int GetDiskWorkingSpace(unsigned int* kilobytes);

// Checks that the process can do its work. Bits of *result: 1 a run-time
// verifier is hooked into the process (an LD_PRELOAD library or a tracer),
// 2 the process cannot restore files it does not own (it lacks the
// CAP_CHOWN, CAP_DAC_OVERRIDE and CAP_FOWNER capabilities). `message` gets
// the last problem's description, and `callback`, when given, is called
// with each problem's description. Returns 0 or a library error code.
typedef int (*OSCheckCallback)(TString* message);
PLINTH_API int OSCheck(OSCheckCallback callback, TString* message, int* result);

#endif  // PLINTH_FOUNDATION_ENVIRONMENT_H_
