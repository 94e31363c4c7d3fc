#include "cloud/cloud_object.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "cloud/cloud_progress.h"

namespace {

std::string U8(const TString& s) { return TStringAsString(s); }

// Names from a small alphabet so equal names are common; the text tells
// which input and which place an entry came from.
std::vector<TCloudObject> RandomListing(std::mt19937& rng, char origin) {
  std::vector<std::string> names(rng() % 12);
  for (std::string& name : names) {
    for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) name += "ab/"[rng() % 3];
  }
  std::sort(names.begin(), names.end());
  std::vector<TCloudObject> out;
  for (size_t i = 0; i < names.size(); ++i) {
    out.emplace_back(TStringFromUTF8(names[i]), eObjectFile, TStringFromUTF8(origin + std::to_string(i)));
  }
  return out;
}

std::vector<std::string> Describe(const std::vector<TCloudObject>& v) {
  std::vector<std::string> out;
  for (const TCloudObject& o : v) out.push_back(U8(o.GetName()) + "@" + U8(o.GetText()));
  return out;
}

TEST(CloudObject, MergeMatchesStableSortOracle) {
  std::mt19937 rng(7001);
  for (int round = 0; round < 2000; ++round) {
    std::vector<TCloudObject> a = RandomListing(rng, 'a');
    std::vector<TCloudObject> b = RandomListing(rng, 'b');
    std::vector<TCloudObject> oracle = a;
    oracle.insert(oracle.end(), b.begin(), b.end());
    std::stable_sort(oracle.begin(), oracle.end(),
                     [](const TCloudObject& x, const TCloudObject& y) { return x.GetName() < y.GetName(); });

    std::vector<TCloudObject> out(3);
    MergeTCloudObjectVectors(a, b, out);
    ASSERT_EQ(Describe(out), Describe(oracle)) << "round " << round;
    std::vector<TCloudObject> intoB = b;
    MergeTCloudObjectVectors(a, intoB, intoB);
    ASSERT_EQ(Describe(intoB), Describe(oracle)) << "round " << round;
    MergeTCloudObjectVectors(a, b, a);
    ASSERT_EQ(Describe(a), Describe(oracle)) << "round " << round;
  }
}

TEST(CloudObject, OrderByNameOnlyAndReset) {
  TDate d1(2024, 1, 2, 3, 4, 5, 6), d2(2023, 1, 1, 0, 0, 0, 0);
  struct Case {
    TCloudObject left, right;
    bool less;
  } const cases[] = {
      {TCloudObject(u"a", eObjectFolder, u"z"), TCloudObject(u"b", eObjectFile, u"a"), true},
      {TCloudObject(u"b", eObjectFile, u"a"), TCloudObject(u"a", eObjectFolder, u"z"), false},
      {TCloudObject(u"same", eObjectFile, u"a", u"1", 1, d1, d1, d1, d1),
       TCloudObject(u"same", eObjectFolder, u"b", u"2", 2, d2, d2, d2, d2), false},
      {TCloudObject(u"A", eObjectFile, u""), TCloudObject(u"a", eObjectFile, u""), true},
      {TCloudObject(u"dir", eObjectFile, u""), TCloudObject(u"dir/", eObjectFolder, u""), true},
  };
  for (const Case& c : cases) EXPECT_EQ(c.left < c.right, c.less) << U8(c.left.GetName()) << U8(c.right.GetName());

  TCloudObject full(u"dir/f", eObjectFile, u"STANDARD", u"\"etag\"", 9, d1, d2, d1, d2);
  EXPECT_TRUE(full.GetDate(3) == d2);
  full.SetDate(4, d1);
  EXPECT_TRUE(full.GetDate(4).IsDefault() && full.GetDate(-1).IsDefault());
  full.Reset();
  EXPECT_TRUE(full.GetName().IsEmpty() && full.GetETag().IsEmpty() && full.GetSize() == 0);
  EXPECT_TRUE(full.GetType() == eObjectNone && full.GetDate(0).IsDefault() && full.GetDate(3).IsDefault());
}

TEST(CloudObject, MarkerAndProgressReset) {
  for (ContinuationMarker marker : {ContinuationMarker{"key", ""}, ContinuationMarker{"", "token"}}) {
    EXPECT_TRUE(marker.IsActive());
    marker.Reset();
    EXPECT_FALSE(marker.IsActive());
  }
  TUpDownStats stats(5ull << 32, true);
  stats.SetBytesDone((3ull << 32) + 7);
  EXPECT_EQ(stats.BytesDone(), (3ull << 32) + 7);
  stats.Reset(9, false);
  EXPECT_EQ(stats.BytesDone(), 0u);
  EXPECT_EQ(stats.GetInterval(), TUpDownStats::kDefaultIntervalMs);
  EXPECT_TRUE(stats.GetTotal() == 9 && !stats.IsUpload());
}

}  // namespace
