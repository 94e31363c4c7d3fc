#include "containers/tdatabuffer.h"

#include <cstring>

#include "containers/tbuffer_internal.h"
#include "foundation/errors.h"
#include "foundation/hooks.h"

namespace tbuffer {

namespace {

// True when [p, p + bytes) shares a byte with the block's used bytes.
bool Overlaps(TMemory* block, const void* p, uint64_t bytes) {
  if (block->GetSize() == 0) return false;
  auto start = reinterpret_cast<uintptr_t>(block->MemPtr());
  auto at = reinterpret_cast<uintptr_t>(p);
  return at < start + block->GetSize() && start < at + bytes;
}

}  // namespace

void* AppendRecords(TMemory* block, uint32_t recordSize, const void* records, uint32_t n) {
  return InsertRecords(block, recordSize, records, n, block->GetSize() / recordSize);
}

void* InsertRecords(TMemory* block, uint32_t recordSize, const void* records, uint32_t n, uint32_t at) {
  uint32_t count = block->GetSize() / recordSize;
  if (at > count) {
    Debug("tbuffer", kTBufferLineInsert, 0);
    at = count;
  }
  if (n == 0) return nullptr;
  uint64_t bytes = uint64_t{n} * recordSize;
  // Records taken from this very buffer would move under the copy when the
  // block grows or the tail shifts: set them aside first.
  if (records != nullptr && Overlaps(block, records, bytes)) {
    TMemory aside;
    if (aside.SetSize(bytes) != 0) return nullptr;
    std::memcpy(aside.MemPtr(), records, bytes);
    return InsertRecords(block, recordSize, aside.MemPtr(), n, at);
  }
  uint64_t oldBytes = uint64_t{count} * recordSize;
  if (block->SetSize(oldBytes + bytes, kTBufferPriorityOwn) != 0) return nullptr;
  uint64_t offset = uint64_t{at} * recordSize;
  char* dst = static_cast<char*>(block->MemPtr()) + offset;
  if (offset < oldBytes) std::memmove(dst + bytes, dst, oldBytes - offset);
  if (records != nullptr) {
    std::memcpy(dst, records, bytes);
  } else {
    std::memset(dst, 0, bytes);
  }
  return dst;
}

int RemoveLastRecords(TMemory* block, uint32_t recordSize, uint32_t n) {
  uint32_t count = block->GetSize() / recordSize;
  if (n > count) {
    Debug("tbuffer", kTBufferLineRemoveLast, 0);
    n = count;
  }
  return block->SetSize(uint64_t{count - n} * recordSize, kTBufferPriorityOwn);
}

int RemoveRecord(TMemory* block, uint32_t recordSize, uint32_t i) {
  uint32_t count = block->GetSize() / recordSize;
  if (i >= count) {
    Debug("tbuffer", kTBufferLineRemove, 0);
    return kErrBadParameter;
  }
  char* base = static_cast<char*>(block->MemPtr());
  uint64_t offset = uint64_t{i} * recordSize;
  uint64_t end = uint64_t{count} * recordSize;
  std::memmove(base + offset, base + offset + recordSize, end - offset - recordSize);
  return block->SetSize(end - recordSize, kTBufferPriorityOwn);
}

}  // namespace tbuffer

TDataBuffer::TDataBuffer(unsigned int recordSize) : m_recordSize(recordSize) {
  if (recordSize == 0) {
    Debug("tbuffer", kTBufferLineRecordSize, 0);
    m_recordSize = 1;
  }
}

TDataBuffer::TDataBuffer(const TDataBuffer& other) : TMemory(other), m_recordSize(other.m_recordSize) {}

TDataBuffer& TDataBuffer::operator=(const TDataBuffer& other) {
  TMemory::operator=(other);
  return *this;
}

int TDataBuffer::SetCount(uint32_t n) { return SetSize(uint64_t{n} * m_recordSize, kTBufferPriorityOwn); }

void* TDataBuffer::PointAt(uint32_t i) {
  auto* base = static_cast<char*>(MemPtr());
  if (base == nullptr) return nullptr;
  return base + uint64_t{i} * m_recordSize;
}

void* TDataBuffer::GetAt(uint32_t i) {
  if (i >= Count()) return nullptr;
  return PointAt(i);
}

void* TDataBuffer::Append(const void* records, uint32_t n) {
  return tbuffer::AppendRecords(this, m_recordSize, records, n);
}

void* TDataBuffer::Insert(const void* records, uint32_t n, uint32_t at) {
  return tbuffer::InsertRecords(this, m_recordSize, records, n, at);
}

int TDataBuffer::RemoveLast(uint32_t n) { return tbuffer::RemoveLastRecords(this, m_recordSize, n); }
