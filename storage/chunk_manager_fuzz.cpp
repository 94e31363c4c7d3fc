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

// A file over a byte vector: the stub's handle makes it open, every
// transfer is served from memory. A read-only one must never be written.
class TByteFile : public TFile {
 public:
  static constexpr uint64_t kLimit = 16 << 20;

  TByteFile(const Bytes& bytes, bool writable) : m_bytes(bytes), m_writable(writable) {
    Check(Open(Stub().Loc(), writable ? kFileOpenReadWrite : kFileOpenRead) == 0);
  }
  const Bytes& bytes() const { return m_bytes; }

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
  int WriteAt(uint64_t offset, const void* buffer, uint32_t* count) override {
    Check(m_writable);
    uint32_t asked = *count;
    *count = 0;
    if (offset + asked > kLimit) return kErrWriteFault;
    if (m_bytes.size() < offset + asked) m_bytes.resize(offset + asked, 0);
    if (asked > 0) std::memcpy(m_bytes.data() + offset, buffer, asked);
    *count = asked;
    return 0;
  }
  int GetLength(uint64_t* length) override {
    *length = m_bytes.size();
    return 0;
  }
  int SetLength(uint64_t length) override {
    Check(m_writable);
    if (length > kLimit) return kErrWriteFault;
    m_bytes.resize(length, 0);
    return 0;
  }
  int Flush() override { return 0; }
  int Sync() override { return 0; }

 private:
  Bytes m_bytes;
  bool m_writable;
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
  TByteFile file(bytes, false);
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

// A container that opened and verified takes a new chunk and a change and
// saves; if the save succeeds, the result reopens, verifies and holds the
// new chunk.
void ChangeAndSave(const Bytes& bytes) {
  TByteFile file(bytes, true);
  ChunkManager cm;
  if (cm.CHOpenRef(&file) != 0 || cm.CHVerify() != 0) return;
  const Bytes added = {9, 8, 7, 6, 5, 4, 3, 2, 1};
  const int type = 0x7F000001;
  if (cm.CHFindChunk(type, 1) != 0) return;
  auto* handle = new TMemory;
  Check(handle->SetSize(added.size()) == 0);
  std::memcpy(handle->MemPtr(), added.data(), added.size());
  if (cm.CHAddChunk(handle, type, 1) != 0) {
    delete handle;
    return;
  }
  if (cm.CHCountTypes() > 0) {
    int first = cm.CHEnumType(1);
    TMemory* other = nullptr;
    if (first != type && cm.CHGetChunk(first, cm.CHEnumChunk(first, 1), &other, 1) == 0 && other->SetSize(40) == 0) {
      cm.CHChangedChunk(other);
    }
  }
  Check(cm.CHVerify() == 0);
  if (cm.CHSave(0) != 0) return;
  Check(cm.CHVerify() == 0);
  cm.CHClose();

  TByteFile saved(file.bytes(), false);
  ChunkManager reader;
  Check(reader.CHOpenRef(&saved) == 0);
  Check(reader.CHVerify() == 0);
  TMemory* got = nullptr;
  Check(reader.CHGetChunk(type, 1, &got, 1) == 0);
  Check(got->GetSize() == added.size() && std::memcmp(got->MemPtr(), added.data(), added.size()) == 0);
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
  ChangeAndSave(Seed(false));
  ChangeAndSave(Seed(true));
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
  if (Exercise(edited, &verified) == 0 && verified) ChangeAndSave(edited);
  return 0;
}
