// The progress line of a cloud transfer on standard error: bytes of the
// total, rate and time left, redrawn in place at most ten times a second.
// Shown when standard error is a terminal (kAuto) or always (kAlways), never
// with kNever. Whatever is shown, the callback stops the transfer once the
// user interrupted the process (tools/interrupt.h).
#ifndef PLINTH_TOOLS_TRANSFER_PROGRESS_H_
#define PLINTH_TOOLS_TRANSFER_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "cloud/cloud_progress.h"

enum class ProgressMode { kAuto, kAlways, kNever };

class TTransferProgress {
 public:
  TTransferProgress(const std::string& label, ProgressMode mode);
  ~TTransferProgress() { Finish(); }
  TTransferProgress(const TTransferProgress&) = delete;
  TTransferProgress& operator=(const TTransferProgress&) = delete;

  // A bucket's progress callback; the context is the TTransferProgress.
  static bool Callback(void* context, TUpDownStats* stats);
  // The same, for a transfer that shows nothing.
  static bool StopOnInterrupt(void* context, TUpDownStats* stats);

  void Update(uint64_t done, uint64_t total);
  // Clears the line.
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;

  std::string m_label;
  bool m_enabled;
  bool m_shown = false;
  size_t m_width = 0;
  Clock::time_point m_start;
  Clock::time_point m_last;
  std::mutex m_lock;
};

// "12.5 MiB", "900 B": a byte count for people.
std::string HumanBytes(uint64_t bytes);

#endif  // PLINTH_TOOLS_TRANSFER_PROGRESS_H_
