// Mapped-file storage of TMemory outside a pool, and the public face of the
// file operations (which for pooled blocks archive and restore).
#include <cstring>

#include "foundation/log.h"
#include "foundation/memory.h"
#include "foundation/tmemory.h"
#include "foundation/tmemory_file.h"
#include "foundation/tmempool_internal.h"
#include "platform/file.h"

namespace {

unsigned int Kilobytes(uint64_t bytes) { return static_cast<unsigned int>(bytes >> 10); }

}  // namespace

int TMemory::MappedResize(uint32_t allocSize) {
  if (allocSize == 0) {
    MappedRelease();
    return 0;
  }
  platform::TMapFile& file = m_file->m_file;
  // Growth lengthens the file before mapping it; a shrink maps the shorter
  // view first, so no mapping ever reaches past the end of the file.
  int code = allocSize > m_allocSize ? file.SetLength(allocSize) : 0;
  if (code == 0) code = file.Map(allocSize);
  if (code == 0 && allocSize < m_allocSize) code = file.SetLength(allocSize);
  // SetSize reports the failure; the errno's own line tells the cause.
  if (code != 0) return code;
  m_ptr = file.Address();
  m_allocSize = allocSize;
  return 0;
}

void TMemory::MappedRelease() {
  platform::TMapFile& file = m_file->m_file;
  file.Map(0);
  file.SetLength(0);
  m_ptr = nullptr;
  m_size = 0;
  m_allocSize = 0;
}

int TMemory::MoveHeapToFile() {
  if (GetLockCount() != 0) {
    LogLine(514, u"TMemory::SetFlags: block is locked, %E", kErrInUse);
    return kErrInUse;
  }
  auto file = std::make_unique<TMemoryFile>();
  int code = CreateMemScratchFile(&file->m_file, &file->m_path);
  if (code == 0 && m_allocSize != 0) {
    code = file->m_file.SetLength(m_allocSize);
    if (code == 0) code = file->m_file.Map(m_allocSize);
    if (code != 0) {
      file->m_file.Close();
      platform::RemoveFile(file->m_path);
    }
  }
  if (code != 0) {
    LogLine(514, u"TMemory::SetFlags: cannot make the mapped file, %E", code);
    return code;
  }
  if (m_size != 0) std::memcpy(file->m_file.Address(), m_ptr, m_size);
  MemFree(m_ptr);
  m_ptr = file->m_file.Address();
  m_file = std::move(file);
  return 0;
}

int TMemory::MoveFileToHeap() {
  if (GetLockCount() != 0) {
    LogLine(514, u"TMemory::SetFlags: block is locked, %E", kErrInUse);
    return kErrInUse;
  }
  void* heap = nullptr;
  if (m_allocSize != 0) {
    heap = MemTryRealloc(nullptr, m_allocSize);
    if (heap == nullptr) {
      LogLine(514, u"TMemory::SetFlags: no heap for %K, %E", Kilobytes(m_allocSize), kErrMemOutOfMemory);
      return kErrMemOutOfMemory;
    }
    std::memcpy(heap, m_ptr, m_size);
  }
  CloseFile(true);
  m_ptr = heap;
  return 0;
}

void TMemory::CloseFile(bool remove) {
  if (m_file == nullptr) return;
  m_file->m_file.Close();
  if (remove) platform::RemoveFile(m_file->m_path);
  m_file.reset();
}

bool TMemory::IsResident() const { return (m_flags & kTMemArchived) == 0; }

int TMemory::createMapFile() {
  if ((m_flags & kTMemPooled) != 0) {
    LogLine(514, u"TMemory::createMapFile: a pooled block is archived by its pool, %E", kErrNotSupported);
    return Record(kErrNotSupported);
  }
  if (m_file != nullptr) return Record(0);
  return SetFlags(kTMemMapped, 0);
}

int TMemory::ArchiveToFile() {
  if ((m_flags & kTMemPooled) != 0) return Record(ArchivePooled());
  if (m_file != nullptr) return Record(0);  // a shared mapping is the file
  return SetFlags(kTMemMapped, 0);
}

int TMemory::MapFromFile() {
  if ((m_flags & kTMemPooled) == 0) return Record(0);
  TMemoryMonitor monitor;
  return Record(RestorePooled());
}

int TMemory::deleteMapFile() {
  if ((m_flags & kTMemPooled) != 0) {
    TMemoryMonitor monitor;
    if ((m_flags & kTMemArchived) != 0) {
      LogLine(514, u"TMemory::deleteMapFile: the archive holds the only copy, %E", kErrInUse);
      return Record(kErrInUse);
    }
    return Record(0);
  }
  if (m_file == nullptr) return Record(0);
  return SetFlags(0, kTMemMapped);
}
