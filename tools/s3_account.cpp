#include "tools/s3_account.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "cloud/cloud_options.h"
#include "foundation/tstring.h"
#include "tools/s3_credentials.h"
#include "tools/tool_host.h"

const char kS3FlagsHelp[] =
    "  --endpoint-url URL  the S3 service: http://HOST:PORT or https://HOST[:PORT]\n"
    "                      (default: AWS_ENDPOINT_URL_S3, AWS_ENDPOINT_URL, else\n"
    "                      Amazon S3 in the region)\n"
    "  --region REGION     the region requests are signed for (default: AWS_REGION,\n"
    "                      AWS_DEFAULT_REGION, else us-east-1)\n"
    "  --profile NAME      the profile of the shared credentials file to use\n";

const char kS3EnvironmentHelp[] =
    "environment:\n"
    "  AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY\n"
    "                      the keys; never taken from the command line\n"
    "  AWS_SHARED_CREDENTIALS_FILE, AWS_PROFILE\n"
    "                      else the keys of a profile (--profile, else \"default\")\n"
    "                      of this file (default ~/.aws/credentials)\n"
    "  AWS_CA_BUNDLE       certificates to trust for HTTPS\n"
    "  PLINTH_CLOUD_MAX_TRANSFER_MB\n"
    "                      upload part size in MiB, 2..64 (default 8)\n"
    "  PLINTH_CLOUD_UPLOAD_THREADS, PLINTH_CLOUD_DOWNLOAD_THREADS\n"
    "                      parts moved in parallel, 1..16\n"
    "  PLINTH_CLOUD_DOWNLOAD_TIER\n"
    "                      download range size, 1..5 (4 to 64 MiB)\n"
    "  PLINTH_CLOUD_CONNECT_SECONDS, PLINTH_CLOUD_STALL_SECONDS\n"
    "                      network time limits\n"
    "  PLINTH_CLOUD_UPLOAD_LIMIT, PLINTH_CLOUD_DOWNLOAD_LIMIT\n"
    "                      bandwidth in bytes per second (512K, 2M)\n"
    "  PLINTH_LOG          a file for the library's log (- for standard error)\n";

namespace {

constexpr char kDefaultRegion[] = "us-east-1";

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

// "http://host:port/" -> host "host:port", https off. False for anything
// with a path, a query or credentials in it.
bool SplitEndpoint(const std::string& url, std::string* host, bool* https) {
  std::string rest = url;
  *https = true;
  if (StartsWith(rest, "https://")) {
    rest.erase(0, 8);
  } else if (StartsWith(rest, "http://")) {
    rest.erase(0, 7);
    *https = false;
  } else if (rest.find("://") != std::string::npos) {
    return false;
  }
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  if (rest.empty() || rest.find_first_of("/?#@ ") != std::string::npos) return false;
  *host = rest;
  return true;
}

// "2M", "512K", "100000": bytes per second, above 0 and below 2 GiB.
bool ParseRate(const std::string& text, int* out) {
  size_t digits = text.find_first_not_of("0123456789");
  if (digits == 0 || text.empty()) return false;
  std::string suffix = digits == std::string::npos ? "" : text.substr(digits);
  uint64_t unit = 0;
  if (suffix.empty()) unit = 1;
  if (suffix == "K" || suffix == "k") unit = 1024;
  if (suffix == "M" || suffix == "m") unit = 1 << 20;
  if (unit == 0 || (digits != std::string::npos && digits > 9) || (digits == std::string::npos && text.size() > 9)) {
    return false;
  }
  uint64_t rate = std::stoull(text.substr(0, digits)) * unit;
  if (rate == 0 || rate > 0x7FFFFFFF) return false;
  *out = static_cast<int>(rate);
  return true;
}

bool Readable(const std::string& file) {
  std::ifstream in(file);
  return static_cast<bool>(in);
}

}  // namespace

int TakeS3Flag(int argc, char** argv, int* i, bool withProgress, S3FlagsSpec* flags, std::string* why) {
  std::string arg = argv[*i];
  std::string* target = nullptr;
  if (arg == "--endpoint-url") target = &flags->endpoint;
  if (arg == "--region") target = &flags->region;
  if (arg == "--profile") target = &flags->profile;
  if (target != nullptr) {
    if (*i + 1 >= argc || argv[*i + 1][0] == '\0') {
      *why = arg + " needs a value";
      return -1;
    }
    *target = argv[++*i];
    return 1;
  }
  if (withProgress && arg == "--progress") {
    flags->progress = ProgressMode::kAlways;
    return 1;
  }
  if (withProgress && (arg == "--quiet" || arg == "-q")) {
    flags->progress = ProgressMode::kNever;
    return 1;
  }
  return 0;
}

TS3Account::~TS3Account() { std::fill(m_secretKey.begin(), m_secretKey.end(), '\0'); }

int TS3Account::Load(const char* tool, const S3FlagsSpec& flags) {
  InstallToolHost();
  TakeEnvironmentSettings();
  m_region = flags.region;
  if (m_region.empty()) m_region = Env("AWS_REGION");
  if (m_region.empty()) m_region = Env("AWS_DEFAULT_REGION");
  if (m_region.empty()) m_region = kDefaultRegion;
  SetToolSetting("CloudRegion", m_region);
  int code = LoadEndpoint(tool, flags);
  if (code != 0) return code;
  int limits[2] = {0, 0};
  const char* const kLimitVariables[2] = {"PLINTH_CLOUD_UPLOAD_LIMIT", "PLINTH_CLOUD_DOWNLOAD_LIMIT"};
  for (int i = 0; i < 2; ++i) {
    std::string text = Env(kLimitVariables[i]);
    if (!text.empty() && !ParseRate(text, &limits[i])) {
      std::fprintf(stderr, "plinth %s: %s=%s is not a rate in bytes per second (like 500000, 512K or 2M)\n", tool,
                   kLimitVariables[i], text.c_str());
      return 2;
    }
  }
  TCloudBucket::SetLimits(limits[0], limits[1]);
  std::string ca = Env("AWS_CA_BUNDLE");
  if (!ca.empty()) {
    if (!Readable(ca)) {
      std::fprintf(stderr, "plinth %s: cannot read the certificates in %s (AWS_CA_BUNDLE): %s\n", tool, ca.c_str(),
                   std::strerror(errno));
      return 1;
    }
    SetToolSetting("CloudCAFile", ca);
  }
  return LoadKeys(tool, flags);
}

int TS3Account::LoadEndpoint(const char* tool, const S3FlagsSpec& flags) {
  const char* source = "--endpoint-url";
  std::string url = flags.endpoint;
  if (url.empty()) {
    source = "AWS_ENDPOINT_URL_S3";
    url = Env(source);
  }
  if (url.empty()) {
    source = "AWS_ENDPOINT_URL";
    url = Env(source);
  }
  if (url.empty()) {
    // Amazon S3 itself: the bucket goes in front of the host name.
    m_host = "s3." + m_region + ".amazonaws.com";
    m_https = true;
    m_virtualHost = true;
    return 0;
  }
  if (!SplitEndpoint(url, &m_host, &m_https)) {
    std::fprintf(stderr,
                 "plinth %s: the endpoint '%s' (%s) is not http://HOST[:PORT] or https://HOST[:PORT]\n", tool,
                 url.c_str(), source);
    return 2;
  }
  m_virtualHost = false;
  return 0;
}

int TS3Account::LoadKeys(const char* tool, const S3FlagsSpec& flags) {
  std::string id = Env("AWS_ACCESS_KEY_ID");
  std::string secret = Env("AWS_SECRET_ACCESS_KEY");
  if (flags.profile.empty() && (!id.empty() || !secret.empty())) {
    if (id.empty() || secret.empty()) {
      std::fprintf(stderr, "plinth %s: %s is set but %s is not\n", tool,
                   id.empty() ? "AWS_SECRET_ACCESS_KEY" : "AWS_ACCESS_KEY_ID",
                   id.empty() ? "AWS_ACCESS_KEY_ID" : "AWS_SECRET_ACCESS_KEY");
      return 1;
    }
    m_accessKey = id;
    m_secretKey = secret;
    std::fill(secret.begin(), secret.end(), '\0');
    return 0;
  }
  std::string profile = flags.profile.empty() ? Env("AWS_PROFILE") : flags.profile;
  if (profile.empty()) profile = "default";
  std::string file = Env("AWS_SHARED_CREDENTIALS_FILE");
  if (file.empty()) {
    std::string home = Env("HOME");
    if (home.empty()) {
      std::fprintf(stderr,
                   "plinth %s: no keys: set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, or "
                   "AWS_SHARED_CREDENTIALS_FILE (HOME is not set)\n",
                   tool);
      return 1;
    }
    file = home + "/.aws/credentials";
  }
  std::string why;
  if (!ReadSharedCredentials(file, profile, &m_accessKey, &m_secretKey, &why)) {
    std::fprintf(stderr, "plinth %s: no keys: %s (or set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY)\n", tool,
                 why.c_str());
    return 1;
  }
  return 0;
}

std::unique_ptr<TCloudBucket> TS3Account::Bucket(const std::string& name, TCloudProgressFn progress,
                                                 void* context) const {
  constexpr unsigned kAttempts = 3;
  TCloudOptions options;
  options.SetHost(TStringFromUTF8(m_host));
  options.SetBucket(TStringFromUTF8(name));
  options.SetAccessKey(TStringFromUTF8(m_accessKey));
  options.SetSecretKey(TStringFromUTF8(m_secretKey));
  uint32_t flags = m_https ? kCloudUseSSL : 0;
  // A dotted name would not match the service's certificate as a host name.
  if (m_virtualHost && name.find('.') == std::string::npos) flags |= kCloudVirtualHostURI;
  options.SetFlags(flags);
  return std::make_unique<TCloudBucket>(options, progress, context, kAttempts, kAttempts);
}
