// Whole pipelines on their own threads.
#include "pipeline/tpipelinemgr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "pipeline/pisync.h"
#include "tests/pipeline_stations.h"
#include "tests/test_host.h"
#include "tests/watchdog.h"

namespace {

constexpr unsigned kBufSize = 64;

struct RunStats {
  int whyEnd = 1;
  unsigned elapsed = 0, work = 0, bufWait = 0, buf2Wait = 0;
};

RunStats EndRun(TPipelineMgr& mgr, bool signalled = false) {
  RunStats s;
  mgr.noMoreWorkAndWaitTillEnd(s.whyEnd, s.elapsed, s.work, s.bufWait, s.buf2Wait, signalled);
  return s;
}

// Fills the next buffer with its number and adds it; false when the pool failed.
bool ProduceOne(TPipelineMgr& mgr, uint32_t value, int* err) {
  TPiWorkBuf* buf = mgr.waitForWorkBuf(*err);
  if (buf == nullptr) return false;
  std::memcpy(buf->buf(), &value, sizeof(value));
  mgr.addWork(*buf);
  return true;
}

uint32_t ValueOf(TPiWorkBuf& buf) {
  uint32_t value;
  std::memcpy(&value, buf.buf(), sizeof(value));
  return value;
}

// Every tryChkWorkCounts line of `where`, and whether any is marked.
bool CountsAreClean(const TestHost& host, const std::string& where, size_t* lines) {
  std::vector<std::string> found = LinesContaining(host, where + " > tryChkWorkCounts: ");
  *lines = found.size();
  for (const std::string& line : found) {
    if (line.find("--ERR--") != std::string::npos) return false;
  }
  return true;
}

TEST(PipelineMgrThreaded, ParallelGroupKeepsOrderAndEndsCleanly) {
  TestHost host;
  TPipelineMgr mgr(kBufSize, false);
  std::mutex seenLock;
  std::vector<uint32_t> seen;
  std::atomic<int> squarers{0};
  mgr.tryAddStationAfterLast(*new FnSerialStation("Reader", mgr, [](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
    buf.buf()[8] = 1;
  }));
  for (const char* name : {"Sq1", "Sq2", "Sq3"}) {
    auto* station = new FnParallelStation(name, mgr, [&](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
      squarers.fetch_add(1);
      uint32_t v = ValueOf(buf);
      // Uneven work so that items overtake each other.
      if (v % 3 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
      v = v * v;
      std::memcpy(buf.buf(), &v, sizeof(v));
    });
    if (std::string(name) == "Sq1") {
      mgr.tryAddStationAfterLast(*station);
    } else {
      mgr.tryAddStationParallelToLast(*station);
    }
  }
  mgr.tryAddStationAfterLast(*new FnSerialStation("Sink", mgr, [&](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
    EXPECT_EQ(buf.buf()[8], 1);
    std::lock_guard<std::mutex> guard(seenLock);
    seen.push_back(ValueOf(buf));
  }));
  constexpr uint32_t kItems = 200;
  int err = 0;
  for (uint32_t i = 1; i <= kItems; ++i) ASSERT_TRUE(ProduceOne(mgr, i, &err)) << err;
  RunStats stats = EndRun(mgr);
  EXPECT_EQ(stats.whyEnd, 0);
  ASSERT_EQ(seen.size(), kItems);
  for (uint32_t i = 0; i < kItems; ++i) EXPECT_EQ(seen[i], (i + 1) * (i + 1));
  EXPECT_EQ(squarers.load(), static_cast<int>(kItems));
  // Reader, the group, Sequencing, Sink, Terminal: 5 nodes, 6 queues.
  EXPECT_EQ(mgr.queues().size(), 5u + 1);
  // One buffer per station: Reader, 3 squarers, Sequencing, Sink, Terminal.
  EXPECT_EQ(mgr.workBufsCreated(), 7u);
  EXPECT_EQ(mgr.lastSequenceNum(), kItems + 1);  // the end marker's
  size_t lines = 0;
  EXPECT_TRUE(CountsAreClean(host, "endAndWait", &lines));
  EXPECT_EQ(lines, 1u + 6);
  EXPECT_EQ(LinesContaining(host, "endAndWait > tryChkWorkCounts: (m_inQ)->Reader in=201 (msgIn=1) out=201").size(),
            1u);
  EXPECT_EQ(LinesContaining(host, "endAndWait > tryChkWorkCounts: Sq1->Sequencing in=201 (msgIn=1) out=201").size(),
            1u);
  EXPECT_EQ(LinesContaining(host, "TPipelineMgr::tryNewAllWorkBufs: m_outQ:7 m_Qof2ndWorkBufs:0").size(), 1u);
  EXPECT_EQ(LinesContaining(host, "TPipelineMgr::signalEnd:-1024").size(), 1u);
  for (const char* name : {"Reader", "Sq1", "Sq2", "Sq3", "Sequencing", "Sink", "Terminal"}) {
    EXPECT_EQ(LinesContaining(host, std::string(name) + ": work=").size(), 1u) << name;
  }
  EXPECT_TRUE(LinesContaining(host, "--ERR--").empty());
}

TEST(PipelineMgrThreaded, StockOfBuffersIsTheOnlyBackPressure) {
  TPipelineMgr mgr(kBufSize, false);
  TPiEvent gate(true);
  mgr.tryAddStationAfterLast(
      *new FnSerialStation("Gated", mgr, [&](TPiWorkBuf&, TPiWorkBuf*, bool&) { gate.Block(-1); }));
  mgr.tryAddStationAfterLast(*new FnSerialStation("Second", mgr, nullptr));
  int err = 0;
  std::vector<TPiWorkBuf*> taken;
  for (int i = 0; i < 3; ++i) {
    TPiWorkBuf* buf = mgr.waitForWorkBuf(err);
    ASSERT_NE(buf, nullptr);
    taken.push_back(buf);
  }
  EXPECT_EQ(mgr.workBufsCreated(), 3u);  // two host stations and the terminal
  for (TPiWorkBuf* buf : taken) mgr.addWork(*buf);
  std::atomic<bool> gotFourth{false};
  std::thread producer([&] {
    int fourthErr = 0;
    TPiWorkBuf* buf = mgr.waitForWorkBuf(fourthErr);
    EXPECT_NE(buf, nullptr);
    gotFourth.store(true);
    if (buf != nullptr) mgr.returnWorkBuf(*buf);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(gotFourth.load());
  gate.Signal();
  producer.join();
  EXPECT_TRUE(gotFourth.load());
  EXPECT_EQ(EndRun(mgr).whyEnd, 0);
}

TEST(PipelineMgrThreaded, RunWithoutWorkPassesTheEndMarkerEverywhere) {
  TestHost host;
  TPipelineMgr mgr(kBufSize, true);
  std::atomic<int> markers{0};
  MsgFn countMarker = [&](TPiMsg& msg, bool&) {
    if (msg.msgId() == kErrPiEndOfWork) markers.fetch_add(1);
  };
  mgr.tryAddStationAfterLast(*new FnSerialStation("A", mgr, nullptr, countMarker));
  mgr.tryAddStationAfterLast(*new FnParallelStation("P1", mgr, nullptr, countMarker));
  mgr.tryAddStationParallelToLast(*new FnParallelStation("P2", mgr, nullptr, countMarker));
  mgr.tryStartPipeline();
  EXPECT_EQ(mgr.workBufsCreated(), 1u);  // one-buffer mode
  RunStats stats = EndRun(mgr);
  EXPECT_EQ(stats.whyEnd, 0);
  EXPECT_EQ(stats.elapsed, 0u);
  EXPECT_EQ(markers.load(), 2);  // A, and one of the group
  for (size_t i = 0; i + 1 < mgr.queues().size(); ++i) {
    EXPECT_EQ(mgr.queues()[i]->workIn(), 1u);
    EXPECT_EQ(mgr.queues()[i]->msgIn(), 1u);
    EXPECT_EQ(mgr.queues()[i]->workOut(), 1u);
  }
  size_t lines = 0;
  EXPECT_TRUE(CountsAreClean(host, "endAndWait", &lines));
}

TEST(PipelineMgrThreaded, CancelEndsWithAbortOrTheGivenError) {
  TestHost host;
  for (int given : {0, kErrPiEndOfWork, -1107}) {
    TPipelineMgr mgr(kBufSize, false);
    mgr.tryAddStationAfterLast(*new FnSerialStation("A", mgr, nullptr));
    int err = 0;
    ASSERT_TRUE(ProduceOne(mgr, 1, &err));
    int whyEnd = 0;
    mgr.cancelAndWait(given, whyEnd);
    EXPECT_EQ(whyEnd, given == -1107 ? -1107 : kErrOperationAborted) << given;
    EXPECT_FALSE(mgr.isRunning());
    EXPECT_EQ(mgr.whyEnd(), whyEnd);
    // The producer learns it from the pool, and cannot start again.
    EXPECT_EQ(mgr.waitForWorkBuf(err), nullptr);
    EXPECT_EQ(err, whyEnd);
    try {
      mgr.tryStartPipeline();
      ADD_FAILURE() << "restarted after " << whyEnd;
    } catch (int code) {
      EXPECT_EQ(code, whyEnd);
    }
  }
  EXPECT_EQ(LinesContaining(host, "--ERR-- TPipelineMgr::cancelAndWait: overriding error=0 with kErrOperationAborted")
                .size(),
            1u);
  EXPECT_EQ(
      LinesContaining(host, "--ERR-- TPipelineMgr::cancelAndWait: overriding error=-1024 with kErrOperationAborted")
          .size(),
      1u);
  EXPECT_EQ(LinesContaining(host, "TPipelineMgr::tryStartPipeline: m_outQ->error=-1015 m_whyEnd=-1015").size(), 2u);
  EXPECT_EQ(LinesContaining(host, "TPipelineMgr::tryStartPipeline: m_outQ->error=-1107 m_whyEnd=-1107").size(), 1u);
}

TEST(PipelineMgrThreaded, ErrorDuringTheOrderlyEndReplacesIt) {
  TestHost host;
  TPipelineMgr mgr(kBufSize, false);
  std::atomic<int> upstreamBufs{0};
  mgr.tryAddStationAfterLast(
      *new FnSerialStation("Up", mgr, [&](TPiWorkBuf&, TPiWorkBuf*, bool&) { upstreamBufs.fetch_add(1); }));
  mgr.tryAddStationAfterLast(*new FnSerialStation("Closer", mgr, nullptr, [](TPiMsg& msg, bool&) {
    if (msg.msgId() == kErrPiEndOfWork) UPiThrow(-1108);
  }));
  int err = 0;
  for (uint32_t i = 0; i < 5; ++i) ASSERT_TRUE(ProduceOne(mgr, i, &err));
  mgr.noMoreWorkAndReturn();
  EXPECT_EQ(mgr.whyEnd(), kErrPiEndOfWork);
  RunStats stats = EndRun(mgr, true);
  EXPECT_EQ(stats.whyEnd, -1108);
  EXPECT_EQ(upstreamBufs.load(), 5);
  EXPECT_EQ(LinesContaining(host, "--ERR-- Closer: workUntilEnd:-1108 seq=6").size(), 1u);
  EXPECT_EQ(LinesContaining(host, "TPiQ::signalError:-1108").size(), 1u);  // Closer's out queue to the pool
}

TEST(PipelineMgrThreaded, FailureMidwayReachesProducerAndUnblocksUpstream) {
  TestHost host;
  TPipelineMgr mgr(kBufSize, false);
  mgr.tryAddStationAfterLast(*new FnSerialStation("Up", mgr, nullptr));
  mgr.tryAddStationAfterLast(*new FnSerialStation("Breaker", mgr, [](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
    if (ValueOf(buf) == 3) UPiThrow(-1107);
  }));
  int err = 0;
  uint32_t produced = 0;
  while (ProduceOne(mgr, ++produced, &err)) {
    ASSERT_LT(produced, 1000u);
  }
  EXPECT_EQ(err, -1107);
  int whyEnd = 0;
  mgr.cancelAndWait(0, whyEnd);
  EXPECT_EQ(whyEnd, -1107);  // the error outranks the cancel
  EXPECT_EQ(LinesContaining(host, "--ERR-- TPipelineMgr::doWaitForWorkBuf: error=-1107").size(), 1u);
  // Up waited on its input until the end signalled the error there too.
  EXPECT_EQ(LinesContaining(host, "--ERR-- Up: workUntilEnd:-1107").size(), 1u);
}

TEST(PipelineMgrThreaded, RestartAfterOrderlyEndContinuesNumbering) {
  TestHost host;
  TPipelineMgr mgr(kBufSize, false);
  std::vector<uint64_t> seqs;
  mgr.tryAddStationAfterLast(*new FnSerialStation(
      "Rec", mgr, [&](TPiWorkBuf& buf, TPiWorkBuf*, bool&) { seqs.push_back(buf.sequenceNum()); }));
  int err = 0;
  for (int run = 0; run < 3; ++run) {
    for (uint32_t i = 0; i < 4; ++i) ASSERT_TRUE(ProduceOne(mgr, i, &err));
    EXPECT_EQ(EndRun(mgr).whyEnd, 0);
  }
  EXPECT_EQ(seqs, (std::vector<uint64_t>{1, 2, 3, 4, 6, 7, 8, 9, 11, 12, 13, 14}));
  EXPECT_EQ(mgr.workBufsCreated(), 2u);  // made once
  size_t lines = 0;
  EXPECT_TRUE(CountsAreClean(host, "endAndWait", &lines));
  EXPECT_EQ(lines, 3u * 4);
  EXPECT_TRUE(LinesContaining(host, "--ERR--").empty());
}

TEST(PipelineMgrThreaded, SecondBuffersSwapRolesAndKeepTheirStock) {
  TestHost host;
  TPipelineMgr mgr(kBufSize, false);
  std::vector<uint32_t> results;
  // Doubles into the second buffer for even values, in place for odd ones.
  mgr.tryAddStationAfterLast(*new FnSerialStation(
      "Doubler", mgr,
      [](TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) {
        EXPECT_NE(buf2, nullptr);
        EXPECT_NE(buf2, &buf);
        uint32_t v = ValueOf(buf) * 2;
        if (ValueOf(buf) % 2 == 0) {
          std::memcpy(buf2->buf(), &v, sizeof(v));
          used2nd = true;
        } else {
          std::memcpy(buf.buf(), &v, sizeof(v));
        }
      },
      nullptr, true));
  mgr.tryAddStationAfterLast(
      *new FnSerialStation("Sink", mgr, [&](TPiWorkBuf& buf, TPiWorkBuf*, bool&) { results.push_back(ValueOf(buf)); }));
  int err = 0;
  for (uint32_t i = 1; i <= 50; ++i) ASSERT_TRUE(ProduceOne(mgr, i, &err));
  RunStats stats = EndRun(mgr);
  EXPECT_EQ(stats.whyEnd, 0);
  ASSERT_EQ(results.size(), 50u);
  for (uint32_t i = 0; i < 50; ++i) EXPECT_EQ(results[i], (i + 1) * 2);
  EXPECT_EQ(mgr.secondWorkBufsCreated(), 1u);
  EXPECT_EQ(mgr.workBufsCreated(), 3u);
  size_t lines = 0;
  EXPECT_TRUE(CountsAreClean(host, "endAndWait", &lines));
  EXPECT_EQ(LinesContaining(host, "endAndWait > tryChkWorkCounts: Qof2ndWorkBuf in=1 out=0").size(), 1u);
}

TEST(PipelineMgrThreaded, MessagesVisitEveryStationInOrder) {
  TPipelineMgr mgr(kBufSize, false);
  std::vector<std::string> visits;
  std::mutex lock;
  auto record = [&](const char* name) {
    return [&, name](TPiMsg& msg, bool&) {
      std::lock_guard<std::mutex> guard(lock);
      visits.push_back(std::string(name) + ":" + std::to_string(msg.msgId()));
    };
  };
  mgr.tryAddStationAfterLast(*new FnSerialStation("A", mgr, nullptr, record("A")));
  mgr.tryAddStationAfterLast(*new FnSerialStation("B", mgr, nullptr, record("B")));
  int err = 0;
  for (int id : {41, 42}) {
    TPiMsg* msg = mgr.getMsgBuf(id, err, 16);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->bufSize(), 16u);
    mgr.addWork(*msg);
  }
  EXPECT_EQ(EndRun(mgr).whyEnd, 0);
  std::vector<std::string> a, b;
  for (const std::string& v : visits) (v[0] == 'A' ? a : b).push_back(v);
  EXPECT_EQ(a, (std::vector<std::string>{"A:41", "A:42", "A:-1024"}));
  EXPECT_EQ(b, (std::vector<std::string>{"B:41", "B:42", "B:-1024"}));
}

TEST(PipelineMgrThreaded, MessagesConsumedInAParallelGroupLeaveNoGap) {
  TestHost host;
  TPipelineMgr mgr(kBufSize, false);
  std::atomic<int> eaten{0};
  MsgFn eatOdd = [&](TPiMsg& msg, bool& consumed) {
    if (msg.msgId() % 2 == 1) {
      consumed = true;
      eaten.fetch_add(1);
    }
  };
  mgr.tryAddStationAfterLast(*new FnSerialStation("Head", mgr, nullptr));
  mgr.tryAddStationAfterLast(*new FnParallelStation("E1", mgr, nullptr, eatOdd));
  mgr.tryAddStationParallelToLast(*new FnParallelStation("E2", mgr, nullptr, eatOdd));
  std::vector<int> ids;
  mgr.tryAddStationAfterLast(*new FnSerialStation(
      "Sink", mgr, [&](TPiWorkBuf&, TPiWorkBuf*, bool&) { ids.push_back(0); },
      [&](TPiMsg& msg, bool&) { ids.push_back(msg.msgId()); }));
  int err = 0;
  for (int id = 1; id <= 20; ++id) {
    if (id % 5 == 0) {
      ASSERT_TRUE(ProduceOne(mgr, 0, &err));
      continue;
    }
    TPiMsg* msg = mgr.getMsgBuf(id, err, 0);
    ASSERT_NE(msg, nullptr);
    mgr.addWork(*msg);
  }
  EXPECT_EQ(EndRun(mgr).whyEnd, 0);
  EXPECT_EQ(eaten.load(), 8);  // the odd messages; 5 and 15 are buffers
  EXPECT_EQ(ids, (std::vector<int>{2, 4, 0, 6, 8, 0, 12, 14, 0, 16, 18, 0, kErrPiEndOfWork}));
  EXPECT_TRUE(LinesContaining(host, "--ERR--").empty());
}

TEST(PipelineMgrThreaded, DestructorForcesTheEnd) {
  TestHost host;
  std::atomic<int> done{0};
  {
    TPipelineMgr mgr(kBufSize, false);
    mgr.tryAddStationAfterLast(
        *new FnSerialStation("A", mgr, [&](TPiWorkBuf&, TPiWorkBuf*, bool&) { done.fetch_add(1); }));
    int err = 0;
    for (uint32_t i = 0; i < 3; ++i) ASSERT_TRUE(ProduceOne(mgr, i, &err));
  }
  EXPECT_EQ(done.load(), 3);
  EXPECT_EQ(LinesContaining(host, "TPipelineMgr::~TPipelineMgr: forcing noMoreWorkAndWaitTillEnd").size(), 1u);
}

TEST(PipelineMgrThreaded, AbortSignalledByTheHostEndsTheRun) {
  class AbortingMgr : public TPipelineMgr {
   public:
    AbortingMgr() : TPipelineMgr(kBufSize, false) {}
    bool isAbortSignaled() override { return abort.load(); }
    std::atomic<bool> abort{false};
  };
  AbortingMgr mgr;
  mgr.tryAddStationAfterLast(*new FnSerialStation("A", mgr, [&](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
    if (ValueOf(buf) == 2) mgr.abort.store(true);
  }));
  int err = 0;
  uint32_t produced = 0;
  while (ProduceOne(mgr, ++produced, &err)) ASSERT_LT(produced, 1000u);
  EXPECT_EQ(err, kErrOperationAborted);
  int whyEnd = 0;
  mgr.cancelAndWait(kErrOperationAborted, whyEnd);
  EXPECT_EQ(whyEnd, kErrOperationAborted);
}

// An abort that is withdrawn between the two questions of a queue's wait
// ends that waiter with -1. A station ended so must still end the run: the
// producer and the end wait may not hang on a thread that is gone.
TEST(PipelineMgrThreaded, WithdrawnAbortNeverLeavesTheRunHanging) {
  class BlinkingMgr : public TPipelineMgr {
   public:
    BlinkingMgr() : TPipelineMgr(kBufSize, false) {}
    // True for exactly one question once armed.
    bool isAbortSignaled() override { return armed.exchange(false); }
    std::atomic<bool> armed{false};
  };
  Watchdog watchdog("withdrawn abort", std::chrono::seconds(20));
  TestHost host;
  BlinkingMgr mgr;
  std::atomic<bool> armedOnce{false};
  mgr.tryAddStationAfterLast(*new FnSerialStation("A", mgr, [&](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
    if (ValueOf(buf) == 5 && !armedOnce.exchange(true)) mgr.armed.store(true);
  }));
  mgr.tryAddStationAfterLast(*new FnSerialStation("B", mgr, [](TPiWorkBuf&, TPiWorkBuf*, bool&) {}));
  int err = 0;
  for (uint32_t i = 1; i <= 50; ++i) {
    TPiWorkBuf* buf = mgr.waitForWorkBuf(err);
    if (buf == nullptr && err == kErrPiThread) buf = mgr.waitForWorkBuf(err);
    if (buf == nullptr) break;
    std::memcpy(buf->buf(), &i, sizeof(i));
    mgr.addWork(*buf);
  }
  RunStats s = EndRun(mgr);
  EXPECT_TRUE(s.whyEnd == 0 || s.whyEnd == kErrPiThread) << s.whyEnd;
  if (s.whyEnd == kErrPiThread) {
    // The station that saw it first, and every one behind it, logs the end.
    EXPECT_FALSE(LinesContaining(host, "workUntilEnd:-1 ").empty());
  }
}

TEST(PipelineMgr, StructuralRules) {
  TestHost host;
  TPipelineMgr mgr(kBufSize, false);
  EXPECT_EQ(mgr.chkPipeline(true, "empty", nullptr), 0);
  EXPECT_EQ(LinesContaining(host, "TPipelineMgr > tryDoChkPipeline: m_bufSize=64").size(), 1u);
  EXPECT_EQ(LinesContaining(host, "TPipelineMgr > tryChkWorkCounts: workBufCreated=0 2ndWorkBufCreated=0").size(), 1u);
  try {
    mgr.tryAddStationAfterLast(*new FnParallelStation("P", mgr, nullptr));
    FAIL() << "a pipeline began with a parallel station";
  } catch (int err) {
    EXPECT_EQ(err, kErrPiLogic);
  }
  EXPECT_EQ(LinesContaining(host, "--ERR-- TPipelineMgr::tryAddStationAfterLast: can't start with TPiParallelStation")
                .size(),
            1u);
  EXPECT_THROW(mgr.tryAddStationParallelToLast(*new FnParallelStation("Q", mgr, nullptr)), int);
  auto* serial = new FnSerialStation("S", mgr, nullptr);
  mgr.tryAddStationAfterLast(*serial);
  EXPECT_THROW(mgr.tryAddStationAfterLast(*serial), int);  // owned already
  EXPECT_THROW(mgr.tryAddStationParallelToLast(*new FnParallelStation("R", mgr, nullptr)), int);
  EXPECT_EQ(mgr.queues().size(), 2u);
  EXPECT_EQ(mgr.chkPipeline(false, "where", "detail"), 0);
  EXPECT_EQ(LinesContaining(host, "where detail > tryDoChkPipeline: m_bufSize=64").size(), 1u);
  // Nothing ran: ending does not start it.
  RunStats stats = EndRun(mgr);
  EXPECT_EQ(stats.whyEnd, kErrPiEndOfWork);
  EXPECT_EQ(LinesContaining(host, "TPipelineMgr::endAndWait: pipeline not running").size(), 1u);
}

TEST(PipelineMgrThreaded, PipelineWithoutHostStations) {
  TPipelineMgr mgr(kBufSize, false);
  int err = 0;
  for (uint32_t i = 0; i < 10; ++i) ASSERT_TRUE(ProduceOne(mgr, i, &err));
  EXPECT_EQ(mgr.workBufsCreated(), 1u);  // the terminal's
  EXPECT_EQ(EndRun(mgr).whyEnd, 0);
}

}  // namespace
