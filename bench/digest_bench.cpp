// Digest throughput: 64 MiB hashed in 64 KiB updates per iteration.
//   TMD5 and SHA1Digest through the system path (InitHash, HashData,
//   EndHash) against libcrypto's EVP digests called directly;
//   SHA1Digest's software path (update, doFinal) with the block function
//   the CPU selects (SHA extensions where present) and with the portable
//   one, against EVP SHA-1.
// When the program ends the ratios of throughput are printed:
//   digest ratio <ours>/<EVP> = (EVP time) / (our time)
// from the fastest run of each. Targets: system path at least 0.95,
// software path at least 0.5.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "containers/typed_buffers.h"
#include "security/md5.h"
#include "security/sha1.h"
#include "security/sha1_block.h"

namespace {

constexpr size_t kTotal = 64u << 20;
constexpr size_t kUpdate = 64u << 10;

const std::vector<unsigned char>& Data() {
  static const std::vector<unsigned char> data = [] {
    std::vector<unsigned char> d(kTotal);
    uint32_t x = 2463534242u;
    for (auto& c : d) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      c = static_cast<unsigned char>(x);
    }
    return d;
  }();
  return data;
}

void RecordWithBytes(const char* name, benchmark::State& state, std::chrono::steady_clock::time_point start) {
  Record(name, state, start);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kTotal));
}

void Evp(benchmark::State& state, const EVP_MD* md, const char* name) {
  const auto& data = Data();
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  unsigned char out[EVP_MAX_MD_SIZE];
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    EVP_DigestInit_ex(ctx, md, nullptr);
    for (size_t at = 0; at < kTotal; at += kUpdate) EVP_DigestUpdate(ctx, data.data() + at, kUpdate);
    unsigned int n = 0;
    EVP_DigestFinal_ex(ctx, out, &n);
    benchmark::DoNotOptimize(out);
  }
  RecordWithBytes(name, state, start);
  EVP_MD_CTX_free(ctx);
}

void BM_DigestEvpMD5(benchmark::State& state) { Evp(state, EVP_md5(), "EVP MD5"); }
void BM_DigestEvpSHA1(benchmark::State& state) { Evp(state, EVP_sha1(), "EVP SHA-1"); }

void System(benchmark::State& state, TDigestBase& digest, const char* name) {
  const auto& data = Data();
  unsigned char out[20];
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    digest.InitHash();
    for (size_t at = 0; at < kTotal; at += kUpdate) digest.HashData(data.data() + at, kUpdate);
    digest.EndHash();
    digest.GetDigest(out, sizeof out);
    benchmark::DoNotOptimize(out);
  }
  RecordWithBytes(name, state, start);
}

void BM_DigestSystemMD5(benchmark::State& state) {
  TMD5 md5;
  System(state, md5, "TMD5 system");
}
void BM_DigestSystemSHA1(benchmark::State& state) {
  SHA1Digest sha;
  System(state, sha, "SHA1Digest system");
}

void Software(benchmark::State& state, sha1_internal::BlockPath path, const char* name) {
  if (!sha1_internal::SetBlockPath(path)) {
    state.SkipWithError("block build not available");
    return;
  }
  const auto& data = Data();
  SHA1Digest sha;
  TUint8Buffer out;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    for (size_t at = 0; at < kTotal; at += kUpdate) sha.update(data.data(), static_cast<int>(at), kUpdate);
    sha.doFinal(&out, 0);
    benchmark::DoNotOptimize(out.MemPtr());
  }
  RecordWithBytes(name, state, start);
  sha1_internal::SetBlockPath(sha1_internal::BlockPath::kAuto);
}

void BM_DigestSoftwareSHA1(benchmark::State& state) {
  Software(state, sha1_internal::BlockPath::kAuto, "SHA1Digest software");
}
void BM_DigestSoftwareSHA1Portable(benchmark::State& state) {
  Software(state, sha1_internal::BlockPath::kPortable, "SHA1Digest software portable");
}

BENCHMARK(BM_DigestEvpMD5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestSystemMD5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestEvpSHA1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestSystemSHA1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestSoftwareSHA1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DigestSoftwareSHA1Portable)->Unit(benchmark::kMillisecond);

struct RatioPrinter {
  // The table is made first, so that it outlives the printer.
  RatioPrinter() { Times(); }
  static void Print(const char* ours, const char* reference) {
    auto a = Times().find(ours);
    auto b = Times().find(reference);
    if (a == Times().end() || b == Times().end() || a->second <= 0) return;
    std::printf("digest ratio %s/%s = %.2f (%.1f ms vs %.1f ms for 64 MiB)\n", ours, reference,
                b->second / a->second, a->second, b->second);
  }
  ~RatioPrinter() {
    Print("TMD5 system", "EVP MD5");
    Print("SHA1Digest system", "EVP SHA-1");
    Print("SHA1Digest software", "EVP SHA-1");
    Print("SHA1Digest software portable", "EVP SHA-1");
  }
} g_ratioPrinter;

}  // namespace
