// A type-checked front over the formatter for formats written in the code.
//
//   TString s = Format(u"%s: %~d files, %E", &name, count, code);
//   LogLineChecked(514, u"Copy: %s failed, %E", &path, code);
//
// The format must be a literal: it is parsed at compile time against the
// argument types, and a mismatch does not compile (the error names
// FormatArgumentMismatch or FormatArgumentCount). Kinds are checked as the
// conversion table of format_args.h reads them: "*" and d i u x X F K k c C
// E Y y an integer of at most 32 bits (64 bits exactly with "l"), "#" two
// of them; s S a TString pointer; D T a TDate pointer; I a TInterval
// pointer; $ p any object pointer; null (nullptr) is accepted wherever a
// pointer is. The rendering is the formatter's own, with nothing changed.
//
// LogLine itself stays variadic: some callers choose their format at run
// time (tables of lines), which a compile-time check cannot take. Those
// calls are covered at run time only where they go through typed words
// (FormatArgSource), which read a wrong kind as 0 instead of following it.
#ifndef PLINTH_FOUNDATION_FORMAT_CHECKED_H_
#define PLINTH_FOUNDATION_FORMAT_CHECKED_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "foundation/format_args.h"
#include "foundation/log.h"
#include "foundation/tstring.h"
#include "foundation/tstring_format.h"

class TDate;
class TInterval;

namespace format_checked {

enum class ArgClass { kInt32, kInt64, kString, kDate, kInterval, kObjectPointer, kNull, kOther };

template <typename T>
constexpr ArgClass ClassOf() {
  using U = std::decay_t<T>;
  if constexpr (std::is_same_v<U, std::nullptr_t>) {
    return ArgClass::kNull;
  } else if constexpr (std::is_pointer_v<U>) {
    using P = std::remove_cv_t<std::remove_pointer_t<U>>;
    if constexpr (std::is_same_v<P, TString>) return ArgClass::kString;
    if constexpr (std::is_same_v<P, TDate>) return ArgClass::kDate;
    if constexpr (std::is_same_v<P, TInterval>) return ArgClass::kInterval;
    if constexpr (std::is_function_v<P>) return ArgClass::kOther;
    return ArgClass::kObjectPointer;
  } else if constexpr (std::is_enum_v<U>) {
    return sizeof(U) <= 4 ? ArgClass::kInt32 : ArgClass::kInt64;
  } else if constexpr (std::is_integral_v<U>) {
    return sizeof(U) <= 4 ? ArgClass::kInt32 : ArgClass::kInt64;
  } else {
    return ArgClass::kOther;
  }
}

// Not constexpr: reaching one in a constant evaluation is the compile error.
void FormatArgumentMismatch();
void FormatArgumentCount();

enum class Want { kInt32, kInt64, kString, kDate, kInterval, kBytes };

constexpr bool Accepts(Want want, ArgClass given) {
  switch (want) {
    case Want::kInt32: return given == ArgClass::kInt32;
    case Want::kInt64: return given == ArgClass::kInt64;
    case Want::kString: return given == ArgClass::kString || given == ArgClass::kNull;
    case Want::kDate: return given == ArgClass::kDate || given == ArgClass::kNull;
    case Want::kInterval: return given == ArgClass::kInterval || given == ArgClass::kNull;
    case Want::kBytes:
      return given == ArgClass::kObjectPointer || given == ArgClass::kString || given == ArgClass::kNull;
  }
  return false;
}

// Walks the format as the formatter does and checks each argument it takes.
consteval void Check(const char16_t* f, size_t n, const ArgClass* given, size_t count) {
  size_t next = 0;
  auto take = [&](Want want) {
    if (next >= count) FormatArgumentCount();
    if (!Accepts(want, given[next])) FormatArgumentMismatch();
    ++next;
  };
  size_t i = 0;
  if (n > 0 && f[0] == u'{') {
    size_t depth = 0;
    for (size_t k = 0; k < n; ++k) {
      if (f[k] == u'{') {
        ++depth;
      } else if (f[k] == u'}' && --depth == 0) {
        i = k + 1;
        break;
      }
    }
  }
  while (i < n) {
    if (f[i++] != u'%') continue;
    while (i < n && (f[i] == u'-' || f[i] == u'0')) ++i;
    if (i < n && f[i] == u'*') { take(Want::kInt32); ++i; }
    while (i < n && f[i] >= u'0' && f[i] <= u'9') ++i;
    if (i < n && f[i] == u'.') {
      ++i;
      if (i < n && f[i] == u'*') { take(Want::kInt32); ++i; }
      while (i < n && f[i] >= u'0' && f[i] <= u'9') ++i;
    }
    if (i < n && f[i] == u'~') ++i;
    if (i < n && f[i] == u';') ++i;
    bool wide = false;
    if (i < n && (f[i] == u'l' || f[i] == u'L')) { wide = true; ++i; }
    if (i >= n) break;
    char16_t c = f[i++];
    Want number = wide ? Want::kInt64 : Want::kInt32;
    switch (c) {
      case u'd': case u'i': case u'u': case u'x': case u'X': case u'F': case u'K': case u'k':
      case u'c': case u'C': case u'E': case u'Y': case u'y':
        take(number);
        break;
      case u'#': take(number); take(number); break;
      case u's': case u'S': take(Want::kString); break;
      case u'D': case u'T': take(Want::kDate); break;
      case u'I': take(Want::kInterval); break;
      case u'$': case u'p': take(Want::kBytes); break;
      default: break;
    }
  }
  if (next != count) FormatArgumentCount();
}

template <typename T>
FormatArgWord WordOf(const T& v) {
  using U = std::decay_t<T>;
  FormatArgWord w;
  if constexpr (std::is_same_v<U, std::nullptr_t>) {
    w.kind = FormatArgKind::kPointer;
  } else if constexpr (std::is_pointer_v<U>) {
    w.kind = FormatArgKind::kPointer;
    w.value = reinterpret_cast<uintptr_t>(v);
  } else {
    w.kind = sizeof(U) <= 4 ? FormatArgKind::kInt : FormatArgKind::kLong;
    if constexpr (std::is_enum_v<U>) {
      w.value = static_cast<uint64_t>(static_cast<int64_t>(static_cast<std::underlying_type_t<U>>(v)));
    } else if constexpr (std::is_signed_v<U>) {
      w.value = static_cast<uint64_t>(static_cast<int64_t>(v));
    } else {
      w.value = static_cast<uint64_t>(v);
    }
  }
  return w;
}

// How an argument travels through "..." once checked.
template <typename T>
auto Passed(const T& v) {
  using U = std::decay_t<T>;
  if constexpr (std::is_same_v<U, std::nullptr_t>) {
    return static_cast<const void*>(nullptr);
  } else if constexpr (std::is_pointer_v<U>) {
    return v;
  } else if constexpr (sizeof(U) <= 4) {
    return static_cast<int>(v);
  } else {
    return static_cast<long long>(v);
  }
}

}  // namespace format_checked

// A format literal checked against the argument types `Args`.
template <typename... Args>
class FormatLiteral {
 public:
  template <size_t N>
  consteval FormatLiteral(const char16_t (&text)[N])  // NOLINT: converts from a literal on purpose
      : m_text(text), m_length(static_cast<int>(N - 1)) {
    // One slot more than the arguments, so the array is never empty.
    const format_checked::ArgClass given[sizeof...(Args) + 1] = {format_checked::ClassOf<Args>()...,
                                                                 format_checked::ArgClass::kOther};
    format_checked::Check(text, N - 1, given, sizeof...(Args));
  }
  const char16_t* Text() const { return m_text; }
  int Length() const { return m_length; }

 private:
  const char16_t* m_text;
  int m_length;
};

// The text of `format` with `args`, parameters and format string recorded.
template <typename... Args>
TString Format(FormatLiteral<std::type_identity_t<Args>...> format, const Args&... args) {
  const FormatArgWord words[sizeof...(Args) + 1] = {format_checked::WordOf(args)..., FormatArgWord()};
  FormatArgSource source(words, static_cast<int>(sizeof...(Args)));
  TString out;
  FormatWithSource(&out, format.Text(), format.Length(), &source, true);
  return out;
}

// LogLine with the arguments checked against the format.
template <typename... Args>
void LogLineChecked(unsigned int selector, FormatLiteral<std::type_identity_t<Args>...> format, const Args&... args) {
  LogLine(selector, format.Text(), format_checked::Passed(args)...);
}

#endif  // PLINTH_FOUNDATION_FORMAT_CHECKED_H_
