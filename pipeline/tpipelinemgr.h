// TPipelineMgr: builds a pipeline out of stations, owns its queues and its
// fixed stock of work buffers, numbers the producer's work, starts and
// joins the station threads and carries the reason a run ended.
//
//   TPipelineMgr mgr(64 * 1024, false);
//   mgr.tryAddStationAfterLast(*new Reader(...));        // mgr owns stations
//   mgr.tryAddStationAfterLast(*new Hasher("h1", mgr));  // parallel group:
//   mgr.tryAddStationParallelToLast(*new Hasher("h2", mgr));
//   mgr.tryAddStationAfterLast(*new Sink(...));          // "Sequencing" goes in first
//   int err; TPiWorkBuf* buf = mgr.waitForWorkBuf(err);  // blocks on the stock
//   ... fill ...; mgr.addWork(*buf);                     // starts the pipeline
//   mgr.noMoreWorkAndWaitTillEnd(whyEnd, elapsed, work, bufWait, buf2Wait, false);
//
// Structural and start-up failures throw library codes (-1011 logic, -1018
// memory, -1 threads); failures during a run become queue errors that reach
// the producer through waitForWorkBuf and finally whyEnd. An error overrides
// an orderly end (-1024), never the reverse. After an orderly end the
// manager may be started again; after an error it may not.
//
// Only the producer's thread calls the manager; station threads touch only
// queues and pools. Log lines go to the debug log: logLine at 514,
// logErrLine at 518 prefixed "--ERR-- ", logErrLineWithFilter as logErrLine
// unless the code is a quiet ending (-1024, -1015).
//
// Ownership: the manager deletes every station handed to it (a refused one
// too), its nodes and queues, and every work buffer it made, wherever the
// buffer is when the manager goes; work buffers are made only by the
// manager. Messages belong to their holder; those still in the pipeline
// when the manager goes are deleted with it.
//
// The stock of buffers is made at the first start. A producer that asks
// for a buffer before anything started starts the pipeline; so does the
// first addWork. Counts that do not add up after a run are marked
// "--ERR--" in the tryChkWorkCounts lines, not thrown: a run ended by an
// error or a cancel leaves items behind.
#ifndef PLINTH_PIPELINE_TPIPELINEMGR_H_
#define PLINTH_PIPELINE_TPIPELINEMGR_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "pipeline/pisync.h"
#include "pipeline/tpipelinenode.h"
#include "pipeline/tpiq.h"
#include "pipeline/tpistation.h"
#include "pipeline/tpiwork.h"

class PLINTH_API TPipelineMgr : public TObject {
 public:
  TPipelineMgr(unsigned bufSize, bool oneBuffer);
  virtual ~TPipelineMgr();
  TPipelineMgr(const TPipelineMgr&) = delete;
  TPipelineMgr& operator=(const TPipelineMgr&) = delete;

  // `where` names the caller in the log lines; a non-empty `detail` (may be
  // null) follows it there after a space. `withCounts` also runs
  // tryChkWorkCounts when the pipeline is idle.
  virtual void tryChkPipeline(bool withCounts, const char* where, const char* detail);
  // The manager takes ownership of the station.
  virtual void tryAddStationAfterLast(TPiStation& station);
  virtual void tryAddStationParallelToLast(TPiParallelStation& station);
  virtual void tryStartPipeline();
  virtual int chkPipeline(bool withCounts, const char* where, const char* detail);
  virtual void addWork(TPiWork& work);
  virtual void noMoreWorkAndReturn();
  // `signalled`: the end was signalled already (noMoreWorkAndReturn);
  // waiting on a run whose end was never signalled does not return.
  virtual void noMoreWorkAndWaitTillEnd(int& whyEnd, unsigned& elapsedSecs, unsigned& workSecs,
                                        unsigned& bufWaitSecs, unsigned& buf2WaitSecs, bool signalled);
  virtual void cancelAndWait(int err, int& whyEnd);
  virtual TPiWorkBuf* waitForWorkBuf(int& err);
  virtual TPiWorkBuf* waitFor2ndWorkBuf(const TPiWorkBuf& buf);
  virtual void returnWorkBuf(TPiWorkBuf& buf);
  virtual void addUnusedWorkBuf(TPiWorkBuf& buf);
  virtual TPiMsg* getMsgBuf(int msgId, int& err, unsigned size);
  // Asked by every queue while it waits, on the station threads: a host's
  // override must be thread-safe, and a subclass that overrides it ends
  // the run in its own destructor (the base destructor would otherwise
  // end it while the override is already gone).
  virtual bool isAbortSignaled();

  bool isRunning() const { return m_running; }
  int whyEnd() const { return m_whyEnd; }
  unsigned bufSize() const { return m_bufSize; }
  unsigned workBufsCreated() const { return m_workBufsCreated; }
  unsigned secondWorkBufsCreated() const { return m_2ndWorkBufsCreated; }
  uint64_t lastSequenceNum() const { return m_sequenceNum; }
  const std::vector<TPiQ*>& queues() const { return m_queues; }

  // The formats are C printf formats over 8-bit strings (%d, %u, %llu, %s
  // of a char*). Each line is rendered here and reaches the debug log whole,
  // as the one argument of a "%s" line.
  [[gnu::format(printf, 1, 2)]] static void logLine(const char* fmt, ...);
  [[gnu::format(printf, 1, 2)]] static void logErrLine(const char* fmt, ...);
  [[gnu::format(printf, 2, 3)]] static void logErrLineWithFilter(int err, const char* fmt, ...);

 protected:
  virtual TPiQ* tryNewQ(bool second);
  virtual TPiSequencingStation* tryNewSequencingStation();
  virtual void tryChkWorkCounts(const char* where);
  virtual void tryDoChkPipeline(const char* where);
  virtual void tryNew1WorkBuf(bool second);
  virtual void tryNewWorkBufsForStation(const TPiStation& station);
  virtual void tryNewAllWorkBufs();
  virtual TPiWorkBuf* doWaitForWorkBuf(int& err, bool second);
  virtual void signalEnd(int why);
  virtual void endAndWait(int why, bool signalled);
  virtual std::string nameOfQ(unsigned index);

 private:
  // Takes `station` into m_stations; false (logged) when it is owned already.
  bool adopt(TPiStation& station, const char* where);
  // Refuses structural changes once the pipeline has its terminal.
  void tryChkNotStarted(const char* where);
  void doAddStationAfterLast(TPiStation& station);
  // Deletes nodes, stations, queues, buffers and stray messages.
  void cleanUp();

  std::vector<std::unique_ptr<TPipelineNode>> m_nodes;
  std::vector<std::unique_ptr<TPiStation>> m_stations;
  std::vector<TPiQ*> m_queues;  // owned
  TPiQ* m_inQ = nullptr;
  TPiQ* m_outQ = nullptr;
  TPiQ* m_Qof2ndWorkBufs = nullptr;  // owned
  unsigned m_bufSize;
  unsigned m_workBufsCreated = 0;
  unsigned m_2ndWorkBufsCreated = 0;
  bool m_running = false;
  int m_whyEnd = 0;
  uint64_t m_sequenceNum = 0;
  TPiTerminal* m_terminal = nullptr;
  bool m_oneBuffer;
  int64_t m_startTime = 0;
  // Every buffer made, of both kinds, wherever it is lent out.
  std::vector<std::unique_ptr<TPiWorkBuf>> m_workBufs;
};

#endif  // PLINTH_PIPELINE_TPIPELINEMGR_H_
