#include "containers/typed_buffers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"

namespace {

const char* const kAssertFormat = "ASSERT: %s, line %~d";

// A small value domain, so that Find meets duplicates.
template <typename T>
T MakeValue(uint32_t r) {
  if constexpr (std::is_same_v<T, TDate>) {
    return TDate(static_cast<unsigned short>(2000 + r % 3), 1, static_cast<unsigned short>(1 + r / 3 % 4), 0, 0, 0,
                 0);
  } else if constexpr (std::is_same_v<T, MD5DigestSpec>) {
    MD5DigestSpec d{};
    d.bytes[0] = static_cast<uint8_t>(r % 11);
    d.bytes[15] = 0xA5;
    return d;
  } else if constexpr (std::is_signed_v<T>) {
    return static_cast<T>(static_cast<int>(r % 13) - 6);
  } else {
    // The top bits set too, so that no type narrows the values silently.
    return static_cast<T>(static_cast<T>(r % 13) | static_cast<T>(T(1) << (sizeof(T) * 8 - 1)));
  }
}

template <typename Buffer, typename T>
::testing::AssertionResult SameAsModel(Buffer& buffer, const std::vector<T>& model) {
  if (buffer.Count() != model.size()) {
    return ::testing::AssertionFailure() << "count " << buffer.Count() << " vs " << model.size();
  }
  if (model.empty()) return ::testing::AssertionSuccess();
  if (std::memcmp(buffer.PointAt(0), model.data(), model.size() * sizeof(T)) != 0) {
    return ::testing::AssertionFailure() << "contents differ";
  }
  return ::testing::AssertionSuccess();
}

template <typename T>
int64_t ModelFind(const std::vector<T>& model, const T& value) {
  for (size_t i = model.size(); i > 0; --i) {
    if (model[i - 1] == value) return static_cast<int64_t>(i - 1);
  }
  return -1;
}

template <typename Buffer>
class TypedBufferTest : public ::testing::Test {};

using BufferTypes = ::testing::Types<TUint8Buffer, TSint16Buffer, TSint32Buffer, TSint64Buffer, TUint32Buffer,
                                     TUint64Buffer, TDateBuffer, TMD5DigestBuffer>;
TYPED_TEST_SUITE(TypedBufferTest, BufferTypes);

// Long random runs of every changing operation against a std::vector.
TYPED_TEST(TypedBufferTest, MatchesVectorModel) {
  using T = typename TypeParam::ValueType;
  TestHost host;
  std::mt19937 rng(20240611);
  TypeParam buffer;
  std::vector<T> model;
  for (int step = 0; step < 6000; ++step) {
    uint32_t count = static_cast<uint32_t>(model.size());
    uint32_t r = static_cast<uint32_t>(rng());
    T value = MakeValue<T>(static_cast<uint32_t>(rng()));
    switch (r % 11) {
      case 0:
      case 1:
        ASSERT_EQ(buffer.Add(value), 0);
        model.push_back(value);
        break;
      case 2: {
        uint32_t at = count == 0 ? 0 : r / 16 % (count + 1);
        T* where = buffer.Insert(value, at);
        ASSERT_NE(where, nullptr);
        EXPECT_EQ(where, buffer.PointAt(at));
        model.insert(model.begin() + at, value);
        break;
      }
      case 3: {
        std::vector<T> values;
        for (uint32_t n = r / 16 % 5; n > 0; --n) values.push_back(MakeValue<T>(static_cast<uint32_t>(rng())));
        uint32_t at = count == 0 ? 0 : r / 256 % (count + 1);
        T* where = buffer.Insert(values.data(), static_cast<uint32_t>(values.size()), at);
        EXPECT_EQ(where == nullptr, values.empty());
        model.insert(model.begin() + at, values.begin(), values.end());
        break;
      }
      case 4:
        if (count == 0) break;
        ASSERT_EQ(buffer.Remove(r / 16 % count), 0);
        model.erase(model.begin() + r / 16 % count);
        break;
      case 5: {
        uint32_t n = count == 0 ? 0 : r / 16 % (count / 4 + 1);
        ASSERT_EQ(buffer.RemoveLast(n), 0);
        model.resize(count - n);
        break;
      }
      case 6:
        if (count == 0) break;
        buffer.SetAt(r / 16 % count, value);
        model[r / 16 % count] = value;
        break;
      case 7: {
        // Around the current count: shrinking and growing by zeros.
        uint32_t n = static_cast<uint32_t>(std::max<int64_t>(0, int64_t{count} + static_cast<int>(r / 16 % 9) - 4));
        ASSERT_EQ(buffer.SetCount(n), 0);
        T zero;
        std::memset(static_cast<void*>(&zero), 0, sizeof zero);
        model.resize(n, zero);
        break;
      }
      case 8: {
        std::vector<T> values;
        for (uint32_t n = r / 16 % 4; n > 0; --n) values.push_back(MakeValue<T>(static_cast<uint32_t>(rng())));
        T* where = buffer.Append(values.data(), static_cast<uint32_t>(values.size()));
        EXPECT_EQ(where == nullptr, values.empty());
        model.insert(model.end(), values.begin(), values.end());
        break;
      }
      case 9:
        if (count > 200) break;
        // Appending itself: the source moves while the block grows.
        EXPECT_EQ(buffer.Append(&buffer), 2 * count);
        model.insert(model.end(), model.begin(), model.begin() + count);
        break;
      default:
        EXPECT_EQ(buffer.Find(value), ModelFind(model, value));
        break;
    }
    ASSERT_TRUE(SameAsModel(buffer, model)) << "step " << step << " op " << r % 11;
    if (buffer.Count() > 600) {
      ASSERT_EQ(buffer.SetCount(100), 0);
      model.resize(100);
    }
  }
  EXPECT_EQ(host.AssertCount(), 0);
  EXPECT_TRUE(host.Lines().empty());
}

TYPED_TEST(TypedBufferTest, IndexErrorsAreAssertionsGetAtIsNull) {
  using T = typename TypeParam::ValueType;
  TestHost host;
  TypeParam buffer;
  for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(buffer.Add(MakeValue<T>(i)), 0);
  std::vector<uint8_t> before(static_cast<const uint8_t*>(buffer.MemPtr()),
                              static_cast<const uint8_t*>(buffer.MemPtr()) + buffer.GetSize());

  EXPECT_EQ(buffer.GetAt(3), nullptr);
  EXPECT_EQ(buffer.GetAt(0xFFFFFFFFu), nullptr);
  EXPECT_EQ(buffer.GetAt(2), buffer.PointAt(2));
  EXPECT_EQ(buffer.Enum(3), nullptr);
  EXPECT_EQ(host.AssertCount(), 0);

  buffer[3] = MakeValue<T>(7);  // lands in the scratch element
  auto lines = host.LinesWithFormat(kAssertFormat);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "ASSERT: tbuffer, line 444");
  buffer.SetAt(100, MakeValue<T>(7));
  EXPECT_EQ(host.LinesWithFormat(kAssertFormat).size(), 2u);

  EXPECT_EQ(buffer.Remove(3), kErrBadParameter);
  lines = host.LinesWithFormat(kAssertFormat);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2].text, "ASSERT: tbuffer, line 474");

  // Nothing above changed the buffer.
  ASSERT_EQ(buffer.Count(), 3u);
  EXPECT_EQ(std::memcmp(buffer.MemPtr(), before.data(), before.size()), 0);

  // Insert past the end asserts, then appends.
  T value = MakeValue<T>(5);
  T* where = buffer.Insert(value, 4);
  lines = host.LinesWithFormat(kAssertFormat);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[3].text, "ASSERT: tbuffer, line 84");
  ASSERT_EQ(buffer.Count(), 4u);
  EXPECT_EQ(where, buffer.PointAt(3));
  EXPECT_EQ(std::memcmp(where, &value, sizeof value), 0);

  EXPECT_EQ(buffer.RemoveLast(9), 0);
  lines = host.LinesWithFormat(kAssertFormat);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[4].text, "ASSERT: tbuffer, line 497");
  EXPECT_EQ(buffer.Count(), 0u);
  for (const auto& source : host.AssertSources()) EXPECT_EQ(source, "tbuffer");
}

TYPED_TEST(TypedBufferTest, InsertAtCountIsAppendAndLoadMoveCopy) {
  using T = typename TypeParam::ValueType;
  TestHost host;
  TypeParam a;
  TypeParam b;
  std::vector<T> values;
  for (uint32_t i = 0; i < 5; ++i) values.push_back(MakeValue<T>(i * 5 + 1));
  a.Insert(values.data(), 3, 0);
  a.Insert(values.data() + 3, 2, a.Count());
  b.Append(values.data(), 5);
  EXPECT_TRUE(SameAsModel(a, values));
  EXPECT_TRUE(SameAsModel(b, values));

  // Load replaces; from the buffer's own elements too.
  ASSERT_EQ(b.Load(b.PointAt(1), 3), 0);
  EXPECT_TRUE(SameAsModel(b, std::vector<T>(values.begin() + 1, values.begin() + 4)));
  ASSERT_EQ(b.Load(nullptr, 2), 0);
  ASSERT_EQ(b.Count(), 2u);
  EXPECT_EQ(*reinterpret_cast<const uint8_t*>(b.PointAt(1)), 0);

  // Move takes the contents and empties the source.
  ASSERT_EQ(b.Move(&a), 0);
  EXPECT_TRUE(SameAsModel(b, values));
  EXPECT_EQ(a.Count(), 0u);
  EXPECT_EQ(b.Move(&b), 0);
  EXPECT_TRUE(SameAsModel(b, values));

  TypeParam copy(b);
  EXPECT_TRUE(SameAsModel(copy, values));
  a = copy;
  EXPECT_TRUE(SameAsModel(a, values));
  EXPECT_EQ(host.AssertCount(), 0);
}

// Growth moves the block a logarithmic number of times.
TEST(TypedBufferGrowth, AddIsAmortised) {
  TUint32Buffer buffer;
  int moves = 0;
  void* last = nullptr;
  for (uint32_t i = 0; i < 200000; ++i) {
    ASSERT_EQ(buffer.Add(i), 0);
    if (buffer.MemPtr() != last) {
      ++moves;
      last = buffer.MemPtr();
    }
  }
  EXPECT_LE(moves, 40);
  EXPECT_EQ(buffer[199999], 199999u);
  EXPECT_EQ(buffer.Count(), 200000u);
}

TEST(TypedBufferDigest, IsValidAndPointAt) {
  TMD5DigestBuffer buffer;
  ASSERT_EQ(buffer.SetCount(3), 0);
  EXPECT_FALSE(buffer.IsValid(0));
  EXPECT_FALSE(buffer.IsValid(3));
  MD5DigestSpec d{};
  d.bytes[9] = 1;
  buffer.SetAt(1, d);
  EXPECT_TRUE(buffer.IsValid(1));
  EXPECT_FALSE(buffer.IsValid(2));
  EXPECT_EQ(buffer.pointAt(1), buffer.GetAt(1));
  EXPECT_EQ(*buffer.pointAt(1), d);
  EXPECT_EQ(buffer.Find(d), 1);
  buffer.Reset();
  EXPECT_EQ(buffer.Count(), 0u);
  MD5DigestSpec low{};
  MD5DigestSpec high{};
  high.bytes[0] = 1;
  low.bytes[15] = 0xFF;
  EXPECT_LT(low, high);
}

// ---- flat form ------------------------------------------------------------

template <typename Buffer>
class TypedBufferExportTest : public ::testing::Test {};

using IntegerBufferTypes =
    ::testing::Types<TUint8Buffer, TSint16Buffer, TSint32Buffer, TSint64Buffer, TUint32Buffer, TUint64Buffer>;
TYPED_TEST_SUITE(TypedBufferExportTest, IntegerBufferTypes);

// The flat form, laid out independently: a little-endian count, then each
// element's bytes from the lowest up.
template <typename T>
std::vector<uint8_t> HandImage(const std::vector<T>& values) {
  std::vector<uint8_t> out;
  uint32_t count = static_cast<uint32_t>(values.size());
  for (int b = 0; b < 4; ++b) out.push_back(static_cast<uint8_t>(count >> (8 * b)));
  for (T v : values) {
    auto u = static_cast<std::make_unsigned_t<T>>(v);
    for (size_t b = 0; b < sizeof(T); ++b) out.push_back(static_cast<uint8_t>(static_cast<uint64_t>(u) >> (8 * b)));
  }
  return out;
}

TYPED_TEST(TypedBufferExportTest, RoundTripAndHandImage) {
  using T = typename TypeParam::ValueType;
  TestHost host;
  std::mt19937_64 rng(99);
  for (uint32_t n : {0u, 1u, 2u, 17u, 1000u}) {
    TypeParam buffer;
    std::vector<T> values;
    for (uint32_t i = 0; i < n; ++i) values.push_back(static_cast<T>(rng()));
    buffer.Append(values.data(), n);
    std::vector<uint8_t> want = HandImage(values);
    ASSERT_EQ(buffer.ExportSize(), want.size());
    std::vector<uint8_t> image(want.size() + 3, 0xEE);
    ASSERT_EQ(buffer.Export(image.data(), static_cast<unsigned int>(want.size())), 0);
    EXPECT_TRUE(std::equal(want.begin(), want.end(), image.begin()));
    EXPECT_EQ(image[want.size()], 0xEE);  // nothing written past the form

    TypeParam back;
    back.Add(static_cast<T>(5));  // replaced, not appended to
    ASSERT_EQ(back.Import(image.data(), static_cast<unsigned int>(image.size())), 0);
    EXPECT_TRUE(SameAsModel(back, values));
  }
  EXPECT_TRUE(host.Lines().empty());
}

TYPED_TEST(TypedBufferExportTest, RefusesShortAndHostileImages) {
  using T = typename TypeParam::ValueType;
  TestHost host;
  std::vector<T> values = {static_cast<T>(1), static_cast<T>(-2), static_cast<T>(3)};
  std::vector<uint8_t> image = HandImage(values);

  TypeParam buffer;
  buffer.Add(static_cast<T>(42));
  // Every proper prefix, in a heap block of exactly its size so that a read
  // past it is caught by the address sanitizer.
  for (size_t len = 0; len < image.size(); ++len) {
    host.Clear();
    auto exact = std::make_unique<uint8_t[]>(len == 0 ? 1 : len);
    std::memcpy(exact.get(), image.data(), len);
    EXPECT_EQ(buffer.Import(exact.get(), static_cast<unsigned int>(len)), kErrInvalidData) << len;
    EXPECT_EQ(host.Lines().size(), 1u) << len;
    ASSERT_EQ(buffer.Count(), 1u);
    EXPECT_EQ(buffer[0], static_cast<T>(42));
  }
  host.Clear();
  EXPECT_EQ(buffer.Import(nullptr, 100), kErrInvalidData);
  EXPECT_EQ(host.Lines().size(), 1u);

  // A count that no buffer of this size can hold.
  host.Clear();
  auto hostile = std::make_unique<uint8_t[]>(8);
  const uint8_t bytes[8] = {0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4};
  std::memcpy(hostile.get(), bytes, 8);
  EXPECT_EQ(buffer.Import(hostile.get(), 8), kErrInvalidData);
  auto lines = host.LinesWithFormat("%s::Import: count %~u needs %~ld bytes, %~u given, %E");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(host.Lines().size(), 1u);
  uint64_t needed = 4 + 4294967295ull * sizeof(T);
  EXPECT_NE(lines[0].text.find("Import: count 4294967295 needs " + std::to_string(needed) + " bytes, 8 given"),
            std::string::npos)
      << lines[0].text;
  EXPECT_EQ(buffer.Count(), 1u);

  // Export into too small a buffer.
  host.Clear();
  uint8_t small[4 + sizeof(T)];
  EXPECT_EQ(buffer.Export(small, sizeof small - 1), kErrBufferTooSmall);
  EXPECT_EQ(host.Lines().size(), 1u);
  EXPECT_EQ(buffer.Export(small, sizeof small), 0);
}

TEST(TypedBufferExport, KnownBytesAndImportFromItself) {
  TUint32Buffer words;
  words.Add(1);
  words.Add(0x01020304u);
  uint8_t image[12];
  ASSERT_EQ(words.Export(image, sizeof image), 0);
  const uint8_t want[12] = {2, 0, 0, 0, 1, 0, 0, 0, 4, 3, 2, 1};
  EXPECT_EQ(std::memcmp(image, want, sizeof want), 0);

  TSint16Buffer halves;
  const uint8_t halfImage[8] = {2, 0, 0, 0, 0xFE, 0xFF, 0x00, 0x80};
  ASSERT_EQ(halves.Import(halfImage, sizeof halfImage), 0);
  ASSERT_EQ(halves.Count(), 2u);
  EXPECT_EQ(halves[0], -2);
  EXPECT_EQ(halves[1], -32768);

  // A byte buffer that holds a flat form of itself.
  TUint8Buffer bytes;
  const uint8_t selfImage[7] = {3, 0, 0, 0, 'a', 'b', 'c'};
  bytes.Append(selfImage, sizeof selfImage);
  ASSERT_EQ(bytes.Import(bytes.PointAt(0), bytes.Count()), 0);
  ASSERT_EQ(bytes.Count(), 3u);
  EXPECT_EQ(std::memcmp(bytes.PointAt(0), "abc", 3), 0);
}

// ---- reserve variants ---------------------------------------------------

template <typename Buffer>
class ReserveBufferTest : public ::testing::Test {};

using ReserveTypes = ::testing::Types<TUint32BufferReserve, TUint64BufferReserve>;
TYPED_TEST_SUITE(ReserveBufferTest, ReserveTypes);

TYPED_TEST(ReserveBufferTest, MatchesVectorModel) {
  using T = typename TypeParam::ValueType;
  TestHost host;
  std::mt19937 rng(4711);
  TypeParam buffer;
  std::vector<T> model;
  for (int step = 0; step < 6000; ++step) {
    uint32_t count = static_cast<uint32_t>(model.size());
    uint32_t r = static_cast<uint32_t>(rng());
    T value = MakeValue<T>(static_cast<uint32_t>(rng()));
    uint32_t capacityBefore = buffer.Capacity();
    switch (r % 8) {
      case 0:
      case 1:
        ASSERT_EQ(buffer.Add(value), 0);
        model.push_back(value);
        EXPECT_GE(buffer.Capacity(), capacityBefore);
        break;
      case 2: {
        // Reserve leaves the count and never shrinks the storage.
        uint32_t n = r / 8 % 400;
        ASSERT_EQ(buffer.Reserve(n), 0);
        EXPECT_EQ(buffer.Capacity(), n > count && n > capacityBefore ? n : capacityBefore);
        break;
      }
      case 3: {
        uint32_t n = r / 8 % 300;
        ASSERT_EQ(buffer.SetCount(n), 0);
        EXPECT_EQ(buffer.Capacity(), std::max(n, capacityBefore));
        model.resize(n, T{0});
        break;
      }
      case 4: {
        // SetSize sizes the storage and the count together.
        uint32_t n = r / 8 % 300;
        ASSERT_EQ(buffer.SetSize(uint64_t{n} * sizeof(T)), 0);
        EXPECT_EQ(buffer.Capacity(), n);
        model.resize(n, T{0});
        break;
      }
      case 5: {
        std::vector<T> values;
        for (uint32_t n = r / 8 % 5; n > 0; --n) values.push_back(MakeValue<T>(static_cast<uint32_t>(rng())));
        EXPECT_EQ(buffer.Append(values.data(), static_cast<uint32_t>(values.size())) == nullptr, values.empty());
        model.insert(model.end(), values.begin(), values.end());
        break;
      }
      case 6:
        if (count == 0) break;
        buffer.SetAt(r / 8 % count, value);
        model[r / 8 % count] = value;
        break;
      default:
        EXPECT_EQ(buffer.Find(value), ModelFind(model, value));
        break;
    }
    ASSERT_TRUE(SameAsModel(buffer, model)) << "step " << step << " op " << r % 8;
    ASSERT_GE(buffer.Capacity(), buffer.Count());
    // The storage past the count is zero.
    for (uint32_t i = buffer.Count(); i < buffer.Capacity(); ++i) ASSERT_EQ(*buffer.PointAt(i), T{0}) << i;
  }
  EXPECT_EQ(host.AssertCount(), 0);
}

TEST(ReserveBuffer, ReserveAheadThenAddWithoutMoving) {
  TestHost host;
  TUint32BufferReserve buffer;
  ASSERT_EQ(buffer.Reserve(1000), 0);
  EXPECT_EQ(buffer.Count(), 0u);
  void* storage = buffer.MemPtr();
  for (uint32_t i = 0; i < 1000; ++i) ASSERT_EQ(buffer.Add(i * 3), 0);
  EXPECT_EQ(buffer.MemPtr(), storage);
  EXPECT_EQ(buffer.Count(), 1000u);
  EXPECT_EQ(buffer.Find(2997), 999);
  buffer.Add(3);
  EXPECT_EQ(buffer.Find(3), 1000);
  EXPECT_EQ(buffer.GetAt(1001), nullptr);
  buffer[1001] = 1;
  EXPECT_EQ(host.LinesWithFormat(kAssertFormat).at(0).text, "ASSERT: tbuffer, line 444");

  TUint32BufferReserve other;
  other.Add(8);
  EXPECT_EQ(other.Append(&buffer), 1002u);
  EXPECT_EQ(other[1], 0u);
  EXPECT_EQ(other.Append(&other), 2004u);
  EXPECT_EQ(other[1002], 8u);
  TUint32BufferReserve copy(other);
  EXPECT_EQ(copy.Count(), 2004u);
  EXPECT_EQ(copy[2003], 3u);
}

}  // namespace
