// CRC32::update over 64 MiB against Intel ISA-L's crc32_ieee (the same CRC,
// inverted at both ends: ours(prev) == ~crc32_ieee(~prev), checked before
// the run) and against the byte-at-a-time table loop, in the same run. The
// 128-bit and 256-bit folding paths are also measured on their own
// (forced), next to the path the library chooses. After the run the ratios are printed, by CPU
// time (medians when run with repetitions):
//   crc ratio <ours>/<reference> = (reference time) / (our time)
// that is, our throughput as a multiple of the reference's.
#include <benchmark/benchmark.h>
#include <isa-l/crc.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "security/crc32.h"
#include "security/crc32_internal.h"

namespace {

using crc32_internal::CrcPath;

constexpr int kBytes = 64 << 20;

const std::vector<unsigned char>& Data() {
  static const std::vector<unsigned char> data = [] {
    std::vector<unsigned char> d(kBytes);
    std::mt19937_64 rng(7);
    for (size_t i = 0; i < d.size(); i += 8) {
      uint64_t v = rng();
      for (int k = 0; k < 8; ++k) d[i + k] = static_cast<unsigned char>(v >> (8 * k));
    }
    return d;
  }();
  return data;
}

void BM_Ours(benchmark::State& state, CrcPath path) {
  if (!crc32_internal::ForcePath(path)) {
    state.SkipWithError("this CPU lacks the path");
    return;
  }
  const std::vector<unsigned char>& d = Data();
  for (auto _ : state) benchmark::DoNotOptimize(CRC32::update(0, d.data(), kBytes));
  state.SetBytesProcessed(state.iterations() * int64_t{kBytes});
  crc32_internal::ForcePath(CrcPath::kAuto);
}

void BM_Isal(benchmark::State& state) {
  const std::vector<unsigned char>& d = Data();
  for (auto _ : state) benchmark::DoNotOptimize(~crc32_ieee(~0u, d.data(), kBytes));
  state.SetBytesProcessed(state.iterations() * int64_t{kBytes});
}

void BM_TableLoop(benchmark::State& state) {
  const std::vector<unsigned char>& d = Data();
  for (auto _ : state) benchmark::DoNotOptimize(crc32_internal::UpdateTable(0, d.data(), kBytes));
  state.SetBytesProcessed(state.iterations() * int64_t{kBytes});
}

BENCHMARK_CAPTURE(BM_Ours, auto, CrcPath::kAuto)->Name("Crc/CRC32::update")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Ours, pclmul, CrcPath::kPclmul)->Name("Crc/CRC32::update(pclmul)")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Ours, vpclmul256, CrcPath::kVpclmul256)
    ->Name("Crc/CRC32::update(vpclmul256)")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Isal)->Name("Crc/isal crc32_ieee")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TableLoop)->Name("Crc/table loop")->Unit(benchmark::kMillisecond);

// ours(prev) == ~crc32_ieee(~prev) on whole and odd-sized, unaligned data.
bool MappingHolds() {
  const std::vector<unsigned char>& d = Data();
  std::mt19937 rng(11);
  for (int i = 0; i < 20; ++i) {
    const uint32_t prev = static_cast<uint32_t>(rng());
    const int offset = static_cast<int>(rng() % 64);
    const int n = i == 0 ? kBytes - offset : static_cast<int>(rng() % 100000);
    const unsigned int ours = CRC32::update(prev, d.data() + offset, n);
    const uint32_t theirs = ~crc32_ieee(~prev, d.data() + offset, static_cast<uint64_t>(n));
    if (ours != theirs || crc32_internal::UpdateTable(prev, d.data() + offset, n) != ours) {
      std::fprintf(stderr, "crc mapping fails: prev %08x, %d bytes: ours %08x, isal %08x\n", prev, n, ours, theirs);
      return false;
    }
  }
  return true;
}

// Collects CPU times by name, then prints the throughput ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (!IsRepresentativeRun(run)) continue;
      m_ms[run.run_name.function_name] = run.GetAdjustedCPUTime();
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const char* ours : {"Crc/CRC32::update", "Crc/CRC32::update(pclmul)", "Crc/CRC32::update(vpclmul256)"}) {
      for (const char* ref : {"Crc/isal crc32_ieee", "Crc/table loop"}) {
        auto a = m_ms.find(ours);
        auto b = m_ms.find(ref);
        if (a == m_ms.end() || b == m_ms.end() || a->second <= 0) continue;
        std::printf("crc ratio %s/%s = %.2f (%.2f GB/s vs %.2f GB/s)\n", ours + 4, ref + 4, b->second / a->second,
                    kBytes / a->second / 1e6, kBytes / b->second / 1e6);
      }
    }
  }

 private:
  std::map<std::string, double> m_ms;
};

}  // namespace

int main(int argc, char** argv) {
  if (!MappingHolds()) return 1;
  RatioReporter reporter;
  return RunBenchmarks(argc, argv, &reporter);
}
