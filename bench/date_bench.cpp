// TDate::ToISOString against snprintf and strftime writing the same text,
// and TDate::FromISOString against sscanf and strptime reading it, in the
// same run. When the program ends the ratios are printed:
//   date ratio <ours>/<theirs> = (our time) / (their time)
// (the fastest repetition of each when run with repetitions).
#include <benchmark/benchmark.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "foundation/tstring.h"
#include "time/tdate.h"

namespace {

constexpr int kDates = 64;
constexpr char kFormat[] = "%04d-%02d-%02dT%02d:%02d:%02d.%02d%c%02d%02d";

struct Sample {
  TDate date;
  struct tm tm;
  std::string text;
  TString wide;
};

const std::vector<Sample>& Samples() {
  static const std::vector<Sample> samples = [] {
    std::mt19937_64 rng(7);
    std::vector<Sample> out(kDates);
    for (Sample& s : out) {
      // Four-digit years: strftime's %Y does not pad.
      auto pick = [&rng](int lo, int hi) { return static_cast<unsigned short>(lo + rng() % (hi - lo + 1)); };
      s.date = TDate(pick(1000, 4000), pick(1, 12), pick(1, 28), pick(0, 23), pick(0, 59), pick(0, 59), pick(0, 999));
      s.date.SetGMTOffset(static_cast<short>(pick(0, 1680) - 840));
      s.tm = {};
      s.tm.tm_year = s.date.GetYear() - 1900;
      s.tm.tm_mon = s.date.GetMonth() - 1;
      s.tm.tm_mday = s.date.GetDay();
      s.tm.tm_hour = s.date.GetHour();
      s.tm.tm_min = s.date.GetMinute();
      s.tm.tm_sec = s.date.GetSecond();
      s.wide = s.date.ToISOString();
      s.text = TStringAsString(s.wide);
    }
    return out;
  }();
  return samples;
}

// Per-iteration times by benchmark name, the fastest run kept.
std::map<std::string, double>& Times() {
  static std::map<std::string, double> times;
  return times;
}

void Record(const char* name, benchmark::State& state, std::chrono::steady_clock::time_point start) {
  double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
  if (state.iterations() == 0) return;
  double per = ns / static_cast<double>(state.iterations());
  auto it = Times().find(name);
  if (it == Times().end() || per < it->second) Times()[name] = per;
}

int Offset(const TDate& d) { return d.GetGMTOffset(); }

void BM_DateToISOString(benchmark::State& state) {
  const auto& samples = Samples();
  TString out;
  size_t i = 0;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    samples[i++ % kDates].date.ToISOString(&out);
    benchmark::DoNotOptimize(out.GetConstBuffer());
  }
  Record("ToISOString", state, start);
}

void BM_DateSnprintfISO(benchmark::State& state) {
  const auto& samples = Samples();
  char out[64];
  size_t i = 0;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    const TDate& d = samples[i++ % kDates].date;
    int off = Offset(d);
    int mag = std::abs(off);
    std::snprintf(out, sizeof out, kFormat, d.GetYear(), d.GetMonth(), d.GetDay(), d.GetHour(), d.GetMinute(),
                  d.GetSecond(), d.GetMillisecond(), off < 0 ? '-' : '+', mag / 60, mag % 60);
    benchmark::DoNotOptimize(out);
  }
  Record("snprintf", state, start);
}

void BM_DateStrftimeISO(benchmark::State& state) {
  const auto& samples = Samples();
  char out[64];
  size_t i = 0;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    const Sample& s = samples[i++ % kDates];
    size_t n = strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%S", &s.tm);
    int off = Offset(s.date);
    int mag = std::abs(off);
    std::snprintf(out + n, sizeof out - n, ".%02d%c%02d%02d", s.date.GetMillisecond(), off < 0 ? '-' : '+',
                  mag / 60, mag % 60);
    benchmark::DoNotOptimize(out);
  }
  Record("strftime", state, start);
}

void BM_DateFromISOString(benchmark::State& state) {
  const auto& samples = Samples();
  TDate d;
  size_t i = 0;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    int rc = d.FromISOString(samples[i++ % kDates].wide);
    benchmark::DoNotOptimize(rc);
    benchmark::DoNotOptimize(d);
  }
  Record("FromISOString", state, start);
}

void BM_DateSscanfISO(benchmark::State& state) {
  const auto& samples = Samples();
  size_t i = 0;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    int y, mo, d, h, mi, s, ms, zone;
    char c1, c2, c3, sign;
    int n = std::sscanf(samples[i++ % kDates].text.c_str(), "%d-%d-%dT%d%c%d%c%d%c%d%c%d", &y, &mo, &d, &h, &c1, &mi,
                        &c2, &s, &c3, &ms, &sign, &zone);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(zone);
  }
  Record("sscanf", state, start);
}

void BM_DateStrptimeISO(benchmark::State& state) {
  const auto& samples = Samples();
  size_t i = 0;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    struct tm tm = {};
    const char* rest = strptime(samples[i++ % kDates].text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    // strptime has no fractions or numeric zones: the tail by strtol.
    char* end = nullptr;
    long ms = std::strtol(rest + 1, &end, 10);
    long zone = std::strtol(end, &end, 10);
    benchmark::DoNotOptimize(tm);
    benchmark::DoNotOptimize(ms);
    benchmark::DoNotOptimize(zone);
  }
  Record("strptime", state, start);
}

BENCHMARK(BM_DateToISOString);
BENCHMARK(BM_DateSnprintfISO);
BENCHMARK(BM_DateStrftimeISO);
BENCHMARK(BM_DateFromISOString);
BENCHMARK(BM_DateSscanfISO);
BENCHMARK(BM_DateStrptimeISO);

// Prints the ratios once every benchmark has run.
struct RatioPrinter {
  ~RatioPrinter() {
    const std::pair<const char*, const char*> pairs[] = {{"ToISOString", "snprintf"},
                                                         {"ToISOString", "strftime"},
                                                         {"FromISOString", "sscanf"},
                                                         {"FromISOString", "strptime"}};
    for (const auto& [ours, theirs] : pairs) {
      auto a = Times().find(ours);
      auto b = Times().find(theirs);
      if (a == Times().end() || b == Times().end() || b->second <= 0) continue;
      std::printf("date ratio %s/%s = %.2f (%.1f ns vs %.1f ns)\n", ours, theirs, a->second / b->second, a->second,
                  b->second);
    }
  }
} g_ratioPrinter;

}  // namespace
