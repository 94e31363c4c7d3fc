#include "foundation/format_args.h"

FormatArgKind FormatConversionArg(char32_t conversion, bool wide) {
  switch (conversion) {
    case 'd': case 'i': case 'u': case 'x': case 'X': case 'F': case 'K': case 'k':
    case 'c': case 'C': case 'E': case 'Y': case 'y':
      return wide ? FormatArgKind::kLong : FormatArgKind::kInt;
    case '#':
      return wide ? FormatArgKind::kTwoLongs : FormatArgKind::kTwoInts;
    case '$': case 'p': case 's': case 'S': case 'D': case 'T': case 'I':
      return FormatArgKind::kPointer;
    default:
      return FormatArgKind::kNone;
  }
}

namespace {

using ArgKind = FormatArgKind;

template <typename Ch>
size_t LeadingBlock(const Ch* f, size_t n) {
  if (f == nullptr || n == 0 || f[0] != '{') return 0;
  size_t depth = 0;
  for (size_t i = 0; i < n; ++i) {
    if (f[i] == '{') {
      ++depth;
    } else if (f[i] == '}' && --depth == 0) {
      return i + 1;
    }
  }
  return 0;
}

// `ap` by pointer: va_list is an array on some ABIs and a plain pointer on
// others, and every reader must advance the same list.
void Take(ArgKind kind, va_list* ap, FormatArgList* out) {
  auto push = [out](uint64_t w) {
    if (out->count >= FormatArgList::kMax) { out->overflow = true; return false; }
    out->word[out->count++] = w;
    return true;
  };
  if (out->overflow) return;
  switch (kind) {
    case ArgKind::kNone: return;
    case ArgKind::kInt: push(static_cast<uint64_t>(static_cast<int64_t>(va_arg(*ap, int)))); return;
    case ArgKind::kLong: push(static_cast<uint64_t>(va_arg(*ap, long long))); return;
    case ArgKind::kPointer: push(reinterpret_cast<uintptr_t>(va_arg(*ap, void*))); return;
    case ArgKind::kTwoInts:
      if (!push(static_cast<uint64_t>(static_cast<int64_t>(va_arg(*ap, int))))) return;
      push(static_cast<uint64_t>(static_cast<int64_t>(va_arg(*ap, int))));
      return;
    case ArgKind::kTwoLongs:
      if (!push(static_cast<uint64_t>(va_arg(*ap, long long)))) return;
      push(static_cast<uint64_t>(va_arg(*ap, long long)));
      return;
  }
}

template <typename Ch>
void Collect(const Ch* f, size_t n, va_list* ap, FormatArgList* out) {
  size_t i = LeadingBlock(f, n);
  while (i < n) {
    if (f[i] != '%') { ++i; continue; }
    ++i;
    while (i < n && (f[i] == '-' || f[i] == '0')) ++i;
    if (i < n && f[i] == '*') { Take(ArgKind::kInt, ap, out); ++i; }
    while (i < n && f[i] >= '0' && f[i] <= '9') ++i;
    if (i < n && f[i] == '.') {
      ++i;
      if (i < n && f[i] == '*') { Take(ArgKind::kInt, ap, out); ++i; }
      while (i < n && f[i] >= '0' && f[i] <= '9') ++i;
    }
    if (i < n && f[i] == '~') ++i;
    if (i < n && f[i] == ';') ++i;
    bool wide = false;
    if (i < n && (f[i] == 'l' || f[i] == 'L')) { wide = true; ++i; }
    if (i >= n) return;
    Take(FormatConversionArg(static_cast<char32_t>(f[i]), wide), ap, out);
    ++i;
  }
}

}  // namespace

size_t FormatLeadingBlockLength(const char16_t* format, size_t length) { return LeadingBlock(format, length); }
size_t FormatLeadingBlockLength(const char* format, size_t length) { return LeadingBlock(format, length); }

void CollectFormatArgs(const char16_t* format, int length, va_list ap, FormatArgList* out) {
  *out = FormatArgList();
  if (format == nullptr) return;
  size_t n = 0;
  if (length < 0) { while (format[n] != 0) ++n; } else { n = static_cast<size_t>(length); }
  va_list copy;
  va_copy(copy, ap);
  Collect(format, n, &copy, out);
  va_end(copy);
}

void CollectFormatArgs(const char* format, va_list ap, FormatArgList* out) {
  *out = FormatArgList();
  if (format == nullptr) return;
  size_t n = 0;
  while (format[n] != 0) ++n;
  va_list copy;
  va_copy(copy, ap);
  Collect(format, n, &copy, out);
  va_end(copy);
}
