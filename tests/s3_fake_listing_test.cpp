// Listings over the wire: query keys, paging through several pages by
// token and by version markers, deletions built on listings, and answers
// that claim more pages without moving on.
#include <gtest/gtest.h>

#include <string>

#include "foundation/errors.h"
#include "tests/s3_fake_rig.h"

namespace {

std::string Page(const std::string& inner, const std::string& next) {
  return "<ListBucketResult xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">" + inner +
         (next.empty() ? "<IsTruncated>false</IsTruncated>"
                       : "<IsTruncated>true</IsTruncated><NextContinuationToken>" + next +
                             "</NextContinuationToken>") +
         "</ListBucketResult>";
}

std::string File(const std::string& key, int size = 3) {
  return "<Contents><Key>" + key + "</Key><LastModified>2024-01-02T03:04:05.000Z</LastModified><ETag>\"e\"</ETag>"
         "<Size>" + std::to_string(size) + "</Size><StorageClass>STANDARD</StorageClass></Contents>";
}

std::string Folder(const std::string& prefix) {
  return "<CommonPrefixes><Prefix>" + prefix + "</Prefix></CommonPrefixes>";
}

// Answers each page by the token the request names.
FakeRule Pages(std::map<std::string, std::string> byToken) {
  FakeRule rule;
  rule.method = "GET";
  rule.contains = "list-type=2";
  rule.respond = [byToken](const FakeRequest& r) {
    FakeAnswer a;
    std::string token = QueryValue(r, "continuation-token");
    auto it = byToken.find(token == "<absent>" ? "" : token);
    a.body = it == byToken.end() ? FakeErrorXml("InvalidArgument") : it->second;
    a.status = it == byToken.end() ? 400 : 200;
    return a;
  };
  return rule;
}

std::vector<std::string> Names(const std::vector<TCloudObject>& objects) {
  std::vector<std::string> out;
  for (const TCloudObject& o : objects) out.push_back(TStringAsString(o.GetName()));
  return out;
}

class S3FakeListing : public S3FakeTest {};

TEST_F(S3FakeListing, FoldersAndFilesPageByContinuationToken) {
  server.Add(Pages({{"", Page(Folder("root/d/sub/") + File("root/d/a&amp;b"), "t+1/=")},
                    {"t+1/=", Page(File("root/d/it&apos;s") + File("root/d/ x "), "t2")},
                    {"t2", Page(Folder("root/d/z/"), "")}}));
  std::unique_ptr<TS3Conn> conn = MakeConn(Options("127.0.0.1", 0, "root/"));
  std::vector<TCloudObject> folders, files;
  ASSERT_EQ(conn->GetFoldersAndFiles(u"d/", &folders, &files, true, nullptr, kCloudNoLimit), 0);
  EXPECT_EQ(Names(folders), (std::vector<std::string>{"d/sub/", "d/z/"}));
  EXPECT_EQ(Names(files), (std::vector<std::string>{"d/a&b", "d/it's", "d/ x "}));
  EXPECT_EQ(files[0].GetSize(), 3u);
  std::vector<FakeRequest> sent = server.Requests();
  ASSERT_EQ(sent.size(), 3u);
  const char* tokens[] = {"<absent>", "t+1/=", "t2"};
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i].path, "/bkt");
    EXPECT_EQ(QueryValue(sent[i], "prefix"), "root/d/");
    EXPECT_EQ(QueryValue(sent[i], "delimiter"), "/");
    EXPECT_EQ(QueryValue(sent[i], "max-keys"), "1000");
    EXPECT_EQ(QueryValue(sent[i], "continuation-token"), tokens[i]);
    EXPECT_EQ(QueryValue(sent[i], "marker"), "<absent>");
  }
  EXPECT_EQ(sent[1].query, "continuation-token=t%2B1%2F%3D&delimiter=%2F&list-type=2&max-keys=1000&prefix=root%2Fd%2F");

  // One page per call: the marker carries the place and ends empty.
  ContinuationMarker marker;
  int calls = 0;
  files.clear();
  do {
    ASSERT_EQ(conn->GetFoldersAndFiles(u"d/", nullptr, &files, false, &marker, 2), 0);
    EXPECT_EQ(QueryValue(server.Requests().back(), "max-keys"), "2");
  } while (marker.IsActive() && ++calls < 10);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(files.size(), 3u);

  std::string xml;
  ContinuationMarker first;
  ASSERT_EQ(conn->ListBucketToXML(u"d/", &xml, &first), 0);
  EXPECT_EQ(xml, Page(Folder("root/d/sub/") + File("root/d/a&amp;b"), "t+1/="));
  EXPECT_EQ(first.token, "t+1/=");
}

TEST_F(S3FakeListing, VersionsPageByKeyAndVersionMarkersAndAllOfThemAreDeleted) {
  FakeRule versions;
  versions.method = "GET";
  versions.contains = "versions$";
  versions.respond = [](const FakeRequest& r) {
    FakeAnswer a;
    std::string key = QueryValue(r, "key-marker"), id = QueryValue(r, "version-id-marker");
    if (key == "<absent>" && id == "<absent>") {
      a.body = "<ListVersionsResult><IsTruncated>true</IsTruncated><NextKeyMarker>p/a</NextKeyMarker>"
               "<NextVersionIdMarker>v 2</NextVersionIdMarker><Version><Key>p/a</Key><VersionId>v 1</VersionId>"
               "<ETag>\"x\"</ETag><Size>4</Size></Version><DeleteMarker><Key>p/a</Key><VersionId>v 2</VersionId>"
               "</DeleteMarker></ListVersionsResult>";
    } else if (key == "p/a" && id == "v 2") {
      a.body = "<ListVersionsResult><IsTruncated>false</IsTruncated><Version><Key>p/b&amp;c</Key>"
               "<VersionId>null</VersionId><ETag>\"y\"</ETag><Size>5</Size></Version></ListVersionsResult>";
    } else {
      a.status = 400;
    }
    return a;
  };
  server.Add(versions);
  server.On("POST", "?delete$", FakeAnswer{200, {}, "<DeleteResult/>"});
  std::vector<TCloudObject> found;
  ASSERT_EQ(Conn().GetCloudObjectVersions(u"p/", &found, true, nullptr), 0);
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(TStringAsString(found[1].GetText()), "v 2");
  EXPECT_TRUE(found[1].GetETag().IsEmpty());
  EXPECT_EQ(TStringAsString(found[2].GetName()), "p/b&c");
  FakeRequest second = server.Requests()[1];
  EXPECT_EQ(second.query, "key-marker=p%2Fa&max-keys=1000&prefix=p%2F&version-id-marker=v%202&versions");

  ASSERT_EQ(Conn().DeleteAllCloudObjectVersions(u"p/"), 0);
  FakeRequest del = Only("POST", "?delete$");
  EXPECT_EQ(del.path, "/bkt");
  EXPECT_TRUE(del.Has("Content-MD5"));
  EXPECT_EQ(del.body,
            "<Delete><Quiet>true</Quiet><Object><Key>p/a</Key><VersionId>v 1</VersionId></Object><Object><Key>p/a"
            "</Key><VersionId>v 2</VersionId></Object><Object><Key>p/b&amp;c</Key><VersionId>null</VersionId>"
            "</Object></Delete>");
}

TEST_F(S3FakeListing, EraseDeletesWhatTheListingNamesAndReportsARefusedKey) {
  server.Add(Pages({{"", Page(File("a") + File("b&lt;c"), "")}}));
  server.On("POST", "?delete$",
            FakeAnswer{200, {},
                       "<DeleteResult><Error><Key>b&lt;c</Key><Code>AccessDenied</Code></Error></DeleteResult>"});
  EXPECT_EQ(Conn().Erase(TString()), kErrAccessDenied);
  EXPECT_EQ(Only("POST", "?delete$").body,
            "<Delete><Quiet>true</Quiet><Object><Key>a</Key></Object><Object><Key>b&lt;c</Key></Object></Delete>");
  EXPECT_TRUE(LoggedFailure("TS3Conn::Erase: b<c was not deleted: AccessDenied"));
}

TEST_F(S3FakeListing, PagesThatDoNotMoveOnAreRefusedNotFollowed) {
  const struct {
    const char* what;
    std::map<std::string, std::string> pages;
    int requests;
  } cases[] = {
      {"same token again", {{"", Page(File("a"), "t1")}, {"t1", Page(File("b"), "t1")}}, 2},
      {"truncated without a token", {{"", "<ListBucketResult><IsTruncated>true</IsTruncated></ListBucketResult>"}}, 1},
      {"tokens in a circle",
       {{"", Page(File("a"), "t1")}, {"t1", Page(File("b"), "t2")}, {"t2", Page(File("c"), "t1")}}, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server.ClearRules();
    server.Add(Pages(c.pages));
    int before = server.Count("GET");
    std::vector<TCloudObject> files;
    EXPECT_EQ(Conn().GetAllObjectsInPath(TString(), files, true, nullptr), kErrInvalidData);
    EXPECT_EQ(server.Count("GET") - before, c.requests);
    EXPECT_TRUE(LoggedFailure("TS3Conn::GetAllObjectsInPath: a truncated listing"));
  }
  // Versions whose markers come back to an earlier place.
  FakeRule circle;
  circle.method = "GET";
  circle.contains = "versions$";
  circle.respond = [](const FakeRequest& r) {
    std::string key = QueryValue(r, "key-marker");
    std::string next = key == "k1" ? "k2" : "k1";
    return FakeAnswer{200, {}, "<ListVersionsResult><IsTruncated>true</IsTruncated><NextKeyMarker>" + next +
                                   "</NextKeyMarker><NextVersionIdMarker>v</NextVersionIdMarker></ListVersionsResult>"};
  };
  server.Add(circle);
  std::vector<TCloudObject> versions;
  EXPECT_EQ(Conn().GetCloudObjectVersions(TString(), &versions, true, nullptr), kErrInvalidData);
  EXPECT_EQ(server.Count("GET", "versions$"), 3);
}

}  // namespace
