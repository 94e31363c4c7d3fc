// plinth ini: read and write one key of an initialisation file.
#include <cstdio>
#include <cstring>
#include <string>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "storage/inifile.h"
#include "tools/commands.h"

namespace {

const char kUsage[] =
    "usage: plinth ini get FILE SECTION KEY         print the value of KEY in SECTION\n"
    "       plinth ini set FILE SECTION KEY VALUE   set KEY in SECTION, creating what is missing\n"
    "\n"
    "Section names and keys are compared without regard to case. Exit code 0 on\n"
    "success, 1 when the key is missing or the file cannot be read or written, 2 for\n"
    "a usage error.\n";

std::string ErrorText(int code) {
  TString text;
  GetErrorText(code, &text);
  return TStringAsString(text);
}

int Fail(const char* what, const char* file, int code) {
  std::fprintf(stderr, "plinth ini: cannot %s %s: %d: %s\n", what, file, code, ErrorText(code).c_str());
  return 1;
}

}  // namespace

int RunIniCommand(int argc, char** argv) {
  if (AsksForHelp(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 4 && std::strcmp(argv[0], "get") == 0) {
    TString path = TStringFromUTF8(argv[1]), section = TStringFromUTF8(argv[2]), key = TStringFromUTF8(argv[3]);
    TString value;
    bool found = false;
    int code = UGetPrivateProfileString(&section, &key, nullptr, &value, &path, &found);
    if (code != 0) return Fail("read", argv[1], code);
    if (!found) {
      std::fprintf(stderr, "plinth ini: no key '%s' in section '%s' of %s\n", argv[3], argv[2], argv[1]);
      return 1;
    }
    std::printf("%s\n", TStringAsString(value).c_str());
    return 0;
  }
  if (argc == 5 && std::strcmp(argv[0], "set") == 0) {
    TString path = TStringFromUTF8(argv[1]), section = TStringFromUTF8(argv[2]), key = TStringFromUTF8(argv[3]);
    TString value = TStringFromUTF8(argv[4]);
    int code = UWritePrivateProfileString(&section, &key, &value, &path);
    if (code != 0) return Fail("write", argv[1], code);
    return 0;
  }
  std::fputs(kUsage, stderr);
  return 2;
}
