// Element spaces kept as chunks.
#include "storage/element_space_chunk.h"

#include <cstring>
#include <memory>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "storage/element_space_internal.h"

namespace {

constexpr int kLogLevel = 515;

// Replaces `target`'s contents with `size` bytes from `bytes`.
int CopyInto(TMemory* target, const unsigned char* bytes, uint32_t size) {
  int status = target->AllocBuffer(size);
  if (status != 0) return status;
  TMemoryPin pin(*target);
  if (size == 0) return 0;
  if (pin.Get() == nullptr || target->GetSize() != size) {
    return target->CheckError() != 0 ? target->CheckError() : kErrMemOutOfMemory;
  }
  std::memcpy(pin.Get(), bytes, size);
  return 0;
}

}  // namespace

int LmStoreChunk(ChunkManager& cm, ElementSpace& space, int type, int id) {
  lm_internal::LmView view(space);
  if (!view.Usable()) {
    LogLineChecked(kLogLevel, u"LmStoreChunk: not an element space, %E", kErrInvalidData);
    return kErrInvalidData;
  }
  if (cm.CHFindChunk(type, id) != 0) {
    TMemory* handle = nullptr;
    int status = cm.CHGetChunk(type, id, &handle, 0);
    if (status == 0) status = CopyInto(handle, view.Bytes(), view.Size());
    if (status == 0) status = cm.CHChangedChunk(handle);
    if (status != 0) LogLineChecked(kLogLevel, u"LmStoreChunk: can't replace chunk %Y/%~d, %E", type, id, status);
    return status;
  }
  auto handle = std::make_unique<TMemory>();
  int status = CopyInto(handle.get(), view.Bytes(), view.Size());
  if (status == 0) status = cm.CHAddChunk(handle.get(), type, id);
  if (status != 0) {
    LogLineChecked(kLogLevel, u"LmStoreChunk: can't add chunk %Y/%~d, %E", type, id, status);
    return status;
  }
  handle.release();  // the manager owns it now
  return 0;
}

int LmLoadChunk(ChunkManager& cm, int type, int id, ElementSpace* space) {
  if (space == nullptr) {
    LogLineChecked(kLogLevel, u"LmLoadChunk: no space to load into, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  if (space->GetLockCount() != 0) {
    LogLineChecked(kLogLevel, u"LmLoadChunk: the space is locked, %E", kErrInUse);
    return kErrInUse;
  }
  TMemory* handle = nullptr;
  int status = cm.CHGetChunk(type, id, &handle, 1);
  if (status != 0) {
    LogLineChecked(kLogLevel, u"LmLoadChunk: can't read chunk %Y/%~d, %E", type, id, status);
    return status;
  }
  TMemoryPin pin(*handle);
  const unsigned char* bytes = pin.Get();
  uint32_t size = bytes == nullptr ? 0 : handle->GetSize();
  bool big = false;
  if (lm_internal::CheckHost(bytes, size).fault != lm_internal::LmFault::kNone) {
    big = lm_internal::CheckBig(bytes, size).fault == lm_internal::LmFault::kNone;
    if (!big) {
      LogLineChecked(kLogLevel, u"LmLoadChunk: chunk %Y/%~d is not an element space, %E", type, id, kErrInvalidData);
      return kErrInvalidData;
    }
  }
  status = CopyInto(space, bytes, size);
  if (status != 0) {
    LogLineChecked(kLogLevel, u"LmLoadChunk: can't copy chunk %Y/%~d, %E", type, id, status);
    return status;
  }
  TMemoryPin target(*space);
  if (big) {
    lm_internal::BigOrder::Put(target.Get() + lm_internal::kOffLock, 0);
  } else {
    lm_internal::HostOrder::Put(target.Get() + lm_internal::kOffLock, 0);
  }
  return 0;
}
