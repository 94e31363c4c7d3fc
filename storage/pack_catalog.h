// The catalogue of a packed folder, and the fingerprints of its chunks.
//
// A packed folder is a chunk container: every regular file is cut into data
// chunks (type kPackDataType, ids 1, 2, 3, ... in packing order, at most
// `chunkSize` bytes each, never empty), and one catalogue chunk (type
// kPackCatalogType, id kPackCatalogId) lists the folder's entries:
//
//   PackCatalogSpec catalog;                    // fill entries, then:
//   TMemory bytes;
//   PackEncodeCatalog(catalog, &bytes);         // the catalogue chunk's data
//   PackDecodeCatalog(data, size, &catalog);    // and back, checked
//
// Each chunk is fingerprinted twice, both over key = its id (8 bytes, least
// significant first), value = its type (4 bytes, the same order) and its
// bytes: the SHA-1 block hash (TBlockHash, type 2) and the CRC block hash
// (crc32.h HashBlock). PackHashChunk computes both, PackCheckChunk compares.
//
// Stored layout, little-endian, version 1 (a reader of version 1 reads every
// record whose oldest-reader number is 1):
//
//   catalogue header, 48 bytes, layout "l2w6l2v":
//     0  PersistHeader: signature 'PkCt' (0x506B4374), oldest reader, writer
//     8  header length (48; a later writer may add fields; readers skip them)
//    12  number of entries
//    16  data chunk type          20  digest type (2, SHA-1)
//    24  digest length (20)       28  chunk size (largest data chunk)
//    32  total bytes of the files 40  reserved (0)
//   then each entry: a 40-byte entry header, layout "l2w2l2v2l":
//     0  entry length (this header, the path and the chunk references;
//        readers skip bytes past what they know)
//     4  kind (1 file, 2 folder)   6  path length in bytes
//     8  mode (permission bits, at most 07777)
//    12  number of chunks         16  size in bytes
//    24  modification time, seconds since 1970-01-01 UTC (signed)
//    32  nanoseconds (below 10^9) 36  reserved (0)
//    40  the path: UTF-8, relative, '/' between its segments
//   then per chunk 12 bytes, layout "3l": id, length, CRC block hash;
//   and the digest (digest length bytes).
//
// Paths. A catalogue names places under the folder it is unpacked into, and
// a container may come from anyone: PackIsSafePath accepts only relative
// paths made of non-empty segments other than "." and "..", valid UTF-8
// without NUL, backslash or control characters. Decoding refuses a
// catalogue with an unsafe path, a path twice, an entry under a path that
// is a file, a chunk id used twice or outside 1..0x7FFFFFFF, a file whose
// chunk lengths do not add up to its size, a folder with chunks, a chunk
// longer than the chunk size or empty, and any field or length that does
// not fit the bytes given. Every refusal returns a library code and logs
// one line at 517 ("PackDecodeCatalog: <what>, %E"); no input crashes it.
#ifndef PLINTH_STORAGE_PACK_CATALOG_H_
#define PLINTH_STORAGE_PACK_CATALOG_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/export.h"

class TBlockHash;
class TMemory;

constexpr uint32_t kPackCatalogSignature = 0x506B4374;  // 'PkCt'
constexpr unsigned short kPackCatalogVersion = 1;
constexpr int kPackCatalogType = 0x506B4374;  // 'PkCt'
constexpr int kPackCatalogId = 1;
constexpr int kPackDataType = 0x506B4461;  // 'PkDa'
constexpr uint32_t kPackDigestType = 2;    // SHA-1
constexpr uint32_t kPackDigestLength = 20;
constexpr uint32_t kPackMaxChunkId = 0x7FFFFFFF;
constexpr uint32_t kPackMaxMode = 07777;

constexpr uint16_t kPackKindFile = 1;
constexpr uint16_t kPackKindFolder = 2;

// One data chunk of a file.
struct PackChunkRefSpec {
  uint32_t id = 0;
  uint32_t length = 0;
  uint32_t crc = 0;  // CRC block hash
  unsigned char digest[kPackDigestLength] = {};  // SHA-1 block hash
};

struct PackEntrySpec {
  std::string path;  // UTF-8, relative, '/'-separated
  uint16_t kind = kPackKindFile;
  uint32_t mode = 0;
  uint64_t size = 0;
  int64_t mtimeSeconds = 0;
  uint32_t mtimeNanos = 0;
  std::vector<PackChunkRefSpec> chunks;  // files only, in file order
};

struct PackCatalogSpec {
  uint32_t dataType = kPackDataType;
  uint32_t chunkSize = 0;
  uint64_t totalBytes = 0;  // filled in by the encoder
  std::vector<PackEntrySpec> entries;
};

// True when `path` may name a place under the folder being unpacked.
PLINTH_API bool PackIsSafePath(const std::string& path);

// The stored form of `catalog` in `out` (resized to it). Refuses what the
// decoder would refuse (kErrBadName for an unsafe path, kErrInvalidData for
// the rest), so that what is written can be read back.
PLINTH_API int PackEncodeCatalog(const PackCatalogSpec& catalog, TMemory* out);

// Reads `length` bytes into `out`: 0, the PersistHeader check's code
// (-691 .. -694; a header in the other byte order is -691), kErrBadName for
// an unsafe path, or kErrFileCorrupt for anything else out of order.
PLINTH_API int PackDecodeCatalog(const unsigned char* bytes, size_t length, PackCatalogSpec* out);

// Fingerprints one chunk into `ref` (id, length, CRC and digest). `hash`
// is the caller's TBlockHash of type 2, reused from chunk to chunk.
// kErrNotSupported when the digest cannot be made.
PLINTH_API int PackHashChunk(TBlockHash* hash, uint32_t type, uint32_t id, const unsigned char* data, uint32_t length,
                             PackChunkRefSpec* ref);

// 0 when `data` is the chunk `want` describes; kErrFileCorrupt for another
// length, kErrCrc for another fingerprint, or PackHashChunk's failure.
PLINTH_API int PackCheckChunk(TBlockHash* hash, uint32_t type, const PackChunkRefSpec& want, const unsigned char* data,
                              uint32_t length);

#endif  // PLINTH_STORAGE_PACK_CATALOG_H_
