#include "containers/tbuffereduint8stream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "foundation/errors.h"
#include "tests/test_host.h"

namespace {

// A random sequence of writes of every width, read back in the same order;
// the bytes compared with a little-endian image built independently.
TEST(TBufferedUint8StreamTest, RoundTripAndByteImage) {
  TestHost host;
  std::mt19937_64 rng(5);
  TBufferedUint8Stream out;
  std::vector<uint8_t> image;
  std::vector<std::pair<int, uint64_t>> written;
  for (int i = 0; i < 2000; ++i) {
    int width = 1 << (rng() % 4);
    uint64_t value = rng();
    if (width < 8) value &= (uint64_t{1} << (8 * width)) - 1;
    switch (width) {
      case 1: ASSERT_EQ(out.Put(static_cast<uint8_t>(value)), 0); break;
      case 2: ASSERT_EQ(out.Put(static_cast<uint16_t>(value)), 0); break;
      case 4: ASSERT_EQ(out.Put(static_cast<uint32_t>(value)), 0); break;
      default: ASSERT_EQ(out.Put(value), 0); break;
    }
    for (int b = 0; b < width; ++b) image.push_back(static_cast<uint8_t>(value >> (8 * b)));
    written.emplace_back(width, value);
    ASSERT_EQ(out.GetPos(), image.size());
  }
  TUint8Buffer* bytes = out.GetRef();
  ASSERT_EQ(bytes->Count(), image.size());
  EXPECT_EQ(std::memcmp(bytes->PointAt(0), image.data(), image.size()), 0);

  TBufferedUint8Stream in(bytes);
  EXPECT_EQ(in.GetRef(), bytes);
  EXPECT_EQ(in.Remaining(), image.size());
  for (const auto& [width, value] : written) {
    uint8_t v8 = 0;
    uint16_t v16 = 0;
    uint32_t v32 = 0;
    uint64_t v64 = 0;
    switch (width) {
      case 1: ASSERT_EQ(in.Get(&v8), 0); v64 = v8; break;
      case 2: ASSERT_EQ(in.Get(&v16), 0); v64 = v16; break;
      case 4: ASSERT_EQ(in.Get(&v32), 0); v64 = v32; break;
      default: ASSERT_EQ(in.Get(&v64), 0); break;
    }
    ASSERT_EQ(v64, value);
  }
  EXPECT_EQ(in.Remaining(), 0u);
  EXPECT_TRUE(host.Lines().empty());
}

TEST(TBufferedUint8StreamTest, ReadingPastTheEndIsEndOfFile) {
  TestHost host;
  TBufferedUint8Stream stream;
  ASSERT_EQ(stream.Put(uint16_t{0x0201}), 0);
  ASSERT_EQ(stream.Put(uint8_t{3}), 0);
  ASSERT_EQ(stream.SeekFromStart(1), 0);
  uint32_t word = 0xDEADBEEF;
  EXPECT_EQ(stream.Get(&word), kErrEndOfFile);
  EXPECT_EQ(word, 0xDEADBEEFu);  // untouched
  EXPECT_EQ(stream.GetPos(), 1u);
  auto lines = host.LinesWithFormat("TBufferedUint8Stream::Get: %~u bytes wanted at %~u, %~u left, %E");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(host.Lines().size(), 1u);
  EXPECT_EQ(lines[0].text.rfind("TBufferedUint8Stream::Get: 4 bytes wanted at 1, 2 left, ", 0), 0u) << lines[0].text;

  uint16_t half = 0;
  ASSERT_EQ(stream.Get(&half), 0);
  EXPECT_EQ(half, 0x0302);
  uint8_t byte = 9;
  EXPECT_EQ(stream.Get(&byte), kErrEndOfFile);
  EXPECT_EQ(byte, 9);
  EXPECT_EQ(stream.Get(&byte, 0), 0);  // an empty read at the end is fine
  EXPECT_EQ(host.Lines().size(), 2u);

  // Seeking past the end is refused; to the end is allowed.
  EXPECT_EQ(stream.SeekFromStart(4), kErrSeek);
  EXPECT_EQ(stream.GetPos(), 3u);
  EXPECT_EQ(stream.SeekFromStart(3), 0);
  EXPECT_EQ(host.Lines().size(), 3u);

  // A buffer cut behind the stream's back leaves nothing to read.
  stream.GetRef()->SetCount(1);
  EXPECT_EQ(stream.Remaining(), 0u);
  EXPECT_EQ(stream.Get(&byte), kErrEndOfFile);
}

TEST(TBufferedUint8StreamTest, OverwritePatchAndReset) {
  TestHost host;
  TUint8Buffer buffer;
  TBufferedUint8Stream stream(&buffer);
  ASSERT_EQ(stream.Put(uint32_t{0}), 0);  // length, filled in below
  ASSERT_EQ(stream.Put("abcdef", 6), 0);
  ASSERT_EQ(stream.PutAt(0, uint32_t{6}), 0);
  EXPECT_EQ(stream.GetPos(), 10u);
  const uint8_t want[10] = {6, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f'};
  ASSERT_EQ(buffer.Count(), 10u);
  EXPECT_EQ(std::memcmp(buffer.PointAt(0), want, 10), 0);

  // Writing inside overwrites; writing across the end grows.
  ASSERT_EQ(stream.SeekFromStart(8), 0);
  ASSERT_EQ(stream.Put(uint32_t{0x34333231}), 0);
  EXPECT_EQ(buffer.Count(), 12u);
  EXPECT_EQ(std::memcmp(buffer.PointAt(4), "abcd1234", 8), 0);
  ASSERT_EQ(stream.PutAt(12, uint16_t{0x3635}), 0);
  EXPECT_EQ(buffer.Count(), 14u);
  EXPECT_EQ(stream.GetPos(), 12u);
  ASSERT_EQ(stream.PutAt(0, uint64_t{0x0807060504030201}), 0);
  EXPECT_EQ(buffer[0], 1);
  EXPECT_EQ(buffer[7], 8);
  EXPECT_TRUE(host.Lines().empty());

  EXPECT_EQ(stream.PutAt(15, uint8_t{1}), kErrSeek);
  EXPECT_EQ(host.Lines().size(), 1u);
  EXPECT_EQ(buffer.Count(), 14u);

  // Bytes taken from the buffer itself, written past its end.
  ASSERT_EQ(stream.SeekFromStart(14), 0);
  const uint8_t tail[10] = {5, 6, 7, 8, '1', '2', '3', '4', '5', '6'};
  ASSERT_EQ(std::memcmp(buffer.PointAt(4), tail, 10), 0);
  ASSERT_EQ(stream.Put(buffer.PointAt(4), 10), 0);
  EXPECT_EQ(buffer.Count(), 24u);
  EXPECT_EQ(std::memcmp(buffer.PointAt(14), tail, 10), 0);

  stream.Reset();
  EXPECT_EQ(stream.GetPos(), 0u);
  EXPECT_EQ(buffer.Count(), 0u);
  EXPECT_EQ(stream.Remaining(), 0u);
}

}  // namespace
