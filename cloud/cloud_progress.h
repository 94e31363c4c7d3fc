// TUpDownStats: the record a bucket's progress callback receives while a
// transfer moves bytes.
//
//   total     bytes the whole transfer moves (0 while unknown)
//   interval  the least milliseconds between two calls for one transfer
//             (100); the call at the end of a transfer always comes
//   done      bytes moved so far, as two 32-bit halves (BytesDone())
//   upload    true for an upload, false for a download
//
// The callback returns true to go on; false stops the transfer, which then
// fails with kErrAborted and leaves nothing half-written behind.
#ifndef PLINTH_CLOUD_CLOUD_PROGRESS_H_
#define PLINTH_CLOUD_CLOUD_PROGRESS_H_

#include <cstdint>

#include "foundation/export.h"

class PLINTH_API TUpDownStats {
 public:
  static constexpr uint32_t kDefaultIntervalMs = 100;

  // Leaves the record empty (all zero).
  TUpDownStats() = default;
  // Reset(total, upload).
  TUpDownStats(uint64_t total, bool upload) { Reset(total, upload); }

  // total as given, interval 100, done 0, flag as given.
  void Reset(uint64_t total, bool upload);

  uint64_t GetTotal() const { return m_total; }
  uint32_t GetInterval() const { return m_interval; }
  uint64_t BytesDone() const { return (static_cast<uint64_t>(m_doneHigh) << 32) | m_doneLow; }
  bool IsUpload() const { return m_upload; }

  void SetTotal(uint64_t total) { m_total = total; }
  void SetBytesDone(uint64_t done) {
    m_doneLow = static_cast<uint32_t>(done);
    m_doneHigh = static_cast<uint32_t>(done >> 32);
  }

 private:
  uint64_t m_total = 0;
  uint32_t m_interval = 0;
  uint32_t m_doneLow = 0;
  uint32_t m_doneHigh = 0;
  bool m_upload = false;
};

// A bucket's progress callback: (context, stats) -> go on.
typedef bool (*TCloudProgressFn)(void* context, TUpDownStats* stats);

#endif  // PLINTH_CLOUD_CLOUD_PROGRESS_H_
