// Shared pieces of the benchmark programs, which print ratios against their
// references after the run.
#ifndef PLINTH_BENCH_BENCH_SUPPORT_H_
#define PLINTH_BENCH_BENCH_SUPPORT_H_

#include <benchmark/benchmark.h>

#include <chrono>
#include <map>
#include <string>

// The run that speaks for a benchmark: its median when it was repeated,
// else its single run.
inline bool IsRepresentativeRun(const benchmark::BenchmarkReporter::Run& run) {
  using Run = benchmark::BenchmarkReporter::Run;
  if (run.run_type == Run::RT_Aggregate) return run.aggregate_name == "median";
  return run.run_type == Run::RT_Iteration && run.repetitions <= 1;
}

// Benchmarks that time their own loops keep the fastest per-iteration time
// of each named run, in milliseconds, for their ratio lines. Names are
// shared by every benchmark file of a program, so each file uses its own.
inline std::map<std::string, double>& Times() {
  static std::map<std::string, double> times;
  return times;
}

inline void Record(const char* name, benchmark::State& state, std::chrono::steady_clock::time_point start) {
  double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  if (state.iterations() == 0) return;
  double per = ms / static_cast<double>(state.iterations());
  auto it = Times().find(name);
  if (it == Times().end() || per < it->second) Times()[name] = per;
}

// The main() of a benchmark program whose `reporter` prints the ratios.
inline int RunBenchmarks(int argc, char** argv, benchmark::BenchmarkReporter* reporter) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks(reporter);
  benchmark::Shutdown();
  return 0;
}

#endif  // PLINTH_BENCH_BENCH_SUPPORT_H_
