// Container files laid byte by byte from the format's tables (both byte
// orders, both generations) and read back through ChunkManager; files the
// manager writes decoded by hand the same way; the open checks in order.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "files/tfile.h"
#include "foundation/errors.h"
#include "storage/chunk_format.h"
#include "storage/chunk_manager.h"
#include "tests/chunk_testing.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

constexpr uint32_t kLowType = 0x41424344;   // "ABCD", sorts before the map's type
constexpr uint32_t kHighType = 0x58595A31;  // "XYZ1", sorts after it
constexpr uint64_t kAllOnes = ~0ull;

// Stores fields in one byte order at explicit offsets.
class ImageWriter {
 public:
  explicit ImageWriter(bool bigEndian) : m_big(bigEndian) {}
  void Put(size_t offset, uint64_t value, int width) {
    if (m_bytes.size() < offset + static_cast<size_t>(width)) m_bytes.resize(offset + static_cast<size_t>(width));
    for (int i = 0; i < width; ++i) {
      int shift = 8 * (m_big ? width - 1 - i : i);
      m_bytes[offset + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> shift);
    }
  }
  void PutBytes(size_t offset, const Bytes& data) {
    if (m_bytes.size() < offset + data.size()) m_bytes.resize(offset + data.size());
    for (size_t i = 0; i < data.size(); ++i) m_bytes[offset + i] = data[i];
  }
  void Grow(size_t size) {
    if (m_bytes.size() < size) m_bytes.resize(size);
  }
  const Bytes& bytes() const { return m_bytes; }

 private:
  bool m_big;
  Bytes m_bytes;
};

struct ImageOptions {
  uint32_t magic = kCHMagic;
  uint16_t oldestReader = kCHVersion0100;
  uint16_t writer = 0;  // 0: the generation's own
  uint32_t unsaved = 0;
  uint32_t mapType = kCHMapType;
  uint32_t lowType = kLowType;  // the type the kLowType chunks are laid under
  int64_t endOfSpaceShift = 0;  // added to the end of space in the header
};

struct LaidEntry {
  uint32_t type;
  uint64_t id;
  int64_t address;
};

struct Image {
  Bytes bytes;
  std::vector<LaidEntry> map;
  std::map<std::pair<uint32_t, uint32_t>, int64_t> addresses;
  std::map<std::pair<uint32_t, uint32_t>, int64_t> slots;
};

Bytes Pattern(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 3));
  return b;
}

// The chunks every laid image holds. (kHighType, 0x10000) is the
// polynomial itself, whose CRC is 0; (kLowType, 7) is all zeros, CRC 0 too.
ChunkState SampleChunks() {
  ChunkState s;
  s[{kLowType, 1}] = Pattern(10, 1);
  s[{kLowType, 2}] = Bytes();
  s[{kLowType, 7}] = Bytes(16, 0);
  s[{kHighType, 3}] = Pattern(33, 90);
  s[{kHighType, 9}] = Pattern(100, 200);
  s[{kHighType, 0x10000}] = Bytes{0x01, 0x04, 0xC1, 0x1D, 0xB7};
  return s;
}

uint64_t Round4(uint64_t n) { return (n + 3) / 4 * 4; }

void PutChunkHeader(ImageWriter* w, size_t at, bool old, uint32_t type, uint64_t id, uint64_t length,
                    uint32_t checksum) {
  const uint64_t generation = 1;
  if (old) {
    w->Put(at + 0, type, 4);
    w->Put(at + 4, id, 8);
    w->Put(at + 12, length, 8);
    w->Put(at + 20, generation, 8);
    w->Put(at + 44, checksum, 4);
    w->Grow(at + 56);
  } else {
    w->Put(at + 0, type, 4);
    w->Put(at + 8, id, 8);
    w->Put(at + 16, length, 8);
    w->Put(at + 24, generation, 8);
    w->Put(at + 48, checksum, 4);
    w->Grow(at + 64);
  }
}

void PutMapEntry(ImageWriter* w, size_t at, bool old, uint32_t type, uint64_t id, uint64_t address, uint64_t slack,
                 uint32_t state) {
  if (old) {
    w->Put(at + 0, type, 4);
    w->Put(at + 4, id, 8);
    w->Put(at + 12, address, 8);
    w->Put(at + 20, slack, 8);
    w->Put(at + 28, state, 4);
    w->Grow(at + 44);
  } else {
    w->Put(at + 0, type, 4);
    w->Put(at + 8, id, 8);
    w->Put(at + 16, address, 8);
    w->Put(at + 24, slack, 8);
    w->Put(at + 32, state, 4);
    w->Grow(at + 48);
  }
}

// The sample chunks in a file of the given byte order and generation: in
// address order (1) (2) free (9) (7) (3) free (0x10000) map, so that
// address order differs from map order.
Image LayImage(bool big, bool old, const ImageOptions& opt = ImageOptions()) {
  const ChunkState chunks = SampleChunks();
  const uint64_t hdr = old ? 56 : 64;
  const uint64_t entrySize = old ? 44 : 48;
  struct Slot {
    bool free;
    std::pair<uint32_t, uint32_t> key;
    uint64_t length;  // free extents
  };
  const std::vector<Slot> order = {
      {false, {kLowType, 1}, 0},       {false, {kLowType, 2}, 0},      {true, {}, 24},
      {false, {kHighType, 9}, 0},      {false, {kLowType, 7}, 0},      {false, {kHighType, 3}, 0},
      {true, {}, 36},                  {false, {kHighType, 0x10000}, 0},
  };
  ImageWriter w(big);
  w.Grow(kCHNewDataStart);
  Image image;
  std::vector<std::pair<uint64_t, uint64_t>> freeExtents;
  uint64_t at = kCHNewDataStart;
  for (const Slot& slot : order) {
    if (slot.free) {
      freeExtents.push_back({at, slot.length});
      w.Grow(at + slot.length);
      at += slot.length;
      continue;
    }
    const Bytes& data = chunks.at(slot.key);
    const uint32_t type = slot.key.first == kLowType ? opt.lowType : slot.key.first;
    PutChunkHeader(&w, at, old, type, slot.key.second, data.size(), StoredChecksum(data));
    w.PutBytes(at + hdr, data);
    image.addresses[slot.key] = static_cast<int64_t>(at);
    image.slots[slot.key] = static_cast<int64_t>(Round4(hdr + data.size()));
    at += Round4(hdr + data.size());
    w.Grow(at);
  }
  const uint64_t mapAddress = at;
  const uint64_t entries = 13;
  const uint64_t mapData = entries * entrySize;
  const uint64_t mapSlot = Round4(hdr + mapData);
  const uint64_t endOfSpace = mapAddress + mapSlot;

  // The map: groups ascending by type, the map's own group among them, the
  // free group last.
  std::vector<std::tuple<uint32_t, uint64_t, uint64_t, uint64_t, uint32_t>> map;  // type id address slack state
  auto chunkEntry = [&](uint32_t type, uint32_t id) {
    uint64_t length = chunks.at({type, id}).size();
    uint64_t slack = Round4(hdr + length) - (hdr + length);
    map.emplace_back(type == kLowType ? opt.lowType : type, id, image.addresses.at({type, id}), slack,
                     kCHStateHasSpace);
  };
  map.emplace_back(opt.lowType, 3, kAllOnes, 0, 0);
  chunkEntry(kLowType, 1);
  chunkEntry(kLowType, 2);
  chunkEntry(kLowType, 7);
  map.emplace_back(kCHMapType, 1, kAllOnes, 0, 0);
  map.emplace_back(kCHMapType, 0, mapAddress, mapSlot - (hdr + mapData), kCHStateHasSpace);
  map.emplace_back(kHighType, 3, kAllOnes, 0, 0);
  chunkEntry(kHighType, 3);
  chunkEntry(kHighType, 9);
  chunkEntry(kHighType, 0x10000);
  map.emplace_back(kCHFreeType, 2, kAllOnes, 0, 0);
  for (auto [start, length] : freeExtents) map.emplace_back(kCHFreeType, length, start, 0, 0);
  EXPECT_EQ(map.size(), entries);

  ImageWriter entriesOnly(big);
  for (size_t i = 0; i < map.size(); ++i) {
    auto [type, id, address, slack, state] = map[i];
    PutMapEntry(&entriesOnly, i * entrySize, old, type, id, address, slack, state);
    image.map.push_back({type, id, static_cast<int64_t>(address)});
  }
  PutChunkHeader(&w, mapAddress, old, opt.mapType, 0, mapData, StoredChecksum(entriesOnly.bytes()));
  w.PutBytes(mapAddress + hdr, entriesOnly.bytes());
  w.Grow(endOfSpace);

  w.Put(0, opt.magic, 4);
  w.Put(4, opt.oldestReader, 2);
  w.Put(6, opt.writer != 0 ? opt.writer : (old ? kCHVersion0100 : kCHVersionCurrent), 2);
  w.Put(8, mapAddress, 8);
  w.Put(16, hdr + mapData, 8);
  w.Put(24, endOfSpace + static_cast<uint64_t>(opt.endOfSpaceShift), 8);
  w.Put(32, opt.unsaved, 4);
  w.Put(36, kCHNewAddressStep, 4);
  w.Put(40, kCHNewDataStart, 8);
  image.bytes = w.bytes();
  return image;
}

// A container file decoded with nothing but the format's tables. Chunk
// headers of a once big-endian file may be in either order; the type they
// must name tells which.
struct HandDecoded {
  uint16_t writer = 0;
  uint64_t mapAddress = 0;
  uint64_t mapLength = 0;
  uint64_t endOfSpace = 0;
  uint64_t dataStart = 0;
  uint32_t unsaved = 0;
  ChunkState chunks;
  std::map<std::pair<uint32_t, uint32_t>, uint32_t> checksums;
};

uint64_t GetBE(const Bytes& b, size_t offset, int width) {
  uint64_t v = 0;
  for (int i = 0; i < width; ++i) v = (v << 8) | b.at(offset + static_cast<size_t>(i));
  return v;
}

::testing::AssertionResult DecodeByHand(const Bytes& file, HandDecoded* out) {
  if (file.size() < 112) return ::testing::AssertionFailure() << "file of " << file.size() << " bytes";
  if (GetLE(file, 0, 4) != kCHMagic) return ::testing::AssertionFailure() << "header not little-endian";
  out->writer = static_cast<uint16_t>(GetLE(file, 6, 2));
  out->mapAddress = GetLE(file, 8, 8);
  out->mapLength = GetLE(file, 16, 8);
  out->endOfSpace = GetLE(file, 24, 8);
  out->unsaved = static_cast<uint32_t>(GetLE(file, 32, 4));
  out->dataStart = GetLE(file, 40, 8);
  const bool old = out->writer == kCHVersion0100;
  const size_t hdr = old ? 56 : 64;
  const size_t entrySize = old ? 44 : 48;
  const size_t typeAt = 0, idAt = old ? 4 : 8, lengthAt = old ? 12 : 16, sumAt = old ? 44 : 48;
  if (out->mapLength == 0) return ::testing::AssertionSuccess();
  if (out->mapLength < hdr || (out->mapLength - hdr) % entrySize != 0)
    return ::testing::AssertionFailure() << "map length " << out->mapLength << " is no whole number of entries";
  if (out->mapAddress + out->mapLength > file.size()) return ::testing::AssertionFailure() << "map past the end";
  // The header of a chunk the manager wrote is little-endian; an old one may not be.
  auto header = [&](size_t at, uint32_t type, uint64_t* id, uint64_t* length, uint32_t* sum) {
    auto get = GetLE(file, at + typeAt, 4) == type ? GetLE : GetBE;
    if (get(file, at + typeAt, 4) != type) return false;
    *id = get(file, at + idAt, 8);
    *length = get(file, at + lengthAt, 8);
    *sum = static_cast<uint32_t>(get(file, at + sumAt, 4));
    return true;
  };
  uint64_t mapId = 0, mapData = 0;
  uint32_t mapSum = 0;
  if (!header(out->mapAddress, kCHMapType, &mapId, &mapData, &mapSum) || mapData != out->mapLength - hdr)
    return ::testing::AssertionFailure() << "map chunk header";
  const size_t entriesAt = out->mapAddress + hdr;
  const Bytes mapBytes(file.begin() + static_cast<long>(entriesAt), file.begin() + static_cast<long>(entriesAt + mapData));
  if (mapSum != StoredChecksum(mapBytes)) return ::testing::AssertionFailure() << "map checksum";
  const size_t count = mapData / entrySize;
  uint32_t groupType = 0;
  uint64_t groupLeft = 0;
  for (size_t i = 0; i < count; ++i) {
    size_t e = entriesAt + i * entrySize;
    uint32_t type = static_cast<uint32_t>(GetLE(file, e, 4));
    uint64_t id = GetLE(file, e + (old ? 4 : 8), 8);
    uint64_t address = GetLE(file, e + (old ? 12 : 16), 8);
    if (address == kAllOnes) {
      if (groupLeft != 0) return ::testing::AssertionFailure() << "group of " << groupType << " short";
      groupType = type;
      groupLeft = id;
      continue;
    }
    if (groupLeft == 0 || type != groupType) return ::testing::AssertionFailure() << "entry " << i << " outside its group";
    --groupLeft;
    if (type == kCHFreeType || type == kCHMapType) continue;
    uint64_t chunkId = 0, length = 0;
    uint32_t sum = 0;
    if (address + hdr > file.size() || !header(address, type, &chunkId, &length, &sum) || chunkId != id)
      return ::testing::AssertionFailure() << "chunk header of " << type << "/" << id << " at " << address;
    if (address + hdr + length > file.size()) return ::testing::AssertionFailure() << "chunk data past the end";
    auto key = std::make_pair(type, static_cast<uint32_t>(id));
    out->chunks[key] = Bytes(file.begin() + static_cast<long>(address + hdr),
                             file.begin() + static_cast<long>(address + hdr + length));
    out->checksums[key] = sum;
  }
  if (groupLeft != 0) return ::testing::AssertionFailure() << "last group short";
  return ::testing::AssertionSuccess();
}

class ChunkImage : public ::testing::Test {
 protected:
  std::string Put(const std::string& name, const Bytes& bytes) {
    std::string path = m_dir.path() + "/" + name;
    WriteFileBytes(path, bytes);
    return path;
  }
  TempDir m_dir;
};

TEST_F(ChunkImage, FourLaidImagesOpenToTheSameChunks) {
  const ChunkState expected = SampleChunks();
  for (bool big : {false, true}) {
    for (bool old : {false, true}) {
      SCOPED_TRACE(std::string(big ? "big-endian " : "little-endian ") + (old ? "0100" : "current"));
      Image image = LayImage(big, old);
      std::string path = Put("laid.chf", image.bytes);
      EXPECT_EQ(big ? 0x43 : 0x2E, image.bytes[0]);
      TFile file;
      ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenRead));
      ChunkManager cm;
      ASSERT_EQ(0, cm.CHOpenRef(&file));
      EXPECT_EQ(big, cm.IsBigEndian());
      EXPECT_EQ(old, cm.Is0100());
      EXPECT_EQ(old ? 56u : 64u, cm.CHGetChunkHdrSize());
      EXPECT_EQ(0, cm.CHVerify());
      // Widened in memory, 0100 entries keep their type, id and address.
      ASSERT_EQ(static_cast<int>(image.map.size()), cm.GetMapCount());
      for (size_t i = 0; i < image.map.size(); ++i) {
        const CHMapEntrySpec& got = cm.GetMapEntries()[i];
        EXPECT_EQ(image.map[i].type, got.type) << i;
        EXPECT_EQ(image.map[i].id, got.id) << i;
        EXPECT_EQ(image.map[i].address, got.address) << i;
      }
      // The map's own group counts like the others; the free group does not.
      EXPECT_EQ(3, cm.CHCountTypes());
      EXPECT_EQ(static_cast<int>(kLowType), cm.CHEnumType(1));
      EXPECT_EQ(static_cast<int>(kCHMapType), cm.CHEnumType(2));
      EXPECT_EQ(static_cast<int>(kHighType), cm.CHEnumType(3));
      EXPECT_EQ(0, cm.CHEnumType(4));
      EXPECT_EQ(1, cm.CHCountChunks(static_cast<int>(kCHMapType)));
      EXPECT_EQ(3, cm.CHCountChunks(static_cast<int>(kHighType)));
      EXPECT_EQ(0x10000, cm.CHEnumChunk(static_cast<int>(kHighType), 3));
      for (const auto& [key, data] : expected) {
        EXPECT_NE(0, cm.CHFindChunk(static_cast<int>(key.first), static_cast<int>(key.second)));
        EXPECT_EQ(static_cast<int64_t>(data.size()), cm.CHChunkSize(static_cast<int>(key.first), static_cast<int>(key.second)));
        int64_t address = 0, length = 0;
        EXPECT_EQ(0, cm.CHPhysInfo(static_cast<int>(key.first), static_cast<int>(key.second), &address, &length));
        EXPECT_EQ(image.addresses.at(key), address);
        EXPECT_EQ(image.slots.at(key), length);
      }
      EXPECT_EQ(0, cm.CHFindChunk(static_cast<int>(kLowType), 3));
      ChunkState got;
      std::string why;
      ASSERT_EQ(0, ReadChunkState(&cm, &got, &why)) << why;
      EXPECT_TRUE(SameChunks(expected, got));
      EXPECT_EQ(0, cm.CHVerify());
      EXPECT_EQ(0, cm.CHClose());
    }
  }
}

// Opens `bytes` and expects the open to be refused with `status` and one
// 517 line of `format`; `detail`, when not 0, is the code the line shows.
void ExpectRefused(const TempDir& dir, const Bytes& bytes, bool writable, int status, const std::string& format,
                   int detail) {
  std::string path = dir.path() + "/refused.chf";
  WriteFileBytes(path, bytes);
  TFile file;
  ASSERT_EQ(0, file.Open(FileLocOf(path), writable ? kFileOpenReadWrite : kFileOpenRead));
  TestHost host;
  ChunkManager cm;
  EXPECT_EQ(status, cm.CHOpenRef(&file));
  EXPECT_FALSE(cm.IsOpen());
  EXPECT_EQ(status, cm.GetOpenStatus());
  std::vector<LoggedLine> lines = host.LinesWithFormat(format);
  ASSERT_EQ(1u, lines.size()) << "no line \"" << format << "\"";
  EXPECT_EQ(517u, lines[0].selector);
  if (detail != 0) {
    ASSERT_FALSE(lines[0].args.empty());
    EXPECT_EQ(detail, static_cast<int>(lines[0].args[0])) << lines[0].text;
  }
  // The refused file is left as it was.
  EXPECT_EQ(bytes, ReadFileBytes(path));
}

TEST_F(ChunkImage, OpenChecksInTheirOrder) {
  const std::string invalid = "chDoOpen: invalid file, %E";
  const std::string unreadable = "chDoOpen: can't read from file, %E";
  const std::string unsaved = "chDoOpen: file was not fully saved";
  const std::string badMap = "chReadMap: bad map";
  {
    SCOPED_TRACE("empty read-only file");
    ExpectRefused(m_dir, Bytes(), false, kErrCHUnreadable, unreadable, 0);
  }
  {
    SCOPED_TRACE("50 bytes: too short for a header, even with a good start");
    Bytes start = LayImage(false, false).bytes;
    ExpectRefused(m_dir, Bytes(start.begin(), start.begin() + 50), true, kErrCHUnreadable, invalid, 0);
  }
  for (bool big : {false, true}) {
    SCOPED_TRACE(big ? "big-endian" : "little-endian");
    ImageOptions opt;
    opt.magic = 0x4366682F;
    ExpectRefused(m_dir, LayImage(big, false, opt).bytes, false, kErrCHInvalid, invalid, -692);
    opt.magic = kCHMagic | 0x80;  // bit 7 of one byte
    ExpectRefused(m_dir, LayImage(big, false, opt).bytes, false, kErrCHInvalid, invalid, -691);
    opt = ImageOptions();
    opt.writer = 0x00FF;
    ExpectRefused(m_dir, LayImage(big, false, opt).bytes, false, kErrCHInvalid, invalid, -693);
    opt.writer = 0;
    opt.oldestReader = 0x0112;
    ExpectRefused(m_dir, LayImage(big, false, opt).bytes, false, kErrCHInvalid, invalid, -694);
    // The writer is checked before the oldest reader.
    opt.writer = 0x00FF;
    ExpectRefused(m_dir, LayImage(big, false, opt).bytes, false, kErrCHInvalid, invalid, -693);
    // The header is checked before the marker, the marker before the map.
    opt = ImageOptions();
    opt.unsaved = kCHUnsavedMarker;
    opt.magic = 0x4366682F;
    ExpectRefused(m_dir, LayImage(big, true, opt).bytes, false, kErrCHInvalid, invalid, -692);
    opt.magic = kCHMagic;
    opt.mapType = kLowType;
    ExpectRefused(m_dir, LayImage(big, true, opt).bytes, true, kErrCHNotSaved, unsaved, 0);
    opt.unsaved = 0;
    ExpectRefused(m_dir, LayImage(big, true, opt).bytes, true, kErrCHBadMap, badMap, 0);
    ExpectRefused(m_dir, LayImage(big, false, opt).bytes, false, kErrCHBadMap, badMap, 0);
  }
}

TEST_F(ChunkImage, EmptyWritableFileBecomesNewContainer) {
  std::string path = Put("new.chf", Bytes());
  TFile file;
  ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
  TestHost host;
  ChunkManager cm;
  ASSERT_EQ(0, cm.CHOpenRef(&file));
  EXPECT_TRUE(host.Lines().empty()) << host.Lines()[0].text;
  EXPECT_EQ(0, cm.CHCountTypes());
  EXPECT_FALSE(cm.Is0100());
  EXPECT_FALSE(cm.IsBigEndian());
  EXPECT_EQ(64u, cm.CHGetChunkHdrSize());
  EXPECT_EQ(0, cm.CHVerify());
  ASSERT_EQ(0, cm.CHSave(0));
  EXPECT_EQ(0, cm.CHClose());

  Bytes bytes = ReadFileBytes(path);
  ASSERT_GE(bytes.size(), 112u);
  EXPECT_EQ(kCHMagic, GetLE(bytes, 0, 4));
  EXPECT_EQ(0x0100u, GetLE(bytes, 4, 2));
  EXPECT_EQ(0x0111u, GetLE(bytes, 6, 2));
  EXPECT_EQ(0u, GetLE(bytes, 8, 8));     // map address
  EXPECT_EQ(0u, GetLE(bytes, 16, 8));    // map length
  EXPECT_EQ(512u, GetLE(bytes, 24, 8));  // end of space
  EXPECT_EQ(0u, GetLE(bytes, 32, 4));    // marker cleared
  EXPECT_EQ(4u, GetLE(bytes, 36, 4));
  EXPECT_EQ(512u, GetLE(bytes, 40, 8));
  EXPECT_EQ(0u, GetLE(bytes, 48, 4));
  for (size_t i = 52; i < 112; ++i) EXPECT_EQ(0, bytes[i]) << i;

  // And it opens again, still empty.
  TFile again;
  ASSERT_EQ(0, again.Open(FileLocOf(path), kFileOpenRead));
  ChunkManager reader;
  ASSERT_EQ(0, reader.CHOpenRef(&again));
  EXPECT_EQ(0, reader.CHCountTypes());
  EXPECT_EQ(0, reader.CHVerify());
}

// Changes the manager makes to every laid image: one chunk grows, one goes,
// one is new.
void ChangeSample(ChunkManager* cm, ChunkState* expected) {
  TMemory* handle = nullptr;
  ASSERT_EQ(0, cm->CHGetChunk(static_cast<int>(kLowType), 1, &handle, 1));
  Bytes grown = Pattern(200, 33);
  ASSERT_EQ(0, handle->SetSize(grown.size()));
  std::memcpy(handle->MemPtr(), grown.data(), grown.size());
  ASSERT_EQ(0, cm->CHChangedChunk(handle));
  (*expected)[{kLowType, 1}] = grown;

  ASSERT_EQ(0, cm->CHGetChunk(static_cast<int>(kHighType), 9, &handle, 1));
  ASSERT_EQ(0, cm->CHRemoveChunk(handle));
  delete handle;
  expected->erase({kHighType, 9});

  auto* added = new TMemory;
  Bytes fresh = Pattern(7, 5);
  ASSERT_EQ(0, added->SetSize(fresh.size()));
  std::memcpy(added->MemPtr(), fresh.data(), fresh.size());
  ASSERT_EQ(0, cm->CHAddChunk(added, static_cast<int>(kHighType), 50));
  (*expected)[{kHighType, 50}] = fresh;
}

TEST_F(ChunkImage, SavedImagesKeepTheirGenerationAndBecomeLittleEndian) {
  for (bool big : {false, true}) {
    for (bool old : {false, true}) {
      SCOPED_TRACE(std::string(big ? "big-endian " : "little-endian ") + (old ? "0100" : "current"));
      std::string path = Put("saved.chf", LayImage(big, old).bytes);
      ChunkState expected = SampleChunks();
      {
        TFile file;
        ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
        ChunkManager cm;
        ASSERT_EQ(0, cm.CHOpenRef(&file));
        ASSERT_NO_FATAL_FAILURE(ChangeSample(&cm, &expected));
        EXPECT_EQ(0, cm.CHVerify());
        ASSERT_EQ(0, cm.CHSave(0));
        EXPECT_EQ(0, cm.CHVerify());
        EXPECT_EQ(0, cm.CHClose());
      }
      Bytes bytes = ReadFileBytes(path);
      EXPECT_EQ(0x2E, bytes[0]);
      HandDecoded decoded;
      ASSERT_TRUE(DecodeByHand(bytes, &decoded));
      EXPECT_EQ(old ? 0x0100 : 0x0111, decoded.writer);
      EXPECT_EQ(0u, decoded.unsaved);
      EXPECT_EQ(512u, decoded.dataStart);
      EXPECT_TRUE(SameChunks(expected, decoded.chunks));
      for (const auto& [key, sum] : decoded.checksums) EXPECT_EQ(StoredChecksum(decoded.chunks[key]), sum);

      TFile file;
      ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenRead));
      ChunkManager cm;
      ASSERT_EQ(0, cm.CHOpenRef(&file));
      EXPECT_FALSE(cm.IsBigEndian());
      EXPECT_EQ(old, cm.Is0100());
      EXPECT_EQ(0, cm.CHVerify());
      ChunkState got;
      std::string why;
      ASSERT_EQ(0, ReadChunkState(&cm, &got, &why)) << why;
      EXPECT_TRUE(SameChunks(expected, got));
    }
  }
}

// A type whose four bytes read the same both ways ("AAAA") names no byte
// order: old big-endian chunks of that type must still read after a save
// has made the file little-endian.
TEST_F(ChunkImage, SymmetricTypeSurvivesTheSwitchToLittleEndian) {
  ImageOptions opt;
  opt.lowType = 0x41414141;
  ChunkState expected;
  for (const auto& [key, data] : SampleChunks()) expected[{key.first == kLowType ? opt.lowType : key.first, key.second}] = data;
  std::string path = Put("symmetric.chf", LayImage(true, false, opt).bytes);
  {
    TFile file;
    ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
    ChunkManager cm;
    ASSERT_EQ(0, cm.CHOpenRef(&file));
    ChunkState got;
    std::string why;
    ASSERT_EQ(0, ReadChunkState(&cm, &got, &why)) << why;
    EXPECT_TRUE(SameChunks(expected, got));
    // A change elsewhere, so that the header and map are written anew.
    TMemory* handle = nullptr;
    ASSERT_EQ(0, cm.CHGetChunk(static_cast<int>(kHighType), 3, &handle, 1));
    static_cast<uint8_t*>(handle->MemPtr())[0] ^= 0xFF;
    expected[{kHighType, 3}][0] ^= 0xFF;
    ASSERT_EQ(0, cm.CHChangedChunk(handle));
    ASSERT_EQ(0, cm.CHSave(0));
  }
  TFile file;
  ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenRead));
  ChunkManager cm;
  ASSERT_EQ(0, cm.CHOpenRef(&file));
  EXPECT_FALSE(cm.IsBigEndian());
  ChunkState got;
  std::string why;
  EXPECT_EQ(0, ReadChunkState(&cm, &got, &why)) << why;
  EXPECT_TRUE(SameChunks(expected, got));
}

// An end of space that is off the address step and cuts into the map's
// slot: the map check refuses it, or else a change saved on top of it
// makes a container that passes the check and reads back.
TEST_F(ChunkImage, BrokenEndOfSpaceIsRefusedOrSavedConsistently) {
  for (int64_t shift : {-73, -4, -1, 3}) {
    SCOPED_TRACE("end of space shifted by " + std::to_string(shift));
    ImageOptions opt;
    opt.endOfSpaceShift = shift;
    std::string path = Put("eos.chf", LayImage(false, false, opt).bytes);
    TFile file;
    ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
    ChunkManager cm;
    if (cm.CHOpenRef(&file) != 0 || cm.CHVerify() != 0) continue;
    ChunkState expected = SampleChunks();
    auto* added = new TMemory;
    ASSERT_EQ(0, added->SetSize(9));
    ASSERT_EQ(0, cm.CHAddChunk(added, 0x7F000001, 1));
    expected[{0x7F000001, 1}] = Bytes(9, 0);
    if (cm.CHSave(0) != 0) continue;
    EXPECT_EQ(0, cm.CHVerify()) << "a save that succeeded left a map its own check refuses";
    ASSERT_EQ(0, cm.CHClose());
    TFile again;
    ASSERT_EQ(0, again.Open(FileLocOf(path), kFileOpenRead));
    ChunkManager reader;
    ASSERT_EQ(0, reader.CHOpenRef(&again));
    EXPECT_EQ(0, reader.CHVerify());
    ChunkState got;
    std::string why;
    EXPECT_EQ(0, ReadChunkState(&reader, &got, &why)) << why;
    EXPECT_TRUE(SameChunks(expected, got));
  }
}

TEST(ChunkChecksum, StoredSumIsTheMsbFirstCrcWithZeroAsOne) {
  // Data whose CRC is 0: nothing, zeros, the polynomial and its multiples.
  EXPECT_EQ(0u, BitwiseCrc(nullptr, 0));
  const Bytes zeros(16, 0);
  EXPECT_EQ(0u, BitwiseCrc(zeros.data(), zeros.size()));
  const Bytes poly{0x01, 0x04, 0xC1, 0x1D, 0xB7};
  EXPECT_EQ(0u, BitwiseCrc(poly.data(), poly.size()));
  const Bytes polyShifted{0x00, 0x02, 0x09, 0x82, 0x3B, 0x6E};  // the polynomial times x
  EXPECT_EQ(0u, BitwiseCrc(polyShifted.data(), polyShifted.size()));
  EXPECT_EQ(1u, CHChecksum(zeros.data(), zeros.size()));
  EXPECT_EQ(1u, CHChecksum(poly.data(), poly.size()));
  // The catalogued check value of this CRC with a final inversion (CRC-32/CKSUM).
  EXPECT_EQ(0x765E7680u, ~BitwiseCrc(reinterpret_cast<const uint8_t*>("123456789"), 9));

  TempDir dir;
  std::string path = dir.path() + "/sums.chf";
  WriteFileBytes(path, Bytes());
  ChunkState written;
  written[{1, 1}] = zeros;
  written[{1, 2}] = poly;
  written[{1, 3}] = polyShifted;
  written[{1, 4}] = Bytes();
  std::mt19937 rng(77);
  for (uint32_t id = 10; id < 40; ++id) {
    Bytes b(rng() % 300);
    for (auto& x : b) x = static_cast<uint8_t>(rng());
    written[{2, id}] = b;
  }
  {
    TFile file;
    ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
    ChunkManager cm;
    ASSERT_EQ(0, cm.CHOpenRef(&file));
    for (const auto& [key, data] : written) {
      auto* handle = new TMemory;
      ASSERT_EQ(0, handle->SetSize(data.size()));
      if (!data.empty()) std::memcpy(handle->MemPtr(), data.data(), data.size());
      ASSERT_EQ(0, cm.CHAddChunk(handle, static_cast<int>(key.first), static_cast<int>(key.second)));
    }
    ASSERT_EQ(0, cm.CHSave(0));
  }
  HandDecoded decoded;
  ASSERT_TRUE(DecodeByHand(ReadFileBytes(path), &decoded));
  EXPECT_TRUE(SameChunks(written, decoded.chunks));
  EXPECT_EQ(1u, decoded.checksums[std::make_pair(1u, 1u)]);
  EXPECT_EQ(1u, decoded.checksums[std::make_pair(1u, 2u)]);
  EXPECT_EQ(1u, decoded.checksums[std::make_pair(1u, 3u)]);
  EXPECT_EQ(1u, decoded.checksums[std::make_pair(1u, 4u)]);
  for (const auto& [key, data] : written) {
    uint32_t crc = BitwiseCrc(data.data(), data.size());
    EXPECT_EQ(crc == 0 ? 1u : crc, decoded.checksums[key]) << key.first << "/" << key.second;
  }
}

}  // namespace
