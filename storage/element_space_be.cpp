// Element spaces held in big-endian order: reading them as they are, and
// turning them into host order.
#include <cstring>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/hooks.h"
#include "storage/element_space.h"
#include "storage/element_space_internal.h"

using lm_internal::BigOrder;
using lm_internal::HostOrder;
using lm_internal::kOffLock;
using lm_internal::kOffMagic;
using lm_internal::kOffOldestReader;
using lm_internal::kOffWriter;
using lm_internal::Phys;
using lm_internal::SlotAt;

namespace {

constexpr int kLogLevel = 515;
using BigView = lm_internal::LmViewOf<BigOrder>;

}  // namespace

char* ElementSpace::LmGetBE(int n) {
  BigView view(*this);
  return lm_internal::ElementBytes(view, n);
}

int ElementSpace::LmSizeBE(int n) {
  BigView view(*this);
  return lm_internal::ElementSize(view, n);
}

int ElementSpace::LmLockBE() { return lm_internal::LockSpace<lm_internal::BigOrder>(*this); }

int ElementSpace::LmUnlockBE() { return lm_internal::UnlockSpace<lm_internal::BigOrder>(*this); }

int ElementSpace::LmValidBE() {
  BigView view(*this);
  return lm_internal::ReportFault(lm_internal::CheckBig(view.Bytes(), view.Size()));
}

bool ElementSpace::LmIsBE() {
  BigView view(*this);
  return view.Size() >= 4 && view.Get(kOffMagic) == kLmMagic && HostOrder::Get(view.Bytes()) != kLmMagic;
}

int ElementSpace::LmFromBE() {
  BigView view(*this);
  int status = lm_internal::ReportFault(lm_internal::CheckBig(view.Bytes(), view.Size()));
  if (status != 0) {
    LogLineChecked(kLogLevel, u"LmFromBE: not a big-endian element space, %E", status);
    return status;
  }
  unsigned char* bytes = view.Bytes();
  auto swap = [bytes](uint32_t offset) { HostOrder::Put(bytes + offset, BigOrder::Get(bytes + offset)); };
  // Records first, while the header still tells where they are.
  uint32_t end = view.End();
  for (uint32_t at = view.Start(); at < end;) {
    uint32_t length = view.Get(at);
    swap(at);
    at += Phys(length);
  }
  uint32_t count = view.Count();
  for (uint32_t n = 1; n <= count; ++n) swap(SlotAt(n));
  for (uint32_t offset = 0; offset < kLmHeaderSize; offset += 4) {
    if (offset == kOffOldestReader) continue;
    swap(offset);
  }
  for (uint32_t offset : {kOffOldestReader, kOffWriter}) {
    uint16_t value = BigOrder::Get16(bytes + offset);
    std::memcpy(bytes + offset, &value, 2);
  }
  return 0;
}
