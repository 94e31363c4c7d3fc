// The loopback S3 servers the test command starts (tests/s3peers): where
// they listen and how to reach them, read from the peers.env file that
// PLINTH_S3_PEERS names.
#ifndef PLINTH_TESTS_S3_S3_PEERS_H_
#define PLINTH_TESTS_S3_S3_PEERS_H_

#include <map>
#include <string>

#include "cloud/cloud_options.h"

class S3Peers {
 public:
  // Reads the file once; false (with the reason in Error()) when missing.
  static const S3Peers& Get();

  bool Ok() const { return m_ok; }
  const std::string& Error() const { return m_error; }
  std::string Value(const std::string& key) const;

  enum Server { kHttp, kHttps, kWrongName };
  // Path-style options for `bucket` on one of the servers, with the keys.
  TCloudOptions Options(Server server, const std::string& bucket, const std::string& path = std::string()) const;

 private:
  S3Peers();
  bool m_ok = false;
  std::string m_error;
  std::map<std::string, std::string> m_values;
};

// A bucket name of its own for each test (3..63 characters).
std::string FreshBucketName(const char* stem);

#endif  // PLINTH_TESTS_S3_S3_PEERS_H_
