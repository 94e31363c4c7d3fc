#include "files/tsectionkeyfile.h"

#include <gtest/gtest.h>

#include <string>

#include "files/tfileloc.h"
#include "files/tfolderloc.h"
#include "foundation/tstring.h"
#include "tests/temp_dir.h"

namespace {

class TSectionKeyFileTest : public ::testing::Test {
 protected:
  void OpenText(const std::string& content) {
    m_dir.WriteFile("s.ini", content);
    ASSERT_EQ(m_file.Open(TFileLoc(TFolderLoc(TStringFromUTF8(m_dir.path())), TString(u"s.ini"))), 0);
  }
  std::string Get(const char16_t* section, const char16_t* key, int* result = nullptr) {
    TString value;
    int r = m_file.GetSectionKey(TString(section), TString(key), TString(u"dflt"), &value);
    if (result != nullptr) *result = r;
    return TStringAsString(value);
  }
  TempDir m_dir;
  TSectionKeyFile m_file;
};

TEST_F(TSectionKeyFileTest, QuotesSpacesAndCase) {
  OpenText("; comment\r\n  [Main]  \r\nName=First\r\nPath = \"D:\\Data\"\r\n\r\nEmpty=\r\nQuoted= \" a b \" \r\n");
  int r = 0;
  EXPECT_EQ(Get(u"main", u"path", &r), "d:\\data");
  EXPECT_EQ(r, 7);
  EXPECT_EQ(Get(u"MAIN", u"Name", &r), "first");
  EXPECT_EQ(r, 5);
  // Quotes go, the spaces inside them stay.
  EXPECT_EQ(Get(u"main", u"quoted", &r), " a b ");
  EXPECT_EQ(r, 5);
  // Found but empty: the empty value, result 0.
  EXPECT_EQ(Get(u"main", u"empty", &r), "");
  EXPECT_EQ(r, 0);
}

TEST_F(TSectionKeyFileTest, MissingSectionsAndKeys) {
  OpenText("[a]\nx=1\nnoequals\n[b]\ny=2\n[c]\nx=3");
  int r = 1;
  // A key of the next section is not in this one.
  EXPECT_EQ(Get(u"a", u"y", &r), "dflt");
  EXPECT_EQ(r, 0);
  // The section that stopped the search is still found afterwards.
  EXPECT_EQ(Get(u"b", u"y", &r), "2");
  EXPECT_EQ(r, 1);
  // The same section again restarts at its first line.
  EXPECT_EQ(Get(u"b", u"y", &r), "2");
  EXPECT_EQ(Get(u"c", u"x", &r), "3");
  EXPECT_EQ(Get(u"nope", u"x", &r), "dflt");
  EXPECT_EQ(r, 0);
  // Lookups read forward: an earlier section needs a rewind.
  EXPECT_EQ(m_file.GetSection(TString(u"a")), 0);
  m_file.TTextFile::Reset();
  m_file.Reset();
  EXPECT_EQ(Get(u"a", u"x", &r), "1");
  EXPECT_EQ(r, 1);
  TString value;
  EXPECT_EQ(m_file.GetKey(TString(u"noequals"), TString(u"d"), &value), 0);
  EXPECT_EQ(TStringAsString(value), "d");
}

TEST_F(TSectionKeyFileTest, FirstEqualsSplitsAndLineEndsVary) {
  OpenText("[S]\rk=v=w\n\rK2 =  \"\"\"q\"\"  \r\n[T]");
  int r = 0;
  EXPECT_EQ(Get(u"s", u"k", &r), "v=w");
  EXPECT_EQ(Get(u"s", u"k2", &r), "q");
  TString value;
  ASSERT_EQ(m_file.GetSection(TString(u"t")), 1);
  EXPECT_EQ(m_file.GetKey(TString(u"k"), TString(u"none"), &value), 0);
  EXPECT_EQ(TStringAsString(value), "none");
}

TEST_F(TSectionKeyFileTest, ParsesFromMemory) {
  TSectionKeyFile mem;
  const char text[] = "[x]\nkey=VAL\n";
  ASSERT_EQ(mem.UseBytes(text, sizeof(text) - 1), 0);
  TString value;
  EXPECT_EQ(mem.GetSectionKey(TString(u"x"), TString(u"key"), TString(), &value), 3);
  EXPECT_EQ(TStringAsString(value), "val");
}

}  // namespace
