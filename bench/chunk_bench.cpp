// ChunkManager against SQLite (one table of (type, id, data) keyed by type
// and id, WAL journal, synchronous=NORMAL), in the same run and on files in
// one scratch folder:
//   Write: 100,000 chunks of 4 KiB added and saved durably (CHSave(0)), against
//          the same rows inserted in one transaction and committed;
//   Read:  the file reopened and all 100,000 read in a random order, each
//          chunk fetched, detached and deleted as a reader that handles one
//          chunk at a time does, against SELECTs by primary key through one
//          prepared statement;
//   Add:   the time of one CHAddChunk (64-byte chunks, adds only, no save) on
//          a saved container of 10,000, 100,000 and 1,000,000 chunks.
// Opening and closing are inside the timed part of Write and Read, on both
// sides. What was written and read is compared with the source bytes after
// the timed runs. The times are real (manual) times; the CPU column of the
// Add runs covers the whole iteration, copy of the base file included. When
// the program ends it prints the ratios of real times (medians when run with
// repetitions) and the fastest batch of adds of each size:
//   chunk ratio <workload> ChunkManager/SQLite = (our time) / (SQLite time)
//   chunk add at <n> chunks: <ns> per add (median <ns>), <x> times the figure at 10000
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "files/tfileloc.h"
#include "foundation/tmemory.h"
#include "foundation/tstring.h"
#include "storage/chunk_manager.h"
#include "tests/temp_dir.h"

namespace {

constexpr int kType = 0x44415441;  // 'DATA'
constexpr int kChunks = 100000;
constexpr size_t kChunkBytes = 4096;
constexpr size_t kSmallBytes = 64;
constexpr int kAddBatch = 10000;
constexpr int kAddSizes[] = {10000, 100000, 1000000};

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

const TempDir& Scratch() {
  static const TempDir dir;
  return dir;
}

std::string ScratchFile(const std::string& name) { return Scratch().path() + "/" + name; }

void RemoveFiles(const std::string& path) {
  std::error_code ignored;
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) std::filesystem::remove(path + suffix, ignored);
}

// The bytes of chunk i (of `size` bytes each), the same in every run.
const std::vector<unsigned char>& Source(size_t size, int count) {
  static std::map<std::pair<size_t, int>, std::vector<unsigned char>> sources;
  std::vector<unsigned char>& bytes = sources[{size, count}];
  if (bytes.empty()) {
    bytes.resize(size * static_cast<size_t>(count));
    uint64_t x = 0x9E3779B97F4A7C15ull ^ size;
    for (size_t i = 0; i < bytes.size(); i += 8) {
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      std::memcpy(&bytes[i], &x, 8);
    }
  }
  return bytes;
}

const unsigned char* ChunkBytes(int index) { return Source(kChunkBytes, kChunks).data() + index * kChunkBytes; }

// A random order of the chunk indices, the same for both sides.
const std::vector<int>& ReadOrder() {
  static const std::vector<int> order = [] {
    std::vector<int> o(kChunks);
    for (int i = 0; i < kChunks; ++i) o[i] = i;
    std::shuffle(o.begin(), o.end(), std::mt19937(2024));
    return o;
  }();
  return order;
}

// ---- ChunkManager ----

int OpenContainer(ChunkManager* cm, const std::string& path, int mode) {
  TFileLoc loc(TStringFromUTF8(path));
  return cm->CHOpen(&loc, mode);
}

// Adds `count` chunks of `size` bytes from `bytes` with ids from CHUniqueID
// and saves with `saveFlags`. The ids go to `ids` (index order).
int WriteContainer(const std::string& path, const unsigned char* bytes, size_t size, int count, int saveFlags,
                   std::vector<int>* ids) {
  ChunkManager cm;
  int rc = OpenContainer(&cm, path, kFileOpenCreateNew);
  if (rc != 0) return rc;
  ids->resize(count);
  for (int i = 0; i < count; ++i) {
    auto handle = std::make_unique<TMemory>();
    if ((rc = handle->SetSize(size)) != 0) return rc;
    std::memcpy(handle->MemPtr(), bytes + i * size, size);
    int id = cm.CHUniqueID(kType, 0);
    if ((rc = cm.CHAddChunk(handle.get(), kType, id)) != 0) return rc;
    handle.release();  // the manager's now
    (*ids)[i] = id;
  }
  if ((rc = cm.CHSave(saveFlags)) != 0) return rc;
  return cm.CHClose();
}

// Reads the chunks in `order` one at a time, handing each to `visit(index,
// data, size)`, which answers false to stop.
template <typename Visit>
int ReadContainer(const std::string& path, const std::vector<int>& ids, const std::vector<int>& order, Visit visit) {
  ChunkManager cm;
  int rc = OpenContainer(&cm, path, kFileOpenRead);
  if (rc != 0) return rc;
  for (int index : order) {
    TMemory* handle = nullptr;
    if ((rc = cm.CHGetChunk(kType, ids[index], &handle, 1)) != 0) return rc;
    bool ok = visit(index, static_cast<const unsigned char*>(handle->MemPtr()), handle->GetSize());
    if ((rc = cm.CHDetachChunk(handle)) != 0) return rc;
    delete handle;
    if (!ok) return -1;
  }
  return cm.CHClose();
}

// ---- SQLite ----

class Db {
 public:
  ~Db() { sqlite3_close(m_db); }
  int Open(const std::string& path) {
    return sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  }
  int Exec(const char* sql) { return sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr); }
  sqlite3* get() const { return m_db; }
  int Close() {
    int rc = sqlite3_close(m_db);
    m_db = nullptr;
    return rc;
  }

 private:
  sqlite3* m_db = nullptr;
};

class Statement {
 public:
  ~Statement() { sqlite3_finalize(m_stmt); }
  int Prepare(sqlite3* db, const char* sql) { return sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr); }
  sqlite3_stmt* get() const { return m_stmt; }

 private:
  sqlite3_stmt* m_stmt = nullptr;
};

int WriteDb(const std::string& path, const std::vector<int>& ids) {
  const unsigned char* bytes = ChunkBytes(0);
  Db db;
  int rc = db.Open(path);
  if (rc == SQLITE_OK) rc = db.Exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;");
  if (rc == SQLITE_OK)
    rc = db.Exec("CREATE TABLE chunks(type INTEGER, id INTEGER, data BLOB, PRIMARY KEY(type, id)); BEGIN;");
  if (rc != SQLITE_OK) return rc;
  {
    Statement insert;
    if ((rc = insert.Prepare(db.get(), "INSERT INTO chunks VALUES(?1, ?2, ?3)")) != SQLITE_OK) return rc;
    for (int i = 0; i < kChunks; ++i) {
      sqlite3_bind_int(insert.get(), 1, kType);
      sqlite3_bind_int(insert.get(), 2, ids[i]);
      sqlite3_bind_blob(insert.get(), 3, bytes + i * kChunkBytes, kChunkBytes, SQLITE_STATIC);
      if ((rc = sqlite3_step(insert.get())) != SQLITE_DONE) return rc;
      sqlite3_reset(insert.get());
    }
  }
  if ((rc = db.Exec("COMMIT")) != SQLITE_OK) return rc;
  return db.Close();
}

template <typename Visit>
int ReadDb(const std::string& path, const std::vector<int>& ids, const std::vector<int>& order, Visit visit) {
  Db db;
  int rc = db.Open(path);
  if (rc != SQLITE_OK) return rc;
  {
    Statement select;
    if ((rc = select.Prepare(db.get(), "SELECT data FROM chunks WHERE type = ?1 AND id = ?2")) != SQLITE_OK) return rc;
    for (int index : order) {
      sqlite3_bind_int(select.get(), 1, kType);
      sqlite3_bind_int(select.get(), 2, ids[index]);
      if ((rc = sqlite3_step(select.get())) != SQLITE_ROW) return rc;
      auto data = static_cast<const unsigned char*>(sqlite3_column_blob(select.get(), 0));
      bool ok = visit(index, data, static_cast<size_t>(sqlite3_column_bytes(select.get(), 0)));
      sqlite3_reset(select.get());
      if (!ok) return -1;
    }
  }
  return db.Close();
}

// ---- shared by both sides ----

// The visitor of the timed reads: touches the data as a reader would.
struct Touch {
  uint64_t sum = 0;
  bool operator()(int, const unsigned char* data, size_t size) {
    uint64_t word;
    std::memcpy(&word, data + size - 8, 8);
    sum += word + size;
    return size == kChunkBytes;
  }
};

// The visitor of the checks: every chunk equals its source.
bool Same(int index, const unsigned char* data, size_t size) {
  return size == kChunkBytes && std::memcmp(data, ChunkBytes(index), kChunkBytes) == 0;
}

std::vector<int> IndexOrder() {
  std::vector<int> order(kChunks);
  for (int i = 0; i < kChunks; ++i) order[i] = i;
  return order;
}

// The ids CHUniqueID(type, 0) gives a new container one after another,
// which the database rows use too.
const std::vector<int>& ExpectedIds() {
  static const std::vector<int> ids = [] {
    std::vector<int> v(kChunks);
    for (int i = 0; i < kChunks; ++i) v[i] = i + 1;
    return v;
  }();
  return ids;
}

void BM_WriteOurs(benchmark::State& state) {
  std::string path = ScratchFile("write.plc");
  const unsigned char* bytes = ChunkBytes(0);
  std::vector<int> ids;
  int rc = 0;
  for (auto _ : state) {
    RemoveFiles(path);
    auto start = Clock::now();
    rc = WriteContainer(path, bytes, kChunkBytes, kChunks, 0, &ids);
    state.SetIterationTime(Seconds(start));
    if (rc != 0) break;
  }
  if (rc == 0 && ids != ExpectedIds()) rc = -1;
  if (rc == 0) rc = ReadContainer(path, ids, IndexOrder(), Same);
  if (rc != 0) state.SkipWithError(("container write or check failed: " + std::to_string(rc)).c_str());
  RemoveFiles(path);
}

void BM_WriteSqlite(benchmark::State& state) {
  std::string path = ScratchFile("write.db");
  int rc = 0;
  for (auto _ : state) {
    RemoveFiles(path);
    auto start = Clock::now();
    rc = WriteDb(path, ExpectedIds());
    state.SetIterationTime(Seconds(start));
    if (rc != SQLITE_OK) break;
  }
  if (rc == SQLITE_OK) rc = ReadDb(path, ExpectedIds(), IndexOrder(), Same);
  if (rc != SQLITE_OK) state.SkipWithError(("SQLite write or check failed: " + std::to_string(rc)).c_str());
  RemoveFiles(path);
}

// The files the reads work on, written once.
struct ReadFiles {
  std::string container = ScratchFile("read.plc");
  std::string db = ScratchFile("read.db");
  std::vector<int> ids;
  int status = 0;
};

const ReadFiles& ReadInputs() {
  static const ReadFiles files = [] {
    ReadFiles f;
    f.status = WriteContainer(f.container, ChunkBytes(0), kChunkBytes, kChunks, 0, &f.ids);
    if (f.status == 0 && f.ids != ExpectedIds()) f.status = -1;
    if (f.status == 0) f.status = WriteDb(f.db, f.ids);
    if (f.status == 0) f.status = ReadContainer(f.container, f.ids, ReadOrder(), Same);
    if (f.status == 0) f.status = ReadDb(f.db, f.ids, ReadOrder(), Same);
    return f;
  }();
  return files;
}

template <bool kOurs>
void BM_Read(benchmark::State& state) {
  const ReadFiles& f = ReadInputs();
  if (f.status != 0) {
    state.SkipWithError(("writing or checking the read files failed: " + std::to_string(f.status)).c_str());
    return;
  }
  int rc = 0;
  for (auto _ : state) {
    Touch touch;
    auto start = Clock::now();
    rc = kOurs ? ReadContainer(f.container, f.ids, ReadOrder(), std::ref(touch))
               : ReadDb(f.db, f.ids, ReadOrder(), std::ref(touch));
    state.SetIterationTime(Seconds(start));
    benchmark::DoNotOptimize(touch.sum);
    if (rc != 0) break;
  }
  if (rc != 0) state.SkipWithError(("read failed: " + std::to_string(rc)).c_str());
}

// A saved container of `count` small chunks, written once; its ids are
// 1..count.
int AddBase(int count, std::string* path) {
  static std::map<int, int> status;
  *path = ScratchFile("add" + std::to_string(count) + ".plc");
  auto it = status.find(count);
  if (it != status.end()) return it->second;
  std::vector<int> ids;
  int rc = WriteContainer(*path, Source(kSmallBytes, count).data(), kSmallBytes, count, kCHSaveNoSync, &ids);
  if (rc == 0 && (ids.front() != 1 || ids.back() != count)) rc = -1;
  status[count] = rc;
  return rc;
}

// The fastest batch of each size, in ns per add: other jobs on the machine
// only ever add to a batch of this length.
std::map<int, double>& FastestAdd() {
  static std::map<int, double> fastest;
  return fastest;
}

void BM_Add(benchmark::State& state) {
  int count = static_cast<int>(state.range(0));
  std::string base;
  int rc = AddBase(count, &base);
  if (rc != 0) {
    state.SkipWithError(("writing the base container failed: " + std::to_string(rc)).c_str());
    return;
  }
  std::string work = ScratchFile("add-work.plc");
  const unsigned char* bytes = Source(kSmallBytes, kAddBatch).data();
  for (auto _ : state) {
    std::filesystem::copy_file(base, work, std::filesystem::copy_options::overwrite_existing);
    ChunkManager cm;
    if ((rc = OpenContainer(&cm, work, kFileOpenReadWrite)) != 0) break;
    if (cm.CHUniqueID(kType, 0) != count + 1) {
      rc = -1;
      break;
    }
    std::vector<std::unique_ptr<TMemory>> handles(kAddBatch);
    for (int i = 0; i < kAddBatch; ++i) {
      handles[i] = std::make_unique<TMemory>();
      handles[i]->SetSize(kSmallBytes);
      std::memcpy(handles[i]->MemPtr(), bytes + i * kSmallBytes, kSmallBytes);
    }
    auto start = Clock::now();
    for (int i = 0; i < kAddBatch && rc == 0; ++i) {
      rc = cm.CHAddChunk(handles[i].get(), kType, count + 1 + i);
      if (rc == 0) handles[i].release();
    }
    double perAdd = Seconds(start) / kAddBatch;
    state.SetIterationTime(perAdd);
    if (rc != 0) break;
    auto fastest = FastestAdd().find(count);
    if (fastest == FastestAdd().end() || perAdd * 1e9 < fastest->second) FastestAdd()[count] = perAdd * 1e9;
    if (cm.CHCountChunks(kType) != count + kAddBatch || cm.CHVerify() != 0) {
      rc = -1;
      break;
    }
  }
  if (rc != 0) state.SkipWithError(("add or its check failed: " + std::to_string(rc)).c_str());
  RemoveFiles(work);
}

BENCHMARK(BM_WriteOurs)
    ->Name("Chunk/Write/ChunkManager")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteSqlite)->Name("Chunk/Write/SQLite")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read<true>)
    ->Name("Chunk/Read/ChunkManager")
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read<false>)->Name("Chunk/Read/SQLite")->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Add)
    ->Name("Chunk/Add")
    ->Arg(kAddSizes[0])
    ->Arg(kAddSizes[1])
    ->Arg(kAddSizes[2])
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kNanosecond);

// Collects real times per iteration by name, then prints the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (!IsRepresentativeRun(run) || run.error_occurred) continue;
      m_ns[run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args)] =
          run.GetAdjustedRealTime() * Scale(run.time_unit);
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const char* work : {"Write", "Read"}) {
      double ours = Find(std::string("Chunk/") + work + "/ChunkManager");
      double theirs = Find(std::string("Chunk/") + work + "/SQLite");
      if (ours <= 0 || theirs <= 0) continue;
      std::printf("chunk ratio %s ChunkManager/SQLite = %.2f (%.0f ms vs %.0f ms for %d chunks of %zu bytes)\n", work,
                  ours / theirs, ours / 1e6, theirs / 1e6, kChunks, kChunkBytes);
    }
    double first = FastestAdd().count(kAddSizes[0]) != 0 ? FastestAdd()[kAddSizes[0]] : 0;
    for (int count : kAddSizes) {
      auto fastest = FastestAdd().find(count);
      if (fastest == FastestAdd().end()) continue;
      double ns = fastest->second;
      std::printf("chunk add at %d chunks: %.0f ns per add (median %.0f)", count, ns,
                  Find("Chunk/Add/" + std::to_string(count)));
      if (first > 0 && count != kAddSizes[0]) std::printf(", %.2f times the figure at %d", ns / first, kAddSizes[0]);
      std::printf("\n");
    }
  }

 private:
  static double Scale(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond:
        return 1e9;
      case benchmark::kMillisecond:
        return 1e6;
      case benchmark::kMicrosecond:
        return 1e3;
      default:
        return 1;
    }
  }
  double Find(const std::string& name) const {
    auto it = m_ns.find(name);
    return it == m_ns.end() ? 0 : it->second;
  }

  std::map<std::string, double> m_ns;
};

}  // namespace

int main(int argc, char** argv) {
  RatioReporter reporter;
  return RunBenchmarks(argc, argv, &reporter);
}
