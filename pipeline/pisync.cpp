// The portable mutex and condition behind TPiQMutex and TPiQCondition, the
// scoped lock and the event.
#include "pipeline/pisync.h"

#include <condition_variable>
#include <mutex>

namespace {

class TPiQStdMutex : public TPiQMutex {
 public:
  void lock() override { m_mutex.lock(); }
  void unlock() override { m_mutex.unlock(); }

 private:
  std::recursive_mutex m_mutex;
};

// A condition that counts its waiters and keeps its wake-ups as permits:
// a signal grants one, a broadcast one per counted waiter, never more than
// there are waiters to take them. A signal or broadcast that finds no waiter
// leaves one permit, so the next waiter returns at once: no wake-up is lost.
// Unlike a single auto-reset event, two signals to two waiters wake both.
class TPiQStdCondition : public TPiQCondition {
 public:
  void signal() override {
    {
      std::lock_guard<std::mutex> guard(m_internal);
      if (m_permits < Wanted()) ++m_permits;
    }
    m_wake.notify_one();
  }

  void broadcast() override {
    {
      std::lock_guard<std::mutex> guard(m_internal);
      if (m_permits < Wanted()) m_permits = Wanted();
    }
    m_wake.notify_all();
  }

  bool wait(TPiQMutex& lock, int /*timeout*/) override {
    {
      std::unique_lock<std::mutex> guard(m_internal);
      // Counted before the caller's lock goes, so a giver that takes that
      // lock next finds this waiter already counted.
      ++m_waiters;
      lock.unlock();
      m_wake.wait(guard, [this] { return m_permits > 0; });
      --m_permits;
      --m_waiters;
    }
    lock.lock();
    return true;
  }

 private:
  unsigned Wanted() const { return m_waiters > 0 ? m_waiters : 1; }

  std::mutex m_internal;
  std::condition_variable m_wake;
  unsigned m_waiters = 0;  // guarded by m_internal
  unsigned m_permits = 0;  // guarded by m_internal
};

}  // namespace

TPiQMutex* UPiNewMutex() { return new TPiQStdMutex; }

TPiQCondition* UPiNewCondition() { return new TPiQStdCondition; }

// ---- scoped lock ------------------------------------------------------------

TPiQCriticalSection::TPiQCriticalSection(TPiQMutex* mutex) : m_mutex(mutex) {
  if (m_mutex != nullptr) m_mutex->lock();
}

TPiQCriticalSection::TPiQCriticalSection(const std::shared_ptr<TPiQMutex>& mutex)
    : m_shared(mutex), m_mutex(mutex.get()) {
  if (m_mutex != nullptr) m_mutex->lock();
}

TPiQCriticalSection::~TPiQCriticalSection() {
  if (m_mutex != nullptr) m_mutex->unlock();
}

// ---- event ------------------------------------------------------------------

TPiEvent::TPiEvent(bool manualReset)
    : m_manualReset(manualReset), m_mutex(UPiNewMutex()), m_condition(UPiNewCondition()) {}

void TPiEvent::Signal() {
  {
    TPiQCriticalSection lock(m_mutex.get());
    m_signaled = true;
  }
  m_condition->signal();
}

void TPiEvent::SignalAll() {
  {
    TPiQCriticalSection lock(m_mutex.get());
    m_signaled = true;
    m_signalAll = true;
  }
  m_condition->broadcast();
}

void TPiEvent::Reset() {
  TPiQCriticalSection lock(m_mutex.get());
  m_signaled = false;
  m_signalAll = false;
}

bool TPiEvent::isSignaled() {
  TPiQCriticalSection lock(m_mutex.get());
  return m_signaled;
}

bool TPiEvent::Block(int timeout) {
  TPiQCriticalSection lock(m_mutex.get());
  while (!m_signaled) {
    if (!m_condition->wait(*m_mutex, timeout)) return false;
  }
  // An auto-reset event lets one waiter through; SignalAll keeps it open.
  if (!m_manualReset && !m_signalAll) m_signaled = false;
  return true;
}
