// Internals shared by the element-space sources: field offsets, byte-order
// access, the pinned view of a block, growth and the consistency check.
#ifndef PLINTH_STORAGE_ELEMENT_SPACE_INTERNAL_H_
#define PLINTH_STORAGE_ELEMENT_SPACE_INTERNAL_H_

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/hooks.h"
#include "foundation/tmemory.h"
#include "storage/element_space.h"

namespace lm_internal {

constexpr uint32_t kOffMagic = 0;
constexpr uint32_t kOffOldestReader = 4;
constexpr uint32_t kOffWriter = 6;
constexpr uint32_t kOffLimit = 12;
constexpr uint32_t kOffStart = 16;
constexpr uint32_t kOffEnd = 20;
constexpr uint32_t kOffInitial = 24;
constexpr uint32_t kOffFlags = 28;
constexpr uint32_t kOffLock = 32;
constexpr uint32_t kOffEmpty = 36;
constexpr uint32_t kOffStep = 44;
constexpr uint32_t kOffCount = 72;
constexpr uint32_t kOffSlot0 = 76;
constexpr uint32_t kOffsetMask = 0x7FFFFFFF;
constexpr uint64_t kMaxBlock = 0x7FFFFFFF;

constexpr uint32_t SlotAt(uint32_t n) { return kOffSlot0 + 4 * n; }
// The physical size of a record whose length is already known to be valid.
constexpr uint32_t Phys(uint32_t length) { return (length + 7) & ~3u; }

struct HostOrder {
  static uint32_t Get(const unsigned char* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
  }
  static void Put(unsigned char* p, uint32_t v) { std::memcpy(p, &v, 4); }
  static uint16_t Get16(const unsigned char* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
  }
};

struct BigOrder {
  static uint32_t Get(const unsigned char* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
  }
  static void Put(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
  }
  static uint16_t Get16(const unsigned char* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
};

// The block's bytes for one step of an operation: pooled storage stays put
// (and cannot be archived) until the view goes. Nothing may resize the
// block while a view is held.
template <typename Order>
class LmViewOf {
 public:
  explicit LmViewOf(TMemory& memory) : m_pin(memory), m_bytes(m_pin.Get()), m_size(memory.GetSize()) {
    if (m_bytes == nullptr) m_size = 0;
  }
  LmViewOf(const LmViewOf&) = delete;
  LmViewOf& operator=(const LmViewOf&) = delete;

  // Large enough to hold a header and slot 1 (the smallest block LmNew makes
  // is far larger); operations refuse anything smaller.
  bool Usable() const { return m_size >= kLmOverhead; }
  unsigned char* Bytes() const { return m_bytes; }
  uint32_t Size() const { return m_size; }
  uint32_t Get(uint32_t offset) const { return Order::Get(m_bytes + offset); }
  void Put(uint32_t offset, uint32_t value) { Order::Put(m_bytes + offset, value); }

  uint32_t Start() const { return Get(kOffStart); }
  uint32_t End() const { return Get(kOffEnd); }
  // The stored slot count, cut to the slots that lie inside the block (0
  // when it is too small): a damaged count cannot lead a lookup or a loop
  // over the table outside the block. Unchanged for a consistent block.
  uint32_t Count() const { return Usable() ? std::min(Get(kOffCount), (m_size - kLmHeaderSize) / 4) : 0; }
  uint32_t Slot(uint32_t n) const { return Get(SlotAt(n)); }
  void SetSlot(uint32_t n, uint32_t value) { Put(SlotAt(n), value); }
  // dataStart - (4 * count + 84): may be -4 when the table meets the data.
  int64_t Avail() const { return int64_t{Start()} - (int64_t{4} * Count() + kLmOverhead); }
  // The record offset of number n, 0 when n is out of range or free, or
  // when the record would not lie inside the block.
  uint32_t RecordOf(int n) const {
    if (n < 1 || static_cast<uint32_t>(n) > Count()) return 0;
    uint32_t offset = Slot(static_cast<uint32_t>(n)) & kOffsetMask;
    if (offset == 0 || uint64_t{offset} + 4 > m_size) return 0;
    return offset;
  }

 private:
  TMemoryPin m_pin;
  unsigned char* m_bytes;
  uint32_t m_size;
};

using LmView = LmViewOf<HostOrder>;

// LmLock and LmUnlock for either byte order: the header's count moves, and
// the block is pinned while it is non-zero.
template <typename Order>
int LockSpace(ElementSpace& space) {
  {
    LmViewOf<Order> view(space);
    if (!view.Usable()) return kErrInvalidData;
    view.Put(kOffLock, view.Get(kOffLock) + 1);
  }
  space.Lock();
  return 0;
}

template <typename Order>
int UnlockSpace(ElementSpace& space) {
  {
    LmViewOf<Order> view(space);
    if (!view.Usable() || view.Get(kOffLock) == 0) {
      Debug("lmspace", __LINE__, 0);
      return kErrBadParameter;
    }
    view.Put(kOffLock, view.Get(kOffLock) - 1);
  }
  if (space.GetLockCount() > 0) space.UnLock();
  return 0;
}

// LmGet and LmSize for either byte order: the element's bytes (null after
// the line that says why) and its length (0 for a free number).
template <typename Order>
char* ElementBytes(LmViewOf<Order>& view, int n) {
  uint32_t count = view.Count();
  if (n < 1) {
    LogLineChecked(515, u"LmGet: ndex = %~d < 1", n);
    return nullptr;
  }
  if (static_cast<uint32_t>(n) > count) {
    LogLineChecked(515, u"LmGet: ndex = %~d > nsp->count = %~d", n, static_cast<int32_t>(count));
    return nullptr;
  }
  uint32_t record = view.RecordOf(n);
  if (record == 0) {
    LogLineChecked(515, u"LmGet: ndex = %~d, zero offset", n);
    return nullptr;
  }
  return reinterpret_cast<char*>(view.Bytes() + record + 4);
}

template <typename Order>
int ElementSize(LmViewOf<Order>& view, int n) {
  if (n < 1 || static_cast<uint32_t>(n) > view.Count()) {
    LogLineChecked(515, u"LmSize: ndex = %~d, not in range", n);
    return kErrBadParameter;
  }
  uint32_t record = view.RecordOf(n);
  if (record == 0) return 0;
  // A caller reads LmGet's bytes up to this length: on a damaged block it
  // must not lead past the end.
  uint32_t length = view.Get(record);
  if (length > kLmMaxElementSize || uint64_t{record} + 4 + length > view.Size()) {
    LogLineChecked(515, u"LmSize: ndex = %~d, record runs past the block", n);
    return kErrInvalidData;
  }
  return static_cast<int>(length);
}

// Sum of the physical sizes of the live records.
uint64_t LiveBytes(const LmView& view);

// Growth of the block by at least `shortfall` bytes (a multiple of 4) under
// the growth rule, without touching the block.
struct LmGrowPlan {
  uint64_t newSize = 0;
  uint32_t newStepKB = 0;
};
int PlanGrowth(const LmView& view, uint64_t shortfall, LmGrowPlan* plan);

// Makes LmAvail() at least `need`, compacting first and growing after.
// The caller holds no view. 0 or a code; logs nothing of its own.
int EnsureRoom(ElementSpace& space, uint64_t need);
// Slides the live records up to data end; *freed gets the bytes gained.
// The caller holds no view.
int Compact(ElementSpace& space, uint32_t* freed);

// Writes a free record (or several) covering [offset, offset + bytes).
void WriteGap(LmView& view, uint32_t offset, uint32_t bytes);

// The first fault of a block and the values its line names.
enum class LmFault {
  kNone,
  kTypesig,
  kEndBeforeStart,
  kTooBig,
  kOverlap,
  kOffsetAlign,
  kSizeAlign,
  kSlot0,
  kNegative,
  kOutOfRange,
  kEndedWrong,
  kNowhere,
  kTooMany,
  kZeroCount,
  kNoMemory,
};
struct LmCheckResult {
  LmFault fault = LmFault::kNone;
  int32_t first = 0;
  int32_t second = 0;
};
LmCheckResult CheckHost(const unsigned char* bytes, uint32_t size);
LmCheckResult CheckBig(const unsigned char* bytes, uint32_t size);
// Logs the fault's line; answers 0, kErrInvalidData or kErrMemOutOfMemory.
int ReportFault(const LmCheckResult& result);

}  // namespace lm_internal

#endif  // PLINTH_STORAGE_ELEMENT_SPACE_INTERNAL_H_
