// "s3://BUCKET/KEY": how the tool names an object, a bucket or a prefix.
#ifndef PLINTH_TOOLS_S3_LOCATION_H_
#define PLINTH_TOOLS_S3_LOCATION_H_

#include <string>

struct S3LocationSpec {
  std::string bucket;
  std::string key;  // may be empty (the bucket itself, or its top level)
};

bool IsS3Location(const std::string& text);

// False with `why` when `text` is no s3:// location or names no usable
// bucket.
bool ParseS3Location(const std::string& text, S3LocationSpec* out, std::string* why);

std::string S3LocationText(const S3LocationSpec& location);

// The last path element of `key` ("a/b/c.txt" -> "c.txt"); empty for a key
// ending in "/".
std::string S3KeyBaseName(const std::string& key);

#endif  // PLINTH_TOOLS_S3_LOCATION_H_
