#include "containers/tdict.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "containers/dict_test_support.h"
#include "containers/tdict64.h"
#include "foundation/memory.h"
#include "tests/test_host.h"

namespace {

using dict_test::Peer;

template <typename Dict>
struct Kind {  // TDict
  using Key = int32_t;
  using UKey = uint32_t;
  using Iter = TDictIter;
  static constexpr int kWidth = 32;
  static constexpr const char* kSource = "dicthash";
};
template <>
struct Kind<TDict64> {
  using Key = int64_t;
  using UKey = uint64_t;
  using Iter = TDict64Iter;
  static constexpr int kWidth = 64;
  static constexpr const char* kSource = "dicthash64";
};

template <typename Dict>
std::vector<std::pair<int64_t, int64_t>> Pairs(Dict& dict) {
  std::vector<std::pair<int64_t, int64_t>> out;
  for (typename Kind<Dict>::Iter it(dict); it; ++it) out.emplace_back(it.Key(), it.Data());
  return out;
}

template <typename Dict>
std::vector<int64_t> SlotKeys(Dict& dict) {
  std::vector<int64_t> keys;
  for (const auto& pair : Pairs(dict)) keys.push_back(pair.first);
  return keys;
}

// Random Define/Undefine/Lookup against std::map, the parent's map answering
// for keys the child lacks. The pool mixes small keys (which all share home
// slot 0 in small tables) with families of one square: k, -k, k + 2^(w-1)
// and, for 64 bits, k + 2^32.
template <typename Dict>
class Differential {
 public:
  using Key = typename Kind<Dict>::Key;
  using UKey = typename Kind<Dict>::UKey;

  Differential(int ordered, bool withParent, uint32_t seed) : m_dict(0, ordered), m_parent(0, ordered), m_rng(seed) {
    for (Key k = 1; k <= 80; ++k) m_pool.insert(m_pool.end(), {k, static_cast<Key>(-k)});
    for (int i = 0; i < 1000; ++i) {
      UKey k = static_cast<UKey>(m_rng()) | (static_cast<UKey>(m_rng()) << 31);
      UKey half = UKey{1} << (Kind<Dict>::kWidth - 1);
      m_pool.insert(m_pool.end(), {static_cast<Key>(k), static_cast<Key>(-k), static_cast<Key>(k + half)});
      if constexpr (Kind<Dict>::kWidth == 64) m_pool.push_back(static_cast<Key>(k + (UKey{1} << 32)));
    }
    m_pool.push_back(0);
    if (withParent) m_dict.SetParent(&m_parent);
    m_withParent = withParent;
  }

  // Grow, empty, then churn a small map until tombstones pile up: rebuilds
  // in both directions, twice.
  void Run() {
    for (int round = 0; round < 2 && !::testing::Test::HasFailure(); ++round) {
      RunPhase(70, 40000, [&] { return m_own.size() >= 1500; });
      RunPhase(15, 40000, [&] { return m_own.size() <= 10; });
      RunPhase(50, 3000, [] { return false; });
    }
    EXPECT_TRUE(m_grew);
    EXPECT_TRUE(m_shrank);
    Dict copy(m_dict);
    m_dict.Define(PoolKey() | 1, 5);
    m_own.erase(0);
    auto pairs = Pairs(copy);
    EXPECT_EQ((std::map<Key, Key>(pairs.begin(), pairs.end())), m_own);
  }

 private:
  Key PoolKey() { return m_pool[m_rng() % m_pool.size()]; }
  Key Value() { return m_rng() % 10 == 0 ? 0 : static_cast<Key>(m_rng() | 1); }
  Key Expected(Key key) const {
    auto own = m_own.find(key);
    if (own != m_own.end()) return own->second;
    auto inherited = m_inherited.find(key);
    return m_withParent && inherited != m_inherited.end() ? inherited->second : 0;
  }
  static void Apply(Dict& dict, std::map<Key, Key>& model, Key key, Key value) {
    dict.Define(key, value);
    if (value == 0) model.erase(key);
    if (value != 0) model[key] = value;
  }

  template <typename Done>
  void RunPhase(unsigned definePercent, int steps, Done done) {
    for (int step = 0; step < steps && !done(); ++step) {
      Key key = PoolKey();
      unsigned r = m_rng() % 100;
      if (m_withParent && r >= 95) {
        Apply(m_parent, m_inherited, key, Value());
      } else if (r < definePercent) {
        Apply(m_dict, m_own, key, Value());
      } else {
        m_dict.Undefine(key);
        m_own.erase(key);
      }
      ASSERT_EQ(m_dict.GetCount(), static_cast<int>(m_own.size() - m_own.count(0)));
      Key other = PoolKey();
      ASSERT_EQ(m_dict.Lookup(key), Expected(key)) << "key " << key << " step " << step;
      ASSERT_EQ(m_dict.Lookup(other), Expected(other)) << "key " << other;
      int size = m_dict.GetTableSize();
      m_grew |= size > m_lastSize;
      m_shrank |= size < m_lastSize;
      if (size != m_lastSize || m_own.size() < 100 || step % 97 == 0) {
        ASSERT_NO_FATAL_FAILURE(FullCheck());
      }
      m_lastSize = size;
    }
  }

  void FullCheck() {
    auto pairs = Pairs(m_dict);
    std::map<Key, Key> seen(pairs.begin(), pairs.end());
    ASSERT_EQ(seen.size(), pairs.size()) << "a key twice";
    std::map<Key, Key> want = m_own;
    want.erase(0);
    ASSERT_EQ(seen, want);
    for (const auto* model : {&m_own, &m_inherited}) {
      for (const auto& [key, value] : *model) ASSERT_EQ(m_dict.Lookup(key), Expected(key)) << "key " << key;
    }
    for (int n = 0; n < 4 && !pairs.empty(); ++n) {
      int i = static_cast<int>(m_rng() % pairs.size());
      EXPECT_EQ(m_dict.GetIndKey(i), pairs[i].first);
      EXPECT_EQ(m_dict.GetIndData(i), pairs[i].second);
      EXPECT_EQ(m_dict.LookupKeydex(static_cast<Key>(pairs[i].first)), i);
      auto first = std::find_if(pairs.begin(), pairs.end(), [&](auto& p) { return p.second == pairs[i].second; });
      Key want = m_own.count(0) != 0 && m_own[0] == pairs[i].second ? 0 : first->first;
      EXPECT_EQ(m_dict.Find(static_cast<Key>(pairs[i].second)), want);
    }
    EXPECT_EQ(m_dict.GetIndKey(static_cast<int>(pairs.size())), 0);
    if (m_dict.IsOrdered()) CheckOrder();
  }

  // Every key sits behind larger keys only, along its own probe sequence.
  void CheckOrder() {
    auto& table = Peer::Table(m_dict);
    for (int slot = 0; slot < table.Size(); ++slot) {
      Key key = table.At(slot).key;
      if (key == 0) continue;
      int64_t home = dict_test::SlowHome(key, table.Size(), Kind<Dict>::kWidth);
      for (int64_t j = 0, at; (at = dict_test::ProbeSlot(home, j, table.Size())) != slot; ++j) {
        ASSERT_GT(static_cast<UKey>(table.At(static_cast<int>(at)).key), static_cast<UKey>(key));
      }
    }
  }

  Dict m_dict;
  Dict m_parent;
  bool m_withParent;
  std::map<Key, Key> m_own;
  std::map<Key, Key> m_inherited;
  std::mt19937_64 m_rng;
  std::vector<Key> m_pool;
  int m_lastSize = 127;
  bool m_grew = false;
  bool m_shrank = false;
};

template <typename Dict>
void RunAllDifferentials() {
  for (int ordered = 0; ordered < 2; ++ordered) {
    for (bool withParent : {false, true}) {
      SCOPED_TRACE(testing::Message() << "ordered " << ordered << " parent " << withParent);
      Differential<Dict>(ordered, withParent, 1234 + ordered * 2 + withParent).Run();
    }
  }
}

TEST(TDictTest, RandomSequencesMatchStdMap) { RunAllDifferentials<TDict>(); }
TEST(TDict64Test, RandomSequencesMatchStdMap) { RunAllDifferentials<TDict64>(); }

// A capacity gets the smallest table size that holds it at 80 per cent.
TEST(TDictTest, SizesFollowTheCapacity) {
  const std::vector<int> sizes = {127, 251, 509, 1021, 2039, 4093, 8191, 16381, 32749, 65521, 131071, 262139,
                                  524287, 1048573, 2097143, 4194301, 8388593, 16777213};
  TDict dict;
  EXPECT_EQ(dict.GetTableSize(), 127);
  for (int c : {0, 1, 101, 102, 200, 1677, 838860, 838861, 13421770, 16777213}) {
    dict.Reset(c);
    auto it = std::find(sizes.begin(), sizes.end(), dict.GetTableSize());
    ASSERT_NE(it, sizes.end()) << c;
    EXPECT_TRUE(*it == sizes.back() || int64_t{*it} * 80 >= int64_t{c} * 100) << c;
    EXPECT_TRUE(it == sizes.begin() || int64_t{*(it - 1)} * 80 < int64_t{c} * 100) << c;
  }
  dict.Reset(102);
  EXPECT_EQ(dict.GetTableSize(), 251);
  dict.Reset(-251);
  EXPECT_EQ(dict.GetTableSize(), 251);
}

// Unordered tables put each key in the first free slot of its probe
// sequence; ordered tables end in the layout of a plain insertion in
// decreasing unsigned order, whatever the order of definition.
template <typename Dict>
void CheckPlacement(uint32_t seed) {
  using Key = typename Kind<Dict>::Key;
  using UKey = typename Kind<Dict>::UKey;
  std::mt19937_64 rng(seed);
  auto place = [](const std::vector<int64_t>& keys, int size) {
    std::vector<int64_t> slots = dict_test::PlaceKeys(keys, size, Kind<Dict>::kWidth);
    slots.erase(std::remove(slots.begin(), slots.end(), 0), slots.end());
    return slots;
  };
  for (int size : {127, 509, 65521, 131071, 262139}) {
    SCOPED_TRACE(size);
    std::vector<int64_t> keys;
    std::set<Key> used;
    int count = std::min(size * 3 / 4, 3000);
    while (static_cast<int>(keys.size()) < count) {
      Key k = rng() % 3 == 0 ? static_cast<Key>(rng() % 400) : static_cast<Key>(rng());
      for (Key key : {k, static_cast<Key>(-static_cast<UKey>(k))}) {
        if (key != 0 && used.insert(key).second) keys.push_back(key);
      }
    }
    keys.resize(count);
    Dict plain(-size, 0);
    for (int64_t key : keys) plain.Define(static_cast<Key>(key), 1);
    EXPECT_EQ(SlotKeys(plain), place(keys, size));
    std::vector<int64_t> sorted = keys;
    std::sort(sorted.begin(), sorted.end(), [](int64_t a, int64_t b) { return UKey(a) > UKey(b); });
    for (int round = 0; round < 3; ++round) {
      std::shuffle(keys.begin(), keys.end(), rng);
      Dict ordered(-size, 1);
      for (int64_t key : keys) ordered.Define(static_cast<Key>(key), 1);
      EXPECT_EQ(SlotKeys(ordered), place(sorted, size));
    }
  }
}

TEST(TDictTest, PlacementFollowsTheHashAndProbe) { CheckPlacement<TDict>(11); }
TEST(TDict64Test, PlacementFollowsTheHashAndProbe) { CheckPlacement<TDict64>(12); }

template <typename Dict>
void CheckKeyZeroTombstonesAndShrinks() {
  Dict parent;
  Dict dict(100000, 0);
  dict.SetParent(&parent);
  parent.Define(0, 9);
  EXPECT_EQ(dict.Lookup(0), 9);
  dict.Define(0, 4);  // key 0 is held apart: not counted, not found by Find
  EXPECT_EQ(dict.Lookup(0), 4);
  EXPECT_EQ(dict.Find(4), 0);
  EXPECT_EQ(dict.LookupKeydex(0), -1);
  ASSERT_EQ(dict.GetTableSize(), 131071);
  for (int k = 1; k <= 10; ++k) dict.Define(k * 1000, k);
  dict.Define(3000, 0);  // below the low-water mark: rebuilt small
  EXPECT_EQ(dict.Lookup(3000), 0);
  EXPECT_EQ(dict.GetTableSize(), 127);
  EXPECT_EQ(dict.Lookup(0), 4);
  dict.Undefine(4000);  // a tombstone keeps its slot and its own key revives it
  EXPECT_EQ(Peer::Deleted(dict), 1);
  dict.Define(4000, 44);
  EXPECT_EQ(Peer::Deleted(dict), 0);
  EXPECT_EQ(Peer::Used(dict), 9);
  EXPECT_EQ(dict.GetCount(), 9);
  // Reaching the tombstone limit rebuilds, at the same size if need be.
  Dict same(-127, 0);
  for (int k = 1; k <= 100; ++k) same.Define(k * 7919, k);
  same.Define(0, 1);  // key 0 never brings a rebuild
  for (int k = 1; k <= 63; ++k) same.Undefine(k * 7919);
  EXPECT_EQ(Peer::Used(same), 37);
  EXPECT_EQ(same.GetTableSize(), 127);
  for (int k = 1; k <= 63; ++k) same.Define(k * 7919, k);
  EXPECT_EQ(same.GetTableSize(), 127);
  same.Define(101 * 7919, 1);  // the 101st used slot reaches the high-water mark
  EXPECT_EQ(same.GetTableSize(), 251);
  EXPECT_EQ(same.GetCount(), 101);
}

// An ordered insertion that displaces a tombstone drops it and leaves the
// counters as they are: the deleted count still holds it, and that count
// (not the table) brings the rebuild. The live count and the checks stay
// true: no assertion however the table is emptied afterwards.
template <typename Dict>
void CheckDroppedTombstones() {
  using UKey = typename Kind<Dict>::UKey;
  TestHost host;
  Dict dict(0, 1);
  ASSERT_EQ(dict.GetTableSize(), 127);
  // Pairs (a, b), a below b, with one home slot: b meets a's tombstone first.
  std::vector<std::pair<int64_t, int64_t>> pairs;
  for (int64_t a = 1; a < 5000 && pairs.size() < 20; ++a) {
    for (int64_t b = a + 1; b < a + 5000; ++b) {
      if (dict_test::SlowHome(a, 127, Kind<Dict>::kWidth) == dict_test::SlowHome(b, 127, Kind<Dict>::kWidth) &&
          static_cast<UKey>(a) < static_cast<UKey>(b)) {
        pairs.emplace_back(a, b);
        break;
      }
    }
  }
  ASSERT_EQ(pairs.size(), 20u);
  const auto [a, b] = pairs[0];
  dict.Define(a, 1);
  dict.Undefine(a);
  dict.Define(b, 2);
  EXPECT_EQ(Peer::Used(dict), 1);
  EXPECT_EQ(Peer::Deleted(dict), 1);
  EXPECT_EQ(dict.GetCount(), 1);
  EXPECT_EQ(dict.Lookup(a), 0);
  EXPECT_EQ(dict.Lookup(b), 2);
  dict.Undefine(b);
  EXPECT_EQ(Peer::Deleted(dict), 2);
  EXPECT_EQ(dict.GetCount(), 0);
  // Churn over many such pairs until the deleted count reaches its limit
  // and rebuilds; the count the dictionary reports stays the real one.
  std::map<int64_t, int64_t> model;
  std::mt19937 rng(5);
  for (int round = 0; round < 4000; ++round) {
    const auto& [x, y] = pairs[rng() % pairs.size()];
    int64_t key = rng() % 2 ? x : y;
    if (rng() % 2) {
      dict.Define(key, round + 1);
      model[key] = round + 1;
    } else {
      dict.Undefine(key);
      model.erase(key);
    }
    ASSERT_EQ(dict.GetCount(), static_cast<int>(model.size())) << round;
    ASSERT_GE(Peer::Deleted(dict) - Peer::Dropped(dict), 0);
  }
  for (const auto& [key, value] : model) EXPECT_EQ(dict.Lookup(key), value);
  EXPECT_TRUE(host.LinesWithFormat("ASSERT: %s, line %~d").empty());
}

TEST(TDictTest, DisplacedTombstonesAreDroppedAndCountersStay) { CheckDroppedTombstones<TDict>(); }
TEST(TDict64Test, DisplacedTombstonesAreDroppedAndCountersStay) { CheckDroppedTombstones<TDict64>(); }

TEST(TDictTest, KeyZeroTombstonesAndShrinks) { CheckKeyZeroTombstonesAndShrinks<TDict>(); }
TEST(TDict64Test, KeyZeroTombstonesAndShrinks) { CheckKeyZeroTombstonesAndShrinks<TDict64>(); }

// Each case logs exactly the assertions listed, "<source>, line <n>".
template <typename Dict>
void CheckAssertions() {
  auto expect = [](std::vector<int> lines, auto body) {
    TestHost host;
    body();
    std::vector<std::string> want, got;
    for (int line : lines) want.push_back("ASSERT: " + std::string(Kind<Dict>::kSource) + ", line " + std::to_string(line));
    for (const LoggedLine& l : host.LinesWithFormat("ASSERT: %s, line %~d")) got.push_back(l.text);
    EXPECT_EQ(got, want);
  };
  expect({123, 127, 123}, [] {
    Dict dict;
    dict.Reset(-200);
    EXPECT_EQ(dict.GetTableSize(), 251);
    dict.Reset(16777214);
    EXPECT_EQ(dict.GetTableSize(), 16777213);
    dict.Reset(INT_MIN);
    EXPECT_EQ(dict.GetTableSize(), 16777213);
  });
  expect({329}, [] {  // a revived tombstone takes a corrupt count below 0
    Dict dict;
    dict.Define(7, 1);
    dict.Undefine(7);
    Peer::Deleted(dict) = 0;
    dict.Define(7, 2);
    EXPECT_EQ(Peer::Deleted(dict), 0);
  });
  expect({394}, [] {  // more tombstones than used slots
    Dict dict;
    dict.Define(7, 1);
    Peer::Used(dict) = 0;
    dict.Undefine(7);
  });
  expect({423}, [] {  // used < deleted; the rebuild counts what is really there
    Dict dict;
    for (int k = 1; k <= 50; ++k) dict.Define(k, k);
    Peer::Deleted(dict) = 90;
    Peer::High(dict) = 0;
    dict.Define(51, 51);
    EXPECT_EQ(dict.GetCount(), 51);
    for (int k = 1; k <= 51; ++k) EXPECT_EQ(dict.Lookup(k), k);
  });
  expect({345}, [] {  // no empty slot left: the insertion is dropped, searches still end
    for (int ordered = 0; ordered < 2; ++ordered) {
      Dict dict(-127, ordered);
      Peer::High(dict) = INT_MAX;
      for (int k = 1; k <= 127 + ordered; ++k) dict.Define(k * 3, k);
      EXPECT_EQ(dict.GetCount(), 127);
      EXPECT_EQ(dict.Lookup(1), 0);
    }
  });
}

TEST(TDictTest, MisuseAndCorruptCountersAreAssertions) { CheckAssertions<TDict>(); }
TEST(TDict64Test, MisuseAndCorruptCountersAreAssertions) { CheckAssertions<TDict64>(); }

// A rebuild the heap refuses leaves the old table working; the next
// insertion tries again.
TEST(TDictTest, RefusedRebuildKeepsTheTable) {
  TestHost host;
  TDict dict(-127, 0);
  for (int k = 1; k <= 100; ++k) dict.Define(k * 11, k);
  MemFailNextHeapRequests(4);
  dict.Define(101 * 11, 101);
  MemFailNextHeapRequests(0);
  EXPECT_EQ(dict.GetTableSize(), 127);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>{"tmemory"});
  dict.Define(102 * 11, 102);
  EXPECT_EQ(dict.GetTableSize(), 251);
  for (int k = 1; k <= 102; ++k) ASSERT_EQ(dict.Lookup(k * 11), k);
}

}  // namespace
