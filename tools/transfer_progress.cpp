#include "tools/transfer_progress.h"

#include <unistd.h>

#include <cstdio>

#include "tools/interrupt.h"

namespace {

constexpr auto kRedraw = std::chrono::milliseconds(100);

std::string ClockText(double seconds) {
  auto whole = static_cast<unsigned long long>(seconds + 0.5);
  char text[32];
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", whole / 3600, whole / 60 % 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%llu:%02llu", whole / 60, whole % 60);
  }
  return text;
}

}  // namespace

std::string HumanBytes(uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024.0;
  size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

TTransferProgress::TTransferProgress(const std::string& label, ProgressMode mode)
    : m_label(label),
      m_enabled(mode == ProgressMode::kAlways || (mode == ProgressMode::kAuto && isatty(fileno(stderr)) != 0)),
      m_start(Clock::now()),
      m_last(m_start - kRedraw) {}

bool TTransferProgress::Callback(void* context, TUpDownStats* stats) {
  if (Interrupted()) return false;
  if (context != nullptr && stats != nullptr) {
    static_cast<TTransferProgress*>(context)->Update(stats->BytesDone(), stats->GetTotal());
  }
  return true;
}

bool TTransferProgress::StopOnInterrupt(void*, TUpDownStats*) { return !Interrupted(); }

void TTransferProgress::Update(uint64_t done, uint64_t total) {
  if (!m_enabled) return;
  std::lock_guard<std::mutex> guard(m_lock);
  Clock::time_point now = Clock::now();
  bool last = total != 0 && done >= total;
  if (now - m_last < kRedraw && !last) return;
  m_last = now;
  double secs = std::chrono::duration<double>(now - m_start).count();
  double rate = secs > 0 ? static_cast<double>(done) / secs : 0.0;
  std::string line = m_label + ": " + HumanBytes(done);
  if (total != 0) {
    line += " of " + HumanBytes(total) + " (" + std::to_string(done * 100 / total) + "%)";
  }
  line += ", " + HumanBytes(static_cast<uint64_t>(rate)) + "/s";
  if (total != 0 && rate > 0 && done < total) {
    line += ", " + ClockText(static_cast<double>(total - done) / rate) + " left";
  }
  // Pad over what a longer line before left behind.
  size_t width = line.size();
  if (width < m_width) line.append(m_width - width, ' ');
  m_width = width;
  std::fprintf(stderr, "\r%s", line.c_str());
  std::fflush(stderr);
  m_shown = true;
}

void TTransferProgress::Finish() {
  std::lock_guard<std::mutex> guard(m_lock);
  if (!m_shown) return;
  std::fprintf(stderr, "\r%*s\r", static_cast<int>(m_width), "");
  std::fflush(stderr);
  m_shown = false;
}
