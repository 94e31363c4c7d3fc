#include "storage/pack_catalog.h"

#include <climits>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "containers/byteorder.h"
#include "containers/persist.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/tmemory.h"
#include "foundation/tstring.h"
#include "security/blockhash.h"
#include "security/crc32.h"

namespace {

struct CatalogHeaderSpec {
  PersistHeader persist;
  uint32_t headerLength;
  uint32_t entryCount;
  uint32_t dataType;
  uint32_t digestType;
  uint32_t digestLength;
  uint32_t chunkSize;
  uint64_t totalBytes;
  uint64_t reserved;
};
static_assert(sizeof(CatalogHeaderSpec) == 48);
constexpr const char* kCatalogHeaderLayout = "l2w6l2v";

struct EntryHeaderSpec {
  uint32_t entryLength;
  uint16_t kind;
  uint16_t pathLength;
  uint32_t mode;
  uint32_t chunkCount;
  uint64_t size;
  int64_t mtimeSeconds;
  uint32_t mtimeNanos;
  uint32_t reserved;
};
static_assert(sizeof(EntryHeaderSpec) == 40);
constexpr const char* kEntryHeaderLayout = "l2w2l2v2l";

struct ChunkRefHdrSpec {
  uint32_t id;
  uint32_t length;
  uint32_t crc;
};
static_assert(sizeof(ChunkRefHdrSpec) == 12);
constexpr const char* kChunkRefLayout = "3l";
constexpr size_t kChunkRefSize = sizeof(ChunkRefHdrSpec) + kPackDigestLength;
constexpr uint32_t kMaxPathLength = 0xFFFF;

// Valid UTF-8 (no overlong forms, surrogates or values past U+10FFFF), and
// none of NUL, the other C0 controls, DEL or the backslash.
bool IsCleanUTF8(const std::string& text) {
  size_t i = 0;
  while (i < text.size()) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      if (c < 0x20 || c == 0x7F || c == '\\') return false;
      ++i;
      continue;
    }
    size_t n;
    uint32_t value;
    if (c >= 0xC2 && c <= 0xDF) {
      n = 1;
      value = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      n = 2;
      value = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      n = 3;
      value = c & 0x07;
    } else {
      return false;
    }
    if (text.size() - i <= n) return false;
    for (size_t k = 1; k <= n; ++k) {
      auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      value = value << 6 | (next & 0x3F);
    }
    if ((n == 2 && value < 0x800) || (n == 3 && (value < 0x10000 || value > 0x10FFFF)) ||
        (value >= 0xD800 && value <= 0xDFFF))
      return false;
    i += n + 1;
  }
  return true;
}

// `index` is the offending entry's, -1 for the catalogue as a whole.
int Refuse(const char16_t* what, int index, int code) {
  TString text(what);
  LogLineChecked(517, u"PackDecodeCatalog: %s (entry %~d), %E", &text, index, code);
  return code;
}

// Checks that hold for a whole catalogue, encoded or decoded. `index` of
// the offending entry, or -1 for the catalogue as a whole.
int CheckCatalog(const PackCatalogSpec& catalog, int* index, const char16_t** what) {
  *index = -1;
  if (catalog.chunkSize == 0) {
    *what = u"chunk size 0";
    return kErrFileCorrupt;
  }
  std::unordered_map<std::string, uint16_t> kinds;
  std::unordered_set<uint32_t> ids;
  for (size_t i = 0; i < catalog.entries.size(); ++i) {
    const PackEntrySpec& e = catalog.entries[i];
    *index = static_cast<int>(i);
    if (e.path.size() > kMaxPathLength || !PackIsSafePath(e.path)) {
      *what = u"unsafe path";
      return kErrBadName;
    }
    if (e.kind != kPackKindFile && e.kind != kPackKindFolder) {
      *what = u"unknown kind";
      return kErrFileCorrupt;
    }
    if (e.mode > kPackMaxMode || e.mtimeNanos >= 1000000000u) {
      *what = u"mode or time out of range";
      return kErrFileCorrupt;
    }
    if (!kinds.emplace(e.path, e.kind).second) {
      *what = u"path twice";
      return kErrFileCorrupt;
    }
    if (e.kind == kPackKindFolder && (e.size != 0 || !e.chunks.empty())) {
      *what = u"folder with contents";
      return kErrFileCorrupt;
    }
    uint64_t sum = 0;
    for (const PackChunkRefSpec& c : e.chunks) {
      if (c.id == 0 || c.id > kPackMaxChunkId || c.length == 0 || c.length > catalog.chunkSize) {
        *what = u"chunk id or length out of range";
        return kErrFileCorrupt;
      }
      if (!ids.insert(c.id).second) {
        *what = u"chunk used twice";
        return kErrFileCorrupt;
      }
      sum += c.length;
    }
    if (sum != e.size) {
      *what = u"chunk lengths do not add up to the size";
      return kErrFileCorrupt;
    }
  }
  // Only folders may have entries under them, whatever the order.
  for (size_t i = 0; i < catalog.entries.size(); ++i) {
    const std::string& path = catalog.entries[i].path;
    for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      auto it = kinds.find(path.substr(0, slash));
      if (it != kinds.end() && it->second != kPackKindFolder) {
        *index = static_cast<int>(i);
        *what = u"entry under a file";
        return kErrFileCorrupt;
      }
    }
  }
  *index = -1;
  return 0;
}

uint64_t EntryLength(const PackEntrySpec& e) {
  return sizeof(EntryHeaderSpec) + e.path.size() + e.chunks.size() * kChunkRefSize;
}

// Reads fixed records out of the input, never past its end.
class Reader {
 public:
  Reader(const unsigned char* bytes, size_t length) : m_bytes(bytes), m_length(length) {}
  size_t Left() const { return m_length - m_at; }
  size_t At() const { return m_at; }
  bool Take(void* out, size_t n) {
    if (n > Left()) return false;
    if (n > 0) std::memcpy(out, m_bytes + m_at, n);
    m_at += n;
    return true;
  }
  bool Skip(uint64_t n) {
    if (n > Left()) return false;
    m_at += static_cast<size_t>(n);
    return true;
  }

 private:
  const unsigned char* m_bytes;
  size_t m_length;
  size_t m_at = 0;
};

int DecodeEntry(Reader* in, int index, PackEntrySpec* e) {
  size_t start = in->At();
  EntryHeaderSpec h;
  if (!in->Take(&h, sizeof h)) return Refuse(u"truncated entry header", index, kErrFileCorrupt);
  LittleEndianToHost(&h, kEntryHeaderLayout, sizeof h);
  uint64_t known = sizeof h + uint64_t{h.pathLength} + uint64_t{h.chunkCount} * kChunkRefSize;
  if (h.entryLength < known) return Refuse(u"entry length too short", index, kErrFileCorrupt);
  if (h.entryLength - sizeof h > in->Left()) return Refuse(u"truncated entry", index, kErrFileCorrupt);
  e->kind = h.kind;
  e->mode = h.mode;
  e->size = h.size;
  e->mtimeSeconds = h.mtimeSeconds;
  e->mtimeNanos = h.mtimeNanos;
  e->path.resize(h.pathLength);
  in->Take(e->path.data(), h.pathLength);
  e->chunks.resize(h.chunkCount);  // bounded by the entry length checked above
  for (PackChunkRefSpec& c : e->chunks) {
    ChunkRefHdrSpec r;
    in->Take(&r, sizeof r);
    LittleEndianToHost(&r, kChunkRefLayout, sizeof r);
    c.id = r.id;
    c.length = r.length;
    c.crc = r.crc;
    in->Take(c.digest, kPackDigestLength);
  }
  in->Skip(h.entryLength - (in->At() - start));
  return 0;
}

}  // namespace

bool PackIsSafePath(const std::string& path) {
  if (path.empty() || !IsCleanUTF8(path)) return false;
  size_t start = 0;
  while (true) {
    size_t end = path.find('/', start);
    std::string_view segment(path.data() + start, (end == std::string::npos ? path.size() : end) - start);
    if (segment.empty() || segment == "." || segment == "..") return false;
    if (end == std::string::npos) return true;
    start = end + 1;
  }
}

int PackEncodeCatalog(const PackCatalogSpec& catalog, TMemory* out) {
  int index = -1;
  const char16_t* what = nullptr;
  int status = CheckCatalog(catalog, &index, &what);
  if (status != 0) {
    if (status != kErrBadName) status = kErrInvalidData;
    LogLineChecked(517, u"PackEncodeCatalog: entry %~d refused, %E", index, status);
    return status;
  }
  uint64_t total = sizeof(CatalogHeaderSpec);
  uint64_t totalBytes = 0;
  for (const PackEntrySpec& e : catalog.entries) {
    if (EntryLength(e) > UINT32_MAX) {
      LogLineChecked(517, u"PackEncodeCatalog: entry too long, %E", kErrInvalidData);
      return kErrInvalidData;
    }
    total += EntryLength(e);
    totalBytes += e.size;
  }
  if (catalog.entries.size() > UINT32_MAX || total > UINT32_MAX) {
    LogLineChecked(517, u"PackEncodeCatalog: catalogue too large, %E", kErrFileTooLarge);
    return kErrFileTooLarge;
  }
  if ((status = out->SetSize(total)) != 0) return status;
  auto* at = static_cast<unsigned char*>(out->MemPtr());

  CatalogHeaderSpec h{};
  _initpersist(&h.persist, kPackCatalogSignature, kPackCatalogVersion, kPackCatalogVersion);
  h.headerLength = sizeof h;
  h.entryCount = static_cast<uint32_t>(catalog.entries.size());
  h.dataType = catalog.dataType;
  h.digestType = kPackDigestType;
  h.digestLength = kPackDigestLength;
  h.chunkSize = catalog.chunkSize;
  h.totalBytes = totalBytes;
  HostToLittleEndian(&h, kCatalogHeaderLayout, sizeof h);
  std::memcpy(at, &h, sizeof h);
  at += sizeof h;

  for (const PackEntrySpec& e : catalog.entries) {
    EntryHeaderSpec eh{};
    eh.entryLength = static_cast<uint32_t>(EntryLength(e));
    eh.kind = e.kind;
    eh.pathLength = static_cast<uint16_t>(e.path.size());
    eh.mode = e.mode;
    eh.chunkCount = static_cast<uint32_t>(e.chunks.size());
    eh.size = e.size;
    eh.mtimeSeconds = e.mtimeSeconds;
    eh.mtimeNanos = e.mtimeNanos;
    HostToLittleEndian(&eh, kEntryHeaderLayout, sizeof eh);
    std::memcpy(at, &eh, sizeof eh);
    at += sizeof eh;
    std::memcpy(at, e.path.data(), e.path.size());
    at += e.path.size();
    for (const PackChunkRefSpec& c : e.chunks) {
      ChunkRefHdrSpec r{c.id, c.length, c.crc};
      HostToLittleEndian(&r, kChunkRefLayout, sizeof r);
      std::memcpy(at, &r, sizeof r);
      std::memcpy(at + sizeof r, c.digest, kPackDigestLength);
      at += kChunkRefSize;
    }
  }
  return 0;
}

int PackDecodeCatalog(const unsigned char* bytes, size_t length, PackCatalogSpec* out) {
  *out = PackCatalogSpec();
  Reader in(bytes, bytes == nullptr ? 0 : length);
  CatalogHeaderSpec h;
  if (!in.Take(&h, sizeof h)) return Refuse(u"truncated header", -1, kErrFileCorrupt);
  LittleEndianToHost(&h, kCatalogHeaderLayout, sizeof h);
  int status = _checkpersist(&h.persist, kPackCatalogSignature, 1, kPackCatalogVersion);
  if (status == kErrPersistOtherOrder) status = kErrPersistInvalid;  // always written little-endian
  if (status != 0) return Refuse(u"bad record header", -1, status);
  if (h.headerLength < sizeof h || !in.Skip(h.headerLength - sizeof h))
    return Refuse(u"bad header length", -1, kErrFileCorrupt);
  if (h.digestType != kPackDigestType || h.digestLength != kPackDigestLength)
    return Refuse(u"unknown digest", -1, kErrFileCorrupt);
  // Every entry takes at least its header, which bounds what to reserve.
  if (h.entryCount > in.Left() / sizeof(EntryHeaderSpec)) return Refuse(u"too many entries", -1, kErrFileCorrupt);
  out->dataType = h.dataType;
  out->chunkSize = h.chunkSize;
  out->totalBytes = h.totalBytes;
  out->entries.resize(h.entryCount);
  uint64_t totalBytes = 0;
  for (uint32_t i = 0; i < h.entryCount; ++i) {
    if ((status = DecodeEntry(&in, static_cast<int>(i), &out->entries[i])) != 0) return status;
    totalBytes += out->entries[i].size;
  }
  if (in.Left() != 0) return Refuse(u"bytes after the last entry", -1, kErrFileCorrupt);
  if (totalBytes != out->totalBytes) return Refuse(u"total bytes differ", -1, kErrFileCorrupt);
  int index = -1;
  const char16_t* what = nullptr;
  if ((status = CheckCatalog(*out, &index, &what)) != 0) return Refuse(what, index, status);
  return 0;
}

int PackHashChunk(TBlockHash* hash, uint32_t type, uint32_t id, const unsigned char* data, uint32_t length,
                  PackChunkRefSpec* ref) {
  if (length > INT32_MAX || (data == nullptr && length > 0)) {
    LogLineChecked(517, u"PackHashChunk: chunk %~d refused, %E", static_cast<int>(id), kErrBadParameter);
    return kErrBadParameter;
  }
  uint64_t key = id;
  ref->id = id;
  ref->length = length;
  ref->crc = HashBlock(&key, type, data, static_cast<int>(length));
  if (hash->GetDigestLen() != static_cast<int>(kPackDigestLength) || !hash->Init() ||
      !hash->HashBlock(&key, type, const_cast<unsigned char*>(data), static_cast<int>(length)) ||
      hash->GetDigest(ref->digest, kPackDigestLength) != static_cast<int>(kPackDigestLength)) {
    LogLineChecked(517, u"PackHashChunk: no digest of chunk %~d, %E", static_cast<int>(id), kErrNotSupported);
    return kErrNotSupported;
  }
  return 0;
}

int PackCheckChunk(TBlockHash* hash, uint32_t type, const PackChunkRefSpec& want, const unsigned char* data,
                   uint32_t length) {
  if (length != want.length) {
    LogLineChecked(517, u"PackCheckChunk: chunk %~d has %~d bytes, not %~d, %E", static_cast<int>(want.id),
                   static_cast<int>(length), static_cast<int>(want.length), kErrFileCorrupt);
    return kErrFileCorrupt;
  }
  PackChunkRefSpec got;
  int status = PackHashChunk(hash, type, want.id, data, length, &got);
  if (status != 0) return status;
  if (got.crc != want.crc || std::memcmp(got.digest, want.digest, kPackDigestLength) != 0) {
    LogLineChecked(517, u"PackCheckChunk: chunk %~d does not match its block hashes, %E", static_cast<int>(want.id),
                   kErrCrc);
    return kErrCrc;
  }
  return 0;
}
