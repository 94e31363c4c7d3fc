// Whole pipelines held at chosen points, to pin down orderings that random
// runs meet only by chance: an end marker overtaking a late item of a
// parallel group, an item out of sequence in the middle of a pipeline, and
// the producer blocked on a stock of one buffer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/memory.h"
#include "pipeline/tpipelinemgr.h"
#include "tests/pipeline_stations.h"
#include "tests/test_host.h"
#include "tests/watchdog.h"

namespace {

using Seen = std::vector<std::pair<uint64_t, int64_t>>;  // sequence number, ordinal or message id

void WaitUntil(const std::function<bool()>& done) {
  while (!done()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

uint64_t Ordinal(TPiWorkBuf& buf) {
  uint64_t v;
  std::memcpy(&v, buf.buf(), sizeof v);
  return v;
}

void AddNumbered(TPipelineMgr& mgr, uint64_t ordinal) {
  int err = 0;
  TPiWorkBuf* buf = mgr.waitForWorkBuf(err);
  ASSERT_NE(buf, nullptr) << err;
  std::memcpy(buf->buf(), &ordinal, sizeof ordinal);
  mgr.addWork(*buf);
}

int EndRun(TPipelineMgr& mgr, bool signalled) {
  int whyEnd = 1;
  unsigned elapsed, work, bufWait, buf2Wait;
  mgr.noMoreWorkAndWaitTillEnd(whyEnd, elapsed, work, bufWait, buf2Wait, signalled);
  return whyEnd;
}

// A serial station that notes what it passes on, in order.
TPiStation* NewRecorder(TPipelineMgr& mgr, Seen& seen) {
  return new FnSerialStation(
      "Recorder", mgr,
      [&seen](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
        seen.push_back({buf.sequenceNum(), static_cast<int64_t>(Ordinal(buf))});
      },
      [&seen](TPiMsg& msg, bool&) { seen.push_back({msg.sequenceNum(), msg.msgId()}); });
}

// The first item is held inside a parallel group while the second and the
// end marker go through its other member: the marker must wait at the
// group's output queue until the first item arrives, so the sequencing
// station delivers both items and only then the end.
TEST(PipelineEdgesThreaded, EndMarkerWaitsForLateItemOfParallelGroup) {
  Watchdog watchdog("EndMarkerWaitsForLateItemOfParallelGroup", std::chrono::seconds(60));
  int64_t blocks = MemLiveBlocks();
  for (int round = 0; round < 5; ++round) {
    Seen seen;
    {
      TPiEvent gate(true);
      std::atomic<bool> held{false};
      BufFn hold = [&](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
        if (Ordinal(buf) != 1) return;
        held.store(true);
        gate.Block(-1);
      };
      TPipelineMgr mgr(64, false);
      mgr.tryAddStationAfterLast(*new FnSerialStation("First", mgr, nullptr));
      mgr.tryAddStationAfterLast(*new FnParallelStation("P1", mgr, hold));
      mgr.tryAddStationParallelToLast(*new FnParallelStation("P2", mgr, hold));
      mgr.tryAddStationAfterLast(*NewRecorder(mgr, seen));
      mgr.tryStartPipeline();
      // m_inQ, First, the group, Sequencing, Recorder, Terminal (m_outQ).
      ASSERT_EQ(mgr.queues().size(), 6u);
      TPiQ* groupOut = mgr.queues()[2];
      AddNumbered(mgr, 1);
      WaitUntil([&] { return held.load(); });
      AddNumbered(mgr, 2);
      mgr.noMoreWorkAndReturn();
      // Item 2 and the marker have left the group; the marker stays put.
      WaitUntil([&] { return groupOut->workIn() == 2; });
      // The sequencing station takes item 2 whenever it is scheduled; the
      // marker must still be there a while after.
      WaitUntil([&] { return groupOut->workOut() >= 1; });
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      EXPECT_EQ(groupOut->workOut(), 1u) << "the marker went past the late item";
      EXPECT_EQ(mgr.queues()[3]->workIn(), 0u);
      gate.Signal();
      EXPECT_EQ(EndRun(mgr, true), 0);
      EXPECT_EQ(groupOut->workOut(), 3u);
    }
    const Seen want = {{1, 1}, {2, 2}, {3, kErrPiEndOfWork}};
    EXPECT_EQ(seen, want) << "round " << round;
  }
  EXPECT_EQ(MemLiveBlocks(), blocks);
}

// Item 3 leaves the first station numbered 4: the next serial station
// refuses it with -1010, which reaches every later queue, the producer and
// the end reason, and the manager refuses to start again.
TEST(PipelineEdgesThreaded, OutOfSequenceInTheMiddleStopsEverything) {
  Watchdog watchdog("OutOfSequenceInTheMiddleStopsEverything", std::chrono::seconds(60));
  TestHost host;
  int64_t blocks = MemLiveBlocks();
  {
    Seen seen;
    TPipelineMgr mgr(64, false);
    mgr.tryAddStationAfterLast(*new FnSerialStation("Renumber", mgr, [](TPiWorkBuf& buf, TPiWorkBuf*, bool&) {
      if (buf.sequenceNum() == 3) buf.setSequenceNum(4);
    }));
    mgr.tryAddStationAfterLast(*new FnSerialStation("Checker", mgr, nullptr));
    mgr.tryAddStationAfterLast(*new FnSerialStation("Later", mgr, nullptr));
    mgr.tryAddStationAfterLast(*NewRecorder(mgr, seen));
    int err = 0;
    for (uint64_t ordinal = 1; ordinal < 10000; ++ordinal) {
      TPiWorkBuf* buf = mgr.waitForWorkBuf(err);
      if (buf == nullptr) break;
      std::memcpy(buf->buf(), &ordinal, sizeof ordinal);
      mgr.addWork(*buf);
    }
    EXPECT_EQ(err, kErrPiOutOfSequence) << "the producer was not stopped";
    EXPECT_EQ(EndRun(mgr, false), kErrPiOutOfSequence);
    // m_inQ, Renumber, Checker, Later, Recorder, Terminal: from the
    // checker's output on, every queue carries the code.
    const std::vector<TPiQ*>& queues = mgr.queues();
    ASSERT_EQ(queues.size(), 6u);
    for (size_t i = 2; i < queues.size(); ++i) EXPECT_EQ(queues[i]->error(), kErrPiOutOfSequence) << "queue " << i;
    EXPECT_EQ(LinesContaining(host, "--ERR-- Checker: work 4 doesn't follow m_sequenceNum 2").size(), 1u);
    EXPECT_EQ(LinesContaining(host, "--ERR-- Checker: workUntilEnd:-1010 seq=2").size(), 1u);
    // Items 1 and 2 passed the checker, but the error may overtake them.
    ASSERT_LE(seen.size(), 2u);
    for (size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], (std::pair<uint64_t, int64_t>(i + 1, i + 1)));
    int refused = 0;
    try {
      mgr.tryStartPipeline();
    } catch (int code) {
      refused = code;
    }
    EXPECT_EQ(refused, kErrPiOutOfSequence);
  }
  EXPECT_EQ(MemLiveBlocks(), blocks);
}

// With the one-buffer flag a pipeline of two stations has one buffer and one
// second buffer in all: the producer's second waitForWorkBuf returns only
// once the first item has come back through the terminal, and both stations
// that write into a second buffer take turns with the one there is.
TEST(PipelineEdgesThreaded, OneBufferStockBlocksTheProducer) {
  Watchdog watchdog("OneBufferStockBlocksTheProducer", std::chrono::seconds(60));
  Seen seen;
  TPiEvent gate(true);
  std::atomic<bool> opened{false};
  BufFn copyOn = [](TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) {
    std::memcpy(buf2->buf(), buf.buf(), buf.bufSize());
    used2nd = true;
  };
  TPipelineMgr mgr(64, true);
  mgr.tryAddStationAfterLast(*new FnSerialStation(
      "Held", mgr,
      [&](TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) {
        gate.Block(-1);
        copyOn(buf, buf2, used2nd);
      },
      {}, true));
  mgr.tryAddStationAfterLast(*new FnSerialStation("Copier", mgr, copyOn, {}, true));
  mgr.tryAddStationAfterLast(*NewRecorder(mgr, seen));
  mgr.tryStartPipeline();
  EXPECT_EQ(mgr.workBufsCreated(), 1u);
  EXPECT_EQ(mgr.secondWorkBufsCreated(), 1u);
  AddNumbered(mgr, 1);
  std::thread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    opened.store(true);
    gate.Signal();
  });
  int err = 0;
  TPiWorkBuf* buf = mgr.waitForWorkBuf(err);
  EXPECT_TRUE(opened.load()) << "a buffer beyond the stock was handed out";
  opener.join();
  ASSERT_NE(buf, nullptr) << err;
  uint64_t two = 2;
  std::memcpy(buf->buf(), &two, sizeof two);
  mgr.addWork(*buf);
  for (uint64_t i = 3; i <= 50; ++i) AddNumbered(mgr, i);
  EXPECT_EQ(EndRun(mgr, false), 0);
  ASSERT_EQ(seen.size(), 51u);
  for (uint64_t i = 0; i < 50; ++i) EXPECT_EQ(seen[i], (std::pair<uint64_t, int64_t>(i + 1, i + 1)));
  EXPECT_EQ(mgr.queues().back()->pending(), 1u);
}

}  // namespace
