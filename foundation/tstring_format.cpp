#include "foundation/tstring_format.h"

#include <cstdint>
#include <cstdio>

#include "foundation/format_args.h"
#include "foundation/tstring.h"

namespace {

void AppendAscii(TString* out, const char* text, int width, bool left, bool zero) {
  int n = 0;
  while (text[n] != 0) ++n;
  bool negative = text[0] == '-';
  if (!left && zero && negative) {
    *out += u'-';
    ++text;
    --n;
    --width;
  }
  for (int i = n; !left && i < width; ++i) *out += zero ? u'0' : u' ';
  for (int i = 0; i < n; ++i) *out += static_cast<char16_t>(static_cast<unsigned char>(text[i]));
  for (int i = n; left && i < width; ++i) *out += u' ';
}

}  // namespace

void VFormat(TString* out, const char16_t* f, int length, va_list ap) {
  out->Clear();
  if (f == nullptr) return;
  int n = length;
  if (n < 0) {
    n = 0;
    while (f[n] != 0) ++n;
  }
  FormatArgList args;
  CollectFormatArgs(f, n, ap, &args);
  int next = 0;
  auto take = [&args, &next]() -> uint64_t { return next < args.count ? args.word[next++] : 0; };
  int i = 0;
  while (i < n) {
    if (f[i] != u'%') {
      *out += f[i++];
      continue;
    }
    ++i;
    bool left = false;
    bool zero = false;
    while (i < n && (f[i] == u'-' || f[i] == u'0')) (f[i++] == u'-' ? left : zero) = true;
    int width = 0;
    if (i < n && f[i] == u'*') {
      width = static_cast<int>(static_cast<int64_t>(take()));
      ++i;
    }
    while (i < n && f[i] >= u'0' && f[i] <= u'9') width = width * 10 + (f[i++] - u'0');
    if (width > 4096) width = 4096;
    if (i < n && f[i] == u'.') {
      ++i;
      if (i < n && f[i] == u'*') {
        take();
        ++i;
      }
      while (i < n && f[i] >= u'0' && f[i] <= u'9') ++i;
    }
    if (i < n && f[i] == u'~') ++i;
    if (i < n && f[i] == u';') ++i;
    bool wide = false;
    if (i < n && (f[i] == u'l' || f[i] == u'L')) {
      wide = true;
      ++i;
    }
    if (i >= n) break;
    char16_t c = f[i++];
    char buffer[64];
    switch (c) {
      case u'd': case u'i': case u'E': {
        int64_t v = static_cast<int64_t>(take());
        if (!wide) v = static_cast<int32_t>(v);
        std::snprintf(buffer, sizeof buffer, "%lld", static_cast<long long>(v));
        AppendAscii(out, buffer, width, left, zero);
        break;
      }
      case u'u': case u'x': case u'X': case u'F': case u'K': case u'k': {
        uint64_t v = take();
        if (!wide) v = static_cast<uint32_t>(v);
        const char* form = c == u'x' ? "%llx" : c == u'X' ? "%llX" : "%llu";
        std::snprintf(buffer, sizeof buffer, form, static_cast<unsigned long long>(v));
        AppendAscii(out, buffer, width, left, zero);
        break;
      }
      case u'#': {
        uint64_t part = take();
        uint64_t whole = take();
        std::snprintf(buffer, sizeof buffer, "%llu/%llu", static_cast<unsigned long long>(part),
                      static_cast<unsigned long long>(whole));
        AppendAscii(out, buffer, width, left, zero);
        break;
      }
      case u'c': case u'C':
        *out += static_cast<char16_t>(take());
        break;
      case u's': case u'S': {
        const auto* s = reinterpret_cast<const TString*>(static_cast<uintptr_t>(take()));
        if (s == nullptr) {
          *out += u"nil";
        } else {
          for (int pad = s->GetLength(); !left && pad < width; ++pad) *out += u' ';
          *out += *s;
          for (int pad = s->GetLength(); left && pad < width; ++pad) *out += u' ';
        }
        break;
      }
      case u'$': case u'p': case u'D': case u'T': case u'I':
        take();
        break;
      default:
        *out += c;
        break;
    }
  }
}
