// SPrintf of a typical log line against snprintf of its nearest equivalent.
//
// The line has a number ("%~d"), a string ("%s") and an error ("%E", whose
// text and "Errr" format come from the resources). snprintf gets the same
// work done for it: the error text and code are passed as a string and a
// number, so it does no look-ups. After the run the program prints
// "ratio", the SPrintf time divided by the snprintf time (medians with
// repetitions).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>
#include <string>

#include "bench/bench_support.h"
#include "foundation/errors.h"
#include "foundation/tstring.h"

namespace {

void BM_SPrintfLogLine(benchmark::State& state) {
  TString name(u"C:\\Backups\\volume-0001.bin");
  TString out;
  int n = 0;
  for (auto _ : state) {
    out.SPrintf(u"TFile::Open: %~d bytes of <%s> not read, %E", n++, &name, kErrAccessDenied);
    benchmark::DoNotOptimize(out.GetConstBuffer());
  }
}
BENCHMARK(BM_SPrintfLogLine);

void BM_SnprintfLogLine(benchmark::State& state) {
  const char* name = "C:\\Backups\\volume-0001.bin";
  char out[256];
  int n = 0;
  for (auto _ : state) {
    std::snprintf(out, sizeof out, "TFile::Open: %d bytes of <%s> not read, %s (error %d)", n++, name,
                  "Access denied", kErrAccessDenied);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_SnprintfLogLine);

// Keeps the per-benchmark times to print the ratio at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (!IsRepresentativeRun(run)) continue;
      std::string name = run.benchmark_name();
      if (name.find("SPrintf") != std::string::npos) m_ours = run.GetAdjustedRealTime();
      if (name.find("Snprintf") != std::string::npos) m_theirs = run.GetAdjustedRealTime();
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    if (m_ours > 0 && m_theirs > 0) std::printf("ratio SPrintf/snprintf: %.2f\n", m_ours / m_theirs);
  }

 private:
  double m_ours = 0;
  double m_theirs = 0;
};

}  // namespace

int main(int argc, char** argv) {
  RatioReporter reporter;
  return RunBenchmarks(argc, argv, &reporter);
}
