#include "tests/s3/s3_fixture.h"

#include <openssl/sha.h>

#include <cstdio>

#include "cloud/s3/s3_encode.h"

std::string PeerSha1(const uint8_t* data, size_t size) {
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(data, size, digest);
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : digest) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
  return out;
}

void S3Fixture::SetUp() {
  ASSERT_TRUE(S3Peers::Get().Ok()) << S3Peers::Get().Error();
  host.SetIni("Options", "CloudCAFile", S3Peers::Get().Value("S3_CA_FILE"));
  bucketName = FreshBucketName("plinth");
  conn = Connect();
  ASSERT_EQ(conn->CreateBucket(TString(), false, 0), TString());
}

void S3Fixture::TearDown() {
  if (!HasFailure()) return;
  for (const LoggedLine& line : host.Lines()) {
    if (line.selector != 519) std::fprintf(stderr, "log %u: %s\n", line.selector, line.text.c_str());
  }
}

TCloudOptions S3Fixture::Options(S3Peers::Server server, const std::string& path) const {
  return S3Peers::Get().Options(server, bucketName, path);
}

std::unique_ptr<TS3Conn> S3Fixture::Connect(S3Peers::Server server, const std::string& path) {
  auto made = std::make_unique<TS3Conn>(Options(server, path));
  made->ReadSettings();
  return made;
}

int S3Fixture::Put(TS3Conn* c, const std::string& name, const std::vector<uint8_t>& data,
                   const TCloudMetaData* meta) {
  CloudUploadSpec put;
  put.name = TStringFromUTF8(name);
  put.meta = meta;
  std::string etag;
  return c->UploadBytes(put, data.data(), data.size(), &etag);
}

int S3Fixture::Get(TS3Conn* c, const std::string& name, uint64_t offset, uint32_t length,
                   std::vector<uint8_t>* out) {
  out->assign(length, 0);
  CloudDownloadSpec fetch;
  fetch.name = TStringFromUTF8(name);
  fetch.offset = offset;
  uint32_t received = 0;
  int code = c->DownloadBytes(fetch, out->data(), length, &received);
  out->resize(received);
  return code;
}
