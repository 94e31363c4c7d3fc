#include "foundation/hooks.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>

#include "foundation/tstring.h"
#include "tests/test_host.h"

namespace {

TEST(AlertParseTest, StripsMarksAndFiveFields) {
  TestHost host;
  TString text(u"!#/a/b/c/d/e/Disk is full");
  AlertParseDefault(&text);
  EXPECT_EQ(TStringAsString(text), "Disk is full");
  EXPECT_EQ(host.AssertCount(), 0);
}

TEST(AlertParseTest, LeavesPlainTextAlone) {
  TString text(u"Disk ! is full");
  AlertParseDefault(&text);
  EXPECT_EQ(TStringAsString(text), "Disk ! is full");
}

TEST(AlertParseTest, TruncatedFieldsAreAnAssertion) {
  TestHost host;
  TString text(u"?/a/b/c");
  AlertParseDefault(&text);
  EXPECT_EQ(host.AssertCount(), 1);
  EXPECT_EQ(host.AssertSources().at(0), "plinthalert");
}

TEST(HookDefaultsTest, ThreadCountAndEnumWithoutHook) {
  EXPECT_EQ(GetThreadCount(), 1);
  TThdDescriptor d;
  d.threadId = 77;
  EXPECT_EQ(EnumThreads(0, &d), 1);
  EXPECT_NE(d.threadId, 77u);
  EXPECT_NE(d.threadId, 0u);
}

TEST(HookDefaultsTest, FatalAlertLogsAtSelector515) {
  HookFatalAlert(nullptr);
  TestHost host;
  HookFatalAlert(nullptr);  // the default, not the test host's recorder
  TString text(u"boom");
  FatalAlert(&text);
  auto lines = host.LinesWithFormat("FATAL ALERT: %s");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].selector, 515u);
  EXPECT_EQ(lines[0].text, "FATAL ALERT: boom");
}

int64_t g_seenCode = 0;
std::string g_seenText;

int64_t CapturingDebugLog(unsigned int, TString* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int a = va_arg(ap, int);
  TString* s = va_arg(ap, TString*);
  long long b = va_arg(ap, long long);
  va_end(ap);
  g_seenCode = a + b;
  g_seenText = TStringAsString(*s) + TStringAsString(*fmt);
  return 0;
}

TEST(HookForwardingTest, ArgumentsReachTheHostUnchanged) {
  TestHost host;
  HookDebugLogf(&CapturingDebugLog);
  TString fmt(u"%d %s %ld");
  TString arg(u"x:");
  DebugLogf(514, &fmt, -5, &arg, 10000000000LL);
  EXPECT_EQ(g_seenCode, 10000000000LL - 5);
  EXPECT_EQ(g_seenText, "x:%d %s %ld");
  TestHost again;  // reinstall the recording hook for later tests
}

}  // namespace
