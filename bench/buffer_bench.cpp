// TUint32Buffer::Add against std::vector<uint32_t>::push_back: each
// iteration fills a fresh container with 10,000,000 values, growth
// included. When the program ends the ratio is printed:
//   buffer ratio Add/push_back = (Add time) / (push_back time)
// from the fastest run of each. Target: at most 3.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "containers/typed_buffers.h"

namespace {

constexpr uint32_t kValues = 10000000;

void BM_BufferVectorPushBack(benchmark::State& state) {
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    std::vector<uint32_t> values;
    for (uint32_t i = 0; i < kValues; ++i) values.push_back(i);
    benchmark::DoNotOptimize(values.data());
  }
  Record("push_back", state, start);
}

void BM_BufferUint32Add(benchmark::State& state) {
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    TUint32Buffer values;
    for (uint32_t i = 0; i < kValues; ++i) values.Add(i);
    benchmark::DoNotOptimize(values.MemPtr());
  }
  Record("Add", state, start);
}

BENCHMARK(BM_BufferVectorPushBack)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BufferUint32Add)->Unit(benchmark::kMillisecond);

struct RatioPrinter {
  ~RatioPrinter() {
    auto ours = Times().find("Add");
    auto theirs = Times().find("push_back");
    if (ours == Times().end() || theirs == Times().end() || theirs->second <= 0) return;
    std::printf("buffer ratio Add/push_back = %.2f (%.1f ms vs %.1f ms for %u values)\n",
                ours->second / theirs->second, ours->second, theirs->second, kValues);
  }
} g_ratioPrinter;

}  // namespace
