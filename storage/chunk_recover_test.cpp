#include "storage/chunk_recover.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "files/tfileloc.h"
#include "files/tfolderloc.h"
#include "foundation/errors.h"
#include "storage/chunk_format.h"
#include "storage/chunk_manager.h"
#include "tests/chunk_image.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

namespace ci = chunk_image;
using Key = std::pair<uint32_t, uint64_t>;

// A file whose n-th read or n-th write fails.
class TFaultyFile : public TFile {
 public:
  int failRead = -1;
  int failWrite = -1;
  int reads = 0;
  int writes = 0;
  int ReadAt(uint64_t offset, void* buffer, uint32_t* count) override {
    if (reads++ == failRead) {
      *count = 0;
      return kErrNoResources;
    }
    return TFile::ReadAt(offset, buffer, count);
  }
  int WriteAt(uint64_t offset, const void* buffer, uint32_t* count) override {
    if (writes++ == failWrite) {
      *count = 0;
      return kErrNoResources;
    }
    return TFile::WriteAt(offset, buffer, count);
  }
};

// A file that keeps a copy of its contents as they stand when its n-th
// write begins, with the first half of that write in it when `torn`: what
// a crash at that moment would leave.
class TCrashFile : public TFile {
 public:
  int crashAt = -1;
  bool torn = false;
  int writes = 0;
  ci::Bytes snapshot;
  int WriteAt(uint64_t offset, const void* buffer, uint32_t* count) override {
    if (writes++ == crashAt) {
      uint64_t length = 0;
      GetLength(&length);
      snapshot.assign(length, 0);
      uint32_t n = static_cast<uint32_t>(length);
      TFile::ReadAt(0, snapshot.data(), &n);
      if (torn) {
        const auto* bytes = static_cast<const uint8_t*>(buffer);
        uint32_t half = *count / 2;
        if (snapshot.size() < offset + half) snapshot.resize(offset + half, 0);
        std::copy(bytes, bytes + half, snapshot.begin() + static_cast<long>(offset));
      }
    }
    return TFile::WriteAt(offset, buffer, count);
  }
};

// Chunk contents by public type and id, as the manager sees them.
using Contents = std::map<std::pair<int, int>, ci::Bytes>;

TMemory* Memory(const ci::Bytes& bytes) {
  auto* memory = new TMemory;
  memory->SetSize(bytes.size());
  if (!bytes.empty()) std::memcpy(memory->MemPtr(), bytes.data(), bytes.size());
  return memory;
}

Contents ReadAll(ChunkManager* cm) {
  Contents out;
  for (int t = 1; t <= cm->CHCountTypes(); ++t) {
    int type = cm->CHEnumType(t);
    if (static_cast<uint32_t>(type) == kCHMapType) continue;  // the manager's own
    for (int k = 1; k <= cm->CHCountChunks(type); ++k) {
      int id = cm->CHEnumChunk(type, k);
      TMemory* handle = nullptr;
      if (cm->CHGetChunk(type, id, &handle, 1) != 0) {
        ADD_FAILURE() << "can't read " << type << "/" << id;
        continue;
      }
      const auto* bytes = static_cast<const uint8_t*>(handle->MemPtr());
      out[{type, id}] = ci::Bytes(bytes, bytes + handle->GetSize());
    }
  }
  return out;
}

ci::Bytes Fill(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  ci::Bytes out(n);
  for (auto& b : out) b = static_cast<uint8_t>(rng());
  return out;
}

class ChunkRecoverTest : public ::testing::Test {
 protected:
  TFileLoc Loc(const std::string& name) const {
    return TFileLoc(TFolderLoc(TStringFromUTF8(m_dir.path())), TStringFromUTF8(name));
  }
  std::string Path(const std::string& name) const { return m_dir.path() + "/" + name; }

  // Recovers `source` into a new file; the source must come out unchanged.
  int Recover(const ci::Bytes& source, TCHRecoverReport* report, ci::Bytes* result) {
    std::string name = std::to_string(m_files++);
    ci::WriteFile(Path("src" + name), source);
    TFile in;
    TFile out;
    EXPECT_EQ(0, in.Open(Loc("src" + name), kFileOpenRead));
    EXPECT_EQ(0, out.Open(Loc("dst" + name), kFileOpenReadWriteCreate));
    int code = CHRecover(&in, &out, report);
    in.Close();
    out.Close();
    EXPECT_TRUE(ci::ReadFile(Path("src" + name)) == source) << "the source was changed";
    *result = ci::ReadFile(Path("dst" + name));
    return code;
  }

  // ExpectParsedHolds, and the chunk manager opens the result, finds its
  // map sound and reads the unencrypted chunks back unchanged.
  void ExpectHolds(const ci::Bytes& result, const std::vector<ci::Chunk>& want);

  // What the manager reads from `bytes`, after it opened them and found
  // the map sound.
  Contents ManagerView(const ci::Bytes& bytes) {
    std::string name = "cm" + std::to_string(m_files++);
    ci::WriteFile(Path(name), bytes);
    ChunkManager cm;
    TFileLoc loc = Loc(name);
    EXPECT_EQ(0, cm.CHOpen(&loc, kFileOpenRead));
    EXPECT_EQ(0, cm.CHVerify());
    return ReadAll(&cm);
  }

  TempDir m_dir;
  TestHost m_host;
  int m_files = 0;
};

std::map<Key, ci::Chunk> ByKey(const std::vector<ci::Chunk>& chunks) {
  std::map<Key, ci::Chunk> out;
  for (const ci::Chunk& c : chunks) out[{c.type, c.id}] = c;
  return out;
}

// The result is a consistent container holding exactly `want`, every
// stored field and byte as in the source.
void ExpectParsedHolds(const ci::Bytes& result, const std::vector<ci::Chunk>& want) {
  ci::Parsed parsed = ci::Parse(result);
  ASSERT_EQ("", parsed.error);
  EXPECT_EQ(0u, parsed.unsaved);
  EXPECT_FALSE(parsed.bigEndian);
  std::map<Key, ci::Chunk> expected = ByKey(want);
  ASSERT_EQ(expected.size(), parsed.chunks.size());
  for (const ci::Chunk& got : parsed.chunks) {
    auto it = expected.find({got.type, got.id});
    ASSERT_NE(it, expected.end()) << got.type << "/" << got.id;
    EXPECT_EQ(it->second.data, got.data);
    EXPECT_EQ(it->second.generation, got.generation);
    EXPECT_EQ(it->second.extra, got.extra);
    EXPECT_EQ(it->second.flags, got.flags);
    EXPECT_EQ(it->second.checksum, got.checksum);
  }
}

void ChunkRecoverTest::ExpectHolds(const ci::Bytes& result, const std::vector<ci::Chunk>& want) {
  ExpectParsedHolds(result, want);
  std::string name = "held" + std::to_string(m_files++);
  ci::WriteFile(Path(name), result);
  TFile file;
  ASSERT_EQ(0, file.Open(Loc(name), kFileOpenReadWrite));
  ChunkManager cm;
  ASSERT_EQ(0, cm.CHOpenRef(&file));
  EXPECT_EQ(0, cm.CHVerify());
  std::map<uint32_t, int> perType;
  for (const ci::Chunk& c : want) perType[c.type]++;
  // The map's own group counts too; an empty result has no map.
  int mapGroup = want.empty() ? 0 : 1;
  EXPECT_EQ(mapGroup, cm.CHCountChunks(static_cast<int>(kCHMapType)));
  EXPECT_EQ(static_cast<int>(perType.size()) + mapGroup, cm.CHCountTypes());
  for (auto [type, count] : perType) EXPECT_EQ(count, cm.CHCountChunks(static_cast<int>(type)));
  for (const ci::Chunk& c : want) {
    if (c.id > 0x7FFFFFFF || (c.flags & kCHFlagEncrypted) != 0) continue;
    TMemory* handle = nullptr;
    ASSERT_EQ(0, cm.CHGetChunk(static_cast<int>(c.type), static_cast<int>(c.id), &handle, 1));
    const auto* bytes = static_cast<const uint8_t*>(handle->MemPtr());
    EXPECT_TRUE(ci::Bytes(bytes, bytes + handle->GetSize()) == c.data);
  }
  cm.CHClose();
}

std::map<Key, int> Reasons(const std::vector<CHRecoverItemSpec>& items) {
  std::map<Key, int> out;
  for (const CHRecoverItemSpec& item : items) out[{item.type, item.id}] = item.reason;
  return out;
}

// The chunks a scan can find without a map: all but those with checksum 1,
// the checksum of empty or zero data.
std::vector<ci::Chunk> Provable(const std::vector<ci::Chunk>& chunks) {
  std::vector<ci::Chunk> out;
  for (const ci::Chunk& c : chunks) {
    if (c.checksum != 1) out.push_back(c);
  }
  return out;
}

uint64_t Highest(const std::vector<ci::Chunk>& chunks, uint64_t map) {
  uint64_t high = map;
  for (const ci::Chunk& c : chunks) high = std::max(high, c.generation);
  return high;
}

// Intact containers of both generations and byte orders come back whole,
// every chunk kept from the map, with a map one generation up; a set unsaved
// marker changes nothing; the log has a line per decision and the summary.
TEST_F(ChunkRecoverTest, IntactContainersComeBackWhole) {
  int round = 0;
  for (bool is0100 : {false, true}) {
    for (bool big : {false, true}) {
      for (bool unsaved : {false, true}) {
        std::vector<ci::Chunk> chunks = ci::RandomChunks(100 + round, 12 + round);
        ci::Options options{is0100, big, 6, big ? 0 : kCHEncryptionMarker, unsaved};
        ci::Bytes source = ci::Build(&chunks, options);
        m_host.Clear();
        TCHRecoverReport report;
        ci::Bytes result;
        ASSERT_EQ(0, Recover(source, &report, &result));
        ExpectHolds(result, chunks);
        ci::Parsed parsed = ci::Parse(result);
        EXPECT_EQ(is0100, parsed.is0100);
        EXPECT_EQ(options.encryption, parsed.encryption);
        EXPECT_EQ(Highest(chunks, 6) + 1, parsed.mapGeneration);
        EXPECT_TRUE(report.headerUsable && report.mapFound);
        EXPECT_EQ(big, report.bigEndian);
        EXPECT_EQ(6u, report.mapGeneration);
        EXPECT_TRUE(report.dropped.empty());
        ASSERT_EQ(chunks.size(), report.kept.size());
        std::map<Key, ci::Chunk> byKey = ByKey(chunks);
        for (const CHRecoverItemSpec& item : report.kept) {
          EXPECT_EQ(kCHRecoverFromMap, item.reason);
          EXPECT_EQ((byKey[{item.type, item.id}].address), static_cast<uint64_t>(item.address));
        }
        auto summary = m_host.LinesWithFormat("CHRecover: kept %~d chunks, dropped %~d");
        ASSERT_EQ(1u, summary.size());
        EXPECT_EQ(517u, summary[0].selector);
        EXPECT_EQ(chunks.size(), summary[0].args[0]);
        int decisions = 0;
        for (const LoggedLine& line : m_host.Lines()) {
          if (line.format.rfind("CHRecover: kept type", 0) == 0) ++decisions;
        }
        EXPECT_EQ(static_cast<int>(chunks.size()), decisions);
        ++round;
      }
    }
  }
}

// Flipped data bytes drop exactly the chunks hit, for their checksum; all
// the others are kept byte for byte. Chunks larger than the read window are
// summed in pieces, so one of those is hit near its end.
TEST_F(ChunkRecoverTest, DamagedDataDropsOnlyTheChunkHit) {
  std::mt19937 rng(3);
  for (int round = 0; round < 12; ++round) {
    std::vector<ci::Chunk> chunks = ci::RandomChunks(200 + round, 20);
    if (round == 0) {
      chunks[3].data.assign(1536 * 1024 + 3, 0);
      for (auto& b : chunks[3].data) b = static_cast<uint8_t>(rng());
      chunks[3].flags = 0;
      chunks[5].data.assign(1200 * 1024, 0x33);
      chunks[5].flags = 1;
      chunks[3].checksum = chunks[5].checksum = 0;
    }
    ci::Bytes source = ci::Build(&chunks, ci::Options{round % 2 == 1, false, 9, 0, false});
    std::vector<ci::Chunk> survivors;
    std::map<Key, int> hit;
    for (size_t i = 0; i < chunks.size(); ++i) {
      const ci::Chunk& c = chunks[i];
      bool damage = !c.data.empty() && (rng() % 4 == 0 || (round == 0 && i == 3));
      if (!damage) {
        survivors.push_back(c);
        continue;
      }
      size_t at = round == 0 && i == 3 ? c.data.size() - 2 : rng() % c.data.size();
      source[c.address + ci::HeaderSize(round % 2 == 1) + at] ^= static_cast<uint8_t>(1 + rng() % 255);
      hit[{c.type, c.id}] = kCHRecoverBadChecksum;
    }
    TCHRecoverReport report;
    ci::Bytes result;
    ASSERT_EQ(0, Recover(source, &report, &result));
    ExpectHolds(result, survivors);
    EXPECT_EQ(hit, Reasons(report.dropped));
  }
}

// With the header or the map destroyed the chunks are found by the scan:
// through the old map when only the header is gone (both generations are
// tried), each on its own when the map is gone too.
TEST_F(ChunkRecoverTest, LostHeaderOrMapFallsBackToTheScan) {
  std::mt19937 rng(5);
  for (bool is0100 : {false, true}) {
    for (bool big : {false, true}) {
      std::vector<ci::Chunk> chunks = ci::RandomChunks(is0100 * 2 + big, 25);
      ci::Bytes intact = ci::Build(&chunks, ci::Options{is0100, big, 4, 0, false});
      uint64_t mapAddress = ci::Get(intact, 8, 8, big);

      ci::Bytes noHeader = intact;
      for (size_t i = 0; i < kCHFileHeaderSize; ++i) noHeader[i] = static_cast<uint8_t>(rng());
      TCHRecoverReport report;
      ci::Bytes result;
      ASSERT_EQ(0, Recover(noHeader, &report, &result));
      ExpectHolds(result, chunks);
      EXPECT_FALSE(report.headerUsable);
      EXPECT_TRUE(report.mapFound);
      EXPECT_EQ(mapAddress, static_cast<uint64_t>(report.mapAddress));
      EXPECT_EQ(is0100, ci::Parse(result).is0100);

      ci::Bytes noMap = intact;
      noMap[mapAddress + ci::HeaderSize(is0100) + 20] ^= 0x40;
      ASSERT_EQ(0, Recover(noMap, &report, &result));
      ExpectHolds(result, Provable(chunks));
      EXPECT_TRUE(report.headerUsable);
      EXPECT_FALSE(report.mapFound);
      for (const CHRecoverItemSpec& item : report.kept) EXPECT_EQ(kCHRecoverScanned, item.reason);

      // The map intact but the header pointing elsewhere: the scan finds it.
      ci::Bytes moved = intact;
      ci::Put(&moved, 8, 600, 8, big);
      ASSERT_EQ(0, Recover(moved, &report, &result));
      ExpectHolds(result, chunks);
      EXPECT_EQ(mapAddress, static_cast<uint64_t>(report.mapAddress));
    }
  }
}

// Copies written after the map: newer generations replace the map's copy
// (the newest wins, then the later one), new chunks join, copies no newer
// than the map are stale. A truncated newer copy is simply not there.
TEST_F(ChunkRecoverTest, CopiesAfterTheMapByGeneration) {
  std::vector<ci::Chunk> chunks = ci::RandomChunks(77, 10, 200, 5);
  ci::Bytes source = ci::Build(&chunks, ci::Options{false, false, 5, 0, true});
  std::vector<ci::Chunk> want = chunks;
  std::map<Key, int> dropped;
  auto copyOf = [&](size_t index, uint64_t generation, uint8_t fill) {
    ci::Chunk c = chunks[index];
    c.generation = generation;
    c.data.assign(30 + fill, fill);
    c.flags = 0;
    c.checksum = 0;
    ci::AppendChunk(&source, &c, false);
    return c;
  };
  want[0] = copyOf(0, 6, 1);                       // newer: replaces the map's
  dropped[{chunks[0].type, chunks[0].id}] = kCHRecoverSuperseded;
  want[1] = copyOf(1, 8, 2);                       // the newest of two
  copyOf(1, 7, 3);
  copyOf(2, 6, 4);                                 // equal generations:
  want[2] = copyOf(2, 6, 5);                       // the later wins
  copyOf(3, 5, 6);                                 // not newer than the map
  dropped[{chunks[3].type, chunks[3].id}] = kCHRecoverStale;
  ci::Chunk fresh;
  fresh.type = 0x12345678;
  fresh.id = 99;
  fresh.generation = 6;
  fresh.data.assign(17, 0xAB);
  ci::AppendChunk(&source, &fresh, false);
  want.push_back(fresh);

  TCHRecoverReport report;
  ci::Bytes result;
  ASSERT_EQ(0, Recover(source, &report, &result));
  ExpectHolds(result, want);
  EXPECT_EQ(9u, ci::Parse(result).mapGeneration);
  std::map<Key, int> kept = Reasons(report.kept);
  for (size_t i : {0, 1, 2}) EXPECT_EQ(kCHRecoverNewerCopy, (kept[{chunks[i].type, chunks[i].id}]));
  EXPECT_EQ(kCHRecoverNewerCopy, (kept[{fresh.type, fresh.id}]));
  EXPECT_EQ(kCHRecoverFromMap, (kept[{chunks[4].type, chunks[4].id}]));
  // Two superseded copies of chunk 1 and chunk 2 (the map's and one scanned).
  int superseded = 0;
  for (const CHRecoverItemSpec& item : report.dropped) superseded += item.reason == kCHRecoverSuperseded;
  EXPECT_EQ(5, superseded);
  for (auto [key, reason] : dropped) {
    bool found = false;
    for (const CHRecoverItemSpec& item : report.dropped) found |= item.type == key.first && item.id == key.second &&
                                                                 item.reason == reason;
    EXPECT_TRUE(found) << key.first << "/" << key.second;
  }

  // The last copy cut short: the fresh chunk is lost, the rest stands.
  source.resize(source.size() - 5);
  ASSERT_EQ(0, Recover(source, &report, &result));
  want.pop_back();
  ExpectHolds(result, want);
}

// An interrupted save that wrote its map but not the header: the later map
// is the base, so a chunk it deleted stays deleted and the chunks it moved
// are taken from their new places.
TEST_F(ChunkRecoverTest, LaterMapOfAnInterruptedSaveIsTheBase) {
  std::vector<ci::Chunk> chunks = ci::RandomChunks(31, 8, 100, 3);
  ci::Bytes source = ci::Build(&chunks, ci::Options{false, false, 3, 0, false});
  std::vector<ci::Chunk> next(chunks.begin() + 1, chunks.end());  // chunk 0 deleted
  next[0].generation = 4;
  next[0].data.assign(50, 0xEE);
  next[0].checksum = 0;
  ci::AppendChunk(&source, &next[0], false);
  ci::Chunk map;
  map.type = kCHMapType;
  map.generation = 4;
  map.data = ci::EncodeEntries(ci::OrganisedMap(next, false, 0, 0), false, false);
  ci::AppendChunk(&source, &map, false);
  ci::Put(&source, 32, kCHUnsavedMarker, 4);

  TCHRecoverReport report;
  ci::Bytes result;
  ASSERT_EQ(0, Recover(source, &report, &result));
  ExpectHolds(result, next);
  EXPECT_EQ(map.address, static_cast<uint64_t>(report.mapAddress));
  EXPECT_EQ(4u, report.mapGeneration);
  std::map<Key, int> dropped = Reasons(report.dropped);
  EXPECT_EQ(kCHRecoverStale, (dropped[{chunks[0].type, chunks[0].id}]));
  EXPECT_EQ(kCHRecoverStale, (dropped[{chunks[1].type, chunks[1].id}]));  // its old copy
}

// Map entries that lead nowhere: past the file's end, or to another chunk.
// Each is dropped with its reason; the chunk's real copy, which that map
// does not place, counts as stale.
TEST_F(ChunkRecoverTest, MapEntriesThatLeadNowhere) {
  std::vector<ci::Chunk> chunks = ci::RandomChunks(41, 6, 100, 2);
  ci::Bytes source = ci::Build(&chunks, ci::Options{false, false, 2, 0, false});
  uint64_t mapAddress = ci::Get(source, 8, 8);
  uint64_t mapLength = ci::Get(source, 16, 8);
  std::vector<ci::Chunk> moved = chunks;
  moved[0].address = source.size() + 64;
  moved[1].address = chunks[2].address;
  ci::Bytes entries = ci::EncodeEntries(ci::OrganisedMap(moved, false, mapAddress, mapLength), false, false);
  std::copy(entries.begin(), entries.end(), source.begin() + static_cast<long>(mapAddress + 64));
  ci::Put(&source, mapAddress + 48, ci::Checksum(entries.data(), entries.size()), 4);

  TCHRecoverReport report;
  ci::Bytes result;
  ASSERT_EQ(0, Recover(source, &report, &result));
  ExpectHolds(result, std::vector<ci::Chunk>(chunks.begin() + 2, chunks.end()));
  std::multimap<Key, int> dropped;
  for (const CHRecoverItemSpec& item : report.dropped) dropped.emplace(Key(item.type, item.id), item.reason);
  auto reasons = [&](const ci::Chunk& c) {
    std::vector<int> out;
    auto [a, b] = dropped.equal_range({c.type, c.id});
    for (auto it = a; it != b; ++it) out.push_back(it->second);
    std::sort(out.begin(), out.end());
    return out;
  };
  EXPECT_EQ((std::vector<int>{kCHRecoverOutOfFile, kCHRecoverStale}), reasons(chunks[0]));
  EXPECT_EQ((std::vector<int>{kCHRecoverWrongChunk, kCHRecoverStale}), reasons(chunks[1]));
}

// Cut anywhere, a container recovers to every chunk that lies wholly before
// the cut (that a scan can prove, once the map is cut), and nothing else; a
// cut inside the header leaves nothing to find.
TEST_F(ChunkRecoverTest, TruncatedAnywhere) {
  std::vector<ci::Chunk> chunks = ci::RandomChunks(9, 15, 120);
  ci::Bytes intact = ci::Build(&chunks, ci::Options{});
  for (size_t cut = 0; cut < intact.size(); cut += cut < 600 ? 37 : 53) {
    ci::Bytes source(intact.begin(), intact.begin() + static_cast<long>(cut));
    TCHRecoverReport report;
    ci::Bytes result;
    int code = Recover(source, &report, &result);
    if (cut < kCHFileHeaderSize) {
      EXPECT_EQ(kErrCHInvalid, code);
      EXPECT_TRUE(result.empty());
      continue;
    }
    ASSERT_EQ(0, code) << cut;
    bool mapWhole = ci::Get(intact, 8, 8) + ci::Get(intact, 16, 8) <= cut;
    std::vector<ci::Chunk> whole;
    for (const ci::Chunk& c : mapWhole ? chunks : Provable(chunks)) {
      if (c.address + 64 + c.data.size() <= cut) whole.push_back(c);
    }
    ExpectHolds(result, whole);
  }
}

// Garbage of every kind returns a status and leaves a consistent container
// or nothing: random bytes, zeros, a valid header over random bytes, and
// plausible chunk headers whose lengths run past the file.
TEST_F(ChunkRecoverTest, GarbageNeverCrashes) {
  std::mt19937 rng(99);
  std::vector<ci::Chunk> none;
  ci::Bytes header = ci::Build(&none, ci::Options{});
  for (size_t size : {0, 1, 111, 112, 113, 511, 512, 513, 575, 576, 4096, 100003}) {
    for (int kind = 0; kind < 4; ++kind) {
      ci::Bytes source(size, 0);
      if (kind != 1) {
        for (auto& b : source) b = static_cast<uint8_t>(rng());
      }
      if (kind >= 2 && size >= 112) std::copy(header.begin(), header.begin() + 112, source.begin());
      if (kind == 3) {
        // Headers with zero reserved words and wild lengths, every 4 bytes.
        for (size_t at = 512; at + 64 <= size; at += 4) {
          ci::Bytes h(64, 0);
          ci::Put(&h, 0, rng(), 4);
          ci::Put(&h, 16, rng() % 3 == 0 ? ~uint64_t{0} - rng() % 100 : size - at - 64 + rng() % 3, 8);
          ci::Put(&h, 48, rng() | 1, 4);
          if (rng() % 2 == 0) ci::Put(&h, 36, 1, 4);
          std::copy(h.begin(), h.end(), source.begin() + static_cast<long>(at));
          at += rng() % 64;
          at &= ~size_t{3};
        }
      }
      TCHRecoverReport report;
      ci::Bytes result;
      int code = Recover(source, &report, &result);
      if (code == 0) {
        EXPECT_EQ("", ci::Parse(result).error) << size << "/" << kind;
      } else {
        EXPECT_EQ(kErrCHInvalid, code) << size << "/" << kind;
        EXPECT_TRUE(result.empty());
      }
    }
  }
}

// Random damage anywhere (headers and map included): whatever is kept is
// the data of a chunk of the original at the same address, and recovering
// the result again keeps everything with the generation one up.
TEST_F(ChunkRecoverTest, RandomDamageKeepsOnlyTrueData) {
  std::mt19937 rng(123);
  for (int round = 0; round < 40; ++round) {
    std::vector<ci::Chunk> chunks = ci::RandomChunks(300 + round, 10 + round % 7, 150);
    ci::Bytes source = ci::Build(&chunks, ci::Options{round % 3 == 0, round % 4 == 0, 7, 0, false});
    for (int flips = 1 + rng() % 6; flips > 0; --flips) source[rng() % source.size()] ^= 1 << (rng() % 8);
    TCHRecoverReport report;
    ci::Bytes result;
    ASSERT_EQ(0, Recover(source, &report, &result));
    ci::Parsed parsed = ci::Parse(result);
    ASSERT_EQ("", parsed.error);
    std::map<uint64_t, const ci::Chunk*> byAddress;
    for (const ci::Chunk& c : chunks) byAddress[c.address] = &c;
    ASSERT_EQ(report.kept.size(), parsed.chunks.size());
    for (const CHRecoverItemSpec& item : report.kept) {
      auto original = byAddress.find(static_cast<uint64_t>(item.address));
      ASSERT_NE(original, byAddress.end());
      const ci::Chunk* c = nullptr;
      for (const ci::Chunk& p : parsed.chunks) {
        if (p.type == item.type && p.id == item.id) c = &p;
      }
      ASSERT_NE(nullptr, c);
      EXPECT_EQ(original->second->data, c->data);
    }

    TCHRecoverReport again;
    ci::Bytes second;
    ASSERT_EQ(0, Recover(result, &again, &second));
    ExpectHolds(second, parsed.chunks);
    EXPECT_TRUE(again.dropped.empty());
    // An empty result has no map to carry its generation.
    if (!parsed.chunks.empty()) {
      EXPECT_EQ(report.newGeneration + 1, again.newGeneration);
    }
  }
}

// Encrypted chunks keep the marker even when the header that carried it is
// lost; refused arguments, and every failing read of the source and write
// of the target, return their codes.
TEST_F(ChunkRecoverTest, MarkerArgumentsAndFailures) {
  std::vector<ci::Chunk> chunks = ci::RandomChunks(55, 30);
  chunks[0].flags = 1;
  chunks[0].checksum = 0;
  ci::Bytes source = ci::Build(&chunks, ci::Options{false, false, 3, kCHEncryptionMarker, false});
  std::fill(source.begin(), source.begin() + 112, 0);
  TCHRecoverReport report;
  ci::Bytes result;
  ASSERT_EQ(0, Recover(source, &report, &result));
  EXPECT_EQ(kCHEncryptionMarker, ci::Parse(result).encryption);

  ci::WriteFile(Path("src"), source);
  ci::WriteFile(Path("full"), ci::Bytes(3, 1));
  TFile in;
  TFile full;
  ASSERT_EQ(0, in.Open(Loc("src"), kFileOpenRead));
  ASSERT_EQ(0, full.Open(Loc("full"), kFileOpenReadWrite));
  EXPECT_EQ(kErrBadParameter, CHRecover(&in, &full, nullptr));
  EXPECT_EQ(kErrBadParameter, CHRecover(&in, &in, nullptr));
  EXPECT_EQ(kErrBadParameter, CHRecover(nullptr, &full, nullptr));
  EXPECT_EQ(kErrBadParameter, CHRecover(&in, &in, &report));
  EXPECT_TRUE(ci::ReadFile(Path("full")) == ci::Bytes(3, 1));

  for (int n = 0;; ++n) {
    TFaultyFile failing;
    TFile out;
    ASSERT_EQ(0, failing.Open(Loc("src"), kFileOpenRead));
    std::string name = "out" + std::to_string(n);
    ASSERT_EQ(0, out.Open(Loc(name), kFileOpenReadWriteCreate));
    failing.failRead = n;
    int code = CHRecover(&failing, &out, &report);
    if (failing.reads <= n) {
      EXPECT_EQ(0, code);
      break;
    }
    EXPECT_EQ(kErrNoResources, code) << n;
    ASSERT_LT(n, 1000);
  }
  for (int n = 0;; ++n) {
    TFaultyFile out;
    std::string name = "failing" + std::to_string(n);
    ASSERT_EQ(0, out.Open(Loc(name), kFileOpenReadWriteCreate));
    out.failWrite = n;
    int code = CHRecover(&in, &out, &report);
    if (out.writes <= n) {
      EXPECT_EQ(0, code);
      break;
    }
    EXPECT_EQ(kErrNoResources, code) << n;
    ASSERT_LT(n, 1000);
  }
}

// Containers the manager wrote over several saves (chunks changed, removed
// and added, a large one among them, old copies left in free space) recover
// to what the manager last saved; the result takes further saves.
TEST_F(ChunkRecoverTest, ManagerContainersRecoverToTheLastSave) {
  TFileLoc loc = Loc("managed");
  Contents model;
  {
    ChunkManager cm;
    ASSERT_EQ(0, cm.CHOpen(&loc, kFileOpenReadWriteCreate));
    cm.CHSetEncryptConfigs(1);
    cm.CHSetConfigPassword(TString(u"secret"));
    std::mt19937 rng(8);
    for (int round = 0; round < 3; ++round) {
      for (int k = 0; k < 12; ++k) {
        int type = 0x41414141 + static_cast<int>(rng() % 3);
        int id = 1 + static_cast<int>(rng() % 10);
        ci::Bytes data = Fill(round == 0 && k == 0 ? 1300 * 1024 : rng() % 900, rng());
        TMemory* handle = nullptr;
        if (cm.CHFindChunk(type, id) == 0) {
          ASSERT_EQ(0, cm.CHAddChunk(Memory(data), type, id));
          model[{type, id}] = data;
        } else if (rng() % 3 == 0) {
          ASSERT_EQ(0, cm.CHGetChunk(type, id, &handle, 1));
          ASSERT_EQ(0, cm.CHRemoveChunk(handle));
          delete handle;
          model.erase({type, id});
        } else {
          ASSERT_EQ(0, cm.CHGetChunk(type, id, &handle, 1));
          handle->SetSize(data.size());
          if (!data.empty()) std::memcpy(handle->MemPtr(), data.data(), data.size());
          ASSERT_EQ(0, cm.CHChangedChunk(handle));
          model[{type, id}] = data;
        }
      }
      ci::Bytes config = Fill(40 + round, round);
      TMemory* handle = nullptr;
      if (cm.CHFindChunk(static_cast<int>(kCHConfigTypeA), 1) != 0) {
        ASSERT_EQ(0, cm.CHGetChunk(static_cast<int>(kCHConfigTypeA), 1, &handle, 1));
        ASSERT_EQ(0, cm.CHRemoveChunk(handle));
        delete handle;
      }
      ASSERT_EQ(0, cm.CHAddChunk(Memory(config), static_cast<int>(kCHConfigTypeA), 1));
      model[{static_cast<int>(kCHConfigTypeA), 1}] = config;
      ASSERT_EQ(0, cm.CHSave(0));
    }
  }
  ci::Bytes source = ci::ReadFile(Path("managed"));
  TCHRecoverReport report;
  ci::Bytes result;
  ASSERT_EQ(0, Recover(source, &report, &result));
  EXPECT_EQ(model.size(), report.kept.size());
  for (const CHRecoverItemSpec& item : report.kept) EXPECT_EQ(kCHRecoverFromMap, item.reason);
  for (const CHRecoverItemSpec& item : report.dropped) EXPECT_EQ(kCHRecoverStale, item.reason);
  EXPECT_EQ(kCHEncryptionMarker, ci::Parse(result).encryption);

  ci::WriteFile(Path("recovered"), result);
  TFileLoc recovered = Loc("recovered");
  ChunkManager cm;
  ASSERT_EQ(0, cm.CHOpen(&recovered, kFileOpenReadWrite));
  cm.CHSetConfigPassword(TString(u"secret"));
  EXPECT_EQ(0, cm.CHVerify());
  EXPECT_TRUE(ReadAll(&cm) == model);
  ci::Bytes more = Fill(333, 4);
  ASSERT_EQ(0, cm.CHAddChunk(Memory(more), 0x41414141, 77));
  model[{0x41414141, 77}] = more;
  ASSERT_EQ(0, cm.CHSave(0));
  EXPECT_EQ(0, cm.CHVerify());
  cm.CHClose();
  ASSERT_EQ(0, cm.CHOpen(&recovered, kFileOpenRead));
  cm.CHSetConfigPassword(TString(u"secret"));
  EXPECT_TRUE(ReadAll(&cm) == model);
}

// A manager save cut short before each of its writes in turn, whole or
// torn halfway (a crash, not an error the manager could answer), leaves a
// file that CHRecover turns into a container the manager accepts, holding
// for every chunk either its saved or its new contents; once the new
// chunks are on disk they win, and once the new map is, the result is the
// new state.
TEST_F(ChunkRecoverTest, ManagerSaveCutShortAtEveryWrite) {
  const int kT = 0x54455354;
  Contents before;
  {
    TFileLoc loc = Loc("base");
    ChunkManager cm;
    ASSERT_EQ(0, cm.CHOpen(&loc, kFileOpenReadWriteCreate));
    for (int id = 1; id <= 8; ++id) {
      before[{kT, id}] = Fill(100 * id, id);
      ASSERT_EQ(0, cm.CHAddChunk(Memory(before[{kT, id}]), kT, id));
    }
    ASSERT_EQ(0, cm.CHSave(0));
  }
  ci::Bytes base = ci::ReadFile(Path("base"));
  Contents after = before;
  after[{kT, 2}] = Fill(50, 20);
  after[{kT, 9}] = Fill(700, 21);
  after.erase({kT, 5});

  int total = -1;
  for (int n = 0; total < 0 || n < 2 * total; ++n) {
    std::string name = "cut" + std::to_string(n);
    ci::WriteFile(Path(name), base);
    TCrashFile file;
    ASSERT_EQ(0, file.Open(Loc(name), kFileOpenReadWrite));
    file.crashAt = total < 0 ? -1 : n / 2;
    file.torn = n % 2 == 1;
    {
      ChunkManager cm;
      ASSERT_EQ(0, cm.CHOpenRef(&file));
      TMemory* handle = nullptr;
      ASSERT_EQ(0, cm.CHGetChunk(kT, 2, &handle, 1));
      handle->SetSize(50);
      std::memcpy(handle->MemPtr(), after[{kT, 2}].data(), 50);
      ASSERT_EQ(0, cm.CHChangedChunk(handle));
      ASSERT_EQ(0, cm.CHAddChunk(Memory(after[{kT, 9}]), kT, 9));
      ASSERT_EQ(0, cm.CHGetChunk(kT, 5, &handle, 1));
      ASSERT_EQ(0, cm.CHRemoveChunk(handle));
      delete handle;
      ASSERT_EQ(0, cm.CHSave(0));
    }
    file.Close();
    if (total < 0) {  // the first pass counts the writes of a whole save
      total = file.writes;
      n = -1;
      continue;
    }
    int at = n / 2;
    TCHRecoverReport report;
    ci::Bytes result;
    ASSERT_EQ(0, Recover(file.snapshot, &report, &result));
    Contents held = ManagerView(result);
    for (int id = 1; id <= 9; ++id) {
      auto h = held.find({kT, id});
      auto b = before.find({kT, id});
      auto a = after.find({kT, id});
      bool asBefore = h == held.end() ? b == before.end() : b != before.end() && h->second == b->second;
      bool asAfter = h == held.end() ? a == after.end() : a != after.end() && h->second == a->second;
      EXPECT_TRUE(asBefore || asAfter) << "write " << at << ", chunk " << id;
    }
    if (at == 0) {
      EXPECT_TRUE(held == before);
    }
    // The last three writes are the map, the header and the marker.
    if (at >= total - 3) {
      EXPECT_TRUE((held[{kT, 2}] == after[{kT, 2}])) << at;
      EXPECT_TRUE((held[{kT, 9}] == after[{kT, 9}])) << at;
    }
    if (at >= total - 2 || (at == total - 3 && file.torn)) {
      // A torn map does not verify; a whole one is the base.
      EXPECT_EQ(at >= total - 2, held == after) << at;
    }
  }
  EXPECT_GE(total, 4);
}

}  // namespace
