// Where the tool's S3 requests go, and with which keys.
//
// Endpoint: --endpoint-url, else AWS_ENDPOINT_URL_S3, else AWS_ENDPOINT_URL,
// else Amazon S3 in the region (virtual-host addressing). "http://" turns
// HTTPS off, "https://" or no scheme on; a ":port" is kept. A named endpoint
// is addressed path-style (HOST/BUCKET/KEY), which every S3-compatible
// server takes.
// Region: --region, else AWS_REGION, else AWS_DEFAULT_REGION, else
// us-east-1; the library signs for it (setting CloudRegion).
// Keys: AWS_ACCESS_KEY_ID with AWS_SECRET_ACCESS_KEY, else a profile of the
// shared credentials file (AWS_SHARED_CREDENTIALS_FILE, else
// ~/.aws/credentials): --profile, else AWS_PROFILE, else "default". Naming
// a profile with --profile passes over the key variables. Keys are never
// taken from the command line: other users see it in the process list.
// Trust: AWS_CA_BUNDLE names a file of certificates to trust (setting
// CloudCAFile).
#ifndef PLINTH_TOOLS_S3_ACCOUNT_H_
#define PLINTH_TOOLS_S3_ACCOUNT_H_

#include <memory>
#include <string>

#include "cloud/tcloudbucket.h"
#include "tools/transfer_progress.h"

struct S3FlagsSpec {
  std::string endpoint;
  std::string region;
  std::string profile;
  ProgressMode progress = ProgressMode::kAuto;
};

// Takes the common option at argv[*i], moving *i past its value: 1 when
// taken, 0 when argv[*i] is none of them, -1 with `why` for a usage error.
// `withProgress` takes --progress and --quiet too.
int TakeS3Flag(int argc, char** argv, int* i, bool withProgress, S3FlagsSpec* flags, std::string* why);

// The lines of the options and environment for a command's help.
extern const char kS3FlagsHelp[];
extern const char kS3EnvironmentHelp[];

class TS3Account {
 public:
  TS3Account() = default;
  ~TS3Account();
  TS3Account(const TS3Account&) = delete;
  TS3Account& operator=(const TS3Account&) = delete;

  // Reads the endpoint, region, keys and trust, and installs the tool as
  // the library's host. 0; or, with a message on standard error naming
  // `tool`, 2 for a malformed endpoint and 1 for missing or unreadable
  // keys or certificates.
  int Load(const char* tool, const S3FlagsSpec& flags);

  // A bucket of this account; `progress` may be null.
  std::unique_ptr<TCloudBucket> Bucket(const std::string& name, TCloudProgressFn progress, void* context) const;

  const std::string& Region() const { return m_region; }

 private:
  int LoadEndpoint(const char* tool, const S3FlagsSpec& flags);
  int LoadKeys(const char* tool, const S3FlagsSpec& flags);

  std::string m_host;
  bool m_https = true;
  bool m_virtualHost = false;
  std::string m_region;
  std::string m_accessKey;
  std::string m_secretKey;
};

#endif  // PLINTH_TOOLS_S3_ACCOUNT_H_
