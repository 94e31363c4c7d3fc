// Shared pieces of the benchmark programs, which print ratios against their
// references after the run.
#ifndef PLINTH_BENCH_BENCH_SUPPORT_H_
#define PLINTH_BENCH_BENCH_SUPPORT_H_

#include <benchmark/benchmark.h>

// The run that speaks for a benchmark: its median when it was repeated,
// else its single run.
inline bool IsRepresentativeRun(const benchmark::BenchmarkReporter::Run& run) {
  using Run = benchmark::BenchmarkReporter::Run;
  if (run.run_type == Run::RT_Aggregate) return run.aggregate_name == "median";
  return run.run_type == Run::RT_Iteration && run.repetitions <= 1;
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
