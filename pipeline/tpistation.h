// Stations: the processing steps of a pipeline. Each takes items from its
// input queue, works on them and puts them (or a replacement buffer) on its
// output queue, which is the next station's input. Hosts derive from
// TPiSerialStation or TPiParallelStation and override tryDoWorkBuf and
// tryDoMsg; they report failures by throwing a code with UPiThrow.
//
// A message that tryDoMsg consumes is deleted at once and goes no further;
// a small stand-in carrying its number travels on in its place, unseen by
// the later stations' work operations, so their order checks, sequencing
// and the end of the run still see every number.
//
// Log lines (through TPipelineMgr's static log functions):
//   "%s: workUntilEnd: %s" ("!m_sharedInQ" / "!m_sharedOutQ")
//   "%s: workUntilEnd:%d seq=%llu" (filtered: quiet endings are not logged)
//   "%s: work %llu doesn't follow m_sequenceNum %llu" (then -1010)
//   "TPiSequencingStation::tryDoSequencing: !m_sharedOutQ" (then -1011)
//   "TPiSequencingStation::tryDoWorkBuf shouldn't be called"
//   "TPiSequencingStation::tryDoMsg shouldn't be called"
#ifndef PLINTH_PIPELINE_TPISTATION_H_
#define PLINTH_PIPELINE_TPISTATION_H_

#include <cstdint>
#include <map>
#include <string>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "pipeline/pisync.h"
#include "pipeline/tpiq.h"
#include "pipeline/tpiwork.h"

class TPipelineMgr;

class PLINTH_API TPiStation : public TObject {
 public:
  TPiStation(const char* name, TPipelineMgr& mgr, bool use2ndWorkBuf, bool ownThread);
  virtual ~TPiStation();
  TPiStation(const TPiStation&) = delete;
  TPiStation& operator=(const TPiStation&) = delete;

  virtual void setQs(TPiQ* in, TPiQ* out);
  virtual TPiQ* inQ() const { return m_sharedInQ; }
  virtual TPiQ* outQ() const { return m_sharedOutQ; }
  virtual const char* name() const { return m_name.c_str(); }
  virtual uint64_t sequenceNum() const { return 0; }
  virtual bool use2ndWorkBuf() const { return m_use2ndWorkBuf; }
  virtual bool ownThread() const { return m_ownThread; }
  virtual UPiTicks workTime() const { return m_workTime; }
  virtual unsigned workTimeInSecs() const;
  virtual unsigned waitTimeInSecs() const;
  virtual bool isParallel() const { return false; }
  virtual bool isSequencing() const { return false; }
  virtual void tryChkBeforeDoWork(TPiWork& work);
  virtual bool tryDoSequencing(TPiWork& work);
  virtual void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) = 0;
  virtual void tryDoMsg(TPiMsg& msg, bool& consumed) = 0;
  virtual void tryDoWork(TPiWork& work, bool& consumed, TPiWorkBuf*& replacement, bool& sequenced);
  virtual void addWorkToOutQ(TPiWork& work);

  // The thread body: items until the input ends or fails.
  void workUntilEnd();
  // One item; err says why there was none (end, error, abort) or what a
  // work operation threw.
  void waitAndDoWorkOnce(int& err);

 protected:
  TPipelineMgr& mgr() const { return *m_mgr; }

 private:
  bool isTerminal() const;

  TPiQ* m_sharedInQ = nullptr;
  TPiQ* m_sharedOutQ = nullptr;
  std::string m_name;
  TPipelineMgr* m_mgr;
  bool m_use2ndWorkBuf;
  bool m_ownThread;
  UPiTicks m_workTime = 0;
};

class PLINTH_API TPiSerialStation : public TPiStation {
 public:
  TPiSerialStation(const char* name, TPipelineMgr& mgr, bool use2ndWorkBuf, bool ownThread);
  uint64_t sequenceNum() const override { return m_sequenceNum; }
  // Items must arrive numbered m_sequenceNum + 1; else -1010 is thrown.
  void tryChkBeforeDoWork(TPiWork& work) override;
  // Passes `first` on and counts it; numbers `second` one past it.
  void addWork(TPiWork& first, TPiWork& second);

 protected:
  uint64_t m_sequenceNum = 0;
};

// Placed by the manager behind every parallel group: restores the
// producer's order. Never calls the work operations.
class PLINTH_API TPiSequencingStation : public TPiSerialStation {
 public:
  TPiSequencingStation(const char* name, TPipelineMgr& mgr);
  // Deletes items still held (a manager takes its own buffers back first).
  ~TPiSequencingStation() override;
  bool isSequencing() const override { return true; }
  bool tryDoSequencing(TPiWork& work) override;
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) override;
  void tryDoMsg(TPiMsg& msg, bool& consumed) override;

 private:
  friend class TPipelineMgr;
  // Takes the held items out; for the manager's clean-up, which knows which
  // of them are its own buffers.
  std::map<uint64_t, TPiWork*> takeHeldForCleanUp();

  std::map<uint64_t, TPiWork*> m_held;
};

class PLINTH_API TPiParallelStation : public TPiStation {
 public:
  TPiParallelStation(const char* name, TPipelineMgr& mgr, bool use2ndWorkBuf);
  bool isParallel() const override { return true; }
};

// The last station: buffers go on to the pool, messages end here.
class PLINTH_API TPiTerminal : public TPiSerialStation {
 public:
  explicit TPiTerminal(TPipelineMgr& mgr);
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf* buf2, bool& used2nd) override;
  void tryDoMsg(TPiMsg& msg, bool& consumed) override;
};

#endif  // PLINTH_PIPELINE_TPISTATION_H_
