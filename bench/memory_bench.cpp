// MemAlloc + MemFree against malloc + free for a small block, on one thread
// and on two, in the same run. After the run the ratios are printed:
//   ratio/threads:N = (MemAlloc+MemFree time) / (malloc+free time).
// The batch pair (32 blocks taken, then 32 given back) mostly misses the
// per-thread hold-back, so it shows the cost of a MemAlloc that goes to the
// heap:
//   ratio/batch/threads:N.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_support.h"
#include "foundation/memory.h"

namespace {

constexpr size_t kBlockBytes = 64;

void BM_MallocFree(benchmark::State& state) {
  for (auto _ : state) {
    void* p = std::malloc(kBlockBytes);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}

void BM_MemAllocFree(benchmark::State& state) {
  for (auto _ : state) {
    void* p = MemAlloc(kBlockBytes);
    benchmark::DoNotOptimize(p);
    MemFree(p);
  }
}

constexpr int kBatch = 32;

void BM_MallocFreeBatch(benchmark::State& state) {
  void* blocks[kBatch];
  for (auto _ : state) {
    for (void*& p : blocks) p = std::malloc(kBlockBytes);
    benchmark::DoNotOptimize(blocks);
    for (void* p : blocks) std::free(p);
  }
}

void BM_MemAllocFreeBatch(benchmark::State& state) {
  void* blocks[kBatch];
  for (auto _ : state) {
    for (void*& p : blocks) p = MemAlloc(kBlockBytes);
    benchmark::DoNotOptimize(blocks);
    for (void* p : blocks) MemFree(p);
  }
}

BENCHMARK(BM_MallocFree)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_MemAllocFree)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_MallocFreeBatch)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_MemAllocFreeBatch)->Threads(1)->Threads(2)->UseRealTime();

// Collects the per-iteration times so the ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (!IsRepresentativeRun(run)) continue;
      double ns = run.GetAdjustedRealTime();
      const std::string& name = run.run_name.function_name;
      bool mem = name.rfind("BM_MemAlloc", 0) == 0;
      // Other files' benchmarks share this reporter.
      if (!mem && name.rfind("BM_Malloc", 0) != 0) continue;
      bool batch = name.find("Batch") != std::string::npos;
      (mem ? m_mem : m_malloc)[{batch, run.threads}] = ns;
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const auto& [key, mallocNs] : m_malloc) {
      auto it = m_mem.find(key);
      if (it == m_mem.end() || mallocNs <= 0) continue;
      auto [batch, threads] = key;
      // Per pair, so that both lines read alike.
      double pairs = batch ? kBatch : 1;
      std::printf("ratio/%sthreads:%d = %.2f (MemAlloc+MemFree %.2f ns, malloc+free %.2f ns)\n", batch ? "batch/" : "",
                  threads, it->second / mallocNs, it->second / pairs, mallocNs / pairs);
    }
  }

 private:
  // Keyed by (batch, threads).
  std::map<std::pair<bool, int>, double> m_malloc;
  std::map<std::pair<bool, int>, double> m_mem;
};

}  // namespace

int main(int argc, char** argv) {
  RatioReporter reporter;
  return RunBenchmarks(argc, argv, &reporter);
}
