// ElementSpace against std::vector<std::string>, 1,000,000 elements of 1 to
// 64 bytes (lengths and contents from a fixed seed):
//   add: a fresh container filled by LmAdd / push_back, growth included;
//   get: every element read once in a fixed random order, by LmGet /
//     operator[], summing one byte of each so nothing is optimised away.
// When the program ends the ratios are printed from the fastest run of each:
//   element space ratio LmAdd/push_back = ...   target: at most 2
//   element space ratio LmGet/operator[] = ...  target: at most 1.5
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "storage/element_space.h"

namespace {

constexpr int kElements = 1000000;

// The elements' bytes, back to back, with each one's start and length; and
// the order of the reads.
struct Input {
  std::string bytes;
  std::vector<uint32_t> starts;
  std::vector<uint8_t> lengths;
  std::vector<int> order;  // 0-based indexes
};

const Input& TheInput() {
  static const Input input = [] {
    Input in;
    std::mt19937 rng(20261122);
    in.starts.reserve(kElements);
    in.lengths.reserve(kElements);
    for (int i = 0; i < kElements; ++i) {
      uint8_t length = static_cast<uint8_t>(1 + rng() % 64);
      in.starts.push_back(static_cast<uint32_t>(in.bytes.size()));
      in.lengths.push_back(length);
      for (int k = 0; k < length; ++k) in.bytes.push_back(static_cast<char>(rng()));
    }
    in.order.resize(kElements);
    for (int i = 0; i < kElements; ++i) in.order[static_cast<size_t>(i)] = i;
    std::shuffle(in.order.begin(), in.order.end(), rng);
    return in;
  }();
  return input;
}

void FillSpace(ElementSpace* space, const Input& in) {
  for (int i = 0; i < kElements; ++i) {
    space->LmAdd(in.bytes.data() + in.starts[static_cast<size_t>(i)], in.lengths[static_cast<size_t>(i)]);
  }
}

void FillVector(std::vector<std::string>* values, const Input& in) {
  for (int i = 0; i < kElements; ++i) {
    values->push_back(std::string(in.bytes.data() + in.starts[static_cast<size_t>(i)], in.lengths[static_cast<size_t>(i)]));
  }
}

void BM_ElementSpaceVectorPushBack(benchmark::State& state) {
  const Input& in = TheInput();
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    std::vector<std::string> values;
    FillVector(&values, in);
    benchmark::DoNotOptimize(values.data());
  }
  Record("lm push_back", state, start);
}

void BM_ElementSpaceLmAdd(benchmark::State& state) {
  const Input& in = TheInput();
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    ElementSpace space(0, 0);
    FillSpace(&space, in);
    benchmark::DoNotOptimize(space.LmCount());
  }
  Record("lm LmAdd", state, start);
}

void BM_ElementSpaceVectorIndex(benchmark::State& state) {
  const Input& in = TheInput();
  std::vector<std::string> values;
  FillVector(&values, in);
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    unsigned sum = 0;
    for (int i : in.order) sum += static_cast<unsigned char>(values[static_cast<size_t>(i)][0]);
    benchmark::DoNotOptimize(sum);
  }
  Record("lm operator[]", state, start);
}

void BM_ElementSpaceLmGet(benchmark::State& state) {
  const Input& in = TheInput();
  ElementSpace space(0, 0);
  FillSpace(&space, in);
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    unsigned sum = 0;
    for (int i : in.order) sum += static_cast<unsigned char>(space.LmGet(i + 1)[0]);
    benchmark::DoNotOptimize(sum);
  }
  Record("lm LmGet", state, start);
}

// The same reads straight from the block's bytes (slot, then record), no
// call and no checks: the floor the layout itself sets. No target.
void BM_ElementSpaceRawSlots(benchmark::State& state) {
  const Input& in = TheInput();
  ElementSpace space(0, 0);
  FillSpace(&space, in);
  TMemoryPin pin(space);
  const unsigned char* block = pin.Get();
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    unsigned sum = 0;
    for (int i : in.order) {
      uint32_t slot;
      std::memcpy(&slot, block + 80 + 4 * static_cast<size_t>(i), 4);
      sum += block[(slot & 0x7FFFFFFFu) + 4];
    }
    benchmark::DoNotOptimize(sum);
  }
  Record("lm raw slots", state, start);
}

BENCHMARK(BM_ElementSpaceVectorPushBack)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ElementSpaceLmAdd)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ElementSpaceVectorIndex)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ElementSpaceLmGet)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ElementSpaceRawSlots)->Unit(benchmark::kMillisecond);

void PrintRatio(const char* what, const char* ours, const char* theirs) {
  auto a = Times().find(ours);
  auto b = Times().find(theirs);
  if (a == Times().end() || b == Times().end() || b->second <= 0) return;
  std::printf("element space ratio %s = %.2f (%.1f ms vs %.1f ms for %d elements)\n", what, a->second / b->second,
              a->second, b->second, kElements);
}

struct RatioPrinter {
  ~RatioPrinter() {
    PrintRatio("LmAdd/push_back", "lm LmAdd", "lm push_back");
    PrintRatio("LmGet/operator[]", "lm LmGet", "lm operator[]");
    PrintRatio("raw slot reads/operator[]", "lm raw slots", "lm operator[]");
  }
} g_ratioPrinter;

}  // namespace
