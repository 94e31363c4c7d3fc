// The station's work loop, the serial order check, parallel stations and
// the terminal.
#include "pipeline/tpistation.h"

#include <new>

#include "pipeline/tpigap.h"
#include "pipeline/tpipelinemgr.h"

TPiStation::TPiStation(const char* name, TPipelineMgr& mgr, bool use2ndWorkBuf, bool ownThread)
    : m_name(name != nullptr ? name : ""), m_mgr(&mgr), m_use2ndWorkBuf(use2ndWorkBuf), m_ownThread(ownThread) {}

TPiStation::~TPiStation() = default;

void TPiStation::setQs(TPiQ* in, TPiQ* out) {
  m_sharedInQ = in;
  m_sharedOutQ = out;
}

unsigned TPiStation::workTimeInSecs() const { return UPiHighResolutionTimeToSecs(m_workTime); }

unsigned TPiStation::waitTimeInSecs() const { return m_sharedInQ != nullptr ? m_sharedInQ->waitTimeInSecs() : 0; }

void TPiStation::tryChkBeforeDoWork(TPiWork& /*work*/) {}

bool TPiStation::tryDoSequencing(TPiWork& /*work*/) { return false; }

void TPiStation::tryDoWork(TPiWork& work, bool& consumed, TPiWorkBuf*& replacement, bool& sequenced) {
  consumed = false;
  replacement = nullptr;
  sequenced = tryDoSequencing(work);
  if (sequenced) return;
  tryChkBeforeDoWork(work);
  UPiTicks start;
  if (work.isWorkBuf()) {
    TPiWorkBuf& buf = static_cast<TPiWorkBuf&>(work);
    TPiWorkBuf* buf2 = nullptr;
    if (m_use2ndWorkBuf) {
      buf2 = m_mgr->waitFor2ndWorkBuf(buf);
      if (buf2 == nullptr) UPiThrow(kErrPiNoMemory);
    }
    bool used2nd = false;
    UPiGetHighResolutionTime(start);
    try {
      tryDoWorkBuf(buf, buf2, used2nd);
    } catch (...) {
      UPiAddElapsedTimeSince(start, m_workTime);
      // The second buffer goes home, so the pool keeps its stock.
      if (buf2 != nullptr) m_mgr->addUnusedWorkBuf(*buf2);
      throw;
    }
    UPiAddElapsedTimeSince(start, m_workTime);
    if (buf2 == nullptr) return;
    if (used2nd) {
      replacement = buf2;
    } else {
      m_mgr->addUnusedWorkBuf(*buf2);
    }
    return;
  }
  if (IsGap(work)) {
    consumed = isTerminal();
    return;
  }
  TPiMsg* msg = dynamic_cast<TPiMsg*>(&work);
  if (msg == nullptr) {
    TPipelineMgr::logErrLine("%s: tryDoWork: work %llu is neither TPiWorkBuf nor TPiMsg", name(),
                             static_cast<unsigned long long>(work.sequenceNum()));
    UPiThrow(kErrPiLogic);
  }
  UPiGetHighResolutionTime(start);
  try {
    tryDoMsg(*msg, consumed);
  } catch (...) {
    UPiAddElapsedTimeSince(start, m_workTime);
    throw;
  }
  UPiAddElapsedTimeSince(start, m_workTime);
}

void TPiStation::addWorkToOutQ(TPiWork& work) { m_sharedOutQ->addWork(work, false); }

void TPiStation::waitAndDoWorkOnce(int& err) {
  TPiWork* work = m_sharedInQ->waitForWork(err);
  if (work == nullptr) return;
  bool consumed = false;
  bool sequenced = false;
  TPiWorkBuf* replacement = nullptr;
  try {
    tryDoWork(*work, consumed, replacement, sequenced);
  } catch (int code) {
    err = code;
  } catch (const std::bad_alloc&) {
    err = kErrPiNoMemory;
  } catch (...) {
    // A host's foreign exception must not end the thread unreported.
    TPipelineMgr::logErrLine("%s: waitAndDoWorkOnce: unexpected exception", name());
    err = kErrPiLogic;
  }
  if (consumed) {
    bool standIn = err == 0 && !isTerminal() && !IsGap(*work);
    uint64_t sequenceNum = work->sequenceNum();
    delete work;
    work = nullptr;
    if (err == 0) {
      if (standIn) addWorkToOutQ(*new TPiGap(sequenceNum));
      return;
    }
  }
  if (err != 0) {
    m_sharedOutQ->signalError(err);
    // Items in flight are not passed on; a message has no other owner.
    if (work != nullptr && !sequenced && !work->isWorkBuf()) delete work;
    return;
  }
  if (sequenced) return;
  if (replacement == nullptr) {
    addWorkToOutQ(*work);
    return;
  }
  // The buffers swap roles: the result travels on under the item's number
  // and the input becomes a second buffer, so each stock stays constant.
  replacement->setSequenceNum(work->sequenceNum());
  addWorkToOutQ(*replacement);
  if (work->isWorkBuf()) m_mgr->addUnusedWorkBuf(static_cast<TPiWorkBuf&>(*work));
}

bool TPiStation::isTerminal() const { return dynamic_cast<const TPiTerminal*>(this) != nullptr; }

void TPiStation::workUntilEnd() {
  if (m_sharedInQ == nullptr || m_sharedOutQ == nullptr) {
    TPipelineMgr::logErrLine("%s: workUntilEnd: %s", name(), m_sharedInQ == nullptr ? "!m_sharedInQ" : "!m_sharedOutQ");
    return;
  }
  int err = 0;
  do {
    waitAndDoWorkOnce(err);
  } while (err == 0);
  // This thread is gone: the stations behind it, and the producer, must
  // learn it or they wait for ever. The quiet endings have reached them.
  if (err != kErrPiEndOfWork && err != kErrOperationAborted) m_sharedOutQ->signalError(err);
  TPipelineMgr::logErrLineWithFilter(err, "%s: workUntilEnd:%d seq=%llu", name(), err,
                                     static_cast<unsigned long long>(sequenceNum()));
}

// ---- serial stations --------------------------------------------------------

TPiSerialStation::TPiSerialStation(const char* name, TPipelineMgr& mgr, bool use2ndWorkBuf, bool ownThread)
    : TPiStation(name, mgr, use2ndWorkBuf, ownThread) {}

void TPiSerialStation::tryChkBeforeDoWork(TPiWork& work) {
  if (work.sequenceNum() != m_sequenceNum + 1) {
    TPipelineMgr::logErrLine("%s: work %llu doesn't follow m_sequenceNum %llu", name(),
                             static_cast<unsigned long long>(work.sequenceNum()),
                             static_cast<unsigned long long>(m_sequenceNum));
    UPiThrow(kErrPiOutOfSequence);
  }
  m_sequenceNum = work.sequenceNum();
}

void TPiSerialStation::addWork(TPiWork& first, TPiWork& second) {
  addWorkToOutQ(first);
  ++m_sequenceNum;
  second.setSequenceNum(m_sequenceNum + 1);
}

// ---- parallel stations and the terminal -------------------------------------

TPiParallelStation::TPiParallelStation(const char* name, TPipelineMgr& mgr, bool use2ndWorkBuf)
    : TPiStation(name, mgr, use2ndWorkBuf, true) {}

TPiTerminal::TPiTerminal(TPipelineMgr& mgr) : TPiSerialStation("Terminal", mgr, false, true) {}

void TPiTerminal::tryDoWorkBuf(TPiWorkBuf& /*buf*/, TPiWorkBuf* /*buf2*/, bool& used2nd) { used2nd = false; }

void TPiTerminal::tryDoMsg(TPiMsg& /*msg*/, bool& consumed) { consumed = true; }
