// The manager's structure, its stock of work buffers, the start and the
// producer's side of a run.
#include "pipeline/tpipelinemgr.h"

#include "platform/clock.h"

namespace {

int64_t NowSecs() { return platform::UnixTimeMilliseconds() / 1000; }

}  // namespace

TPipelineMgr::TPipelineMgr(unsigned bufSize, bool oneBuffer) : m_bufSize(bufSize), m_oneBuffer(oneBuffer) {
  chkPipeline(true, "TPipelineMgr", nullptr);
}

bool TPipelineMgr::isAbortSignaled() { return false; }

// ---- stations ---------------------------------------------------------------

bool TPipelineMgr::adopt(TPiStation& station, const char* where) {
  for (const auto& owned : m_stations) {
    if (owned.get() == &station) {
      logErrLine("TPipelineMgr::%s: %s added twice", where, station.name());
      return false;
    }
  }
  m_stations.emplace_back(&station);
  return true;
}

void TPipelineMgr::tryChkNotStarted(const char* where) {
  if (m_terminal == nullptr && !m_running) return;
  logErrLine("TPipelineMgr::%s: pipeline already started", where);
  UPiThrow(kErrPiLogic);
}

void TPipelineMgr::tryAddStationAfterLast(TPiStation& station) {
  if (!adopt(station, "tryAddStationAfterLast")) UPiThrow(kErrPiLogic);
  tryChkNotStarted("tryAddStationAfterLast");
  if (m_nodes.empty() && station.isParallel()) {
    logErrLine("TPipelineMgr::tryAddStationAfterLast: can't start with TPiParallelStation");
    UPiThrow(kErrPiLogic);
  }
  doAddStationAfterLast(station);
  tryChkPipeline(false, "tryAddStationAfterLast", nullptr);
}

void TPipelineMgr::doAddStationAfterLast(TPiStation& station) {
  if (!m_nodes.empty() && m_nodes.back()->isParallelGroup() && !station.isSequencing()) {
    // Items leave a parallel group in any order; the producer's is restored.
    TPiSequencingStation* sequencing = tryNewSequencingStation();
    adopt(*sequencing, "tryNewSequencingStation");
    doAddStationAfterLast(*sequencing);
  }
  if (m_queues.empty()) m_inQ = tryNewQ(false);
  TPiQ* in = m_queues.back();
  TPiQ* out = tryNewQ(false);
  in->setNextQ(*out);
  station.setQs(in, out);
  m_outQ = out;
  m_nodes.push_back(std::make_unique<TSerialNode>(station));
}

void TPipelineMgr::tryAddStationParallelToLast(TPiParallelStation& station) {
  if (!adopt(station, "tryAddStationParallelToLast")) UPiThrow(kErrPiLogic);
  tryChkNotStarted("tryAddStationParallelToLast");
  TPiParallelStation* last = nullptr;
  if (!m_nodes.empty()) last = dynamic_cast<TPiParallelStation*>(&m_nodes.back()->station());
  if (last == nullptr) {
    logErrLine("TPipelineMgr::tryAddStationParallelToLast: last station isn't a TPiParallelStation");
    UPiThrow(kErrPiLogic);
  }
  if (!m_nodes.back()->isParallelGroup()) m_nodes.back() = std::make_unique<TParallelGroup>(*last);
  TParallelGroup& group = static_cast<TParallelGroup&>(*m_nodes.back());
  group.add(station);
  station.setQs(group.inQ(), group.outQ());
  tryChkPipeline(false, "tryAddStationParallelToLast", nullptr);
}

TPiQ* TPipelineMgr::tryNewQ(bool second) {
  if (second && m_Qof2ndWorkBufs != nullptr) {
    logErrLine("TPipelineMgr::tryNewQ: m_Qof2ndWorkBufs already exists");
    UPiThrow(kErrPiLogic);
  }
  TPiQ* queue = TPiQ::factory(*this);
  if (queue == nullptr) {
    logErrLine("TPipelineMgr::tryNewQ: can't allocate TPiQ");
    UPiThrow(kErrPiNoMemory);
  }
  if (second) {
    m_Qof2ndWorkBufs = queue;
  } else {
    m_queues.push_back(queue);
  }
  return queue;
}

TPiSequencingStation* TPipelineMgr::tryNewSequencingStation() { return new TPiSequencingStation("Sequencing", *this); }

// ---- work buffers -----------------------------------------------------------

void TPipelineMgr::tryNew1WorkBuf(bool second) {
  TPiQ* pool = second ? m_Qof2ndWorkBufs : m_outQ;
  if (pool == nullptr) {
    logErrLine(second ? "TPipelineMgr::tryNew1WorkBuf: !m_Qof2ndWorkBufs" : "TPipelineMgr::tryNew1WorkBuf: !m_outQ");
    UPiThrow(kErrPiLogic);
  }
  TPiWorkBuf* buf = nullptr;
  try {
    buf = new TPiWorkBuf(m_bufSize);
  } catch (int) {
    logErrLine("TPipelineMgr::tryNew1WorkBuf: can't allocate TPiWorkBuf(%u)", m_bufSize);
    UPiThrow(kErrPiNoMemory);
  }
  m_workBufs.emplace_back(buf);
  pool->addWork(*buf, false);
  if (second) {
    ++m_2ndWorkBufsCreated;
  } else {
    ++m_workBufsCreated;
  }
}

void TPipelineMgr::tryNewWorkBufsForStation(const TPiStation& station) {
  if (!m_oneBuffer || m_workBufsCreated == 0) tryNew1WorkBuf(false);
  if (!station.use2ndWorkBuf()) return;
  if (m_Qof2ndWorkBufs == nullptr) tryNewQ(true);
  if (!m_oneBuffer || m_2ndWorkBufsCreated == 0) tryNew1WorkBuf(true);
}

void TPipelineMgr::tryNewAllWorkBufs() {
  for (const auto& node : m_nodes) {
    if (!node->isParallelGroup()) {
      tryNewWorkBufsForStation(node->station());
      continue;
    }
    for (const TPiParallelStation* station : static_cast<const TParallelGroup&>(*node).stations()) {
      tryNewWorkBufsForStation(*station);
    }
  }
  logLine("TPipelineMgr::tryNewAllWorkBufs: m_outQ:%u m_Qof2ndWorkBufs:%u", m_workBufsCreated, m_2ndWorkBufsCreated);
  tryChkPipeline(false, "tryNewAllWorkBufs", nullptr);
}

// ---- start ------------------------------------------------------------------

void TPipelineMgr::tryStartPipeline() {
  if (m_running) return;
  try {
    if (m_terminal == nullptr) {
      TPiTerminal* terminal = new TPiTerminal(*this);
      adopt(*terminal, "tryStartPipeline");
      doAddStationAfterLast(*terminal);
      m_terminal = terminal;
    } else if (m_outQ == nullptr) {
      logErrLine("TPipelineMgr::tryStartPipeline: !m_outQ");
      UPiThrow(kErrPiLogic);
    } else if (m_outQ->error() == 0 && m_whyEnd == 0) {
      for (TPiQ* queue : m_queues) queue->tryResumeAfterNoMoreWork();
      if (m_Qof2ndWorkBufs != nullptr) m_Qof2ndWorkBufs->tryResumeAfterNoMoreWork();
    } else {
      int outErr = m_outQ->error();
      logErrLine("TPipelineMgr::tryStartPipeline: m_outQ->error=%d m_whyEnd=%d", outErr, m_whyEnd);
      UPiThrow(outErr != 0 ? outErr : m_whyEnd);
    }
    if (m_workBufsCreated == 0) tryNewAllWorkBufs();
    m_running = true;
    for (const auto& node : m_nodes) node->tryStartThreads();
  } catch (int err) {
    logErrLine("TPipelineMgr::tryStartPipeline: error=%d", err);
    signalEnd(err);
    throw;
  }
}

// ---- the producer's side ----------------------------------------------------

void TPipelineMgr::addWork(TPiWork& work) {
  // A pipeline without stations gets its queues with the terminal.
  if (m_inQ == nullptr && !m_running && m_whyEnd == 0) tryStartPipeline();
  if (m_inQ == nullptr) {
    logErrLine("TPipelineMgr::addWork: !m_inQ");
    UPiThrow(kErrPiLogic);
  }
  if (m_startTime == 0) m_startTime = NowSecs();
  work.setSequenceNum(++m_sequenceNum);
  m_inQ->addWork(work, false);
  if (m_running || m_whyEnd != 0) return;
  tryStartPipeline();
  tryChkPipeline(false, "addWork", nullptr);
}

TPiWorkBuf* TPipelineMgr::waitForWorkBuf(int& err) { return doWaitForWorkBuf(err, false); }

TPiWorkBuf* TPipelineMgr::waitFor2ndWorkBuf(const TPiWorkBuf& /*buf*/) {
  int err;
  return doWaitForWorkBuf(err, true);
}

TPiWorkBuf* TPipelineMgr::doWaitForWorkBuf(int& err, bool second) {
  err = kErrPiLogic;
  if (!second && m_workBufsCreated == 0 && !m_running && m_whyEnd == 0) {
    // The stock is made at the start: a producer asking first starts.
    try {
      tryStartPipeline();
    } catch (int code) {
      err = code;
      return nullptr;
    }
  }
  TPiQ* pool = second ? m_Qof2ndWorkBufs : m_outQ;
  if (pool == nullptr) {
    logErrLine("TPipelineMgr::doWaitForWorkBuf: %s", second ? "!m_Qof2ndWorkBufs" : "!m_outQ");
    return nullptr;
  }
  for (;;) {
    TPiWork* work = pool->waitForWork(err);
    if (work == nullptr) {
      if (err == kErrPiEndOfWork || err == kErrOperationAborted) {
        logLine("TPipelineMgr::doWaitForWorkBuf: error=%d", err);
      } else {
        logErrLine("TPipelineMgr::doWaitForWorkBuf: error=%d", err);
      }
      return nullptr;
    }
    if (work->isWorkBuf()) return static_cast<TPiWorkBuf*>(work);
    logErrLine("TPipelineMgr::waitForWorkBuf: logic err: got unexpected TPiMsg");
    delete work;
  }
}

void TPipelineMgr::returnWorkBuf(TPiWorkBuf& buf) {
  if (m_outQ == nullptr) {
    logErrLine("TPipelineMgr::returnWorkBuf: !m_outQ");
    return;
  }
  m_outQ->addWork(buf, true);
}

void TPipelineMgr::addUnusedWorkBuf(TPiWorkBuf& buf) {
  if (m_Qof2ndWorkBufs == nullptr) {
    logErrLine("TPipelineMgr::addUnusedWorkBuf: !m_Qof2ndWorkBufs");
    return;
  }
  m_Qof2ndWorkBufs->addWork(buf, true);
}

TPiMsg* TPipelineMgr::getMsgBuf(int msgId, int& err, unsigned size) {
  if (m_outQ == nullptr) {
    err = kErrPiLogic;
    return nullptr;
  }
  err = m_outQ->error();
  if (err != 0) return nullptr;
  try {
    return new TPiMsg(msgId, size);
  } catch (int) {
    err = kErrPiNoMemory;
    logErrLine("TPipelineMgr::getMsgBuf: can't allocate TPiMsg(%d)", msgId);
    return nullptr;
  }
}
