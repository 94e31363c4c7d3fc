#include "pipeline/tpiwork.h"

#include "foundation/memory.h"
#include "pipeline/pisync.h"
#include "pipeline/tpipelinemgr.h"

TPiWork::TPiWork(unsigned size) {
  if (size == 0) return;
  // MemAlloc would end the process on exhaustion; a pipeline reports it.
  m_buf = static_cast<unsigned char*>(MemTryRealloc(nullptr, size));
  if (m_buf == nullptr) {
    TPipelineMgr::logErrLine("TPiWork::TPiWork: can't allocate m_buf[%u]", size);
    UPiThrow(kErrPiNoMemory);
  }
  m_bufSize = size;
}

TPiWork::~TPiWork() { MemFree(m_buf); }
