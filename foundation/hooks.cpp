#include "foundation/hooks.h"

#include <atomic>
#include <cstdarg>
#include <string>

#include "foundation/format_args.h"
#include "foundation/log.h"
#include "foundation/tstring.h"
#include "platform/thread.h"

namespace {

// Generic slot: a function pointer stored as an atomic word.
template <typename Fn>
class Slot {
 public:
  Fn Get() const { return reinterpret_cast<Fn>(m_word.load(std::memory_order_relaxed)); }
  void Set(Fn fn) { m_word.store(reinterpret_cast<uintptr_t>(fn), std::memory_order_relaxed); }
  // Installs `fallback` when empty and returns what the slot then holds.
  Fn GetOrInstall(Fn fallback) {
    uintptr_t expected = 0;
    m_word.compare_exchange_strong(expected, reinterpret_cast<uintptr_t>(fallback), std::memory_order_relaxed);
    return Get();
  }

 private:
  std::atomic<uintptr_t> m_word{0};
};

Slot<PlinthCallback> g_alert[2];
Slot<AlertParseFn> g_alertParse;
Slot<PlinthCallback> g_query[6];
Slot<FatalAlertFn> g_fatalAlert;
Slot<DebugLogfFn> g_debugLogf;
Slot<DebugLogfCharFn> g_debugLogfChar;
Slot<DebugLogGetFn> g_debugLogGet;
Slot<DebugLogSetFn> g_debugLogSet;
Slot<DebugLogTestFn> g_debugLogTest;
Slot<LogSaveFn> g_logSave;
Slot<LogSaveFn> g_logSaveAssert;
Slot<GetIniStringFn> g_getIniString;
Slot<ForkHelperFn> g_fork;
Slot<ReleaseForkHelperFn> g_releaseFork;
Slot<ThreadMsgProcFn> g_threadMsg;
Slot<SuspendOtherThreadsFn> g_suspend;
Slot<ScriptFn> g_triggerScript;
Slot<ScriptFn> g_assembleScriptArgs;
Slot<ProcessScriptErrFn> g_processScriptErr;
Slot<AnalyticsTrackEventFn> g_trackEvent;
Slot<AnalyticsAddInfoTFn> g_addInfoT;
Slot<AnalyticsAddInfoCFn> g_addInfoC;
Slot<GetThreadCountFn> g_threadCount;
Slot<EnumThreadsFn> g_enumThreads;
Slot<SplashCloseFn> g_splashClose;
Slot<FolderInstanceFn> g_folderInstance;

constexpr int kNotInstalled = -1011;

// Formats `fmt` with `ap`, strips the alert prefix and raises it as fatal.
void RaiseFormatted(TString* fmt, va_list ap) {
  TString text;
  if (fmt != nullptr) text.VSPrintf(fmt->GetConstBuffer(), fmt->GetLength(), ap);
  AlertParse(&text);
  FatalAlert(&text);
}

// The built-in default of every alert and query slot, installed in an empty
// slot on first use; `Lead` are the arguments before the format.
template <typename... Lead>
int64_t DefaultRaise(Lead..., TString* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  RaiseFormatted(fmt, ap);
  va_end(ap);
  return 0;
}

template <typename Fn>
PlinthCallback Generic(Fn fn) {
  return reinterpret_cast<PlinthCallback>(fn);
}

// Calls `fn` with `lead`, then the arguments `fmt` consumes from `ap`.
template <typename Fn, typename... Lead>
int64_t Forward(Fn fn, TString* fmt, va_list ap, Lead... lead) {
  FormatArgList args;
  if (fmt != nullptr) CollectFormatArgs(fmt->GetConstBuffer(), fmt->GetLength(), ap, &args);
  return CallWithFormatArgs<int64_t>(fn, args, lead...);
}

// Both script partners answer 0 while no host handles scripts.
int64_t ForwardScript(ScriptFn fn, TString* event, TString* a, TString* b, TString* fmt, va_list ap) {
  if (fn == nullptr) return 0;
  return Forward(fn, fmt, ap, event, a, b, fmt);
}

bool IsAlertMark(char16_t c) {
  return c == u'!' || c == u'#' || c == u'*' || c == u'+' || c == u'<' || c == u'>' || c == u'?';
}

}  // namespace

// ---- installers -----------------------------------------------------------

void HookAlertf(int index, PlinthCallback fn) {
  if (index < 0 || index > 1) {
    Debug("plinthalert", __LINE__, 0);
    return;
  }
  g_alert[index].Set(fn);
}

void HookQueryf(int index, PlinthCallback fn) {
  if (index < 0 || index > 5) {
    Debug("plinthalert", __LINE__, 0);
    return;
  }
  g_query[index].Set(fn);
}

void HookAlertParse(AlertParseFn fn) { g_alertParse.Set(fn); }
void HookFatalAlert(FatalAlertFn fn) { g_fatalAlert.Set(fn); }
void HookDebugLogf(DebugLogfFn fn) { g_debugLogf.Set(fn); }
void HookDebugLogfChar(DebugLogfCharFn fn) { g_debugLogfChar.Set(fn); }
void HookDebugLogGet(DebugLogGetFn fn) { g_debugLogGet.Set(fn); }
void HookDebugLogSet(DebugLogSetFn fn) { g_debugLogSet.Set(fn); }
void HookDebugLogTest(DebugLogTestFn fn) { g_debugLogTest.Set(fn); }
void HookLogSave(LogSaveFn fn) { g_logSave.Set(fn); }
void HookLogSaveAssert(LogSaveFn fn) { g_logSaveAssert.Set(fn); }
void HookGetIniString(GetIniStringFn fn) { g_getIniString.Set(fn); }
void HookForkAndRelease(ForkHelperFn forkFn, ReleaseForkHelperFn releaseFn) {
  g_fork.Set(forkFn);
  g_releaseFork.Set(releaseFn);
}
void HookThreadMsgProc(ThreadMsgProcFn fn) { g_threadMsg.Set(fn); }
void HookSuspendOtherThreads(SuspendOtherThreadsFn fn) { g_suspend.Set(fn); }
void HookTriggerScript(ScriptFn fn) { g_triggerScript.Set(fn); }
void HookAssembleScriptArgs(ScriptFn fn) { g_assembleScriptArgs.Set(fn); }
void HookProcessScriptErr(ProcessScriptErrFn fn) { g_processScriptErr.Set(fn); }
void HookAnalyticsTrackEvent(AnalyticsTrackEventFn fn) { g_trackEvent.Set(fn); }
void HookAnalyticsAddInfoT(AnalyticsAddInfoTFn fn) { g_addInfoT.Set(fn); }
void HookAnalyticsAddInfoC(AnalyticsAddInfoCFn fn) { g_addInfoC.Set(fn); }
void HookGetThreadCount(GetThreadCountFn fn) { g_threadCount.Set(fn); }
void HookEnumThreads(EnumThreadsFn fn) { g_enumThreads.Set(fn); }
void HookSplashClose(SplashCloseFn fn) { g_splashClose.Set(fn); }
void HookFolderInstanceFunc(FolderInstanceFn fn) { g_folderInstance.Set(fn); }

// ---- alerts -----------------------------------------------------------------

int64_t Alertf(TString* fmt, ...) {
  auto fn = reinterpret_cast<Alert0Fn>(g_alert[0].GetOrInstall(Generic(&DefaultRaise<>)));
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, fmt);
  va_end(ap);
  return result;
}

int64_t Alertf(int kind, TString* fmt, ...) {
  auto fn = reinterpret_cast<Alert1Fn>(g_alert[1].GetOrInstall(Generic(&DefaultRaise<int>)));
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, kind, fmt);
  va_end(ap);
  return result;
}

int64_t AlertParse(TString* text) {
  if (AlertParseFn fn = g_alertParse.Get()) return fn(text);
  if (text != nullptr) AlertParseDefault(text);
  return 0;
}

void AlertParseDefault(TString* text) {
  const char16_t* p = text->GetConstBuffer();
  int n = text->GetLength();
  int i = 0;
  while (i < n) {
    if (IsAlertMark(p[i])) {
      ++i;
      continue;
    }
    if (p[i] != u'/') break;
    int at = i + 1;
    int fields = 0;
    while (fields < 5) {
      int end = at;
      while (end < n && p[end] != u'/') ++end;
      if (end >= n) break;
      at = end + 1;
      ++fields;
    }
    if (fields < 5) {
      Debug("plinthalert", __LINE__, 0);
      // Keep what follows the last complete field.
      i = at;
      break;
    }
    i = at;
  }
  if (i > 0) {
    TString rest(p + i, n - i);
    *text = rest;
  }
}

int64_t FatalAlert(TString* text) {
  if (FatalAlertFn fn = g_fatalAlert.Get()) return fn(text);
  LogLine(515, u"FATAL ALERT: %s", text);
  return 0;
}

// ---- queries ----------------------------------------------------------------

int Queryf(int kind, unsigned int* answer, TString* title, TString* fmt, ...) {
  auto fn = reinterpret_cast<Query0Fn>(g_query[0].GetOrInstall(Generic(&DefaultRaise<int, unsigned int*, TString*>)));
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, kind, answer, title, fmt);
  va_end(ap);
  return static_cast<int>(result);
}

int Queryf(int kind, int answer, TString* title, TString* fmt, ...) {
  auto fn = reinterpret_cast<Query1Fn>(g_query[1].GetOrInstall(Generic(&DefaultRaise<int, int, TString*>)));
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, kind, answer, title, fmt);
  va_end(ap);
  return static_cast<int>(result);
}

int Queryf(int kind, TDate* answer, TString* fmt, ...) {
  auto fn = reinterpret_cast<Query2Fn>(g_query[2].GetOrInstall(Generic(&DefaultRaise<int, TDate*>)));
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, kind, answer, fmt);
  va_end(ap);
  return static_cast<int>(result);
}

int Queryf(int kind, TString* fmt, ...) {
  auto fn = reinterpret_cast<Query3Fn>(g_query[3].GetOrInstall(Generic(&DefaultRaise<int>)));
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, kind, fmt);
  va_end(ap);
  return static_cast<int>(result);
}

int Queryf(int kind, unsigned int* answer, unsigned int low, unsigned int high, TString* fmt, ...) {
  auto fn = reinterpret_cast<Query4Fn>(g_query[4].GetOrInstall(Generic(&DefaultRaise<int, unsigned int*, unsigned int, unsigned int>)));
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, kind, answer, low, high, fmt);
  va_end(ap);
  return static_cast<int>(result);
}

int Queryf(int kind, int a, int b, TString* title, TString* fmt, ...) {
  auto fn = reinterpret_cast<Query5Fn>(g_query[5].GetOrInstall(Generic(&DefaultRaise<int, int, int, TString*>)));
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, kind, a, b, title, fmt);
  va_end(ap);
  return static_cast<int>(result);
}

// ---- debug log --------------------------------------------------------------

int64_t DebugLogf(unsigned int selector, TString* fmt, ...) {
  DebugLogfFn fn = g_debugLogf.Get();
  if (fn == nullptr) return 0;
  va_list ap;
  va_start(ap, fmt);
  int64_t result = Forward(fn, fmt, ap, selector, fmt);
  va_end(ap);
  return result;
}

int64_t DebugLogf(unsigned int selector, const char* fmt, ...) {
  DebugLogfCharFn fn = g_debugLogfChar.Get();
  if (fn == nullptr) return 0;
  va_list ap;
  va_start(ap, fmt);
  FormatArgList args;
  CollectFormatArgs(fmt, ap, &args);
  va_end(ap);
  return CallWithFormatArgs<int64_t>(fn, args, selector, fmt);
}

int64_t DebugLogfWithCallerInfo(unsigned int selector, const char* file, int line, const char* fmt, ...) {
  DebugLogfCharFn fn = g_debugLogfChar.Get();
  if (fn == nullptr) return 0;
  va_list ap;
  va_start(ap, fmt);
  FormatArgList args;
  CollectFormatArgs(fmt, ap, &args);
  va_end(ap);
  // The caller's place goes in front as two more arguments, never into the
  // format itself, so a '%' in a file name cannot be read as a conversion.
  std::string combined = "%s(%~d): ";
  if (fmt != nullptr) combined += fmt;
  FormatArgList all;
  all.word[0] = reinterpret_cast<uintptr_t>(file != nullptr ? file : "");
  all.word[1] = static_cast<uint64_t>(static_cast<int64_t>(line));
  all.count = 2;
  for (int i = 0; i < args.count && all.count < FormatArgList::kMax; ++i) all.word[all.count++] = args.word[i];
  return CallWithFormatArgs<int64_t>(fn, all, selector, combined.c_str());
}

int64_t DebugLogGet(unsigned int category) {
  if (DebugLogGetFn fn = g_debugLogGet.Get()) return fn(category);
  return 0;
}

void DebugLogSet(unsigned int category, unsigned int level) {
  if (DebugLogSetFn fn = g_debugLogSet.Get()) fn(category, level);
}

int64_t DebugLogTest(unsigned int selector) {
  if (DebugLogTestFn fn = g_debugLogTest.Get()) return fn(selector);
  return 0;
}

void LogSave() {
  if (LogSaveFn fn = g_logSave.Get()) fn();
}

void LogSaveAssert() {
  if (LogSaveFn fn = g_logSaveAssert.Get()) fn();
}

void LogLine(unsigned int selector, const char16_t* fmt, ...) {
  DebugLogfFn fn = g_debugLogf.Get();
  if (fn == nullptr) return;
  TString format(fmt);
  va_list ap;
  va_start(ap, fmt);
  Forward(fn, &format, ap, selector, &format);
  va_end(ap);
}

void Debug(const char* source, int line, int /*flags*/) {
  TString name = TStringFromUTF8(source != nullptr ? source : "");
  LogLine(518, u"ASSERT: %s, line %~d", &name, line);
  LogSaveAssert();
}

// ---- host services ----------------------------------------------------------

int GetIniString(const char16_t* section, const char16_t* key, TString* value) {
  if (value != nullptr) value->Clear();
  if (GetIniStringFn fn = g_getIniString.Get()) return static_cast<int>(fn(section, key, value));
  return kNotInstalled;
}

int64_t ForkAndLogHelper(unsigned int flags, TString* fmt, void* helper, ...) {
  ForkHelperFn fn = g_fork.Get();
  if (fn == nullptr) return kNotInstalled;
  va_list ap;
  va_start(ap, helper);
  int64_t result = Forward(fn, fmt, ap, flags, fmt, helper);
  va_end(ap);
  return result;
}

void ReleaseForkHelper(int64_t handle) {
  if (ReleaseForkHelperFn fn = g_releaseFork.Get()) fn(handle);
}

int64_t ThreadMsgHelper(int msg, int param) {
  if (ThreadMsgProcFn fn = g_threadMsg.Get()) return fn(msg, param);
  return 0;
}

void SuspendOtherThreads() {
  if (SuspendOtherThreadsFn fn = g_suspend.Get()) fn();
}

int64_t TriggerScript(TString* event, TString* a, TString* b, TString* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int64_t result = ForwardScript(g_triggerScript.Get(), event, a, b, fmt, ap);
  va_end(ap);
  return result;
}

int64_t AssembleScriptArgs(TString* event, TString* a, TString* b, TString* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int64_t result = ForwardScript(g_assembleScriptArgs.Get(), event, a, b, fmt, ap);
  va_end(ap);
  return result;
}

int64_t ProcessScriptErr(int a, int b, TString* c, TString* d, TString* e, int f, TString* g, TString* h) {
  if (ProcessScriptErrFn fn = g_processScriptErr.Get()) return fn(a, b, c, d, e, f, g, h);
  return 0;
}

void AnalyticsTrackEvent(const char* name, unsigned int value) {
  if (AnalyticsTrackEventFn fn = g_trackEvent.Get()) fn(name, value);
}

void AnalyticsAddInfo(void* event, TString* key, TString* value) {
  if (AnalyticsAddInfoTFn fn = g_addInfoT.Get()) fn(event, key, value);
}

void AnalyticsAddInfo(void* event, const char* key, TString* value) {
  if (AnalyticsAddInfoCFn fn = g_addInfoC.Get()) fn(event, key, value);
}

int GetThreadCount() {
  if (GetThreadCountFn fn = g_threadCount.Get()) return static_cast<int>(fn());
  return 1;
}

int EnumThreads(int index, TThdDescriptor* out) {
  if (EnumThreadsFn fn = g_enumThreads.Get()) return static_cast<int>(fn(index, out));
  if (out == nullptr) return 0;
  out->Reset();
  out->threadId = platform::CurrentThreadId();
  out->handle = platform::CurrentThreadHandle();
  return 1;
}

void SplashClose() {
  if (SplashCloseFn fn = g_splashClose.Get()) fn();
}

int64_t FolderInstance(TString* folder) {
  if (FolderInstanceFn fn = g_folderInstance.Get()) return fn(folder);
  return 0;
}
