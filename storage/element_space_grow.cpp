// Element spaces: compaction, growth and the capacity queries.
#include <algorithm>
#include <cstring>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/hooks.h"
#include "storage/element_space.h"
#include "storage/element_space_internal.h"

namespace lm_internal {

uint64_t LiveBytes(const LmView& view) {
  uint64_t live = 0;
  uint32_t count = view.Count();
  for (uint32_t n = 1; n <= count; ++n) {
    uint32_t record = view.Slot(n) & kOffsetMask;
    if (record != 0) live += Phys(view.Get(record));
  }
  return live;
}

void WriteGap(LmView& view, uint32_t offset, uint32_t bytes) {
  while (bytes > 0) {
    uint32_t piece = std::min(bytes, kLmMaxElementSize);
    view.Put(offset, piece - 4);
    offset += piece;
    bytes -= piece;
  }
}

int PlanGrowth(const LmView& view, uint64_t shortfall, LmGrowPlan* plan) {
  uint64_t size = view.Size();
  uint32_t floor = std::clamp<uint32_t>(view.Get(kOffInitial), 1, kLmMaxStepKB);
  uint32_t step = std::clamp<uint32_t>(view.Get(kOffStep), floor, kLmMaxStepKB);
  while (size / 4 > uint64_t{step} * 1024 && step < kLmMaxStepKB) step = std::min(step * 2, kLmMaxStepKB);
  uint64_t cap = kMaxBlock;
  uint32_t limitKB = view.Get(kOffLimit);
  if (limitKB != 0) cap = std::min(cap, uint64_t{limitKB} * 1024);
  if (size + shortfall > cap) return kErrMemOutOfMemory;
  uint64_t grow = shortfall;
  if ((view.Get(kOffFlags) & kLmFixedSize) == 0) grow = std::max(grow, uint64_t{step} * 1024);
  plan->newSize = std::min(size + grow, cap);
  plan->newStepKB = step;
  return 0;
}

int Compact(ElementSpace& space, uint32_t* freed) {
  *freed = 0;
  LmView view(space);
  if (!view.Usable()) return kErrInvalidData;
  uint32_t start = view.Start();
  uint32_t end = view.End();
  uint64_t live = LiveBytes(view);
  if (live >= end - start) return 0;
  uint32_t count = view.Count();
  unsigned char* bytes = view.Bytes();
  // Exchanged roles: each slot takes its element's length (mark kept), each
  // live record the negated element number, so a walk of the records tells
  // live from dead with no table beside the block.
  for (uint32_t n = 1; n <= count; ++n) {
    uint32_t slot = view.Slot(n);
    uint32_t record = slot & kOffsetMask;
    if (record == 0) continue;
    view.SetSlot(n, (slot & kLmMarkBit) | view.Get(record));
    view.Put(record, 0u - n);
  }
  // Live records slide down over the gaps, then the packed run moves up to
  // data end in one piece.
  uint32_t write = start;
  for (uint32_t at = start; at < end;) {
    uint32_t word = view.Get(at);
    if (static_cast<int32_t>(word) < 0) {
      uint32_t phys = Phys(view.Slot(0u - word) & kOffsetMask);
      if (write != at) std::memmove(bytes + write, bytes + at, phys);
      write += phys;
      at += phys;
    } else {
      at += Phys(word);
    }
  }
  uint32_t gained = end - write;
  uint32_t newStart = start + gained;
  std::memmove(bytes + newStart, bytes + start, write - start);
  for (uint32_t at = newStart; at < end;) {
    uint32_t n = 0u - view.Get(at);
    uint32_t slot = view.Slot(n);
    uint32_t length = slot & kOffsetMask;
    view.Put(at, length);
    view.SetSlot(n, (slot & kLmMarkBit) | at);
    at += Phys(length);
  }
  view.Put(kOffStart, newStart);
  *freed = gained;
  return 0;
}

namespace {

// Grows the block by at least `shortfall` bytes and moves the data area up
// to the new end.
int Grow(ElementSpace& space, uint64_t shortfall) {
  LmGrowPlan plan;
  {
    LmView view(space);
    int status = PlanGrowth(view, shortfall, &plan);
    if (status != 0) return status;
  }
  int status = space.SetSize(plan.newSize);
  if (status != 0) return status;
  LmView view(space);
  if (view.Size() < plan.newSize) return space.CheckError() != 0 ? space.CheckError() : kErrMemOutOfMemory;
  uint32_t start = view.Start();
  uint32_t end = view.End();
  uint32_t newEnd = view.Size() & ~3u;
  uint32_t delta = newEnd - end;
  std::memmove(view.Bytes() + start + delta, view.Bytes() + start, end - start);
  uint32_t count = view.Count();
  for (uint32_t n = 1; n <= count; ++n) {
    uint32_t slot = view.Slot(n);
    if ((slot & kOffsetMask) != 0) view.SetSlot(n, slot + delta);
  }
  view.Put(kOffStart, start + delta);
  view.Put(kOffEnd, newEnd);
  if ((view.Get(kOffFlags) & kLmFixedSize) == 0) view.Put(kOffStep, plan.newStepKB);
  return 0;
}

}  // namespace

int EnsureRoom(ElementSpace& space, uint64_t need) {
  int64_t afterCompaction = 0;
  bool compact = false;
  {
    LmView view(space);
    if (!view.Usable()) return kErrInvalidData;
    int64_t avail = view.Avail();
    if (static_cast<int64_t>(need) <= avail) return 0;
    uint64_t dead = view.End() - view.Start() - LiveBytes(view);
    afterCompaction = avail + static_cast<int64_t>(dead);
    compact = dead > 0;
  }
  if (compact) {
    uint32_t freed = 0;
    int status = Compact(space, &freed);
    if (status != 0) return status;
  }
  if (static_cast<int64_t>(need) <= afterCompaction) return 0;
  uint64_t shortfall = (static_cast<uint64_t>(static_cast<int64_t>(need) - afterCompaction) + 3) & ~uint64_t{3};
  return Grow(space, shortfall);
}

}  // namespace lm_internal

using lm_internal::kOffCount;
using lm_internal::kOffEmpty;
using lm_internal::kOffLock;
using lm_internal::LmView;

namespace {

constexpr int kLogLevel = 515;

}  // namespace

int ElementSpace::LmCompress() {
  {
    LmView view(*this);
    if (!view.Usable()) {
      LogLineChecked(kLogLevel, u"LmCompress: not an element space, %E", kErrInvalidData);
      return kErrInvalidData;
    }
    if (view.Get(kOffLock) != 0) {
      Debug("lmspace", __LINE__, 0);
      return kErrInUse;
    }
  }
  uint32_t freed = 0;
  int status = lm_internal::Compact(*this, &freed);
  return status != 0 ? status : static_cast<int>(freed);
}

int ElementSpace::LmReserve(int bytes) {
  {
    LmView view(*this);
    if (!view.Usable() || bytes < 0) {
      LogLineChecked(kLogLevel, u"LmReserve: invalid size, %~d", bytes);
      return kErrBadParameter;
    }
    if (view.Get(kOffLock) != 0) {
      Debug("lmspace", __LINE__, 0);
      return kErrInUse;
    }
  }
  int status = lm_internal::EnsureRoom(*this, static_cast<uint64_t>(bytes));
  if (status != 0) LogLineChecked(kLogLevel, u"LmReserve: lmNeeded failed, %E", status);
  return status;
}

int ElementSpace::LmPreflight(int length) {
  int phys = LmPhys(length);
  LmView view(*this);
  if (phys == 0 || !view.Usable()) {
    LogLineChecked(kLogLevel, u"LmPreflight: invalid size, %~d", length);
    return kErrBadParameter;
  }
  if (view.Get(kOffEmpty) == 0 && view.Count() >= kLmMaxCount) {
    LogLineChecked(kLogLevel, u"LmPreflight: element space full, count = %d", static_cast<int32_t>(view.Count()));
    return kErrLmFull;
  }
  int64_t avail = view.Avail();
  if (phys <= avail) return 0;
  int64_t afterCompaction = avail + static_cast<int64_t>(view.End() - view.Start() - lm_internal::LiveBytes(view));
  if (phys <= afterCompaction) return 0;
  uint64_t shortfall = static_cast<uint64_t>(phys - afterCompaction);
  lm_internal::LmGrowPlan plan;
  int status = lm_internal::PlanGrowth(view, shortfall, &plan);
  if (status != 0) {
    LogLineChecked(kLogLevel, u"LmPreflight: cannot grow by %~d bytes, %E", static_cast<int32_t>(shortfall), status);
    return status;
  }
  return static_cast<int>(plan.newSize - view.Size());
}

int ElementSpace::LmFull(int length) {
  int phys = LmPhys(length);
  LmView view(*this);
  if (phys == 0 || !view.Usable()) return 1;
  if (view.Get(kOffEmpty) == 0 && view.Count() >= kLmMaxCount) return 1;
  return phys > view.Avail() ? 1 : 0;
}
