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

// The waiter-count condition over one auto-reset event: a broadcast sets a
// flag and the event, and each waiter that wakes passes the event on while
// counted waiters remain. A signal or broadcast that finds no waiter leaves
// the event set, so the next waiter returns at once: no wake-up is lost.
class TPiQStdCondition : public TPiQCondition {
 public:
  void signal() override {
    {
      std::lock_guard<std::mutex> guard(m_internal);
      m_event = true;
    }
    m_wake.notify_one();
  }

  void broadcast() override {
    {
      std::lock_guard<std::mutex> guard(m_internal);
      m_broadcast = true;
      m_event = true;
    }
    m_wake.notify_one();
  }

  bool wait(TPiQMutex& lock, int /*timeout*/) override {
    bool passOn = false;
    {
      std::unique_lock<std::mutex> guard(m_internal);
      // Counted before the caller's lock goes, so a giver that takes that
      // lock next finds this waiter already counted.
      ++m_waiters;
      lock.unlock();
      m_wake.wait(guard, [this] { return m_event; });
      m_event = false;  // auto-reset: this waiter takes the event
      --m_waiters;
      if (m_broadcast) {
        if (m_waiters > 0) {
          m_event = true;
          passOn = true;
        } else {
          m_broadcast = false;
        }
      }
    }
    if (passOn) m_wake.notify_one();
    lock.lock();
    return true;
  }

 private:
  std::mutex m_internal;
  std::condition_variable m_wake;
  unsigned m_waiters = 0;
  bool m_broadcast = false;
  bool m_event = false;
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
