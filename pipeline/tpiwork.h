// Work items: the work buffers that circulate between the producer, the
// stations and the pool, and the messages that travel through every station
// in order. Items are numbered by the pipeline manager (1, 2, 3, ...).
//
// A buffer that cannot be allocated logs
// "TPiWork::TPiWork: can't allocate m_buf[%u]" and throws -1018.
#ifndef PLINTH_PIPELINE_TPIWORK_H_
#define PLINTH_PIPELINE_TPIWORK_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API TPiWork : public TObject {
 public:
  explicit TPiWork(unsigned size);
  virtual ~TPiWork();
  TPiWork(const TPiWork&) = delete;
  TPiWork& operator=(const TPiWork&) = delete;

  virtual void setSequenceNum(uint64_t sequenceNum) { m_sequenceNum = sequenceNum; }
  virtual uint64_t sequenceNum() const { return m_sequenceNum; }
  virtual unsigned char* buf() { return m_buf; }
  virtual unsigned bufSize() const { return m_bufSize; }
  virtual bool isWorkBuf() const = 0;
  virtual int msgId() const { return 0; }

 private:
  uint64_t m_sequenceNum = 0;
  unsigned char* m_buf = nullptr;  // owned
  unsigned m_bufSize = 0;
};

class PLINTH_API TPiWorkBuf : public TPiWork {
 public:
  explicit TPiWorkBuf(unsigned size) : TPiWork(size) {}
  bool isWorkBuf() const override { return true; }
};

// The id -1024 is the end marker's.
class PLINTH_API TPiMsg : public TPiWork {
 public:
  TPiMsg(int msgId, unsigned size) : TPiWork(size), m_msgId(msgId) {}
  bool isWorkBuf() const override { return false; }
  int msgId() const override { return m_msgId; }

 private:
  int m_msgId;
};

#endif  // PLINTH_PIPELINE_TPIWORK_H_
