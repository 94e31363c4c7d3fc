#include "foundation/memavail.h"

#include <algorithm>

#include "foundation/hooks.h"
#include "foundation/memory.h"
#include "platform/memory.h"

namespace {

constexpr uint64_t kSpareForKind1 = uint64_t{32} << 20;
constexpr uint64_t kSystemShare = uint64_t{16} << 20;
constexpr uint64_t kMaxUnit = 10737418;
constexpr uint64_t kFinestStep = 4097;

class MachineSystem final : public TMemAvailSystem {
 public:
  void QueryPhysical(uint64_t* totalBytes, uint64_t* availableBytes) override {
    platform::PhysicalMemorySpec status;
    platform::QueryPhysicalMemory(&status);
    *totalBytes = status.totalBytes;
    *availableBytes = status.availableBytes;
  }
  bool MayExceedPhysical() override {
    platform::PhysicalMemorySpec status;
    platform::QueryPhysicalMemory(&status);
    return status.swapTotalBytes > 0;
  }
  void* Reserve(uint64_t bytes) override { return platform::ReserveAddressSpace(static_cast<size_t>(bytes)); }
  void Release(void* base, uint64_t bytes) override {
    platform::ReleaseAddressSpace(base, static_cast<size_t>(bytes));
  }
};

bool CanReserve(TMemAvailSystem* system, uint64_t bytes) {
  void* base = system->Reserve(bytes);
  if (base == nullptr) return false;
  system->Release(base, bytes);
  return true;
}

uint64_t Search(TMemAvailSystem* system, uint64_t target) {
  uint64_t size = target / 2;
  uint64_t step = size;
  uint64_t smallest = size / 8;
  uint64_t answer = 0;
  bool found = false;
  for (;;) {
    step /= 2;
    if (CanReserve(system, size)) {
      answer = size;
      found = true;
      if (step > smallest) size += step;
    } else {
      size -= step;
    }
    if (step <= smallest && (found || step < kFinestStep)) break;
  }
  return answer;
}

}  // namespace

TMemAvailSystem* MachineMemAvailSystem() {
  static MachineSystem* machine = new MachineSystem;  // stateless, lives as long as the process
  return machine;
}

size_t MemAvailOn(TMemAvailSystem* system, int kind, int percent) {
  if (percent < 0 || percent > 100) {
    Debug("memutil_win", 232, 0);
    percent = std::clamp(percent, 0, 100);
  }
  void* spare = kind == 1 ? system->Reserve(kSpareForKind1) : nullptr;

  uint64_t total = 0;
  uint64_t available = 0;
  system->QueryPhysical(&total, &available);
  uint64_t unit;
  if (system->MayExceedPhysical()) {
    unit = std::min(total / 100, kMaxUnit);
  } else {
    uint64_t base = total >= kSystemShare ? total - kSystemShare : 0;
    base = std::max(base, available);
    unit = base / 100 / 2;
  }
  uint64_t target = unit * static_cast<uint64_t>(percent);
  uint64_t answer = CanReserve(system, target) ? target : Search(system, target);

  if (spare != nullptr) system->Release(spare, kSpareForKind1);
  return static_cast<size_t>(answer);
}

size_t MemAvail(int kind, int percent) { return MemAvailOn(MachineMemAvailSystem(), kind, percent); }

unsigned int MemTotalMB() {
  platform::PhysicalMemorySpec status;
  platform::QueryPhysicalMemory(&status);
  return static_cast<unsigned int>(status.totalBytes >> 20);
}

unsigned int MemPhysAvailMB() {
  platform::PhysicalMemorySpec status;
  platform::QueryPhysicalMemory(&status);
  return static_cast<unsigned int>(status.availableBytes >> 20);
}
