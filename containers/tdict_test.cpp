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
struct Kind;
template <>
struct Kind<TDict> {
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
  for (const auto& [key, value] : Pairs(dict)) keys.push_back(key);
  return keys;
}

std::vector<int64_t> NonZero(const std::vector<int64_t>& slots) {
  std::vector<int64_t> out;
  for (int64_t key : slots) {
    if (key != 0) out.push_back(key);
  }
  return out;
}

std::vector<std::string> AssertTexts(const TestHost& host) {
  std::vector<std::string> out;
  for (const LoggedLine& line : host.LinesWithFormat("ASSERT: %s, line %~d")) out.push_back(line.text);
  return out;
}

// A model of one dictionary: its own pairs (key 0 included) and its parent.
template <typename Dict>
struct Model {
  using Key = typename Kind<Dict>::Key;
  std::map<Key, Key> own;
  const Model* parent = nullptr;

  Key Expected(Key key) const {
    for (const Model* m = this; m != nullptr; m = m->parent) {
      auto it = m->own.find(key);
      if (it != m->own.end()) return it->second;
    }
    return 0;
  }
  void Define(Key key, Key value) {
    if (value == 0) {
      own.erase(key);
    } else {
      own[key] = value;
    }
  }
  size_t TableCount() const { return own.size() - own.count(0); }
};

template <typename Dict>
class Differential {
 public:
  using Key = typename Kind<Dict>::Key;
  using UKey = typename Kind<Dict>::UKey;

  Differential(int ordered, bool withParent, uint32_t seed) : m_dict(0, ordered), m_parent(0, ordered), m_rng(seed) {
    // Small keys (which share home slot 0 in small tables), and families of
    // keys with one square: k, -k, k + 2^(width-1), and for 64 bits k + 2^32.
    for (Key k = 1; k <= 80; ++k) m_pool.insert(m_pool.end(), {k, static_cast<Key>(-k)});
    for (int i = 0; i < 1000; ++i) {
      UKey k = static_cast<UKey>(m_rng()) | (static_cast<UKey>(m_rng()) << 31);
      UKey half = static_cast<UKey>(1) << (Kind<Dict>::kWidth - 1);
      m_pool.insert(m_pool.end(), {static_cast<Key>(k), static_cast<Key>(-k), static_cast<Key>(k + half)});
      if constexpr (Kind<Dict>::kWidth == 64) m_pool.push_back(static_cast<Key>(k + (UKey{1} << 32)));
    }
    m_pool.push_back(0);
    if (withParent) {
      m_dict.SetParent(&m_parent);
      m_model.parent = &m_parentModel;
    }
  }

  void Run() {
    // Grow, empty, then churn a small map until the tombstones pile up:
    // rebuilds in both directions, twice.
    for (int round = 0; round < 2 && !::testing::Test::HasFailure(); ++round) {
      RunPhase(70, 40000, [&] { return m_model.own.size() >= 1500; });
      RunPhase(15, 40000, [&] { return m_model.own.size() <= 10; });
      RunPhase(50, 3000, [] { return false; });
    }
    EXPECT_TRUE(m_grew);
    EXPECT_TRUE(m_shrank);
  }

 private:
  Key PoolKey() { return m_pool[m_rng() % m_pool.size()]; }
  Key Value() { return m_rng() % 10 == 0 ? 0 : static_cast<Key>(m_rng() | 1); }

  template <typename Done>
  void RunPhase(unsigned definePercent, int steps, Done done) {
    for (int step = 0; step < steps && !done(); ++step) {
      Key key = PoolKey();
      unsigned r = m_rng() % 100;
      if (m_model.parent != nullptr && r >= 95) {
        Key value = Value();
        m_parent.Define(key, value);
        m_parentModel.Define(key, value);
      } else if (r < definePercent) {
        Key value = Value();
        m_dict.Define(key, value);
        m_model.Define(key, value);
      } else {
        m_dict.Undefine(key);
        m_model.own.erase(key);
      }
      ASSERT_EQ(m_dict.GetCount(), static_cast<int>(m_model.TableCount()));
      ASSERT_EQ(m_dict.Lookup(key), m_model.Expected(key)) << "key " << key << " step " << step;
      Key other = PoolKey();
      ASSERT_EQ(m_dict.Lookup(other), m_model.Expected(other)) << "key " << other;
      int size = m_dict.GetTableSize();
      m_grew |= size > m_lastSize;
      m_shrank |= size < m_lastSize;
      if (size != m_lastSize || m_model.own.size() < 100 || step % 97 == 0) {
        FullCheck();
        if (::testing::Test::HasFailure()) return;
      }
      m_lastSize = size;
    }
  }

  void FullCheck() {
    auto pairs = Pairs(m_dict);
    std::map<Key, Key> seen;
    for (const auto& [key, value] : pairs) {
      ASSERT_NE(key, 0);
      ASSERT_TRUE(seen.emplace(key, value).second) << "key twice: " << key;
    }
    std::map<Key, Key> want = m_model.own;
    want.erase(0);
    ASSERT_EQ(seen, want);
    for (const Model<Dict>* m : {&m_model, &m_parentModel}) {
      for (const auto& [key, value] : m->own) ASSERT_EQ(m_dict.Lookup(key), m_model.Expected(key)) << "key " << key;
    }
    for (int n = 0; n < 100; ++n) {
      Key key = PoolKey();
      ASSERT_EQ(m_dict.Lookup(key), m_model.Expected(key)) << "key " << key;
    }
    for (int n = 0; n < 4 && !pairs.empty(); ++n) {
      int i = static_cast<int>(m_rng() % pairs.size());
      EXPECT_EQ(m_dict.GetIndKey(i), pairs[i].first);
      EXPECT_EQ(m_dict.GetIndData(i), pairs[i].second);
      EXPECT_EQ(m_dict.LookupKeydex(static_cast<Key>(pairs[i].first)), i);
      Key value = static_cast<Key>(pairs[i].second);
      Key first = 0;
      for (const auto& [k, v] : pairs) {
        if (v == value) {
          first = static_cast<Key>(k);
          break;
        }
      }
      auto zero = m_model.own.find(0);
      if (zero != m_model.own.end() && zero->second == value) first = 0;
      EXPECT_EQ(m_dict.Find(value), first);
    }
    EXPECT_EQ(m_dict.GetIndKey(static_cast<int>(pairs.size())), 0);
    if (m_dict.IsOrdered()) CheckOrder();
  }

  // Every key sits behind larger keys only, along its own probe sequence.
  void CheckOrder() {
    auto& table = Peer::Table(m_dict);
    int64_t size = table.Size();
    for (int64_t slot = 0; slot < size; ++slot) {
      Key key = table.At(static_cast<int>(slot)).key;
      if (key == 0) continue;
      int64_t home = dict_test::SlowHome(key, size, Kind<Dict>::kWidth);
      for (int64_t j = 0;; ++j) {
        int64_t at = dict_test::ProbeSlot(home, j, size);
        if (at == slot) break;
        ASSERT_GT(static_cast<UKey>(table.At(static_cast<int>(at)).key), static_cast<UKey>(key));
      }
    }
  }

  Dict m_dict;
  Dict m_parent;
  Model<Dict> m_model;
  Model<Dict> m_parentModel;
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

// The table sizes are the largest primes below 2^7 .. 2^24, found here by
// trial division; a capacity gets the smallest of them that holds it at 80
// per cent.
TEST(TDictTest, SizesFollowTheCapacity) {
  std::vector<int> primes;
  for (int power = 7; power <= 24; ++power) {
    int p = (1 << power) - 1;
    auto isPrime = [](int n) {
      for (int d = 2; d * d <= n; ++d) {
        if (n % d == 0) return false;
      }
      return true;
    };
    while (!isPrime(p)) --p;
    primes.push_back(p);
  }
  TDict dict(0, 0);
  EXPECT_EQ(dict.GetTableSize(), 127);
  std::mt19937 rng(7);
  std::vector<int> capacities = {0, 1, 101, 102, 200, 16777213};
  for (int i = 0; i < 200; ++i) capacities.push_back(static_cast<int>(rng() % 13000000));
  for (int c : capacities) {
    dict.Reset(c);
    int size = dict.GetTableSize();
    auto it = std::find(primes.begin(), primes.end(), size);
    ASSERT_NE(it, primes.end()) << c;
    if (size != primes.back()) {
      EXPECT_GE(int64_t{size} * 80, int64_t{c} * 100) << c;
    }
    if (it != primes.begin()) {
      EXPECT_LT(int64_t{*(it - 1)} * 80, int64_t{c} * 100) << c;
    }
  }
  for (int p : primes) {
    dict.Reset(-p);
    EXPECT_EQ(dict.GetTableSize(), p);
  }
}

// Slot placement against the slow model: unordered tables put keys where
// the first free slot of their probe sequence was; ordered tables end in the
// layout of an insertion in decreasing unsigned order, whatever the order of
// definition.
template <typename Dict>
void CheckPlacement(uint32_t seed) {
  using Key = typename Kind<Dict>::Key;
  using UKey = typename Kind<Dict>::UKey;
  std::mt19937_64 rng(seed);
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
    ASSERT_EQ(plain.GetTableSize(), size);
    EXPECT_EQ(SlotKeys(plain), NonZero(dict_test::PlaceKeys(keys, size, Kind<Dict>::kWidth)));

    std::vector<int64_t> sorted = keys;
    std::sort(sorted.begin(), sorted.end(),
              [](int64_t a, int64_t b) { return static_cast<UKey>(a) > static_cast<UKey>(b); });
    std::vector<int64_t> want = NonZero(dict_test::PlaceKeys(sorted, size, Kind<Dict>::kWidth));
    for (int round = 0; round < 3; ++round) {
      std::shuffle(keys.begin(), keys.end(), rng);
      Dict ordered(-size, 1);
      for (int64_t key : keys) ordered.Define(static_cast<Key>(key), 1);
      EXPECT_EQ(SlotKeys(ordered), want);
    }
  }
}

TEST(TDictTest, PlacementFollowsTheHashAndProbe) { CheckPlacement<TDict>(11); }
TEST(TDict64Test, PlacementFollowsTheHashAndProbe) { CheckPlacement<TDict64>(12); }

TEST(TDict64Test, KeysBelow2To32SitWhereTDictPutsThem) {
  std::mt19937 rng(5);
  TDict small(-4093, 0);
  TDict64 wide(-4093, 0);
  for (int i = 0; i < 3000; ++i) {
    int key = static_cast<int>(rng() >> 1);
    small.Define(key, 1);
    wide.Define(key, 1);
  }
  EXPECT_EQ(SlotKeys(small), SlotKeys(wide));
}

template <typename Dict>
void CheckKeyZeroAndRemoval() {
  Dict parent;
  Dict dict;
  dict.SetParent(&parent);
  parent.Define(0, 9);
  EXPECT_EQ(dict.Lookup(0), 9);
  dict.Define(0, 4);
  EXPECT_EQ(dict.Lookup(0), 4);
  EXPECT_EQ(dict.GetCount(), 0);
  EXPECT_EQ(dict.Find(4), 0);
  EXPECT_EQ(dict.LookupKeydex(0), -1);
  dict.Define(5, 8);
  dict.Define(5, 0);
  EXPECT_EQ(dict.Lookup(5), 0);
  EXPECT_EQ(dict.GetCount(), 0);
  dict.Undefine(0);
  EXPECT_EQ(dict.Lookup(0), 9);
  // Key 0 never brings a rebuild, even at the high-water mark.
  dict.Reset(-127);
  for (int k = 1; k <= 100; ++k) dict.Define(k, k);
  dict.Define(0, 1);
  EXPECT_EQ(dict.GetTableSize(), 127);
  dict.Define(101, 1);
  EXPECT_EQ(dict.GetTableSize(), 251);
  EXPECT_EQ(dict.Lookup(0), 1);
  EXPECT_EQ(dict.GetParent(), &parent);
}

TEST(TDictTest, KeyZeroIsHeldApartAndValueZeroRemoves) { CheckKeyZeroAndRemoval<TDict>(); }
TEST(TDict64Test, KeyZeroIsHeldApartAndValueZeroRemoves) { CheckKeyZeroAndRemoval<TDict64>(); }

template <typename Dict>
void CheckTombstonesAndShrinks() {
  Dict dict(100000, 0);
  ASSERT_EQ(dict.GetTableSize(), 131071);
  for (int k = 1; k <= 10; ++k) dict.Define(k * 1000, k);
  // A tombstone keeps its slot and is revived by its own key.
  dict.Undefine(3000);
  EXPECT_EQ(Peer::Deleted(dict), 0);  // below the low-water mark: rebuilt
  EXPECT_EQ(dict.GetTableSize(), 127);
  dict.Undefine(4000);
  EXPECT_EQ(Peer::Deleted(dict), 1);
  EXPECT_EQ(Peer::Used(dict), 9);
  dict.Define(4000, 44);
  EXPECT_EQ(Peer::Deleted(dict), 0);
  EXPECT_EQ(Peer::Used(dict), 9);
  EXPECT_EQ(dict.Lookup(4000), 44);
  // Reaching the tombstone limit rebuilds: at the same size when the live
  // pairs still need it, smaller when they do not.
  Dict same(-127, 0);
  for (int k = 1; k <= 100; ++k) same.Define(k * 7919, k);
  for (int k = 1; k <= 63; ++k) same.Undefine(k * 7919);
  EXPECT_EQ(Peer::Deleted(same), 0);
  EXPECT_EQ(Peer::Used(same), 37);
  EXPECT_EQ(same.GetTableSize(), 127);
  Dict full(-509, 0);
  for (int k = 1; k <= 300; ++k) full.Define(k * 7919, k);
  for (int k = 1; k <= 254; ++k) full.Undefine(k * 7919);
  EXPECT_EQ(Peer::Deleted(full), 0);
  EXPECT_EQ(full.GetTableSize(), 127);
  EXPECT_EQ(full.GetCount(), 46);
}

TEST(TDictTest, TombstonesAreRevivedAndSweptByRebuilds) { CheckTombstonesAndShrinks<TDict>(); }
TEST(TDict64Test, TombstonesAreRevivedAndSweptByRebuilds) { CheckTombstonesAndShrinks<TDict64>(); }

template <typename Dict>
void CheckAssertions() {
  const std::string source = Kind<Dict>::kSource;
  auto text = [&](int line) { return "ASSERT: " + source + ", line " + std::to_string(line); };
  {
    TestHost host;
    Dict dict;
    dict.Reset(-200);
    EXPECT_EQ(dict.GetTableSize(), 251);
    dict.Reset(16777214);
    EXPECT_EQ(dict.GetTableSize(), 16777213);
    dict.Reset(INT_MIN);
    EXPECT_EQ(dict.GetTableSize(), 16777213);
    EXPECT_EQ(AssertTexts(host), (std::vector<std::string>{text(123), text(127), text(123)}));
  }
  {
    TestHost host;  // a revived tombstone takes a corrupt count below 0
    Dict dict;
    dict.Define(7, 1);
    dict.Undefine(7);
    Peer::Deleted(dict) = 0;
    dict.Define(7, 2);
    EXPECT_EQ(Peer::Deleted(dict), 0);
    EXPECT_EQ(dict.Lookup(7), 2);
    EXPECT_EQ(AssertTexts(host), std::vector<std::string>{text(329)});
  }
  {
    TestHost host;  // more tombstones than used slots
    Dict dict;
    dict.Define(7, 1);
    Peer::Used(dict) = 0;
    dict.Undefine(7);
    EXPECT_EQ(AssertTexts(host), std::vector<std::string>{text(394)});
  }
  {
    TestHost host;  // the rehash check finds used < deleted; the rebuild counts what is there
    Dict dict;
    for (int k = 1; k <= 50; ++k) dict.Define(k, k);
    Peer::Deleted(dict) = 90;
    Peer::High(dict) = 0;
    dict.Define(51, 51);
    EXPECT_EQ(AssertTexts(host), std::vector<std::string>{text(423)});
    EXPECT_EQ(dict.GetCount(), 51);
    for (int k = 1; k <= 51; ++k) EXPECT_EQ(dict.Lookup(k), k);
  }
  {
    TestHost host;  // no empty slot left: the insertion is dropped, searches still end
    Dict dict(-127, 1);
    Peer::High(dict) = INT_MAX;
    for (int k = 1; k <= 128; ++k) dict.Define(k * 3, k);
    EXPECT_EQ(AssertTexts(host), std::vector<std::string>{text(345)});
    EXPECT_EQ(dict.GetCount(), 127);
    EXPECT_EQ(dict.Lookup(1), 0);
    Dict plain(-127, 0);
    Peer::High(plain) = INT_MAX;
    for (int k = 1; k <= 127; ++k) plain.Define(k, k);
    EXPECT_EQ(plain.Lookup(1000), 0);
  }
}

TEST(TDictTest, MisuseAndCorruptCountersAreAssertions) { CheckAssertions<TDict>(); }
TEST(TDict64Test, MisuseAndCorruptCountersAreAssertions) { CheckAssertions<TDict64>(); }

TEST(TDictTest, CopiesAreDeepAndShareTheParent) {
  TDict parent;
  TDict dict(0, 1);
  dict.SetParent(&parent);
  for (int k = 1; k <= 500; ++k) dict.Define(k, -k);
  dict.Define(0, 3);
  TDict copy(dict);
  TDict assigned;
  assigned = dict;
  dict.Define(1, 99);
  for (TDict* d : {&copy, &assigned}) {
    EXPECT_EQ(d->Lookup(1), -1);
    EXPECT_EQ(d->Lookup(0), 3);
    EXPECT_EQ(d->GetCount(), 500);
    EXPECT_EQ(d->IsOrdered(), 1);
    EXPECT_EQ(d->GetParent(), &parent);
  }
  TDictIter it(copy);
  int n = 0;
  for (; it; ++it) ++n;
  EXPECT_EQ(n, 500);
  EXPECT_EQ(it.Key(), 0);
  it.Reset();
  EXPECT_EQ(it.Key(), copy.GetIndKey(0));
}

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
