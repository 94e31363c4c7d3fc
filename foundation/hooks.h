// Host hooks, alerts and the debug log.
//
// The library has no main loop. Wherever it must talk to a person, write a
// log line, read a host setting, run a script or count the host's threads it
// calls one of the partner functions below. Each partner forwards to the
// callback the host installed with the matching Hook* function, or does a
// built-in default while the slot is empty.
//
// Callbacks are variadic host functions returning a 64-bit value; a partner
// hands its arguments on unchanged and unformatted (see format_args.h for how
// the "..." part travels). Slots are written by their Hook* function only and
// never cleared by the library. Slots are atomic words with relaxed ordering:
// as cheap as plain pointers, and a race-free first-use install of a default.
//
// Log selectors: the category lives above the low byte, the level in it. The
// library writes 512..519 (514 ordinary failures, 515 fatal alerts, 517
// storage failures, 518 unexpected but handled, 519 detail) and 1284, 1285.
#ifndef PLINTH_FOUNDATION_HOOKS_H_
#define PLINTH_FOUNDATION_HOOKS_H_

#include <cstdint>

#include "foundation/export.h"

class TString;
class TDate;

// A thread as the host enumerates it.
struct TThdDescriptor {
  uint64_t threadId = 0;  // the OS thread identifier (gettid on Linux)
  uint64_t handle = 0;    // the native handle (pthread_t on Linux)
  void Reset() { threadId = 0; handle = 0; }
};

// Generic callback, for slots whose signature depends on an index
// (HookAlertf, HookQueryf). A host casts its own function to it.
typedef int64_t (*PlinthCallback)(...);

// Callback signatures, one per hook.
typedef int64_t (*AlertParseFn)(TString* text);
typedef int64_t (*FatalAlertFn)(TString* text);
typedef int64_t (*DebugLogfFn)(unsigned int selector, TString* fmt, ...);
typedef int64_t (*DebugLogfCharFn)(unsigned int selector, const char* fmt, ...);
typedef int64_t (*DebugLogGetFn)(unsigned int category);
typedef int64_t (*DebugLogSetFn)(unsigned int category, unsigned int level);
typedef int64_t (*DebugLogTestFn)(unsigned int selector);
typedef int64_t (*LogSaveFn)();
typedef int64_t (*GetIniStringFn)(const char16_t* section, const char16_t* key, TString* value);
typedef int64_t (*ForkHelperFn)(unsigned int flags, TString* fmt, void* fn, ...);
typedef int64_t (*ReleaseForkHelperFn)(int64_t handle);
typedef int64_t (*ThreadMsgProcFn)(int msg, int param);
typedef int64_t (*SuspendOtherThreadsFn)();
typedef int64_t (*ScriptFn)(TString* event, TString* a, TString* b, TString* fmt, ...);
typedef int64_t (*ProcessScriptErrFn)(int a, int b, TString* c, TString* d, TString* e, int f, TString* g,
                                       TString* h);
typedef int64_t (*AnalyticsTrackEventFn)(const char* name, unsigned int value);
typedef int64_t (*AnalyticsAddInfoTFn)(void* event, TString* key, TString* value);
typedef int64_t (*AnalyticsAddInfoCFn)(void* event, const char* key, TString* value);
typedef int64_t (*GetThreadCountFn)();
typedef int64_t (*EnumThreadsFn)(int index, TThdDescriptor* out);
typedef int64_t (*SplashCloseFn)();
typedef int64_t (*FolderInstanceFn)(TString* folder);

// Host signatures of the HookAlertf / HookQueryf slots, for casting.
typedef int64_t (*Alert0Fn)(TString* fmt, ...);
typedef int64_t (*Alert1Fn)(int kind, TString* fmt, ...);
typedef int64_t (*Query0Fn)(int kind, unsigned int* answer, TString* title, TString* fmt, ...);
typedef int64_t (*Query1Fn)(int kind, int answer, TString* title, TString* fmt, ...);
typedef int64_t (*Query2Fn)(int kind, TDate* answer, TString* fmt, ...);
typedef int64_t (*Query3Fn)(int kind, TString* fmt, ...);
typedef int64_t (*Query4Fn)(int kind, unsigned int* answer, unsigned int low, unsigned int high, TString* fmt,
                            ...);
typedef int64_t (*Query5Fn)(int kind, int a, int b, TString* title, TString* fmt, ...);

// ---- installers --------------------------------------------------------
// An index outside 0..1 (HookAlertf) or 0..5 (HookQueryf) is an assertion of
// source "plinthalert"; the slot is stored anyway (and out-of-range slots
// are ignored, not written past the table).
PLINTH_API void HookAlertf(int index, PlinthCallback fn);
PLINTH_API void HookAlertParse(AlertParseFn fn);
PLINTH_API void HookQueryf(int index, PlinthCallback fn);
PLINTH_API void HookFatalAlert(FatalAlertFn fn);
PLINTH_API void HookDebugLogf(DebugLogfFn fn);
PLINTH_API void HookDebugLogfChar(DebugLogfCharFn fn);
PLINTH_API void HookDebugLogGet(DebugLogGetFn fn);
PLINTH_API void HookDebugLogSet(DebugLogSetFn fn);
PLINTH_API void HookDebugLogTest(DebugLogTestFn fn);
PLINTH_API void HookLogSave(LogSaveFn fn);
PLINTH_API void HookLogSaveAssert(LogSaveFn fn);
PLINTH_API void HookGetIniString(GetIniStringFn fn);
PLINTH_API void HookForkAndRelease(ForkHelperFn forkFn, ReleaseForkHelperFn releaseFn);
PLINTH_API void HookThreadMsgProc(ThreadMsgProcFn fn);
PLINTH_API void HookSuspendOtherThreads(SuspendOtherThreadsFn fn);
PLINTH_API void HookTriggerScript(ScriptFn fn);
PLINTH_API void HookAssembleScriptArgs(ScriptFn fn);
PLINTH_API void HookProcessScriptErr(ProcessScriptErrFn fn);
PLINTH_API void HookAnalyticsTrackEvent(AnalyticsTrackEventFn fn);
PLINTH_API void HookAnalyticsAddInfoT(AnalyticsAddInfoTFn fn);
PLINTH_API void HookAnalyticsAddInfoC(AnalyticsAddInfoCFn fn);
PLINTH_API void HookGetThreadCount(GetThreadCountFn fn);
PLINTH_API void HookEnumThreads(EnumThreadsFn fn);
PLINTH_API void HookSplashClose(SplashCloseFn fn);
PLINTH_API void HookFolderInstanceFunc(FolderInstanceFn fn);

// ---- partners ----------------------------------------------------------
// Alerts. With no hook the slot gets the built-in default on first use: the
// text is formatted, passed through AlertParse and raised with FatalAlert.
PLINTH_API int64_t Alertf(TString* fmt, ...);
PLINTH_API int64_t Alertf(int kind, TString* fmt, ...);
// Strips the alert prefix in place (see AlertParseDefault) unless a host
// parser is installed.
PLINTH_API int64_t AlertParse(TString* text);
// The default parser: drops leading "!#*+<>?" marks and "/" followed by five
// "/"-terminated fields. A text ending inside those fields is an assertion
// and is left with what remains after the last complete field.
PLINTH_API void AlertParseDefault(TString* text);

// Questions; the result is the user's choice. With no hook every slot
// formats its text, parses it and raises it as a fatal alert, answering 0.
// In each form the last TString* is the format of the trailing arguments.
PLINTH_API int Queryf(int kind, unsigned int* answer, TString* title, TString* fmt, ...);
PLINTH_API int Queryf(int kind, int answer, TString* title, TString* fmt, ...);
PLINTH_API int Queryf(int kind, TDate* answer, TString* fmt, ...);
PLINTH_API int Queryf(int kind, TString* fmt, ...);
PLINTH_API int Queryf(int kind, unsigned int* answer, unsigned int low, unsigned int high, TString* fmt, ...);
PLINTH_API int Queryf(int kind, int a, int b, TString* title, TString* fmt, ...);

// With no hook: logs "FATAL ALERT: %s" at selector 515 and returns.
PLINTH_API int64_t FatalAlert(TString* text);

PLINTH_API int64_t DebugLogf(unsigned int selector, TString* fmt, ...);
PLINTH_API int64_t DebugLogf(unsigned int selector, const char* fmt, ...);
// Goes to the 8-bit hook with "%s(%~d): " and the file and line put in front.
PLINTH_API int64_t DebugLogfWithCallerInfo(unsigned int selector, const char* file, int line, const char* fmt, ...);
PLINTH_API int64_t DebugLogGet(unsigned int category);
PLINTH_API void DebugLogSet(unsigned int category, unsigned int level);
PLINTH_API int64_t DebugLogTest(unsigned int selector);
PLINTH_API void LogSave();
PLINTH_API void LogSaveAssert();

// Clears `value`, then asks the host; -1011 with no hook.
PLINTH_API int GetIniString(const char16_t* section, const char16_t* key, TString* value);

// `fmt` is the format of the trailing arguments. -1011 with no hook.
PLINTH_API int64_t ForkAndLogHelper(unsigned int flags, TString* fmt, void* fn, ...);
PLINTH_API void ReleaseForkHelper(int64_t handle);
PLINTH_API int64_t ThreadMsgHelper(int msg, int param);
PLINTH_API void SuspendOtherThreads();
PLINTH_API int64_t TriggerScript(TString* event, TString* a, TString* b, TString* fmt, ...);
PLINTH_API int64_t AssembleScriptArgs(TString* event, TString* a, TString* b, TString* fmt, ...);
PLINTH_API int64_t ProcessScriptErr(int a, int b, TString* c, TString* d, TString* e, int f, TString* g,
                                    TString* h);
PLINTH_API void AnalyticsTrackEvent(const char* name, unsigned int value);
PLINTH_API void AnalyticsAddInfo(void* event, TString* key, TString* value);
PLINTH_API void AnalyticsAddInfo(void* event, const char* key, TString* value);
// 1 with no hook.
PLINTH_API int GetThreadCount();
// With no hook: fills `out` with the calling thread and returns 1.
PLINTH_API int EnumThreads(int index, TThdDescriptor* out);
// With no hook: there is no splash screen on this platform; nothing to do.
PLINTH_API void SplashClose();
// With no hook: 0, the folder needs no per-instance treatment.
PLINTH_API int64_t FolderInstance(TString* folder);

// The library's assertion: logs "ASSERT: %s, line %~d" at selector 518 and
// asks the host to save its log (LogSaveAssert). It never aborts; the caller
// carries on.
PLINTH_API void Debug(const char* source, int line, int flags);

#endif  // PLINTH_FOUNDATION_HOOKS_H_
