// The pipeline against oneTBB's parallel_pipeline, with the same shape and
// as many tokens as the pipeline has work buffers, and against a plain loop
// on one thread, in the same run:
//   Pipeline/Throughput/*: 1024 buffers of 64 KiB a run, read (copied from a
//     64 MiB source), SHA-1 (SHA1Digest's system path) in a parallel group of
//     two, and a serial sink folding the digests in order;
//   Pipeline/PerItem/*: 1,000,000 items through three serial stations that
//     do nothing.
// Every run builds its pipeline afresh (threads included) and ends it. The
// folded digests of all three variants are compared before the timed runs.
// After the run the ratios are printed, by real time (medians when run with
// repetitions):
//   pipeline ratio throughput plinth/<reference> = (reference time) / (ours)
//   pipeline ratio per-item cost plinth/TBB       = (our time) / (TBB's)
// and the CPU time of the whole process per run (counter process_cpu_ms),
// which shows what handing items between threads costs beside the work.
#include <benchmark/benchmark.h>
#include <oneapi/tbb/enumerable_thread_specific.h>
#include <oneapi/tbb/parallel_pipeline.h>
#include <oneapi/tbb/task_arena.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "pipeline/tpipelinemgr.h"
#include "pipeline/tpistation.h"
#include "security/sha1.h"

namespace {

constexpr unsigned kChunk = 64u << 10;
constexpr unsigned kChunks = 1024;  // 64 MiB a run
constexpr unsigned kDigestAt = kChunk;  // the digest follows the data
constexpr unsigned kSlot = kChunk + 32;
constexpr int kHashers = 2;
// Reader, two hashers, the sequencing station, the sink and the terminal.
constexpr size_t kThroughputTokens = 6;
constexpr int kItems = 1000000;
// Three stations and the terminal.
constexpr size_t kPerItemTokens = 4;

const std::vector<unsigned char>& Source() {
  static const std::vector<unsigned char> data = [] {
    std::vector<unsigned char> d(size_t{kChunk} * kChunks);
    uint32_t x = 2463534242u;
    for (auto& c : d) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      c = static_cast<unsigned char>(x);
    }
    return d;
  }();
  return data;
}

void Read(unsigned index, unsigned char* slot) {
  std::memcpy(slot, Source().data() + size_t{index % kChunks} * kChunk, kChunk);
}

void Hash(SHA1Digest& sha, unsigned char* slot) {
  sha.InitHash();
  sha.HashData(slot, kChunk);
  sha.EndHash();
  sha.GetDigest(slot + kDigestAt, SHA1Digest::kDigestSize);
}

// Order matters: a sink that saw the digests out of order folds another value.
void Fold(uint64_t& acc, const unsigned char* slot) {
  uint64_t d;
  std::memcpy(&d, slot + kDigestAt, sizeof d);
  acc = (acc ^ d) * 0x100000001B3ull;
}

// ---- plinth -------------------------------------------------------------

class ReaderStation : public TPiSerialStation {
 public:
  explicit ReaderStation(TPipelineMgr& mgr) : TPiSerialStation("Reader", mgr, false, true) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf*, bool&) override { Read(m_next++, buf.buf()); }
  void tryDoMsg(TPiMsg&, bool&) override {}

 private:
  unsigned m_next = 0;
};

class HashStation : public TPiParallelStation {
 public:
  HashStation(const char* name, TPipelineMgr& mgr) : TPiParallelStation(name, mgr, false) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf*, bool&) override { Hash(m_sha, buf.buf()); }
  void tryDoMsg(TPiMsg&, bool&) override {}

 private:
  SHA1Digest m_sha;
};

class SinkStation : public TPiSerialStation {
 public:
  SinkStation(TPipelineMgr& mgr, uint64_t& acc) : TPiSerialStation("Sink", mgr, false, true), m_acc(acc) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf*, bool&) override { Fold(m_acc, buf.buf()); }
  void tryDoMsg(TPiMsg&, bool&) override {}

 private:
  uint64_t& m_acc;
};

class EmptyStation : public TPiSerialStation {
 public:
  EmptyStation(const char* name, TPipelineMgr& mgr) : TPiSerialStation(name, mgr, false, true) {}
  void tryDoWorkBuf(TPiWorkBuf&, TPiWorkBuf*, bool&) override {}
  void tryDoMsg(TPiMsg&, bool&) override {}
};

// Feeds `items` empty buffers and ends the run; false when it failed.
bool Feed(TPipelineMgr& mgr, unsigned items) {
  for (unsigned i = 0; i < items; ++i) {
    int err = 0;
    TPiWorkBuf* buf = mgr.waitForWorkBuf(err);
    if (buf == nullptr) return false;
    mgr.addWork(*buf);
  }
  int whyEnd = 0;
  unsigned elapsed, work, bufWait, buf2Wait;
  mgr.noMoreWorkAndWaitTillEnd(whyEnd, elapsed, work, bufWait, buf2Wait, false);
  return whyEnd == 0;
}

uint64_t PlinthThroughputRun() {
  uint64_t acc = 0;
  TPipelineMgr mgr(kSlot, false);
  mgr.tryAddStationAfterLast(*new ReaderStation(mgr));
  mgr.tryAddStationAfterLast(*new HashStation("Hash1", mgr));
  mgr.tryAddStationParallelToLast(*new HashStation("Hash2", mgr));
  mgr.tryAddStationAfterLast(*new SinkStation(mgr, acc));
  mgr.tryStartPipeline();
  if (!Feed(mgr, kChunks) || mgr.workBufsCreated() != kThroughputTokens) return 0;
  return acc;
}

bool PlinthPerItemRun() {
  TPipelineMgr mgr(64, false);
  mgr.tryAddStationAfterLast(*new EmptyStation("A", mgr));
  mgr.tryAddStationAfterLast(*new EmptyStation("B", mgr));
  mgr.tryAddStationAfterLast(*new EmptyStation("C", mgr));
  mgr.tryStartPipeline();
  return Feed(mgr, kItems) && mgr.workBufsCreated() == kPerItemTokens;
}

// ---- oneTBB -------------------------------------------------------------

struct Slot {
  unsigned char bytes[kSlot];
};

uint64_t TbbThroughputRun(tbb::task_arena& arena) {
  std::vector<Slot> slots(kThroughputTokens);
  tbb::enumerable_thread_specific<SHA1Digest> shas;
  uint64_t acc = 0;
  unsigned next = 0;
  arena.execute([&] {
    tbb::parallel_pipeline(
        kThroughputTokens,
        tbb::make_filter<void, Slot*>(tbb::filter_mode::serial_in_order,
                                      [&](tbb::flow_control& fc) -> Slot* {
                                        if (next == kChunks) {
                                          fc.stop();
                                          return nullptr;
                                        }
                                        // At most kThroughputTokens items live,
                                        // and they leave in order: the slot is
                                        // free again.
                                        Slot* s = &slots[next % kThroughputTokens];
                                        Read(next++, s->bytes);
                                        return s;
                                      }) &
            tbb::make_filter<Slot*, Slot*>(tbb::filter_mode::parallel,
                                           [&](Slot* s) {
                                             Hash(shas.local(), s->bytes);
                                             return s;
                                           }) &
            tbb::make_filter<Slot*, void>(tbb::filter_mode::serial_in_order, [&](Slot* s) { Fold(acc, s->bytes); }));
  });
  return acc;
}

unsigned TbbPerItemRun(tbb::task_arena& arena) {
  std::vector<unsigned> tokens(kPerItemTokens);
  int next = 0;
  unsigned seen = 0;
  arena.execute([&] {
    tbb::parallel_pipeline(
        kPerItemTokens,
        tbb::make_filter<void, unsigned*>(tbb::filter_mode::serial_in_order,
                                          [&](tbb::flow_control& fc) -> unsigned* {
                                            if (next == kItems) {
                                              fc.stop();
                                              return nullptr;
                                            }
                                            return &tokens[static_cast<size_t>(next++) % kPerItemTokens];
                                          }) &
            tbb::make_filter<unsigned*, unsigned*>(tbb::filter_mode::serial_in_order, [](unsigned* t) { return t; }) &
            tbb::make_filter<unsigned*, unsigned*>(tbb::filter_mode::serial_in_order, [](unsigned* t) { return t; }) &
            tbb::make_filter<unsigned*, void>(tbb::filter_mode::serial_in_order, [&](unsigned*) { ++seen; }));
  });
  return seen;
}

tbb::task_arena& Arena() {
  static tbb::task_arena arena(kHashers);
  return arena;
}

// ---- one thread ------------------------------------------------------------

uint64_t LoopThroughputRun() {
  static Slot slot;
  SHA1Digest sha;
  uint64_t acc = 0;
  for (unsigned i = 0; i < kChunks; ++i) {
    Read(i, slot.bytes);
    Hash(sha, slot.bytes);
    Fold(acc, slot.bytes);
  }
  return acc;
}

// ---- benchmarks -------------------------------------------------------------

// The CPU time of the whole process (every thread) per iteration: the work
// itself plus what it cost to hand it between threads.
void SetProcessCpu(benchmark::State& state, std::clock_t start) {
  if (state.iterations() == 0) return;
  state.counters["process_cpu_ms"] =
      static_cast<double>(std::clock() - start) * 1000.0 / CLOCKS_PER_SEC / static_cast<double>(state.iterations());
}

void BM_PlinthThroughput(benchmark::State& state) {
  std::clock_t c0 = std::clock();
  for (auto _ : state) {
    if (PlinthThroughputRun() == 0) state.SkipWithError("pipeline run failed");
  }
  SetProcessCpu(state, c0);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kChunk * kChunks);
}

void BM_TbbThroughput(benchmark::State& state) {
  std::clock_t c0 = std::clock();
  for (auto _ : state) benchmark::DoNotOptimize(TbbThroughputRun(Arena()));
  SetProcessCpu(state, c0);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kChunk * kChunks);
}

void BM_LoopThroughput(benchmark::State& state) {
  std::clock_t c0 = std::clock();
  for (auto _ : state) benchmark::DoNotOptimize(LoopThroughputRun());
  SetProcessCpu(state, c0);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kChunk * kChunks);
}

void BM_PlinthPerItem(benchmark::State& state) {
  std::clock_t c0 = std::clock();
  for (auto _ : state) {
    if (!PlinthPerItemRun()) state.SkipWithError("pipeline run failed");
  }
  SetProcessCpu(state, c0);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kItems);
}

void BM_TbbPerItem(benchmark::State& state) {
  std::clock_t c0 = std::clock();
  for (auto _ : state) benchmark::DoNotOptimize(TbbPerItemRun(Arena()));
  SetProcessCpu(state, c0);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kItems);
}

BENCHMARK(BM_PlinthThroughput)->Name("Pipeline/Throughput/plinth")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TbbThroughput)->Name("Pipeline/Throughput/TBB")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoopThroughput)->Name("Pipeline/Throughput/one thread")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlinthPerItem)->Name("Pipeline/PerItem/plinth")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TbbPerItem)->Name("Pipeline/PerItem/TBB")->UseRealTime()->Unit(benchmark::kMillisecond);

// All three variants fold the same digests in the same order.
bool SameResults() {
  uint64_t loop = LoopThroughputRun();
  uint64_t ours = PlinthThroughputRun();
  uint64_t tbb = TbbThroughputRun(Arena());
  if (ours != loop || tbb != loop) {
    std::fprintf(stderr, "pipeline results differ: loop %016llx, plinth %016llx, TBB %016llx\n",
                 static_cast<unsigned long long>(loop), static_cast<unsigned long long>(ours),
                 static_cast<unsigned long long>(tbb));
    return false;
  }
  if (!PlinthPerItemRun() || TbbPerItemRun(Arena()) != kItems) {
    std::fprintf(stderr, "pipeline per-item runs fail\n");
    return false;
  }
  return true;
}

// Collects real times by name, then prints the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (!IsRepresentativeRun(run) || run.error_occurred) continue;
      m_ms[run.run_name.function_name] = run.GetAdjustedRealTime();
      auto cpu = run.counters.find("process_cpu_ms");
      if (cpu != run.counters.end()) m_cpuMs[run.run_name.function_name] = cpu->second.value;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    double ours = Get("Pipeline/Throughput/plinth");
    const double mib = kChunk / 1048576.0 * kChunks;
    for (const char* ref : {"Pipeline/Throughput/TBB", "Pipeline/Throughput/one thread"}) {
      double theirs = Get(ref);
      if (ours <= 0 || theirs <= 0) continue;
      std::printf("pipeline ratio throughput plinth/%s = %.2f (%.0f MiB/s vs %.0f MiB/s)\n", ref + 20, theirs / ours,
                  mib / ours * 1e3, mib / theirs * 1e3);
    }
    std::printf("pipeline process CPU per run (ms): throughput plinth %.1f, TBB %.1f, one thread %.1f; "
                "per-item plinth %.0f, TBB %.0f\n",
                Cpu("Pipeline/Throughput/plinth"), Cpu("Pipeline/Throughput/TBB"), Cpu("Pipeline/Throughput/one thread"),
                Cpu("Pipeline/PerItem/plinth"), Cpu("Pipeline/PerItem/TBB"));
    double perItem = Get("Pipeline/PerItem/plinth");
    double tbbPerItem = Get("Pipeline/PerItem/TBB");
    if (perItem > 0 && tbbPerItem > 0) {
      std::printf("pipeline ratio per-item cost plinth/TBB = %.2f (%.0f ns vs %.0f ns; %.2fM vs %.2fM items/s)\n",
                  perItem / tbbPerItem, perItem * 1e6 / kItems, tbbPerItem * 1e6 / kItems, kItems / perItem / 1e3,
                  kItems / tbbPerItem / 1e3);
    }
  }

 private:
  double Get(const char* name) const {
    auto it = m_ms.find(name);
    return it == m_ms.end() ? 0 : it->second;
  }
  double Cpu(const char* name) const {
    auto it = m_cpuMs.find(name);
    return it == m_cpuMs.end() ? 0 : it->second;
  }
  std::map<std::string, double> m_ms;
  std::map<std::string, double> m_cpuMs;
};

}  // namespace

int main(int argc, char** argv) {
  if (!SameResults()) return 1;
  RatioReporter reporter;
  return RunBenchmarks(argc, argv, &reporter);
}
