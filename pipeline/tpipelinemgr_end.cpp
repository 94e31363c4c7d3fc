// Ending a run: the end marker or the error, joining the threads, the
// statistics, and the destructor that forces an end.
#include <set>

#include "pipeline/tpipelinemgr.h"
#include "platform/clock.h"

namespace {

int64_t NowSecs() { return platform::UnixTimeMilliseconds() / 1000; }

}  // namespace

void TPipelineMgr::signalEnd(int why) {
  if (why == 0) why = kErrPiEndOfWork;
  int outErr = m_outQ != nullptr ? m_outQ->error() : 0;
  if (outErr != 0) m_whyEnd = outErr;
  if (!m_running) {
    // An error already at the pool is kept: it overrides an orderly end.
    if (outErr == 0) m_whyEnd = why;
    return;
  }
  if (m_whyEnd != 0) {
    if (m_whyEnd == kErrPiEndOfWork && why != kErrPiEndOfWork) m_whyEnd = why;
  } else {
    m_whyEnd = why;
    if (why == kErrPiEndOfWork) {
      int err = 0;
      TPiMsg* marker = getMsgBuf(kErrPiEndOfWork, err, 0);
      if (marker == nullptr) {
        m_whyEnd = err != 0 ? err : kErrPiNoMemory;
      } else {
        try {
          addWork(*marker);  // numbered one past the last work
        } catch (int code) {
          delete marker;
          m_whyEnd = code;
        }
      }
    }
  }
  logLine("TPipelineMgr::signalEnd:%d", why);
  if (m_whyEnd == kErrPiEndOfWork) return;
  if (m_inQ == nullptr) {
    logErrLine("TPipelineMgr::signalEnd: !m_inQ");
    return;
  }
  // Also when the error arose further down: the stations before it are
  // still waiting on their input.
  m_inQ->signalError(m_whyEnd);
}

void TPipelineMgr::noMoreWorkAndReturn() { signalEnd(kErrPiEndOfWork); }

void TPipelineMgr::endAndWait(int why, bool signalled) {
  if (!signalled) signalEnd(why);
  if (!m_running) {
    logLine("TPipelineMgr::endAndWait: pipeline not running");
    chkPipeline(true, "endAndWait", nullptr);
    return;
  }
  for (const auto& node : m_nodes) node->waitForThreadsEnd();
  for (const auto& node : m_nodes) node->logStatistics();
  // The end marker ends at the terminal without an error: 0 after an
  // orderly end, so the manager may start again.
  m_whyEnd = m_outQ != nullptr ? m_outQ->error() : kErrPiLogic;
  m_running = false;
  chkPipeline(true, "endAndWait", nullptr);
}

void TPipelineMgr::noMoreWorkAndWaitTillEnd(int& whyEnd, unsigned& elapsedSecs, unsigned& workSecs,
                                            unsigned& bufWaitSecs, unsigned& buf2WaitSecs, bool signalled) {
  whyEnd = 0;
  elapsedSecs = 0;
  workSecs = 0;
  bufWaitSecs = 0;
  buf2WaitSecs = 0;
  endAndWait(kErrPiEndOfWork, signalled);
  whyEnd = m_whyEnd;
  if (m_startTime != 0) {
    int64_t elapsed = NowSecs() - m_startTime;
    elapsedSecs = elapsed > 0 ? static_cast<unsigned>(elapsed) : 0;
  }
  UPiTicks work = 0;
  for (const auto& node : m_nodes) work += node->workTime();
  workSecs = UPiHighResolutionTimeToSecs(work);
  if (m_outQ != nullptr) bufWaitSecs = m_outQ->waitTimeInSecs();
  if (m_Qof2ndWorkBufs != nullptr) buf2WaitSecs = m_Qof2ndWorkBufs->waitTimeInSecs();
}

void TPipelineMgr::cancelAndWait(int err, int& whyEnd) {
  int code = err;
  if (err == 0 || err == kErrPiEndOfWork) {
    logErrLine("TPipelineMgr::cancelAndWait: overriding error=%d with kErrOperationAborted", err);
    code = kErrOperationAborted;
  }
  endAndWait(code, false);
  whyEnd = m_whyEnd;
}

TPipelineMgr::~TPipelineMgr() {
  if (m_running) {
    logLine("TPipelineMgr::~TPipelineMgr: forcing noMoreWorkAndWaitTillEnd");
    int whyEnd;
    unsigned elapsed, work, bufWait, buf2Wait;
    try {
      noMoreWorkAndWaitTillEnd(whyEnd, elapsed, work, bufWait, buf2Wait, false);
    } catch (int) {
      // Nothing left to report to.
    }
  }
  cleanUp();
}

void TPipelineMgr::cleanUp() {
  std::set<TPiWork*> own;
  for (const auto& buf : m_workBufs) own.insert(buf.get());
  // Items still in the pipeline after an error or a cancel: the buffers are
  // the manager's; anything else had its holder here.
  std::set<TPiWork*> strays;
  m_nodes.clear();
  for (const auto& station : m_stations) {
    if (!station->isSequencing()) continue;
    auto* sequencing = dynamic_cast<TPiSequencingStation*>(station.get());
    if (sequencing == nullptr) continue;
    for (const auto& held : sequencing->takeHeldForCleanUp()) {
      if (own.count(held.second) == 0) strays.insert(held.second);
    }
  }
  m_stations.clear();
  if (m_Qof2ndWorkBufs != nullptr) m_queues.push_back(m_Qof2ndWorkBufs);
  m_Qof2ndWorkBufs = nullptr;
  for (TPiQ* queue : m_queues) {
    for (TPiWork* work : queue->takeAllForCleanUp()) {
      if (own.count(work) == 0) strays.insert(work);
    }
    delete queue;
  }
  m_queues.clear();
  m_inQ = nullptr;
  m_outQ = nullptr;
  m_terminal = nullptr;
  for (TPiWork* work : strays) delete work;
  m_workBufs.clear();
}
