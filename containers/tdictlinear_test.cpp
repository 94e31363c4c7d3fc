#include "containers/tdictlinear.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "containers/tdictpointer.h"

namespace {

// Against std::map for the values and a vector for the order of first
// definition, with a parent answering for absent keys.
TEST(TDictLinearTest, RandomSequencesMatchStdMap) {
  std::mt19937_64 rng(21);
  TDictLinear parent;
  std::map<int64_t, int64_t> parentModel;
  TDictLinear dict(3);
  dict.SetParent(&parent);
  std::map<int64_t, int64_t> model;
  std::vector<int64_t> order;
  for (int step = 0; step < 20000; ++step) {
    int64_t key = static_cast<int64_t>(rng() % 300) - 20;  // key 0 is ordinary here
    int64_t value = rng() % 8 == 0 ? 0 : static_cast<int64_t>(rng());
    unsigned r = rng() % 100;
    bool grow = step / 2000 % 2 == 0;
    if (r < 5) {
      parent.Define(key, value);
      if (value != 0) {
        parentModel[key] = value;
      } else {
        parentModel.erase(key);
      }
    } else if (r < (grow ? 80u : 30u) && value != 0) {
      dict.Define(key, value);
      if (model.emplace(key, value).second) order.push_back(key);
      model[key] = value;
    } else {
      dict.Undefine(key);
      if (model.erase(key) != 0) order.erase(std::find(order.begin(), order.end(), key));
    }
    ASSERT_EQ(dict.GetCount(), static_cast<int>(order.size()));
    int64_t probe = static_cast<int64_t>(rng() % 300) - 20;
    for (int64_t k : {key, probe}) {
      auto own = model.find(k);
      auto inherited = parentModel.find(k);
      int64_t want = own != model.end() ? own->second : inherited != parentModel.end() ? inherited->second : 0;
      ASSERT_EQ(dict.Lookup(k), want) << k;
    }
    if (step % 50 == 0) {
      for (int i = 0; i < static_cast<int>(order.size()); ++i) {
        ASSERT_EQ(dict.GetIndKey(i), order[i]);
        ASSERT_EQ(dict.GetIndData(i), model[order[i]]);
        ASSERT_EQ(dict.LookupKeydex(order[i]), i);
      }
      EXPECT_EQ(dict.GetIndKey(static_cast<int>(order.size())), 0);
      if (!order.empty()) {
        EXPECT_EQ(dict.Find(model[order.back()]), order.back());
      }
    }
  }
  TDictLinear copy(dict);
  dict.Reset();
  EXPECT_EQ(dict.GetCount(), 0);
  EXPECT_EQ(copy.GetCount(), static_cast<int>(order.size()));
  EXPECT_EQ(copy.GetParent(), &parent);
  EXPECT_EQ(copy.Find(0), 0);
  EXPECT_EQ(copy.LookupKeydex(100000), -1);
}

TEST(TDictPointerTest, PointersComeBackUnchanged) {
  std::vector<int> cells(1000);
  TDictPointer parent;
  TDictPointer dict(0, 1);
  dict.SetParent(&parent);
  parent.Define(-1, &cells[999]);
  for (int i = 0; i < 1000; ++i) dict.Define(int64_t{i} << 33, &cells[i]);
  EXPECT_EQ(dict.GetCount(), 999);  // key 0 is held apart
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(dict.Lookup(int64_t{i} << 33), &cells[i]);
  EXPECT_EQ(dict.Lookup(-1), &cells[999]);
  EXPECT_EQ(dict.GetParent(), &parent);
  EXPECT_EQ(dict.Find(&cells[7]), int64_t{7} << 33);
  dict.Define(int64_t{7} << 33, nullptr);
  EXPECT_EQ(dict.Lookup(int64_t{7} << 33), nullptr);
  int seen = 0;
  for (TDictPointerIter it(dict); it; ++it) {
    ASSERT_EQ(it.Data(), &cells[it.Key() >> 33]);
    ASSERT_EQ(dict.GetIndData(seen), it.Data());
    ++seen;
  }
  EXPECT_EQ(seen, 998);
}

}  // namespace
