#include "foundation/hooks.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>
#include <thread>
#include <vector>

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

namespace {

TEST(AlertDefaultTest, FormatsParsesAndRaisesFatal) {
  TestHost host;
  HookAlertf(0, nullptr);
  HookAlertf(1, nullptr);
  TString fmt(u"!/src/1/2/3/4/Cannot open %s (%d)");
  TString name(u"vol.dat");
  Alertf(&fmt, &name, 5);
  Alertf(7, &fmt, &name, -6);
  auto alerts = host.FatalAlerts();
  ASSERT_EQ(alerts.size(), 2u);
  EXPECT_EQ(alerts[0], "Cannot open vol.dat (5)");
  EXPECT_EQ(alerts[1], "Cannot open vol.dat (-6)");
}

int64_t g_alertKind = 0;
int64_t HostAlert1(int kind, TString* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  g_alertKind = kind + va_arg(ap, int);
  va_end(ap);
  return 42;
}

TEST(AlertDefaultTest, InstalledHostReplacesTheDefault) {
  TestHost host;
  HookAlertf(1, reinterpret_cast<PlinthCallback>(&HostAlert1));
  TString fmt(u"%d");
  EXPECT_EQ(Alertf(3, &fmt, 100), 42);
  EXPECT_EQ(g_alertKind, 103);
  EXPECT_TRUE(host.FatalAlerts().empty());
  HookAlertf(1, nullptr);
}

TEST(AlertDefaultTest, OutOfRangeIndexesAreAssertions) {
  TestHost host;
  HookAlertf(2, reinterpret_cast<PlinthCallback>(&HostAlert1));
  HookAlertf(-1, reinterpret_cast<PlinthCallback>(&HostAlert1));
  HookQueryf(6, reinterpret_cast<PlinthCallback>(&HostAlert1));
  HookQueryf(5, nullptr);
  auto sources = host.AssertSources();
  ASSERT_EQ(sources.size(), 3u);
  for (const std::string& s : sources) EXPECT_EQ(s, "plinthalert");
}

TEST(QueryDefaultTest, EverySlotEndsInAFatalAlertAnsweringZero) {
  TestHost host;
  for (int i = 0; i < 6; ++i) HookQueryf(i, nullptr);
  TString title(u"t");
  TString fmt(u"?Question %d");
  unsigned int answer = 9;
  EXPECT_EQ(Queryf(1, &answer, &title, &fmt, 0), 0);
  EXPECT_EQ(Queryf(1, 5, &title, &fmt, 1), 0);
  EXPECT_EQ(Queryf(1, static_cast<TDate*>(nullptr), &fmt, 2), 0);
  EXPECT_EQ(Queryf(1, &fmt, 3), 0);
  EXPECT_EQ(Queryf(1, &answer, 1u, 2u, &fmt, 4), 0);
  EXPECT_EQ(Queryf(1, 2, 3, &title, &fmt, 5), 0);
  auto alerts = host.FatalAlerts();
  ASSERT_EQ(alerts.size(), 6u);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(alerts[i], "Question " + std::to_string(i));
}

TEST(HostServiceDefaultsTest, NotInstalledServicesAnswerAsDocumented) {
  HookGetIniString(nullptr);
  TString value(u"stale");
  EXPECT_EQ(GetIniString(u"Options", u"CloudUploadThreads", &value), -1011);
  EXPECT_TRUE(value.IsEmpty());
  TString fmt(u"%d");
  EXPECT_EQ(ForkAndLogHelper(0, &fmt, nullptr, 1), -1011);
  ReleaseForkHelper(5);
  EXPECT_EQ(ThreadMsgHelper(1, 2), 0);
  EXPECT_EQ(TriggerScript(nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(AssembleScriptArgs(nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(ProcessScriptErr(0, 0, nullptr, nullptr, nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(DebugLogGet(2), 0);
  EXPECT_EQ(DebugLogTest(514), 0);
  EXPECT_EQ(FolderInstance(nullptr), 0);
}

TEST(HostServiceDefaultsTest, IniHookAnswersAfterClearing) {
  TestHost host;
  host.SetIni("Options", "PreferOldS3Api", "1");
  TString value(u"stale");
  EXPECT_EQ(GetIniString(u"Options", u"PreferOldS3Api", &value), 0);
  EXPECT_EQ(TStringAsString(value), "1");
  EXPECT_EQ(GetIniString(u"Options", u"Missing", &value), -1011);
  EXPECT_TRUE(value.IsEmpty());
}

TEST(DebugLogTest, CharFormsAndCallerInfo) {
  TestHost host;
  DebugLogf(519, "plain %d and %ld", 7, 1LL << 40);
  DebugLogfWithCallerInfo(514, "dir%/file.cpp", 12, "x=%u", 3u);
  auto lines = host.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].format, "plain %d and %ld");
  EXPECT_EQ(lines[0].args, (std::vector<uint64_t>{7u, 1ull << 40}));
  EXPECT_EQ(lines[1].selector, 514u);
  EXPECT_EQ(lines[1].format, "%s(%~d): x=%u");
  ASSERT_EQ(lines[1].args.size(), 3u);
  EXPECT_EQ(lines[1].args[1], 12u);
  EXPECT_EQ(lines[1].args[2], 3u);
}

TEST(DebugLogTest, AssertionNamesSourceAndLineAndSavesTheLog) {
  static int saves = 0;
  HookLogSaveAssert([]() -> int64_t { return ++saves; });
  TestHost host;
  Debug("tmemory", 420, 0);
  EXPECT_EQ(saves, 1);
  auto lines = host.LinesWithFormat("ASSERT: %s, line %~d");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].selector, 518u);
  EXPECT_EQ(lines[0].text, "ASSERT: tmemory, line 420");
  HookLogSaveAssert(nullptr);
}

TEST(HookSlotsThreaded, DefaultsInstallOnceUnderRace) {
  TestHost host;
  HookQueryf(3, nullptr);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      TString fmt(u"q");
      for (int i = 0; i < 200; ++i) Queryf(0, &fmt);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(host.FatalAlerts().size(), 800u);
}

}  // namespace
