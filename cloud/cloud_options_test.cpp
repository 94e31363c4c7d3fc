#include "cloud/cloud_options.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/test_host.h"

namespace {

std::string U8(const TString& s) { return TStringAsString(s); }
TString W(const std::string& s) { return TStringFromUTF8(s); }

constexpr unsigned kAware = kCloudVirtualHostAware;
constexpr unsigned kAzureAware = kCloudAzure | kCloudVirtualHostAware;

struct UriCase {
  const char* uri;
  unsigned flags;
  bool option;
  const char* host;
  const char* bucket;
  const char* path;
  bool virtualHost;
  const char* rebuilt;
};

// Host forms as each service publishes them.
const UriCase kUriCases[] = {
    {"s3.amazonaws.com/mybucket", kAware, false, "s3.amazonaws.com", "mybucket", "", false,
     "s3.amazonaws.com/mybucket"},
    {"s3.us-west-2.amazonaws.com/mybucket/a/b", kAware, false, "s3.us-west-2.amazonaws.com", "mybucket", "a/b/",
     false, "s3.us-west-2.amazonaws.com/mybucket/a/b"},
    {"s3.amazonaws.com/mybucket/a/b/", kAware, false, "s3.amazonaws.com", "mybucket", "a/b/", false,
     "s3.amazonaws.com/mybucket/a/b"},
    {"s3.amazonaws.com", kAware, false, "s3.amazonaws.com", "", "", false, "s3.amazonaws.com/"},
    {"mybucket.s3.amazonaws.com/a/b", kAware, false, "s3.amazonaws.com", "mybucket", "a/b/", true,
     "mybucket.s3.amazonaws.com/a/b"},
    {"mybucket.s3.eu-central-1.amazonaws.com", kAware, false, "s3.eu-central-1.amazonaws.com", "mybucket", "", true,
     "mybucket.s3.eu-central-1.amazonaws.com"},
    {"my.dotted.bucket.s3.us-east-2.amazonaws.com/x", kAware, false, "s3.us-east-2.amazonaws.com",
     "my.dotted.bucket", "x/", true, "my.dotted.bucket.s3.us-east-2.amazonaws.com/x"},
    {"logs.s3.archive.s3.ap-south-1.amazonaws.com/p", kAware, false, "s3.ap-south-1.amazonaws.com",
     "logs.s3.archive", "p/", true, "logs.s3.archive.s3.ap-south-1.amazonaws.com/p"},
    {"MyBucket.S3.Amazonaws.COM/Dir", kAware, false, "S3.Amazonaws.COM", "MyBucket", "Dir/", true,
     "MyBucket.S3.Amazonaws.COM/Dir"},
    {".s3.amazonaws.com/b", kAware, false, ".s3.amazonaws.com", "b", "", false, ".s3.amazonaws.com/b"},
    {"storage.googleapis.com/bucket/folder", kAware, false, "storage.googleapis.com", "bucket", "folder/", false,
     "storage.googleapis.com/bucket/folder"},
    {"my.bucket.storage.googleapis.com/folder", kAware, false, "storage.googleapis.com", "my.bucket", "folder/",
     true, "my.bucket.storage.googleapis.com/folder"},
    {"oss-cn-hangzhou.aliyuncs.com/bucket/x", kAware, false, "oss-cn-hangzhou.aliyuncs.com", "bucket", "x/", false,
     "oss-cn-hangzhou.aliyuncs.com/bucket/x"},
    {"bucket.oss-cn-beijing-internal.aliyuncs.com/x/y", kAware, false, "oss-cn-beijing-internal.aliyuncs.com",
     "bucket", "x/y/", true, "bucket.oss-cn-beijing-internal.aliyuncs.com/x/y"},
    {"nyc3.digitaloceanspaces.com/space/a", kAware, false, "nyc3.digitaloceanspaces.com", "space", "a/", false,
     "nyc3.digitaloceanspaces.com/space/a"},
    {"my.space.fra1.digitaloceanspaces.com/a", kAware, false, "fra1.digitaloceanspaces.com", "my.space", "a/", true,
     "my.space.fra1.digitaloceanspaces.com/a"},
    {"s3.us-west-004.backblazeb2.com/bucket/dir", kAware, false, "s3.us-west-004.backblazeb2.com", "bucket", "dir/",
     false, "s3.us-west-004.backblazeb2.com/bucket/dir"},
    {"127.0.0.1:9000/bucket/a/b", kAware, false, "127.0.0.1:9000", "bucket", "a/b/", false,
     "127.0.0.1:9000/bucket/a/b"},
    {"host//a", kAware, false, "host", "", "a/", false, "host//a"},
    // Without kCloudVirtualHostAware a virtual host is taken as a plain one.
    {"mybucket.s3.amazonaws.com/a/b", 0, false, "mybucket.s3.amazonaws.com", "a", "b/", false,
     "mybucket.s3.amazonaws.com/a/b"},
    // Azure accounts, public and US Government cloud, and a bare account.
    {"myaccount.blob.core.windows.net/container/dir/sub", kAzureAware, false, "myaccount.blob.core.windows.net",
     "container", "dir/sub/", false, "myaccount.blob.core.windows.net/container/dir/sub"},
    {"https://MyAccount.Blob.Core.Windows.Net/c", kCloudAzure, false, "myaccount.blob.core.windows.net", "c", "",
     false, "myaccount.blob.core.windows.net/c"},
    {"gov1.blob.core.usgovcloudapi.net/c/d", kCloudAzure, false, "gov1.blob.core.usgovcloudapi.net", "c", "d/", false,
     "gov1.blob.core.usgovcloudapi.net/c/d"},
    {"Acct/c/d", kCloudAzure, false, "acct.blob.core.windows.net", "c", "d/", false, "acct.blob.core.windows.net/c/d"},
    {"acct/c", kAzureAware, true, "acct.blob.core.usgovcloudapi.net", "c", "", false,
     "acct.blob.core.usgovcloudapi.net/c"},
    {"http://127.0.0.1:10000/devstoreaccount1/c", kCloudAzure, false, "127.0.0.1:10000", "devstoreaccount1", "c/",
     false, "127.0.0.1:10000/devstoreaccount1/c"},
    // Blanks, tabs and line feeds around, in any mix.
    {" \t\n mybucket.s3.amazonaws.com/a \n\t ", kAware, false, "s3.amazonaws.com", "mybucket", "a/", true,
     "mybucket.s3.amazonaws.com/a"},
    {"\n \t\n s3.amazonaws.com/b/p\t\n \n", kAware, false, "s3.amazonaws.com", "b", "p/", false,
     "s3.amazonaws.com/b/p"},
};

TEST(CloudOptions, SetFromURIHostFormsAndRoundTrip) {
  TestHost host;
  for (const UriCase& c : kUriCases) {
    SCOPED_TRACE(c.uri);
    TCloudOptions options;
    options.SetFromURI(W(c.uri), c.flags, c.option);
    EXPECT_EQ(U8(options.GetHost()), c.host);
    EXPECT_EQ(U8(options.GetBucket()), c.bucket);
    EXPECT_EQ(U8(options.GetPath()), c.path);
    EXPECT_EQ(options.UseVirtualHostBasedURI(), c.virtualHost);
    EXPECT_EQ(U8(options.GetURIText()), c.rebuilt);
    EXPECT_EQ(options.GetFlags(), kCloudUseSSL | c.flags | (c.virtualHost ? kCloudVirtualHostURI : 0));

    TString uri;
    options.GetURI(&uri);
    TCloudOptions again;
    again.SetFromURI(uri, c.flags, c.option);
    EXPECT_TRUE(again == options) << U8(uri);
    EXPECT_EQ(U8(again.GetURIText()), c.rebuilt);
  }
  EXPECT_TRUE(host.Lines().empty());
}

TEST(CloudOptions, FlagMaskReplacedOtherBitsKept) {
  struct Case {
    uint32_t before;
    unsigned argument;
    const char* uri;
    uint32_t after;
  } const cases[] = {
      {0x0001, 0xFFFFFFFF, "h.example/b", 0x02E1},
      {0xFFFFFFFF, 0, "mybucket.s3.amazonaws.com/p", 0xFFFFBD1F},
      {0x8001, kAware, "mybucket.s3.amazonaws.com/p", 0xC021},
      {0x4001, kCloudBackblaze, "s3.us-west-004.backblazeb2.com/b", 0x0041},
      {0x0000, kCloudDropbox | 0x1000, "h.example/b", 0x0080},
  };
  for (const Case& c : cases) {
    TCloudOptions options;
    options.SetFlags(c.before);
    options.SetFromURI(W(c.uri), c.argument, false);
    EXPECT_EQ(options.GetFlags(), c.after) << c.uri << " from " << std::hex << c.before;
  }
}

TEST(CloudOptions, EmptyHostLeavesTheURIAlone) {
  TCloudOptions options;
  options.SetFromURI(u"s3.amazonaws.com/b/p", kAware, false);
  options.SetFromURI(u" /bucket/x ", kAware, false);
  EXPECT_TRUE(options.GetHost().IsEmpty());
  EXPECT_EQ(U8(options.GetBucket()), "bucket");
  EXPECT_EQ(U8(options.GetURIText()), "s3.amazonaws.com/b/p");
  TString out(u"kept");
  options.GetURI(&out);
  EXPECT_EQ(U8(out), "kept");
}

TCloudOptions Sample() {
  TCloudOptions options;
  options.SetFromURI(u"s3.amazonaws.com/bucket/dir", kAware, false);
  options.SetAccessKey(u"AKIAEXAMPLE");
  options.SetSecretKey(u"secret/with/slashes");
  options.SetProject(u"proj");
  options.SetSecondWord(7);
  return options;
}

TEST(CloudOptions, EqualityCopyAndReset) {
  const std::vector<std::function<void(TCloudOptions&)>> changes = {
      [](TCloudOptions& o) { o.SetHost(u"other"); },      [](TCloudOptions& o) { o.SetBucket(u"other"); },
      [](TCloudOptions& o) { o.SetPath(u"other"); },      [](TCloudOptions& o) { o.SetAccessKey(u"other"); },
      [](TCloudOptions& o) { o.SetSecretKey(u"other"); }, [](TCloudOptions& o) { o.SetProject(u"other"); },
      [](TCloudOptions& o) { o.SetFlags(0x23); },         [](TCloudOptions& o) { o.SetSecondWord(8); },
  };
  const TCloudOptions base = Sample();
  for (size_t i = 0; i < changes.size(); ++i) {
    TCloudOptions changed = base;
    changes[i](changed);
    EXPECT_TRUE(changed != base) << "change " << i;
  }
  TCloudOptions otherUri = base;
  otherUri.SetFromURI(u"bucket.s3.amazonaws.com/dir", kAware, false);
  otherUri.SetFlags(base.GetFlags());
  EXPECT_NE(U8(otherUri.GetURIText()), U8(base.GetURIText()));
  EXPECT_TRUE(otherUri == base);

  TCloudOptions assigned;
  assigned = base;
  EXPECT_TRUE(assigned == base);
  EXPECT_EQ(U8(assigned.GetURIText()), U8(base.GetURIText()));

  assigned.Reset();
  EXPECT_TRUE(assigned == TCloudOptions());
  EXPECT_EQ(U8(assigned.GetURIText()), "s3.amazonaws.com/bucket/dir");
  EXPECT_EQ(assigned.GetFlags(), kCloudDefaultFlags);
}

TEST(CloudOptions, OldSecretOverwrittenInPlace) {
  const std::u16string longKey(40, u'S');
  struct Case {
    const char* what;
    std::function<void(TCloudOptions&)> replace;
    int keptLength;  // units of the new key at the front of the block
  } const cases[] = {
      {"Reset", [](TCloudOptions& o) { o.Reset(); }, 0},
      {"SetSecretKey", [](TCloudOptions& o) { o.SetSecretKey(TString(u"short-secret-20units")); }, 20},
      {"assignment", [](TCloudOptions& o) { o = TCloudOptions(); }, 0},
  };
  for (const Case& c : cases) {
    TCloudOptions options;
    options.SetSecretKey(TString(longKey.c_str()));
    const char16_t* block = options.GetSecretKey().GetConstBuffer();
    c.replace(options);
    ASSERT_EQ(options.GetSecretKey().GetConstBuffer(), block) << c.what;
    for (int i = c.keptLength + 1; i < static_cast<int>(longKey.size()); ++i) EXPECT_EQ(block[i], 0) << c.what;
  }
}

TEST(CloudOptions, GetRegion) {
  const std::pair<const char*, const char*> cases[] = {
      {"s3.eu-west-1.productcloud.invalid", "eu-west-1"},
      {"S3.US-EAST.PRODUCTCLOUD.INVALID", "US-EAST"},
      {"eu.s3.x.productcloud.invalid", "s3.x"},  // the first three go, wherever "s3." is
      {"gateway.productcloud.invalid", "gateway"},
      {"s3.productcloud.invalid", "s3"},
      {"productcloud.invalid", ""},
      {"s3.eu-west-1.amazonaws.com", ""},
  };
  for (const auto& [hostName, region] : cases) {
    TCloudOptions options;
    options.SetHost(W(hostName));
    TString out(u"stale");
    options.GetRegion(&out);
    EXPECT_EQ(U8(out), region) << hostName;
  }
}

TEST(CloudOptions, AccessKeyGoogleProjectSplit) {
  struct Case {
    const char* host;
    const char* key;
    const char* project;
    const char* accessKey;
  } const cases[] = {
      {"storage.googleapis.com", "proj-1/GOOG1EKEY", "proj-1", "GOOG1EKEY"},
      {"STORAGE.GoogleApis.com", "p/a/b", "p", "a/b"},
      {"storage.googleapis.com", "/GOOGKEY", "", "/GOOGKEY"},
      {"storage.googleapis.com", "GOOGKEY", "", "GOOGKEY"},
      {"s3.amazonaws.com", "proj/KEY", "", "proj/KEY"},
  };
  for (const Case& c : cases) {
    TCloudOptions options;
    options.SetHost(W(c.host));
    options.SetProject(u"stale");
    options.SetAccessKey(W(c.key));
    EXPECT_EQ(U8(options.GetProject()), c.project) << c.key;
    EXPECT_EQ(U8(options.GetAccessKey()), c.accessKey) << c.key;
  }
}

}  // namespace
