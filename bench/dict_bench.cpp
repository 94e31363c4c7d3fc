// TDict against std::unordered_map<int, int> and absl::flat_hash_map<int, int>
// in the same run: 1,000,000 random keys defined into an empty map (growth
// included), then 10,000,000 lookups of which half hit. After the run the
// ratios are printed, by CPU time (medians when run with repetitions):
//   dict ratio <operation> TDict/<reference> = (TDict time) / (reference time)
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "bench/bench_support.h"
#include "containers/tdict.h"

namespace {

constexpr int kKeys = 1000000;
constexpr int kLookups = 10000000;

struct Data {
  std::vector<int> keys;     // defined
  std::vector<int> values;
  std::vector<int> queries;  // half of them defined keys, half never defined
};

const Data& Inputs() {
  static const Data data = [] {
    Data d;
    std::mt19937 rng(2024);
    std::unordered_set<int> seen;
    std::vector<int> absent;
    while (static_cast<int>(seen.size()) < 2 * kKeys) {
      int key = static_cast<int>(rng());
      if (key == 0 || !seen.insert(key).second) continue;
      (d.keys.size() < kKeys ? d.keys : absent).push_back(key);
      if (d.values.size() < kKeys) d.values.push_back(static_cast<int>(rng() | 1));
    }
    d.queries.reserve(kLookups);
    for (int i = 0; i < kLookups; ++i) {
      const std::vector<int>& from = rng() & 1 ? d.keys : absent;
      d.queries.push_back(from[rng() % kKeys]);
    }
    return d;
  }();
  return data;
}

void Define(TDict& map, int key, int value) { map.Define(key, value); }
template <typename Map>
void Define(Map& map, int key, int value) {
  map[key] = value;
}

int Lookup(const TDict& map, int key) { return map.Lookup(key); }
template <typename Map>
int Lookup(const Map& map, int key) {
  auto it = map.find(key);
  return it != map.end() ? it->second : 0;
}

template <typename Map>
void BM_Define(benchmark::State& state) {
  const Data& d = Inputs();
  for (auto _ : state) {
    Map map;
    for (int i = 0; i < kKeys; ++i) Define(map, d.keys[i], d.values[i]);
    benchmark::DoNotOptimize(map);
  }
}

template <typename Map>
void BM_Lookup(benchmark::State& state) {
  const Data& d = Inputs();
  Map map;
  for (int i = 0; i < kKeys; ++i) Define(map, d.keys[i], d.values[i]);
  for (auto _ : state) {
    int64_t sum = 0;
    for (int key : d.queries) sum += Lookup(map, key);
    benchmark::DoNotOptimize(sum);
  }
}

using StdMap = std::unordered_map<int, int>;
using AbslMap = absl::flat_hash_map<int, int>;

BENCHMARK(BM_Define<TDict>)->Name("Dict/Define/TDict")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Define<StdMap>)->Name("Dict/Define/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Define<AbslMap>)->Name("Dict/Define/absl::flat_hash_map")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lookup<TDict>)->Name("Dict/Lookup/TDict")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lookup<StdMap>)->Name("Dict/Lookup/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lookup<AbslMap>)->Name("Dict/Lookup/absl::flat_hash_map")->Unit(benchmark::kMillisecond);

// Collects CPU times per iteration by name, then prints the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (!IsRepresentativeRun(run)) continue;
      const std::string& name = run.run_name.function_name;  // Dict/<operation>/<map>
      size_t slash = name.rfind('/');
      m_ns[{name.substr(0, slash), name.substr(slash + 1)}] = run.GetAdjustedCPUTime() * 1e6;  // ms -> ns
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const char* op : {"Dict/Define", "Dict/Lookup"}) {
      auto ours = m_ns.find({op, "TDict"});
      if (ours == m_ns.end()) continue;
      double per = std::string(op) == "Dict/Define" ? kKeys : kLookups;
      for (const char* ref : {"std::unordered_map", "absl::flat_hash_map"}) {
        auto theirs = m_ns.find({op, ref});
        if (theirs == m_ns.end() || theirs->second <= 0) continue;
        std::printf("dict ratio %s TDict/%s = %.2f (%.1f ns vs %.1f ns per operation)\n", op + 5, ref,
                    ours->second / theirs->second, ours->second / per, theirs->second / per);
      }
    }
  }

 private:
  std::map<std::pair<std::string, std::string>, double> m_ns;
};

}  // namespace

int main(int argc, char** argv) {
  RatioReporter reporter;
  return RunBenchmarks(argc, argv, &reporter);
}
