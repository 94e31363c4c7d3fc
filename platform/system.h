// What the operating system tells about itself, the user and the process.
//
// The environment object reads these once; each is the Linux counterpart of
// a Windows query (version record, user language, product type, privileges).
#ifndef PLINTH_PLATFORM_SYSTEM_H_
#define PLINTH_PLATFORM_SYSTEM_H_

#include <cstdint>
#include <string>

namespace platform {

struct OsVersionSpec {
  std::string sysname;       // uname: "Linux"
  std::string release;       // uname: "6.1.0-18-amd64"
  std::string machine;       // uname: "x86_64"
  unsigned int major = 0;    // kernel version numbers from `release`
  unsigned int minor = 0;
  unsigned int patch = 0;
  std::string prettyName;    // os-release PRETTY_NAME, "Debian GNU/Linux 12 (bookworm)"
  std::string versionId;     // os-release VERSION_ID, "12"
};

// Fills `out` from uname(2) and /etc/os-release (or /usr/lib/os-release).
// Returns 0 or an errno value.
int QueryOsVersion(OsVersionSpec* out);

// The user's language tag from LC_ALL, LC_MESSAGES, then LANG ("de_DE.UTF-8"
// gives "de_DE"); "" when none is set or the locale is "C"/"POSIX".
std::string UserLocaleName();

// The value of an environment variable, "" when unset.
std::string EnvironmentValue(const char* name);

// The user's home folder ($HOME, else the password database), and name.
std::string HomeFolder();
std::string UserName();
// True for system accounts that run services: uid in 1..999, or a home of
// "/", "/nonexistent" or none.
bool IsServiceAccount();

// The folder holding the loaded library, without a trailing delimiter.
std::string LibraryFolder();

// Free bytes for an unprivileged user on the volume of `path`, or of its
// nearest existing ancestor. Returns 0 or an errno value.
int FreeDiskBytes(const std::string& path, uint64_t* bytes);

// The effective capability set of the process (CapEff). Returns 0 or errno.
int EffectiveCapabilities(uint64_t* caps);
// The capabilities that let a process restore files it does not own.
constexpr uint64_t kRestoreCapabilities = (1ull << 0) | (1ull << 1) | (1ull << 3);  // CHOWN, DAC_OVERRIDE, FOWNER

// A run-time verifier hooked into the process: an LD_PRELOAD library or a
// tracing debugger. Returns true and describes it in `what`.
bool UnderVerifier(std::string* what);

// True when a 32-bit process runs on a 64-bit kernel.
bool IsCompatProcess();

// CPU features the library chooses code paths by.
constexpr uint32_t kCpuSse42 = 1u << 0;
constexpr uint32_t kCpuPclmul = 1u << 1;
constexpr uint32_t kCpuAvx2 = 1u << 2;
constexpr uint32_t kCpuVpclmul = 1u << 3;
constexpr uint32_t kCpuShaNi = 1u << 4;
constexpr uint32_t kCpuAvx512 = 1u << 5;
uint32_t CpuCapabilities();

}  // namespace platform

#endif  // PLINTH_PLATFORM_SYSTEM_H_
