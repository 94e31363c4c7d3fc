#include "containers/persist.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "containers/byteorder.h"
#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "tests/test_host.h"

namespace {

constexpr uint32_t kMagic = 0x4366682E;  // the chunk container's

PersistHeader Stored(uint32_t signature, int first, int second) {
  PersistHeader h;
  h.signature = signature;
  h.first = static_cast<int16_t>(first);
  h.second = static_cast<int16_t>(second);
  return h;
}

// The same header as a machine of the other byte order would have written it.
PersistHeader Reversed(PersistHeader h) {
  EXPECT_NE(ChangeEndian(&h, kPersistHeaderLayout, sizeof h), nullptr);
  return h;
}

TEST(PersistTest, InitWritesHostOrderAndChecksBack) {
  TestHost host;
  PersistHeader h;
  std::memset(&h, 0xEE, sizeof h);
  EXPECT_EQ(_initpersist(&h, kMagic, 0x0100, 0x0111), &h + 1);
  EXPECT_EQ(h.signature, kMagic);
  EXPECT_EQ(h.first, 0x0100);
  EXPECT_EQ(h.second, 0x0111);
  EXPECT_EQ(_checkpersist(&h, kMagic, 0x0100, 0x0111), 0);
  EXPECT_EQ(host.AssertCount(), 0);
  EXPECT_TRUE(host.Lines().empty());
}

// The character rule and numbers below 1 (as signed 16-bit values) are
// assertions; the header is written all the same.
TEST(PersistTest, InitAssertsOnBadSignatureOrNumbers) {
  struct {
    uint32_t signature;
    unsigned short first, second;
    bool signatureOk, bad;
  } cases[] = {
      {kMagic, 1, 1, true, false},     {0x20202020, 1, 32767, true, false}, {0x00000040, 5, 6, true, false},
      {0x80414243, 1, 1, false, true}, {0x41424380, 1, 1, false, true},     {0x1F1F1F1F, 1, 1, false, true},
      {0, 1, 1, false, true},          {kMagic, 0, 1, true, true},          {kMagic, 1, 0, true, true},
      {kMagic, 0x8000, 1, true, true}, {kMagic, 1, 0xFFFF, true, true},
  };
  for (const auto& c : cases) {
    TestHost host;
    PersistHeader h{};
    EXPECT_EQ(_initpersist(&h, c.signature, c.first, c.second), &h + 1);
    EXPECT_EQ(IsPersistSignature(c.signature), c.signatureOk);
    PersistHeader want = Stored(c.signature, c.first, c.second);
    EXPECT_EQ(std::memcmp(&h, &want, sizeof h), 0);
    std::vector<LoggedLine> asserts = host.LinesWithFormat("ASSERT: %s, line %~d");
    ASSERT_EQ(asserts.size(), c.bad ? 1u : 0u) << std::hex << c.signature;
    if (c.bad) {
      EXPECT_EQ(asserts[0].text, "ASSERT: marshall, line 213");
    }
  }
  TestHost host;
  EXPECT_EQ(_initpersist(nullptr, kMagic, 1, 1), nullptr);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>{"marshall"});
}

struct CheckSpec {
  PersistHeader stored;
  unsigned short first, second;
  int expected;
};

TEST(PersistTest, EveryResultOfTheCheck) {
  const uint32_t swappedMagic = SwapUint32(kMagic);
  const CheckSpec cases[] = {
      // Ranges meet: the stored writer at least `first`, the stored oldest reader at most `second`.
      {Stored(kMagic, 0x0100, 0x0111), 0x0100, 0x0111, 0},
      {Stored(kMagic, 0x0111, 0x0111), 0x0111, 0x0111, 0},
      {Stored(kMagic, 1, 32767), 32767, 1, 0},
      {Reversed(Stored(kMagic, 0x0100, 0x0111)), 0x0100, 0x0111, kErrPersistOtherOrder},
      // Reversed numbers read straight would be 1 and 0x1101: they must be swapped before comparing.
      {Reversed(Stored(kMagic, 0x0100, 0x0111)), 0x0111, 0x0100, kErrPersistOtherOrder},
      {Reversed(Stored(kMagic, 2, 3)), 3, 3, kErrPersistOtherOrder},
      {Reversed(Stored(kMagic, 2, 3)), 4, 9, kErrPersistTooOld},
      {Reversed(Stored(kMagic, 2, 3)), 1, 1, kErrPersistTooNew},
      // A number fine in its own order but negative when read straight.
      {Reversed(Stored(kMagic, 0x0080, 0x0080)), 0x0080, 0x0080, kErrPersistOtherOrder},
      // -691: the character rule, checked before the signature is compared.
      {Stored(kMagic | 0x80, 1, 1), 1, 1, kErrPersistInvalid},
      {Stored(0x80000000u | 0x41424344, 1, 1), 1, 1, kErrPersistInvalid},
      {Stored(0x01020304, 1, 1), 1, 1, kErrPersistInvalid},
      {Stored(0, 1, 1), 1, 1, kErrPersistInvalid},
      {Stored(kMagic, 0, 1), 0, 1, kErrPersistInvalid},
      {Stored(kMagic, 1, 0), 0, 1, kErrPersistInvalid},
      {Stored(kMagic, -5, 1), 0, 1, kErrPersistInvalid},
      {Reversed(Stored(kMagic, 1, -1)), 0, 1, kErrPersistInvalid},
      {Stored(0x41424344, 0, 1), 1, 1, kErrPersistInvalid},
      {Stored(0x41424344, 1, -1), 1, 1, kErrPersistInvalid},
      // -692: a sound header of another kind.
      {Stored(0x41424344, 1, 1), 1, 1, kErrPersistSignature},
      {Stored(kMagic + 1, 0x0100, 0x0111), 0x0100, 0x0111, kErrPersistSignature},
      // -693: written by a version older than `first`.
      {Stored(kMagic, 0x0100, 0x0100), 0x0101, 0x0111, kErrPersistTooOld},
      {Stored(kMagic, 1, 1), 2, 0xFFFF, kErrPersistTooOld},
      // -694: needs a reader newer than `second`.
      {Stored(kMagic, 0x0112, 0x0200), 0x0100, 0x0111, kErrPersistTooNew},
      {Stored(kMagic, 3, 4), 1, 2, kErrPersistTooNew},
  };
  ASSERT_NE(swappedMagic, kMagic);
  for (const CheckSpec& c : cases) {
    TestHost host;
    PersistHeader copy = c.stored;
    EXPECT_EQ(_checkpersist(&copy, kMagic, c.first, c.second), c.expected)
        << std::hex << c.stored.signature << " " << c.stored.first << " " << c.stored.second << " against "
        << c.first << ".." << c.second;
    EXPECT_EQ(std::memcmp(&copy, &c.stored, sizeof copy), 0);  // read only
    EXPECT_TRUE(host.Lines().empty());
  }
  TestHost host;
  EXPECT_EQ(_checkpersist(nullptr, kMagic, 1, 1), kErrPersistInvalid);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>{"marshall"});
}

// A chunk container's first 8 bytes as each byte order lays them on disk:
// the little-endian file reads back in host order after conversion, the
// big-endian one is recognised and set right with ChangeEndian.
TEST(PersistTest, ContainerHeaderFromDiskBytes) {
  const uint8_t little[8] = {0x2E, 0x68, 0x66, 0x43, 0x00, 0x01, 0x11, 0x01};
  const uint8_t big[8] = {0x43, 0x66, 0x68, 0x2E, 0x01, 0x00, 0x01, 0x11};
  PersistHeader h;
  std::memcpy(&h, little, 8);
  ASSERT_NE(LittleEndianToHost(&h, kPersistHeaderLayout, sizeof h), nullptr);
  EXPECT_EQ(_checkpersist(&h, kMagic, 0x0100, 0x0111), 0);
  std::memcpy(&h, big, 8);
  ASSERT_NE(LittleEndianToHost(&h, kPersistHeaderLayout, sizeof h), nullptr);
  int result = _checkpersist(&h, kMagic, 0x0100, 0x0111);
  EXPECT_EQ(result, kErrPersistOtherOrder);
  ASSERT_NE(ChangeEndian(&h, kPersistHeaderLayout, sizeof h), nullptr);
  EXPECT_EQ(_checkpersist(&h, kMagic, 0x0100, 0x0111), 0);
  EXPECT_EQ(h.second, 0x0111);
}

}  // namespace

namespace {

TEST(PersistTextTest, EveryResultCodeHasItsOwnText) {
  std::set<std::string> seen;
  for (int code : {kErrPersistOtherOrder, kErrPersistInvalid, kErrPersistSignature, kErrPersistTooOld,
                   kErrPersistTooNew}) {
    TString text;
    EXPECT_EQ(GetErrorText(code, &text), 1) << code;
    EXPECT_TRUE(seen.insert(TStringAsString(text)).second) << code;
  }
}

}  // namespace
