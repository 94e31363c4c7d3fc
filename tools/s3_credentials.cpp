#include "tools/s3_credentials.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace {

std::string Trim(const std::string& text) {
  size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  size_t last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

}  // namespace

bool ReadSharedCredentials(const std::string& file, const std::string& profile, std::string* accessKey,
                           std::string* secretKey, std::string* why) {
  std::ifstream in(file);
  if (!in) {
    *why = "cannot read the credentials file " + file + ": " + std::strerror(errno);
    return false;
  }
  accessKey->clear();
  secretKey->clear();
  bool inProfile = false;
  bool seen = false;
  std::string line;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line.front() == '[' && line.back() == ']') {
      inProfile = Trim(line.substr(1, line.size() - 2)) == profile;
      seen = seen || inProfile;
      continue;
    }
    size_t equals = line.find('=');
    if (!inProfile || equals == std::string::npos) continue;
    std::string name = Trim(line.substr(0, equals));
    std::string value = Trim(line.substr(equals + 1));
    if (name == "aws_access_key_id") *accessKey = value;
    if (name == "aws_secret_access_key") *secretKey = value;
  }
  if (!seen) {
    *why = "the credentials file " + file + " has no profile [" + profile + "]";
    return false;
  }
  if (accessKey->empty() || secretKey->empty()) {
    *why = "profile [" + profile + "] of " + file + " lacks " +
           (accessKey->empty() ? "aws_access_key_id" : "aws_secret_access_key");
    return false;
  }
  return true;
}
