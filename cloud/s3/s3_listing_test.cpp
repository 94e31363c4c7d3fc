// Reading listing documents: entries, names, paging places, and the
// answers that must be refused.
#include "cloud/s3/s3_listing.h"

#include <gtest/gtest.h>

#include "cloud/s3/ts3conn.h"
#include "foundation/errors.h"

namespace {

constexpr S3ListKind kV1 = S3ListKind::kVersion1;
constexpr S3ListKind kV2 = S3ListKind::kVersion2;
constexpr S3ListKind kVersions = S3ListKind::kVersions;

std::string Doc(const std::string& root, const std::string& inner) {
  return "<" + root + ">" + inner + "</" + root + ">";
}
std::string List(const std::string& inner) { return Doc("ListBucketResult", inner); }
std::string Key(const std::string& key, const std::string& size = "1") {
  return "<Contents><Key>" + key + "</Key><Size>" + size + "</Size><ETag>\"e\"</ETag></Contents>";
}
constexpr char kMore[] = "<IsTruncated>true</IsTruncated>";

std::string Names(const S3ListingSpec& page) {
  std::string out;
  for (const TCloudObject& f : page.folders) out += "[" + TStringAsString(f.GetName()) + "]";
  for (const TCloudObject& f : page.files) out += "<" + TStringAsString(f.GetName()) + ">";
  return out;
}

TEST(S3ListingParse, PagesGiveTheirEntriesAndTheirNextPlace) {
  const struct {
    const char* what;
    std::string body;
    S3ListKind kind;
    ContinuationMarker previous;
    std::string names, marker, token;
  } cases[] = {
      {"last page", List(Key("r/a") + "<CommonPrefixes><Prefix>r/d/</Prefix></CommonPrefixes>"), kV2, {}, "[d/]<a>",
       "", ""},
      {"token", List(Key("r/a") + kMore + "<NextContinuationToken>t 2</NextContinuationToken>"), kV2, {"", "t 1"},
       "<a>", "", "t 2"},
      {"next marker", List(Key("r/a") + kMore + "<NextMarker>r/a</NextMarker>"), kV1, {}, "<a>", "r/a", ""},
      {"last key or prefix",
       List(Key("r/b") + "<CommonPrefixes><Prefix>r/c/</Prefix></CommonPrefixes>" + Key("r/a") + kMore), kV1,
       {"r/0", ""}, "[c/]<b><a>", "r/c/", ""},
      {"entities and blanks", List(Key("r/a&amp;b") + Key("r/it&apos;s") + Key("r/&#x41;&lt;") + Key(" r/x ")), kV2,
       {}, "<a&b><it's><A<>< r/x >", "", ""},
      {"unrelated elements skipped", List("<Name>bkt</Name>" + Doc("Version", "<Key>v</Key>") + Key("r/a")), kV2, {},
       "<a>", "", ""},
      {"versions",
       Doc("ListVersionsResult", Key("r/skipped") + "<Version><Key>r/a</Key><VersionId>1</VersionId><Size>2</Size>"
                                 "</Version><DeleteMarker><Key>r/a</Key><VersionId>2</VersionId></DeleteMarker>" +
                                     kMore + "<NextKeyMarker>r/a</NextKeyMarker><NextVersionIdMarker>2"
                                             "</NextVersionIdMarker>"),
       kVersions, {"r/a", "1"}, "<a><a>", "r/a", "2"},
  };
  for (const auto& c : cases) {
    S3ListingSpec page;
    std::string why;
    ASSERT_EQ(S3ParseListing(c.body, c.kind, "r/", c.previous, &page, &why), 0) << c.what << ": " << why;
    EXPECT_EQ(Names(page), c.names) << c.what;
    EXPECT_EQ(page.truncated, !c.marker.empty() || !c.token.empty()) << c.what;
    EXPECT_EQ(page.nextMarker, c.marker) << c.what;
    EXPECT_EQ(page.nextToken, c.token) << c.what;
  }
}

TEST(S3ListingParse, EntryFieldsAreKept) {
  S3ListingSpec page;
  std::string why;
  std::string body = List("<Contents><Key>k</Key><LastModified>2024-01-02T03:04:05.000Z</LastModified>"
                          "<ETag>\"9b\"</ETag><Size>5497558138880</Size><StorageClass>GLACIER</StorageClass>"
                          "</Contents>");
  ASSERT_EQ(S3ParseListing(body, kV2, "", {}, &page, &why), 0) << why;
  ASSERT_EQ(page.files.size(), 1u);
  const TCloudObject& f = page.files[0];
  EXPECT_EQ(f.GetSize(), 5497558138880u);
  EXPECT_EQ(TStringAsString(f.GetETag()), "\"9b\"");
  EXPECT_EQ(TStringAsString(f.GetText()), "GLACIER");
  EXPECT_EQ(f.GetDate(0).GetYear(), 2024);
  EXPECT_EQ(f.GetDate(0).GetSecond(), 5);
  EXPECT_TRUE(page.folders.empty());
  std::string versions = Doc("ListVersionsResult", "<DeleteMarker><Key>k</Key><VersionId>v</VersionId>"
                                                   "<ETag>\"no\"</ETag></DeleteMarker>");
  ASSERT_EQ(S3ParseListing(versions, kVersions, "", {}, &page, &why), 0) << why;
  EXPECT_TRUE(page.files[0].GetETag().IsEmpty());
  EXPECT_EQ(page.files[0].GetSize(), 0u);
}

TEST(S3ListingParse, BrokenOrEndlessAnswersAreRefused) {
  const struct {
    const char* what;
    std::string body;
    S3ListKind kind;
    ContinuationMarker previous;
  } cases[] = {
      {"not xml", "ListBucketResult", kV2, {}},
      {"cut short", "<ListBucketResult><Contents><Key>a</Key>", kV2, {}},
      {"another kind", Doc("ListVersionsResult", ""), kV2, {}},
      {"versions asked", List(""), kVersions, {}},
      {"an error document", "<Error><Code>AccessDenied</Code></Error>", kV1, {}},
      {"entry without key", List("<Contents><Size>1</Size></Contents>"), kV2, {}},
      {"version without key", Doc("ListVersionsResult", "<Version><Size>1</Size></Version>"), kVersions, {}},
      {"negative size", List(Key("a", "-1")), kV2, {}},
      {"size with exponent", List(Key("a", "1e3")), kV2, {}},
      {"size past 64 bits", List(Key("a", "18446744073709551616")), kV2, {}},
      {"empty size", List(Key("a", "")), kV2, {}},
      {"bad date", List("<Contents><Key>a</Key><Size>1</Size><LastModified>yesterday</LastModified></Contents>"), kV2,
       {}},
      {"folder without prefix", List("<CommonPrefixes></CommonPrefixes>"), kV2, {}},
      {"bad truncation flag", List("<IsTruncated>yes</IsTruncated>"), kV2, {}},
      {"truncated without token", List(kMore), kV2, {}},
      {"same token again", List(std::string(kMore) + "<NextContinuationToken>t</NextContinuationToken>"), kV2,
       {"", "t"}},
      {"truncated and empty", List(kMore), kV1, {}},
      {"marker going back", List(Key("a") + kMore + "<NextMarker>a</NextMarker>"), kV1, {"b", ""}},
      {"marker standing", List(Key("a") + kMore), kV1, {"a", ""}},
      {"versions standing",
       Doc("ListVersionsResult", std::string(kMore) + "<NextKeyMarker>k</NextKeyMarker><NextVersionIdMarker>v"
                                                      "</NextVersionIdMarker>"),
       kVersions, {"k", "v"}},
      {"versions without key marker",
       Doc("ListVersionsResult", std::string(kMore) + "<NextVersionIdMarker>v</NextVersionIdMarker>"), kVersions, {}},
  };
  for (const auto& c : cases) {
    S3ListingSpec page;
    std::string why;
    EXPECT_EQ(S3ParseListing(c.body, c.kind, "", c.previous, &page, &why), kErrInvalidData) << c.what;
    EXPECT_FALSE(why.empty()) << c.what;
  }
}

}  // namespace

namespace {

// Only a leading "1" asks for the old listing: "10" does, "true", "yes",
// "0" and nothing do not. (The setting is read once per process; the
// real-server listing runs once with it on from the start.)
TEST(S3ListingParse, OnlyALeadingOneAsksForTheOldListing) {
  const struct {
    const char* value;
    bool on;
  } cases[] = {{"1", true}, {"10", true}, {"1 ", true}, {"true", false}, {"yes", false},
               {"0", false}, {"", false}, {" 1", false}, {"01", false}};
  for (const auto& c : cases) EXPECT_EQ(TS3Conn::PreferOldS3ApiValue(c.value), c.on) << "'" << c.value << "'";
}

}  // namespace
