// What TMemory needs of the pools beyond their public interface. Internal
// to the memory module.
#ifndef PLINTH_FOUNDATION_TMEMPOOL_INTERNAL_H_
#define PLINTH_FOUNDATION_TMEMPOOL_INTERNAL_H_

#include "foundation/tmemory.h"
#include "foundation/tmempool.h"

// TMemory's monitor for a scope.
class TMemoryMonitor {
 public:
  TMemoryMonitor() { TMemory::MonitorEnter(); }
  ~TMemoryMonitor() { TMemory::MonitorExit(); }
  TMemoryMonitor(const TMemoryMonitor&) = delete;
  TMemoryMonitor& operator=(const TMemoryMonitor&) = delete;
};

// Gives `owner` a committed block of `pool`, archiving the oldest blocks
// first when a new block would pass the ceiling. 0, or kErrMemOutOfMemory
// when no room could be made. Logs nothing: the caller knows what failed.
int ReservePoolBlock(TMemPool* pool, TMemory* owner, TMemPoolBlock** out);

#endif  // PLINTH_FOUNDATION_TMEMPOOL_INTERNAL_H_
