#include "foundation/format_checked.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "foundation/errors.h"
#include "platform/locale.h"
#include "time/tdate.h"
#include "time/tinterval.h"
#include "tests/test_host.h"

namespace {


TEST(FormatCheckedTest, RendersAsTheFormatter) {
  platform::LocaleSeparatorsSpec english;
  platform::SetLocaleSeparatorsForTesting(&english);
  TString name(u"vol");
  const TString* constName = &name;
  uint8_t ip[4] = {10, 0, 0, 1};
  int64_t big = 1LL << 40;
  unsigned char small = 200;
  TString s = Format(u"%s %S %~d %ld %u %p %E %*d|%c %#", constName, nullptr, -5, big, small, ip, kErrNotFound, 4, 7,
                     u'x', 1, 4);
  EXPECT_EQ(TStringAsString(s), "vol nil -5 1,099,511,627,776 200 10.0.0.1 Not found (error -1101)    7|x 25");
  EXPECT_EQ(s.GetParameterCount(), 10);
  TString format;
  ASSERT_EQ(s.GetFormatString(&format), 0);
  EXPECT_EQ(TStringAsString(format), "%s %S %~d %ld %u %p %E %*d|%c %#");
  // The same through the va_list core.
  TString v;
  v.SPrintf(u"%s %S %~d %ld %u %p %E %*d|%c %#", constName, nullptr, -5, big, static_cast<unsigned>(small), ip,
            kErrNotFound, 4, 7, u'x', 1, 4);
  EXPECT_TRUE(v.Identical(s));
  platform::SetLocaleSeparatorsForTesting(nullptr);
}

TEST(FormatCheckedTest, DatesAndIntervals) {
  platform::LocaleSeparatorsSpec english;
  platform::SetLocaleSeparatorsForTesting(&english);
  TDate d(2024, 12, 31, 23, 59, 58, 0);
  const TInterval iv(1, 2, 3, 4, 5);
  EXPECT_EQ(TStringAsString(Format(u"%.2D %T %I %D", &d, &d, &iv, nullptr)), "2024-12-31 23:59:58 1 02:03:04 ");
  platform::SetLocaleSeparatorsForTesting(nullptr);
}

TEST(FormatCheckedTest, LogLineCheckedForwardsTheSameArguments) {
  TestHost host;
  TString path(u"/a");
  LogLineChecked(514, u"Copy: %s failed, %E (%~ld)", &path, kErrDiskFull, int64_t{-7});
  auto lines = host.LinesWithFormat("Copy: %s failed, %E (%~ld)");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "Copy: /a failed, The disk is full (error -1115) (-7)");
}

// Compile-time probes: a consteval failure inside a requires-expression is
// not a substitution failure, so these check the class traits the literal
// check relies on instead.
TEST(FormatCheckedTest, ClassifiesArgumentTypes) {
  using format_checked::ArgClass;
  using format_checked::ClassOf;
  static_assert(ClassOf<int>() == ArgClass::kInt32);
  static_assert(ClassOf<char16_t>() == ArgClass::kInt32);
  static_assert(ClassOf<int64_t>() == ArgClass::kInt64);
  static_assert(ClassOf<size_t>() == ArgClass::kInt64);
  static_assert(ClassOf<TString*>() == ArgClass::kString);
  static_assert(ClassOf<const TString*>() == ArgClass::kString);
  static_assert(ClassOf<TString>() == ArgClass::kOther);
  static_assert(ClassOf<const char*>() == ArgClass::kObjectPointer);
  static_assert(ClassOf<double>() == ArgClass::kOther);
  static_assert(format_checked::Accepts(format_checked::Want::kString, ArgClass::kNull));
  static_assert(!format_checked::Accepts(format_checked::Want::kString, ArgClass::kObjectPointer));
  static_assert(!format_checked::Accepts(format_checked::Want::kInt32, ArgClass::kInt64));
  static_assert(!format_checked::Accepts(format_checked::Want::kInt64, ArgClass::kInt32));
  SUCCEED();
}

}  // namespace
