#include "foundation/format_args.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <vector>

namespace {

std::vector<uint64_t> Collected(const char16_t* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  FormatArgList args;
  CollectFormatArgs(fmt, -1, ap, &args);
  va_end(ap);
  return std::vector<uint64_t>(args.word, args.word + args.count);
}

bool Overflows(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  FormatArgList args;
  CollectFormatArgs(fmt, ap, &args);
  va_end(ap);
  return args.overflow && args.count == FormatArgList::kMax;
}

TEST(FormatArgsTest, ConsumesWhatEachConversionTakes) {
  int x = 0;
  auto p = reinterpret_cast<uint64_t>(&x);
  // Widths and precisions from '*' come first, in order.
  EXPECT_EQ(Collected(u"%-0*.*~;ld|%%|%^|%{%}", 5, 2, -3LL),
            (std::vector<uint64_t>{5, 2, static_cast<uint64_t>(-3LL)}));
  EXPECT_EQ(Collected(u"%d %#", -1, 20, 40),
            (std::vector<uint64_t>{static_cast<uint64_t>(-1LL), 20, 40}));
  EXPECT_EQ(Collected(u"%l# %s %D %$", 1LL << 33, 2LL, &x, &x, &x),
            (std::vector<uint64_t>{1ull << 33, 2, p, p, p}));
  EXPECT_EQ(Collected(u"%c%E%K%lk%X", u'A', -1017, 12u, 1LL << 40, 255u),
            (std::vector<uint64_t>{u'A', static_cast<uint64_t>(-1017LL), 12, 1ull << 40, 255}));
  // Unknown conversions and a dangling '%' consume nothing.
  EXPECT_EQ(Collected(u"%q %w %", 1), std::vector<uint64_t>{});
}

TEST(FormatArgsTest, LeadingBlockHoldsNoConversions) {
  // The block is skipped, nested braces counted; braces later are text.
  EXPECT_EQ(Collected(u"{id %d {%s}}%d {%d}", 7, 8), (std::vector<uint64_t>{7, 8}));
  // A block that never closes is no block: its conversions count.
  EXPECT_EQ(Collected(u"{%d", 9), std::vector<uint64_t>{9});
  EXPECT_EQ(FormatLeadingBlockLength(u"{a{b}c}d", 8), 7u);
  EXPECT_EQ(FormatLeadingBlockLength("x{a}", 4), 0u);
  EXPECT_EQ(FormatLeadingBlockLength(u"{{}", 3), 0u);
  EXPECT_EQ(Collected(u"%Y %ly", 1, 1LL << 40), (std::vector<uint64_t>{1, 1ull << 40}));
}

TEST(FormatArgsTest, StopsAtTheLimit) {
  EXPECT_TRUE(Overflows("%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, 7,
                        8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31,
                        32, 33));
  EXPECT_FALSE(Overflows("%d%d", 1, 2));
}

int64_t Sum(int lead, ...) {
  va_list ap;
  va_start(ap, lead);
  int64_t total = lead;
  for (int i = 0; i < lead; ++i) total += va_arg(ap, long long);
  va_end(ap);
  return total;
}

TEST(FormatArgsTest, CallsWithEveryCount) {
  for (int n = 0; n <= FormatArgList::kMax; ++n) {
    FormatArgList args;
    int64_t expected = n;
    for (int i = 0; i < n; ++i) {
      args.word[i] = static_cast<uint64_t>(i * 1000003LL);
      expected += i * 1000003LL;
    }
    args.count = n;
    EXPECT_EQ(CallWithFormatArgs<int64_t>(&Sum, args, n), expected) << n;
  }
}

}  // namespace
