// Internal: the stand-in for an item a station consumed. Later serial
// checks, the sequencing station and the end marker's release all count on
// every number arriving, so the number goes on without the item. The work
// operations never see a stand-in; the terminal deletes it.
#ifndef PLINTH_PIPELINE_TPIGAP_H_
#define PLINTH_PIPELINE_TPIGAP_H_

#include <cstdint>

#include "pipeline/tpiwork.h"

class TPiGap : public TPiMsg {
 public:
  explicit TPiGap(uint64_t sequenceNum) : TPiMsg(0, 0) { setSequenceNum(sequenceNum); }
};

inline bool IsGap(TPiWork& work) { return !work.isWorkBuf() && dynamic_cast<TPiGap*>(&work) != nullptr; }

#endif  // PLINTH_PIPELINE_TPIGAP_H_
