// TPiQ, the queue between two stations of a pipeline.
//
// Takers call waitForWork; the giver calls addWork. The queue has no bound:
// the fixed stock of work buffers is the pipeline's back-pressure. An end
// marker (a TPiMsg with id -1024, numbered one past the last work) is held
// back until every item numbered before it has arrived, so an orderly end
// is safe behind parallel stations. The first error recorded sticks and is
// passed once down the chain of next queues. Every operation, read-outs
// included, holds the queue's mutex; signalling happens after unlocking and
// no code holds two queue locks at once.
//
// Log lines go through TPipelineMgr's static log functions:
//   "TPiQ::signalError:%d"
//   "TPiQUnix::resumeAfterNoMoreWork: error=%d"
//   "TPiQUnix::resumeAfterNoMoreWork: Still waiting for prior work to complete"
#ifndef PLINTH_PIPELINE_TPIQ_H_
#define PLINTH_PIPELINE_TPIQ_H_

#include <cstdint>
#include <deque>
#include <memory>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "pipeline/pisync.h"
#include "pipeline/tpiwork.h"

class TPipelineMgr;

class PLINTH_API TPiQ : public TObject {
 public:
  // A new queue owned by the caller; null when memory is exhausted.
  static TPiQ* factory(TPipelineMgr& mgr);
  // Items still waiting are not the queue's: it deletes none of them.
  virtual ~TPiQ();
  TPiQ(const TPiQ&) = delete;
  TPiQ& operator=(const TPiQ&) = delete;

  virtual void setNextQ(TPiQ& next);
  // The next item, or null with err set: the queue's error, -1015 (abort;
  // passed on down the pipeline), -1 (an abort withdrawn meanwhile) or
  // -1024 (the end, once every item has been taken).
  virtual TPiWork* waitForWork(int& err);
  // putBack: an item returned to the pool it came from, not new work.
  virtual void addWork(TPiWork& work, bool putBack);
  virtual void signalError(int err);
  // Reopens an ended, error-free queue; logs and throws -1011 otherwise.
  virtual void tryResumeAfterNoMoreWork();
  virtual uint64_t msgIn();
  virtual uint64_t workIn();
  virtual uint64_t workOut();
  virtual int error();
  virtual unsigned waitTimeInSecs();

  // Items waiting (for checks and tests).
  size_t pending();

 protected:
  explicit TPiQ(TPipelineMgr& mgr);

 private:
  friend class TPipelineMgr;
  // Takes every waiting item and the held-back end marker out, leaving the
  // counts as they are; for the manager's clean-up.
  std::deque<TPiWork*> takeAllForCleanUp();

  std::deque<TPiWork*> m_work;
  int m_error = 0;
  uint64_t m_msgIn = 0;
  uint64_t m_workIn = 0;
  uint64_t m_workOut = 0;
  TPiWork* m_endMarker = nullptr;  // held back
  bool m_noMoreWork = false;
  TPiQ* m_nextQ = nullptr;
  UPiTicks m_waitTime = 0;
  std::shared_ptr<TPiQMutex> m_mutex;
  std::shared_ptr<TPiQCondition> m_condition;
  TPipelineMgr* m_mgr;
};

#endif  // PLINTH_PIPELINE_TPIQ_H_
