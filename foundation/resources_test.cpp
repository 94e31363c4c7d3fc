#include "foundation/resources.h"

#include <gtest/gtest.h>

#include "foundation/tstring.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

std::string Text(unsigned short group, const char (&key)[5]) {
  TString out(u"stale");
  if (!LoadResourceText(group, ResKey(key), &out)) return "<missing>";
  return TStringAsString(out);
}

TEST(ResourceStoreTest, KeysAreFourCharacterCodes) {
  EXPECT_EQ(ResKey("Nevr"), 0x4E657672u);
  EXPECT_EQ(ResKey("0017"), 0x30303137u);
}

TEST(ResourceStoreTest, BuiltInTextsAndMissingKeys) {
  EXPECT_EQ(Text(16000, "Nevr"), "Never");
  EXPECT_EQ(Text(16000, "KMkm"), "KMGTPEZYkmgtpezy");
  TString out(u"stale");
  EXPECT_EQ(LoadResourceText(16000, ResKey("None"), &out), 0);
  EXPECT_TRUE(out.IsEmpty());
  EXPECT_EQ(LoadResourceText(1, ResKey("Nevr"), &out), 0);
}

TEST(ResourceStoreTest, HostFileOverridesAndAddsThenClears) {
  TestHost host;
  TempDir dir;
  std::string path = dir.WriteFile("host.res",
                                   "\xEF\xBB\xBF# localised texts\r\n"
                                   "\n"
                                   "16000 Nevr Nie\r\n"
                                   "16001 ABCD tab\\tand\\\\slash\\s\n"
                                   "16002 Empt\n"
                                   "  # indented comment\n"
                                   "99999 Nevr too big a group\n"
                                   "16000 Ne blank in key\n"
                                   "16000 Nevrx no separator\n"
                                   "16003 \xC3\xA9t\xC3\xA9 utf-8 key bytes refused\n");
  ASSERT_EQ(LoadResourceFile(TStringFromUTF8(path)), 0);
  EXPECT_EQ(Text(16000, "Nevr"), "Nie");
  EXPECT_EQ(Text(16001, "ABCD"), "tab\tand\\slash ");
  EXPECT_EQ(Text(16002, "Empt"), "");
  auto ignored = host.LinesWithFormat("LoadResourceFile: line %~d ignored <%s>");
  ASSERT_EQ(ignored.size(), 4u);
  EXPECT_EQ(ignored[0].selector, 514u);
  EXPECT_EQ(ignored[0].args[0], 7u);
  EXPECT_EQ(ignored[3].args[0], 10u);
  ClearHostResources();
  EXPECT_EQ(Text(16000, "Nevr"), "Never");
  EXPECT_EQ(Text(16001, "ABCD"), "<missing>");
}

TEST(ResourceStoreTest, MissingFileIsAnErrorAndChangesNothing) {
  TestHost host;
  EXPECT_EQ(LoadResourceFile(TString(u"/nonexistent/plinth/texts.res")), -1101);
  EXPECT_EQ(Text(16000, "Nevr"), "Never");
  EXPECT_EQ(host.LinesWithFormat("LoadResourceFile: cannot open <%s>, error %E").size(), 1u);
}

}  // namespace
