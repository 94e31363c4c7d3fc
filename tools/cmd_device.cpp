// plinth device: the device files of a folder and their sections.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "storage/inifile.h"
#include "tools/commands.h"

namespace {

const char kUsage[] =
    "usage: plinth device list FOLDER\n"
    "\n"
    "Prints each device file (deviceNN.rdi) of FOLDER in the order of its number,\n"
    "followed by its sections, one per line, indented. Exit code 0 when every\n"
    "file was read, 1 when the folder or a file could not be, 2 for a usage error.\n";

// The number of "device<digits>.rdi", or false for any other name.
bool DeviceNumber(const std::string& name, unsigned long long* number) {
  const std::string prefix = "device", suffix = ".rdi";
  if (name.size() <= prefix.size() + suffix.size()) return false;
  if (name.compare(0, prefix.size(), prefix) != 0) return false;
  if (name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) return false;
  std::string digits = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
  if (digits.size() > 18) return false;
  unsigned long long n = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return false;
    n = n * 10 + static_cast<unsigned long long>(c - '0');
  }
  *number = n;
  return true;
}

std::string ErrorText(int code) {
  TString text;
  GetErrorText(code, &text);
  return TStringAsString(text);
}

int ListDevices(const char* folder) {
  std::error_code ec;
  std::filesystem::directory_iterator it(folder, ec);
  if (ec) {
    std::fprintf(stderr, "plinth device: cannot list %s: %s\n", folder, ec.message().c_str());
    return 1;
  }
  std::vector<std::pair<unsigned long long, std::string>> files;
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    if (!it->is_regular_file(ec)) continue;
    std::string name = it->path().filename().string();
    unsigned long long number = 0;
    if (DeviceNumber(name, &number)) files.emplace_back(number, name);
  }
  if (ec) {
    std::fprintf(stderr, "plinth device: cannot list %s: %s\n", folder, ec.message().c_str());
    return 1;
  }
  std::sort(files.begin(), files.end());
  int rc = 0;
  for (const auto& file : files) {
    TString path = TStringFromUTF8((std::filesystem::path(folder) / file.second).string());
    std::vector<TString> sections;
    int code = GetProfileSectionNames(&path, &sections);
    if (code != 0) {
      std::fprintf(stderr, "plinth device: cannot read %s: %d: %s\n", file.second.c_str(), code,
                   ErrorText(code).c_str());
      rc = 1;
      continue;
    }
    std::printf("%s\n", file.second.c_str());
    for (const TString& section : sections) std::printf("  [%s]\n", TStringAsString(section).c_str());
  }
  return rc;
}

}  // namespace

int RunDeviceCommand(int argc, char** argv) {
  if (AsksForHelp(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[0], "list") == 0) return ListDevices(argv[1]);
  std::fputs(kUsage, stderr);
  return 2;
}
