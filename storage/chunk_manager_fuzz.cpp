// libFuzzer target: ChunkManager opening hostile container files.
//
// Each input is tried twice, on a file held in memory: as the whole file,
// and as an edit script over a small valid container of either generation
// (three bytes per edit: a 16-bit offset and a byte XORed in there), so
// that mutations reach the map and the chunks and not only the header. Whatever opens is verified,
// enumerated and read chunk by chunk; nothing may crash, read outside its
// buffers, or write to a file opened read only.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "files/tfile.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "foundation/tstring.h"
#include "storage/chunk_format.h"
#include "storage/chunk_manager.h"

namespace {

void Check(bool ok, int line = __builtin_LINE()) {
  if (!ok) {
    std::fprintf(stderr, "chunk_manager_fuzz: check at line %d failed\n", line);
    std::abort();
  }
}

using Bytes = std::vector<unsigned char>;

// An empty file on disk that every TByteFile holds open, so that it counts
// as an open file; removed when the process ends.
class StubFile {
 public:
  StubFile() {
    std::random_device random;
    m_path = std::filesystem::temp_directory_path() / ("chunk_manager_fuzz." + std::to_string(random()));
    std::ofstream(m_path, std::ios::binary).flush();
  }
  ~StubFile() {
    std::error_code ignored;
    std::filesystem::remove(m_path, ignored);
  }
  TFileLoc Loc() const { return TFileLoc(TStringFromUTF8(m_path.string())); }

 private:
  std::filesystem::path m_path;
};

const StubFile& Stub() {
  static const StubFile stub;
  return stub;
}

// A read-only file over a byte vector: the stub's handle makes it open,
// every transfer is served from memory.
class TByteFile : public TFile {
 public:
  explicit TByteFile(const Bytes& bytes) : m_bytes(bytes) { Check(Open(Stub().Loc(), kFileOpenRead) == 0); }
  int ReadAt(uint64_t offset, void* buffer, uint32_t* count) override {
    uint32_t asked = *count;
    *count = 0;
    if (offset >= m_bytes.size()) return asked == 0 ? 0 : kErrEndOfFile;
    uint64_t left = m_bytes.size() - offset;
    uint32_t n = left < asked ? static_cast<uint32_t>(left) : asked;
    if (n > 0) std::memcpy(buffer, m_bytes.data() + offset, n);
    *count = n;
    return n < asked ? kErrEndOfFile : 0;
  }
  int WriteAt(uint64_t, const void*, uint32_t*) override {
    Check(false);  // opened read only
    return kErrWriteFault;
  }
  int GetLength(uint64_t* length) override {
    *length = m_bytes.size();
    return 0;
  }
  int SetLength(uint64_t) override {
    Check(false);
    return kErrWriteFault;
  }
  int Flush() override { return 0; }
  int Sync() override { return 0; }

 private:
  Bytes m_bytes;
};

// A container with two types, an empty chunk, a free extent and the map,
// laid with the format's own encoders in either generation.
Bytes SeedImage(bool is0100) {
  struct Item {
    uint32_t type;
    uint64_t id;
    Bytes data;
  };
  const std::vector<Item> items = {{1, 1, {1, 2, 3, 4, 5}}, {1, 2, {}}, {2, 7, Bytes(12, 0xA5)}};
  const uint64_t hdr = CHChunkHdrSizeOf(is0100);
  auto slot = [hdr](uint64_t length) { return (hdr + length + 3) / 4 * 4; };
  Bytes file(kCHNewDataStart, 0);
  std::vector<CHMapEntrySpec> chunks;
  uint64_t at = kCHNewDataStart;
  for (const Item& item : items) {
    CHChunkHdrSpec h{};
    h.type = item.type;
    h.id = item.id;
    h.length = item.data.size();
    h.generation = 1;
    h.checksum = CHChecksum(item.data.data(), item.data.size());
    file.resize(at + slot(item.data.size()), 0);
    CHEncodeChunkHeader(h, is0100, file.data() + at);
    if (!item.data.empty()) std::memcpy(file.data() + at + hdr, item.data.data(), item.data.size());
    CHMapEntrySpec e{};
    e.type = item.type;
    e.id = item.id;
    e.address = static_cast<int64_t>(at);
    e.slack = slot(item.data.size()) - hdr - item.data.size();
    e.state = kCHStateHasSpace;
    chunks.push_back(e);
    at += slot(item.data.size());
  }
  const uint64_t freeStart = at, freeLength = 8;
  at += freeLength;
  const uint64_t mapAddress = at;
  const size_t count = 9;
  const uint64_t mapData = count * CHMapEntrySizeOf(is0100);
  auto head = [](uint32_t type, uint64_t n) {
    CHMapEntrySpec e{};
    e.type = type;
    e.id = n;
    e.address = kCHGroupHeadAddress;
    return e;
  };
  CHMapEntrySpec self{};
  self.type = kCHMapType;
  self.address = static_cast<int64_t>(mapAddress);
  self.slack = slot(mapData) - hdr - mapData;
  self.state = kCHStateHasSpace;
  CHMapEntrySpec extent{};
  extent.type = kCHFreeType;
  extent.id = freeLength;
  extent.address = static_cast<int64_t>(freeStart);
  const std::vector<CHMapEntrySpec> map = {head(1, 2),           chunks[0],    chunks[1], head(2, 1), chunks[2],
                                           head(kCHMapType, 1), self,         head(kCHFreeType, 1),   extent};
  Check(map.size() == count);
  Bytes entries(mapData);
  CHEncodeMapEntries(map.data(), map.size(), is0100, entries.data());
  CHChunkHdrSpec mh{};
  mh.type = kCHMapType;
  mh.length = mapData;
  mh.generation = 1;
  mh.checksum = CHChecksum(entries.data(), entries.size());
  file.resize(mapAddress + slot(mapData), 0);
  CHEncodeChunkHeader(mh, is0100, file.data() + mapAddress);
  std::memcpy(file.data() + mapAddress + hdr, entries.data(), entries.size());

  CHFileHeaderSpec header;
  CHNewFileHeader(&header);
  header.unsaved = 0;
  header.mapAddress = mapAddress;
  header.mapLength = hdr + mapData;
  header.endOfSpace = mapAddress + slot(mapData);
  if (is0100) header.writer = kCHVersion0100;
  CHEncodeFileHeader(header, file.data());
  return file;
}

// Opens `bytes` read only and walks whatever opens. Answers the open status
// and whether the map check passed.
int Exercise(const Bytes& bytes, bool* verified) {
  TByteFile file(bytes);
  ChunkManager cm;
  int status = cm.CHOpenRef(&file);
  *verified = false;
  if (status != 0) {
    Check(!cm.IsOpen() && status < 0);
    return status;
  }
  *verified = cm.CHVerify() == 0;
  int budget = 4096;  // group counts come from the file
  int types = cm.CHCountTypes();
  for (int t = 1; t <= types + 1 && budget > 0; ++t) {
    int type = cm.CHEnumType(t);
    int chunks = cm.CHCountChunks(type);
    for (int c = 1; c <= chunks + 1 && budget > 0; ++c, --budget) {
      int id = cm.CHEnumChunk(type, c);
      cm.CHFindChunk(type, id);
      int64_t size = cm.CHChunkSize(type, id);
      int64_t address = 0, length = 0;
      cm.CHPhysInfo(type, id, &address, &length);
      if (size < 0 || size > (1 << 20)) continue;
      TMemory* handle = nullptr;
      if (cm.CHGetChunk(type, id, &handle, 1) != 0) continue;
      Check(handle != nullptr);
      if (*verified && !CHIsConfigType(static_cast<uint32_t>(type))) Check(handle->GetSize() == size);
    }
  }
  cm.CHVerify();
  Check(cm.CHClose() == 0);
  return 0;
}

const Bytes& Seed(bool is0100) {
  static const Bytes current = SeedImage(false);
  static const Bytes old = SeedImage(true);
  return is0100 ? old : current;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The seed must stay a good container, or the edits test nothing.
  bool verified = false;
  Check(Exercise(Seed(false), &verified) == 0 && verified);
  Check(Exercise(Seed(true), &verified) == 0 && verified);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bool verified = false;
  Exercise(Bytes(data, data + size), &verified);
  // An odd length edits the 0100 seed.
  Bytes edited = Seed(size % 2 == 1);
  for (size_t i = 0; i + 3 <= size; i += 3) {
    size_t at = (static_cast<size_t>(data[i]) << 8 | data[i + 1]) % edited.size();
    edited[at] ^= data[i + 2];
  }
  Exercise(edited, &verified);
  return 0;
}
