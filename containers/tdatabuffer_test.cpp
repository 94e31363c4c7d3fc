#include "containers/tdatabuffer.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <vector>

#include "tests/test_host.h"

namespace {

constexpr unsigned int kRecord = 12;
using Record = std::array<uint8_t, kRecord>;

Record MakeRecord(uint32_t r) {
  Record rec{};
  for (size_t i = 0; i < kRecord; ++i) rec[i] = static_cast<uint8_t>(r >> (i % 4 * 8));
  return rec;
}

::testing::AssertionResult SameAsModel(TDataBuffer& buffer, const std::vector<Record>& model) {
  if (buffer.Count() != model.size()) {
    return ::testing::AssertionFailure() << "count " << buffer.Count() << " vs " << model.size();
  }
  if (buffer.GetSize() != model.size() * kRecord) return ::testing::AssertionFailure() << "size";
  for (uint32_t i = 0; i < model.size(); ++i) {
    if (std::memcmp(buffer.GetAt(i), model[i].data(), kRecord) != 0) {
      return ::testing::AssertionFailure() << "record " << i;
    }
  }
  return ::testing::AssertionSuccess();
}

TEST(TDataBufferTest, MatchesVectorModel) {
  TestHost host;
  std::mt19937 rng(31337);
  TDataBuffer buffer(kRecord);
  std::vector<Record> model;
  for (int step = 0; step < 5000; ++step) {
    uint32_t count = static_cast<uint32_t>(model.size());
    uint32_t r = static_cast<uint32_t>(rng());
    std::vector<Record> recs;
    for (uint32_t n = r / 8 % 4; n > 0; --n) recs.push_back(MakeRecord(static_cast<uint32_t>(rng())));
    auto n = static_cast<uint32_t>(recs.size());
    switch (r % 6) {
      case 0:
      case 1: {
        void* where = buffer.Append(recs.data(), n);
        EXPECT_EQ(where == nullptr, n == 0);
        if (where != nullptr) {
          EXPECT_EQ(where, buffer.PointAt(count));
        }
        model.insert(model.end(), recs.begin(), recs.end());
        break;
      }
      case 2: {
        uint32_t at = r / 64 % (count + 1);
        void* where = buffer.Insert(recs.data(), n, at);
        if (where != nullptr) {
          EXPECT_EQ(where, buffer.PointAt(at));
        }
        model.insert(model.begin() + at, recs.begin(), recs.end());
        break;
      }
      case 3: {
        if (count == 0) break;
        // Records taken from the buffer itself, inserted before themselves.
        uint32_t from = r / 64 % count;
        uint32_t take = std::min<uint32_t>(count - from, 1 + r / 8 % 3);
        uint32_t at = r / 4096 % (count + 1);
        std::vector<Record> copy(model.begin() + from, model.begin() + from + take);
        buffer.Insert(buffer.PointAt(from), take, at);
        model.insert(model.begin() + at, copy.begin(), copy.end());
        break;
      }
      case 4: {
        uint32_t drop = count == 0 ? 0 : r / 64 % (count / 3 + 1);
        ASSERT_EQ(buffer.RemoveLast(drop), 0);
        model.resize(count - drop);
        break;
      }
      default: {
        uint32_t want = static_cast<uint32_t>(std::max<int64_t>(0, int64_t{count} + static_cast<int>(r / 64 % 7) - 3));
        ASSERT_EQ(buffer.SetCount(want), 0);
        model.resize(want, Record{});
        break;
      }
    }
    ASSERT_TRUE(SameAsModel(buffer, model)) << "step " << step;
    if (model.size() > 500) {
      ASSERT_EQ(buffer.RemoveLast(400), 0);
      model.resize(model.size() - 400);
    }
  }
  EXPECT_EQ(host.AssertCount(), 0);
  EXPECT_TRUE(host.Lines().empty());
}

TEST(TDataBufferTest, BoundsEnumerationAndAssertions) {
  TestHost host;
  TDataBuffer buffer(kRecord);
  EXPECT_EQ(buffer.PointAt(0), nullptr);
  EXPECT_EQ(buffer.GetAt(0), nullptr);
  EXPECT_EQ(buffer.Append(nullptr, 0), nullptr);
  void* zeros = buffer.Append(nullptr, 3);
  ASSERT_NE(zeros, nullptr);
  EXPECT_EQ(buffer.Count(), 3u);
  EXPECT_EQ(buffer.GetRecordSize(), kRecord);
  Record zero{};
  EXPECT_EQ(std::memcmp(buffer.PointAt(2), zero.data(), kRecord), 0);

  int seen = 0;
  for (uint32_t i = 0; buffer.Enum(i) != nullptr; ++i) ++seen;
  EXPECT_EQ(seen, 3);
  EXPECT_EQ(buffer.GetAt(3), nullptr);
  EXPECT_EQ(static_cast<char*>(buffer.PointAt(3)) - static_cast<char*>(buffer.PointAt(0)), 3 * kRecord);
  EXPECT_EQ(host.AssertCount(), 0);

  Record rec = MakeRecord(0xABCDEF01u);
  void* where = buffer.Insert(rec.data(), 1, 4);
  auto lines = host.LinesWithFormat("ASSERT: %s, line %~d");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "ASSERT: tbuffer, line 84");
  EXPECT_EQ(where, buffer.PointAt(3));
  EXPECT_EQ(buffer.Count(), 4u);

  // A size not a whole number of records: the count rounds down.
  ASSERT_EQ(buffer.TMemory::SetSize(4 * kRecord + 5), 0);
  EXPECT_EQ(buffer.Count(), 4u);
  EXPECT_EQ(buffer.GetAt(4), nullptr);

  TDataBuffer copy(buffer);
  EXPECT_EQ(copy.GetRecordSize(), kRecord);
  EXPECT_EQ(copy.GetSize(), buffer.GetSize());
  EXPECT_EQ(std::memcmp(copy.PointAt(3), rec.data(), kRecord), 0);

  // Assignment keeps the target's record size.
  TDataBuffer wide(2 * kRecord);
  wide = copy;
  EXPECT_EQ(wide.GetRecordSize(), 2 * kRecord);
  EXPECT_EQ(wide.Count(), 2u);

  TDataBuffer degenerate(0);
  EXPECT_EQ(host.LinesWithFormat("ASSERT: %s, line %~d").back().text, "ASSERT: tbuffer, line 40");
  EXPECT_EQ(degenerate.GetRecordSize(), 1u);
}

TEST(TDataBufferTest, RefusesCountsPastFourGigabytes) {
  TestHost host;
  TDataBuffer buffer(1u << 20);
  EXPECT_EQ(buffer.SetCount(1u << 12), kErrMemSizeTooLarge);
  EXPECT_EQ(buffer.Append(nullptr, 1u << 12), nullptr);
  EXPECT_EQ(buffer.Count(), 0u);
  EXPECT_EQ(host.Lines().size(), 2u);
}

}  // namespace
