#include "tests/chunk_image.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <utility>

namespace chunk_image {

namespace {

constexpr uint32_t kMagic = 0x4366682E;
constexpr uint32_t kMapType = 0x43684D70;
constexpr uint32_t kFreeType = 0xFFFFFFFF;
constexpr uint32_t kUnsaved = 0x42616421;

uint32_t CrcStep(uint32_t crc, uint8_t byte) {
  crc ^= static_cast<uint32_t>(byte) << 24;
  for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x80000000u) != 0 ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
  return crc;
}

uint64_t Round4(uint64_t n) { return (n + 3) / 4 * 4; }

}  // namespace

uint32_t Checksum(const uint8_t* data, size_t n) {
  uint32_t crc = 0;
  for (size_t i = 0; i < n; ++i) crc = CrcStep(crc, data[i]);
  return crc == 0 ? 1 : crc;
}

uint32_t EncryptedChecksum(uint32_t type, uint64_t id, const uint8_t* data, size_t n) {
  uint32_t crc = 0;
  for (int i = 0; i < 8; ++i) crc = CrcStep(crc, static_cast<uint8_t>(id >> (8 * i)));
  for (int i = 0; i < 4; ++i) crc = CrcStep(crc, static_cast<uint8_t>(type >> (8 * i)));
  for (size_t i = 0; i < n; ++i) crc = CrcStep(crc, data[i]);
  return crc == 0 ? 1 : crc;
}

void Put(Bytes* b, size_t at, uint64_t value, int size, bool big) {
  if (b->size() < at + size) b->resize(at + size);
  for (int i = 0; i < size; ++i) {
    int shift = big ? 8 * (size - 1 - i) : 8 * i;
    (*b)[at + i] = static_cast<uint8_t>(value >> shift);
  }
}

uint64_t Get(const Bytes& b, size_t at, int size, bool big) {
  uint64_t value = 0;
  for (int i = 0; i < size; ++i) {
    int shift = big ? 8 * (size - 1 - i) : 8 * i;
    value |= static_cast<uint64_t>(b[at + i]) << shift;
  }
  return value;
}

size_t HeaderSize(bool is0100) { return is0100 ? 56 : 64; }
size_t EntrySize(bool is0100) { return is0100 ? 44 : 48; }

Bytes ChunkHeader(const Chunk& c, bool is0100, bool big) {
  Bytes h(HeaderSize(is0100), 0);
  uint32_t sum = c.checksum;
  if (sum == 0) {
    sum = (c.flags & 1) != 0 ? EncryptedChecksum(c.type, c.id, c.data.data(), c.data.size())
                             : Checksum(c.data.data(), c.data.size());
  }
  if (is0100) {
    Put(&h, 0, c.type, 4, big);
    Put(&h, 4, c.id, 8, big);
    Put(&h, 12, c.data.size(), 8, big);
    Put(&h, 20, c.generation, 8, big);
    Put(&h, 28, c.extra, 4, big);
    Put(&h, 32, c.flags, 4, big);
    Put(&h, 44, sum, 4, big);
  } else {
    Put(&h, 0, c.type, 4, big);
    Put(&h, 8, c.id, 8, big);
    Put(&h, 16, c.data.size(), 8, big);
    Put(&h, 24, c.generation, 8, big);
    Put(&h, 32, c.extra, 4, big);
    Put(&h, 36, c.flags, 4, big);
    Put(&h, 48, sum, 4, big);
  }
  return h;
}

void AppendChunk(Bytes* file, Chunk* chunk, bool is0100, bool big) {
  file->resize(Round4(std::max<size_t>(file->size(), 512)), 0);
  if (chunk->checksum == 0) {
    chunk->checksum = (chunk->flags & 1) != 0
                          ? EncryptedChecksum(chunk->type, chunk->id, chunk->data.data(), chunk->data.size())
                          : Checksum(chunk->data.data(), chunk->data.size());
  }
  chunk->address = file->size();
  Bytes h = ChunkHeader(*chunk, is0100, big);
  file->insert(file->end(), h.begin(), h.end());
  file->insert(file->end(), chunk->data.begin(), chunk->data.end());
}

std::vector<MapEntry> OrganisedMap(const std::vector<Chunk>& chunks, bool is0100, uint64_t mapAddress,
                                   uint64_t mapLength) {
  std::map<std::pair<uint32_t, uint64_t>, MapEntry> sorted;
  for (const Chunk& c : chunks) {
    uint64_t used = HeaderSize(is0100) + c.data.size();
    sorted[{c.type, c.id}] = MapEntry{c.type, c.id, static_cast<int64_t>(c.address), Round4(used) - used, 1, 0};
  }
  sorted[{kMapType, 0}] = MapEntry{kMapType, 0, static_cast<int64_t>(mapAddress), Round4(mapLength) - mapLength, 1, 0};
  std::vector<MapEntry> out;
  for (auto it = sorted.begin(); it != sorted.end();) {
    uint32_t type = it->first.first;
    size_t head = out.size();
    out.push_back(MapEntry{type, 0, -1, 0, 0, 0});
    for (; it != sorted.end() && it->first.first == type; ++it) out.push_back(it->second);
    out[head].id = out.size() - head - 1;
  }
  return out;
}

Bytes EncodeEntries(const std::vector<MapEntry>& entries, bool is0100, bool big) {
  Bytes out(entries.size() * EntrySize(is0100), 0);
  for (size_t i = 0; i < entries.size(); ++i) {
    const MapEntry& e = entries[i];
    size_t at = i * EntrySize(is0100);
    if (is0100) {
      Put(&out, at, e.type, 4, big);
      Put(&out, at + 4, e.id, 8, big);
      Put(&out, at + 12, static_cast<uint64_t>(e.address), 8, big);
      Put(&out, at + 20, e.slack, 8, big);
      Put(&out, at + 28, e.state, 4, big);
      Put(&out, at + 32, e.extra, 4, big);
    } else {
      Put(&out, at, e.type, 4, big);
      Put(&out, at + 8, e.id, 8, big);
      Put(&out, at + 16, static_cast<uint64_t>(e.address), 8, big);
      Put(&out, at + 24, e.slack, 8, big);
      Put(&out, at + 32, e.state, 4, big);
      Put(&out, at + 36, e.extra, 4, big);
    }
  }
  return out;
}

Bytes Build(std::vector<Chunk>* chunks, const Options& o) {
  Bytes file(512, 0);
  for (Chunk& c : *chunks) AppendChunk(&file, &c, o.is0100, o.bigEndian);
  uint64_t mapAddress = 0;
  uint64_t mapLength = 0;
  if (!chunks->empty()) {
    file.resize(Round4(file.size()), 0);
    std::map<uint32_t, int> types;
    for (const Chunk& c : *chunks) types[c.type]++;
    size_t count = chunks->size() + types.size() + 2;
    mapAddress = file.size();
    mapLength = HeaderSize(o.is0100) + count * EntrySize(o.is0100);
    Chunk map;
    map.type = kMapType;
    map.generation = o.mapGeneration;
    map.data = EncodeEntries(OrganisedMap(*chunks, o.is0100, mapAddress, mapLength), o.is0100, o.bigEndian);
    AppendChunk(&file, &map, o.is0100, o.bigEndian);
    file.resize(Round4(file.size()), 0);
  }
  bool big = o.bigEndian;
  Put(&file, 0, kMagic, 4, big);
  Put(&file, 4, 0x0100, 2, big);
  Put(&file, 6, o.is0100 ? 0x0100 : 0x0111, 2, big);
  Put(&file, 8, mapAddress, 8, big);
  Put(&file, 16, mapLength, 8, big);
  Put(&file, 24, file.size(), 8, big);
  Put(&file, 32, o.unsaved ? kUnsaved : 0, 4, big);
  Put(&file, 36, 4, 4, big);
  Put(&file, 40, 512, 8, big);
  Put(&file, 48, o.encryption, 4, big);
  return file;
}

namespace {

// Reads the chunk header at `at`, in the file's order or else the other.
bool ReadChunk(const Bytes& f, uint64_t at, bool is0100, bool big, Chunk* c, std::string* error) {
  size_t hs = HeaderSize(is0100);
  if (at < 512 || at > f.size() || f.size() - at < hs) {
    *error = "chunk header outside the file at " + std::to_string(at);
    return false;
  }
  bool order = big;
  auto field = [&](size_t off, int size) { return Get(f, at + off, size, order); };
  uint64_t length = 0;
  if (is0100) {
    c->type = static_cast<uint32_t>(field(0, 4));
    c->id = field(4, 8);
    length = field(12, 8);
    c->generation = field(20, 8);
    c->extra = static_cast<uint32_t>(field(28, 4));
    c->flags = static_cast<uint32_t>(field(32, 4));
    c->checksum = static_cast<uint32_t>(field(44, 4));
    for (size_t i : {36, 37, 38, 39, 40, 41, 42, 43, 48, 49, 50, 51, 52, 53, 54, 55}) {
      if (f[at + i] != 0) *error = "reserved byte set in a chunk header";
    }
  } else {
    c->type = static_cast<uint32_t>(field(0, 4));
    c->id = field(8, 8);
    length = field(16, 8);
    c->generation = field(24, 8);
    c->extra = static_cast<uint32_t>(field(32, 4));
    c->flags = static_cast<uint32_t>(field(36, 4));
    c->checksum = static_cast<uint32_t>(field(48, 4));
    for (size_t i : {4, 5, 6, 7, 40, 41, 42, 43, 44, 45, 46, 47, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62, 63}) {
      if (f[at + i] != 0) *error = "reserved byte set in a chunk header";
    }
  }
  if (!error->empty()) return false;
  if (length > f.size() - at - hs) {
    *error = "chunk data outside the file at " + std::to_string(at);
    return false;
  }
  c->address = at;
  c->data.assign(f.begin() + static_cast<long>(at + hs), f.begin() + static_cast<long>(at + hs + length));
  uint32_t want = (c->flags & 1) != 0 ? EncryptedChecksum(c->type, c->id, c->data.data(), c->data.size())
                                      : Checksum(c->data.data(), c->data.size());
  if (want != c->checksum) {
    *error = "checksum mismatch at " + std::to_string(at);
    return false;
  }
  return true;
}

std::string CheckOrganisation(const Parsed& p, size_t fileSize) {
  const auto& m = p.map;
  size_t i = 0;
  bool first = true;
  uint32_t lastType = 0;
  bool sawMap = false;
  struct Slot {
    uint64_t address;
    uint64_t used;
    uint64_t slack;
  };
  std::vector<Slot> slots;
  std::map<std::pair<uint32_t, uint64_t>, const Chunk*> byKey;
  for (const Chunk& c : p.chunks) byKey[{c.type, c.id}] = &c;
  while (i < m.size()) {
    const MapEntry& head = m[i];
    if (head.address != -1 || head.slack != 0 || head.state != 0) return "bad group head";
    if (!first && head.type <= lastType) return "types out of order";
    if (head.id == 0 || head.id > m.size() - i - 1) return "bad group count";
    first = false;
    lastType = head.type;
    for (uint64_t k = 1; k <= head.id; ++k) {
      const MapEntry& e = m[i + k];
      if (e.type != head.type) return "entry outside its group";
      if (k > 1 && e.id <= m[i + k - 1].id) return "ids out of order";
      if (e.type == kFreeType) {
        slots.push_back({static_cast<uint64_t>(e.address), e.id, 0});
        continue;
      }
      if (e.address < 512 || (e.state & 1) == 0 || (e.state & 2) != 0) return "bad chunk entry";
      if (e.slack >= 4) return "slack of a full step";
      if (e.type == kMapType) {
        if (e.id != 0 || static_cast<uint64_t>(e.address) != p.mapAddress) return "bad map entry";
        sawMap = true;
        slots.push_back({p.mapAddress, p.mapLength, e.slack});
        continue;
      }
      auto c = byKey.find({e.type, e.id});
      if (c == byKey.end()) return "entry without chunk";
      slots.push_back({static_cast<uint64_t>(e.address), HeaderSize(p.is0100) + c->second->data.size(), e.slack});
    }
    i += head.id + 1;
  }
  if (!sawMap) return "map has no entry of its own";
  std::sort(slots.begin(), slots.end(), [](const Slot& a, const Slot& b) { return a.address < b.address; });
  uint64_t at = 512;
  for (const Slot& s : slots) {
    if (s.address != at) return "slots do not tile the space at " + std::to_string(at);
    at = s.address + s.used + s.slack;
  }
  if (at != p.endOfSpace) return "space does not end at the end of space";
  if (fileSize < p.endOfSpace) return "file shorter than its space";
  return "";
}

}  // namespace

Parsed Parse(const Bytes& f) {
  Parsed p;
  if (f.size() < 112) {
    p.error = "file shorter than a header";
    return p;
  }
  if (Get(f, 0, 4) == kMagic) {
    p.bigEndian = false;
  } else if (Get(f, 0, 4, true) == kMagic) {
    p.bigEndian = true;
  } else {
    p.error = "bad magic";
    return p;
  }
  bool big = p.bigEndian;
  uint64_t writer = Get(f, 6, 2, big);
  if (Get(f, 4, 2, big) != 0x0100 || (writer != 0x0100 && writer != 0x0111)) {
    p.error = "bad versions";
    return p;
  }
  p.is0100 = writer == 0x0100;
  p.mapAddress = Get(f, 8, 8, big);
  p.mapLength = Get(f, 16, 8, big);
  p.endOfSpace = Get(f, 24, 8, big);
  p.unsaved = static_cast<uint32_t>(Get(f, 32, 4, big));
  p.encryption = static_cast<uint32_t>(Get(f, 48, 4, big));
  if (Get(f, 36, 4, big) != 4 || Get(f, 40, 8, big) != 512) {
    p.error = "bad step or data start";
    return p;
  }
  for (size_t i = 52; i < 112; ++i) {
    if (f[i] != 0) p.error = "reserved header byte set";
  }
  if (!p.error.empty()) return p;
  if (p.mapLength == 0) {
    if (p.mapAddress != 0 || p.endOfSpace != 512) p.error = "empty container with a map or space";
    return p;
  }
  Chunk map;
  if (!ReadChunk(f, p.mapAddress, p.is0100, big, &map, &p.error)) return p;
  size_t hs = HeaderSize(p.is0100);
  if (map.type != kMapType || map.id != 0 || hs + map.data.size() != p.mapLength ||
      map.data.size() % EntrySize(p.is0100) != 0) {
    p.error = "bad map chunk";
    return p;
  }
  p.mapGeneration = map.generation;
  for (size_t at = 0; at < map.data.size(); at += EntrySize(p.is0100)) {
    MapEntry e;
    auto field = [&](size_t off, int size) { return Get(map.data, at + off, size, big); };
    if (p.is0100) {
      e = MapEntry{static_cast<uint32_t>(field(0, 4)), field(4, 8), static_cast<int64_t>(field(12, 8)),
                   field(20, 8), static_cast<uint32_t>(field(28, 4)), static_cast<uint32_t>(field(32, 4))};
    } else {
      e = MapEntry{static_cast<uint32_t>(field(0, 4)), field(8, 8), static_cast<int64_t>(field(16, 8)),
                   field(24, 8), static_cast<uint32_t>(field(32, 4)), static_cast<uint32_t>(field(36, 4))};
    }
    p.map.push_back(e);
    if (e.address < 1 || e.type == kMapType || e.type == kFreeType) continue;
    Chunk c;
    if (!ReadChunk(f, static_cast<uint64_t>(e.address), p.is0100, big, &c, &p.error)) return p;
    if (c.type != e.type || c.id != e.id) {
      p.error = "map entry names another chunk";
      return p;
    }
    p.chunks.push_back(std::move(c));
  }
  p.error = CheckOrganisation(p, f.size());
  return p;
}

std::vector<Chunk> RandomChunks(uint32_t seed, size_t count, size_t maxLength, uint64_t maxGeneration) {
  std::mt19937 rng(seed);
  const uint32_t types[] = {0, 1, 7, 0x43684D6F, 0x43684D71, 0x54594345, 0x7FFFFFFE, 0x7FFFFFFF};
  std::set<std::pair<uint32_t, uint64_t>> used;
  std::vector<Chunk> chunks;
  while (chunks.size() < count) {
    Chunk c;
    c.type = types[rng() % 8];
    c.id = rng() % 3 == 0 ? (static_cast<uint64_t>(rng()) << 32 | rng()) : rng() % 50;
    if (!used.insert({c.type, c.id}).second) continue;
    c.generation = rng() % (maxGeneration + 1);
    c.extra = rng() % 4 == 0 ? rng() : 0;
    c.flags = rng() % 5 == 0 ? 1 : 0;
    c.data.resize(rng() % 4 == 0 ? 0 : rng() % (maxLength + 1));
    for (auto& b : c.data) b = static_cast<uint8_t>(rng());
    c.checksum = c.flags != 0 ? EncryptedChecksum(c.type, c.id, c.data.data(), c.data.size())
                              : Checksum(c.data.data(), c.data.size());
    chunks.push_back(std::move(c));
  }
  return chunks;
}

Bytes ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace chunk_image
