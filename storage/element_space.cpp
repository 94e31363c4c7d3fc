// Element spaces: creation, elements, marks, locking and the size queries.
#include "storage/element_space.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/hooks.h"
#include "foundation/tmempool.h"
#include "storage/element_space_internal.h"

using lm_internal::EnsureRoom;
using lm_internal::kOffCount;
using lm_internal::kOffEmpty;
using lm_internal::kOffEnd;
using lm_internal::kOffFlags;
using lm_internal::kOffInitial;
using lm_internal::kOffLimit;
using lm_internal::kOffLock;
using lm_internal::kOffMagic;
using lm_internal::kOffOldestReader;
using lm_internal::kOffsetMask;
using lm_internal::kOffStart;
using lm_internal::kOffStep;
using lm_internal::kOffWriter;
using lm_internal::LmView;
using lm_internal::Phys;

namespace {

constexpr int kLogLevel = 515;

bool ValidLength(int length) { return length >= 0 && static_cast<uint32_t>(length) <= kLmMaxElementSize; }

// Drops the trailing free numbers from the table.
void TrimTrailing(LmView& view) {
  uint32_t count = view.Count();
  uint32_t empty = view.Get(kOffEmpty);
  while (count > 0 && view.Slot(count) == 0) {
    --count;
    if (empty > 0) --empty;
  }
  view.Put(kOffCount, count);
  view.Put(kOffEmpty, empty);
}

// Writes a record of `length` bytes below data start and gives it number
// n; the room is known to be there.
uint32_t PlaceRecord(LmView& view, uint32_t length) {
  uint32_t phys = Phys(length);
  uint32_t start = view.Start() - phys;
  view.Put(kOffStart, start);
  view.Put(start, length);
  // Padding (and, for a fresh element, its bytes) start as zeros.
  std::memset(view.Bytes() + start + 4, 0, phys - 4);
  return start;
}

// A number for a new element: the lowest free one, else a new last one.
uint32_t TakeNumber(LmView& view) {
  uint32_t count = view.Count();
  uint32_t empty = view.Get(kOffEmpty);
  if (empty > 0) {
    for (uint32_t n = 1; n <= count; ++n) {
      if (view.Slot(n) != 0) continue;
      view.Put(kOffEmpty, empty - 1);
      return n;
    }
    // The count was wrong; the table has no free number.
    view.Put(kOffEmpty, 0);
  }
  view.Put(kOffCount, count + 1);
  view.SetSlot(count + 1, 0);
  return count + 1;
}

// Adds an element of `length` bytes copied from `data` (zeros when null) or,
// with `source` non-zero, from element `source`.
int AddElement(ElementSpace& space, const char* data, int length, uint32_t source) {
  std::vector<char> own;
  {
    LmView view(space);
    if (!view.Usable()) {
      LogLineChecked(kLogLevel, u"LmAdd: lmNeeded failed, %E", kErrInvalidData);
      return kErrInvalidData;
    }
    if (view.Get(kOffLock) != 0) {
      Debug("lmspace", __LINE__, 0);
      return kErrInUse;
    }
    if (!ValidLength(length)) {
      LogLineChecked(kLogLevel, u"LmAdd: invalid size, %~d", length);
      return kErrBadParameter;
    }
    if (view.Get(kOffEmpty) == 0 && view.Count() >= kLmMaxCount) {
      LogLineChecked(kLogLevel, u"LmAdd: element space full, count = %d", static_cast<int32_t>(view.Count()));
      return kErrLmFull;
    }
    // Bytes from inside the block would move with it: take a copy first.
    auto low = reinterpret_cast<uintptr_t>(view.Bytes());
    auto from = reinterpret_cast<uintptr_t>(data);
    if (data != nullptr && length > 0 && from < low + view.Size() && from + static_cast<uintptr_t>(length) > low) {
      own.assign(data, data + length);
      data = own.data();
    }
  }
  int status = EnsureRoom(space, Phys(static_cast<uint32_t>(length)));
  if (status != 0) {
    LogLineChecked(kLogLevel, u"LmAdd: lmNeeded failed, %E", status);
    return status;
  }
  LmView view(space);
  uint32_t n = TakeNumber(view);
  uint32_t record = PlaceRecord(view, static_cast<uint32_t>(length));
  if (source != 0) {
    uint32_t from = view.RecordOf(static_cast<int>(source));
    std::memcpy(view.Bytes() + record + 4, view.Bytes() + from + 4, static_cast<size_t>(length));
  } else if (data != nullptr && length > 0) {
    std::memcpy(view.Bytes() + record + 4, data, static_cast<size_t>(length));
  }
  view.SetSlot(n, record);
  return static_cast<int>(n);
}

}  // namespace

ElementSpace::ElementSpace(int sizeHint, int fixed) { LmNew(sizeHint, fixed); }

ElementSpace::ElementSpace(TMemPool* pool, int fixed) {
  SetMemPool(pool);
  SetFlags(kTMemPooled, 0);
  LmNew(0, fixed);
}

int ElementSpace::LmNew(int sizeHint, int fixed) {
  uint32_t kb = sizeHint / 1024 >= 1 ? static_cast<uint32_t>(sizeHint / 1024) : 1;
  uint32_t size = kb * 1024 + kLmOverhead;
  int status = AllocBuffer(size);
  LmView view(*this);
  if (status == 0 && view.Size() < size) status = CheckError() != 0 ? CheckError() : kErrMemOutOfMemory;
  if (status != 0) {
    LogLineChecked(kLogLevel, u"LmNew: not enough memory, %E", status);
    return status;
  }
  uint32_t flags = fixed != 0 ? kLmFixedSize : 0;
  uint32_t limitKB = 0;
  if ((GetFlags() & kTMemPooled) != 0 && GetMemPool() != nullptr) {
    flags |= kLmPooled;
    limitKB = GetMemPool()->GetMemBlockSize() / 1024;
  }
  unsigned char* bytes = view.Bytes();
  view.Put(kOffMagic, kLmMagic);
  std::memcpy(bytes + kOffOldestReader, &kLmVersion, 2);
  std::memcpy(bytes + kOffWriter, &kLmVersion, 2);
  view.Put(kOffLimit, limitKB);
  view.Put(kOffStart, size);
  view.Put(kOffEnd, size);
  view.Put(kOffInitial, kb);
  view.Put(kOffFlags, flags);
  view.Put(kOffStep, kb);
  return 0;
}

int ElementSpace::LmAdd(const char* data, int length) { return AddElement(*this, data, length, 0); }

int ElementSpace::LmDupe(int n) {
  int length = 0;
  {
    LmView view(*this);
    uint32_t record = view.RecordOf(n);
    if (record == 0) {
      LogLineChecked(kLogLevel, u"LmDupe: ndex = %~d, not in range", n);
      return kErrBadParameter;
    }
    length = static_cast<int>(view.Get(record));
  }
  return AddElement(*this, nullptr, length, static_cast<uint32_t>(n));
}

int ElementSpace::LmSet(int n, int length) {
  uint32_t newPhys = 0;
  {
    LmView view(*this);
    uint32_t record = view.RecordOf(n);
    if (record == 0) {
      LogLineChecked(kLogLevel, u"LmSet: ndex = %~d, not in range", n);
      return kErrBadParameter;
    }
    if (!ValidLength(length)) {
      LogLineChecked(kLogLevel, u"LmSet: invalid size, %~d", length);
      return kErrBadParameter;
    }
    unsigned char* bytes = view.Bytes();
    uint32_t oldLength = view.Get(record);
    uint32_t newLength = static_cast<uint32_t>(length);
    uint32_t oldPhys = Phys(oldLength);
    newPhys = Phys(newLength);
    if (newPhys <= oldPhys) {
      // In place: new bytes and the new padding are zero, the rest is a gap.
      if (newLength > oldLength) std::memset(bytes + record + 4 + oldLength, 0, newLength - oldLength);
      std::memset(bytes + record + 4 + newLength, 0, newPhys - 4 - newLength);
      view.Put(record, newLength);
      if (oldPhys > newPhys) lm_internal::WriteGap(view, record + newPhys, oldPhys - newPhys);
      return 0;
    }
    if (view.Get(kOffLock) != 0) {
      Debug("lmspace", __LINE__, 0);
      return kErrInUse;
    }
  }
  int status = EnsureRoom(*this, newPhys);
  if (status != 0) {
    LogLineChecked(kLogLevel, u"LmSet: lmNeeded failed, %E", status);
    return status;
  }
  // The record moves; the old one stays behind unreferenced.
  LmView view(*this);
  uint32_t slot = view.Slot(static_cast<uint32_t>(n));
  uint32_t from = slot & kOffsetMask;
  uint32_t oldLength = view.Get(from);
  uint32_t record = PlaceRecord(view, static_cast<uint32_t>(length));
  std::memcpy(view.Bytes() + record + 4, view.Bytes() + from + 4, oldLength);
  view.SetSlot(static_cast<uint32_t>(n), (slot & kLmMarkBit) | record);
  return 0;
}

int ElementSpace::LmAddAssert(const char* data, int length) {
  int result = LmAdd(data, length);
  if (result < 0) Debug("lmspace", __LINE__, 0);
  return result;
}

int ElementSpace::LmDupeAssert(int n) {
  int result = LmDupe(n);
  if (result < 0) Debug("lmspace", __LINE__, 0);
  return result;
}

int ElementSpace::LmSetAssert(int n, int length) {
  int result = LmSet(n, length);
  if (result < 0) Debug("lmspace", __LINE__, 0);
  return result;
}

int ElementSpace::LmRemove(int n) {
  LmView view(*this);
  if (n < 1 || static_cast<uint32_t>(n) > view.Count()) {
    LogLineChecked(kLogLevel, u"LmRemove: ndex = %~d, not in range", n);
    return kErrBadParameter;
  }
  if (view.Slot(static_cast<uint32_t>(n)) == 0) return 0;
  view.SetSlot(static_cast<uint32_t>(n), 0);
  view.Put(kOffEmpty, view.Get(kOffEmpty) + 1);
  TrimTrailing(view);
  return 0;
}

int ElementSpace::LmSwap(int m, int n) {
  LmView view(*this);
  uint32_t count = view.Count();
  if (m < 1 || n < 1 || static_cast<uint32_t>(m) > count || static_cast<uint32_t>(n) > count) {
    LogLineChecked(kLogLevel, u"LmSwap: mdex = %~d, ndex = %~d, not in range", m, n);
    return kErrBadParameter;
  }
  uint32_t a = view.Slot(static_cast<uint32_t>(m));
  uint32_t b = view.Slot(static_cast<uint32_t>(n));
  // A free number has no mark to keep.
  uint32_t toM = (b & kOffsetMask) != 0 ? (b & kOffsetMask) | (a & kLmMarkBit) : 0;
  uint32_t toN = (a & kOffsetMask) != 0 ? (a & kOffsetMask) | (b & kLmMarkBit) : 0;
  view.SetSlot(static_cast<uint32_t>(m), toM);
  view.SetSlot(static_cast<uint32_t>(n), toN);
  TrimTrailing(view);
  return 0;
}

char* ElementSpace::LmGetChecked(int n) {
  LmView view(*this);
  return lm_internal::ElementBytes(view, n);
}

int ElementSpace::LmSize(int n) {
  LmView view(*this);
  return lm_internal::ElementSize(view, n);
}

int ElementSpace::LmEnumRef(int n) {
  LmView view(*this);
  if (!view.Usable()) return 0;
  uint32_t count = view.Count();
  for (uint32_t k = n < 0 ? 1 : static_cast<uint32_t>(n) + 1; k <= count; ++k) {
    if ((view.Slot(k) & kOffsetMask) != 0) return static_cast<int>(k);
  }
  return 0;
}

int ElementSpace::LmTest(int n) {
  LmView view(*this);
  return view.RecordOf(n) != 0 ? 1 : 0;
}

int ElementSpace::LmMark(int n) {
  LmView view(*this);
  if (view.RecordOf(n) == 0) {
    LogLineChecked(kLogLevel, u"LmMark: ndex = %~d, not in range", n);
    return kErrBadParameter;
  }
  view.SetSlot(static_cast<uint32_t>(n), view.Slot(static_cast<uint32_t>(n)) | kLmMarkBit);
  return 0;
}

void ElementSpace::LmUnmark() {
  LmView view(*this);
  if (!view.Usable()) return;
  uint32_t count = view.Count();
  for (uint32_t n = 1; n <= count; ++n) view.SetSlot(n, view.Slot(n) & kOffsetMask);
}

int ElementSpace::LmCollect() {
  LmView view(*this);
  if (!view.Usable()) return 0;
  uint32_t count = view.Count();
  uint32_t removed = 0;
  for (uint32_t n = 1; n <= count; ++n) {
    uint32_t slot = view.Slot(n);
    if (slot == 0) continue;
    if ((slot & kLmMarkBit) != 0) {
      view.SetSlot(n, slot & kOffsetMask);
    } else {
      view.SetSlot(n, 0);
      ++removed;
    }
  }
  view.Put(kOffEmpty, view.Get(kOffEmpty) + removed);
  TrimTrailing(view);
  return static_cast<int>(removed);
}

int ElementSpace::LmLock() { return lm_internal::LockSpace<lm_internal::HostOrder>(*this); }

int ElementSpace::LmUnlock() { return lm_internal::UnlockSpace<lm_internal::HostOrder>(*this); }

int ElementSpace::LmPhys(int length) { return ValidLength(length) ? static_cast<int>(Phys(static_cast<uint32_t>(length))) : 0; }

int ElementSpace::LmAvail() {
  LmView view(*this);
  return view.Usable() ? static_cast<int>(view.Avail()) : 0;
}

int ElementSpace::LmEnd() {
  LmView view(*this);
  return view.Usable() ? static_cast<int>(view.End()) : 0;
}

int ElementSpace::LmCount() {
  LmView view(*this);
  return static_cast<int>(view.Count());
}

int ElementSpace::LmCountUsed() {
  LmView view(*this);
  return view.Usable() ? static_cast<int>(view.Count() - view.Get(kOffEmpty)) : 0;
}

int ElementSpace::LmSetParms(int stepKB, int limitKB) {
  LmView view(*this);
  if (!view.Usable() || stepKB < 0 || limitKB < 0) {
    LogLineChecked(kLogLevel, u"LmSetParms: step = %~d, limit = %~d, out of range", stepKB, limitKB);
    return kErrBadParameter;
  }
  if (limitKB != 0 && uint64_t{static_cast<uint32_t>(limitKB)} * 1024 < view.Size()) {
    LogLineChecked(kLogLevel, u"LmSetParms: limit = %~d KB is below the size %~d", limitKB,
                   static_cast<int32_t>(view.Size()));
    return kErrBadParameter;
  }
  uint32_t floor = std::clamp<uint32_t>(view.Get(kOffInitial), 1, kLmMaxStepKB);
  view.Put(kOffStep, std::clamp<uint32_t>(static_cast<uint32_t>(stepKB), floor, kLmMaxStepKB));
  view.Put(kOffLimit, static_cast<uint32_t>(limitKB));
  return 0;
}

int ElementSpace::LmGetParms(int* stepKB, int* limitKB) {
  LmView view(*this);
  if (!view.Usable()) return kErrInvalidData;
  if (stepKB != nullptr) *stepKB = static_cast<int>(view.Get(kOffStep));
  if (limitKB != nullptr) *limitKB = static_cast<int>(view.Get(kOffLimit));
  return 0;
}
