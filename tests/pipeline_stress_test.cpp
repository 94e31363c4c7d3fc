// Randomised runs of whole pipelines: random shapes (serial stations and
// parallel groups, second buffers, the one-buffer stock), random work, errors
// thrown at random items, messages consumed midway, cancels and aborts at
// random points. Every run must end, end for the right reason, deliver its
// items in the producer's order (a prefix of it when the run failed), give
// every buffer back, free every block, and restart only after an orderly end.
//
// PLINTH_PIPELINE_STRESS_RUNS sets the number of runs (default 300).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/memory.h"
#include "pipeline/pisync.h"
#include "pipeline/tpipelinemgr.h"
#include "pipeline/tpistation.h"
#include "pipeline/tpiwork.h"
#include "tests/test_host.h"
#include "tests/watchdog.h"

namespace {

constexpr int kThrown = -1108;
constexpr int kCancelCode = -1033;  // a cancel with a reason of the host's own
constexpr uint64_t kEndMarker = UINT64_MAX;
constexpr int kMsgIdBase = 1000;  // message ids carry the producer's ordinal

int RunCount() {
  const char* text = std::getenv("PLINTH_PIPELINE_STRESS_RUNS");
  if (text == nullptr) return 300;
  int n = std::atoi(text);
  return n > 0 ? n : 300;
}

uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// The stage (0 .. stages-1) that consumes the message of this ordinal, or -1
// when it goes all the way.
int EaterOf(uint64_t seed, uint64_t ordinal, size_t stages) {
  uint64_t h = Mix(seed ^ 0xEA7E5ull ^ (ordinal << 20));
  return h % 4 == 0 ? static_cast<int>((h >> 8) % stages) : -1;
}

// ---- items ---------------------------------------------------------------

// A buffer carries its producer ordinal in its first 8 bytes and a pattern
// derived from it in the rest, so a buffer handed out twice, or a second
// buffer sent on without its copy, shows at the next station.
uint8_t PatternByte(uint64_t ordinal, unsigned at) { return static_cast<uint8_t>(ordinal * 131 + at * 7 + 1); }

void Fill(TPiWorkBuf& buf, uint64_t ordinal) {
  unsigned char* p = buf.buf();
  std::memcpy(p, &ordinal, sizeof ordinal);
  for (unsigned i = sizeof ordinal; i < buf.bufSize(); ++i) p[i] = PatternByte(ordinal, i);
}

// The ordinal, or kEndMarker when the pattern is broken.
uint64_t ReadOrdinal(TPiWorkBuf& buf) {
  uint64_t ordinal;
  const unsigned char* p = buf.buf();
  std::memcpy(&ordinal, p, sizeof ordinal);
  for (unsigned i = sizeof ordinal; i < buf.bufSize(); ++i) {
    if (p[i] != PatternByte(ordinal, i)) return kEndMarker;
  }
  return ordinal;
}

// ---- the shape of a run ------------------------------------------------------

struct StageSpec {
  bool parallel = false;
  int members = 1;  // stations of a parallel group (1..4); 1 when serial
  bool use2nd = false;
  int64_t throwAt = -1;  // the ordinal this stage throws at
  int work = 0;          // 0 none, 1 spin, 2 spin and now and then a short sleep
};

enum class EndKind {
  kOrderly,
  kOrderlySignalledFirst,  // noMoreWorkAndReturn, then noMoreWorkAndWaitTillEnd
  kCancel,                 // cancelAndWait at a random point
  kAbort,                  // isAbortSignaled turns true at a random point
  kEndThenCancel,          // noMoreWorkAndReturn, then cancelAndWait
  kDestroy,                // left running to the manager's destructor
};

struct RunSpec {
  uint64_t seed = 0;
  unsigned bufSize = 16;
  bool oneBuffer = false;
  std::vector<StageSpec> stages;  // the host's stages; the last is the recorder
  int items = 0;
  int messagePercent = 0;
  int returnPercent = 0;  // buffers taken and given back unused
  EndKind end = EndKind::kOrderly;
  int stopAt = -1;  // cancel or abort before this ordinal
  int cancelCode = 0;
  bool restart = false;
  int restartItems = 0;

  std::string Describe() const {
    std::string s = "seed " + std::to_string(seed) + ", buf " + std::to_string(bufSize) +
                    (oneBuffer ? ", one buffer" : "") + ", items " + std::to_string(items) + ", stages";
    for (const StageSpec& st : stages) {
      s += st.parallel ? " P" + std::to_string(st.members) : std::string(" S");
      if (st.use2nd) s += "+2nd";
      if (st.throwAt >= 0) s += "!" + std::to_string(st.throwAt);
    }
    const char* ends[] = {"orderly", "orderly (signalled first)", "cancel", "abort", "end then cancel", "destroy"};
    s += std::string(", end ") + ends[static_cast<int>(end)];
    if (stopAt >= 0) s += " at " + std::to_string(stopAt);
    if (end == EndKind::kCancel || end == EndKind::kEndThenCancel) s += " code " + std::to_string(cancelCode);
    if (restart) s += ", restart with " + std::to_string(restartItems);
    return s;
  }
};

RunSpec RandomRun(uint64_t seed) {
  std::mt19937_64 rng(seed);
  auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); };
  RunSpec run;
  run.seed = seed;
  run.bufSize = 16u << pick(6);
  run.oneBuffer = pick(5) == 0;
  run.items = pick(8) == 0 ? pick(3) : 1 + pick(250);
  run.messagePercent = pick(3) == 0 ? 0 : pick(15);
  run.returnPercent = pick(3) == 0 ? pick(10) : 0;
  int hostStages = 1 + pick(4);
  for (int i = 0; i < hostStages; ++i) {
    StageSpec st;
    st.parallel = i > 0 && pick(2) == 0;  // a pipeline may not start with a parallel station
    st.members = st.parallel ? 1 + pick(4) : 1;
    st.use2nd = pick(3) == 0;
    st.work = pick(3);
    run.stages.push_back(st);
  }
  // The recorder, always serial, always last.
  StageSpec recorder;
  recorder.use2nd = pick(4) == 0;
  run.stages.push_back(recorder);
  if (run.items > 0 && pick(3) == 0) run.stages[static_cast<size_t>(pick(hostStages + 1))].throwAt = pick(run.items);
  switch (pick(8)) {
    case 0:
      run.end = EndKind::kCancel;
      break;
    case 1:
      run.end = EndKind::kAbort;
      break;
    case 2:
      run.end = EndKind::kOrderlySignalledFirst;
      break;
    case 3:
      run.end = EndKind::kEndThenCancel;
      break;
    case 4:
      run.end = EndKind::kDestroy;
      break;
    default:
      run.end = EndKind::kOrderly;
  }
  if (run.end == EndKind::kCancel || run.end == EndKind::kAbort) run.stopAt = pick(run.items + 1);
  const int codes[] = {0, kErrPiEndOfWork, kErrOperationAborted, kCancelCode};
  run.cancelCode = codes[pick(4)];
  bool throws = false;
  for (const StageSpec& st : run.stages) throws = throws || st.throwAt >= 0;
  run.restart = !throws && run.stopAt < 0 && run.end != EndKind::kEndThenCancel && run.end != EndKind::kDestroy &&
                pick(3) == 0;
  run.restartItems = pick(100);
  return run;
}

// ---- what the stations share --------------------------------------------------

struct Seen {
  uint64_t seq;
  uint64_t ordinal;  // kEndMarker for the end marker
  bool operator==(const Seen& other) const { return seq == other.seq && ordinal == other.ordinal; }
};

class RunState {
 public:
  RunState(uint64_t seed, size_t stages) : m_seed(seed), m_stages(stages) {}

  uint64_t seed() const { return m_seed; }
  size_t stages() const { return m_stages; }
  void NoteSwap() { m_swaps.fetch_add(1); }
  int swaps() const { return m_swaps.load(); }
  void NoteThrow() { m_threw.store(true); }
  bool threw() const { return m_threw.load(); }
  void Problem(const std::string& what) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_problems.size() < 5) m_problems.push_back(what);
  }
  std::vector<std::string> problems() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_problems;
  }
  // Written by the recorder's thread only, read after the threads were joined.
  std::vector<Seen> recorded;

 private:
  uint64_t m_seed;
  size_t m_stages;
  std::atomic<bool> m_threw{false};
  std::atomic<int> m_swaps{0};
  std::mutex m_lock;
  std::vector<std::string> m_problems;
};

// The work of one stage, shared by its serial or parallel stations.
class StageWork {
 public:
  StageWork(const StageSpec& plan, RunState& run, int stage) : m_spec(plan), m_run(run), m_stage(stage) {}

  // The ordinal the buffer carries; throws at the stage's chosen item.
  uint64_t Work(const char* name, TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) {
    uint64_t ordinal = ReadOrdinal(buf);
    if (ordinal == kEndMarker) {
      m_run.Problem(std::string(name) + ": broken buffer, seq " + std::to_string(buf.sequenceNum()));
    }
    if (m_spec.use2nd != (buf2 != nullptr)) m_run.Problem(std::string(name) + ": second buffer given wrongly");
    uint64_t h = Mix(m_run.seed() ^ (static_cast<uint64_t>(m_stage) << 40) ^ ordinal);
    Spend(h);
    if (m_spec.throwAt >= 0 && ordinal == static_cast<uint64_t>(m_spec.throwAt)) {
      m_run.NoteThrow();
      UPiThrow(kThrown);
    }
    if (buf2 != nullptr && (h & 1) != 0) {
      if (buf2->bufSize() != buf.bufSize()) {
        m_run.Problem(std::string(name) + ": second buffer of another size");
        return ordinal;
      }
      std::memcpy(buf2->buf(), buf.buf(), buf.bufSize());
      std::memset(buf.buf(), 0xEE, buf.bufSize());  // the first buffer is spent
      used2nd = true;
      m_run.NoteSwap();
    }
    return ordinal;
  }

  // Checks the payload; consumes the messages chosen for this stage.
  void Msg(const char* name, TPiMsg& msg, bool& consumed) {
    if (msg.msgId() == kErrPiEndOfWork) return;
    uint64_t ordinal = static_cast<uint64_t>(msg.msgId() - kMsgIdBase);
    if (msg.bufSize() == sizeof ordinal && std::memcmp(msg.buf(), &ordinal, sizeof ordinal) != 0) {
      m_run.Problem(std::string(name) + ": message payload broken");
    }
    consumed = EaterOf(m_run.seed(), ordinal, m_run.stages()) == m_stage;
  }

 private:
  void Spend(uint64_t h) {
    if (m_spec.work == 0) return;
    uint64_t x = h;
    for (unsigned i = 0; i < (h >> 8) % 2000; ++i) x = x * 6364136223846793005ull + 1442695040888963407ull;
    m_sink += x;
    if (m_spec.work == 2 && (h >> 24) % 16 == 0) std::this_thread::sleep_for(std::chrono::microseconds((h >> 32) % 200));
  }

  const StageSpec& m_spec;
  RunState& m_run;
  int m_stage;
  uint64_t m_sink = 0;
};

class StressSerial : public TPiSerialStation {
 public:
  StressSerial(const std::string& name, TPipelineMgr& mgr, const StageSpec& plan, RunState& run, int stage)
      : TPiSerialStation(name.c_str(), mgr, plan.use2nd, true), m_work(plan, run, stage) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) override {
    m_work.Work(name(), buf, buf2, used2nd);
  }
  void tryDoMsg(TPiMsg& msg, bool& consumed) override { m_work.Msg(name(), msg, consumed); }

 private:
  StageWork m_work;
};

class StressParallel : public TPiParallelStation {
 public:
  StressParallel(const std::string& name, TPipelineMgr& mgr, const StageSpec& plan, RunState& run, int stage)
      : TPiParallelStation(name.c_str(), mgr, plan.use2nd), m_work(plan, run, stage) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) override {
    m_work.Work(name(), buf, buf2, used2nd);
  }
  void tryDoMsg(TPiMsg& msg, bool& consumed) override { m_work.Msg(name(), msg, consumed); }

 private:
  StageWork m_work;
};

// The last host station: notes every item it passes on, in order.
class Recorder : public TPiSerialStation {
 public:
  Recorder(TPipelineMgr& mgr, const StageSpec& plan, RunState& run, int stage)
      : TPiSerialStation("Recorder", mgr, plan.use2nd, true), m_work(plan, run, stage), m_run(run) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) override {
    uint64_t ordinal = m_work.Work(name(), buf, buf2, used2nd);
    m_run.recorded.push_back({buf.sequenceNum(), ordinal});
  }
  void tryDoMsg(TPiMsg& msg, bool& consumed) override {
    m_work.Msg(name(), msg, consumed);
    if (consumed) return;
    uint64_t ordinal = msg.msgId() == kErrPiEndOfWork ? kEndMarker : static_cast<uint64_t>(msg.msgId() - kMsgIdBase);
    m_run.recorded.push_back({msg.sequenceNum(), ordinal});
  }

 private:
  StageWork m_work;
  RunState& m_run;
};

// Reports an abort once the host asks for it; the queues ask from the
// stations' threads. Runs left to the destructor use the plain manager: the
// base destructor's forced end would have the stations call this override
// on an object already half destroyed.
class StressMgr : public TPipelineMgr {
 public:
  StressMgr(unsigned bufSize, bool oneBuffer) : TPipelineMgr(bufSize, oneBuffer) {}
  bool isAbortSignaled() override { return m_abort.load(); }
  void Abort() { m_abort.store(true); }

 private:
  std::atomic<bool> m_abort{false};
};

// Stations, sequencing stations and the terminal: one work buffer each. A
// lone parallel station stays in a serial node and needs no sequencing.
unsigned ExpectedWorkBufs(const RunSpec& plan) {
  if (plan.oneBuffer) return 1;
  unsigned n = 1;  // the terminal
  for (const StageSpec& st : plan.stages) n += static_cast<unsigned>(st.members) + (st.members > 1 ? 1 : 0);
  return n;
}

unsigned Expected2ndWorkBufs(const RunSpec& plan) {
  unsigned n = 0;
  for (const StageSpec& st : plan.stages) n += st.use2nd ? static_cast<unsigned>(st.members) : 0;
  return plan.oneBuffer ? (n > 0 ? 1 : 0) : n;
}

void Build(TPipelineMgr& mgr, const RunSpec& plan, RunState& run) {
  for (size_t i = 0; i + 1 < plan.stages.size(); ++i) {
    const StageSpec& st = plan.stages[i];
    int stage = static_cast<int>(i);
    std::string name = "S" + std::to_string(i);
    if (!st.parallel) {
      mgr.tryAddStationAfterLast(*new StressSerial(name, mgr, st, run, stage));
      continue;
    }
    // The first member is added after the last station, the rest beside it.
    mgr.tryAddStationAfterLast(*new StressParallel(name + "a", mgr, st, run, stage));
    for (int m = 1; m < st.members; ++m) {
      mgr.tryAddStationParallelToLast(*new StressParallel(name + static_cast<char>('a' + m), mgr, st, run, stage));
    }
  }
  mgr.tryAddStationAfterLast(*new Recorder(mgr, plan.stages.back(), run, static_cast<int>(plan.stages.size() - 1)));
}

// What the producer did.
struct Produced {
  std::vector<Seen> expected;  // every item added, in order
  int observedErr = 0;         // what waitForWorkBuf or getMsgBuf answered when it refused
  bool stopped = false;        // cancelled or aborted
  bool started = false;
  int eaten = 0;  // messages a station consumes
  int whyEnd = 1;
};

// Starts the pipeline (or leaves it to the first waitForWorkBuf), adds
// `count` items numbered from `firstOrdinal` (messages among them), then ends
// the run as the plan says. A run without work, or one whose first item is a
// message, is started explicitly: the end marker and the messages need the
// pool, which comes with the start.
Produced Produce(TPipelineMgr& mgr, const RunSpec& plan, int count, uint64_t firstOrdinal, std::mt19937_64& rng) {
  Produced out;
  if (count == 0 || rng() % 2 == 0) {
    mgr.tryStartPipeline();
    out.started = true;
  }
  uint64_t seq = mgr.lastSequenceNum();
  bool stop = false;
  for (int i = 0; i < count && out.observedErr == 0; ++i) {
    if (i == plan.stopAt) {
      stop = true;
      if (plan.end == EndKind::kCancel) break;
      static_cast<StressMgr&>(mgr).Abort();  // the producer goes on until the framework tells it
    }
    uint64_t ordinal = firstOrdinal + static_cast<uint64_t>(i);
    int err = 0;
    if (static_cast<int>(rng() % 100) < plan.messagePercent) {
      if (!out.started) mgr.tryStartPipeline();
      out.started = true;
      unsigned size = rng() % 2 == 0 ? 0 : sizeof ordinal;
      TPiMsg* msg = mgr.getMsgBuf(kMsgIdBase + static_cast<int>(ordinal), err, size);
      if (msg == nullptr) {
        out.observedErr = err;
        break;
      }
      if (size != 0) std::memcpy(msg->buf(), &ordinal, sizeof ordinal);
      mgr.addWork(*msg);
      ++seq;
      if (EaterOf(plan.seed, ordinal, plan.stages.size()) >= 0) {
        out.eaten++;
      } else {
        out.expected.push_back({seq, ordinal});
      }
      continue;
    }
    TPiWorkBuf* buf = mgr.waitForWorkBuf(err);
    out.started = true;
    if (buf == nullptr) {
      out.observedErr = err;
      break;
    }
    if (buf->bufSize() != plan.bufSize) ADD_FAILURE() << "work buffer of " << buf->bufSize() << " bytes";
    if (static_cast<int>(rng() % 100) < plan.returnPercent) {
      mgr.returnWorkBuf(*buf);
      continue;
    }
    Fill(*buf, ordinal);
    mgr.addWork(*buf);
    out.expected.push_back({++seq, ordinal});
  }
  if (plan.stopAt == count && plan.end == EndKind::kAbort) {
    stop = true;
    static_cast<StressMgr&>(mgr).Abort();
  }
  if (plan.stopAt == count && plan.end == EndKind::kCancel) stop = true;
  out.stopped = stop;
  unsigned elapsed, workSecs, bufWait, buf2Wait;
  if (stop && plan.end == EndKind::kCancel) {
    mgr.cancelAndWait(plan.cancelCode, out.whyEnd);
    return out;
  }
  if (plan.end == EndKind::kDestroy) {
    out.expected.push_back({++seq, kEndMarker});
    return out;
  }
  if (plan.end == EndKind::kEndThenCancel) {
    mgr.noMoreWorkAndReturn();
    out.expected.push_back({++seq, kEndMarker});
    out.stopped = true;
    mgr.cancelAndWait(plan.cancelCode, out.whyEnd);
    return out;
  }
  bool cancelAfter = out.observedErr != 0 && rng() % 2 == 0;
  if (cancelAfter) {
    mgr.cancelAndWait(0, out.whyEnd);
    return out;
  }
  bool signalled = plan.end == EndKind::kOrderlySignalledFirst;
  if (signalled) mgr.noMoreWorkAndReturn();
  mgr.noMoreWorkAndWaitTillEnd(out.whyEnd, elapsed, workSecs, bufWait, buf2Wait, signalled);
  // Where the run failed, the marker may or may not have got through.
  out.expected.push_back({++seq, kEndMarker});
  return out;
}

// The reasons a run may have ended with.
std::set<int> AllowedEnds(const RunSpec& plan, const Produced& p, bool threw) {
  if (p.observedErr == kThrown) return {kThrown};  // the error came first
  if (!p.stopped) return {threw ? kThrown : 0};
  int stopCode = kErrOperationAborted;
  bool cancelled = plan.end == EndKind::kCancel || plan.end == EndKind::kEndThenCancel;
  if (cancelled && plan.cancelCode != 0 && plan.cancelCode != kErrPiEndOfWork) {
    stopCode = plan.cancelCode;
  }
  if (threw) return {kThrown, stopCode};
  return {stopCode};
}

std::string Join(const std::set<int>& codes) {
  std::string s;
  for (int c : codes) s += (s.empty() ? "" : " or ") + std::to_string(c);
  return s;
}

bool HasLine(const TestHost& host, const char* containing) {
  for (const LoggedLine& line : host.Lines()) {
    if (line.text.find(containing) != std::string::npos) return true;
  }
  return false;
}

// An idle pipeline after an orderly end: every queue drained, the pool
// holding every work buffer, the manager's own count check clean.
void CheckIdleAndWhole(TPipelineMgr& mgr, const RunSpec& plan, TestHost& host, const std::string& what) {
  EXPECT_FALSE(mgr.isRunning()) << what;
  EXPECT_EQ(mgr.workBufsCreated(), ExpectedWorkBufs(plan)) << what;
  EXPECT_EQ(mgr.secondWorkBufsCreated(), Expected2ndWorkBufs(plan)) << what;
  const std::vector<TPiQ*>& queues = mgr.queues();
  for (size_t i = 0; i + 1 < queues.size(); ++i) {
    EXPECT_EQ(queues[i]->pending(), 0u) << what << ", queue " << i;
    EXPECT_EQ(queues[i]->workIn(), queues[i]->workOut()) << what << ", queue " << i;
    EXPECT_EQ(queues[i]->error(), 0) << what << ", queue " << i;
  }
  EXPECT_EQ(queues.back()->pending(), mgr.workBufsCreated()) << what << ": buffers missing from the pool";
  host.Clear();
  EXPECT_EQ(mgr.chkPipeline(true, "stress", nullptr), 0) << what;
  EXPECT_FALSE(HasLine(host, "--ERR--")) << what << ": the count check complains";
  int countLines = 0;
  for (const LoggedLine& line : host.Lines()) countLines += line.text.find("tryChkWorkCounts") != std::string::npos;
  EXPECT_GT(countLines, 0) << what << ": no count check ran";
}

void CheckOrder(const std::vector<Seen>& recorded, const std::vector<Seen>& expected, bool whole,
                const std::string& what) {
  if (whole) {
    EXPECT_EQ(recorded.size(), expected.size()) << what;
  } else {
    EXPECT_LE(recorded.size(), expected.size()) << what;
  }
  size_t n = std::min(recorded.size(), expected.size());
  for (size_t i = 0; i < n; ++i) {
    if (recorded[i] == expected[i]) continue;
    ADD_FAILURE() << what << ": item " << i << " is seq " << recorded[i].seq << " ordinal " << recorded[i].ordinal
                  << ", expected seq " << expected[i].seq << " ordinal " << expected[i].ordinal;
    return;
  }
}

// How the runs went, so that a change to the generator cannot quietly stop
// exercising a path.
using Tally = std::map<std::string, int>;

void ExpectRestartRefused(TPipelineMgr& mgr, int whyEnd) {
  int refused = 0;
  try {
    mgr.tryStartPipeline();
  } catch (int code) {
    refused = code;
  }
  EXPECT_EQ(refused, whyEnd) << "restart after " << whyEnd;
  EXPECT_FALSE(mgr.isRunning());
}

// The checks of a run that has ended; then a restart or its refusal.
void CheckEndedRun(TPipelineMgr& mgr, const RunSpec& plan, RunState& run, const Produced& p, TestHost& host,
                   std::mt19937_64& rng, Tally& tally) {
  const std::string what = plan.Describe();
  tally[p.whyEnd == 0 ? "orderly" : p.whyEnd == kThrown ? "thrown" : std::to_string(p.whyEnd)]++;
  if (p.observedErr != 0) tally["producer refused a buffer"]++;
  if (p.eaten != 0) tally["messages consumed midway"]++;
  if (run.swaps() > 0) tally["second buffers sent on"]++;
  std::set<int> allowed = AllowedEnds(plan, p, run.threw());
  EXPECT_TRUE(allowed.count(p.whyEnd) != 0) << "whyEnd " << p.whyEnd << ", expected " << Join(allowed);
  EXPECT_EQ(mgr.whyEnd(), p.whyEnd);
  EXPECT_FALSE(mgr.isRunning());
  CheckOrder(run.recorded, p.expected, p.whyEnd == 0, what);
  if (p.whyEnd != 0) {
    // A failed manager refuses to start again (one cancelled before its
    // first start still makes that start).
    if (p.started) ExpectRestartRefused(mgr, p.whyEnd);
    return;
  }
  EXPECT_FALSE(HasLine(host, "--ERR--")) << "an orderly run logged an error";
  CheckIdleAndWhole(mgr, plan, host, what);
  if (!plan.restart) return;
  size_t before = run.recorded.size();
  RunSpec again = plan;
  again.end = EndKind::kOrderly;
  Produced q = Produce(mgr, again, plan.restartItems, static_cast<uint64_t>(plan.items), rng);
  EXPECT_EQ(q.whyEnd, 0) << "restart";
  std::vector<Seen> tail(run.recorded.begin() + static_cast<std::ptrdiff_t>(before), run.recorded.end());
  CheckOrder(tail, q.expected, true, what + ", restarted");
  CheckIdleAndWhole(mgr, plan, host, what + ", restarted");
  tally["restarted"]++;
}

// One run: build, produce, end (or leave the end to the destructor), check.
void StressRun(const RunSpec& plan, Tally& tally) {
  const std::string what = plan.Describe();
  SCOPED_TRACE(what);
  Watchdog watchdog(what, std::chrono::seconds(60));
  TestHost host;
  int64_t blocksBefore = MemLiveBlocks();
  {
    RunState run(plan.seed, plan.stages.size());
    Produced p;
    {
      std::unique_ptr<TPipelineMgr> mgr;
      if (plan.end == EndKind::kAbort) {
        mgr = std::make_unique<StressMgr>(plan.bufSize, plan.oneBuffer);
      } else {
        mgr = std::make_unique<TPipelineMgr>(plan.bufSize, plan.oneBuffer);
      }
      Build(*mgr, plan, run);
      std::mt19937_64 rng(plan.seed ^ 0x5EED);
      p = Produce(*mgr, plan, plan.items, 0, rng);
      if (plan.end != EndKind::kDestroy) CheckEndedRun(*mgr, plan, run, p, host, rng, tally);
    }
    if (plan.end == EndKind::kDestroy) {
      // The destructor ends the run in order, unless a station failed.
      CheckOrder(run.recorded, p.expected, !run.threw(), what + ", ended by the destructor");
      EXPECT_TRUE(HasLine(host, "TPipelineMgr::~TPipelineMgr: forcing noMoreWorkAndWaitTillEnd"));
      tally["ended by the destructor"]++;
    }
    for (const std::string& problem : run.problems()) ADD_FAILURE() << problem;
    // Nothing at or behind a failed item gets through.
    for (const StageSpec& st : plan.stages) {
      if (st.throwAt < 0 || !run.threw()) continue;
      for (const Seen& s : run.recorded) EXPECT_LT(s.ordinal, static_cast<uint64_t>(st.throwAt));
    }
  }
  EXPECT_EQ(MemLiveBlocks(), blocksBefore) << "blocks left behind";
  EXPECT_EQ(host.AssertCount(), 0);
}

TEST(PipelineStressThreaded, RandomShapesEndsAndFaults) {
  MemDebug(kMemDebugQuarantine);
  int runs = RunCount();
  Tally tally;
  for (int i = 0; i < runs; ++i) {
    StressRun(RandomRun(0xC0FFEEull + static_cast<uint64_t>(i) * 7919), tally);
    if (::testing::Test::HasFatalFailure()) break;
  }
  MemDebug(0);
  std::string seen;
  for (const auto& [outcome, count] : tally) seen += " " + outcome + ":" + std::to_string(count);
  for (const char* outcome : {"orderly", "thrown", "-1015", "-1033", "producer refused a buffer",
                              "second buffers sent on", "restarted", "ended by the destructor",
                              "messages consumed midway"}) {
    EXPECT_GT(tally[outcome], 0) << "no run ended " << outcome << ";" << seen;
  }
}

}  // namespace
