// MemAlloc + MemFree against malloc + free for a small block, on one thread
// and on two, in the same run. After the run the ratios are printed:
//   ratio/threads:N = (MemAlloc+MemFree time) / (malloc+free time).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

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

BENCHMARK(BM_MallocFree)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_MemAllocFree)->Threads(1)->Threads(2)->UseRealTime();

// Collects the per-iteration times so the ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      // With repetitions the medians speak for the runs.
      bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (!median && (run.run_type != Run::RT_Iteration || run.repetitions > 1)) continue;
      double ns = run.GetAdjustedRealTime();
      std::string name = run.benchmark_name();
      bool mem = name.rfind("BM_MemAllocFree", 0) == 0;
      (mem ? m_mem : m_malloc)[run.threads] = ns;
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const auto& [threads, mallocNs] : m_malloc) {
      auto it = m_mem.find(threads);
      if (it == m_mem.end() || mallocNs <= 0) continue;
      std::printf("ratio/threads:%d = %.2f (MemAlloc+MemFree %.2f ns, malloc+free %.2f ns)\n", threads,
                  it->second / mallocNs, it->second, mallocNs);
    }
  }

 private:
  std::map<int, double> m_malloc;
  std::map<int, double> m_mem;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
