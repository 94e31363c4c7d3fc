// The subcommands of plinth s3, given their parsed arguments.
#ifndef PLINTH_TOOLS_S3_COMMANDS_H_
#define PLINTH_TOOLS_S3_COMMANDS_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cloud/cloud_metadata.h"
#include "tools/s3_account.h"
#include "tools/s3_location.h"

struct S3ArgsSpec {
  std::string tool;  // "s3 ls", for messages
  S3FlagsSpec flags;
  std::vector<std::string> args;
  bool recursive = false;
};

int S3MakeBucket(const S3ArgsSpec& a);
int S3List(const S3ArgsSpec& a);
int S3Stat(const S3ArgsSpec& a);
int S3Remove(const S3ArgsSpec& a);
int S3Copy(const S3ArgsSpec& a);
int S3Put(const S3ArgsSpec& a);
int S3Get(const S3ArgsSpec& a);
// put -r FOLDER s3://BUCKET/PREFIX/ and get -r s3://BUCKET/PREFIX/ FOLDER.
int S3PutTree(const S3ArgsSpec& a);
int S3GetTree(const S3ArgsSpec& a);

// Copies an object of `size` bytes between buckets through this process,
// with the library's dates of `sourceMeta`.
int S3StreamCopy(const S3ArgsSpec& a, const TS3Account& account, const S3LocationSpec& from,
                 const TCloudMetaData& sourceMeta, uint64_t size, const S3LocationSpec& to);

// Runs a single request again while its failure may pass (not for a
// missing object, which will stay missing), three times at most, and not
// once the user interrupted.
int S3Request(const std::function<int()>& request);

// Prints "plinth TOOL: PROBLEM" and answers 2, the usage exit code.
int S3Usage(const std::string& tool, const std::string& problem);

#endif  // PLINTH_TOOLS_S3_COMMANDS_H_
