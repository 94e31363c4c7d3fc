#include "pipeline/tpiq.h"

#include "pipeline/tpipelinemgr.h"

namespace {

constexpr int kWaitForever = -1;

bool IsEndMarker(const TPiWork& work) { return !work.isWorkBuf() && work.msgId() == kErrPiEndOfWork; }

}  // namespace

TPiQ* TPiQ::factory(TPipelineMgr& mgr) {
  TPiQ* queue = new TPiQ(mgr);
  if (queue->m_mutex == nullptr || queue->m_condition == nullptr) {
    delete queue;
    return nullptr;
  }
  return queue;
}

TPiQ::TPiQ(TPipelineMgr& mgr) : m_mutex(UPiNewMutex()), m_condition(UPiNewCondition()), m_mgr(&mgr) {}

TPiQ::~TPiQ() = default;

void TPiQ::setNextQ(TPiQ& next) {
  TPiQCriticalSection lock(m_mutex.get());
  m_nextQ = &next;
}

TPiWork* TPiQ::waitForWork(int& err) {
  err = 0;
  UPiTicks start;
  UPiGetHighResolutionTime(start);
  TPiWork* work = nullptr;
  bool aborted = false;
  {
    TPiQCriticalSection lock(m_mutex.get());
    for (;;) {
      if (m_error != 0) {
        err = m_error;
        break;
      }
      if (m_mgr->isAbortSignaled()) {
        err = kErrOperationAborted;
        aborted = true;
        break;
      }
      if (!m_work.empty()) {
        work = m_work.front();
        m_work.pop_front();
        ++m_workOut;
        break;
      }
      if (m_noMoreWork) {
        err = kErrPiEndOfWork;
        break;
      }
      m_condition->wait(*m_mutex, kWaitForever);
    }
    UPiAddElapsedTimeSince(start, m_waitTime);
  }
  if (!aborted) return work;
  // Asked again outside the lock: an abort withdrawn meanwhile is not
  // passed on.
  if (!m_mgr->isAbortSignaled()) {
    err = kErrPiThread;
    return nullptr;
  }
  signalError(kErrOperationAborted);
  return nullptr;
}

void TPiQ::addWork(TPiWork& work, bool putBack) {
  bool released = false;
  {
    TPiQCriticalSection lock(m_mutex.get());
    if (putBack) {
      --m_workOut;
      m_work.push_back(&work);
    } else {
      ++m_workIn;
      if (!work.isWorkBuf()) ++m_msgIn;
      if (IsEndMarker(work) && m_endMarker == nullptr) {
        m_endMarker = &work;
      } else {
        m_work.push_back(&work);
      }
    }
    // The marker is numbered one past the run's last item, and workIn counts
    // the marker too: equal once every earlier item has arrived here.
    if (m_endMarker != nullptr && m_endMarker->sequenceNum() == m_workIn) {
      m_work.push_back(m_endMarker);
      m_endMarker = nullptr;
      m_noMoreWork = true;
      released = true;
    }
  }
  if (released) {
    m_condition->broadcast();
  } else {
    m_condition->signal();
  }
}

void TPiQ::signalError(int err) {
  bool first = false;
  TPiQ* next = nullptr;
  {
    TPiQCriticalSection lock(m_mutex.get());
    if (m_error == 0) {
      m_error = err;
      first = true;
      next = m_nextQ;
    }
  }
  m_condition->broadcast();
  if (!first || next == nullptr) return;
  TPipelineMgr::logLine("TPiQ::signalError:%d", err);
  next->signalError(err);
}

void TPiQ::tryResumeAfterNoMoreWork() {
  TPiQCriticalSection lock(m_mutex.get());
  if (m_error == 0 && m_endMarker == nullptr) {
    m_noMoreWork = false;
    return;
  }
  if (m_error != 0) {
    TPipelineMgr::logErrLine("TPiQUnix::resumeAfterNoMoreWork: error=%d", m_error);
  } else {
    TPipelineMgr::logErrLine("TPiQUnix::resumeAfterNoMoreWork: Still waiting for prior work to complete");
  }
  UPiThrow(kErrPiLogic);
}

uint64_t TPiQ::msgIn() {
  TPiQCriticalSection lock(m_mutex.get());
  return m_msgIn;
}

uint64_t TPiQ::workIn() {
  TPiQCriticalSection lock(m_mutex.get());
  return m_workIn;
}

uint64_t TPiQ::workOut() {
  TPiQCriticalSection lock(m_mutex.get());
  return m_workOut;
}

int TPiQ::error() {
  TPiQCriticalSection lock(m_mutex.get());
  return m_error;
}

unsigned TPiQ::waitTimeInSecs() {
  TPiQCriticalSection lock(m_mutex.get());
  return UPiHighResolutionTimeToSecs(m_waitTime);
}

size_t TPiQ::pending() {
  TPiQCriticalSection lock(m_mutex.get());
  return m_work.size();
}

std::deque<TPiWork*> TPiQ::takeAllForCleanUp() {
  TPiQCriticalSection lock(m_mutex.get());
  std::deque<TPiWork*> all;
  all.swap(m_work);
  if (m_endMarker != nullptr) all.push_back(m_endMarker);
  m_endMarker = nullptr;
  return all;
}
