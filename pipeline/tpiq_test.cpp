#include "pipeline/tpiq.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "pipeline/tpipelinemgr.h"
#include "tests/pipeline_stations.h"
#include "tests/test_host.h"

namespace {

using QPtr = std::unique_ptr<TPiQ>;

QPtr NewQ(TPipelineMgr& mgr) { return QPtr(TPiQ::factory(mgr)); }

// Messages owned by the test, numbered as the manager would.
struct Items {
  std::vector<std::unique_ptr<TPiMsg>> all;
  TPiMsg& Make(uint64_t seq, int id = 1) {
    all.push_back(std::make_unique<TPiMsg>(id, 0));
    all.back()->setSequenceNum(seq);
    return *all.back();
  }
  TPiMsg& EndMarker(uint64_t seq) { return Make(seq, kErrPiEndOfWork); }
};

// A manager whose abort answer the test scripts.
class AbortMgr : public TPipelineMgr {
 public:
  AbortMgr() : TPipelineMgr(16, false) {}
  bool isAbortSignaled() override {
    bool answer = trueOnce.exchange(false) || abort.load();
    asked.fetch_add(1);  // counted once answered, for the test to wait on
    return answer;
  }
  std::atomic<bool> abort{false};
  std::atomic<bool> trueOnce{false};
  std::atomic<int> asked{0};
};

TEST(PiQueue, FifoAndCounts) {
  TPipelineMgr mgr(16, false);
  QPtr q = NewQ(mgr);
  Items items;
  TPiWorkBuf buf(8);
  q->addWork(items.Make(1), false);
  q->addWork(buf, false);
  EXPECT_EQ(q->workIn(), 2u);
  EXPECT_EQ(q->msgIn(), 1u);
  int err = 1;
  EXPECT_EQ(q->waitForWork(err), items.all[0].get());
  EXPECT_EQ(err, 0);
  EXPECT_EQ(q->waitForWork(err), &buf);
  EXPECT_EQ(q->workOut(), 2u);
  // A put-back lowers workOut and counts as no work in.
  q->addWork(buf, true);
  EXPECT_EQ(q->workIn(), 2u);
  EXPECT_EQ(q->workOut(), 1u);
  EXPECT_EQ(q->pending(), 1u);
  EXPECT_EQ(q->waitForWork(err), &buf);
  EXPECT_EQ(q->waitTimeInSecs(), 0u);
}

TEST(PiQueue, EndMarkerWaitsForEveryEarlierItem) {
  TPipelineMgr mgr(16, false);
  QPtr q = NewQ(mgr);
  Items items;
  // Items 1, 2 and the marker 4 arrive before item 3 (parallel delivery).
  q->addWork(items.Make(2), false);
  q->addWork(items.Make(1), false);
  q->addWork(items.EndMarker(4), false);
  EXPECT_EQ(q->pending(), 2u);  // the marker is invisible
  int err = 0;
  EXPECT_EQ(q->waitForWork(err)->sequenceNum(), 2u);
  EXPECT_EQ(q->waitForWork(err)->sequenceNum(), 1u);
  EXPECT_EQ(q->pending(), 0u);
  // A put-back neither counts as work in nor releases the marker.
  TPiWorkBuf buf(4);
  q->addWork(buf, true);
  EXPECT_EQ(q->pending(), 1u);
  EXPECT_EQ(q->waitForWork(err), &buf);
  q->addWork(items.Make(3), false);
  EXPECT_EQ(q->pending(), 2u);
  EXPECT_EQ(q->waitForWork(err)->sequenceNum(), 3u);
  TPiWork* marker = q->waitForWork(err);
  ASSERT_NE(marker, nullptr);
  EXPECT_EQ(marker->msgId(), kErrPiEndOfWork);
  EXPECT_EQ(q->waitForWork(err), nullptr);
  EXPECT_EQ(err, kErrPiEndOfWork);
  EXPECT_EQ(q->waitForWork(err), nullptr);  // stays ended
  EXPECT_EQ(err, kErrPiEndOfWork);
  EXPECT_EQ(q->workIn(), 4u);
  EXPECT_EQ(q->msgIn(), 4u);
}

TEST(PiQueue, ResumeReopensOnlyAnEndedErrorFreeQueue) {
  TestHost host;
  TPipelineMgr mgr(16, false);
  QPtr q = NewQ(mgr);
  Items items;
  q->addWork(items.EndMarker(1), false);
  int err = 0;
  ASSERT_NE(q->waitForWork(err), nullptr);
  q->tryResumeAfterNoMoreWork();
  // A second run: its items and end marker travel as before.
  q->addWork(items.Make(2), false);
  q->addWork(items.EndMarker(3), false);
  EXPECT_EQ(q->waitForWork(err)->sequenceNum(), 2u);
  EXPECT_EQ(q->waitForWork(err)->sequenceNum(), 3u);
  EXPECT_EQ(q->waitForWork(err), nullptr);
  EXPECT_EQ(err, kErrPiEndOfWork);

  QPtr held = NewQ(mgr);
  held->addWork(items.EndMarker(5), false);
  EXPECT_THROW(held->tryResumeAfterNoMoreWork(), int);
  EXPECT_EQ(LinesContaining(host, "--ERR-- TPiQUnix::resumeAfterNoMoreWork: Still waiting for prior work to complete")
                .size(),
            1u);
  try {
    q->signalError(-1107);
    q->tryResumeAfterNoMoreWork();
    FAIL() << "resumed a failed queue";
  } catch (int code) {
    EXPECT_EQ(code, kErrPiLogic);
  }
  EXPECT_EQ(LinesContaining(host, "--ERR-- TPiQUnix::resumeAfterNoMoreWork: error=-1107").size(), 1u);
}

TEST(PiQueue, FirstErrorWinsAndRunsDownOnce) {
  TestHost host;
  TPipelineMgr mgr(16, false);
  QPtr q1 = NewQ(mgr), q2 = NewQ(mgr), q3 = NewQ(mgr);
  q1->setNextQ(*q2);
  q2->setNextQ(*q3);
  q2->signalError(-1107);  // raised in the middle: runs down only
  q1->signalError(-1015);
  q1->signalError(-1018);
  EXPECT_EQ(q1->error(), -1015);
  EXPECT_EQ(q2->error(), -1107);
  EXPECT_EQ(q3->error(), -1107);
  std::vector<std::string> lines = LinesContaining(host, "TPiQ::signalError:");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "TPiQ::signalError:-1107");  // q2 to q3
  EXPECT_EQ(lines[1], "TPiQ::signalError:-1015");  // q1 to q2, kept there
  // The error outranks waiting items.
  Items items;
  q1->addWork(items.Make(1), false);
  int err = 0;
  EXPECT_EQ(q1->waitForWork(err), nullptr);
  EXPECT_EQ(err, -1015);
  EXPECT_EQ(q1->pending(), 1u);
}

TEST(PiQueue, WithdrawnAbortAnswersMinusOneAndPassesNothing) {
  AbortMgr mgr;
  QPtr q = NewQ(mgr);
  mgr.trueOnce.store(true);
  int err = 0;
  EXPECT_EQ(q->waitForWork(err), nullptr);
  EXPECT_EQ(err, kErrPiThread);
  EXPECT_EQ(q->error(), 0);
}

TEST(PiQueueThreaded, AbortWakesAWaitingTakerOnlyWhenSignalled) {
  AbortMgr mgr;
  QPtr q = NewQ(mgr), next = NewQ(mgr);
  q->setNextQ(*next);
  std::atomic<bool> returned{false};
  int takerErr = 0;
  std::thread taker([&] {
    TPiWork* work = q->waitForWork(takerErr);
    EXPECT_EQ(work, nullptr);
    returned.store(true);
  });
  // The taker asked once, found no abort and no item: it waits next, and
  // nothing but a signal makes it look again.
  while (mgr.asked.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  mgr.abort.store(true);
  std::this_thread::sleep_for(std::chrono::milliseconds(40));
  EXPECT_FALSE(returned.load());
  Items items;
  q->addWork(items.Make(1), false);
  taker.join();
  EXPECT_EQ(takerErr, kErrOperationAborted);
  EXPECT_EQ(q->error(), kErrOperationAborted);
  EXPECT_EQ(next->error(), kErrOperationAborted);
  EXPECT_EQ(q->pending(), 1u);
}

TEST(PiQueueThreaded, EndMarkerBehindShuffledItemsFromManyGivers) {
  TPipelineMgr mgr(16, false);
  QPtr q = NewQ(mgr);
  constexpr uint64_t kItems = 400;
  Items items;
  for (uint64_t i = 1; i <= kItems; ++i) items.Make(i);
  items.EndMarker(kItems + 1);
  std::vector<TPiMsg*> order;
  for (auto& item : items.all) order.push_back(item.get());
  std::shuffle(order.begin(), order.end(), std::mt19937(20240611));
  std::vector<uint64_t> seen;
  std::thread taker([&] {
    int err = 0;
    while (TPiWork* work = q->waitForWork(err)) seen.push_back(work->sequenceNum());
    EXPECT_EQ(err, kErrPiEndOfWork);
  });
  // Two givers, each adding every other item of the shuffled order.
  auto give = [&](size_t first) {
    for (size_t i = first; i < order.size(); i += 2) q->addWork(*order[i], false);
  };
  std::thread giverA(give, 0);
  std::thread giverB(give, 1);
  giverA.join();
  giverB.join();
  taker.join();
  ASSERT_EQ(seen.size(), kItems + 1);
  EXPECT_EQ(seen.back(), kItems + 1);  // the marker comes last
  std::vector<uint64_t> sorted(seen.begin(), seen.end() - 1);
  std::sort(sorted.begin(), sorted.end());
  for (uint64_t i = 0; i < kItems; ++i) EXPECT_EQ(sorted[i], i + 1);
}

}  // namespace
