// Record moves shared by TDataBuffer and the typed buffers: byte-level
// work on a TMemory seen as records of `recordSize` bytes. Internal.
#ifndef PLINTH_CONTAINERS_TBUFFER_INTERNAL_H_
#define PLINTH_CONTAINERS_TBUFFER_INTERNAL_H_

#include <cstdint>

class TMemory;

namespace tbuffer {

// See TDataBuffer::Append / Insert / RemoveLast.
void* AppendRecords(TMemory* block, uint32_t recordSize, const void* records, uint32_t n);
void* InsertRecords(TMemory* block, uint32_t recordSize, const void* records, uint32_t n, uint32_t at);
int RemoveLastRecords(TMemory* block, uint32_t recordSize, uint32_t n);
// Removes record i, moving the later ones down; i >= count is the
// assertion of line 474.
int RemoveRecord(TMemory* block, uint32_t recordSize, uint32_t i);

}  // namespace tbuffer

#endif  // PLINTH_CONTAINERS_TBUFFER_INTERNAL_H_
