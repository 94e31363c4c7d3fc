// An independent model of chunk container bytes for tests: a builder that
// lays out a container field by field at its documented offsets, and a
// parser that reads one back and checks its organisation. Neither uses the
// library's container code, so the writer, the manager and recovery can be
// checked against them.
#ifndef PLINTH_TESTS_CHUNK_IMAGE_H_
#define PLINTH_TESTS_CHUNK_IMAGE_H_

#include <cstdint>
#include <string>
#include <vector>

namespace chunk_image {

using Bytes = std::vector<uint8_t>;

// MSB-first CRC of polynomial 0x04C11DB7 from 0, bit by bit, 0 made 1.
uint32_t Checksum(const uint8_t* data, size_t n);
// The same CRC over the id's 8 and the type's 4 little-endian bytes, then
// the data; 0 made 1.
uint32_t EncryptedChecksum(uint32_t type, uint64_t id, const uint8_t* data, size_t n);

struct Chunk {
  uint32_t type = 0;
  uint64_t id = 0;
  uint64_t generation = 0;
  uint32_t extra = 0;
  uint32_t flags = 0;
  uint32_t checksum = 0;  // 0: computed from the data when built
  Bytes data;
  uint64_t address = 0;  // filled by Build and Parse
};

struct MapEntry {
  uint32_t type = 0;
  uint64_t id = 0;
  int64_t address = 0;
  uint64_t slack = 0;
  uint32_t state = 0;
  uint32_t extra = 0;
};

struct Options {
  bool is0100 = false;
  bool bigEndian = false;
  uint64_t mapGeneration = 1;
  uint32_t encryption = 0;
  bool unsaved = false;
};

// Little- or big-endian field access.
void Put(Bytes* b, size_t at, uint64_t value, int size, bool big = false);
uint64_t Get(const Bytes& b, size_t at, int size, bool big = false);

size_t HeaderSize(bool is0100);
size_t EntrySize(bool is0100);
// The bytes of one stored chunk header.
Bytes ChunkHeader(const Chunk& chunk, bool is0100, bool big);
// Appends `chunk` (header and data) at the end of `file`, padded to a
// multiple of 4 first; sets chunk->address and fills a zero checksum.
void AppendChunk(Bytes* file, Chunk* chunk, bool is0100, bool big = false);
// The map entries the manager keeps for chunks at their addresses, with the
// map's own slot at `mapAddress` holding `mapLength` bytes.
std::vector<MapEntry> OrganisedMap(const std::vector<Chunk>& chunks, bool is0100, uint64_t mapAddress,
                                   uint64_t mapLength);
Bytes EncodeEntries(const std::vector<MapEntry>& entries, bool is0100, bool big);

// A compact container with `chunks` in the given order from 512 and the map
// last; fills in addresses and checksums.
Bytes Build(std::vector<Chunk>* chunks, const Options& options);

struct Parsed {
  std::string error;  // empty when the container is consistent
  bool is0100 = false;
  bool bigEndian = false;
  uint32_t unsaved = 0;
  uint32_t encryption = 0;
  uint64_t mapAddress = 0;
  uint64_t mapLength = 0;
  uint64_t endOfSpace = 0;
  uint64_t mapGeneration = 0;
  std::vector<MapEntry> map;
  std::vector<Chunk> chunks;  // in map order, the map itself left out
};

// Reads a container and checks it: header fields, map chunk and checksum,
// group organisation, every chunk's header and checksum, and that the slots
// tile the space from 512 to the end of space with slack below 4.
Parsed Parse(const Bytes& file);

// `count` chunks with distinct type and id, types on either side of the
// map's type and up to the largest public one, some empty and some flagged
// encrypted, data of up to
// `maxLength` bytes, generations up to `maxGeneration`; checksums filled.
std::vector<Chunk> RandomChunks(uint32_t seed, size_t count, size_t maxLength = 300, uint64_t maxGeneration = 8);

// Whole-file helpers.
Bytes ReadFile(const std::string& path);
void WriteFile(const std::string& path, const Bytes& bytes);

}  // namespace chunk_image

#endif  // PLINTH_TESTS_CHUNK_IMAGE_H_
