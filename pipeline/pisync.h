// The pipeline's synchronisation primitives and small utilities.
//
// TPiQMutex and TPiQCondition are abstract so that the queues do not depend
// on the platform; UPiNewMutex and UPiNewCondition make the platform's
// implementation (re-entrant mutex; condition whose waits are unbounded and
// whose broadcast with no waiter is not lost: the next waiter returns at
// once). TPiQCriticalSection locks a mutex for its scope. TPiEvent is an
// auto- or manual-reset event. TPiNamedCriticalSection excludes every
// process of the machine that uses the same name; the platform's lock is
// released by the system when its holder dies, so a crashed process never
// leaves the name held.
//
// Errors inside the pipeline are bare library codes thrown by UPiThrow.
#ifndef PLINTH_PIPELINE_PISYNC_H_
#define PLINTH_PIPELINE_PISYNC_H_

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/export.h"
#include "foundation/tobject.h"

// Codes the pipeline produces besides those of the library.
constexpr int kErrPiThread = -1;          // thread not created; abort withdrawn
constexpr int kErrPiOutOfSequence = -1010;
constexpr int kErrPiLogic = -1011;
constexpr int kErrOperationAborted = -1015;
constexpr int kErrPiNoMemory = -1018;
constexpr int kErrPiEndOfWork = -1024;    // the orderly end of a run

// High-resolution clock ticks (the platform's monotonic counter).
using UPiTicks = int64_t;

class PLINTH_API TPiQMutex : public TObject {
 public:
  virtual ~TPiQMutex() = default;
  virtual void lock() = 0;
  virtual void unlock() = 0;
};

class PLINTH_API TPiQCondition : public TObject {
 public:
  virtual ~TPiQCondition() = default;
  virtual void signal() = 0;
  virtual void broadcast() = 0;
  // Releases `lock`, waits (unbounded: `timeout` is accepted and not
  // applied), takes `lock` again. True when the wait succeeded.
  virtual bool wait(TPiQMutex& lock, int timeout) = 0;
};

class PLINTH_API TPiQCriticalSection {
 public:
  explicit TPiQCriticalSection(TPiQMutex* mutex);
  explicit TPiQCriticalSection(const std::shared_ptr<TPiQMutex>& mutex);
  virtual ~TPiQCriticalSection();
  TPiQCriticalSection(const TPiQCriticalSection&) = delete;
  TPiQCriticalSection& operator=(const TPiQCriticalSection&) = delete;

 private:
  std::shared_ptr<TPiQMutex> m_shared;
  TPiQMutex* m_mutex;
};

class PLINTH_API TPiEvent : public TObject {
 public:
  explicit TPiEvent(bool manualReset);
  void Signal();
  void SignalAll();
  void Reset();
  bool isSignaled();
  // Waits until signalled (`timeout` is not applied); false when a wait
  // failed.
  bool Block(int timeout);

 private:
  bool m_manualReset;
  std::shared_ptr<TPiQMutex> m_mutex;
  std::shared_ptr<TPiQCondition> m_condition;
  bool m_signaled = false;
  bool m_signalAll = false;
};

class PLINTH_API TPiNamedCriticalSection : public TObject {
 public:
  // Blocks, retrying every 100 ms, until the name is free; *err is 0 once
  // owned, or the mapped system error (nothing owned then).
  TPiNamedCriticalSection(const char* name, int* err);
  ~TPiNamedCriticalSection();
  TPiNamedCriticalSection(const TPiNamedCriticalSection&) = delete;
  TPiNamedCriticalSection& operator=(const TPiNamedCriticalSection&) = delete;

 private:
  std::string m_name;
  int64_t m_handle = -1;
};

// Null when memory is exhausted.
PLINTH_API TPiQMutex* UPiNewMutex();
PLINTH_API TPiQCondition* UPiNewCondition();
[[noreturn]] PLINTH_API void UPiThrow(int err);
PLINTH_API void UPiGetHighResolutionTime(UPiTicks& now);
PLINTH_API void UPiAddElapsedTime(const UPiTicks& delta, UPiTicks& total);
// Adds now - start to total only when now is later than start.
PLINTH_API void UPiAddElapsedTimeSince(const UPiTicks& start, UPiTicks& total);
PLINTH_API unsigned UPiHighResolutionTimeToSecs(const UPiTicks& ticks);
PLINTH_API std::string UPiThreadIDStr();
PLINTH_API void UPiSleepMilliSeconds(unsigned ms);

#endif  // PLINTH_PIPELINE_PISYNC_H_
