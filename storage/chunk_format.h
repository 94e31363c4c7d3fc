// The chunk container file: its records, their byte images and the checks
// made when a container is opened.
//
// A container is one file: a 112-byte file header at offset 0, then chunk
// slots from the data start (512) to the end of space. Every slot holds a
// chunk header and the chunk's data; the map chunk (type kCHMapType) lists
// every chunk with its type, id and address. Two generations exist: the
// current one (writer version 0x0111, 64-byte chunk headers, 48-byte map
// entries) and the 0100 one (writer version 0x0100, 56 and 44 bytes,
// packed). Both are read; each file is written in its own generation.
//
// Byte order. Everything this library writes is little-endian. A file whose
// magic reads reversed was written big-endian: its header and map are
// reversed field by field on reading. Chunk headers are decoded in the order
// that names the chunk the map expects (see CHDecodeChunkHeader), since a
// saved big-endian file keeps its old chunks in the old order.
//
// The records below are host-order images; the Encode/Decode functions move
// them to and from the bytes of the file. Nothing here logs: the chunk
// manager reports failures in its own terms.
#ifndef PLINTH_STORAGE_CHUNK_FORMAT_H_
#define PLINTH_STORAGE_CHUNK_FORMAT_H_

#include <cstddef>
#include <cstdint>

#include "containers/byteorder.h"
#include "foundation/export.h"

constexpr uint32_t kCHMagic = 0x4366682E;
constexpr uint16_t kCHVersion0100 = 0x0100;
constexpr uint16_t kCHVersionCurrent = 0x0111;
constexpr uint32_t kCHUnsavedMarker = 0x42616421;
constexpr uint32_t kCHEncryptionMarker = 0x456E6321;
constexpr uint32_t kCHMapType = 0x43684D70;
constexpr uint32_t kCHFreeType = 0xFFFFFFFF;
// Configuration chunks, encrypted when the header carries the marker.
constexpr uint32_t kCHConfigTypeA = 0x54594345;
constexpr uint32_t kCHConfigTypeB = 0x54566864;
constexpr uint64_t kCHNewDataStart = 512;
constexpr uint32_t kCHNewAddressStep = 4;
// Map lengths at or above this break an invariant of the format.
constexpr uint64_t kCHMapLengthLimit = 0x7FFFFFFF;

constexpr uint32_t kCHFlagEncrypted = 1;          // chunk header flags
constexpr uint32_t kCHStateHasSpace = 1;          // map entry state bits
constexpr uint32_t kCHStateAllocating = 2;
constexpr int64_t kCHGroupHeadAddress = -1;       // address of a group head

// Library error codes of the container.
constexpr int kErrCHBadMap = -642;
constexpr int kErrCHUnreadable = -643;
constexpr int kErrCHInvalid = -644;
constexpr int kErrCHNotSaved = -645;
constexpr int kErrCHDuplicate = -646;

struct CHFileHeaderSpec {
  uint32_t magic;
  uint16_t oldestReader;
  uint16_t writer;
  uint64_t mapAddress;
  uint64_t mapLength;   // map chunk on disk, its header included
  uint64_t endOfSpace;
  uint32_t unsaved;     // kCHUnsavedMarker while a change is under way
  uint32_t addressStep;
  uint64_t dataStart;
  uint32_t encryption;  // kCHEncryptionMarker or 0
  uint32_t reserved[15];
};
constexpr const char* kCHFileHeaderLayout = "l2w3v2lvl15l";
constexpr size_t kCHFileHeaderSize = 112;
static_assert(sizeof(CHFileHeaderSpec) == kCHFileHeaderSize);
static_assert(LayoutBytes("l2w3v2lvl15l") == kCHFileHeaderSize);

// Current chunk header. `generation` (offset 24) holds the number of the
// save that wrote the chunk; recovery uses it to tell versions apart.
// `extra` (offset 32) is carried unchanged.
struct CHChunkHdrSpec {
  uint32_t type;
  uint32_t reserved0;
  uint64_t id;
  uint64_t length;  // stored data bytes after the header
  uint64_t generation;
  uint32_t extra;
  uint32_t flags;
  uint32_t reserved40;
  uint32_t reserved44;
  uint32_t checksum;  // never 0
  uint32_t reserved52[3];
};
constexpr const char* kCHChunkHdrLayout = "2l3v4l4l";
constexpr size_t kCHChunkHdrSize = 64;
static_assert(sizeof(CHChunkHdrSpec) == kCHChunkHdrSize);
static_assert(LayoutBytes("2l3v4l4l") == kCHChunkHdrSize);

#pragma pack(push, 1)
struct CHChunkHdr0100Spec {
  uint32_t type;
  uint64_t id;
  uint64_t length;
  uint64_t generation;
  uint32_t extra;
  uint32_t flags;
  uint32_t reserved36;
  uint32_t reserved40;
  uint32_t checksum;
  uint64_t reserved48;
};
struct CHMapEntry0100Spec {
  uint32_t type;
  uint64_t id;
  int64_t address;
  uint64_t slack;
  uint32_t state;
  uint32_t extra;
  uint32_t reserved36;
  uint32_t reserved40;
};
#pragma pack(pop)
constexpr const char* kCHChunkHdr0100Layout = "l3v5lv";
constexpr size_t kCHChunkHdr0100Size = 56;
static_assert(sizeof(CHChunkHdr0100Spec) == kCHChunkHdr0100Size);
static_assert(LayoutBytes("l3v5lv") == kCHChunkHdr0100Size);

// In a group head `id` is the group's count and `address` all ones; in the
// free group `id` is the extent's length and `address` its start.
struct CHMapEntrySpec {
  uint32_t type;
  uint32_t reserved0;
  uint64_t id;
  int64_t address;  // below 1: no place on disk yet
  uint64_t slack;   // slot length minus the length asked for
  uint32_t state;
  uint32_t extra;
  uint32_t reserved40[2];
};
constexpr const char* kCHMapEntryLayout = "2l3v4l";
constexpr size_t kCHMapEntrySize = 48;
static_assert(sizeof(CHMapEntrySpec) == kCHMapEntrySize);
static_assert(LayoutBytes("2l3v4l") == kCHMapEntrySize);

constexpr const char* kCHMapEntry0100Layout = "l3v4l";
constexpr size_t kCHMapEntry0100Size = 44;
static_assert(sizeof(CHMapEntry0100Spec) == kCHMapEntry0100Size);
static_assert(LayoutBytes("l3v4l") == kCHMapEntry0100Size);

// The header of a new, empty container (unsaved marker set).
PLINTH_API void CHNewFileHeader(CHFileHeaderSpec* header);

// Decodes the 112 bytes at the start of a file into host order and checks
// them as a persistent header: 0, or -691 to -694 as _checkpersist answers
// (-690 never: a reversed file is converted and *bigEndian set).
PLINTH_API int CHDecodeFileHeader(const unsigned char* bytes, CHFileHeaderSpec* header, bool* bigEndian);
// The little-endian bytes of `header`.
PLINTH_API void CHEncodeFileHeader(const CHFileHeaderSpec& header, unsigned char* bytes);

// 56 for the 0100 generation, 64 for the current one.
inline size_t CHChunkHdrSizeOf(bool is0100) { return is0100 ? kCHChunkHdr0100Size : kCHChunkHdrSize; }
inline size_t CHMapEntrySizeOf(bool is0100) { return is0100 ? kCHMapEntry0100Size : kCHMapEntrySize; }

// Decodes a chunk header of the given generation. It is read in the order
// `bigEndian` names first; when `expectType` is not 0 and the type does not
// match that way but does the other way, the other order is used. Answers
// true when the header read names `expectType` (or no type was expected).
PLINTH_API bool CHDecodeChunkHeader(const unsigned char* bytes, bool is0100, bool bigEndian, uint32_t expectType,
                                    CHChunkHdrSpec* header);
// The little-endian bytes of `header` in the given generation (56 or 64
// bytes; the 0100 form carries type, id, length, generation, extra, flags
// and checksum, and zero elsewhere; reserved words are always written as
// zero).
PLINTH_API void CHEncodeChunkHeader(const CHChunkHdrSpec& header, bool is0100, unsigned char* bytes);

// Decodes `count` stored map entries; 0100 entries are widened (their
// reserved words are not carried).
PLINTH_API void CHDecodeMapEntries(const unsigned char* bytes, size_t count, bool is0100, bool bigEndian,
                                   CHMapEntrySpec* entries);
// The little-endian bytes of `count` entries in the given generation.
PLINTH_API void CHEncodeMapEntries(const CHMapEntrySpec* entries, size_t count, bool is0100, unsigned char* bytes);

// The stored checksum of unencrypted chunk data: the library's CRC-32 from
// 0, most significant bit first, with 0 replaced by 1.
PLINTH_API uint32_t CHChecksum(const unsigned char* data, uint64_t length);
// The stored checksum of encrypted chunk data: the block hash of the
// encrypted bytes keyed by the chunk's id and type.
PLINTH_API uint32_t CHEncryptedChecksum(uint32_t type, uint64_t id, const unsigned char* data, uint64_t length);

// True for the two configuration chunk types.
inline bool CHIsConfigType(uint32_t type) { return type == kCHConfigTypeA || type == kCHConfigTypeB; }

#endif  // PLINTH_STORAGE_CHUNK_FORMAT_H_
