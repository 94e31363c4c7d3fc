#include "foundation/environment.h"

#include <climits>
#include <cstdarg>
#include <string>

#include "foundation/errors.h"
#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/memory.h"
#include "foundation/resources.h"
#include "platform/os_error.h"
#include "platform/system.h"

PlinthEnvType PlinthEnv;

namespace {

constexpr unsigned short kStartupGroup = 16020;

struct LanguageRow {
  const char* prefix;
  unsigned int langId;
  const char16_t* culture;
  const char16_t* name;
};

// "Espaniol" is the product's own spelling.
const LanguageRow kLanguages[] = {
    {"de", 1031, u"de-DE", u"Deutscher"}, {"es", 3082, u"es-ES", u"Espaniol"},
    {"fr", 1036, u"fr-FR", u"Fran\u00E7ais"}, {"it", 1040, u"it-IT", u"Italiano"},
    {"ja", 1041, u"ja-JP", u"Japanese"},
};
const LanguageRow kFallbackLanguage = {"en", 1033, u"en-US", u"English"};

const ResourceTextSpec kStartupTexts[] = {
    {kStartupGroup, "Reqs", u"512 3 256 102400"},
    {kStartupGroup, "NoPM", u"Cannot execute: this computer has too little memory (%~u MB are required)."},
    {kStartupGroup, "WrVr", u"Cannot execute: this operating system is too old (version %~u or later is required)."},
    {kStartupGroup, "NoMe", u"Cannot execute: not enough memory is available (%~u MB are required)."},
    {kStartupGroup, "NoSp",
     u"Cannot execute: not enough free disk space for the work folder (%~u MB are required)."},
};
const ResourceTableRegistrar kStartupRegistrar(kStartupTexts, sizeof kStartupTexts / sizeof kStartupTexts[0]);

bool IsNamedServiceAccount(const std::string& user) {
  return user == "NetworkService" || user == "NetShowServices" || user == "LocalService";
}

TFolderLoc FolderUnder(const std::string& base, const char* leaf) {
  return TFolderLoc(TStringFromUTF8(base + "/" + leaf));
}

// A service account gets `serviceFolder`; anyone else plinth20 under the
// absolute folder in `xdgVariable`, else `homeLeaf` under the home folder.
TFolderLoc ChooseFolder(const char* serviceFolder, const char* xdgVariable, const char* homeLeaf) {
  if (platform::IsServiceAccount() || IsNamedServiceAccount(platform::UserName())) {
    return TFolderLoc(TStringFromUTF8(serviceFolder));
  }
  std::string xdg = platform::EnvironmentValue(xdgVariable);
  if (!xdg.empty() && xdg[0] == '/') return FolderUnder(xdg, "plinth20");
  std::string home = platform::HomeFolder();
  if (home.empty()) return TFolderLoc(TString(u"/tmp/plinth20"));
  return FolderUnder(home, homeLeaf);
}


bool ParseUnsigned(const std::string& text, size_t* at, unsigned int* value) {
  while (*at < text.size() && (text[*at] == ' ' || text[*at] == '\t')) ++*at;
  size_t start = *at;
  unsigned long long v = 0;
  while (*at < text.size() && text[*at] >= '0' && text[*at] <= '9') {
    v = v * 10 + static_cast<unsigned long long>(text[*at] - '0');
    if (v > UINT_MAX) return false;
    ++*at;
  }
  *value = static_cast<unsigned int>(v);
  return *at > start;
}

}  // namespace

PlinthEnvType::PlinthEnvType() {
  platform::OsVersionSpec v;
  if (platform::QueryOsVersion(&v) == 0) {
    osVersion.major = v.major;
    osVersion.minor = v.minor;
    osVersion.build = v.patch;
    osVersion.systemName = TStringFromUTF8(v.sysname);
    osVersion.release = TStringFromUTF8(v.release);
    osVersion.machine = TStringFromUTF8(v.machine);
    displayVersion = TStringFromUTF8(v.prettyName);
  }
  serverFlags = 0;
  std::string locale = platform::UserLocaleName();
  const LanguageRow* row = &kFallbackLanguage;
  for (const LanguageRow& candidate : kLanguages) {
    if (locale.compare(0, 2, candidate.prefix) == 0 && (locale.size() == 2 || locale[2] == '_' || locale[2] == '-')) {
      row = &candidate;
      break;
    }
  }
  langId = row->langId;
  cultureTag = row->culture;
  languageName = row->name;
  installFolder.Set(TStringFromUTF8(platform::LibraryFolder()));
}

PlinthEnvType::~PlinthEnvType() = default;

PlinthEnvType& PlinthEnvType::operator=(const PlinthEnvType& other) = default;

void PlinthEnvType::Init() {
  isWow64 = platform::IsCompatProcess() ? 1 : 0;
  initialised = 1;
  SetWorkFolder();
  SetUserFolder();
  platformProbe = platform::CpuCapabilities();
}

void PlinthEnvType::SetResourcesFolder() { resourcesFolder = installFolder; }

void PlinthEnvType::SetWorkFolder() {
  workFolder = ChooseFolder("/var/cache/plinth20", "XDG_CACHE_HOME", ".cache/plinth20");
}

void PlinthEnvType::SetUserFolder() {
  userFolder = ChooseFolder("/var/lib/plinth20", "XDG_DATA_HOME", ".local/share/plinth20");
}

int LoadRequirements(RequirementsSpec* out) {
  *out = RequirementsSpec();
  TString text;
  if (!LoadResourceText(kStartupGroup, ResKey("Reqs"), &text)) return 0;
  std::string s = TStringAsString(text);
  size_t at = 0;
  unsigned int v[4];
  for (unsigned int& value : v) {
    if (!ParseUnsigned(s, &at, &value)) return 0;
  }
  while (at < s.size() && (s[at] == ' ' || s[at] == '\t')) ++at;
  if (at != s.size()) return 0;
  out->physicalMB = v[0];
  out->osMajor = v[1];
  out->availableMB = v[2];
  out->diskKB = v[3];
  return 1;
}

int TestPlinthEnvirons() {
  if (!PlinthEnv.userFolder.IsValid()) PlinthEnv.SetUserFolder();
  if (!PlinthEnv.workFolder.IsValid()) PlinthEnv.SetWorkFolder();

  uint64_t totalMB = MemTotalMB();
  RequirementsSpec need;
  TString reason;
  if (!LoadRequirements(&need)) {
    reason = u"Cannot execute: program resources missing";
  } else if (totalMB < need.physicalMB) {
    reason.SPrintf(kStartupGroup, static_cast<int>(ResKey("NoPM")), need.physicalMB);
  } else if (PlinthEnv.osVersion.major < need.osMajor) {
    reason.SPrintf(kStartupGroup, static_cast<int>(ResKey("WrVr")), need.osMajor);
  } else if (MemAvail(1, 100) / (1024 * 1024) < need.availableMB) {
    reason.SPrintf(kStartupGroup, static_cast<int>(ResKey("NoMe")), need.availableMB);
  } else {
    unsigned int diskKB = 0;
    if (GetDiskWorkingSpace(&diskKB) != 0 || diskKB < need.diskKB) {
      reason.SPrintf(kStartupGroup, static_cast<int>(ResKey("NoSp")), need.diskKB >> 10);
    }
  }
  if (reason.IsEmpty()) return 0;
  FatalAlert(&reason);
  return -1;
}

int GetDiskWorkingSpace(unsigned int* kilobytes) {
  *kilobytes = 0;
  if (!PlinthEnv.workFolder.IsValid()) PlinthEnv.SetWorkFolder();
  const TString& path = PlinthEnv.workFolder.GetPath();
  uint64_t bytes = 0;
  int err = platform::FreeDiskBytes(TStringAsString(path), &bytes);
  if (err != 0) {
    int code = MapErrno(err, &path);
    LogLine(514, u"GetDiskWorkingSpace: cannot read the free space of <%s>, error %E", &path, code);
    return code;
  }
  uint64_t kb = bytes / 1024;
  *kilobytes = kb > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(kb);
  return 0;
}

int OSCheck(OSCheckCallback callback, TString* message, int* result) {
  int found = 0;
  TString problem;
  auto report = [&](int bit, const TString& text) {
    found |= bit;
    problem = text;
    if (callback != nullptr) callback(&problem);
  };
  std::string verifier;
  if (platform::UnderVerifier(&verifier)) {
    report(1, TStringFromUTF8("A run-time verifier is active in this process: " + verifier));
  }
  uint64_t caps = 0;
  if (platform::EffectiveCapabilities(&caps) != 0) {
    LogLine(514, u"USufficientPermissions: LookupPrivilegeValueW failed");
    report(2, TString(u"The process privileges cannot be read."));
  } else if ((caps & platform::kRestoreCapabilities) != platform::kRestoreCapabilities) {
    LogLine(514, u"USufficientPermissions: AdjustTokenPrivileges failed");
    report(2, TString(u"The process lacks the privilege to restore files it does not own."));
  }
  if (message != nullptr) *message = problem;
  if (result != nullptr) *result = found;
  return 0;
}
