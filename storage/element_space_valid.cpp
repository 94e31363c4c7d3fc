// Element spaces: the consistency check and the repair.
//
// The check reads nothing outside the block, whatever its bytes say, and
// runs in time linear in the block: one walk of the records marks their
// starts in a bitmap, one pass over the slots claims them.
#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "storage/element_space.h"
#include "storage/element_space_internal.h"

namespace lm_internal {

namespace {

constexpr int kLogLevel = 515;

class Bitmap {
 public:
  explicit Bitmap(size_t bits) : m_words((bits + 63) / 64, 0) {}
  bool Test(size_t i) const { return (m_words[i / 64] >> (i % 64)) & 1; }
  void Set(size_t i) { m_words[i / 64] |= uint64_t{1} << (i % 64); }

 private:
  std::vector<uint64_t> m_words;
};

template <typename Order>
LmCheckResult Check(const unsigned char* bytes, uint32_t size) {
  using F = LmFault;
  auto fault = [](F f, uint32_t first = 0, uint32_t second = 0) {
    return LmCheckResult{f, static_cast<int32_t>(first), static_cast<int32_t>(second)};
  };
  if (bytes == nullptr || size < kLmOverhead) return fault(F::kTypesig);
  auto get = [bytes](uint32_t offset) { return Order::Get(bytes + offset); };
  uint32_t magic = get(kOffMagic);
  uint16_t oldest = Order::Get16(bytes + kOffOldestReader);
  if (magic != kLmMagic || oldest > kLmVersion) return fault(F::kTypesig, magic, oldest);
  uint32_t start = get(kOffStart);
  uint32_t end = get(kOffEnd);
  uint32_t count = get(kOffCount);
  if (end < start) return fault(F::kEndBeforeStart, end, start);
  if (end > size) return fault(F::kTooBig, end);
  if (count > kLmMaxCount || uint64_t{80} + uint64_t{4} * count > start) return fault(F::kOverlap, count, start);
  if (start % 4 != 0) return fault(F::kOffsetAlign, start);
  for (uint32_t n = 1; n <= count; ++n) {
    uint32_t record = get(SlotAt(n)) & kOffsetMask;
    if (record % 4 != 0) return fault(F::kOffsetAlign, record);
  }
  if (end % 4 != 0) return fault(F::kSizeAlign, end);
  if (get(kOffSlot0) != 0) return fault(F::kSlot0, get(kOffSlot0));

  try {
    size_t units = (end - start) / 4;
    Bitmap starts(units);
    uint32_t at = start;
    while (at < end) {
      uint32_t length = get(at);
      if (static_cast<int32_t>(length) < 0) return fault(F::kNegative);
      if (length > kLmMaxElementSize || uint64_t{at} + Phys(length) > size) return fault(F::kOutOfRange);
      starts.Set((at - start) / 4);
      at += Phys(length);
    }
    if (at != end) return fault(F::kEndedWrong);

    Bitmap claimed(units);
    uint32_t zeros = 0;
    for (uint32_t n = 1; n <= count; ++n) {
      uint32_t slot = get(SlotAt(n));
      if (slot == 0) {
        ++zeros;
        continue;
      }
      // Only a slot of 0 is free: a mark on offset 0 points nowhere.
      uint32_t record = slot & kOffsetMask;
      if (record < start || record >= end || !starts.Test((record - start) / 4)) return fault(F::kNowhere);
      if (claimed.Test((record - start) / 4)) return fault(F::kTooMany);
      claimed.Set((record - start) / 4);
    }
    if (zeros != get(kOffEmpty)) return fault(F::kZeroCount);
  } catch (const std::bad_alloc&) {
    return fault(F::kNoMemory);
  }
  return fault(F::kNone);
}

}  // namespace

LmCheckResult CheckHost(const unsigned char* bytes, uint32_t size) { return Check<HostOrder>(bytes, size); }
LmCheckResult CheckBig(const unsigned char* bytes, uint32_t size) { return Check<BigOrder>(bytes, size); }

int ReportFault(const LmCheckResult& r) {
  switch (r.fault) {
    case LmFault::kNone:
      return 0;
    case LmFault::kTypesig:
      LogLineChecked(kLogLevel, u"LmValid: typesig = %Y, version = %~d", r.first, r.second);
      break;
    case LmFault::kEndBeforeStart:
      LogLineChecked(kLogLevel, u"LmValid: end = %~d must be >= start = %~d", r.first, r.second);
      break;
    case LmFault::kTooBig:
      LogLineChecked(kLogLevel, u"LmValid: too big, end = %~d", r.first);
      break;
    case LmFault::kOverlap:
      LogLineChecked(kLogLevel, u"LmValid: data/offsets overlap, count = %~d, start = %~d", r.first, r.second);
      break;
    case LmFault::kOffsetAlign:
      LogLineChecked(kLogLevel, u"LmValid: non 4 byte aligned offset = %~d", r.first);
      break;
    case LmFault::kSizeAlign:
      LogLineChecked(kLogLevel, u"LmValid: non 4 byte aligned size = %~d", r.first);
      break;
    case LmFault::kSlot0:
      LogLineChecked(kLogLevel, u"LmValid: non-zero offset = %~d", r.first);
      break;
    case LmFault::kNegative:
      LogLineChecked(kLogLevel, u"LmValid: size is negative");
      break;
    case LmFault::kOutOfRange:
      LogLineChecked(kLogLevel, u"LmValid: size is out of range");
      break;
    case LmFault::kEndedWrong:
      LogLineChecked(kLogLevel, u"LmValid: ended up wrong");
      break;
    case LmFault::kNowhere:
      LogLineChecked(kLogLevel, u"LmValid: offsets to nowhere");
      break;
    case LmFault::kTooMany:
      LogLineChecked(kLogLevel, u"LmValid: too many offsets for datums");
      break;
    case LmFault::kZeroCount:
      LogLineChecked(kLogLevel, u"LmValid: wrong zero count");
      break;
    case LmFault::kNoMemory:
      LogLineChecked(kLogLevel, u"LmValid: no memory for the check, %E", kErrMemOutOfMemory);
      return kErrMemOutOfMemory;
  }
  return kErrInvalidData;
}

}  // namespace lm_internal

using lm_internal::HostOrder;
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
using lm_internal::kOffSlot0;
using lm_internal::kOffStart;
using lm_internal::kOffStep;
using lm_internal::LmFault;
using lm_internal::LmView;
using lm_internal::Phys;
using lm_internal::SlotAt;

int ElementSpace::LmValid() {
  LmView view(*this);
  return lm_internal::ReportFault(lm_internal::CheckHost(view.Bytes(), view.Size()));
}

namespace {

struct Kept {
  uint32_t number;
  uint32_t slot;  // as found: old offset and mark
};

// The elements worth keeping: slots whose record is well formed inside the
// block and lies above the (possibly shortened) slot table, the first
// claimant of a record winning. The table ends below the lowest kept record,
// so numbers beyond a record that the table would cover are dropped.
std::vector<Kept> FindKept(const unsigned char* bytes, uint32_t size, uint32_t* seen) {
  std::vector<Kept> kept;
  uint32_t count = HostOrder::Get(bytes + kOffCount);
  uint32_t readable = (size - 80) / 4;
  count = std::min({count, kLmMaxCount, readable});
  std::vector<bool> claimed(size / 4 + 1, false);
  uint64_t lowest = size;
  *seen = 0;
  for (uint32_t n = 1; n <= count; ++n) {
    uint32_t slot = HostOrder::Get(bytes + SlotAt(n));
    if (slot == 0) continue;
    // A slot lying over a kept record is record bytes, not a slot.
    uint64_t tableEnd = 80 + uint64_t{4} * n;
    if (tableEnd > lowest) break;
    ++*seen;
    uint32_t record = slot & kOffsetMask;
    if (record % 4 != 0 || record < tableEnd || uint64_t{record} + 4 > size) continue;
    uint32_t length = HostOrder::Get(bytes + record);
    if (length > kLmMaxElementSize || uint64_t{record} + 4 + length > size) continue;
    if (claimed[record / 4]) continue;
    claimed[record / 4] = true;
    lowest = std::min<uint64_t>(lowest, record);
    kept.push_back({n, slot});
  }
  return kept;
}

}  // namespace

int ElementSpace::LmRepair() {
  std::vector<unsigned char> rebuilt;
  int dropped = 0;
  try {
    LmView view(*this);
    const unsigned char* bytes = view.Bytes();
    uint32_t size = view.Size();
    lm_internal::LmCheckResult check = lm_internal::CheckHost(bytes, size);
    if (check.fault == LmFault::kNone) return 0;
    bool hopeless = check.fault == LmFault::kTypesig;
    uint32_t seen = 0;
    std::vector<Kept> kept;
    if (!hopeless) kept = FindKept(bytes, size, &seen);
    if (hopeless) {
      if (size >= kLmOverhead) {
        uint32_t readable = std::min(HostOrder::Get(bytes + kOffCount), (size - 80) / 4);
        for (uint32_t n = 1; n <= readable; ++n) dropped += HostOrder::Get(bytes + SlotAt(n)) != 0 ? 1 : 0;
      }
    } else {
      // Kept records are copied out, so overlapping ones each get their own;
      // past the largest block the rest are dropped.
      uint32_t tableEnd = kept.empty() ? 80 : 80 + 4 * kept.back().number;
      uint64_t total = 0;
      size_t fit = 0;
      for (; fit < kept.size(); ++fit) {
        uint64_t phys = Phys(HostOrder::Get(bytes + (kept[fit].slot & kOffsetMask)));
        if (uint64_t{tableEnd} + 4 + total + phys > lm_internal::kMaxBlock) break;
        total += phys;
      }
      kept.resize(fit);
      tableEnd = kept.empty() ? 80 : 80 + 4 * kept.back().number;
      dropped = static_cast<int>(seen - kept.size());
      uint64_t newSize = std::max<uint64_t>(size, uint64_t{tableEnd} + 4 + total);
      uint32_t end = static_cast<uint32_t>(newSize) & ~3u;
      rebuilt.assign(newSize, 0);
      unsigned char* out = rebuilt.data();
      std::memcpy(out, bytes, 80);
      uint32_t count = kept.empty() ? 0 : kept.back().number;
      uint32_t at = end;
      for (const Kept& k : kept) {
        uint32_t from = k.slot & kOffsetMask;
        uint32_t length = HostOrder::Get(bytes + from);
        at -= Phys(length);
        HostOrder::Put(out + at, length);
        std::memcpy(out + at + 4, bytes + from + 4, length);
        HostOrder::Put(out + SlotAt(k.number), (k.slot & kLmMarkBit) | at);
      }
      HostOrder::Put(out + kOffStart, at);
      HostOrder::Put(out + kOffEnd, end);
      HostOrder::Put(out + kOffCount, count);
      HostOrder::Put(out + kOffEmpty, count - static_cast<uint32_t>(kept.size()));
      HostOrder::Put(out + kOffSlot0, 0);
      uint16_t oldest = 0;
      std::memcpy(&oldest, out + kOffOldestReader, 2);
      if (oldest == 0) std::memcpy(out + kOffOldestReader, &kLmVersion, 2);
      uint32_t initial = std::clamp<uint32_t>(HostOrder::Get(out + kOffInitial), 1, kLmMaxStepKB);
      HostOrder::Put(out + kOffInitial, initial);
      HostOrder::Put(out + kOffStep, std::clamp<uint32_t>(HostOrder::Get(out + kOffStep), initial, kLmMaxStepKB));
      uint32_t limitKB = HostOrder::Get(out + kOffLimit);
      if (limitKB != 0 && uint64_t{limitKB} * 1024 < newSize) HostOrder::Put(out + kOffLimit, 0);
      // A stored lock count means nothing once no one holds the space.
      if (GetLockCount() == ((GetFlags() & kTMemPooled) != 0 ? 1 : 0)) HostOrder::Put(out + kOffLock, 0);
    }
  } catch (const std::bad_alloc&) {
    LogLineChecked(515, u"LmRepair: not enough memory, %E", kErrMemOutOfMemory);
    return kErrMemOutOfMemory;
  }
  if (rebuilt.empty()) {
    int status = LmNew(0, 0);
    return status != 0 ? status : dropped;
  }
  int status = SetSize(rebuilt.size());
  LmView view(*this);
  if (status == 0 && view.Size() != rebuilt.size()) status = kErrMemOutOfMemory;
  if (status != 0) {
    LogLineChecked(515, u"LmRepair: not enough memory, %E", status);
    return status;
  }
  std::memcpy(view.Bytes(), rebuilt.data(), rebuilt.size());
  return dropped;
}
