// Nodes: what the pipeline manager keeps in its list. A TSerialNode wraps
// one station and at most one thread; a TParallelGroup holds parallel
// stations sharing one input and one output queue, one thread each. Nodes
// own the threads of their stations and join them without time-out.
//
// Log lines: "TSerialNode::waitForThreadsEnd: m_thread already exists",
// "TSerialNode::waitForThreadsEnd: no m_thread",
// "TParallelGroup::waitForThreadsEnd: no threads",
// "TSerialNode::~TSerialNode: forcing waitForThreadEnd",
// "TParallelGroup::~TParallelGroup: forcing waitForThreadsEnd",
// "TParallelGroup::tryChk: incorrect queues", "%s: work=%us waitForWork=%us".
#ifndef PLINTH_PIPELINE_TPIPELINENODE_H_
#define PLINTH_PIPELINE_TPIPELINENODE_H_

#include <memory>
#include <thread>
#include <vector>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "pipeline/tpistation.h"

class PLINTH_API TPipelineNode : public TObject {
 public:
  virtual ~TPipelineNode() = default;
  // Starts the threads (-1 thrown when one cannot be made).
  virtual void tryStartThreads() = 0;
  virtual void waitForThreadsEnd() = 0;
  virtual bool hasThreads() const = 0;
  virtual void tryChk() = 0;
  virtual TPiQ* inQ() const = 0;
  virtual TPiQ* outQ() const = 0;
  // The first station (the group's first member).
  virtual TPiStation& station() const = 0;
  virtual bool isParallelGroup() const { return false; }
  // Summed work time of the node's stations.
  virtual UPiTicks workTime() const = 0;
  // Logs "%s: work=%us waitForWork=%us" for each station.
  virtual void logStatistics() const = 0;
};

class PLINTH_API TSerialNode : public TPipelineNode {
 public:
  explicit TSerialNode(TPiStation& station);
  ~TSerialNode() override;
  void tryStartThreads() override;
  void waitForThreadsEnd() override;
  bool hasThreads() const override { return m_thread.joinable(); }
  void tryChk() override {}
  TPiQ* inQ() const override { return m_station->inQ(); }
  TPiQ* outQ() const override { return m_station->outQ(); }
  TPiStation& station() const override { return *m_station; }
  UPiTicks workTime() const override { return m_station->workTime(); }
  void logStatistics() const override;

 private:
  TPiStation* m_station;
  std::thread m_thread;
};

class PLINTH_API TParallelGroup : public TPipelineNode {
 public:
  explicit TParallelGroup(TPiParallelStation& first);
  ~TParallelGroup() override;
  void add(TPiParallelStation& station);
  const std::vector<TPiParallelStation*>& stations() const { return m_stations; }
  void tryStartThreads() override;
  void waitForThreadsEnd() override;
  bool hasThreads() const override { return !m_threads.empty(); }
  // All members share one input and one output queue.
  void tryChk() override;
  TPiQ* inQ() const override { return m_stations.front()->inQ(); }
  TPiQ* outQ() const override { return m_stations.front()->outQ(); }
  TPiStation& station() const override { return *m_stations.front(); }
  bool isParallelGroup() const override { return true; }
  UPiTicks workTime() const override;
  void logStatistics() const override;

 private:
  std::vector<TPiParallelStation*> m_stations;
  std::vector<std::thread> m_threads;
};

#endif  // PLINTH_PIPELINE_TPIPELINENODE_H_
