// The software SHA-1 of SHA1Digest, on each block-function build, against
// the standard's vectors and libcrypto; its file hashing with the chunk rule.
#include "security/sha1.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "containers/typed_buffers.h"
#include "files/tfileloc.h"
#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "security/digest_test_support.h"
#include "security/sha1_block.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

using digest_test::Bytes;
using digest_test::Hex;
using digest_test::OracleDigest;
using sha1_internal::BlockPath;

std::string HexOf(SHA1Digest& sha) {
  std::string out;
  sha.GetDigest(out);
  return out;
}

// Runs every test of the suite once per block-function build.
class Sha1Software : public testing::TestWithParam<BlockPath> {
 protected:
  void SetUp() override {
    if (!sha1_internal::SetBlockPath(GetParam())) GTEST_SKIP() << "no SHA extensions on this CPU";
  }
  void TearDown() override { sha1_internal::SetBlockPath(BlockPath::kAuto); }
};

TEST_P(Sha1Software, StandardVectors) {
  for (const auto& v : digest_test::StandardVectors()) {
    if (v.sha1 == nullptr) continue;
    SHA1Digest sha;
    sha.update(reinterpret_cast<const unsigned char*>(v.input.data()), 0, static_cast<int>(v.input.size()));
    EXPECT_EQ(HexOf(sha), v.sha1) << v.input.size();
    // Byte at a time, through the partial word only.
    if (v.input.size() < 1000) {
      for (char c : v.input) sha.update(static_cast<unsigned char>(c));
      EXPECT_EQ(HexOf(sha), v.sha1);
    }
  }
}

TEST_P(Sha1Software, RandomPiecesThroughEveryFormMatchLibcrypto) {
  std::mt19937 rng(99);
  for (int round = 0; round < 150; ++round) {
    // Lengths around the padding boundaries (55, 56, 64) are common here.
    size_t n = round < 130 ? static_cast<size_t>(round) : rng() % 20000;
    Bytes data = digest_test::RandomBytes(rng, n);
    SHA1Digest sha;
    auto cuts = digest_test::RandomSplits(rng, n);
    for (size_t i = 0; i + 1 < cuts.size(); ++i) {
      int len = static_cast<int>(cuts[i + 1] - cuts[i]);
      switch (rng() % 3) {
        case 0:
          for (size_t k = cuts[i]; k < cuts[i + 1]; ++k) sha.update(data[k]);
          break;
        case 1:
          sha.update(data.data(), static_cast<int>(cuts[i]), len);
          break;
        default: {
          TUint8Buffer buffer;
          ASSERT_EQ(buffer.Load(data.data(), static_cast<uint32_t>(n)), 0);
          sha.update(&buffer, static_cast<int>(cuts[i]), len);
        }
      }
    }
    EXPECT_EQ(sha.GetByteCount(), static_cast<int64_t>(n));
    ASSERT_EQ(HexOf(sha), Hex(OracleDigest("SHA1", data))) << "length " << n;
  }
}

TEST_P(Sha1Software, DoFinalWritesAtTheOffsetAndResets) {
  SHA1Digest sha;
  sha.update(reinterpret_cast<const unsigned char*>("xxabcxx"), 2, 3);
  TUint8Buffer out;
  ASSERT_EQ(out.SetCount(7), 0);
  out[0] = 0x11;
  ASSERT_EQ(sha.doFinal(&out, 5), 0);
  ASSERT_EQ(out.Count(), 25u);  // grown to hold the digest
  EXPECT_EQ(out[0], 0x11);
  EXPECT_EQ(Hex(out.PointAt(5), 20), "a9993e364706816aba3e25717850c26c9cd0d89d");
  // Reset: the next digest is that of nothing.
  ASSERT_EQ(sha.doFinal(&out, 0), 0);
  EXPECT_EQ(Hex(out.PointAt(0), 20), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(Hex(out.PointAt(5), 20).substr(30), "6c9cd0d89d");  // partly overwritten only
}

TEST_P(Sha1Software, CopiesCarryTheWholeState) {
  std::mt19937 rng(5);
  Bytes data = digest_test::RandomBytes(rng, 1000);
  for (int cut : {0, 1, 3, 63, 64, 66, 127, 500}) {
    SHA1Digest sha;
    sha.update(data.data(), 0, cut);
    SHA1Digest copy(sha);
    SHA1Digest assigned;
    assigned.update(data.data(), 0, 77);  // overwritten below
    assigned = sha;
    sha.update(data.data(), cut, 1000 - cut);
    copy.update(data.data(), cut, 1000 - cut);
    assigned.update(data.data(), cut, 1000 - cut);
    std::string want = Hex(OracleDigest("SHA1", data));
    EXPECT_EQ(HexOf(sha), want) << cut;
    EXPECT_EQ(HexOf(copy), want) << cut;
    EXPECT_EQ(HexOf(assigned), want) << cut;
  }
}

INSTANTIATE_TEST_SUITE_P(Paths, Sha1Software, testing::Values(BlockPath::kPortable, BlockPath::kShaNi),
                         [](const auto& info) { return info.param == BlockPath::kPortable ? "Portable" : "ShaNi"; });

TEST(Sha1Blocks, BuildsAgreeOnRandomBlocks) {
  if (!sha1_internal::ShaNiAvailable()) GTEST_SKIP() << "no SHA extensions on this CPU";
  std::mt19937 rng(3);
  for (int round = 0; round < 50; ++round) {
    size_t blocks = 1 + rng() % 20;
    Bytes data = digest_test::RandomBytes(rng, 64 * blocks);
    uint32_t a[5], b[5], schedule[80];
    for (int i = 0; i < 5; ++i) a[i] = b[i] = static_cast<uint32_t>(rng());
    sha1_internal::BlocksPortable(a, schedule, data.data(), blocks);
    sha1_internal::BlocksShaNi(b, schedule, data.data(), blocks);
    ASSERT_EQ(std::memcmp(a, b, sizeof a), 0) << round;
  }
}

TEST(Sha1Buffer, RangeOutsideIsCutWithAnAssertion) {
  TestHost host;
  TUint8Buffer buffer;
  ASSERT_EQ(buffer.Load(reinterpret_cast<const uint8_t*>("abcdef"), 6), 0);
  SHA1Digest sha;
  sha.update(&buffer, 3, 10);  // "def"
  sha.update(&buffer, -2, 0);
  sha.update(static_cast<TUint8Buffer*>(nullptr), 0, 1);
  EXPECT_EQ(HexOf(sha), Hex(OracleDigest("SHA1", std::string("def"))));
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>(3, "sha1"));
}

class Sha1File : public testing::Test {
 protected:
  void SetUp() override {
    std::mt19937 rng(8);
    Bytes bytes = digest_test::RandomBytes(rng, 25000);
    m_content.assign(bytes.begin(), bytes.end());
    m_loc.SetFullPath(TStringFromUTF8(m_dir.WriteFile("data.bin", m_content)));
  }
  std::string Oracle(size_t from, size_t n) {
    from = std::min(from, m_content.size());
    return Hex(OracleDigest("SHA1", m_content.substr(from, n)));
  }
  std::string HashFile(int offset, int length, int* code) {
    SHA1Digest sha;
    *code = sha.update(&m_loc, offset, length);
    return HexOf(sha);
  }

  TempDir m_dir;
  std::string m_content;
  TFileLoc m_loc;
};

TEST_F(Sha1File, LengthsRoundUpToWholeChunks) {
  struct {
    int offset, length;
    size_t from, bytes;
  } cases[] = {
      {0, 0, 0, 25000},          // 0: the whole file
      {0, 1, 0, 10240},          // one byte asked, one chunk hashed
      {0, 10240, 0, 10240},
      {0, 10241, 0, 20480},
      {100, 1, 100, 10240},      // the offset moves the chunk
      {24000, 5, 24000, 1000},   // a short last chunk
      {30000, 0, 25000, 0},      // past the end: nothing, no error
      {0, 0x7FFFFFFF, 0, 25000},
  };
  for (const auto& c : cases) {
    int code = 1;
    EXPECT_EQ(HashFile(c.offset, c.length, &code), Oracle(c.from, c.bytes)) << c.offset << " " << c.length;
    EXPECT_EQ(code, 0);
  }
}

TEST_F(Sha1File, FileBytesFollowEarlierUpdates) {
  SHA1Digest sha;
  sha.update(reinterpret_cast<const unsigned char*>("head"), 0, 3);
  ASSERT_EQ(sha.update(&m_loc, 0, 0), 0);
  EXPECT_EQ(HexOf(sha), Hex(OracleDigest("SHA1", "hea" + m_content)));
}

TEST_F(Sha1File, ErrorsAreReturned) {
  TestHost host;
  TFileLoc missing(TFolderLoc(TStringFromUTF8(m_dir.path())), TString(u"missing.bin"));
  SHA1Digest sha;
  EXPECT_EQ(sha.update(&missing, 0, 0), kErrNotFound);
  EXPECT_EQ(host.LinesWithFormat("TFileReader::Open: cannot open %s, %E").size(), 1u);
  // A folder opens but cannot be read.
  TFileLoc folder(TStringFromUTF8(m_dir.path() + "/."));
  EXPECT_LT(sha.update(&folder, 0, 0), 0);
  EXPECT_EQ(sha.update(static_cast<TFileLoc*>(nullptr), 0, 0), kErrBadParameter);
  EXPECT_EQ(sha.update(&m_loc, -1, 0), kErrBadParameter);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>(2, "sha1"));
  EXPECT_EQ(HexOf(sha), "da39a3ee5e6b4b0d3255bfef95601890afd80709");  // nothing was hashed
}

TEST(FileLoc, FullPathRoundTrip) {
  TFileLoc loc(TString(u"/data/backups/set.bin"));
  EXPECT_TRUE(loc.IsValid());
  EXPECT_EQ(TStringAsString(loc.GetFolder().GetPath()), "/data/backups");
  EXPECT_EQ(TStringAsString(loc.GetName()), "set.bin");
  EXPECT_EQ(TStringAsString(loc.GetFullPath()), "/data/backups/set.bin");
  TFileLoc root(TString(u"/top"));
  EXPECT_EQ(TStringAsString(root.GetFullPath()), "/top");
  TFileLoc bare(TString(u"name-only"));
  EXPECT_FALSE(bare.IsValid());
  EXPECT_TRUE(TFileLoc(TFolderLoc(TString(u"/a/")), TString(u"b")) == TFileLoc(TString(u"/a/b")));
}

}  // namespace
