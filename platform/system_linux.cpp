#include "platform/system.h"

#include <cpuid.h>
#include <dlfcn.h>
#include <errno.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace platform {
namespace {

std::string Unquote(std::string v) {
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) {
    v = v.substr(1, v.size() - 2);
  }
  return v;
}

unsigned int LeadingNumber(const std::string& s, size_t* at) {
  unsigned int n = 0;
  while (*at < s.size() && s[*at] >= '0' && s[*at] <= '9' && n < 100000) {
    n = n * 10 + static_cast<unsigned int>(s[*at] - '0');
    ++*at;
  }
  return n;
}

}  // namespace

int QueryOsVersion(OsVersionSpec* out) {
  *out = OsVersionSpec();
  struct utsname u;
  if (uname(&u) != 0) return errno;
  out->sysname = u.sysname;
  out->release = u.release;
  out->machine = u.machine;
  size_t at = 0;
  out->major = LeadingNumber(out->release, &at);
  if (at < out->release.size() && out->release[at] == '.') {
    ++at;
    out->minor = LeadingNumber(out->release, &at);
    if (at < out->release.size() && out->release[at] == '.') {
      ++at;
      out->patch = LeadingNumber(out->release, &at);
    }
  }
  std::ifstream in("/etc/os-release");
  if (!in) in.open("/usr/lib/os-release");
  std::string line;
  while (std::getline(in, line)) {
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = line.substr(0, eq);
    if (key == "PRETTY_NAME") out->prettyName = Unquote(line.substr(eq + 1));
    if (key == "VERSION_ID") out->versionId = Unquote(line.substr(eq + 1));
  }
  return 0;
}

std::string EnvironmentValue(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr ? std::string(v) : std::string();
}

std::string UserLocaleName() {
  std::string v;
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    v = EnvironmentValue(name);
    if (!v.empty()) break;
  }
  size_t cut = v.find_first_of(".@");
  if (cut != std::string::npos) v.resize(cut);
  if (v == "C" || v == "POSIX") return std::string();
  return v;
}

std::string HomeFolder() {
  std::string home = EnvironmentValue("HOME");
  if (!home.empty()) return home;
  struct passwd pw;
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(getuid(), &pw, buffer, sizeof buffer, &found) == 0 && found != nullptr && found->pw_dir != nullptr) {
    return found->pw_dir;
  }
  return std::string();
}

std::string UserName() {
  struct passwd pw;
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(getuid(), &pw, buffer, sizeof buffer, &found) == 0 && found != nullptr && found->pw_name != nullptr) {
    return found->pw_name;
  }
  return EnvironmentValue("USER");
}

bool IsServiceAccount() {
  uid_t uid = getuid();
  if (uid >= 1 && uid <= 999) return true;
  if (uid == 0) return false;
  std::string home = HomeFolder();
  return home.empty() || home == "/" || home == "/nonexistent";
}

std::string LibraryFolder() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&LibraryFolder), &info) == 0 || info.dli_fname == nullptr) return std::string();
  char resolved[4096];
  std::string path = realpath(info.dli_fname, resolved) != nullptr ? std::string(resolved) : std::string(info.dli_fname);
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string(".");
  if (slash == 0) return std::string("/");
  return path.substr(0, slash);
}

int FreeDiskBytes(const std::string& path, uint64_t* bytes) {
  *bytes = 0;
  std::string probe = path.empty() ? std::string(".") : path;
  for (;;) {
    struct statvfs st;
    if (statvfs(probe.c_str(), &st) == 0) {
      *bytes = static_cast<uint64_t>(st.f_bavail) * static_cast<uint64_t>(st.f_frsize);
      return 0;
    }
    int err = errno;
    if (err != ENOENT && err != ENOTDIR) return err;
    // The folder may not exist yet: ask its nearest existing ancestor.
    while (probe.size() > 1 && probe.back() == '/') probe.pop_back();
    size_t slash = probe.rfind('/');
    if (slash == std::string::npos) return err;
    probe = slash == 0 ? std::string("/") : probe.substr(0, slash);
  }
}

int EffectiveCapabilities(uint64_t* caps) {
  *caps = 0;
  std::ifstream in("/proc/self/status");
  if (!in) return ENOENT;
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 7, "CapEff:") != 0) continue;
    *caps = std::strtoull(line.c_str() + 7, nullptr, 16);
    return 0;
  }
  return ENODATA;
}

bool UnderVerifier(std::string* what) {
  std::string preload = EnvironmentValue("LD_PRELOAD");
  if (!preload.empty()) {
    *what = "LD_PRELOAD=" + preload;
    return true;
  }
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 10, "TracerPid:") != 0) continue;
    long pid = std::strtol(line.c_str() + 10, nullptr, 10);
    if (pid != 0) {
      *what = "traced by process " + std::to_string(pid);
      return true;
    }
  }
  return false;
}

bool IsCompatProcess() {
  if (sizeof(void*) != 4) return false;
  struct utsname u;
  return uname(&u) == 0 && std::strcmp(u.machine, "x86_64") == 0;
}

uint32_t CpuCapabilities() {
  uint32_t caps = 0;
  unsigned int a = 0, b = 0, c = 0, d = 0;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return 0;
  if (c & bit_SSE4_2) caps |= kCpuSse42;
  if (c & bit_PCLMUL) caps |= kCpuPclmul;
  // Wide registers count only when the kernel saves them (XCR0).
  bool avxState = false;
  bool zmmState = false;
  if (c & bit_OSXSAVE) {
    unsigned int lo = 0, hi = 0;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    avxState = (lo & 0x6) == 0x6;
    zmmState = (lo & 0xE6) == 0xE6;
  }
  if (__get_cpuid_count(7, 0, &a, &b, &c, &d)) {
    if (b & bit_SHA) caps |= kCpuShaNi;
    if (avxState && (b & bit_AVX2)) caps |= kCpuAvx2;
    if (avxState && (c & bit_VPCLMULQDQ)) caps |= kCpuVpclmul;
    if (zmmState && (b & bit_AVX512F)) caps |= kCpuAvx512;
  }
  return caps;
}

}  // namespace platform
