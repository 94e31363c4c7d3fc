// The system path of TMD5 and SHA1Digest against libcrypto's one-shot
// digests, their log lines under injected service failures, TMD5's digest
// helpers and the digest buffer that stores MD5 results.
#include "security/digest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "containers/typed_buffers.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "platform/crypto.h"
#include "security/digest_test_support.h"
#include "security/md5.h"
#include "security/sha1.h"
#include "tests/test_host.h"

namespace {

using digest_test::Bytes;
using digest_test::Hex;
using digest_test::OracleDigest;
using platform::CryptStep;

const char* OracleName(TDigestBase& d) { return d.GetType() == eDigestTypeMD5 ? "MD5" : "SHA1"; }

std::unique_ptr<TDigestBase> Make(_eDigestType type) {
  if (type == eDigestTypeMD5) return std::make_unique<TMD5>();
  return std::make_unique<SHA1Digest>();
}

Bytes Finish(TDigestBase& d) {
  EXPECT_EQ(d.EndHash(), 1);
  Bytes out(d.getDigestSize());
  EXPECT_EQ(d.GetDigest(out.data(), static_cast<unsigned>(out.size())), d.getDigestSize());
  return out;
}

class DigestSystemPath : public testing::TestWithParam<_eDigestType> {};

TEST_P(DigestSystemPath, StandardVectorsWithTheDiagnosticLine) {
  for (const auto& v : digest_test::StandardVectors()) {
    auto d = Make(GetParam());
    TestHost host;
    ASSERT_EQ(d->IsValid(), 1);
    ASSERT_EQ(d->InitHash(), 1);
    // In three calls, one of them empty.
    size_t half = v.input.size() / 2;
    const auto* p = reinterpret_cast<const unsigned char*>(v.input.data());
    ASSERT_EQ(d->HashData(p, static_cast<unsigned>(half)), 1);
    ASSERT_EQ(d->HashData(p + half, 0), 1);
    ASSERT_EQ(d->HashData(p + half, static_cast<unsigned>(v.input.size() - half)), 1);
    std::string got = Hex(Finish(*d));
    const char* want = GetParam() == eDigestTypeMD5 ? v.md5 : v.sha1;
    if (want != nullptr) {
      EXPECT_EQ(got, want) << v.input.substr(0, 20);
    }
    EXPECT_EQ(got, Hex(OracleDigest(OracleName(*d), v.input)));

    std::string format = GetParam() == eDigestTypeMD5 ? "TMD5::EndHash() : %d bytes parsed, in %d blocks."
                                                       : "SHA1Digest::EndHash() : %d bytes parsed, in %d blocks.";
    auto lines = host.LinesWithFormat(format);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].selector, 519u);
    EXPECT_EQ(lines[0].args, (std::vector<uint64_t>{v.input.size(), 3}));
  }
}

TEST_P(DigestSystemPath, RandomInputsInRandomPiecesAndCopies) {
  std::mt19937 rng(1234 + GetParam());
  for (int round = 0; round < 60; ++round) {
    Bytes data = digest_test::RandomBytes(rng, rng() % 5000);
    auto d = Make(GetParam());
    ASSERT_EQ(d->InitHash(), 1);
    auto cuts = digest_test::RandomSplits(rng, data.size());
    size_t copyAt = cuts.size() / 2;
    std::unique_ptr<TDigestBase> copy;
    for (size_t i = 0; i + 1 < cuts.size(); ++i) {
      if (i == copyAt) {
        if (GetParam() == eDigestTypeMD5) {
          copy = std::make_unique<TMD5>(static_cast<TMD5&>(*d));
        } else {
          copy = std::make_unique<SHA1Digest>(static_cast<SHA1Digest&>(*d));
        }
      }
      ASSERT_EQ(d->HashData(data.data() + cuts[i], static_cast<unsigned>(cuts[i + 1] - cuts[i])), 1);
    }
    Bytes want = OracleDigest(OracleName(*d), data);
    EXPECT_EQ(Finish(*d), want);
    // The copy carries on from where it was taken, independently.
    if (copy) {
      size_t from = cuts[std::min(copyAt, cuts.size() - 1)];
      ASSERT_EQ(copy->HashData(data.data() + from, static_cast<unsigned>(data.size() - from)), 1);
      EXPECT_EQ(Finish(*copy), want);
    }
    // The handle forms.
    TMemory in;
    ASSERT_EQ(in.SetSize(data.size()), 0);
    if (!data.empty()) std::memcpy(in.MemPtr(), data.data(), data.size());
    ASSERT_EQ(d->InitHash(), 1);
    ASSERT_EQ(d->HashData(&in), 1);
    ASSERT_EQ(d->EndHash(), 1);
    TMemory out;
    ASSERT_EQ(out.SetSize(3), 0);
    ASSERT_EQ(d->GetDigest(&out), 0);
    ASSERT_EQ(out.GetSize(), static_cast<uint32_t>(d->getDigestSize()));
    EXPECT_EQ(Hex(static_cast<unsigned char*>(out.MemPtr()), out.GetSize()), Hex(want));
  }
}

TEST_P(DigestSystemPath, GetDigestCopiesAtMostTheDigestSize) {
  auto d = Make(GetParam());
  ASSERT_EQ(d->InitHash(), 1);
  ASSERT_EQ(d->HashData(reinterpret_cast<const unsigned char*>("abc"), 3), 1);
  Bytes full = Finish(*d);
  unsigned char out[32];
  std::memset(out, 0xEE, sizeof out);
  EXPECT_EQ(d->GetDigest(out, sizeof out), d->getDigestSize());
  EXPECT_EQ(out[d->getDigestSize()], 0xEE);
  std::memset(out, 0xEE, sizeof out);
  EXPECT_EQ(d->GetDigest(out, 5), 5);
  EXPECT_EQ(Hex(out, 5), Hex(full.data(), 5));
  EXPECT_EQ(out[5], 0xEE);
}

struct FailureTextsSpec {
  const char* acquire;
  const char* create;
  const char* hash;
  const char* end;
};

FailureTextsSpec TextsFor(_eDigestType type) {
  if (type == eDigestTypeMD5) {
    return {"TMD5::TMD5() error. UCryptAcquireContext(...) failed. GetLastError() returned 0x%04lx.",
            "TMD5::InitHash() error. Failed to create digest. UCryptCreateHash(...) returned 0x%04lx.",
            "TMD5::HashData() error. UCryptHashData(...) call failed. GetLastError() returned 0x%04lx.",
            "TMD5::EndHash() error. UCryptGetHashParam(...) call failed. GetLastError() returned 0x%04lx."};
  }
  return {"SHA1Digest::SHA1Digest() error. UCryptAcquireContext(...) failed. GetLastError() returned 0x%04lx.",
          // The SHA-1 class writes the MD5 text here.
          "TMD5::InitHash() error. Failed to create digest. UCryptCreateHash(...) returned 0x%04lx.",
          "SHA1Digest::HashData() error. UCryptHashData(...) call failed. GetLastError() returned 0x%04lx.",
          "SHA1Digest::EndHash() error. UCryptGetHashParam(...) call failed. GetLastError() returned 0x%04lx."};
}

// The one line of `format` carries `code`, printed in hex with 4 digits at
// least, at selector 514.
void ExpectFailureLine(const TestHost& host, const char* format, uint64_t code, const char* rendered) {
  auto lines = host.LinesWithFormat(format);
  ASSERT_EQ(lines.size(), 1u) << format;
  EXPECT_EQ(lines[0].selector, 514u);
  EXPECT_EQ(lines[0].args, std::vector<uint64_t>{code});
  EXPECT_NE(lines[0].text.find(rendered), std::string::npos) << lines[0].text;
}

TEST_P(DigestSystemPath, EveryServiceFailureLogsItsLine) {
  const FailureTextsSpec texts = TextsFor(GetParam());
  {  // Acquisition: the object is invalid and cannot start a hash.
    TestHost host;
    platform::CryptFailNext(CryptStep::kAcquire, 0x2A);
    auto d = Make(GetParam());
    EXPECT_EQ(d->IsValid(), 0);
    ExpectFailureLine(host, texts.acquire, 0x2A, "returned 0x002a.");
    EXPECT_EQ(d->InitHash(), 0);
    auto lines = host.LinesWithFormat(texts.create);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].args, std::vector<uint64_t>{0x2A});
    EXPECT_EQ(d->GetType(), GetParam());  // still usable as an object
  }
  {  // Creation; a wide (64-bit) code keeps all its digits.
    TestHost host;
    auto d = Make(GetParam());
    platform::CryptFailNext(CryptStep::kCreateHash, 0x1234567890ul);
    EXPECT_EQ(d->InitHash(), 0);
    ExpectFailureLine(host, texts.create, 0x1234567890ul, "returned 0x1234567890.");
    // Without a hash object, feeding and ending fail with the bad-handle code.
    host.Clear();
    EXPECT_EQ(d->HashData(reinterpret_cast<const unsigned char*>("x"), 1), 0);
    ExpectFailureLine(host, texts.hash, platform::kCryptBadHandle, "returned 0x0006.");
    EXPECT_EQ(d->EndHash(), 0);
    ExpectFailureLine(host, texts.end, platform::kCryptBadHandle, "returned 0x0006.");
    EXPECT_EQ(d->InitHash(), 1);  // the next one works
  }
  {  // Feeding, then reading the value.
    TestHost host;
    auto d = Make(GetParam());
    ASSERT_EQ(d->InitHash(), 1);
    platform::CryptFailNext(CryptStep::kHashData, 0xBEEF);
    EXPECT_EQ(d->HashData(reinterpret_cast<const unsigned char*>("abc"), 3), 0);
    ExpectFailureLine(host, texts.hash, 0xBEEF, "returned 0xbeef.");
    platform::CryptFailNext(CryptStep::kGetHashValue, 0x7);
    EXPECT_EQ(d->EndHash(), 0);
    ExpectFailureLine(host, texts.end, 0x7, "returned 0x0007.");
    EXPECT_EQ(host.Lines().size(), 2u);  // no diagnostic for a failed end
    // The failed end destroyed the hash object.
    EXPECT_EQ(d->EndHash(), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Both, DigestSystemPath, testing::Values(eDigestTypeMD5, eDigestTypeSHA1),
                         [](const auto& info) { return info.param == eDigestTypeMD5 ? "MD5" : "SHA1"; });

TEST(MD5Helpers, ResetCompareAndReadHash) {
  TestHost host;
  TMD5 md5;
  ASSERT_EQ(md5.InitHash(), 1);
  ASSERT_EQ(md5.HashData(reinterpret_cast<const unsigned char*>("abc"), 3), 1);
  ASSERT_EQ(md5.EndHash(), 1);
  Bytes want = OracleDigest("MD5", std::string("abc"));

  // Comparisons stop at 16 bytes, whatever n says.
  unsigned char longer[24];
  std::memcpy(longer, want.data(), 16);
  std::memset(longer + 16, 0x55, 8);
  EXPECT_TRUE(md5.DigestsEqual(longer, 24));
  EXPECT_TRUE(TMD5::DigestsEqual(want.data(), longer, 1000));
  longer[15] ^= 1;
  EXPECT_FALSE(md5.DigestsEqual(longer, 24));
  EXPECT_TRUE(md5.DigestsEqual(longer, 15));
  EXPECT_FALSE(TMD5::DigestsEqual(want.data(), longer, 16));

  unsigned char zero[16];
  std::memset(zero, 0xFF, sizeof zero);
  TMD5::ResetDigest(zero, 16);
  EXPECT_EQ(Hex(zero, 16), std::string(32, '0'));

  // A stored digest taken in compares as the object's own.
  TMD5 other;
  EXPECT_EQ(other.ReadHash(want.data(), 16), 16);
  EXPECT_TRUE(other.DigestsEqual(want.data(), 16));
  unsigned char back[16];
  EXPECT_EQ(other.GetDigest(back, 16), 16);
  EXPECT_EQ(Hex(back, 16), Hex(want));
  EXPECT_EQ(other.ReadHash(want.data(), 4), 4);  // a short one is padded with zeros
  EXPECT_FALSE(other.DigestsEqual(want.data(), 16));
  EXPECT_TRUE(other.DigestsEqual(want.data(), 4));
  EXPECT_EQ(host.AssertCount(), 0);

  // Null digests are assertions, answered with false.
  TMD5::ResetDigest(nullptr, 16);
  EXPECT_FALSE(md5.DigestsEqual(nullptr, 16));
  EXPECT_FALSE(TMD5::DigestsEqual(want.data(), nullptr, 16));
  EXPECT_EQ(md5.HashData(static_cast<TMemory*>(nullptr)), 0);
  EXPECT_EQ(md5.GetDigest(static_cast<TMemory*>(nullptr)), kErrBadParameter);
  EXPECT_EQ(host.AssertSources(), std::vector<std::string>(5, "digest"));
}

TEST(MD5DigestBufferCarriesDigests, AppendAndReadBack) {
  std::mt19937 rng(77);
  TMD5DigestBuffer buffer;
  std::vector<Bytes> inputs;
  for (int i = 0; i < 40; ++i) {
    inputs.push_back(digest_test::RandomBytes(rng, rng() % 700));
    TMD5 md5;
    ASSERT_EQ(md5.InitHash(), 1);
    ASSERT_EQ(md5.HashData(inputs.back().data(), static_cast<unsigned>(inputs.back().size())), 1);
    ASSERT_EQ(md5.EndHash(), 1);
    MD5DigestSpec record{};
    ASSERT_EQ(md5.GetDigest(record.bytes, MD5DigestSpec::kSize), 16);
    ASSERT_NE(buffer.Append(&record, 1), nullptr);
  }
  ASSERT_EQ(buffer.Count(), 40u);
  for (uint32_t i = 0; i < buffer.Count(); ++i) {
    ASSERT_TRUE(buffer.IsValid(i));
    EXPECT_EQ(Hex(buffer.GetAt(i)->bytes, 16), Hex(OracleDigest("MD5", inputs[i]))) << i;
    TMD5 check;
    check.ReadHash(OracleDigest("MD5", inputs[i]).data(), 16);
    EXPECT_TRUE(check.DigestsEqual(buffer.pointAt(i)->bytes, 16));
  }
  // A grown slot is the "not computed" digest.
  ASSERT_EQ(buffer.SetCount(41), 0);
  EXPECT_FALSE(buffer.IsValid(40));
}

}  // namespace
