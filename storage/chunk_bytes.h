// TCHBytes: a scratch byte block for the container's copy and scan loops.
//
// The block comes from the library's heap but through MemTryRealloc, so a
// request the heap cannot meet (a chunk of hundreds of megabytes on a small
// machine) is an answer the caller turns into a status, not an abort. The
// contents are not kept across a Reserve that has to grow the block.
#ifndef PLINTH_STORAGE_CHUNK_BYTES_H_
#define PLINTH_STORAGE_CHUNK_BYTES_H_

#include <cstddef>

#include "foundation/memory.h"
#include "foundation/tobject.h"

class TCHBytes : public TObject {
 public:
  TCHBytes() = default;
  ~TCHBytes() { MemFree(m_data); }
  TCHBytes(const TCHBytes&) = delete;
  TCHBytes& operator=(const TCHBytes&) = delete;

  // Room for at least `size` bytes; false when the heap refuses, and the
  // block is then empty.
  bool Reserve(size_t size) {
    if (size <= m_capacity && m_data != nullptr) return true;
    MemFree(m_data);
    m_data = nullptr;
    m_capacity = 0;
    void* block = MemTryRealloc(nullptr, size == 0 ? 1 : size);
    if (block == nullptr) return false;
    m_data = static_cast<unsigned char*>(block);
    m_capacity = size;
    return true;
  }
  unsigned char* Data() { return m_data; }
  size_t Capacity() const { return m_capacity; }

 private:
  unsigned char* m_data = nullptr;
  size_t m_capacity = 0;
};

#endif  // PLINTH_STORAGE_CHUNK_BYTES_H_
