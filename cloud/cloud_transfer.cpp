#include "cloud/cloud_transfer.h"

namespace {

constexpr int64_t kNsPerMs = 1000000;
// A limiter wait is slept in slices, so a stop is seen within one.
constexpr int64_t kSliceNs = 50 * kNsPerMs;

}  // namespace

TCloudTransfer::TCloudTransfer(bool upload, uint64_t total, TCloudProgressFn progress, void* context,
                               const TCloudClock* clock, TTokenBucket* limiter)
    : m_upload(upload), m_progress(progress), m_context(context), m_clock(clock), m_limiter(limiter), m_total(total) {}

bool TCloudTransfer::Moved(uint64_t bytes) {
  if (Stopped()) return false;
  if (m_limiter != nullptr) {
    for (int64_t left = m_limiter->Take(bytes); left > 0 && !Stopped(); left -= kSliceNs) {
      m_clock->SleepNs(left < kSliceNs ? left : kSliceNs);
    }
  }
  m_done.fetch_add(bytes, std::memory_order_relaxed);
  if (!Report(false)) {
    m_cancelled.store(true, std::memory_order_relaxed);
    Stop();
  }
  return !Stopped();
}

void TCloudTransfer::Undo(uint64_t bytes) { m_done.fetch_sub(bytes, std::memory_order_relaxed); }

void TCloudTransfer::GrowTotal(uint64_t total) {
  uint64_t seen = m_total.load(std::memory_order_relaxed);
  while (seen < total && !m_total.compare_exchange_weak(seen, total, std::memory_order_relaxed)) {
  }
}

void TCloudTransfer::Finish() {
  m_done.store(m_total.load(std::memory_order_relaxed), std::memory_order_relaxed);
  Report(true);
}

bool TCloudTransfer::Report(bool last) {
  if (m_progress == nullptr) return true;
  std::lock_guard<std::mutex> guard(m_reportLock);
  TUpDownStats stats(m_total.load(std::memory_order_relaxed), m_upload);
  int64_t now = m_clock->NowNs();
  if (!last && m_reported && now - m_lastReportNs < static_cast<int64_t>(stats.GetInterval()) * kNsPerMs) return true;
  m_reported = true;
  m_lastReportNs = now;
  uint64_t done = m_done.load(std::memory_order_relaxed);
  if (done > stats.GetTotal()) stats.SetTotal(done);
  stats.SetBytesDone(done);
  return m_progress(m_context, &stats);
}
