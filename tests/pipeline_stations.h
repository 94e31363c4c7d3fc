// Stations for pipeline tests whose work is a lambda, and a helper that
// finds rendered log lines.
#ifndef PLINTH_TESTS_PIPELINE_STATIONS_H_
#define PLINTH_TESTS_PIPELINE_STATIONS_H_

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/tpipelinemgr.h"
#include "tests/test_host.h"

using BufFn = std::function<void(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd)>;
using MsgFn = std::function<void(TPiMsg& msg, bool& consumed)>;

class FnSerialStation : public TPiSerialStation {
 public:
  FnSerialStation(const char* name, TPipelineMgr& mgr, BufFn onBuf, MsgFn onMsg = {}, bool use2nd = false,
                  bool ownThread = true)
      : TPiSerialStation(name, mgr, use2nd, ownThread), m_onBuf(std::move(onBuf)), m_onMsg(std::move(onMsg)) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) override {
    if (m_onBuf) m_onBuf(buf, buf2, used2nd);
  }
  void tryDoMsg(TPiMsg& msg, bool& consumed) override {
    if (m_onMsg) m_onMsg(msg, consumed);
  }

 private:
  BufFn m_onBuf;
  MsgFn m_onMsg;
};

class FnParallelStation : public TPiParallelStation {
 public:
  FnParallelStation(const char* name, TPipelineMgr& mgr, BufFn onBuf, MsgFn onMsg = {}, bool use2nd = false)
      : TPiParallelStation(name, mgr, use2nd), m_onBuf(std::move(onBuf)), m_onMsg(std::move(onMsg)) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) override {
    if (m_onBuf) m_onBuf(buf, buf2, used2nd);
  }
  void tryDoMsg(TPiMsg& msg, bool& consumed) override {
    if (m_onMsg) m_onMsg(msg, consumed);
  }

 private:
  BufFn m_onBuf;
  MsgFn m_onMsg;
};

// Rendered texts of the recorded lines that contain `part`.
inline std::vector<std::string> LinesContaining(const TestHost& host, const std::string& part) {
  std::vector<std::string> out;
  for (const LoggedLine& line : host.Lines()) {
    if (line.text.find(part) != std::string::npos) out.push_back(line.text);
  }
  return out;
}

#endif  // PLINTH_TESTS_PIPELINE_STATIONS_H_
