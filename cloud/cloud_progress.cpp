#include "cloud/cloud_progress.h"

void TUpDownStats::Reset(uint64_t total, bool upload) {
  m_total = total;
  m_interval = kDefaultIntervalMs;
  m_doneLow = 0;
  m_doneHigh = 0;
  m_upload = upload;
}
