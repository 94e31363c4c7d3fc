// A packed folder's container as an object in a bucket, for plinth pack
// --to, unpack --from and verify: the container streams through a
// TBucketFile (tools/bucket_file.h) and is never copied to the disk.
#ifndef PLINTH_TOOLS_PACK_CLOUD_H_
#define PLINTH_TOOLS_PACK_CLOUD_H_

#include <cstdint>
#include <memory>
#include <string>

#include "tools/bucket_file.h"
#include "tools/s3_account.h"

// Declared in the order they must be made (and die in reverse): the file
// needs the bucket, the bucket the account.
struct CloudContainerSpec {
  TS3Account account;
  std::unique_ptr<TCloudBucket> bucket;
  std::unique_ptr<TBucketFile> file;
  std::string label;  // s3://BUCKET/KEY
};

// Opens `location` (s3://BUCKET/KEY) to read an existing container, or to
// write a new one (`write`; the key must not exist yet, like a new FILE).
// 0, or the exit code after a message naming `tool`.
int OpenCloudContainer(const char* tool, const std::string& location, const S3FlagsSpec& flags, bool write,
                       uint64_t sizeHint, CloudContainerSpec* out);

// Takes --endpoint-url, --region and --profile at argv[*i] for a pack
// command: as TakeS3Flag without the progress options.
int TakePackCloudFlag(int argc, char** argv, int* i, S3FlagsSpec* flags, std::string* why);

#endif  // PLINTH_TOOLS_PACK_CLOUD_H_
