// What the library writes, the S3 clients people use read byte for byte;
// what they write (multipart included), the library reads.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cloud/tcloudbucket.h"
#include "foundation/tmemory.h"
#include "tests/s3/s3_fixture.h"
#include "tests/temp_dir.h"

namespace {

class S3Interop : public S3Fixture {
 protected:
  void SetUp() override {
    host.SetIni("Options", "CloudMaxTransferMB", "5");
    host.SetIni("Options", "CloudUploadThreads", "3");
    S3Fixture::SetUp();
    endpoint = S3Peers::Get().Value("S3_HTTP_ENDPOINT");
    awsConfig = dir.WriteFile("aws.cfg",
                              "[default]\nregion = us-east-1\ns3 =\n  multipart_threshold = 5MB\n"
                              "  multipart_chunksize = 5MB\n  addressing_style = path\n");
    // The clients read their settings from the environment: give them the
    // server's, and none of this machine's certificate overrides.
    std::string key = S3Peers::Get().Value("S3_ACCESS_KEY"), secret = S3Peers::Get().Value("S3_SECRET_KEY");
    env = "env -u AWS_CA_BUNDLE -u SSL_CERT_FILE -u CURL_CA_BUNDLE -u REQUESTS_CA_BUNDLE -u AWS_PROFILE"
          " AWS_CONFIG_FILE=" + awsConfig + " AWS_SHARED_CREDENTIALS_FILE=/dev/null AWS_ACCESS_KEY_ID=" + key +
          " AWS_SECRET_ACCESS_KEY=" + secret +
          " AWS_EC2_METADATA_DISABLED=true RCLONE_CONFIG_S_TYPE=s3 RCLONE_CONFIG_S_PROVIDER=Other"
          " RCLONE_CONFIG_S_FORCE_PATH_STYLE=true RCLONE_CONFIG_S_ACCESS_KEY_ID=" + key +
          " RCLONE_CONFIG_S_SECRET_ACCESS_KEY=" + secret + " RCLONE_CONFIG_S_REGION=us-east-1"
          " RCLONE_CONFIG_S_ENDPOINT=" + endpoint + " ";
  }

  int Aws(const std::string& args) {
    return Run("/usr/bin/aws --endpoint-url " + endpoint + " --no-cli-pager " + args);
  }
  int Rclone(const std::string& args) {
    return Run("rclone --config /dev/null --retries 1 --s3-upload-cutoff 5M --s3-chunk-size 5M " + args);
  }
  int Run(const std::string& command) {
    std::string full = env + command + " >" + dir.path() + "/out.txt 2>&1";
    int status = std::system(full.c_str());
    if (status != 0) {
      std::ifstream out(dir.path() + "/out.txt");
      std::string text((std::istreambuf_iterator<char>(out)), std::istreambuf_iterator<char>());
      ADD_FAILURE() << command << " exited " << status << ": " << text;
    }
    return status;
  }
  std::vector<uint8_t> ReadLocal(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  std::string Local(const std::string& name, const std::vector<uint8_t>& data) {
    return dir.WriteFile(name, std::string(data.begin(), data.end()));
  }

  TempDir dir;
  std::string endpoint;
  std::string awsConfig;
  std::string env;
};

TEST_F(S3Interop, TheClientsReadWhatTheLibraryWrote) {
  struct Case {
    const char* name;
    size_t size;
  } cases[] = {{"lib-small", 1000}, {"lib-empty", 0}, {"lib multi part", 12 * 1048576 + 7}};
  TCloudBucket bucket(Options(S3Peers::kHttp, ""), nullptr, nullptr, 2, 2);
  for (const Case& c : cases) {
    std::vector<uint8_t> data = TestBytes(c.size, static_cast<uint32_t>(c.size));
    TCloudMetaData meta;
    meta.SetStringValue(eCloudMetaCreated, "2023-04-05T06:07:08.00+0000");
    ASSERT_EQ(bucket.OpenFileForWrite(TStringFromUTF8(c.name), &meta), 0);
    ASSERT_EQ(bucket.WriteToFile(data.data(), data.size()), 0);
    ASSERT_EQ(bucket.CloseFile(), 0);
    std::string from = "s3://" + bucketName + "/" + c.name;
    ASSERT_EQ(Aws("s3 cp '" + from + "' " + dir.path() + "/aws.out"), 0) << c.name;
    EXPECT_TRUE(ReadLocal(dir.path() + "/aws.out") == data) << c.name;
    ASSERT_EQ(Rclone("copyto 's:" + bucketName + "/" + c.name + "' " + dir.path() + "/rclone.out"), 0) << c.name;
    EXPECT_TRUE(ReadLocal(dir.path() + "/rclone.out") == data) << c.name;
    ASSERT_EQ(Aws("s3api head-object --bucket " + bucketName + " --key '" + c.name + "'"), 0);
    std::vector<uint8_t> head = ReadLocal(dir.path() + "/out.txt");
    EXPECT_NE(std::string(head.begin(), head.end()).find("2023-04-05T06:07:08.00+0000"), std::string::npos)
        << c.name << ": the library's date is not in the metadata the client sees";
  }
}

TEST_F(S3Interop, TheLibraryReadsWhatTheClientsWrote) {
  struct Case {
    const char* client;
    const char* name;
    size_t size;
  } cases[] = {
      {"aws", "by-aws-small", 4321},           {"aws", "by-aws-multipart", 11 * 1048576 + 3},
      {"rclone", "by-rclone-small", 1},       {"rclone", "by-rclone-multipart", 13 * 1048576 + 5},
  };
  TCloudBucket bucket(Options(S3Peers::kHttp, ""), nullptr, nullptr, 2, 2);
  for (const Case& c : cases) {
    std::vector<uint8_t> data = TestBytes(c.size, static_cast<uint32_t>(c.size) + 1);
    std::string local = Local(c.name, data);
    std::string to = bucketName + "/" + c.name;
    int status = std::string(c.client) == "aws" ? Aws("s3 cp " + local + " s3://" + to)
                                                : Rclone("copyto " + local + " s:" + to);
    ASSERT_EQ(status, 0) << c.name;
    TMemory memory;
    ASSERT_EQ(bucket.ReadToTMemory(TStringFromUTF8(c.name), &memory), 0) << c.name;
    ASSERT_EQ(memory.GetSize(), data.size()) << c.name;
    EXPECT_EQ(PeerSha1(static_cast<const uint8_t*>(memory.MemPtr()), data.size()),
              PeerSha1(data.data(), data.size()))
        << c.name;
  }
}

}  // namespace
