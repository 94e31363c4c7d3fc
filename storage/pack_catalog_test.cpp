// The catalogue codec: round trips of random catalogues, the stored layout
// at fixed offsets, every truncation and random damage refused without a
// crash, hostile paths and inconsistent entries refused, and the chunk
// fingerprints against libcrypto's SHA-1 and a bitwise CRC.
#include "storage/pack_catalog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "containers/persist.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "security/blockhash.h"
#include "security/digest_test_support.h"
#include "tests/test_host.h"

namespace {

using Bytes = std::vector<unsigned char>;

PackChunkRefSpec RandomRef(std::mt19937& rng, uint32_t id, uint32_t length) {
  PackChunkRefSpec ref;
  ref.id = id;
  ref.length = length;
  ref.crc = static_cast<uint32_t>(rng());
  for (unsigned char& b : ref.digest) b = static_cast<unsigned char>(rng());
  return ref;
}

// Folders, empty files, files of one and of several chunks, names with
// multi-byte characters; ids handed out in a shuffled order.
PackCatalogSpec RandomCatalog(std::mt19937& rng, int files) {
  PackCatalogSpec c;
  c.chunkSize = 1000;
  c.entries.push_back({"d", kPackKindFolder, 0755, 0, 1700000000, 5, {}});
  c.entries.push_back({"d/sub dir", kPackKindFolder, 0700, 0, -3, 999999999, {}});
  c.entries.push_back({"d/empty", kPackKindFolder, 0555, 0, 0, 0, {}});
  std::vector<uint32_t> ids;
  for (uint32_t id = 1; id <= static_cast<uint32_t>(files) * 4; ++id) ids.push_back(id * 3);
  std::shuffle(ids.begin(), ids.end(), rng);
  size_t next = 0;
  for (int i = 0; i < files; ++i) {
    PackEntrySpec e;
    e.path = (i % 2 ? "d/sub dir/f" : "d/caf\xC3\xA9-") + std::to_string(i);
    e.mode = static_cast<uint32_t>(rng() % 010000);
    e.mtimeSeconds = static_cast<int64_t>(rng()) - 1000;
    e.mtimeNanos = static_cast<uint32_t>(rng() % 1000000000);
    int chunks = static_cast<int>(rng() % 4);
    for (int k = 0; k < chunks; ++k) {
      uint32_t length = k + 1 < chunks ? c.chunkSize : 1 + static_cast<uint32_t>(rng() % c.chunkSize);
      e.chunks.push_back(RandomRef(rng, ids[next++], length));
      e.size += length;
    }
    c.entries.push_back(e);
  }
  return c;
}

Bytes Encode(const PackCatalogSpec& c) {
  TMemory m;
  EXPECT_EQ(0, PackEncodeCatalog(c, &m));
  auto* p = static_cast<unsigned char*>(m.MemPtr());
  return Bytes(p, p + m.GetSize());
}

int Decode(const Bytes& b, PackCatalogSpec* out) { return PackDecodeCatalog(b.data(), b.size(), out); }

void ExpectSame(const PackCatalogSpec& a, const PackCatalogSpec& b) {
  EXPECT_EQ(a.dataType, b.dataType);
  EXPECT_EQ(a.chunkSize, b.chunkSize);
  ASSERT_EQ(a.entries.size(), b.entries.size());
  for (size_t i = 0; i < a.entries.size(); ++i) {
    const PackEntrySpec& x = a.entries[i];
    const PackEntrySpec& y = b.entries[i];
    EXPECT_EQ(x.path, y.path);
    EXPECT_EQ(x.kind, y.kind);
    EXPECT_EQ(x.mode, y.mode);
    EXPECT_EQ(x.size, y.size);
    EXPECT_EQ(x.mtimeSeconds, y.mtimeSeconds);
    EXPECT_EQ(x.mtimeNanos, y.mtimeNanos);
    ASSERT_EQ(x.chunks.size(), y.chunks.size()) << x.path;
    for (size_t k = 0; k < x.chunks.size(); ++k) {
      EXPECT_EQ(x.chunks[k].id, y.chunks[k].id);
      EXPECT_EQ(x.chunks[k].length, y.chunks[k].length);
      EXPECT_EQ(x.chunks[k].crc, y.chunks[k].crc);
      EXPECT_EQ(0, std::memcmp(x.chunks[k].digest, y.chunks[k].digest, kPackDigestLength));
    }
  }
}

uint32_t Le32(const Bytes& b, size_t at) {
  return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}
void PutLe32(Bytes* b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*b)[at + i] = static_cast<unsigned char>(v >> (8 * i));
}
void PutLe16(Bytes* b, size_t at, uint16_t v) {
  (*b)[at] = static_cast<unsigned char>(v);
  (*b)[at + 1] = static_cast<unsigned char>(v >> 8);
}

TEST(PackCatalog, RandomCataloguesRoundTrip) {
  TestHost host;
  std::mt19937 rng(7);
  for (int files : {0, 1, 5, 40}) {
    PackCatalogSpec c = RandomCatalog(rng, files);
    Bytes b = Encode(c);
    PackCatalogSpec back;
    ASSERT_EQ(0, Decode(b, &back)) << files;
    ExpectSame(c, back);
    uint64_t total = 0;
    for (const PackEntrySpec& e : c.entries) total += e.size;
    EXPECT_EQ(total, back.totalBytes);
    EXPECT_EQ(b, Encode(back));  // nothing is lost or invented
  }
}

TEST(PackCatalog, StoredLayout) {
  TestHost host;
  PackCatalogSpec c;
  c.chunkSize = 4096;
  PackEntrySpec e{"ab/c", kPackKindFile, 0640, 5, -2, 7, {}};
  PackChunkRefSpec ref;
  ref.id = 9;
  ref.length = 5;
  ref.crc = 0xA1B2C3D4;
  ref.digest[0] = 0xEE;
  e.chunks.push_back(ref);
  c.entries.push_back({"ab", kPackKindFolder, 0755, 0, 0, 0, {}});
  c.entries.push_back(e);
  Bytes b = Encode(c);
  ASSERT_EQ(48u + (40 + 2) + (40 + 4 + 32), b.size());
  EXPECT_EQ(0, std::memcmp(b.data(), "tCkP\x01\x00\x01\x00", 8));  // 'PkCt' little-endian, versions 1 and 1
  EXPECT_EQ(48u, Le32(b, 8));
  EXPECT_EQ(2u, Le32(b, 12));
  EXPECT_EQ(static_cast<uint32_t>(kPackDataType), Le32(b, 16));
  EXPECT_EQ(2u, Le32(b, 20));
  EXPECT_EQ(20u, Le32(b, 24));
  EXPECT_EQ(4096u, Le32(b, 28));
  EXPECT_EQ(5u, Le32(b, 32));
  size_t f = 48 + 42;  // the file's entry
  EXPECT_EQ(76u, Le32(b, f));
  EXPECT_EQ(1u | 4u << 16, Le32(b, f + 4));  // kind 1, path length 4
  EXPECT_EQ(0640u, Le32(b, f + 8));
  EXPECT_EQ(1u, Le32(b, f + 12));
  EXPECT_EQ(5u, Le32(b, f + 16));
  EXPECT_EQ(0xFFFFFFFEu, Le32(b, f + 24));  // -2 seconds
  EXPECT_EQ(0xFFFFFFFFu, Le32(b, f + 28));
  EXPECT_EQ(7u, Le32(b, f + 32));
  EXPECT_EQ(0, std::memcmp(b.data() + f + 40, "ab/c", 4));
  EXPECT_EQ(9u, Le32(b, f + 44));
  EXPECT_EQ(5u, Le32(b, f + 48));
  EXPECT_EQ(0xA1B2C3D4u, Le32(b, f + 52));
  EXPECT_EQ(0xEE, b[f + 56]);
}

// A later writer may lengthen the header and the entries; a reader of
// version 1 skips what it does not know.
TEST(PackCatalog, LongerHeaderAndEntriesAreSkipped) {
  TestHost host;
  PackCatalogSpec c;
  c.chunkSize = 10;
  c.entries.push_back({"x", kPackKindFolder, 0700, 0, 1, 2, {}});
  Bytes b = Encode(c);
  Bytes longer(b.begin(), b.begin() + 48);
  PutLe32(&longer, 8, 56);
  longer.insert(longer.end(), 8, 0xAB);
  Bytes entry(b.begin() + 48, b.end());
  PutLe32(&entry, 0, static_cast<uint32_t>(entry.size() + 3));
  entry.insert(entry.end(), 3, 0xCD);
  longer.insert(longer.end(), entry.begin(), entry.end());
  PackCatalogSpec back;
  ASSERT_EQ(0, Decode(longer, &back));
  ExpectSame(c, back);
}

TEST(PackCatalog, EveryTruncationIsRefused) {
  TestHost host;
  std::mt19937 rng(11);
  Bytes b = Encode(RandomCatalog(rng, 6));
  for (size_t n = 0; n < b.size(); ++n) {
    Bytes cut(b.begin(), b.begin() + n);
    PackCatalogSpec out;
    EXPECT_NE(0, Decode(cut, &out)) << "length " << n;
  }
  PackCatalogSpec out;
  EXPECT_NE(0, PackDecodeCatalog(nullptr, 100, &out));
  Bytes extra = b;
  extra.push_back(0);
  EXPECT_EQ(kErrFileCorrupt, Decode(extra, &out));
}

// Random damage either decodes into a catalogue that keeps every rule (it
// encodes again) or is refused; it never reads out of bounds (ASan).
TEST(PackCatalog, RandomDamageNeverCrashes) {
  TestHost host;
  std::mt19937 rng(13);
  Bytes good = Encode(RandomCatalog(rng, 8));
  int refused = 0;
  for (int round = 0; round < 3000; ++round) {
    Bytes b = good;
    int flips = 1 + static_cast<int>(rng() % 4);
    for (int k = 0; k < flips; ++k) b[rng() % b.size()] ^= static_cast<unsigned char>(1u << (rng() % 8));
    PackCatalogSpec out;
    if (Decode(b, &out) != 0) {
      ++refused;
      continue;
    }
    TMemory again;
    EXPECT_EQ(0, PackEncodeCatalog(out, &again)) << "round " << round;
  }
  EXPECT_GT(refused, 100);  // damage to lengths, ids and paths is caught
}

TEST(PackCatalog, UnsafePaths) {
  for (const char* ok : {"a", "a/b", "a b/c.d", "...", "a..b/..c", "caf\xC3\xA9", "\xF0\x9F\x98\x80"}) {
    EXPECT_TRUE(PackIsSafePath(ok)) << ok;
  }
  const std::string bad[] = {"",       "/etc/passwd", "../x",  "a/../../b", "a/..",          "..",
                             "./a",    "a/.",         "a//b",  "a/",        "a\\b",          std::string("a\0b", 3),
                             "a\x01",  "a\x7f",       "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xC3",
                             "\xE2\x82"};
  for (const std::string& p : bad) EXPECT_FALSE(PackIsSafePath(p)) << digest_test::Hex(
      reinterpret_cast<const unsigned char*>(p.data()), p.size());
}

// The hostile paths of a container made elsewhere: the bytes of a safe
// path are overwritten with a hostile one of the same length.
TEST(PackCatalog, HostilePathsAreRefused) {
  TestHost host;
  PackCatalogSpec c;
  c.chunkSize = 10;
  c.entries.push_back({"aaaaaa", kPackKindFile, 0600, 0, 0, 0, {}});
  Bytes good = Encode(c);
  for (const char* hostile : {"../etc", "/etc/p", "a/../b", "a//bcd", "a\\bcde"}) {
    Bytes b = good;
    std::memcpy(b.data() + 48 + 40, hostile, 6);
    PackCatalogSpec out;
    host.Clear();
    EXPECT_EQ(kErrBadName, Decode(b, &out)) << hostile;
    auto lines = host.LinesWithFormat("PackDecodeCatalog: %s (entry %~d), %E");
    ASSERT_EQ(1u, lines.size()) << hostile;
    EXPECT_NE(std::string::npos, lines[0].text.find("unsafe path (entry 0)")) << lines[0].text;
    EXPECT_EQ(517u, lines[0].selector);
  }
  TMemory m;
  c.entries[0].path = "../x";
  EXPECT_EQ(kErrBadName, PackEncodeCatalog(c, &m));
}

TEST(PackCatalog, InconsistentEntriesAreRefused) {
  TestHost host;
  std::mt19937 rng(17);
  auto file = [&](const char* path, std::vector<std::pair<uint32_t, uint32_t>> chunks) {
    PackEntrySpec e{path, kPackKindFile, 0600, 0, 0, 0, {}};
    for (auto [id, length] : chunks) {
      e.chunks.push_back(RandomRef(rng, id, length));
      e.size += length;
    }
    return e;
  };
  PackEntrySpec folder{"f", kPackKindFolder, 0700, 0, 0, 0, {}};
  struct Case {
    const char* what;
    std::vector<PackEntrySpec> entries;
  };
  std::vector<Case> cases = {
      {"path twice", {file("a", {}), file("a", {})}},
      {"file and folder of one path", {folder, file("f", {})}},
      {"chunk used twice", {file("a", {{1, 5}}), file("b", {{1, 5}})}},
      {"chunk id 0", {file("a", {{0, 5}})}},
      {"chunk id past the interface", {file("a", {{0x80000000u, 5}})}},
      {"empty chunk", {file("a", {{1, 0}})}},
      {"chunk longer than the chunk size", {file("a", {{1, 11}})}},
      {"entry under a file", {file("a", {}), file("a/b", {})}},
      {"entry under a file, child first", {file("a/b", {}), file("a", {})}},
  };
  PackEntrySpec sized = file("s", {{1, 5}});
  sized.size = 6;
  cases.push_back({"sizes do not add up", {sized}});
  PackEntrySpec full = folder;
  full.chunks.push_back(RandomRef(rng, 2, 3));
  full.size = 3;
  cases.push_back({"folder with chunks", {full}});
  PackEntrySpec moded = file("m", {});
  moded.mode = 010000;
  cases.push_back({"mode out of range", {moded}});
  PackEntrySpec timed = file("t", {});
  timed.mtimeNanos = 1000000000;
  cases.push_back({"nanoseconds out of range", {timed}});
  PackEntrySpec kinded = file("k", {});
  kinded.kind = 3;
  cases.push_back({"unknown kind", {kinded}});

  for (const Case& k : cases) {
    PackCatalogSpec c;
    c.chunkSize = 10;
    c.entries = k.entries;
    TMemory m;
    EXPECT_EQ(kErrInvalidData, PackEncodeCatalog(c, &m)) << k.what;
  }

  // Decoding checks the same rules: a good catalogue whose second entry is
  // given the first one's path, and one whose chunk id is patched to 0.
  PackCatalogSpec c;
  c.chunkSize = 10;
  c.entries = {file("p", {{4, 3}}), file("q", {{5, 2}})};
  Bytes good = Encode(c);
  size_t second = 48 + 40 + 1 + 32;
  PackCatalogSpec out;
  Bytes b = good;
  b[second + 40] = 'p';
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "path twice";
  b = good;
  PutLe32(&b, second + 41, 4);
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "chunk used twice";
  b = good;
  PutLe32(&b, second + 41 + 4, 11);
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "chunk longer than the chunk size";
  b = good;
  PutLe16(&b, second + 4, kPackKindFolder);
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "folder with chunks";
  b = good;
  PutLe32(&b, 12, 0x40000000);
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "entry count past the bytes";
  b = good;
  PutLe32(&b, second, 40);
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "entry length too short";
  b = good;
  PutLe32(&b, second + 12, 0x10000000);
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "chunk count past the entry";
  b = good;
  PutLe32(&b, 24, 16);
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "digest length";
  b = good;
  PutLe32(&b, 32, 6);
  EXPECT_EQ(kErrFileCorrupt, Decode(b, &out)) << "total bytes";
}

TEST(PackCatalog, RecordHeaderChecks) {
  TestHost host;
  PackCatalogSpec c;
  c.chunkSize = 10;
  Bytes good = Encode(c);
  PackCatalogSpec out;
  Bytes b = good;
  b[0] = 'X';
  EXPECT_EQ(kErrPersistSignature, Decode(b, &out));
  b = good;
  PutLe16(&b, 4, 2);  // needs a reader of version 2
  EXPECT_EQ(kErrPersistTooNew, Decode(b, &out));
  b = good;
  PutLe16(&b, 6, 0);
  EXPECT_EQ(kErrPersistInvalid, Decode(b, &out));
  b = good;
  std::reverse(b.begin(), b.begin() + 4);  // the other byte order is never written
  PutLe16(&b, 4, 0x0100);
  PutLe16(&b, 6, 0x0100);
  EXPECT_EQ(kErrPersistInvalid, Decode(b, &out));
  b = good;
  PutLe16(&b, 6, 3);  // a newer writer that version 1 may read
  EXPECT_EQ(0, Decode(b, &out));
}

// The oracle of the CRC block hash: bit by bit, most significant first.
uint32_t BitwiseCrc(const Bytes& message) {
  uint32_t crc = 0;
  for (unsigned char byte : message) {
    crc ^= static_cast<uint32_t>(byte) << 24;
    for (int bit = 0; bit < 8; ++bit) crc = crc & 0x80000000u ? crc << 1 ^ 0x04C11DB7u : crc << 1;
  }
  return crc == 0 ? 1 : crc;
}

TEST(PackCatalog, ChunkFingerprintsAgainstOracles) {
  TestHost host;
  std::mt19937 rng(19);
  TBlockHash hash(static_cast<unsigned char>(kPackDigestType));
  for (uint32_t length : {0u, 1u, 63u, 64u, 1000u, 70001u}) {
    Bytes data = digest_test::RandomBytes(rng, length);
    uint32_t id = 1 + static_cast<uint32_t>(rng() % kPackMaxChunkId);
    PackChunkRefSpec ref;
    ASSERT_EQ(0, PackHashChunk(&hash, kPackDataType, id, data.data(), length, &ref));
    Bytes message(12);
    uint64_t key = id;
    uint32_t type = kPackDataType;
    std::memcpy(message.data(), &key, 8);
    std::memcpy(message.data() + 8, &type, 4);
    message.insert(message.end(), data.begin(), data.end());
    Bytes want = digest_test::OracleDigest("SHA1", message);
    ASSERT_EQ(kPackDigestLength, want.size());
    EXPECT_EQ(0, std::memcmp(want.data(), ref.digest, kPackDigestLength)) << length;
    EXPECT_EQ(BitwiseCrc(message), ref.crc) << length;
    EXPECT_EQ(id, ref.id);
    EXPECT_EQ(length, ref.length);

    EXPECT_EQ(0, PackCheckChunk(&hash, kPackDataType, ref, data.data(), length));
    if (length == 0) continue;
    Bytes flipped = data;
    flipped[rng() % length] ^= 0x10;
    host.Clear();
    EXPECT_EQ(kErrCrc, PackCheckChunk(&hash, kPackDataType, ref, flipped.data(), length));
    EXPECT_EQ(1u, host.LinesWithFormat("PackCheckChunk: chunk %~d does not match its block hashes, %E").size());
    EXPECT_EQ(kErrFileCorrupt, PackCheckChunk(&hash, kPackDataType, ref, data.data(), length - 1));
    PackChunkRefSpec moved = ref;
    moved.id = id ^ 1;  // the same bytes under another id
    EXPECT_EQ(kErrCrc, PackCheckChunk(&hash, kPackDataType, moved, data.data(), length));
  }
  TBlockHash none(static_cast<unsigned char>(9));
  PackChunkRefSpec ref;
  unsigned char byte = 0;
  EXPECT_EQ(kErrNotSupported, PackHashChunk(&none, kPackDataType, 1, &byte, 1, &ref));
}

}  // namespace
