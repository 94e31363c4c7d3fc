// Nodes start and join the threads of their stations.
#include "pipeline/tpipelinenode.h"

#include <system_error>

#include "pipeline/tpipelinemgr.h"

namespace {

void LogStationStatistics(const TPiStation& station) {
  TPipelineMgr::logLine("%s: work=%us waitForWork=%us", station.name(), station.workTimeInSecs(),
                        station.waitTimeInSecs());
}

// A thread running the station's work loop; false when none could be made.
bool StartStationThread(TPiStation& station, std::thread* thread) {
  try {
    *thread = std::thread([&station] { station.workUntilEnd(); });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

}  // namespace

// ---- serial node ------------------------------------------------------------

TSerialNode::TSerialNode(TPiStation& station) : m_station(&station) {}

TSerialNode::~TSerialNode() {
  if (!m_thread.joinable()) return;
  TPipelineMgr::logLine("TSerialNode::~TSerialNode: forcing waitForThreadEnd");
  waitForThreadsEnd();
}

void TSerialNode::tryStartThreads() {
  if (!m_station->ownThread()) return;  // the host's thread drives it
  if (m_thread.joinable()) {
    TPipelineMgr::logErrLine("TSerialNode::waitForThreadsEnd: m_thread already exists");
    return;
  }
  if (!StartStationThread(*m_station, &m_thread)) UPiThrow(kErrPiThread);
}

void TSerialNode::waitForThreadsEnd() {
  if (!m_thread.joinable()) {
    if (m_station->ownThread()) TPipelineMgr::logErrLine("TSerialNode::waitForThreadsEnd: no m_thread");
    return;
  }
  m_thread.join();
}

void TSerialNode::logStatistics() const { LogStationStatistics(*m_station); }

// ---- parallel group ---------------------------------------------------------

TParallelGroup::TParallelGroup(TPiParallelStation& first) { m_stations.push_back(&first); }

TParallelGroup::~TParallelGroup() {
  if (m_threads.empty()) return;
  TPipelineMgr::logLine("TParallelGroup::~TParallelGroup: forcing waitForThreadsEnd");
  waitForThreadsEnd();
}

void TParallelGroup::add(TPiParallelStation& station) { m_stations.push_back(&station); }

void TParallelGroup::tryStartThreads() {
  bool failed = false;
  for (TPiParallelStation* station : m_stations) {
    std::thread thread;
    if (StartStationThread(*station, &thread)) {
      m_threads.push_back(std::move(thread));
    } else {
      failed = true;  // the others are still started
    }
  }
  if (failed) UPiThrow(kErrPiThread);
}

void TParallelGroup::waitForThreadsEnd() {
  if (m_threads.empty()) {
    TPipelineMgr::logErrLine("TParallelGroup::waitForThreadsEnd: no threads");
    return;
  }
  for (std::thread& thread : m_threads) thread.join();
  m_threads.clear();
}

void TParallelGroup::tryChk() {
  for (const TPiParallelStation* station : m_stations) {
    if (station->inQ() != inQ() || station->outQ() != outQ()) {
      TPipelineMgr::logErrLine("TParallelGroup::tryChk: incorrect queues");
      UPiThrow(kErrPiLogic);
    }
  }
}

UPiTicks TParallelGroup::workTime() const {
  UPiTicks total = 0;
  for (const TPiParallelStation* station : m_stations) total += station->workTime();
  return total;
}

void TParallelGroup::logStatistics() const {
  for (const TPiParallelStation* station : m_stations) LogStationStatistics(*station);
}
