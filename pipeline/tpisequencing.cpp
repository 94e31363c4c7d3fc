// The sequencing station: restores the producer's order behind a parallel
// group by holding early items until their predecessors have passed.
#include "foundation/hooks.h"
#include "pipeline/tpipelinemgr.h"
#include "pipeline/tpistation.h"

TPiSequencingStation::TPiSequencingStation(const char* name, TPipelineMgr& mgr)
    : TPiSerialStation(name, mgr, false, true) {}

TPiSequencingStation::~TPiSequencingStation() {
  for (auto& held : m_held) delete held.second;
}

bool TPiSequencingStation::tryDoSequencing(TPiWork& work) {
  if (outQ() == nullptr) {
    TPipelineMgr::logErrLine("TPiSequencingStation::tryDoSequencing: !m_sharedOutQ");
    UPiThrow(kErrPiLogic);
  }
  if (work.sequenceNum() != m_sequenceNum + 1) {
    // A number already passed or already held cannot be placed anywhere.
    if (work.sequenceNum() <= m_sequenceNum || !m_held.emplace(work.sequenceNum(), &work).second) {
      Debug("tpisequencing", __LINE__, 0);
      UPiThrow(kErrPiLogic);
    }
    return true;
  }
  addWorkToOutQ(work);
  ++m_sequenceNum;
  for (auto next = m_held.begin(); next != m_held.end() && next->first == m_sequenceNum + 1;
       next = m_held.begin()) {
    addWorkToOutQ(*next->second);
    m_held.erase(next);
    ++m_sequenceNum;
  }
  return true;
}

void TPiSequencingStation::tryDoWorkBuf(TPiWorkBuf& /*buf*/, TPiWorkBuf* /*buf2*/, bool& /*used2nd*/) {
  TPipelineMgr::logErrLine("TPiSequencingStation::tryDoWorkBuf shouldn't be called");
  UPiThrow(kErrPiLogic);
}

void TPiSequencingStation::tryDoMsg(TPiMsg& /*msg*/, bool& /*consumed*/) {
  TPipelineMgr::logErrLine("TPiSequencingStation::tryDoMsg shouldn't be called");
  UPiThrow(kErrPiLogic);
}

std::map<uint64_t, TPiWork*> TPiSequencingStation::takeHeldForCleanUp() {
  std::map<uint64_t, TPiWork*> held;
  held.swap(m_held);
  return held;
}
