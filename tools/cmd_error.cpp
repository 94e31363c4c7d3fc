#include <cstdio>

#include "tools/commands.h"

int RunErrorCommand(int, char**) {
  std::fputs("plinth error: not yet\n", stderr);
  return 1;
}
