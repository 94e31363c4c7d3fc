// plinth s3: objects and buckets of an S3-compatible service.
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/commands.h"
#include "tools/s3_account.h"
#include "tools/s3_commands.h"

namespace {

const char kUsage[] =
    "usage: plinth s3 COMMAND [options] ARGUMENTS\n"
    "\n"
    "commands:\n"
    "  mb s3://BUCKET                    make a bucket\n"
    "  ls [-r] s3://BUCKET[/PREFIX]      list objects: one level, or all with -r\n"
    "  stat s3://BUCKET/KEY              size, entity tag and dates of an object\n"
    "  put FILE|- s3://BUCKET/KEY        store a file, or standard input\n"
    "  put -r FOLDER s3://BUCKET/PREFIX/ store every file under a folder\n"
    "  get s3://BUCKET/KEY FILE|-        fetch an object into a file, or to standard\n"
    "                                    output\n"
    "  get -r s3://BUCKET/PREFIX/ FOLDER fetch every object under a prefix\n"
    "  cp s3://BUCKET/KEY s3://BUCKET/KEY  copy an object\n"
    "  rm s3://BUCKET/KEY                remove an object\n"
    "\n"
    "options:\n"
    "%s"
    "  --progress, --quiet show the progress of put, get and cp even when standard\n"
    "                      error is not a terminal, or never\n"
    "\n"
    "%s"
    "\n"
    "plinth s3 COMMAND --help shows a command's own usage. Exit code 0 when\n"
    "everything asked was done, 1 when something failed, 2 for a usage error.\n";

struct SubcommandSpec {
  const char* name;
  int (*run)(const S3ArgsSpec&);
  size_t args;
  bool transfer;  // takes --progress and --quiet
  const char* usage;
};

const SubcommandSpec kSubcommands[] = {
    {"mb", S3MakeBucket, 1, false,
     "usage: plinth s3 mb [options] s3://BUCKET\n"
     "\n"
     "Makes the bucket in the region (--region). Fails when it exists already.\n"},
    {"ls", S3List, 1, false,
     "usage: plinth s3 ls [-r] [options] s3://BUCKET[/PREFIX]\n"
     "\n"
     "Lists the objects whose keys begin with PREFIX, one line each: the time of\n"
     "their last change (UTC), their size in bytes and their whole key. Without -r\n"
     "only one level: keys with a further \"/\" after PREFIX are gathered into\n"
     "their folder, listed as DIR. With -r (--recursive) every key.\n"},
    {"stat", S3Stat, 1, false,
     "usage: plinth s3 stat [options] s3://BUCKET/KEY\n"
     "\n"
     "Prints an object's size, entity tag and last change as the service keeps\n"
     "them, and the creation, change and replication dates this library stores\n"
     "beside its objects when they are there.\n"},
    {"put", S3Put, 2, true,
     "usage: plinth s3 put [options] FILE|- s3://BUCKET/KEY\n"
     "       plinth s3 put -r [options] FOLDER s3://BUCKET/PREFIX/\n"
     "\n"
     "Stores FILE, or standard input for -, as the object KEY (a KEY that is empty\n"
     "or ends in \"/\" gets FILE's name added). Large input goes up as a multipart\n"
     "upload, its parts in parallel; a failed or interrupted put leaves no object\n"
     "behind. With -r every file under FOLDER goes to PREFIX plus its path in the\n"
     "folder, several at a time (CloudUploadThreads), each worker keeping its own\n"
     "connection; a file that fails is named and the others go on.\n"},
    {"get", S3Get, 2, true,
     "usage: plinth s3 get [options] s3://BUCKET/KEY FILE|-\n"
     "       plinth s3 get -r [options] s3://BUCKET/PREFIX/ FOLDER\n"
     "\n"
     "Fetches the object into FILE (into a folder under the key's last name), or\n"
     "writes it to standard output for -. The bytes go to a temporary file beside\n"
     "FILE that takes FILE's name only when all of them came: a failed get leaves\n"
     "FILE as it was. With -r every object under PREFIX comes to FOLDER under its\n"
     "path after the prefix (a key that would lead out of FOLDER is refused),\n"
     "several at a time (CloudDownloadThreads).\n"},
    {"cp", S3Copy, 2, true,
     "usage: plinth s3 cp [options] s3://BUCKET/KEY s3://BUCKET/KEY\n"
     "\n"
     "Copies an object: within a bucket the service copies it, between buckets\n"
     "it streams through this process. A target KEY that is empty or ends in \"/\"\n"
     "gets the source's last name added.\n"},
    {"rm", S3Remove, 1, false,
     "usage: plinth s3 rm [options] s3://BUCKET/KEY\n"
     "\n"
     "Removes the object; fails when there is none.\n"},
};

bool IsHelp(const char* arg) { return std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0; }

void PrintUsage(std::FILE* to) { std::fprintf(to, kUsage, kS3FlagsHelp, kS3EnvironmentHelp); }

void PrintSubcommandUsage(const SubcommandSpec& sub, std::FILE* to) {
  std::fprintf(to, "%s\noptions:\n%s", sub.usage, kS3FlagsHelp);
  if (sub.transfer) {
    std::fputs("  --progress, --quiet show progress even when standard error is not a\n"
               "                      terminal, or never\n",
               to);
  }
  std::fprintf(to, "\n%s", kS3EnvironmentHelp);
}

int RunSubcommand(const SubcommandSpec& sub, int argc, char** argv) {
  S3ArgsSpec a;
  a.tool = std::string("s3 ") + sub.name;
  for (int i = 0; i < argc; ++i) {
    if (IsHelp(argv[i])) {
      PrintSubcommandUsage(sub, stdout);
      return 0;
    }
  }
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    std::string why;
    int taken = TakeS3Flag(argc, argv, &i, sub.transfer, &a.flags, &why);
    if (taken < 0) return S3Usage(a.tool, why);
    if (taken > 0) continue;
    if ((sub.run == S3List || sub.run == S3Put || sub.run == S3Get) && (arg == "-r" || arg == "--recursive")) {
      a.recursive = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      return S3Usage(a.tool, "unknown option " + arg);
    } else {
      a.args.push_back(arg);
    }
  }
  if (a.args.size() != sub.args) {
    std::fprintf(stderr, "plinth %s: expected %zu argument%s, got %zu\n\n", a.tool.c_str(), sub.args,
                 sub.args == 1 ? "" : "s", a.args.size());
    PrintSubcommandUsage(sub, stderr);
    return 2;
  }
  if (a.recursive && sub.run == S3Put) return S3PutTree(a);
  if (a.recursive && sub.run == S3Get) return S3GetTree(a);
  return sub.run(a);
}

}  // namespace

int S3Usage(const std::string& tool, const std::string& problem) {
  std::fprintf(stderr, "plinth %s: %s (plinth %s --help shows the usage)\n", tool.c_str(), problem.c_str(),
               tool.c_str());
  return 2;
}

int RunS3Command(int argc, char** argv) {
  if (argc == 0) {
    std::fputs("plinth s3: no command\n\n", stderr);
    PrintUsage(stderr);
    return 2;
  }
  if (IsHelp(argv[0])) {
    PrintUsage(stdout);
    return 0;
  }
  for (const SubcommandSpec& sub : kSubcommands) {
    if (std::strcmp(argv[0], sub.name) == 0) return RunSubcommand(sub, argc - 1, argv + 1);
  }
  std::fprintf(stderr, "plinth s3: unknown command '%s'\n\n", argv[0]);
  PrintUsage(stderr);
  return 2;
}
