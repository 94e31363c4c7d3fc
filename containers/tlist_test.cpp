#include "containers/tlist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "foundation/errors.h"
#include "foundation/memory.h"
#include "tests/test_host.h"

namespace {

// The model keeps each value with the address GetAtRaw gave when it went
// in: a value's address must not move while it stays in the list.
struct Slot {
  uint64_t value;
  const uint64_t* address;
};

void ExpectSame(TList& list, const std::vector<Slot>& model, int step) {
  ASSERT_EQ(list.GetCount(), static_cast<int>(model.size())) << "step " << step;
  // By cursor, from the front.
  size_t i = 0;
  for (TListNode* n = list.Next(nullptr); n != nullptr; n = list.Next(n), ++i) {
    ASSERT_LT(i, model.size());
    ASSERT_EQ(n->GetValue(), model[i].value) << "step " << step << " at " << i;
    ASSERT_EQ(n->GetValueRaw(), model[i].address) << "step " << step << " at " << i;
  }
  ASSERT_EQ(i, model.size());
  // By position, backwards (the far end and the remembered position).
  for (int k = static_cast<int>(model.size()) - 1; k >= 0; --k) {
    ASSERT_EQ(list.GetAtRaw(k), model[k].address) << "step " << step << " at " << k;
  }
  ASSERT_EQ(list.GetAtRaw(static_cast<int>(model.size())), nullptr);
  ASSERT_EQ(list.GetAtRaw(-1), nullptr);
}

// Single lookups at random positions: they start from whatever position the
// last operation left remembered, and leave a new one for the next.
void Probe(TList& list, const std::vector<Slot>& model, std::mt19937& rng, int step) {
  if (model.empty()) return;
  for (int k = 0; k < 2; ++k) {
    size_t at = rng() % model.size();
    ASSERT_EQ(list.GetAtRaw(static_cast<int>(at)), model[at].address) << "step " << step << " at " << at;
  }
}

// Random operation sequences against a std::vector model. Values come from
// a small range so that duplicates, Find and Remove are exercised.
TEST(TListTest, RandomOperationsMatchVectorModel) {
  std::mt19937 rng(1234);
  int64_t blocksBefore = MemLiveBlocks();
  for (int round = 0; round < 20; ++round) {
    TestHost host;
    TList list;
    std::vector<Slot> model;
    int refusals = 0;
    for (int step = 0; step < 600; ++step) {
      int size = static_cast<int>(model.size());
      uint64_t value = rng() % 24;
      switch (rng() % 14) {
        case 0: case 1: case 2: case 3: {  // AddAt, now and then out of range or at the end
          int position = static_cast<int>(rng() % (size + 3)) - 1;
          int result = list.AddAt(value, position);
          if (position > size) {
            ASSERT_EQ(result, kErrBadParameter);
            ++refusals;
            break;
          }
          ASSERT_EQ(result, 0);
          int at = position < 0 ? size : position;
          model.insert(model.begin() + at, Slot{value, list.GetAtRaw(at)});
          break;
        }
        case 4: case 5: {
          if (size == 0) break;
          int position = static_cast<int>(rng() % size);
          ASSERT_EQ(list.RemoveAt(position), model[position].value);
          model.erase(model.begin() + position);
          break;
        }
        case 6: {
          auto found = std::find_if(model.begin(), model.end(), [&](const Slot& s) { return s.value == value; });
          int expected = found == model.end() ? -1 : static_cast<int>(found - model.begin());
          ASSERT_EQ(list.Find(value), expected);
          ASSERT_EQ(list.Remove(value), expected);
          if (expected >= 0) model.erase(model.begin() + expected);
          break;
        }
        case 7: {
          int from = static_cast<int>(rng() % (size + 1));
          int to = static_cast<int>(rng() % (size + 1));
          int result = list.MoveTo(from, to);
          if (from >= size || to >= size) {
            ASSERT_EQ(result, kErrBadParameter);
            ++refusals;
            break;
          }
          ASSERT_EQ(result, 0);
          Slot moved = model[from];
          model.erase(model.begin() + from);
          model.insert(model.begin() + to, moved);
          break;
        }
        case 8: {  // FindIf walking every match with a capturing predicate
          uint64_t divisor = 2 + rng() % 5;
          auto matches = [divisor](uint64_t v) { return v % divisor == 0; };
          const TListNode* cursor = nullptr;
          std::vector<uint64_t> seen;
          while ((cursor = list.FindIf(matches, cursor)) != nullptr) seen.push_back(cursor->GetValue());
          std::vector<uint64_t> expected;
          for (const Slot& s : model) {
            if (matches(s.value)) expected.push_back(s.value);
          }
          ASSERT_EQ(seen, expected);
          break;
        }
        case 9: {
          uint64_t limit = rng() % 24;
          auto below = [limit](uint64_t v) { return v < limit ? 1 : 0; };
          bool keep = rng() % 2 == 0;
          auto gone = std::remove_if(model.begin(), model.end(),
                                     [&](const Slot& s) { return (below(s.value) != 0) != keep; });
          int expected = static_cast<int>(model.end() - gone);
          model.erase(gone, model.end());
          ASSERT_EQ(keep ? list.FilterIf(below) : list.RemoveIf(below), expected);
          break;
        }
        case 10: {  // += another list, or the list itself
          if (rng() % 3 == 0) {
            const TList& self = list;
            list += self;
            std::vector<Slot> copy = model;
            for (size_t k = 0; k < copy.size(); ++k) model.push_back(Slot{copy[k].value, list.GetAtRaw(size + k)});
            break;
          }
          TList other;
          int n = static_cast<int>(rng() % 6);
          for (int k = 0; k < n; ++k) ASSERT_EQ(other.AddAt(rng() % 24, kListEnd), 0);
          list += other;
          for (int k = 0; k < n; ++k) model.push_back(Slot{*other.GetAtRaw(k), list.GetAtRaw(size + k)});
          ASSERT_EQ(other.GetCount(), n);
          break;
        }
        case 11: {  // -= another list, rarely itself
          TList other;
          std::vector<uint64_t> values;
          int n = static_cast<int>(rng() % 4);
          for (int k = 0; k < n; ++k) {
            values.push_back(rng() % 24);
            ASSERT_EQ(other.AddAt(values.back(), 0), 0);
          }
          if (rng() % 20 == 0) {
            const TList& self = list;
            list -= self;
            model.clear();
            break;
          }
          list -= other;
          std::erase_if(model, [&](const Slot& s) {
            return std::find(values.begin(), values.end(), s.value) != values.end();
          });
          break;
        }
        case 12: {  // writing through the raw address
          if (size == 0) break;
          int position = static_cast<int>(rng() % size);
          *list.GetAtRaw(position) = value;
          model[position].value = value;
          break;
        }
        default:
          if (rng() % 10 == 0) {
            list.Clear();
            model.clear();
          }
          break;
      }
      Probe(list, model, rng, step);
      if (step % 4 == 0) {
        ExpectSame(list, model, step);
        Probe(list, model, rng, step);
      }
      ASSERT_EQ(MemLiveBlocks(), blocksBefore + static_cast<int64_t>(model.size()));
    }
    EXPECT_EQ(static_cast<int>(host.LinesWithFormat("TList::AddAt: position %~d outside 0..%~d, %E").size() +
                               host.LinesWithFormat("TList::MoveTo: cannot move %~d to %~d in %~d values, %E").size()),
              refusals);
    EXPECT_EQ(host.AssertCount(), 0);
  }
  EXPECT_EQ(MemLiveBlocks(), blocksBefore);
}

int IsOdd(uint64_t value) { return static_cast<int>(value & 1); }

TEST(TListTest, EdgesAndRefusals) {
  TestHost host;
  TList list;
  EXPECT_EQ(list.RemoveAt(0), 0u);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>{"tlist"});
  EXPECT_EQ(list.Find(5), -1);
  EXPECT_EQ(list.Remove(5), -1);
  EXPECT_EQ(list.Next(nullptr), nullptr);
  EXPECT_EQ(list.FindIf(IsOdd), nullptr);

  for (uint64_t v : {1u, 2u, 3u, 4u, 5u}) ASSERT_EQ(list.AddAt(v, kListEnd), 0);
  EXPECT_EQ(list.AddAt(9, 6), kErrBadParameter);
  ASSERT_EQ(host.LinesWithFormat("TList::AddAt: position %~d outside 0..%~d, %E").size(), 1u);
  EXPECT_EQ(host.LinesWithFormat("TList::AddAt: position %~d outside 0..%~d, %E")[0].text.substr(0, 32),
            "TList::AddAt: position 6 outside");
  EXPECT_EQ(list.MoveTo(-1, 0), kErrBadParameter);
  EXPECT_EQ(list.MoveTo(0, 5), kErrBadParameter);
  EXPECT_EQ(list.RemoveAt(5), 0u);
  EXPECT_EQ(host.AssertCount(), 2);
  EXPECT_EQ(list.GetCount(), 5);

  // Pointers go in as values; a plain function serves as a predicate.
  int target = 0;
  ASSERT_EQ(list.AddAt(reinterpret_cast<uint64_t>(&target), 0), 0);
  EXPECT_EQ(reinterpret_cast<int*>(*list.GetAtRaw(0)), &target);
  EXPECT_EQ(list.RemoveAt(0), reinterpret_cast<uint64_t>(&target));
  EXPECT_EQ(list.FindIf(IsOdd)->GetValue(), 1u);
  EXPECT_EQ(list.FilterIf(IsOdd), 2);
  ASSERT_EQ(list.GetCount(), 3);
  EXPECT_EQ(*list.GetAtRaw(2), 5u);
  EXPECT_EQ(list.RemoveIf(IsOdd), 3);
  EXPECT_EQ(list.GetCount(), 0);
}

}  // namespace
