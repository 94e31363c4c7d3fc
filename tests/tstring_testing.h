// Small helpers shared by the TString tests: std::u16string views of a
// TString and random texts and bytes.
#ifndef PLINTH_TESTS_TSTRING_TESTING_H_
#define PLINTH_TESTS_TSTRING_TESTING_H_

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "foundation/tstring.h"

inline std::u16string Units(const TString& s) { return std::u16string(s.GetConstBuffer(), s.GetLength()); }
inline TString Make(const std::u16string& s) { return TString(s.data(), static_cast<int>(s.size())); }

// Up to `maxLength` units drawn from `alphabet`.
inline std::u16string RandomFrom(std::mt19937& rng, const std::u16string& alphabet, int maxLength) {
  std::u16string s;
  int n = static_cast<int>(rng() % static_cast<unsigned>(maxLength + 1));
  for (int i = 0; i < n; ++i) s += alphabet[rng() % alphabet.size()];
  return s;
}

inline std::vector<uint8_t> RandomBytes(std::mt19937& rng, size_t n) {
  std::vector<uint8_t> b(n);
  for (auto& x : b) x = static_cast<uint8_t>(rng());
  return b;
}

#endif  // PLINTH_TESTS_TSTRING_TESTING_H_
