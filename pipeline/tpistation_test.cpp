// Stations driven one item at a time on the test's thread.
#include "pipeline/tpistation.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "pipeline/tpipelinemgr.h"
#include "tests/pipeline_stations.h"
#include "tests/test_host.h"

namespace {

using QPtr = std::unique_ptr<TPiQ>;

struct Rig {
  TPipelineMgr mgr{16, false};
  QPtr in{TPiQ::factory(mgr)};
  QPtr out{TPiQ::factory(mgr)};
  QPtr after{TPiQ::factory(mgr)};
  Rig() { out->setNextQ(*after); }

  // A heap message numbered `seq`; the stations delete what they consume.
  TPiMsg* Msg(uint64_t seq, int id = 1) {
    auto* msg = new TPiMsg(id, 0);
    msg->setSequenceNum(seq);
    return msg;
  }
  std::vector<uint64_t> DrainOut() {
    std::vector<uint64_t> seqs;
    while (out->pending() > 0) {
      int err = 0;
      TPiWork* work = out->waitForWork(err);
      seqs.push_back(work->sequenceNum());
      if (!work->isWorkBuf()) delete work;
    }
    return seqs;
  }
};

TEST(PiSequencingStation, RestoresTheProducersOrder) {
  Rig rig;
  TPiSequencingStation station("Sequencing", rig.mgr);
  station.setQs(rig.in.get(), rig.out.get());
  EXPECT_TRUE(station.isSequencing());
  for (uint64_t seq : {1, 3, 2, 6, 5, 4}) {
    rig.in->addWork(*rig.Msg(seq), false);
    int err = 0;
    station.waitAndDoWorkOnce(err);
    EXPECT_EQ(err, 0);
  }
  EXPECT_EQ(rig.DrainOut(), (std::vector<uint64_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(station.sequenceNum(), 6u);
  // Early items still held go with the station (the leak checker watches).
  rig.in->addWork(*rig.Msg(9), false);
  rig.in->addWork(*rig.Msg(8), false);
  int err = 0;
  station.waitAndDoWorkOnce(err);
  station.waitAndDoWorkOnce(err);
  EXPECT_EQ(rig.out->pending(), 0u);
}

TEST(PiSequencingStation, WithoutOutputQueueFailsAsALogicError) {
  TestHost host;
  TPipelineMgr mgr(16, false);
  TPiSequencingStation station("Sequencing", mgr);
  TPiMsg msg(1, 0);
  msg.setSequenceNum(1);
  bool consumed = false;
  bool sequenced = false;
  TPiWorkBuf* replacement = nullptr;
  try {
    station.tryDoWork(msg, consumed, replacement, sequenced);
    FAIL() << "no throw";
  } catch (int err) {
    EXPECT_EQ(err, kErrPiLogic);
  }
  EXPECT_EQ(LinesContaining(host, "--ERR-- TPiSequencingStation::tryDoSequencing: !m_sharedOutQ").size(), 1u);
  bool used2nd = false;
  TPiWorkBuf buf(4);
  EXPECT_THROW(station.tryDoWorkBuf(buf, nullptr, used2nd), int);
  EXPECT_THROW(station.tryDoMsg(msg, consumed), int);
  EXPECT_EQ(LinesContaining(host, "TPiSequencingStation::tryDoWorkBuf shouldn't be called").size(), 1u);
  EXPECT_EQ(LinesContaining(host, "TPiSequencingStation::tryDoMsg shouldn't be called").size(), 1u);
}

TEST(PiSerialStation, OutOfSequenceItemFailsEveryLaterQueue) {
  TestHost host;
  Rig rig;
  int worked = 0;
  FnSerialStation station("Checker", rig.mgr, [&](TPiWorkBuf&, TPiWorkBuf*, bool&) { ++worked; });
  station.setQs(rig.in.get(), rig.out.get());
  TPiWorkBuf bufs[4] = {TPiWorkBuf(4), TPiWorkBuf(4), TPiWorkBuf(4), TPiWorkBuf(4)};
  const uint64_t seqs[4] = {1, 2, 3, 5};
  for (int i = 0; i < 4; ++i) {
    bufs[i].setSequenceNum(seqs[i]);
    rig.in->addWork(bufs[i], false);
  }
  station.workUntilEnd();  // returns on the failure
  EXPECT_EQ(worked, 3);
  EXPECT_EQ(station.sequenceNum(), 3u);
  EXPECT_EQ(rig.out->error(), kErrPiOutOfSequence);
  EXPECT_EQ(rig.after->error(), kErrPiOutOfSequence);
  EXPECT_EQ(rig.in->error(), 0);
  EXPECT_EQ(LinesContaining(host, "--ERR-- Checker: work 5 doesn't follow m_sequenceNum 3").size(), 1u);
  EXPECT_EQ(LinesContaining(host, "--ERR-- Checker: workUntilEnd:-1010 seq=3").size(), 1u);
  // Items passed before the failure stay; the failed one is not passed on.
  EXPECT_EQ(rig.out->pending(), 3u);
  int err = 0;
  EXPECT_EQ(rig.out->waitForWork(err), nullptr);  // the error outranks them
  EXPECT_EQ(err, kErrPiOutOfSequence);
}

// Counts its own destruction.
class CountedMsg : public TPiMsg {
 public:
  CountedMsg(int id, int* deaths) : TPiMsg(id, 8), m_deaths(deaths) {}
  ~CountedMsg() override { ++*m_deaths; }

 private:
  int* m_deaths;
};

TEST(PiStation, ConsumedMessageIsDeletedNotPassedOn) {
  Rig rig;
  FnSerialStation station("Eater", rig.mgr, nullptr, [&](TPiMsg& msg, bool& consumed) { consumed = msg.msgId() == 7; });
  station.setQs(rig.in.get(), rig.out.get());
  int deaths = 0;
  auto* eaten = new CountedMsg(7, &deaths);
  eaten->setSequenceNum(1);
  auto* kept = new CountedMsg(8, &deaths);
  kept->setSequenceNum(2);
  rig.in->addWork(*eaten, false);
  rig.in->addWork(*kept, false);
  int err = 0;
  station.waitAndDoWorkOnce(err);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(deaths, 1);
  station.waitAndDoWorkOnce(err);
  EXPECT_EQ(deaths, 1);
  // The consumed message's number goes on without it; the next serial
  // station passes its stand-in unseen and accepts 2 after it.
  std::vector<int> seen;
  FnSerialStation next("Next", rig.mgr, nullptr, [&](TPiMsg& msg, bool&) { seen.push_back(msg.msgId()); });
  next.setQs(rig.out.get(), rig.after.get());
  next.waitAndDoWorkOnce(err);
  next.waitAndDoWorkOnce(err);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(seen, (std::vector<int>{8}));
  EXPECT_EQ(next.sequenceNum(), 2u);
  // The terminal ends the stand-in's trip.
  QPtr pool(TPiQ::factory(rig.mgr));
  TPiTerminal terminal(rig.mgr);
  terminal.setQs(rig.after.get(), pool.get());
  terminal.waitAndDoWorkOnce(err);
  terminal.waitAndDoWorkOnce(err);
  EXPECT_EQ(deaths, 2);
  EXPECT_EQ(pool->pending(), 0u);
  EXPECT_EQ(rig.after->workOut(), 2u);
}

TEST(PiStation, QuietEndingsAreNotLogged) {
  TestHost host;
  Rig rig;
  std::vector<int> ids;
  FnSerialStation station("Reader", rig.mgr, nullptr, [&](TPiMsg& msg, bool&) { ids.push_back(msg.msgId()); });
  station.setQs(rig.in.get(), rig.out.get());
  rig.in->addWork(*rig.Msg(1, 8), false);
  rig.in->addWork(*rig.Msg(2, kErrPiEndOfWork), false);
  station.workUntilEnd();
  EXPECT_EQ(ids, (std::vector<int>{8, kErrPiEndOfWork}));
  EXPECT_EQ(rig.DrainOut(), (std::vector<uint64_t>{1, 2}));
  int err = 0;
  EXPECT_EQ(rig.out->waitForWork(err), nullptr);
  EXPECT_EQ(err, kErrPiEndOfWork);
  EXPECT_TRUE(LinesContaining(host, "workUntilEnd").empty());

  FnSerialStation loose("Loose", rig.mgr, nullptr);
  loose.workUntilEnd();
  loose.setQs(rig.in.get(), nullptr);
  loose.workUntilEnd();
  EXPECT_EQ(LinesContaining(host, "--ERR-- Loose: workUntilEnd: !m_sharedInQ").size(), 1u);
  EXPECT_EQ(LinesContaining(host, "--ERR-- Loose: workUntilEnd: !m_sharedOutQ").size(), 1u);
}

TEST(PiStation, ThrownCodesAndForeignExceptionsBecomeQueueErrors) {
  TestHost host;
  Rig rig;
  FnSerialStation station("Thrower", rig.mgr, nullptr, [](TPiMsg&, bool&) { UPiThrow(-1107); });
  station.setQs(rig.in.get(), rig.out.get());
  rig.in->addWork(*rig.Msg(1, 2), false);
  int err = 0;
  station.waitAndDoWorkOnce(err);
  EXPECT_EQ(err, -1107);
  EXPECT_EQ(rig.out->error(), -1107);

  Rig other;
  FnSerialStation foreign("Foreign", other.mgr, nullptr, [](TPiMsg&, bool&) { throw std::runtime_error("x"); });
  foreign.setQs(other.in.get(), other.out.get());
  other.in->addWork(*other.Msg(1, 3), false);
  foreign.waitAndDoWorkOnce(err);
  EXPECT_EQ(err, kErrPiLogic);
  EXPECT_EQ(other.out->error(), kErrPiLogic);
  EXPECT_EQ(LinesContaining(host, "Foreign: waitAndDoWorkOnce: unexpected exception").size(), 1u);
}

TEST(PiStation, TerminalPassesBuffersAndConsumesMessages) {
  Rig rig;
  TPiTerminal terminal(rig.mgr);
  EXPECT_STREQ(terminal.name(), "Terminal");
  EXPECT_TRUE(terminal.ownThread());
  EXPECT_FALSE(terminal.use2ndWorkBuf());
  terminal.setQs(rig.in.get(), rig.out.get());
  TPiWorkBuf buf(32);
  buf.setSequenceNum(1);
  rig.in->addWork(buf, false);
  rig.in->addWork(*rig.Msg(2, kErrPiEndOfWork), false);
  terminal.workUntilEnd();
  EXPECT_EQ(rig.out->pending(), 1u);
  int err = 0;
  EXPECT_EQ(rig.out->waitForWork(err), &buf);
  EXPECT_EQ(buf.sequenceNum(), 1u);
  EXPECT_EQ(terminal.sequenceNum(), 2u);
}

TEST(PiWork, SizesAndNumbers) {
  TPiMsg empty(5, 0);
  EXPECT_EQ(empty.buf(), nullptr);
  EXPECT_EQ(empty.bufSize(), 0u);
  EXPECT_FALSE(empty.isWorkBuf());
  EXPECT_EQ(empty.msgId(), 5);
  EXPECT_EQ(empty.sequenceNum(), 0u);
  TPiWorkBuf buf(100);
  ASSERT_NE(buf.buf(), nullptr);
  EXPECT_EQ(buf.bufSize(), 100u);
  EXPECT_TRUE(buf.isWorkBuf());
  for (unsigned i = 0; i < 100; ++i) EXPECT_EQ(buf.buf()[i], 0);
  buf.buf()[99] = 0xAB;  // the whole size is writable
  buf.setSequenceNum(1ull << 40);
  EXPECT_EQ(buf.sequenceNum(), 1ull << 40);
}

}  // namespace
