// libFuzzer target: DoScanf over hostile inputs and formats.
//
// The first bytes pick up to eight conversion tokens (each with the target
// it needs, so the va_list always matches the format) and literal
// characters; the rest of the data is the input, two bytes per unit. The
// input is copied into a buffer of exactly its length, so any read past it
// is caught.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/tstring.h"
#include "foundation/tstring_scan.h"

namespace {

int Scan(const char16_t* input, int length, const char16_t* format, ...) {
  va_list ap;
  va_start(ap, format);
  int n = DoScanf(input, length, format, -1, ap);
  va_end(ap);
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t tokens = data[0] % 17;
  size_t at = 1;
  std::u16string format;
  int64_t numbers[8] = {};
  TString strings[8];
  char16_t chars[8][10] = {};
  void* targets[8] = {};
  int used = 0;
  static const char16_t* const kConversions[] = {u"%d", u"%ld", u"%u", u"%lu", u"%x", u"%lX", u"%s", u"%c",
                                                 u"%3c", u"%2s", u"%5d", u"%*d", u"%*s", u"%%", u" ", u"%q"};
  for (size_t t = 0; t < tokens && at < size; ++t, ++at) {
    uint8_t b = data[at];
    if (b < 128) {
      // A literal '%' is written "%%": only tokens make conversions.
      format += b == '%' ? std::u16string(u"%%") : std::u16string(1, static_cast<char16_t>(b));
      continue;
    }
    std::u16string text(kConversions[b % 16]);
    bool assigns = text.size() > 1 && text[0] == u'%' && text[1] != u'*' && text != u"%%" && text != u"%q";
    if (assigns && used == 8) break;  // every assigning conversion has its target
    format += text;
    if (!assigns) continue;
    char16_t last = text.back();
    if (last == u's') targets[used] = &strings[used];
    else if (last == u'c') targets[used] = chars[used];
    else targets[used] = &numbers[used];
    ++used;
  }
  size_t units = (size - at) / 2;
  std::unique_ptr<char16_t[]> input(new char16_t[units > 0 ? units : 1]);
  for (size_t i = 0; i < units; ++i) {
    input[i] = static_cast<char16_t>(data[at + 2 * i] | (data[at + 2 * i + 1] << 8));
  }
  int n = Scan(input.get(), static_cast<int>(units), format.c_str(), targets[0], targets[1], targets[2], targets[3],
               targets[4], targets[5], targets[6], targets[7]);
  if (n < 0 || n > used) __builtin_trap();
  return 0;
}
