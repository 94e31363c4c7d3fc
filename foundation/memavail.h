// MemAvail's measurement, with the system it asks made replaceable so the
// search can be run against a simulated address space.
//
// The answer is a share of an allowance: on a machine with paging space a
// working set may go beyond physical memory, so the allowance is the whole
// physical memory, counted in units of 1% but no more than 10737418 bytes
// each; on a machine without it, half of the physical memory less 16 MB (or
// of the available memory, when that is more). `percent` of the allowance is
// then tried as an address-space reservation; when the process cannot get
// that much, a binary search finds the largest size it can get, to within
// an eighth of half the target.
#ifndef PLINTH_FOUNDATION_MEMAVAIL_H_
#define PLINTH_FOUNDATION_MEMAVAIL_H_

#include <cstddef>
#include <cstdint>

#include "foundation/tobject.h"

class TMemAvailSystem : public TObject {
 public:
  virtual ~TMemAvailSystem() = default;
  virtual void QueryPhysical(uint64_t* totalBytes, uint64_t* availableBytes) = 0;
  // Whether working sets may use paging space beyond physical memory.
  virtual bool MayExceedPhysical() = 0;
  // Reserves address space, null when refused.
  virtual void* Reserve(uint64_t bytes) = 0;
  virtual void Release(void* base, uint64_t bytes) = 0;
};

// The machine itself.
TMemAvailSystem* MachineMemAvailSystem();

// MemAvail against `system`.
size_t MemAvailOn(TMemAvailSystem* system, int kind, int percent);

#endif  // PLINTH_FOUNDATION_MEMAVAIL_H_
