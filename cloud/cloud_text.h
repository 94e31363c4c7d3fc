// Numbers in the texts services send: read strictly, since they arrive
// from the network.
#ifndef PLINTH_CLOUD_CLOUD_TEXT_H_
#define PLINTH_CLOUD_CLOUD_TEXT_H_

#include <cstdint>
#include <string>

// A decimal of 1 to 19 digits and nothing else (no sign, no blanks).
inline bool CloudParseDecimal(const std::string& text, uint64_t* out) {
  if (text.empty() || text.size() > 19) return false;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  *out = value;
  return true;
}

#endif  // PLINTH_CLOUD_CLOUD_TEXT_H_
