// Crash consistency of the chunk container: a save cut short at every one
// of its writes, or in the middle of one, leaves a file that opens with
// exactly the state before or exactly the state after, or is refused as not
// fully saved.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "files/tfile.h"
#include "foundation/errors.h"
#include "storage/chunk_format.h"
#include "storage/chunk_manager.h"
#include "storage/chunk_recover.h"
#include "tests/chunk_testing.h"
#include "tests/faulty_file.h"
#include "tests/temp_dir.h"

namespace {

constexpr int kKeys = 0x4B455953;   // "KEYS"
constexpr int kBlobs = 0x626C6F62;  // "blob"
constexpr int kNotes = 0x6E6F7465;  // "note", only in the state after

Bytes Filled(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed * 31 + i * 13 + (i >> 5));
  return b;
}

int Add(ChunkManager* cm, int type, int id, const Bytes& data) {
  auto* handle = new TMemory;
  if (handle->SetSize(data.size()) != 0) {
    delete handle;
    return -1;
  }
  if (!data.empty()) std::memcpy(handle->MemPtr(), data.data(), data.size());
  int status = cm->CHAddChunk(handle, type, id);
  if (status != 0) delete handle;
  return status;
}

// New bytes for a chunk, marked changed or (with `storeNow`) written at once.
int Change(ChunkManager* cm, int type, int id, const Bytes& data, bool storeNow = false) {
  TMemory* handle = nullptr;
  int status = cm->CHGetChunk(type, id, &handle, 1);
  if (status != 0) return status;
  if (handle->SetSize(data.size()) != 0) return -1;
  if (!data.empty()) std::memcpy(handle->MemPtr(), data.data(), data.size());
  return storeNow ? cm->CHStoreChunk(handle) : cm->CHChangedChunk(handle);
}

int Remove(ChunkManager* cm, int type, int id) {
  TMemory* handle = nullptr;
  int status = cm->CHGetChunk(type, id, &handle, 1);
  if (status != 0) return status;
  status = cm->CHRemoveChunk(handle);
  if (status == 0) delete handle;
  return status;
}

// The changes from state A to state B. Statuses are returned, not
// asserted: under a failing file they may fail. With `storeNow` two of the
// chunks are written before the save.
int ApplyChanges(ChunkManager* cm, bool storeNow = false) {
  int worst = 0;
  auto note = [&worst](int status) {
    if (status != 0 && worst == 0) worst = status;
  };
  note(Add(cm, kKeys, 10, Filled(77, 1)));
  note(Add(cm, kNotes, 1, Filled(10, 2)));
  note(Add(cm, kBlobs, 9, Filled(2000, 3)));
  note(Change(cm, kKeys, 2, Filled(900, 4), storeNow));  // larger
  note(Change(cm, kBlobs, 1, Filled(100, 5)));            // smaller
  note(Change(cm, kKeys, 4, Filled(120, 6), storeNow));   // same size
  note(Remove(cm, kBlobs, 2));
  note(Remove(cm, kKeys, 3));
  return worst;
}

// The same changes on the model.
void ApplyChanges(ChunkState* model) {
  (*model)[{kKeys, 10}] = Filled(77, 1);
  (*model)[{kNotes, 1}] = Filled(10, 2);
  (*model)[{kBlobs, 9}] = Filled(2000, 3);
  (*model)[{kKeys, 2}] = Filled(900, 4);
  (*model)[{kBlobs, 1}] = Filled(100, 5);
  (*model)[{kKeys, 4}] = Filled(120, 6);
  model->erase({kBlobs, 2});
  model->erase({kKeys, 3});
}

// What a file opens to with a plain TFile.
struct Outcome {
  int status = 0;
  int verify = 0;
  ChunkState chunks;
  std::string why;
};

Outcome OpenPlain(const std::string& path) {
  Outcome out;
  TFile file;
  out.status = file.Open(FileLocOf(path), kFileOpenRead);
  if (out.status != 0) return out;
  ChunkManager cm;
  out.status = cm.CHOpenRef(&file);
  if (out.status != 0) return out;
  out.verify = cm.CHVerify();
  int read = ReadChunkState(&cm, &out.chunks, &out.why);
  if (read != 0) out.status = read;
  return out;
}

class ChunkCrash : public ::testing::Test {
 protected:
  void SetUp() override {
    // State A: two saves, so that it holds free space as well as chunks.
    std::string path = m_dir.path() + "/a.chf";
    WriteFileBytes(path, Bytes());
    TFile file;
    ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
    ChunkManager cm;
    ASSERT_EQ(0, cm.CHOpenRef(&file));
    const std::vector<std::pair<std::pair<int, int>, size_t>> first = {
        {{kKeys, 1}, 40},   {{kKeys, 2}, 300},  {{kKeys, 3}, 0},    {{kKeys, 4}, 120},  {{kKeys, 5}, 64},
        {{kBlobs, 1}, 1000}, {{kBlobs, 2}, 64}, {{kBlobs, 5}, 500}, {{kBlobs, 6}, 256},
    };
    uint8_t seed = 100;
    for (const auto& [key, size] : first) {
      ASSERT_EQ(0, Add(&cm, key.first, key.second, Filled(size, seed)));
      m_a[{key.first, key.second}] = Filled(size, seed++);
    }
    ASSERT_EQ(0, cm.CHSave(0));
    ASSERT_EQ(0, Remove(&cm, kKeys, 5));
    ASSERT_EQ(0, Remove(&cm, kBlobs, 6));
    m_a.erase({kKeys, 5});
    m_a.erase({kBlobs, 6});
    ASSERT_EQ(0, Add(&cm, kBlobs, 7, Filled(30, 7)));
    m_a[{kBlobs, 7}] = Filled(30, 7);
    ASSERT_EQ(0, cm.CHSave(0));
    ASSERT_EQ(0, cm.CHClose());
    file.Close();
    m_aBytes = ReadFileBytes(path);
    Outcome a = OpenPlain(path);
    ASSERT_EQ(0, a.status) << a.why;
    ASSERT_TRUE(SameChunks(m_a, a.chunks));
    m_b = m_a;
    ApplyChanges(&m_b);
  }

  // Copies state A's file, opens it through a faulty file, lets `plan` arm
  // it, applies the changes and saves. Answers the save's status.
  template <typename Plan>
  int CrashRun(const std::string& path, Plan plan, int saveFlags = 0, std::vector<TFaultyFile::CallSpec>* calls = nullptr,
               int* writes = nullptr, bool storeNow = false) {
    WriteFileBytes(path, m_aBytes);
    TFaultyFile file;
    EXPECT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
    ChunkManager cm;
    EXPECT_EQ(0, cm.CHOpenRef(&file));
    plan(&file);
    ApplyChanges(&cm, storeNow);
    int status = cm.CHSave(saveFlags);
    if (calls != nullptr) *calls = file.Calls();
    if (writes != nullptr) *writes = file.WriteCount();
    cm.CHClose();
    file.Close();
    return status;
  }

  // The file must open with state A or state B, or be refused as not fully
  // saved. Answers the status it opened with.
  int ExpectAOrBOrRefused(const std::string& path, const std::string& what) {
    Outcome out = OpenPlain(path);
    if (out.status == kErrCHNotSaved) return out.status;
    EXPECT_EQ(0, out.status) << what << ": " << out.why;
    if (out.status != 0) return out.status;
    EXPECT_EQ(0, out.verify) << what;
    EXPECT_TRUE(out.chunks == m_a || out.chunks == m_b) << what << ": neither state A nor state B";
    return out.chunks == m_a ? 1 : 2;
  }

  TempDir m_dir;
  ChunkState m_a;
  ChunkState m_b;
  Bytes m_aBytes;
  void CutEverywhere(bool storeNow);

  // A refused file recovers into a container that verifies, keeps every
  // chunk A and B agree on, and holds nothing but A's or B's bytes.
  void ExpectRecovered(const std::string& what, const Bytes& refused, ChunkState* recovered) {
    const std::string source = m_dir.path() + "/refused.chf", target = m_dir.path() + "/recovered.chf";
    WriteFileBytes(source, refused);
    WriteFileBytes(target, Bytes());
    TCHRecoverReport report;
    {
      TFile in, out;
      ASSERT_EQ(0, in.Open(FileLocOf(source), kFileOpenRead));
      ASSERT_EQ(0, out.Open(FileLocOf(target), kFileOpenReadWrite));
      ASSERT_EQ(0, CHRecover(&in, &out, &report)) << what;
    }
    EXPECT_EQ(refused, ReadFileBytes(source)) << what << ": recovery changed its source";
    Outcome out = OpenPlain(target);
    ASSERT_EQ(0, out.status) << what << ": recovered file: " << out.why;
    EXPECT_EQ(0, out.verify) << what;
    EXPECT_EQ(report.kept.size(), out.chunks.size()) << what;
    *recovered = out.chunks;
    for (const auto& [key, data] : m_a) {
      auto inB = m_b.find(key);
      if (inB == m_b.end() || inB->second != data) continue;
      auto got = out.chunks.find(key);
      EXPECT_TRUE(got != out.chunks.end() && got->second == data)
          << what << ": chunk " << key.first << "/" << key.second << " of both states lost";
    }
    for (const auto& [key, data] : out.chunks) {
      bool fromA = m_a.count(key) != 0 && m_a.at(key) == data;
      bool fromB = m_b.count(key) != 0 && m_b.at(key) == data;
      EXPECT_TRUE(fromA || fromB) << what << ": recovered " << key.first << "/" << key.second
                                  << " holds bytes of neither state";
    }
  }

  // Files refused after a cut, for the recovery check.
  std::vector<std::pair<std::string, Bytes>> m_refused;
};

// Cuts the run of changes and save after every write, and in the middle of
// every write, and checks each result.
void ChunkCrash::CutEverywhere(bool storeNow) {
  const std::string path = m_dir.path() + "/run.chf";
  int total = 0;
  ASSERT_EQ(0, CrashRun(path, [](TFaultyFile* f) { f->CountOnly(); }, 0, nullptr, &total, storeNow));
  ASSERT_GT(total, 2);
  Outcome b = OpenPlain(path);
  ASSERT_EQ(0, b.status) << b.why;
  EXPECT_EQ(0, b.verify);
  EXPECT_TRUE(SameChunks(m_b, b.chunks));

  int seenA = 0, seenB = 0, refused = 0;
  for (int n = 0; n <= total; ++n) {
    for (bool half : {false, true}) {
      if (half && n == 0) continue;
      std::string what = (half ? "half of write " : "stop after write ") + std::to_string(n) + " of " +
                         std::to_string(total);
      auto plan = [n, half](TFaultyFile* f) {
        if (half) {
          f->WritePrefixOf(n, TFaultyFile::kHalf);
        } else {
          f->StopAfter(n);
        }
      };
      int status = CrashRun(path, plan, 0, nullptr, nullptr, storeNow);
      const bool complete = !half && n == total;
      // A store before the save may fail and leave the save with less to do.
      if (!storeNow) {
        EXPECT_EQ(complete, status == 0) << what << ": save answered " << status;
      }
      int outcome = ExpectAOrBOrRefused(path, what);
      if (!half && n == 0) {
        EXPECT_EQ(1, outcome) << what << ": nothing written must leave state A";
      }
      if (complete) {
        EXPECT_EQ(2, outcome) << what;
      }
      seenA += outcome == 1;
      seenB += outcome == 2;
      refused += outcome == kErrCHNotSaved;
      if (outcome == kErrCHNotSaved) m_refused.push_back({what, ReadFileBytes(path)});
    }
  }
  EXPECT_GT(refused, 0);
  // Only the marker on disk: the old map rules. Everything but the marker
  // clear on disk: the new map does.
  const std::string onlyMarker = "stop after write 1 of " + std::to_string(total);
  const std::string allButClear = "half of write " + std::to_string(total) + " of " + std::to_string(total);
  for (const auto& [what, bytes] : m_refused) {
    ChunkState recovered;
    ExpectRecovered(what, bytes, &recovered);
    if (what == onlyMarker && !storeNow) {
      EXPECT_TRUE(SameChunks(m_a, recovered)) << what;
    }
    if (what == allButClear) {
      EXPECT_TRUE(SameChunks(m_b, recovered)) << what;
    }
  }
  ::testing::Test::RecordProperty("writes", total);
  ::testing::Test::RecordProperty("cutsGivingA", seenA);
  ::testing::Test::RecordProperty("cutsGivingB", seenB);
  ::testing::Test::RecordProperty("cutsRefused", refused);
}

TEST_F(ChunkCrash, EveryCutOfASaveLeavesAOrBOrARefusal) { CutEverywhere(false); }

TEST_F(ChunkCrash, EveryCutWithStoresBeforeTheSave) { CutEverywhere(true); }

// Offsets of the header fields written last.
constexpr uint64_t kMarkerOffset = 32;

bool IsWrite(const TFaultyFile::CallSpec& c) { return c.kind == TFaultyFile::CallKind::kWrite; }
bool IsSync(const TFaultyFile::CallSpec& c) { return c.kind == TFaultyFile::CallKind::kSync; }

// The marker goes to stable storage before anything else is written; the
// final clear of the marker follows a sync that follows the map and the
// header naming it, and is synced itself.
TEST_F(ChunkCrash, DurableSaveSyncsInOrder) {
  const std::string path = m_dir.path() + "/run.chf";
  std::vector<TFaultyFile::CallSpec> calls;
  ASSERT_EQ(0, CrashRun(path, [](TFaultyFile* f) { f->CountOnly(); }, 0, &calls));
  Bytes saved = ReadFileBytes(path);
  const uint64_t mapAddress = GetLE(saved, 8, 8);
  ASSERT_NE(0u, mapAddress);

  std::vector<size_t> writes;
  for (size_t i = 0; i < calls.size(); ++i) {
    if (IsWrite(calls[i])) writes.push_back(i);
  }
  ASSERT_GE(writes.size(), 4u);
  // First: the header with the marker, synced before the next write.
  const TFaultyFile::CallSpec& first = calls[writes[0]];
  ASSERT_LE(first.offset, kMarkerOffset);
  ASSERT_GE(first.offset + first.count, kMarkerOffset + 4);
  EXPECT_EQ(kCHUnsavedMarker, GetLE(first.bytes, kMarkerOffset - first.offset, 4));
  bool syncedBeforeSecond = false;
  for (size_t i = writes[0] + 1; i < writes[1]; ++i) syncedBeforeSecond |= IsSync(calls[i]);
  EXPECT_TRUE(syncedBeforeSecond) << "the marker is not on stable storage before the chunks are written";

  // Last: a 4-byte clear of the marker, then a sync.
  const size_t clear = writes.back();
  EXPECT_EQ(kMarkerOffset, calls[clear].offset);
  ASSERT_EQ(4u, calls[clear].count);
  EXPECT_EQ(0u, GetLE(calls[clear].bytes, 0, 4));
  bool syncedAfterClear = false;
  for (size_t i = clear + 1; i < calls.size(); ++i) syncedAfterClear |= IsSync(calls[i]);
  EXPECT_TRUE(syncedAfterClear);

  // Before it: the map, the header naming the map with the marker still
  // set, and a sync after both.
  size_t mapWrite = calls.size(), headerWrite = calls.size(), syncBeforeClear = calls.size();
  for (size_t i = 0; i < clear; ++i) {
    if (IsWrite(calls[i]) && calls[i].offset == mapAddress) mapWrite = i;
    if (IsWrite(calls[i]) && calls[i].offset == 0 && calls[i].count >= kCHFileHeaderSize) headerWrite = i;
    if (IsSync(calls[i])) syncBeforeClear = i;
  }
  ASSERT_LT(mapWrite, clear) << "no write at the map's address";
  ASSERT_LT(headerWrite, clear) << "no header write before the clear";
  EXPECT_EQ(kCHMapType, GetLE(calls[mapWrite].bytes, 0, 4));
  EXPECT_EQ(mapAddress, GetLE(calls[headerWrite].bytes, 8, 8));
  EXPECT_EQ(kCHUnsavedMarker, GetLE(calls[headerWrite].bytes, kMarkerOffset, 4));
  ASSERT_LT(syncBeforeClear, clear);
  EXPECT_GT(syncBeforeClear, mapWrite);
  EXPECT_GT(syncBeforeClear, headerWrite);

  // Without syncs the writes are the same, in the same order.
  std::vector<TFaultyFile::CallSpec> quick;
  ASSERT_EQ(0, CrashRun(path, [](TFaultyFile* f) { f->CountOnly(); }, kCHSaveNoSync, &quick));
  std::vector<std::pair<uint64_t, uint32_t>> durableWrites, quickWrites;
  for (const auto& c : calls) {
    if (IsWrite(c)) durableWrites.push_back({c.offset, c.count});
  }
  for (const auto& c : quick) {
    EXPECT_FALSE(IsSync(c)) << "kCHSaveNoSync synced";
    if (IsWrite(c)) quickWrites.push_back({c.offset, c.count});
  }
  EXPECT_EQ(durableWrites, quickWrites);
  EXPECT_EQ(saved, ReadFileBytes(path));
}

// A sync that fails is a failed durable save; the file is still A, B or
// refused. A save without syncs never asks for one.
TEST_F(ChunkCrash, FailingSyncFailsTheDurableSave) {
  const std::string path = m_dir.path() + "/run.chf";
  EXPECT_NE(0, CrashRun(path, [](TFaultyFile* f) {
    f->CountOnly();
    f->FailSync(true);
  }));
  ExpectAOrBOrRefused(path, "failing sync");
  EXPECT_EQ(0, CrashRun(path, [](TFaultyFile* f) {
    f->CountOnly();
    f->FailSync(true);
  }, kCHSaveNoSync));
  Outcome out = OpenPlain(path);
  ASSERT_EQ(0, out.status) << out.why;
  EXPECT_TRUE(SameChunks(m_b, out.chunks));
}

// When the file cannot be lengthened, whatever the manager manages to save
// is consistent: it verifies and holds only chunks of A or B.
TEST_F(ChunkCrash, FailingSetLengthLeavesAConsistentFile) {
  const std::string path = m_dir.path() + "/run.chf";
  CrashRun(path, [](TFaultyFile* f) {
    f->CountOnly();
    f->FailSetLength(true);
  });
  Outcome out = OpenPlain(path);
  if (out.status == kErrCHNotSaved) return;
  ASSERT_EQ(0, out.status) << out.why;
  EXPECT_EQ(0, out.verify);
  for (const auto& [key, data] : out.chunks) {
    bool fromA = m_a.count(key) != 0 && m_a.at(key) == data;
    bool fromB = m_b.count(key) != 0 && m_b.at(key) == data;
    EXPECT_TRUE(fromA || fromB) << key.first << "/" << key.second << " holds bytes of neither state";
  }
}

}  // namespace
