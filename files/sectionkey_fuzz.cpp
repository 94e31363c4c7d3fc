// libFuzzer target: section-key lookups over hostile text, parsed from
// memory (no file is touched).
//
// The first byte picks how long the section name is and the second the
// key's; both are taken from the text that follows, so lookups often hit.
// Checks what must hold whatever the text: a result of 1 or 0 from
// GetSection, a GetKey result equal to the value's length or 0 with the
// default, and a line walk that ends in kErrEndOfFile.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "files/tsectionkeyfile.h"
#include "foundation/errors.h"
#include "foundation/tstring.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  size_t sectionLength = data[0] % 16;
  size_t keyLength = data[1] % 16;
  data += 2;
  size -= 2;
  if (size > (1u << 20)) return 0;
  const char* text = reinterpret_cast<const char*>(data);
  TString section;
  TString key;
  section.AssignAnsi(text, static_cast<int>(sectionLength < size ? sectionLength : size));
  key.AssignAnsi(text, static_cast<int>(keyLength < size ? keyLength : size));
  const TString fallback(u"<none>");

  TSectionKeyFile file;
  if (file.UseBytes(data, static_cast<uint32_t>(size)) != 0) std::abort();
  TString value;
  for (int round = 0; round < 2; ++round) {
    int found = file.GetSection(section);
    if (found != 0 && found != 1) std::abort();
    int r = file.GetKey(key, fallback, &value);
    if (r != 0 && r != value.GetLength()) std::abort();
    if (r == 0 && !(value == fallback) && !value.IsEmpty()) std::abort();
    r = file.GetSectionKey(key, section, fallback, &value);
    if (r < 0) std::abort();
  }

  TTextFile lines;
  if (lines.UseBytes(data, static_cast<uint32_t>(size)) != 0) std::abort();
  size_t count = 0;
  int code;
  while ((code = lines.ReadLine(&value)) == 0) {
    if (++count > size) std::abort();
  }
  if (code != kErrEndOfFile) std::abort();
  return 0;
}
