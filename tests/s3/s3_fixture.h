// A fresh bucket on the loopback S3 server for each test, a connector on
// it, and the helpers the real-server tests share.
#ifndef PLINTH_TESTS_S3_S3_FIXTURE_H_
#define PLINTH_TESTS_S3_S3_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cloud/s3/ts3conn.h"
#include "tests/s3/s3_peers.h"
#include "tests/test_bytes.h"
#include "tests/test_host.h"

// Hex SHA-1, computed apart from the library.
std::string PeerSha1(const uint8_t* data, size_t size);

class S3Fixture : public ::testing::Test {
 protected:
  void SetUp() override;
  // Prints the library's log lines when the test failed.
  void TearDown() override;

  // A connector on the test's bucket (made in SetUp) at `path`.
  std::unique_ptr<TS3Conn> Connect(S3Peers::Server server = S3Peers::kHttp, const std::string& path = "root/");
  TCloudOptions Options(S3Peers::Server server = S3Peers::kHttp, const std::string& path = "root/") const;

  int Put(TS3Conn* conn, const std::string& name, const std::vector<uint8_t>& data,
          const TCloudMetaData* meta = nullptr);
  int Get(TS3Conn* conn, const std::string& name, uint64_t offset, uint32_t length, std::vector<uint8_t>* out);

  TestHost host;
  std::string bucketName;
  std::unique_ptr<TS3Conn> conn;
};

#endif  // PLINTH_TESTS_S3_S3_FIXTURE_H_
