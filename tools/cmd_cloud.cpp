// plinth cloud: how the library reads a cloud storage location.
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cloud/cloud_metadata.h"
#include "cloud/cloud_options.h"
#include "foundation/tstring.h"
#include "tools/commands.h"

namespace {

const char kUsage[] =
    "usage: plinth cloud uri LOCATION [--flags N] [--option]\n"
    "\n"
    "Splits a cloud storage location (\"HOST/BUCKET/PATH\", or a virtual host\n"
    "\"BUCKET.s3.REGION.amazonaws.com/PATH\") the way backups read it and prints the\n"
    "host, bucket, path, region, flags and the rebuilt location. A leading https://\n"
    "or http:// is dropped and turns HTTPS on or off.\n"
    "\n"
    "  --flags N   the option bits the location is read with, decimal or 0x hex\n"
    "              (default 0x20: recognise virtual hosts; 0x40 B2, 0x80 Dropbox,\n"
    "              0x200 Azure)\n"
    "  --option    with 0x200, a bare account name is in the US Government cloud\n"
    "\n"
    "Exit code 0 on success, 1 when the location names no host or no bucket, 2 for\n"
    "a usage error.\n";

constexpr char kHttps[] = "https://";
constexpr char kHttp[] = "http://";
constexpr int kDecimal = 10;
constexpr int kHex = 16;

int UsageError(const char* problem, const char* what) {
  std::fprintf(stderr, "plinth cloud: %s%s\n\n%s", problem, what, kUsage);
  return 2;
}

// Decimal or 0x hex, the whole text, within 32 bits.
bool ParseFlags(const char* text, unsigned* out) {
  int base = kDecimal;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = kHex;
    text += 2;
  }
  // strtoull would take blanks and a sign in front.
  if (std::isxdigit(static_cast<unsigned char>(text[0])) == 0) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long value = std::strtoull(text, &end, base);
  if (errno != 0 || *end != '\0' || value > UINT32_MAX) return false;
  *out = static_cast<unsigned>(value);
  return true;
}

bool StartsWithNoCase(const std::string& text, const char* prefix) {
  size_t n = std::strlen(prefix);
  if (text.size() < n) return false;
  for (size_t i = 0; i < n; ++i) {
    char c = text[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != prefix[i]) return false;
  }
  return true;
}

// People paste URLs: the scheme says whether to use HTTPS.
std::string DropScheme(const std::string& location, TCloudOptions* options) {
  size_t start = location.find_first_not_of(" \t\n");
  std::string text = start == std::string::npos ? std::string() : location.substr(start);
  uint32_t flags = options->GetFlags();
  if (StartsWithNoCase(text, kHttps)) {
    options->SetFlags(flags | kCloudUseSSL);
    return text.substr(std::strlen(kHttps));
  }
  if (StartsWithNoCase(text, kHttp)) {
    options->SetFlags(flags & ~kCloudUseSSL);
    return text.substr(std::strlen(kHttp));
  }
  return text;
}

void PrintField(const char* name, const std::string& value) {
  if (value.empty()) {
    std::printf("%s:\n", name);
  } else {
    std::printf("%s: %s\n", name, value.c_str());
  }
}

const char* YesNo(bool value) { return value ? "yes" : "no"; }

int ShowLocation(const char* location, unsigned flags, bool option) {
  TCloudOptions options;
  std::string text = DropScheme(location, &options);
  options.SetFromURI(TStringFromUTF8(text), flags, option);
  if (options.GetHost().IsEmpty()) {
    std::fprintf(stderr, "plinth cloud: '%s' names no host\n", location);
    return 1;
  }
  if (options.GetBucket().IsEmpty()) {
    std::fprintf(stderr, "plinth cloud: '%s' names no bucket\n", location);
    return 1;
  }
  TString region;
  options.GetRegion(&region);
  TString uri;
  options.GetURI(&uri);
  PrintField("host", TStringAsString(options.GetHost()));
  PrintField("bucket", TStringAsString(options.GetBucket()));
  PrintField("path", TStringAsString(options.GetPath()));
  PrintField("region", TStringAsString(region));
  std::printf("flags: 0x%x\n", options.GetFlags());
  std::printf("virtual host: %s\n", YesNo(options.UseVirtualHostBasedURI()));
  std::printf("https: %s\n", YesNo((options.GetFlags() & kCloudUseSSL) != 0));
  PrintField("uri", TStringAsString(uri));
  std::printf("metadata: %s\n", CanUseCloudMetaData(options.GetHost()) ? "reliable" : "not relied on");
  return 0;
}

bool IsHelp(const char* arg) { return std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0; }

}  // namespace

int RunCloudCommand(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (IsHelp(argv[i])) {
      std::fputs(kUsage, stdout);
      return 0;
    }
  }
  if (argc == 0) return UsageError("no subcommand", "");
  if (std::strcmp(argv[0], "uri") != 0) return UsageError("unknown subcommand: ", argv[0]);

  const char* location = nullptr;
  unsigned flags = kCloudDefaultFlags & kCloudURIFlagMask;
  bool option = false;
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strcmp(arg, "--flags") == 0) {
      if (i + 1 == argc) return UsageError("--flags needs a value", "");
      if (!ParseFlags(argv[++i], &flags)) return UsageError("--flags takes a 32-bit number, not ", argv[i]);
    } else if (std::strcmp(arg, "--option") == 0) {
      option = true;
    } else if (arg[0] == '-' && arg[1] == '-') {
      return UsageError("unknown option: ", arg);
    } else if (location != nullptr) {
      return UsageError("more than one location: ", arg);
    } else {
      location = arg;
    }
  }
  if (location == nullptr) return UsageError("no location", "");
  return ShowLocation(location, flags, option);
}
