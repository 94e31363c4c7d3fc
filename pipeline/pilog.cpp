// The pipeline's log lines. Their formats are C printf formats over 8-bit
// strings (%d, %u, %llu, %s of a char*), which the library's formatter does
// not read the same way; so a line is rendered here with vsnprintf and goes
// to the debug log whole, as the one argument of "%s", in UTF-8 converted to
// a TString.
#include <cstdarg>
#include <cstdio>
#include <string>

#include "foundation/log.h"
#include "foundation/tstring.h"
#include "pipeline/tpipelinemgr.h"

namespace {

constexpr unsigned kInfoSelector = 514;
constexpr unsigned kErrorSelector = 518;
constexpr char kErrPrefix[] = "--ERR-- ";

void AppendV(std::string* out, const char* fmt, va_list ap) {
  if (fmt == nullptr) return;
  char small[256];
  va_list again;
  va_copy(again, ap);
  int n = std::vsnprintf(small, sizeof(small), fmt, ap);
  if (n < 0) {
    va_end(again);
    return;
  }
  if (static_cast<size_t>(n) < sizeof(small)) {
    out->append(small, static_cast<size_t>(n));
  } else {
    size_t at = out->size();
    out->resize(at + static_cast<size_t>(n) + 1);
    std::vsnprintf(&(*out)[at], static_cast<size_t>(n) + 1, fmt, again);
    out->resize(at + static_cast<size_t>(n));
  }
  va_end(again);
}

void Emit(unsigned selector, const std::string& line) {
  TString text = TStringFromUTF8(line);
  LogLine(selector, u"%s", &text);
}

}  // namespace

void TPipelineMgr::logLine(const char* fmt, ...) {
  std::string line;
  va_list ap;
  va_start(ap, fmt);
  AppendV(&line, fmt, ap);
  va_end(ap);
  Emit(kInfoSelector, line);
}

void TPipelineMgr::logErrLine(const char* fmt, ...) {
  std::string line = kErrPrefix;
  va_list ap;
  va_start(ap, fmt);
  AppendV(&line, fmt, ap);
  va_end(ap);
  Emit(kErrorSelector, line);
}

void TPipelineMgr::logErrLineWithFilter(int err, const char* fmt, ...) {
  if (err == kErrPiEndOfWork || err == kErrOperationAborted) return;
  std::string line = kErrPrefix;
  va_list ap;
  va_start(ap, fmt);
  AppendV(&line, fmt, ap);
  va_end(ap);
  Emit(kErrorSelector, line);
}
