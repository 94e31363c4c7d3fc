// Listings of a few thousand keys through the real server, page by page.
// ctest runs this suite twice: once as it comes (list version 2) and once
// with PLINTH_S3_LIST_V1=1, which turns "PreferOldS3Api" on (version 1).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/errors.h"
#include "tests/s3/s3_fixture.h"

namespace {

bool WantVersion1() {
  const char* v1 = std::getenv("PLINTH_S3_LIST_V1");
  return v1 != nullptr && std::string(v1) == "1";
}

class S3Listing : public S3Fixture {
 protected:
  void SetUp() override {
    // Before the first connector of the process reads it.
    host.SetIni("Options", "PreferOldS3Api", WantVersion1() ? "1" : "0");
    S3Fixture::SetUp();
  }

  // 10 folders of 200 files and 50 files at the top, written by 8 threads
  // into a bucket of the list version's own (a run again on the same server
  // finds them there).
  std::set<std::string> Fill() {
    std::vector<std::string> keys;
    for (int d = 0; d < 10; ++d) {
      for (int f = 0; f < 200; ++f) keys.push_back("d" + std::to_string(d) + "/f" + std::to_string(1000 + f));
    }
    for (int f = 0; f < 50; ++f) keys.push_back("top" + std::to_string(100 + f));
    bucketName = WantVersion1() ? "plinth-listing-v1" : "plinth-listing-v2";
    conn = Connect();
    TString made = conn->CreateBucket(TString(), false, 0);
    EXPECT_TRUE(made.IsEmpty() || made == u"BucketAlreadyExists" || made == u"BucketAlreadyOwnedByYou")
        << TStringAsString(made);
    std::vector<TCloudObject> present;
    if (conn->GetAllObjectsInPath(TString(), present, true, nullptr) == 0 && present.size() == keys.size()) {
      return std::set<std::string>(keys.begin(), keys.end());
    }
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        std::unique_ptr<TS3Conn> c = Connect();
        for (size_t i = static_cast<size_t>(t); i < keys.size(); i += 8) {
          if (Put(c.get(), keys[i], {static_cast<uint8_t>(i)}) != 0) failures.fetch_add(1);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    return std::set<std::string>(keys.begin(), keys.end());
  }
};

TEST_F(S3Listing, PagesOfAFewThousandKeysAddUpToTheWhole) {
  ASSERT_EQ(TS3Conn::PreferOldS3Api(), WantVersion1());
  std::set<std::string> keys = Fill();
  // Everything, in key order, once each.
  std::vector<TCloudObject> all;
  ASSERT_EQ(conn->GetAllObjectsInPath(TString(), all, true, nullptr), 0);
  std::vector<std::string> names;
  for (const TCloudObject& o : all) names.push_back(TStringAsString(o.GetName()));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), keys);
  EXPECT_EQ(names.size(), keys.size());

  // One level, seven keys a page, marker carried by the caller.
  ContinuationMarker marker;
  std::vector<TCloudObject> folders, files;
  int pages = 0;
  do {
    size_t before = files.size();
    ASSERT_EQ(conn->GetFoldersAndFiles(TString(), &folders, &files, false, &marker, 7), 0);
    EXPECT_LE(files.size() - before, 7u);
    ASSERT_LT(++pages, 100) << "the listing does not end";
  } while (marker.IsActive());
  std::set<std::string> top;
  for (const TCloudObject& o : files) EXPECT_TRUE(top.insert(TStringAsString(o.GetName())).second);
  EXPECT_EQ(top.size(), 50u);
  std::set<std::string> dirs;
  for (const TCloudObject& o : folders) {
    EXPECT_TRUE(o.IsFolder());
    dirs.insert(TStringAsString(o.GetName()));
  }
  EXPECT_EQ(dirs, (std::set<std::string>{"d0/", "d1/", "d2/", "d3/", "d4/", "d5/", "d6/", "d7/", "d8/", "d9/"}));
  EXPECT_GE(pages, 50 / 7);

  // A folder's files, through the bucket, which lists without a limit.
  std::vector<TCloudObject> inside;
  ASSERT_EQ(conn->GetFoldersAndFiles(TString(u"d3/"), nullptr, &inside, true, nullptr, kCloudNoLimit), 0);
  ASSERT_EQ(inside.size(), 200u);
  EXPECT_EQ(TStringAsString(inside.front().GetName()), "d3/f1000");
  EXPECT_EQ(inside.front().GetSize(), 1u);

  // Every listing had the form "PreferOldS3Api" chose.
  int v1Requests = 0, v2Requests = 0;
  for (const LoggedLine& line : host.Lines()) {
    if (line.text.rfind("TS3Conn::s3_v4_authorization:canonicalRequest:GET\n/" + bucketName + "\n", 0) != 0) continue;
    bool v2 = line.text.find("list-type=2") != std::string::npos;
    (v2 ? v2Requests : v1Requests) += 1;
  }
  EXPECT_GT(WantVersion1() ? v1Requests : v2Requests, 10);
  EXPECT_EQ(WantVersion1() ? v2Requests : v1Requests, 0);
}

}  // namespace
