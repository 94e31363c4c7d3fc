#include "containers/tdict64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"

namespace {

std::map<int64_t, int64_t> Contents(TDict64& dict) {
  std::map<int64_t, int64_t> out;
  for (TDict64Iter it(dict); it; ++it) out[it.Key()] = it.Data();
  out[0] = dict.Lookup(0);
  return out;
}

std::vector<unsigned char> ExportOf(const TDict64& dict) {
  std::vector<unsigned char> image(dict.StoreSize());
  EXPECT_EQ(dict.Export(image.data(), static_cast<int>(image.size())), 0);
  return image;
}

// Imports from a heap block of exactly `size` bytes, so that a read past
// the end is caught by the address sanitizer.
int ImportExact(TDict64& dict, const std::vector<unsigned char>& image, size_t size) {
  std::unique_ptr<unsigned char[]> exact(new unsigned char[size + (size == 0)]);
  if (size != 0) std::memcpy(exact.get(), image.data(), size);
  return dict.Import(exact.get(), static_cast<int>(size));
}

void PutWord(std::vector<unsigned char>& image, size_t at, uint64_t value) {
  for (int i = 0; i < 8; ++i) image[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

TEST(TDict64Test, ExportImportRoundTrips) {
  std::mt19937_64 rng(3);
  for (int ordered = 0; ordered < 2; ++ordered) {
    for (int count : {0, 1, 100, 5000}) {
      TDict64 dict(0, ordered);
      for (int i = 0; i < count; ++i) dict.Define(static_cast<int64_t>(rng()) | 1, static_cast<int64_t>(rng() | 1));
      dict.Define(0, count);
      std::vector<unsigned char> image = ExportOf(dict);
      ASSERT_EQ(image.size(), 24u + 16u * dict.GetCount());
      EXPECT_EQ(std::string(image.begin(), image.begin() + 4), "TD64");
      TDict64 parent;
      TDict64 back(0, 1 - ordered);
      back.SetParent(&parent);
      back.Define(77, 1);
      ASSERT_EQ(ImportExact(back, image, image.size()), 0);
      EXPECT_EQ(Contents(back), Contents(dict));
      EXPECT_EQ(back.IsOrdered(), ordered);
      EXPECT_EQ(back.GetParent(), &parent);
      EXPECT_EQ(back.Lookup(77), 0);
    }
  }
}

// Every refusal: kErrInvalidData, one log line, the dictionary untouched;
// Export refuses a buffer too small without writing into it.
TEST(TDict64Test, RefusesShortAndHostileImages) {
  TDict64 source(0, 1);
  for (int64_t k = 1; k <= 20; ++k) source.Define(k << 40, k);
  const std::vector<unsigned char> good = ExportOf(source);

  TDict64 dict;
  dict.Define(5, 6);
  const auto before = Contents(dict);
  auto refused = [&](const std::vector<unsigned char>& image, size_t size, const std::string& format) {
    TestHost host;
    EXPECT_EQ(ImportExact(dict, image, size), kErrInvalidData) << format << " size " << size;
    EXPECT_EQ(host.Lines().size(), 1u) << format;
    EXPECT_EQ(host.LinesWithFormat(format).size(), 1u) << format;
    EXPECT_EQ(Contents(dict), before);
  };
  for (size_t size = 0; size < good.size(); ++size) {
    refused(good, size, size < 24 ? "TDict64::Import: %~d bytes are too few for the header, %E"
                                  : "TDict64::Import: %~lu pairs do not fit in %~d bytes, %E");
  }
  auto bad = good;
  bad[0] = 'X';
  refused(bad, bad.size(), "TDict64::Import: not a dictionary image, %E");
  bad = good;
  bad[5] = 1;
  refused(bad, bad.size(), "TDict64::Import: unknown flags %~u, %E");
  for (uint64_t pairs : {uint64_t{21}, uint64_t{1} << 32 | 20, ~uint64_t{0}, uint64_t{1} << 60}) {
    bad = good;
    PutWord(bad, 16, pairs);
    refused(bad, bad.size(), "TDict64::Import: %~lu pairs do not fit in %~d bytes, %E");
  }
  bad = good;
  PutWord(bad, 24 + 16 * 3, 0);  // key of pair 3
  refused(bad, bad.size(), "TDict64::Import: pair %~d holds a zero key or value, %E");
  bad = good;
  PutWord(bad, 24 + 16 * 4 + 8, 0);  // value of pair 4
  refused(bad, bad.size(), "TDict64::Import: pair %~d holds a zero key or value, %E");
  bad = good;
  std::memcpy(&bad[24 + 16 * 7], &bad[24 + 16 * 2], 8);
  refused(bad, bad.size(), "TDict64::Import: the key of pair %~d repeats, %E");
  {
    TestHost host;
    EXPECT_EQ(dict.Import(nullptr, 100), kErrBadParameter);
    EXPECT_EQ(dict.Import(good.data(), -1), kErrBadParameter);
    std::vector<unsigned char> small(good.size() - 1, 0xAB);
    EXPECT_EQ(source.Export(small.data(), static_cast<int>(small.size())), kErrBufferTooSmall);
    EXPECT_EQ(small, std::vector<unsigned char>(good.size() - 1, 0xAB));
    auto lines = host.LinesWithFormat("TDict64::Export: %~d bytes given, %~d needed, %E");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].args, (std::vector<uint64_t>{good.size() - 1, good.size(), uint64_t(int64_t{kErrBufferTooSmall})}));
    EXPECT_EQ(host.Lines().size(), 3u);
  }
  // Random damage: whatever is accepted exports and imports again the same.
  std::mt19937 rng(9);
  for (int round = 0; round < 3000; ++round) {
    auto image = good;
    for (int n = 1 + rng() % 3; n > 0; --n) image[rng() % image.size()] ^= static_cast<unsigned char>(1 + rng() % 255);
    TestHost host;
    TDict64 target;
    int code = ImportExact(target, image, image.size());
    ASSERT_TRUE(code == 0 || code == kErrInvalidData);
    if (code != 0) continue;
    TDict64 again;
    std::vector<unsigned char> second = ExportOf(target);
    ASSERT_EQ(ImportExact(again, second, second.size()), 0);
    EXPECT_EQ(Contents(again), Contents(target));
  }
}

}  // namespace
