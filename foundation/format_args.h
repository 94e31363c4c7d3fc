// The argument list of a format string.
//
// Host callbacks are variadic, and the partners that call them are variadic
// too; C cannot hand a va_list on as "...". So a partner reads from its
// va_list exactly the arguments its format consumes, as the conversion
// syntax tells, and calls the callback with them again. Every argument the
// formatter takes is of integer class (int, 64-bit int, character or
// pointer), so each travels as one 64-bit word, which is how the x86-64
// calling conventions pass a variadic integer argument anyway.
//
// Conversion syntax after '%': '-', '0', width (digits or '*'), '.' and
// precision (digits or '*'), '~', ';', 'l' or 'L', conversion character.
// Arguments consumed: '*' one int each; d i u x X F K k c C E Y y one int
// (64-bit with 'l'); '#' two numbers; $ p s S D T I one pointer; % ^ { }
// none. Any other conversion character consumes nothing. A format that
// opens with a brace-balanced "{...}" block has no conversions in it: the
// formatter keeps that block apart (tstring_format.h), and so does the
// scanner. This table is the formatter's own: it reads its arguments
// through FormatConversionArg.
#ifndef PLINTH_FOUNDATION_FORMAT_ARGS_H_
#define PLINTH_FOUNDATION_FORMAT_ARGS_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "foundation/export.h"

// What one conversion takes from the argument list.
enum class FormatArgKind { kNone, kInt, kLong, kPointer, kTwoInts, kTwoLongs };

PLINTH_API FormatArgKind FormatConversionArg(char32_t conversion, bool wide);

// Units of the leading brace-balanced block of `format` (0 when the format
// does not open with "{" or the block never closes).
PLINTH_API size_t FormatLeadingBlockLength(const char16_t* format, size_t length);
PLINTH_API size_t FormatLeadingBlockLength(const char* format, size_t length);

struct FormatArgList {
  static constexpr int kMax = 32;
  uint64_t word[kMax] = {};
  int count = 0;
  bool overflow = false;  // the format asked for more than kMax arguments
};

// Reads the arguments `format` consumes from `ap` into `out`. `length` -1
// reads up to the terminator. Arguments beyond kMax are left in `ap`, and
// `overflow` is set.
PLINTH_API void CollectFormatArgs(const char16_t* format, int length, va_list ap, FormatArgList* out);
PLINTH_API void CollectFormatArgs(const char* format, va_list ap, FormatArgList* out);

namespace plinth_internal {

template <typename R, typename Fn, typename... Lead, size_t... I>
R CallWithWords(Fn fn, const FormatArgList& args, std::index_sequence<I...>, Lead... lead) {
  return fn(lead..., args.word[I]...);
}

template <typename R, int N, typename Fn, typename... Lead>
R DispatchCount(Fn fn, const FormatArgList& args, Lead... lead) {
  if constexpr (N >= FormatArgList::kMax) {
    return CallWithWords<R>(fn, args, std::make_index_sequence<FormatArgList::kMax>(), lead...);
  } else {
    if (args.count <= N) return CallWithWords<R>(fn, args, std::make_index_sequence<N>(), lead...);
    return DispatchCount<R, N + 1>(fn, args, lead...);
  }
}

}  // namespace plinth_internal

// Calls the variadic `fn` with the `lead` arguments, then every collected word.
template <typename R, typename Fn, typename... Lead>
R CallWithFormatArgs(Fn fn, const FormatArgList& args, Lead... lead) {
  return plinth_internal::DispatchCount<R, 0>(fn, args, lead...);
}

#endif  // PLINTH_FOUNDATION_FORMAT_ARGS_H_
