// plinth: the command-line tool over libplinth20.
#include <cstdio>
#include <cstring>

#include "tools/commands.h"

namespace {

const char kUsage[] =
    "usage: plinth <command> [arguments]\n"
    "\n"
    "commands:\n"
    "  env                 check this machine against the minimums and print the environment\n"
    "  error CODE          print the text of a library error code\n"
    "  error --os N        map a Windows error number to a library code\n"
    "  error --errno N     map an errno value to a library code\n"
    "  hash [--md5|--sha1|--crc32|--block] FILE...\n"
    "                      digests and checksums of files\n"
    "  ini get FILE SECTION KEY\n"
    "  ini set FILE SECTION KEY VALUE\n"
    "                      read or write a key of an initialisation file\n"
    "  device list FOLDER  the device files of a folder and their sections\n"
    "  container info|ls|verify FILE\n"
    "  container get|rm FILE TYPE ID\n"
    "  container put FILE TYPE ID SRCFILE\n"
    "  container compact|recover FILE NEWFILE\n"
    "                      look into, change, check and repair chunk container files\n"
    "  pack DIR FILE       pack a folder into a new chunk container\n"
    "  pack --to s3://BUCKET/KEY DIR\n"
    "                      pack a folder straight into an object of a bucket\n"
    "  unpack FILE DIR     restore a packed folder under DIR\n"
    "  unpack --from s3://BUCKET/KEY DIR\n"
    "                      restore a packed folder from an object of a bucket\n"
    "  verify FILE|s3://BUCKET/KEY\n"
    "                      check every chunk of a packed folder\n"
    "  cloud uri LOCATION [--flags N] [--option]\n"
    "                      split a cloud storage location into host, bucket and path\n"
    "  s3 mb|ls|stat|put|get|cp|rm ...\n"
    "                      buckets and objects of an S3-compatible service\n"
    "\n"
    "plinth <command> --help shows a command's own usage; plinth --version its version.\n";

struct Command {
  const char* name;
  int (*run)(int argc, char** argv);
};

const Command kCommands[] = {
    {"env", RunEnvCommand},
    {"error", RunErrorCommand},
    {"hash", RunHashCommand},
    {"ini", RunIniCommand},
    {"device", RunDeviceCommand},
    {"container", RunContainerCommand},
    {"pack", RunPackCommand},
    {"unpack", RunUnpackCommand},
    {"verify", RunVerifyCommand},
    {"cloud", RunCloudCommand},
    {"s3", RunS3Command},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    std::printf("plinth %s\n", PLINTH_VERSION);
    return 0;
  }
  if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "help") == 0) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  for (const Command& command : kCommands) {
    if (std::strcmp(argv[1], command.name) == 0) return command.run(argc - 2, argv + 2);
  }
  std::fprintf(stderr, "plinth: unknown command '%s'\n\n%s", argv[1], kUsage);
  return 2;
}
