#include "tools/pack_common.h"

#include <unistd.h>

#include <cstdio>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "platform/os_error.h"

std::string DescribeCode(int code) {
  TString text;
  GetErrorText(code, &text);
  return std::to_string(code) + ": " + TStringAsString(text);
}

int CodeOf(const std::error_code& ec) {
  if (!ec) return 0;
  if (ec.category() == std::generic_category() || ec.category() == std::system_category())
    return MapErrno(ec.value(), nullptr);
  return kErrUnknown;
}

TFileLoc LocOf(const std::filesystem::path& path) {
  std::error_code ec;
  std::filesystem::path full = std::filesystem::absolute(path, ec);
  return TFileLoc(TStringFromUTF8(ec ? path.string() : full.string()));
}

void ToUnixTime(std::filesystem::file_time_type time, int64_t* seconds, uint32_t* nanos) {
  auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::file_clock::to_sys(time).time_since_epoch());
  auto whole = std::chrono::floor<std::chrono::seconds>(since);
  *seconds = whole.count();
  *nanos = static_cast<uint32_t>((since - whole).count());
}

std::filesystem::file_time_type FromUnixTime(int64_t seconds, uint32_t nanos) {
  std::chrono::sys_time<std::chrono::nanoseconds> sys{std::chrono::seconds(seconds) + std::chrono::nanoseconds(nanos)};
  return std::chrono::file_clock::from_sys(sys);
}

TPackProgress::TPackProgress(const char* verb)
    : m_verb(verb), m_enabled(isatty(fileno(stderr)) != 0), m_start(Clock::now()), m_last(m_start) {}

void TPackProgress::Add(uint64_t bytes, uint64_t files) {
  m_bytes += bytes;
  m_files += files;
  if (!m_enabled) return;
  Clock::time_point now = Clock::now();
  if (now - m_last < std::chrono::milliseconds(100)) return;
  m_last = now;
  double secs = std::chrono::duration<double>(now - m_start).count();
  double mib = static_cast<double>(m_bytes) / (1024.0 * 1024.0);
  std::fprintf(stderr, "\r%s: %.1f MiB, %llu files, %.1f MiB/s   ", m_verb, mib,
               static_cast<unsigned long long>(m_files), secs > 0 ? mib / secs : 0.0);
  m_shown = true;
}

void TPackProgress::Finish() {
  if (!m_shown) return;
  std::fprintf(stderr, "\r%*s\r", 72, "");
  m_shown = false;
}
