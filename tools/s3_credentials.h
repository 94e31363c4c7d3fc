// The shared credentials file other S3 clients read too:
//
//   [default]
//   aws_access_key_id = AKIA...
//   aws_secret_access_key = ...
//
// Sections name profiles; "#" and ";" begin comment lines; blanks around
// names and values are dropped.
#ifndef PLINTH_TOOLS_S3_CREDENTIALS_H_
#define PLINTH_TOOLS_S3_CREDENTIALS_H_

#include <string>

// The keys of `profile` in `file`. False with `why` (which never holds a
// key) when the file cannot be read or the profile lacks either key.
bool ReadSharedCredentials(const std::string& file, const std::string& profile, std::string* accessKey,
                           std::string* secretKey, std::string* why);

#endif  // PLINTH_TOOLS_S3_CREDENTIALS_H_
