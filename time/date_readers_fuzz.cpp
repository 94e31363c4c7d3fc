// libFuzzer target for the text readers of the date classes: the input is
// read both as bytes (one unit each) and as UTF-16 pairs, and fed to
// TDate::FromISOString, TDate::FromRFCString and TInterval::FromISOString.
// Whatever a reader accepts must be a valid value that writes and reads
// back to the same instant or duration.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "time/tdate.h"
#include "time/tinterval.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

void FeedReaders(const TString& text) {
  TDate date;
  if (date.FromISOString(text) == 0) {
    Check(date.IsDefault() || (date.IsValid() && date.GetDay() <= date.GetMaxDays()));
    TDate back;
    Check(back.FromISOString(date.ToISOString()) == 0);
    Check(back == date);
  }
  if (date.FromRFCString(text) == 0) {
    Check(date.IsValid() && date.GetDay() <= date.GetMaxDays());
    TDate back;
    Check(back.FromRFCString(date.ToRFCString()) == 0);
    Check(back.ToUnixTime() == date.ToUnixTime());
  }
  TInterval interval;
  if (interval.FromISOString(text) == 0) {
    TInterval back;
    Check(back.FromISOString(interval.ToISOString()) == 0);
    // Written in whole seconds.
    Check(back == TInterval(interval.GetDays(), interval.GetHours(), interval.GetMinutes(), interval.GetSeconds(), 0));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  std::vector<char16_t> bytes(data, data + size);
  FeedReaders(TString(bytes.data(), static_cast<int>(bytes.size())));
  std::vector<char16_t> pairs(size / 2);
  for (size_t i = 0; i < pairs.size(); ++i) pairs[i] = static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8));
  FeedReaders(TString(pairs.data(), static_cast<int>(pairs.size())));
  return 0;
}
