// TPiNamedCriticalSection over the platform's machine-wide named lock.
#include "pipeline/pisync.h"
#include "platform/named_lock.h"

namespace {

constexpr unsigned kRetryMilliSeconds = 100;

}  // namespace

TPiNamedCriticalSection::TPiNamedCriticalSection(const char* name, int* err)
    : m_name(name != nullptr ? name : "") {
  for (;;) {
    int rc = platform::TryNamedLock(m_name, &m_handle);
    if (rc == 1) {
      UPiSleepMilliSeconds(kRetryMilliSeconds);
      continue;
    }
    if (err != nullptr) *err = rc;
    return;
  }
}

TPiNamedCriticalSection::~TPiNamedCriticalSection() { platform::ReleaseNamedLock(m_handle); }
