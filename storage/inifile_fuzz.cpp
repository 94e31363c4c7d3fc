// libFuzzer target: the initialisation-file engine over hostile bytes.
//
// Whatever parses must serialise to exactly the bytes it came from, and a
// key set in it must read back, survive a second parse and delete cleanly;
// nothing may crash or read outside the input.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "storage/inifile.h"

namespace {

void Check(bool ok, int line = __builtin_LINE()) {
  if (!ok) {
    std::fprintf(stderr, "inifile_fuzz: check at line %d failed\n", line);
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size copy, so a read past the end is caught.
  std::unique_ptr<char[]> copy(new char[size == 0 ? 1 : size]);
  for (size_t i = 0; i < size; ++i) copy[i] = static_cast<char>(data[i]);
  TIniText ini;
  if (ini.Parse(copy.get(), size) != 0) return 0;
  std::string text(copy.get(), size);
  Check(ini.Serialize() == text);

  // Names read from the text itself.
  for (const std::string& section : ini.SectionNames()) {
    for (const std::string& key : ini.KeyNames(section)) {
      std::string value;
      Check(ini.Get(section, key, &value));
    }
  }

  ini.Set("Fuzz Section", "FuzzKey", "value=1");
  std::string value;
  Check(ini.Get("fuzz section", "fuzzkey", &value) && value == "value=1");
  std::string written = ini.Serialize();
  TIniText again;
  Check(again.Parse(written.data(), written.size()) == 0);
  Check(again.Get("FUZZ SECTION", "FUZZKEY", &value) && value == "value=1");
  Check(again.DeleteKey("fuzz section", "fuzzkey"));
  // Later duplicates of the key come forward one by one.
  size_t bound = written.size();
  while (again.DeleteKey("fuzz section", "fuzzkey")) Check(bound-- > 0);
  Check(!again.Get("fuzz section", "fuzzkey", &value));
  again.DeleteSection("fuzz section");
  return 0;
}
