// ChunkManager against a model: long seeded random runs of every map
// operation, with the whole visible state compared after each step to a
// std::map of the chunks (and to a copy of the last saved state, which
// revert, reopen and a second reader of the file must show).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "files/tfile.h"
#include "storage/chunk_format.h"
#include "storage/chunk_manager.h"
#include "tests/chunk_testing.h"
#include "tests/temp_dir.h"

namespace {

using Key = std::pair<uint32_t, uint32_t>;

const int kTypes[] = {1, 0x41414141, 0x7FFFFFF0};

// How a run's file starts: empty (a new container), or an empty container
// of the 0100 generation, or one written big-endian.
enum class Start { kNew, k0100, kBigEndian };

// The 512 bytes of an empty saved container, fields stored one by one.
Bytes EmptyContainer(bool is0100, bool bigEndian) {
  Bytes b(kCHNewDataStart, 0);
  auto put = [&b, bigEndian](size_t at, uint64_t value, int width) {
    for (int i = 0; i < width; ++i) b[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * (bigEndian ? width - 1 - i : i)));
  };
  put(0, kCHMagic, 4);
  put(4, kCHVersion0100, 2);
  put(6, is0100 ? kCHVersion0100 : kCHVersionCurrent, 2);
  put(24, kCHNewDataStart, 8);  // end of space; no map yet
  put(36, kCHNewAddressStep, 4);
  put(40, kCHNewDataStart, 8);
  return b;
}

class ModelRun {
 public:
  ModelRun(uint32_t seed, Start start) : m_rng(seed), m_start(start) {
    m_path = m_dir.path() + "/model.chf";
    WriteFileBytes(m_path, start == Start::kNew ? Bytes() : EmptyContainer(start == Start::k0100, start == Start::kBigEndian));
    EXPECT_EQ(0, m_file.Open(FileLocOf(m_path), kFileOpenReadWrite));
    EXPECT_EQ(0, m_cm.CHOpenRef(&m_file));
    EXPECT_EQ(start == Start::k0100, m_cm.Is0100());
  }

  // One random operation and the check after it; false once a check failed.
  bool Step(int step) {
    m_step = step;
    unsigned pick = m_rng() % 100;
    if (pick < 20 || m_model.empty()) {
      AddOne();
    } else if (pick < 34) {
      Rewrite(false);
    } else if (pick < 42) {
      Rewrite(true);
    } else if (pick < 50) {
      RemoveOne();
    } else if (pick < 56) {
      DuplicateOne();
    } else if (pick < 62) {
      RenameOne();
    } else if (pick < 67) {
      LoadLater();
    } else if (pick < 71) {
      RefuseDuplicate();
    } else if (pick < 82) {
      Save();
    } else if (pick < 90) {
      Revert();
    } else {
      Reopen();
    }
    Check();
    return !::testing::Test::HasFailure();
  }

 private:
  std::string Where() const { return "step " + std::to_string(m_step) + " (" + m_last + ")"; }

  Bytes RandomBytes() {
    unsigned r = m_rng() % 100;
    size_t n = r < 5 ? 0 : r < 75 ? m_rng() % 200 : 200 + m_rng() % 3000;
    Bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(m_rng());
    return b;
  }

  Key AnyChunk() {
    auto it = m_model.begin();
    std::advance(it, static_cast<long>(m_rng() % m_model.size()));
    return it->first;
  }

  // An id of `type` unused in the model, as CHUniqueID should answer.
  int ExpectedUnique(uint32_t type, int hint) const {
    if (hint >= 1 && m_model.count({type, static_cast<uint32_t>(hint)}) == 0) return hint;
    uint32_t largest = 0;
    for (const auto& [key, data] : m_model) {
      if (key.first == type) largest = std::max(largest, key.second);
    }
    return static_cast<int>(largest + 1);
  }

  Key FreshKey() {
    uint32_t type = static_cast<uint32_t>(kTypes[m_rng() % 3]);
    int hint = static_cast<int>(m_rng() % 70);
    int id = m_cm.CHUniqueID(static_cast<int>(type), hint);
    EXPECT_EQ(ExpectedUnique(type, hint), id) << Where() << ": CHUniqueID(" << type << ", " << hint << ")";
    return {type, static_cast<uint32_t>(id)};
  }

  static void Fill(TMemory* handle, const Bytes& data) {
    ASSERT_EQ(0, handle->SetSize(data.size()));
    if (!data.empty()) std::memcpy(handle->MemPtr(), data.data(), data.size());
  }

  TMemory* Get(Key key) {
    TMemory* handle = nullptr;
    EXPECT_EQ(0, m_cm.CHGetChunk(static_cast<int>(key.first), static_cast<int>(key.second), &handle, 1)) << Where();
    return handle;
  }

  void AddOne() {
    Key key = FreshKey();
    m_last = "add " + std::to_string(key.first) + "/" + std::to_string(key.second);
    if (m_model.count(key) != 0) return;
    Bytes data = RandomBytes();
    auto* handle = new TMemory;
    Fill(handle, data);
    int status = m_cm.CHAddChunk(handle, static_cast<int>(key.first), static_cast<int>(key.second));
    EXPECT_EQ(0, status) << Where();
    if (status != 0) {
      delete handle;
      return;
    }
    m_model[key] = data;
    m_dirty.insert(key);
  }

  // A new size and new bytes, marked changed or stored at once.
  void Rewrite(bool storeNow) {
    Key key = AnyChunk();
    m_last = std::string(storeNow ? "store " : "change ") + std::to_string(key.first) + "/" + std::to_string(key.second);
    TMemory* handle = Get(key);
    if (handle == nullptr) return;
    Bytes data = RandomBytes();
    Fill(handle, data);
    if (storeNow) {
      EXPECT_EQ(0, m_cm.CHStoreChunk(handle)) << Where();
      m_dirty.erase(key);  // written, though not yet in a saved map
      m_stored.insert(key);
    } else {
      EXPECT_EQ(0, m_cm.CHChangedChunk(handle)) << Where();
      m_dirty.insert(key);
    }
    m_model[key] = data;
  }

  void RemoveOne() {
    Key key = AnyChunk();
    m_last = "remove " + std::to_string(key.first) + "/" + std::to_string(key.second);
    TMemory* handle = Get(key);
    if (handle == nullptr) return;
    int status = m_cm.CHRemoveChunk(handle);
    EXPECT_EQ(0, status) << Where();
    if (status == 0) delete handle;
    m_model.erase(key);
    m_dirty.erase(key);
    m_stored.erase(key);
  }

  void DuplicateOne() {
    Key from = AnyChunk();
    Key to = {from.first, static_cast<uint32_t>(ExpectedUnique(from.first, static_cast<int>(m_rng() % 70)))};
    m_last = "duplicate " + std::to_string(from.first) + "/" + std::to_string(from.second) + " as " +
             std::to_string(to.second);
    EXPECT_EQ(0, m_cm.CHDuplicate(static_cast<int>(from.first), static_cast<int>(from.second),
                                  static_cast<int>(to.second)))
        << Where();
    m_model[to] = m_model[from];
    m_dirty.insert(to);
  }

  void RenameOne() {
    Key from = AnyChunk();
    Key to = FreshKey();
    m_last = "rename " + std::to_string(from.first) + "/" + std::to_string(from.second) + " to " +
             std::to_string(to.first) + "/" + std::to_string(to.second);
    if (m_model.count(to) != 0) return;
    TMemory* handle = Get(from);
    if (handle == nullptr) return;
    EXPECT_EQ(0, m_cm.CHSetInfo(handle, static_cast<int>(to.first), static_cast<int>(to.second))) << Where();
    int type = 0, id = 0;
    EXPECT_EQ(0, m_cm.CHGetInfo(handle, &type, &id));
    EXPECT_EQ(to, Key(static_cast<uint32_t>(type), static_cast<uint32_t>(id))) << Where();
    m_model[to] = m_model[from];
    m_model.erase(from);
    m_dirty.erase(from);
    m_stored.erase(from);
    m_dirty.insert(to);
  }

  // Adding, duplicating or renaming onto a type and id in use is refused
  // with -646 and changes nothing; a refused handle stays the caller's.
  void RefuseDuplicate() {
    Key taken = AnyChunk();
    Key other = AnyChunk();
    m_last = "refused onto " + std::to_string(taken.first) + "/" + std::to_string(taken.second);
    switch (m_rng() % 3) {
      case 0: {
        auto* handle = new TMemory;
        Fill(handle, Bytes(3, 7));
        EXPECT_EQ(kErrCHDuplicate, m_cm.CHAddChunk(handle, static_cast<int>(taken.first), static_cast<int>(taken.second)))
            << Where();
        delete handle;
        break;
      }
      case 1:
        if (other.first != taken.first) break;
        EXPECT_EQ(kErrCHDuplicate, m_cm.CHDuplicate(static_cast<int>(other.first), static_cast<int>(other.second),
                                                    static_cast<int>(taken.second)))
            << Where();
        break;
      default: {
        if (other == taken) break;
        TMemory* handle = Get(other);
        if (handle == nullptr) break;
        EXPECT_EQ(kErrCHDuplicate, m_cm.CHSetInfo(handle, static_cast<int>(taken.first), static_cast<int>(taken.second)))
            << Where();
        int type = 0, id = 0;
        EXPECT_EQ(0, m_cm.CHGetInfo(handle, &type, &id));
        EXPECT_EQ(other, Key(static_cast<uint32_t>(type), static_cast<uint32_t>(id))) << Where();
        break;
      }
    }
  }

  // An empty handle first, filled from the file by CHLoadChunk.
  void LoadLater() {
    Key key = AnyChunk();
    m_last = "load later " + std::to_string(key.first) + "/" + std::to_string(key.second);
    if (m_dirty.count(key) != 0) return;  // only chunks that are not loaded
    TMemory* handle = nullptr;
    ASSERT_EQ(0, m_cm.CHGetChunk(static_cast<int>(key.first), static_cast<int>(key.second), &handle, 0)) << Where();
    EXPECT_EQ(0u, handle->GetSize()) << Where();
    ASSERT_EQ(0, m_cm.CHLoadChunk(handle)) << Where();
    EXPECT_TRUE(SameBytes(m_model[key], HandleBytes(handle))) << Where();
  }

  void Save() {
    bool durable = m_rng() % 4 == 0;
    m_last = durable ? "save" : "save without sync";
    ASSERT_EQ(0, m_cm.CHSave(durable ? 0 : kCHSaveNoSync)) << Where();
    EXPECT_FALSE(m_cm.IsDirty()) << Where();
    m_saved = m_model;
    m_dirty.clear();
    m_stored.clear();
    // A second reader of the file sees what was saved.
    TFile file;
    ASSERT_EQ(0, file.Open(FileLocOf(m_path), kFileOpenRead));
    ChunkManager reader;
    ASSERT_EQ(0, reader.CHOpenRef(&file)) << Where();
    EXPECT_EQ(0, reader.CHVerify()) << Where();
    ChunkState got;
    std::string why;
    ASSERT_EQ(0, ReadChunkState(&reader, &got, &why)) << Where() << ": " << why;
    EXPECT_TRUE(SameChunks(m_saved, got)) << Where() << ": the file does not hold what was saved";
  }

  void Revert() {
    m_last = "revert";
    ASSERT_EQ(0, m_cm.CHRevert()) << Where();
    m_model = m_saved;
    m_dirty.clear();
    m_stored.clear();
  }

  void Reopen() {
    m_last = "close and reopen";
    ASSERT_EQ(0, m_cm.CHClose()) << Where();
    ASSERT_EQ(0, m_cm.CHOpenRef(&m_file)) << Where();
    m_model = m_saved;
    m_dirty.clear();
    m_stored.clear();
  }

  void Check() {
    // A 0100 file stays 0100 through every save.
    ASSERT_EQ(m_start == Start::k0100, m_cm.Is0100()) << Where();
    std::map<uint32_t, std::vector<uint32_t>> groups;
    for (const auto& [key, data] : m_model) groups[key.first].push_back(key.second);
    // The map's own group (its one chunk, id 0) once a save has written it.
    if (m_cm.CHFindChunk(static_cast<int>(kCHMapType), 0) != 0) groups[kCHMapType].push_back(0);
    ASSERT_EQ(static_cast<int>(groups.size()), m_cm.CHCountTypes()) << Where();
    int index = 1;
    for (const auto& [type, ids] : groups) {
      ASSERT_EQ(static_cast<int>(type), m_cm.CHEnumType(index++)) << Where();
      ASSERT_EQ(static_cast<int>(ids.size()), m_cm.CHCountChunks(static_cast<int>(type))) << Where();
      for (size_t i = 0; i < ids.size(); ++i) {
        ASSERT_EQ(static_cast<int>(ids[i]), m_cm.CHEnumChunk(static_cast<int>(type), static_cast<int>(i + 1)))
            << Where() << " type " << type;
      }
    }
    EXPECT_EQ(0, m_cm.CHEnumType(index)) << Where();
    EXPECT_EQ(0, m_cm.CHVerify()) << Where();

    // Every chunk's size and bytes; the slots of chunks on disk are disjoint.
    std::vector<std::pair<int64_t, int64_t>> slots;
    for (const auto& [key, data] : m_model) {
      int type = static_cast<int>(key.first), id = static_cast<int>(key.second);
      EXPECT_NE(0, m_cm.CHFindChunk(type, id)) << Where();
      if (m_model.count({key.first, key.second + 1000}) == 0) {
        EXPECT_EQ(0, m_cm.CHFindChunk(type, id + 1000)) << Where();
      }
      bool pending = m_dirty.count(key) != 0 || m_stored.count(key) != 0;
      if (!pending) {
        EXPECT_EQ(static_cast<int64_t>(data.size()), m_cm.CHChunkSize(type, id)) << Where();
        int64_t address = 0, length = 0;
        EXPECT_EQ(0, m_cm.CHPhysInfo(type, id, &address, &length)) << Where();
        EXPECT_GE(length, static_cast<int64_t>(m_cm.CHGetChunkHdrSize() + data.size())) << Where();
        slots.push_back({address, length});
      } else if (m_dirty.count(key) != 0) {
        int64_t address = 0, length = 0;
        EXPECT_NE(0, m_cm.CHPhysInfo(type, id, &address, &length)) << Where() << ": CHPhysInfo of a changed chunk";
      }
      TMemory* handle = Get(key);
      if (handle == nullptr) continue;
      EXPECT_TRUE(SameBytes(data, HandleBytes(handle))) << Where() << ": bytes of " << type << "/" << id;
      // Chunks without pending changes go back to the file, so the next
      // read comes from there.
      if (m_dirty.count(key) == 0) {
        EXPECT_EQ(0, m_cm.CHDetachChunk(handle)) << Where();
        delete handle;
      }
    }
    std::sort(slots.begin(), slots.end());
    for (size_t i = 0; i < slots.size(); ++i) {
      EXPECT_GE(slots[i].first, static_cast<int64_t>(kCHNewDataStart)) << Where();
      if (i > 0) {
        EXPECT_LE(slots[i - 1].first + slots[i - 1].second, slots[i].first) << Where() << ": slots overlap";
      }
    }
  }

  std::mt19937 m_rng;
  Start m_start;
  TempDir m_dir;
  std::string m_path;
  TFile m_file;
  ChunkManager m_cm;
  ChunkState m_model;
  ChunkState m_saved;
  std::set<Key> m_dirty;   // changed in memory since the last save
  std::set<Key> m_stored;  // written by CHStoreChunk since the last save
  int m_step = 0;
  std::string m_last;
};

void RunSeeds(Start start, std::initializer_list<uint32_t> seeds, int steps) {
  for (uint32_t seed : seeds) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ModelRun run(seed, start);
    for (int step = 0; step < steps; ++step) {
      if (!run.Step(step)) return;
    }
  }
}

TEST(ChunkManagerModel, RandomRunsOnANewContainer) { RunSeeds(Start::kNew, {1, 2, 3, 4, 5}, 500); }

TEST(ChunkManagerModel, RandomRunsOnA0100Container) { RunSeeds(Start::k0100, {11, 12}, 400); }

TEST(ChunkManagerModel, RandomRunsOnABigEndianContainer) { RunSeeds(Start::kBigEndian, {21, 22}, 400); }

}  // namespace

namespace {

// Once saved, a big-endian container is little-endian on disk; revert and
// reopen must read it that way.
TEST(ChunkManagerModel, BigEndianContainerRevertsAfterItsFirstSave) {
  TempDir dir;
  std::string path = dir.path() + "/be.chf";
  WriteFileBytes(path, EmptyContainer(false, true));
  TFile file;
  ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
  ChunkManager cm;
  ASSERT_EQ(0, cm.CHOpenRef(&file));
  ASSERT_TRUE(cm.IsBigEndian());
  auto* handle = new TMemory;
  ASSERT_EQ(0, handle->SetSize(10));
  ASSERT_EQ(0, cm.CHAddChunk(handle, 5, 1));
  ASSERT_EQ(0, cm.CHSave(kCHSaveNoSync));
  EXPECT_EQ(0x2E, ReadFileBytes(path)[0]);
  EXPECT_EQ(0, cm.CHRevert());
  EXPECT_EQ(2, cm.CHCountTypes());  // type 5 and the map's own
  EXPECT_EQ(0, cm.CHVerify());
  ASSERT_EQ(0, cm.CHClose());
  ASSERT_EQ(0, cm.CHOpenRef(&file));
  EXPECT_FALSE(cm.IsBigEndian());
  EXPECT_EQ(1, cm.CHCountChunks(5));
}

}  // namespace

namespace {

// A type whose bytes read the same both ways names no byte order: the
// chunk's other fields must decide it.
TEST(ChunkManagerModel, SymmetricTypeInABigEndianContainer) {
  TempDir dir;
  std::string path = dir.path() + "/be.chf";
  WriteFileBytes(path, EmptyContainer(false, true));
  TFile file;
  ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
  ChunkManager cm;
  ASSERT_EQ(0, cm.CHOpenRef(&file));
  const Bytes data = {1, 2, 3, 4, 5, 6, 7};
  auto* handle = new TMemory;
  ASSERT_EQ(0, handle->SetSize(data.size()));
  std::memcpy(handle->MemPtr(), data.data(), data.size());
  ASSERT_EQ(0, cm.CHAddChunk(handle, 0x41414141, 3));
  ASSERT_EQ(0, cm.CHSave(kCHSaveNoSync));
  ASSERT_EQ(0, cm.CHDetachChunk(handle));
  delete handle;
  TMemory* again = nullptr;
  ASSERT_EQ(0, cm.CHGetChunk(0x41414141, 3, &again, 1));
  EXPECT_TRUE(SameBytes(data, HandleBytes(again)));
}

}  // namespace
