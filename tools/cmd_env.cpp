#include <cstdio>

#include "tools/commands.h"

int RunEnvCommand(int, char**) {
  std::fputs("plinth env: not yet\n", stderr);
  return 1;
}
