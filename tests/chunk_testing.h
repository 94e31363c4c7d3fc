// Helpers shared by the chunk container tests: a container's chunks as a
// plain map read through the manager's public calls, an independent
// bit-by-bit CRC, and whole-file byte transfers.
#ifndef PLINTH_TESTS_CHUNK_TESTING_H_
#define PLINTH_TESTS_CHUNK_TESTING_H_

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "files/tfileloc.h"
#include "files/tfolderloc.h"
#include "foundation/tmemory.h"
#include "foundation/tstring.h"
#include "storage/chunk_manager.h"

using Bytes = std::vector<uint8_t>;
// (type, id) -> data.
using ChunkState = std::map<std::pair<uint32_t, uint32_t>, Bytes>;

// The CRC of the chunk checksums, computed one bit at a time: polynomial
// 0x04C11DB7, most significant bit first, from 0, no final inversion.
inline uint32_t BitwiseCrc(const uint8_t* data, size_t length) {
  uint32_t crc = 0;
  for (size_t i = 0; i < length; ++i) {
    crc ^= static_cast<uint32_t>(data[i]) << 24;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x80000000u) != 0 ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
  }
  return crc;
}
inline uint32_t StoredChecksum(const Bytes& data) {
  uint32_t crc = BitwiseCrc(data.data(), data.size());
  return crc == 0 ? 1 : crc;
}

inline Bytes HandleBytes(TMemory* handle) {
  const auto* p = static_cast<const uint8_t*>(handle->MemPtr());
  return p == nullptr ? Bytes() : Bytes(p, p + handle->GetSize());
}

// Every chunk the manager enumerates, fetched with CHGetChunk. Answers the
// first failing status (or 1 when the enumeration contradicts itself) and
// says what failed in `why`. With `detach` every handle is detached and
// deleted again, so the next read goes to the file; only for a manager that
// holds no unsaved change in a loaded chunk.
inline int ReadChunkState(ChunkManager* cm, ChunkState* out, std::string* why, bool detach = false) {
  out->clear();
  int types = cm->CHCountTypes();
  for (int t = 1; t <= types; ++t) {
    int type = cm->CHEnumType(t);
    if (static_cast<uint32_t>(type) == kCHMapType) continue;  // the manager's own
    int count = cm->CHCountChunks(type);
    for (int c = 1; c <= count; ++c) {
      int id = cm->CHEnumChunk(type, c);
      TMemory* handle = nullptr;
      int status = cm->CHGetChunk(type, id, &handle, 1);
      if (status != 0 || handle == nullptr) {
        *why = "CHGetChunk(" + std::to_string(type) + ", " + std::to_string(id) + ") = " + std::to_string(status);
        return status != 0 ? status : 1;
      }
      auto key = std::make_pair(static_cast<uint32_t>(type), static_cast<uint32_t>(id));
      if (out->count(key) != 0) {
        *why = "chunk enumerated twice: " + std::to_string(type) + "/" + std::to_string(id);
        return 1;
      }
      (*out)[key] = HandleBytes(handle);
      if (detach && cm->CHDetachChunk(handle) == 0) delete handle;
    }
  }
  return 0;
}

// Equal byte strings, or where they first differ.
inline ::testing::AssertionResult SameBytes(const Bytes& expected, const Bytes& got) {
  if (expected == got) return ::testing::AssertionSuccess();
  size_t i = 0;
  while (i < expected.size() && i < got.size() && expected[i] == got[i]) ++i;
  return ::testing::AssertionFailure() << "expected " << expected.size() << " bytes, got " << got.size()
                                       << ", first difference at " << i;
}

// Equal chunk states, or the first chunk that differs.
inline ::testing::AssertionResult SameChunks(const ChunkState& expected, const ChunkState& got) {
  for (const auto& [key, data] : expected) {
    std::string name = std::to_string(key.first) + "/" + std::to_string(key.second);
    auto it = got.find(key);
    if (it == got.end()) return ::testing::AssertionFailure() << "chunk " << name << " missing";
    ::testing::AssertionResult same = SameBytes(data, it->second);
    if (!same) return ::testing::AssertionFailure() << "chunk " << name << ": " << same.message();
  }
  for (const auto& [key, data] : got) {
    if (expected.count(key) == 0)
      return ::testing::AssertionFailure() << "unexpected chunk " << key.first << "/" << key.second;
  }
  return ::testing::AssertionSuccess();
}

inline Bytes ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
inline void WriteFileBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline TFileLoc FileLocOf(const std::string& path) { return TFileLoc(TStringFromUTF8(path)); }

// Little-endian fields of a byte image.
inline uint64_t GetLE(const Bytes& b, size_t offset, int width) {
  uint64_t v = 0;
  for (int i = width - 1; i >= 0; --i) v = (v << 8) | b.at(offset + static_cast<size_t>(i));
  return v;
}

#endif  // PLINTH_TESTS_CHUNK_TESTING_H_
