// Subcommands of the plinth tool. Each takes the arguments after its name
// and returns the process exit code: 0 success, 1 failure, 2 usage error.
#ifndef PLINTH_TOOLS_COMMANDS_H_
#define PLINTH_TOOLS_COMMANDS_H_

#include <cstring>

// True when --help or -h stands anywhere among the arguments (before a
// "--", after which every word is a name): the command then prints its
// usage on standard output and exits 0, whatever else was given.
inline bool AsksForHelp(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) return false;
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) return true;
  }
  return false;
}

int RunEnvCommand(int argc, char** argv);
int RunErrorCommand(int argc, char** argv);
int RunHashCommand(int argc, char** argv);
int RunIniCommand(int argc, char** argv);
int RunDeviceCommand(int argc, char** argv);
int RunContainerCommand(int argc, char** argv);
int RunPackCommand(int argc, char** argv);
int RunUnpackCommand(int argc, char** argv);
int RunVerifyCommand(int argc, char** argv);
int RunCloudCommand(int argc, char** argv);
int RunS3Command(int argc, char** argv);

#endif  // PLINTH_TOOLS_COMMANDS_H_
