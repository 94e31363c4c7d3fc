#include "cloud/cloud_metadata.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/test_host.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

Entries Content(const TCloudMetaData& meta) { return Entries(meta.GetHeaders().begin(), meta.GetHeaders().end()); }

const char kDefaultDateText[] = "0000-00-00T00:00:00.00+0000";

TEST(CloudMetaData, KeyNamesAndSetKeysOrder) {
  TCloudMetaData meta;
  const std::pair<int, const char*> defaults[] = {
      {0, "x-amz-meta-modified"}, {1, "x-amz-meta-created"}, {2, "x-amz-meta-replicated"},
      {3, "x-amz-object-lock-retain-until-date"}, {4, "Last-Modified"}, {-1, ""}, {5, ""}};
  for (const auto& [key, name] : defaults) EXPECT_EQ(meta.GetKey(static_cast<eCloudMetaKey>(key)), name) << key;

  meta.SetKeys("x-ms-meta-created", "x-ms-meta-modified", "x-ms-meta-replicated");
  EXPECT_EQ(meta.GetKey(eCloudMetaCreated), "x-ms-meta-created");
  EXPECT_EQ(meta.GetKey(eCloudMetaModified), "x-ms-meta-modified");
  EXPECT_EQ(meta.GetKey(eCloudMetaReplicated), "x-ms-meta-replicated");
  EXPECT_EQ(meta.GetKey(eCloudMetaRetainUntil), "x-amz-object-lock-retain-until-date");

  meta.SetStringValue(eCloudMetaCreated, "c");
  meta.SetStringValue(static_cast<eCloudMetaKey>(7), "ignored");
  EXPECT_EQ(Content(meta), (Entries{{"x-ms-meta-created", "c"}}));
  EXPECT_EQ(meta.GetValue(static_cast<eCloudMetaKey>(7)), "");
  EXPECT_EQ(meta.GetHeader("X-MS-META-CREATED"), "c");
  meta.Reset();
  EXPECT_TRUE(meta.GetHeaders().empty());
  EXPECT_EQ(meta.GetKey(eCloudMetaCreated), "x-ms-meta-created");
}

TEST(CloudMetaData, SetDateValue) {
  const uint64_t known = 132682194451230000ull;  // 2021-06-15 08:30:45.123 UTC
  const uint64_t zero = 0;
  const std::pair<const uint64_t*, const char*> cases[] = {
      {&known, "2021-06-15T08:30:45.123+0000"}, {&zero, kDefaultDateText}, {nullptr, kDefaultDateText}};
  for (const auto& [fileTime, text] : cases) {
    TCloudMetaData meta;
    meta.SetDateValue(eCloudMetaModified, fileTime);
    EXPECT_EQ(meta.GetValue(eCloudMetaModified), text);
    EXPECT_TRUE(meta.GetValueTDate(eCloudMetaModified) == TDate(fileTime == nullptr ? 0 : *fileTime)) << text;
  }
}

// The library's replicated date against the service's time, both through
// the header and through an explicit date.
TEST(CloudMetaData, StaleDatesReplacedPast20Seconds) {
  struct Case {
    int serviceSecondsAfter;
    bool replaced;
  } const cases[] = {{-5, false}, {0, false}, {19, false}, {20, false}, {21, true}, {3600, true}};
  const std::string stamped = "2024-03-01T10:00:00.00+0000";
  TestHost host;
  for (const Case& c : cases) {
    TDate service(2024, 3, 1, 10, 0, 0, 0);
    service.SetGMTOffset(0);
    service += TInterval(0, 0, 0, c.serviceSecondsAfter, 0);
    const std::string serviceIso = TStringAsString(service.ToISOString());
    const std::string expected = c.replaced ? serviceIso : stamped;
    for (bool viaHeader : {true, false}) {
      SCOPED_TRACE(std::to_string(c.serviceSecondsAfter) + (viaHeader ? " header" : " date"));
      TCloudMetaData meta;
      if (viaHeader) {
        meta.SetFromHeader("HTTP/1.1 200 OK\r\nx-amz-meta-created: " + stamped + "\r\nX-Amz-Meta-Modified: " +
                           stamped + "\r\nx-amz-meta-replicated: " + stamped + "\r\nlast-modified: " +
                           TStringAsString(service.ToRFCString()) + "\r\n\r\n");
      } else {
        for (eCloudMetaKey key : {eCloudMetaCreated, eCloudMetaModified, eCloudMetaReplicated}) {
          meta.SetStringValue(key, stamped);
        }
        meta.ValidateMetaDataDates(&service);
      }
      EXPECT_EQ(meta.GetValue(eCloudMetaCreated), expected);
      EXPECT_EQ(meta.GetValue(eCloudMetaModified), expected);
      EXPECT_EQ(meta.GetValue(eCloudMetaReplicated), expected);
    }
  }
  // No replicated date, no service time, a default reference: nothing changes.
  TCloudMetaData meta;
  meta.SetFromHeader("x-amz-meta-created: " + stamped + "\nLast-Modified: Fri, 01 Mar 2024 11:00:00 GMT");
  EXPECT_EQ(meta.GetValue(eCloudMetaCreated), stamped);
  meta.Reset();
  meta.SetStringValue(eCloudMetaReplicated, stamped);
  meta.ValidateMetaDataDates(nullptr);
  TDate none;
  meta.ValidateMetaDataDates(&none);
  EXPECT_EQ(Content(meta), (Entries{{"x-amz-meta-replicated", stamped}}));
  EXPECT_TRUE(host.Lines().empty());
}

TEST(CloudMetaData, SetFromHeaderBlocks) {
  struct Case {
    const char* what;
    std::string text;
    Entries content;
  } const cases[] = {
      {"CRLF with status line", "HTTP/1.1 200 OK\r\nContent-Length: 12\r\nETag: \"abc\"\r\n\r\n",
       {{"Content-Length", "12"}, {"ETag", "\"abc\""}}},
      {"LF, no final newline", "Content-Type: text/plain\nx-amz-meta-a:1", {{"Content-Type", "text/plain"},
                                                                            {"x-amz-meta-a", "1"}}},
      {"folded lines", "X-Long: part one\r\n  part two\r\n\tpart three \r\nNext: v\r\n",
       {{"Next", "v"}, {"X-Long", "part one part two part three"}}},
      {"repeated names, last wins", "X-A: 1\nx-a: 2\nX-B: 3\n", {{"x-a", "2"}, {"X-B", "3"}}},
      {"key-3/key-4 forms", "last-modified: Fri, 01 Mar 2024 10:00:00 GMT\nX-AMZ-OBJECT-LOCK-RETAIN-UNTIL-DATE: d\n",
       {{"Last-Modified", "Fri, 01 Mar 2024 10:00:00 GMT"}, {"x-amz-object-lock-retain-until-date", "d"}}},
      {"junk lines skipped", "  orphan fold\nno colon here\n: empty name\nbad name: v\nGood:   spaced \t\n  more\n",
       {{"Good", "spaced more"}}},
      {"ends at the empty line", "\r\nA: 1\r\n\r\nB: 2\r\n", {{"A", "1"}}},
      {"empty value and odd bytes", "Empty:\nBin: \x01\xff\x80\n", {{"Bin", "\x01\xff\x80"}, {"Empty", ""}}},
      {"empty input", "", {}},
  };
  TestHost host;
  for (const Case& c : cases) {
    TCloudMetaData meta;
    meta.SetHeader("stale", "x");
    meta.SetFromHeader(c.text);
    EXPECT_EQ(Content(meta), c.content) << c.what;
  }
  EXPECT_TRUE(host.Lines().empty());
}

TEST(CloudMetaData, HeaderNameOrderAgainstLowerCasedOracle) {
  std::mt19937 rng(20240301);
  const std::string alphabet = "aAbBzZ-_~0";
  auto lower = [](std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  CloudHeaderNameLess less;
  for (int i = 0; i < 5000; ++i) {
    std::string a, b;
    for (int n = static_cast<int>(rng() % 5); n > 0; --n) a += alphabet[rng() % alphabet.size()];
    for (int n = static_cast<int>(rng() % 5); n > 0; --n) b += alphabet[rng() % alphabet.size()];
    ASSERT_EQ(less(a, b), lower(a) < lower(b)) << a << " / " << b;
  }
}

TEST(CloudMetaData, CanUseCloudMetaDataHosts) {
  const std::pair<const char*, bool> cases[] = {
      {"s3.amazonaws.com", true},
      {"bucket.s3.eu-west-1.AMAZONAWS.com", true},
      {"acct.blob.core.windows.net", true},
      {"acct.blob.core.usgovcloudapi.net", true},
      {"s3.us-west-004.backblazeb2.com", true},
      {"api.backblazeb2.com", true},
      {"storage.googleapis.com", true},
      {"amazonaws.com", false},
      {"googleapis.com.example", false},
      {"blob.core.windows.net", false},
      {"s3.wasabisys.com", false},
      {"oss-cn-hangzhou.aliyuncs.com", false},
      {"nyc3.digitaloceanspaces.com", false},
      {"127.0.0.1:9000", false},
      {"", false},
  };
  for (const auto& [hostName, reliable] : cases) {
    EXPECT_EQ(CanUseCloudMetaData(TStringFromUTF8(hostName)), reliable) << hostName;
  }
}

}  // namespace
