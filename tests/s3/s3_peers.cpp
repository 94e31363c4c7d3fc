#include "tests/s3/s3_peers.h"

#include <atomic>
#include <cstdlib>
#include <fstream>

#include <unistd.h>

const S3Peers& S3Peers::Get() {
  static const S3Peers peers;
  return peers;
}

S3Peers::S3Peers() {
  const char* file = std::getenv("PLINTH_S3_PEERS");
  if (file == nullptr || *file == '\0') {
    m_error = "PLINTH_S3_PEERS is not set: run these tests through ctest, which starts the servers";
    return;
  }
  std::ifstream in(file);
  if (!in) {
    m_error = std::string("cannot read ") + file;
    return;
  }
  std::string line;
  while (std::getline(in, line)) {
    size_t eq = line.find('=');
    if (eq != std::string::npos) m_values[line.substr(0, eq)] = line.substr(eq + 1);
  }
  m_ok = m_values.count("S3_HTTP_PORT") != 0 && m_values.count("S3_HTTPS_PORT") != 0;
  if (!m_ok) m_error = std::string(file) + " names no servers";
}

std::string S3Peers::Value(const std::string& key) const {
  auto it = m_values.find(key);
  return it == m_values.end() ? std::string() : it->second;
}

TCloudOptions S3Peers::Options(Server server, const std::string& bucket, const std::string& path) const {
  TCloudOptions options;
  switch (server) {
    case kHttp:
      options.SetHost(TStringFromUTF8("127.0.0.1:" + Value("S3_HTTP_PORT")));
      options.SetFlags(kCloudVirtualHostAware);
      break;
    case kHttps:
      options.SetHost(TStringFromUTF8("localhost:" + Value("S3_HTTPS_PORT")));
      options.SetFlags(kCloudDefaultFlags);
      break;
    case kWrongName:
      options.SetHost(TStringFromUTF8("localhost:" + Value("S3_WRONGNAME_PORT")));
      options.SetFlags(kCloudDefaultFlags);
      break;
  }
  options.SetBucket(TStringFromUTF8(bucket));
  options.SetPath(TStringFromUTF8(path));
  options.SetAccessKey(TStringFromUTF8(Value("S3_ACCESS_KEY")));
  options.SetSecretKey(TStringFromUTF8(Value("S3_SECRET_KEY")));
  return options;
}

std::string FreshBucketName(const char* stem) {
  static std::atomic<int> counter{0};
  return std::string(stem) + "-" + std::to_string(getpid()) + "-" + std::to_string(counter.fetch_add(1));
}
