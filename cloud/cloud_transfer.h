// One transfer's shared state: its progress, its stop flag and the limiter
// of its direction. The threads of a transfer (the caller and the part
// workers) report through attempt taps; the host's progress callback is
// called from whichever thread moved the bytes, one call at a time, at most
// once per TUpDownStats interval, and once more at the end.
//
// Bytes of a failed attempt are taken back (Undo), so that a retried part
// counts once and the figure never runs past the total.
#ifndef PLINTH_CLOUD_CLOUD_TRANSFER_H_
#define PLINTH_CLOUD_CLOUD_TRANSFER_H_

#include <atomic>
#include <cstdint>
#include <mutex>

#include "cloud/cloud_bandwidth.h"
#include "cloud/cloud_clock.h"
#include "cloud/cloud_progress.h"
#include "cloud/tcloudconn.h"

class TCloudTransfer {
 public:
  TCloudTransfer(bool upload, uint64_t total, TCloudProgressFn progress, void* context, const TCloudClock* clock,
                 TTokenBucket* limiter);

  // Waits for the limiter, counts the bytes and reports them. False once
  // the transfer is stopped (by Stop, or by the callback answering false).
  bool Moved(uint64_t bytes);
  void Undo(uint64_t bytes);
  // Raises the total (a write stream learns its size as it goes).
  void GrowTotal(uint64_t total);
  // The report at the end: done is the total.
  void Finish();

  void Stop() { m_stopped.store(true, std::memory_order_relaxed); }
  bool Stopped() const { return m_stopped.load(std::memory_order_relaxed); }
  // True when the host's callback asked to stop.
  bool Cancelled() const { return m_cancelled.load(std::memory_order_relaxed); }
  const TCloudClock* Clock() const { return m_clock; }

 private:
  bool Report(bool last);

  const bool m_upload;
  const TCloudProgressFn m_progress;
  void* const m_context;
  const TCloudClock* const m_clock;
  TTokenBucket* const m_limiter;
  std::atomic<uint64_t> m_total;
  std::atomic<uint64_t> m_done{0};
  std::atomic<bool> m_stopped{false};
  std::atomic<bool> m_cancelled{false};
  std::mutex m_reportLock;
  int64_t m_lastReportNs = 0;
  bool m_reported = false;
};

// The tap of one request attempt: what it moved is known, so a failed
// attempt can give it back.
class TCloudAttemptTap : public TCloudTap {
 public:
  explicit TCloudAttemptTap(TCloudTransfer* transfer) : m_transfer(transfer) {}
  bool Moved(uint64_t bytes) override {
    m_moved += bytes;
    return m_transfer->Moved(bytes);
  }
  // Gives back what this attempt counted.
  void Undo() {
    m_transfer->Undo(m_moved);
    m_moved = 0;
  }

 private:
  TCloudTransfer* m_transfer;
  uint64_t m_moved = 0;
};

#endif  // PLINTH_CLOUD_CLOUD_TRANSFER_H_
