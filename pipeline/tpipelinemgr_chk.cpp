// The manager's consistency checks: structure, and when idle, the counts
// of work through every queue and of buffers in the pools.
#include <string>

#include "pipeline/tpipelinemgr.h"

namespace {

using ULL = unsigned long long;

}  // namespace

void TPipelineMgr::tryChkPipeline(bool withCounts, const char* where, const char* detail) {
  std::string name = where != nullptr ? where : "";
  if (detail != nullptr && *detail != '\0') name += std::string(" ") + detail;
  tryDoChkPipeline(name.c_str());
  if (withCounts && !m_running) tryChkWorkCounts(name.c_str());
}

int TPipelineMgr::chkPipeline(bool withCounts, const char* where, const char* detail) {
  try {
    tryChkPipeline(withCounts, where, detail);
  } catch (int err) {
    return err;
  }
  return 0;
}

void TPipelineMgr::tryDoChkPipeline(const char* where) {
  logLine("%s > tryDoChkPipeline: m_bufSize=%u", where, m_bufSize);
  if (m_nodes.empty()) {
    if (!m_queues.empty() || m_inQ != nullptr || m_outQ != nullptr || m_Qof2ndWorkBufs != nullptr ||
        m_terminal != nullptr || m_running || m_workBufsCreated != 0 || m_2ndWorkBufsCreated != 0) {
      logErrLine("%s > tryDoChkPipeline: incorrect empty state", where);
      UPiThrow(kErrPiLogic);
    }
    return;
  }
  if (m_queues.size() != m_nodes.size() + 1 || m_inQ != m_queues.front() || m_outQ != m_queues.back() ||
      m_nodes.front()->inQ() != m_inQ || m_nodes.back()->outQ() != m_outQ) {
    logErrLine("%s > tryDoChkPipeline: incorrect queues", where);
    UPiThrow(kErrPiLogic);
  }
  for (size_t i = 0; i + 1 < m_nodes.size(); ++i) {
    if (m_nodes[i]->outQ() != m_queues[i + 1] || m_nodes[i + 1]->inQ() != m_queues[i + 1]) {
      logErrLine("%s > tryDoChkPipeline: station %u and %u disconnected", where, static_cast<unsigned>(i),
                 static_cast<unsigned>(i + 1));
      UPiThrow(kErrPiLogic);
    }
  }
  for (const auto& node : m_nodes) node->tryChk();
  if (m_running && m_terminal == nullptr) {
    logErrLine("%s > tryDoChkPipeline: m_running && !m_terminal", where);
    UPiThrow(kErrPiLogic);
  }
}

void TPipelineMgr::tryChkWorkCounts(const char* where) {
  logLine("%s > tryChkWorkCounts: workBufCreated=%u 2ndWorkBufCreated=%u", where, m_workBufsCreated,
          m_2ndWorkBufsCreated);
  for (unsigned i = 0; i < m_queues.size(); ++i) {
    TPiQ* queue = m_queues[i];
    uint64_t in = queue->workIn();
    uint64_t out = queue->workOut();
    // The pool holds every buffer made besides what went through it.
    bool ok = queue == m_outQ ? in - out == m_workBufsCreated : in == out;
    logLine("%s > tryChkWorkCounts: %s%s in=%llu (msgIn=%llu) out=%llu", where, nameOfQ(i).c_str(),
            ok ? "" : "--ERR--", static_cast<ULL>(in), static_cast<ULL>(queue->msgIn()), static_cast<ULL>(out));
  }
  if (m_Qof2ndWorkBufs == nullptr) return;
  uint64_t in = m_Qof2ndWorkBufs->workIn();
  uint64_t out = m_Qof2ndWorkBufs->workOut();
  bool ok = in - out == m_2ndWorkBufsCreated;
  logLine("%s > tryChkWorkCounts: Qof2ndWorkBuf%s in=%llu out=%llu", where, ok ? "" : "--ERR--",
          static_cast<ULL>(in), static_cast<ULL>(out));
}

std::string TPipelineMgr::nameOfQ(unsigned index) {
  std::string name = index == 0 ? std::string("(m_inQ)")
                                : index - 1 < m_nodes.size() ? m_nodes[index - 1]->station().name() : "?";
  name += "->";
  name += index >= m_nodes.size() ? std::string("(m_outQ)") : m_nodes[index]->station().name();
  return name;
}
