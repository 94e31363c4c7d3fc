// plinth env: checks this machine against the product's minimums and prints
// the environment the library sees.
#include <cstdio>
#include <cstring>
#include <string>

#include "foundation/environment.h"
#include "foundation/hooks.h"
#include "foundation/memory.h"
#include "foundation/tstring.h"
#include "platform/system.h"
#include "tools/commands.h"

namespace {

const char kUsage[] =
    "usage: plinth env\n"
    "\n"
    "Runs the machine check and prints the operating system, the user's language,\n"
    "the library's folders, memory figures and the work folder's free space.\n"
    "Exit code 0 when the machine meets the minimums, 1 when it does not.\n";

int64_t PrintFatalAlert(TString* text) {
  std::printf("machine check:      FAILED: %s\n", text != nullptr ? TStringAsString(*text).c_str() : "");
  return 0;
}

std::string Text(const TString& s) { return TStringAsString(s); }

std::string Caps(unsigned int probe) {
  std::string out;
  const std::pair<unsigned int, const char*> names[] = {
      {platform::kCpuSse42, "sse4.2"}, {platform::kCpuPclmul, "pclmul"}, {platform::kCpuAvx2, "avx2"},
      {platform::kCpuVpclmul, "vpclmul"}, {platform::kCpuShaNi, "sha"}, {platform::kCpuAvx512, "avx512"}};
  for (const auto& [bit, name] : names) {
    if (probe & bit) out += std::string(out.empty() ? "" : " ") + name;
  }
  return out.empty() ? "none" : out;
}

}  // namespace

int RunEnvCommand(int argc, char** argv) {
  if (AsksForHelp(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc > 0) {
    std::fprintf(stderr, "plinth env: unexpected argument '%s'\n\n%s", argv[0], kUsage);
    return 2;
  }
  PlinthEnv.Init();
  PlinthEnv.SetResourcesFolder();
  HookFatalAlert(&PrintFatalAlert);

  const PlinthEnvType& env = PlinthEnv;
  std::printf("operating system:   %s %s (%s), version %u.%u.%u\n", Text(env.osVersion.systemName).c_str(),
              Text(env.osVersion.release).c_str(), Text(env.osVersion.machine).c_str(), env.osVersion.major,
              env.osVersion.minor, env.osVersion.build);
  std::printf("display version:    %s\n", Text(env.displayVersion).c_str());
  std::printf("language:           %u %s %s\n", env.langId, Text(env.cultureTag).c_str(), Text(env.languageName).c_str());
  std::printf("server flags:       %u\n", env.serverFlags);
  std::printf("resources folder:   %s\n", Text(env.resourcesFolder.GetPath()).c_str());
  std::printf("work folder:        %s\n", Text(env.workFolder.GetPath()).c_str());
  std::printf("user folder:        %s\n", Text(env.userFolder.GetPath()).c_str());
  std::printf("cpu capabilities:   %s\n", Caps(env.platformProbe).c_str());
  std::printf("MemTotalMB:         %llu\n", static_cast<unsigned long long>(MemTotalMB()));
  std::printf("MemPhysAvailMB:     %llu\n", static_cast<unsigned long long>(MemPhysAvailMB()));
  std::printf("MemAvail(1, 100):   %llu bytes\n", static_cast<unsigned long long>(MemAvail(1, 100)));
  unsigned int kb = 0;
  int code = GetDiskWorkingSpace(&kb);
  if (code == 0) {
    std::printf("disk working space: %u KB\n", kb);
  } else {
    std::printf("disk working space: error %d\n", code);
  }
  RequirementsSpec need;
  if (LoadRequirements(&need)) {
    std::printf("requirements:       %u MB memory, OS %u, %u MB available, %u KB disk\n", need.physicalMB, need.osMajor,
                need.availableMB, need.diskKB);
  }
  int fit = TestPlinthEnvirons();
  if (fit == 0) std::printf("machine check:      passed\n");
  return fit == 0 ? 0 : 1;
}
