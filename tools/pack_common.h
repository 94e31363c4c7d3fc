// What plinth pack, unpack and verify share: error texts, locations, file
// times and the progress line.
#ifndef PLINTH_TOOLS_PACK_COMMON_H_
#define PLINTH_TOOLS_PACK_COMMON_H_

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

#include "files/tfileloc.h"

// "CODE: TEXT", the library's text of a code.
std::string DescribeCode(int code);

// The library code of a failed file-system call.
int CodeOf(const std::error_code& ec);

TFileLoc LocOf(const std::filesystem::path& path);

// Modification times as stored: seconds since 1970 (UTC) and nanoseconds.
void ToUnixTime(std::filesystem::file_time_type time, int64_t* seconds, uint32_t* nanos);
std::filesystem::file_time_type FromUnixTime(int64_t seconds, uint32_t nanos);

// A progress line on standard error (bytes, files, rate), redrawn at most
// ten times a second, and only when standard error is a terminal.
class TPackProgress {
 public:
  explicit TPackProgress(const char* verb);
  ~TPackProgress() { Finish(); }
  TPackProgress(const TPackProgress&) = delete;
  TPackProgress& operator=(const TPackProgress&) = delete;

  void Add(uint64_t bytes, uint64_t files);
  // Clears the line.
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;

  const char* m_verb;
  bool m_enabled;
  bool m_shown = false;
  uint64_t m_bytes = 0;
  uint64_t m_files = 0;
  Clock::time_point m_start;
  Clock::time_point m_last;
};

#endif  // PLINTH_TOOLS_PACK_COMMON_H_
