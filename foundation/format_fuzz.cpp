// libFuzzer target: the formatter over hostile formats.
//
// The data is the format (two bytes per unit) after a first byte that picks
// how many argument words follow it: integers of every size and null
// pointers, given as typed words so that no conversion can follow a pointer
// that is not there.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/tstring.h"
#include "foundation/tstring_format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t count = data[0] % 9;
  size_t at = 1;
  std::vector<FormatArgWord> words;
  for (size_t i = 0; i < count && at + 9 <= size; ++i, at += 9) {
    FormatArgWord w;
    uint8_t k = data[at] % 3;
    w.kind = k == 0 ? FormatArgKind::kInt : k == 1 ? FormatArgKind::kLong : FormatArgKind::kPointer;
    if (w.kind != FormatArgKind::kPointer) std::memcpy(&w.value, data + at + 1, 8);
    words.push_back(w);
  }
  std::u16string format;
  for (; at + 1 < size; at += 2) format += static_cast<char16_t>(data[at] | (data[at + 1] << 8));
  FormatArgSource source(words.data(), static_cast<int>(words.size()));
  TString out;
  int n = FormatWithSource(&out, format.data(), static_cast<int>(format.size()), &source, true);
  if (n != out.GetLength() || n > kFormatMaxOutput) __builtin_trap();
  for (int i = 0; i < out.GetParameterCount(); ++i) {
    const TStringParameter* p = out.GetParameter(i);
    if (p->position < 0 || p->position + p->length > n) __builtin_trap();
  }
  return 0;
}
