// plinth error: the text of a library error code, and the library code of an
// operating-system error.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "platform/os_error.h"
#include "tools/commands.h"

namespace {

const char kUsage[] =
    "usage: plinth error CODE          print a library error code and its text\n"
    "       plinth error --os N        map a Windows error number (decimal or 0x hex) to a library code\n"
    "       plinth error --errno N     map an errno value to a library code\n";

// Parses all of `text` as a number in [low, high]; decimal, or hex after "0x".
bool ParseNumber(const char* text, long long low, long long high, long long* out) {
  if (text == nullptr || *text == '\0' || std::strchr(" \t\n\v\f\r", *text) != nullptr) return false;
  const char* digits = text;
  bool negative = false;
  if (*digits == '-' || *digits == '+') negative = *digits++ == '-';
  int base = 10;
  if (digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    base = 16;
    digits += 2;
  }
  if (*digits == '\0' || *digits == '-' || *digits == '+' || *digits == ' ') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long magnitude = std::strtoull(digits, &end, base);
  if (errno != 0 || *end != '\0' || magnitude > static_cast<unsigned long long>(LLONG_MAX)) return false;
  long long value = negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
  if (value < low || value > high) return false;
  *out = value;
  return true;
}

std::string TextOf(int code, bool* known) {
  TString text;
  *known = GetErrorText(code, &text) != 0;
  return TStringAsString(text);
}

int Refuse(const char* what, const char* value) {
  std::fprintf(stderr, "plinth error: invalid %s '%s'\n%s", what, value, kUsage);
  return 2;
}

int PrintCode(const char* arg) {
  long long code = 0;
  if (!ParseNumber(arg, INT_MIN, INT_MAX, &code)) return Refuse("error code", arg);
  bool known = false;
  std::string text = TextOf(static_cast<int>(code), &known);
  if (!known) {
    std::fprintf(stderr, "plinth error: %lld is not a library error code\n", code);
    return 1;
  }
  std::printf("%lld: %s\n", code, text.c_str());
  return 0;
}

int PrintMapped(const char* kind, long long number, int code) {
  bool known = false;
  std::string text = TextOf(code, &known);
  std::printf("%s %lld: library code %d: %s\n", kind, number, code, text.c_str());
  if (code != kErrUnknown) return 0;
  std::fprintf(stderr, "plinth error: %s %lld has no library code of its own\n", kind, number);
  return 1;
}

}  // namespace

int RunErrorCommand(int argc, char** argv) {
  if (AsksForHelp(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 1 && std::strncmp(argv[0], "--", 2) != 0) return PrintCode(argv[0]);
  if (argc == 2 && std::strcmp(argv[0], "--os") == 0) {
    long long number = 0;
    // 0 would mean "the last error of this process", which is not a question.
    if (!ParseNumber(argv[1], 1, UINT_MAX, &number)) return Refuse("Windows error number", argv[1]);
    return PrintMapped("Windows error", number, MapOsError(static_cast<unsigned int>(number), nullptr));
  }
  if (argc == 2 && std::strcmp(argv[0], "--errno") == 0) {
    long long number = 0;
    if (!ParseNumber(argv[1], 0, INT_MAX, &number)) return Refuse("errno value", argv[1]);
    return PrintMapped("errno", number, MapErrno(static_cast<int>(number), nullptr));
  }
  std::fputs(kUsage, stderr);
  return 2;
}
