#include "files/ttextfile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "files/tfileloc.h"
#include "files/tfolderloc.h"
#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

class TTextFileTest : public ::testing::Test {
 protected:
  TFileLoc Loc(const std::string& name) const {
    return TFileLoc(TFolderLoc(TStringFromUTF8(m_dir.path())), TStringFromUTF8(name));
  }
  // Every line of `content` read through a TTextFile opened on a real file,
  // then the final status.
  std::vector<std::string> ReadAll(const std::string& content, int* last) {
    m_dir.WriteFile("t.txt", content);
    TTextFile file;
    EXPECT_EQ(file.Open(Loc("t.txt")), 0);
    std::vector<std::string> lines;
    TString line;
    int code;
    while ((code = file.ReadLine(&line)) == 0) lines.push_back(TStringAsString(line));
    *last = code;
    return lines;
  }
  std::string Slurp(const std::string& name) const {
    std::ifstream in(m_dir.path() + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  TempDir m_dir;
};

using Lines = std::vector<std::string>;

TEST_F(TTextFileTest, LineEnds) {
  int last = 0;
  EXPECT_EQ(ReadAll("a\nb\n", &last), (Lines{"a", "b"}));
  EXPECT_EQ(last, kErrEndOfFile);
  EXPECT_EQ(ReadAll("a\r\nb\r\n", &last), (Lines{"a", "b"}));
  EXPECT_EQ(ReadAll("a\rb\r", &last), (Lines{"a", "b"}));
  // LF then CR ends two lines; CR CR LF ends two as well.
  EXPECT_EQ(ReadAll("a\n\rb", &last), (Lines{"a", "", "b"}));
  EXPECT_EQ(ReadAll("a\r\r\nb", &last), (Lines{"a", "", "b"}));
  EXPECT_EQ(ReadAll("a\n\nb", &last), (Lines{"a", "", "b"}));
  // No final line end: the last line still comes.
  EXPECT_EQ(ReadAll("one\r\ntwo", &last), (Lines{"one", "two"}));
  EXPECT_EQ(last, kErrEndOfFile);
  EXPECT_EQ(ReadAll("", &last), Lines{});
  EXPECT_EQ(last, kErrEndOfFile);
  EXPECT_EQ(ReadAll("\r\n", &last), (Lines{""}));
  EXPECT_EQ(ReadAll("caf\xC3\xA9\n\xE6\x97\xA5", &last), (Lines{"caf\xC3\xA9", "\xE6\x97\xA5"}));
}

// Random lines joined by random line ends, compared with an independent
// splitter that follows the same rules.
TEST_F(TTextFileTest, RandomEndsAndJunkMatchOracle) {
  std::mt19937 rng(44);
  for (int round = 0; round < 30; ++round) {
    std::string content;
    int n = static_cast<int>(rng() % 40);
    for (int i = 0; i < n; ++i) {
      int len = static_cast<int>(rng() % 12);
      for (int k = 0; k < len; ++k) {
        // Printable ASCII, so the oracle need not decode.
        content += static_cast<char>(32 + rng() % 95);
      }
      static const char* kEnds[] = {"\n", "\r", "\r\n", "\n\r", ""};
      content += kEnds[rng() % 5];
    }
    Lines expected;
    size_t pos = 0;
    while (pos < content.size()) {
      size_t end = content.find_first_of("\r\n", pos);
      if (end == std::string::npos) end = content.size();
      expected.push_back(content.substr(pos, end - pos));
      if (end < content.size() && content[end] == '\r') ++end;
      if (end < content.size() && content[end] == '\n') ++end;
      pos = end;
    }
    int last = 0;
    ASSERT_EQ(ReadAll(content, &last), expected) << "round " << round;
    ASSERT_EQ(last, kErrEndOfFile);
  }
  // Arbitrary bytes, NULs and ill-formed UTF-8 included, never break the
  // reader: the lines and their ends account for every byte.
  std::string junk;
  for (int i = 0; i < 5000; ++i) junk += static_cast<char>(rng());
  int last = 0;
  Lines lines = ReadAll(junk, &last);
  EXPECT_EQ(last, kErrEndOfFile);
  size_t ends = 0;
  for (char c : junk) ends += (c == '\r' || c == '\n');
  EXPECT_GE(lines.size() + 1, ends / 2);
  EXPECT_LE(lines.size(), ends + 1);
}

TEST_F(TTextFileTest, LongSingleLine) {
  std::string big(1 << 20, 'q');
  big[12345] = 'Z';
  int last = 0;
  Lines lines = ReadAll(big + "\r\nend", &last);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0] == big);
  EXPECT_EQ(lines[1], "end");
}

TEST_F(TTextFileTest, WriteLineAndEndMarks) {
  TTextFile file;
  ASSERT_EQ(file.Open(Loc("w.txt"), kFileOpenCreateNew), 0);
  TString a(u"first");
  TString b(u"two\nlines");
  TString c(u"ends\r");
  TString d(u"");
  ASSERT_EQ(file.WriteLine(&a), 0);
  ASSERT_EQ(file.WriteLine(&b), 0);
  ASSERT_EQ(file.WriteLine(&c), 0);
  ASSERT_EQ(file.WriteLine(&d), 0);
  EXPECT_EQ(TStringAsString(b), "two\nlines") << "the argument is left alone";
  ASSERT_EQ(file.MarkEOF(), 0);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(Slurp("w.txt"), "first\r\ntwo\r\nlines\r\nends\r\n\r\n\x1A\xA9");

  // Read back: the end marks come as a last line of their own bytes.
  TTextFile in;
  ASSERT_EQ(in.Open(Loc("w.txt")), 0);
  TString line;
  Lines got;
  while (in.ReadLine(&line) == 0) got.push_back(TStringAsString(line));
  ASSERT_EQ(got.size(), 6u);
  EXPECT_EQ(got[3], "ends");
  EXPECT_EQ(got[4], "");
  EXPECT_EQ(got[5], "\x1A\xEF\xBF\xBD");  // 0xA9 alone is not UTF-8
}

TEST_F(TTextFileTest, ResetRereadsAndClosedFileIsRefused) {
  m_dir.WriteFile("r.txt", "x\ny\n");
  TTextFile file;
  TString line;
  TestHost host;
  EXPECT_EQ(file.ReadLine(&line), kErrInvalidHandle);
  EXPECT_EQ(host.AssertCount(), 1);
  ASSERT_EQ(file.Open(Loc("r.txt")), 0);
  ASSERT_EQ(file.ReadLine(&line), 0);
  ASSERT_EQ(file.ReadLine(&line), 0);
  EXPECT_EQ(file.ReadLine(&line), kErrEndOfFile);
  EXPECT_EQ(file.ReadLine(&line), kErrEndOfFile);
  // The buffer is a snapshot; Reset takes a fresh one.
  m_dir.WriteFile("r.txt", "z\n");
  EXPECT_EQ(file.ReadLine(&line), kErrEndOfFile);
  file.Reset();
  ASSERT_EQ(file.ReadLine(&line), 0);
  EXPECT_EQ(TStringAsString(line), "z");
  // Bytes from memory need no file.
  TTextFile mem;
  ASSERT_EQ(mem.UseBytes("m1\r\nm2", 6), 0);
  ASSERT_EQ(mem.ReadLine(&line), 0);
  EXPECT_EQ(TStringAsString(line), "m1");
  ASSERT_EQ(mem.ReadLine(&line), 0);
  EXPECT_EQ(TStringAsString(line), "m2");
  EXPECT_EQ(mem.ReadLine(&line), kErrEndOfFile);
}

// A (sparse) file of 0x7FFFFFFF bytes is refused before anything is read.
TEST_F(TTextFileTest, TooLargeFileGivesMinusOne) {
  {
    TFile make;
    ASSERT_EQ(make.Open(Loc("huge.txt"), kFileOpenCreateNew), 0);
    ASSERT_EQ(make.SetLength(0x7FFFFFFF), 0);
  }
  TTextFile file;
  ASSERT_EQ(file.Open(Loc("huge.txt")), 0);
  TestHost host;
  TString line(u"kept");
  EXPECT_EQ(file.ReadLine(&line), -1);
  EXPECT_EQ(TStringAsString(line), "kept");
  EXPECT_EQ(host.LinesWithFormat("TTextFile::ReadLine: <%s> is too large, %~ld bytes").size(), 1u);
}

}  // namespace
