#include "storage/inifile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "foundation/errors.h"
#include "platform/atomic_file.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TString T(const std::string& s) { return TStringFromUTF8(s); }

int Set(const std::string& path, const std::string& sec, const std::string& key, const std::string& value) {
  TString p = T(path), s = T(sec), k = T(key), v = T(value);
  return UWritePrivateProfileString(&s, &k, &v, &p);
}

// The value, or "<missing>".
std::string Get(const std::string& path, const std::string& sec, const std::string& key, int* code = nullptr) {
  TString p = T(path), s = T(sec), k = T(key), def = u"<missing>", out;
  int rc = UGetPrivateProfileString(&s, &k, &def, &out, &p);
  if (code != nullptr) *code = rc;
  return TStringAsString(out);
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string RandomCase(std::string s, std::mt19937& rng) {
  for (char& c : s) {
    if (rng() & 1) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return s;
}

}  // namespace

// Random sets and deletes against a map model, in a file that starts with
// comments and foreign lines which must survive every write.
TEST(IniFile, RandomEditsMatchModel) {
  TempDir dir;
  const std::string header = "; device file\r\n# kept\r\nnot a key line\r\n";
  std::string path = dir.WriteFile("model.ini", header);
  std::mt19937 rng(20261122);
  const char* sections[] = {"Default", "Device00", "Device01", "Zeta"};
  const char* keys[] = {"Name", "Size", "Path", "x", "Long Key"};
  std::map<std::string, std::map<std::string, std::string>> model;
  for (int step = 0; step < 250; ++step) {
    std::string sec = RandomCase(sections[rng() % 4], rng);
    std::string key = RandomCase(keys[rng() % 5], rng);
    unsigned op = rng() % 10;
    TString p = T(path), s = T(sec), k = T(key);
    if (op < 7) {
      std::string value;
      static const char* const kPieces[] = {"a", "b", " ", "c", "=", "9", ";", "[", "]", "\xC3\xA9"};
      for (unsigned n = rng() % 12; n > 0; --n) value += kPieces[rng() % 10];
      while (!value.empty() && value.back() == ' ') value.pop_back();
      while (!value.empty() && value.front() == ' ') value.erase(0, 1);
      ASSERT_EQ(0, Set(path, "  " + sec + " ", " " + key, value));
      model[Lower(sec)][Lower(key)] = value;
    } else if (op < 9) {
      ASSERT_EQ(0, UWritePrivateProfileString(&s, &k, nullptr, &p));
      auto it = model.find(Lower(sec));
      if (it != model.end()) it->second.erase(Lower(key));
    } else {
      ASSERT_EQ(0, UWritePrivateProfileString(&s, nullptr, nullptr, &p));
      model.erase(Lower(sec));
    }
    for (const char* se : sections) {
      for (const char* ke : keys) {
        auto sit = model.find(Lower(se));
        std::string want = "<missing>";
        if (sit != model.end() && sit->second.count(Lower(ke))) want = sit->second.at(Lower(ke));
        ASSERT_EQ(want, Get(path, se, RandomCase(ke, rng))) << "step " << step << " [" << se << "] " << ke;
      }
    }
    ASSERT_EQ(0, ReadAll(path).rfind(header, 0)) << "the leading lines changed at step " << step;
  }
  // The names lists agree with the model too.
  std::vector<TString> names;
  TString p = T(path);
  ASSERT_EQ(0, GetProfileSectionNames(&p, &names));
  size_t withSection = 0;
  for (const TString& n : names) withSection += model.count(Lower(TStringAsString(n)));
  EXPECT_LE(model.size(), names.size());
  EXPECT_EQ(model.size(), withSection);
}

// A write changes its own line and nothing else, byte for byte: the mark,
// CRLF ends, comments, spacing, duplicate sections and a last line without
// an end.
TEST(IniFile, WritesKeepUntouchedBytes) {
  TempDir dir;
  const std::string before =
      "\xEF\xBB\xBF; top comment\r\n"
      "[Default]\r\n"
      "  Name =  first value  \r\n"
      "\r\n"
      "Size=10\r\n"
      "; inside\r\n"
      "[ Other ]\r\n"
      "key = \"quoted  \"\r\n"
      "[default]\r\n"
      "Name=shadowed";
  std::string path = dir.WriteFile("keep.ini", before);
  EXPECT_EQ("first value", Get(path, "DEFAULT", "name"));
  EXPECT_EQ("quoted  ", Get(path, "other", "KEY"));
  EXPECT_EQ("<missing>", Get(path, "Default", "Other"));
  EXPECT_EQ("first value", Get(path, " default\t", " name "));

  ASSERT_EQ(0, Set(path, "default", "SIZE", "11"));
  std::string after = before;
  after.replace(after.find("Size=10"), 7, "Size=11");
  EXPECT_EQ(after, ReadAll(path));

  // A new key follows the last key of its section; a new section goes at the
  // end, the unterminated last line gaining the file's line end.
  ASSERT_EQ(0, Set(path, "Other", "added", "v"));
  after.insert(after.find("[default]"), "added=v\r\n");
  EXPECT_EQ(after, ReadAll(path));
  ASSERT_EQ(0, Set(path, "New", "k", "v"));
  after += "\r\n[New]\r\nk=v\r\n";
  EXPECT_EQ(after, ReadAll(path));

  // Deleting a section takes its lines with it, up to the next section.
  TString p = T(path), sec = u"Default";
  ASSERT_EQ(0, UWritePrivateProfileString(&sec, nullptr, nullptr, &p));
  after.erase(after.find("[Default]"), after.find("[ Other ]") - after.find("[Default]"));
  EXPECT_EQ(after, ReadAll(path));
  // The later duplicate is now the first of its name.
  EXPECT_EQ("shadowed", Get(path, "Default", "Name"));
}

TEST(IniFile, LineEndsKeptAsFound) {
  TempDir dir;
  std::string lf = dir.WriteFile("lf.ini", "[a]\nk=1\n");
  ASSERT_EQ(0, Set(lf, "a", "j", "2"));
  ASSERT_EQ(0, Set(lf, "b", "k", "3"));
  EXPECT_EQ("[a]\nk=1\nj=2\n[b]\nk=3\n", ReadAll(lf));
  // A lone CR ends a line as well.
  std::string cr = dir.WriteFile("cr.ini", "[a]\rk=1\r[b]\rk=2");
  EXPECT_EQ("1", Get(cr, "a", "k"));
  EXPECT_EQ("2", Get(cr, "b", "k"));
  ASSERT_EQ(0, Set(cr, "a", "k", "9"));
  EXPECT_EQ("[a]\rk=9\r[b]\rk=2", ReadAll(cr));
  // A new file uses CRLF and is created on the first write only.
  std::string fresh = dir.path() + "/fresh.ini";
  TString p = T(fresh), s = u"x", k = u"y";
  ASSERT_EQ(0, UWritePrivateProfileString(&s, &k, nullptr, &p));
  EXPECT_FALSE(platform::FileIsPresent(p));
  ASSERT_EQ(0, Set(fresh, "x", "y", "z"));
  EXPECT_EQ("[x]\r\ny=z\r\n", ReadAll(fresh));
}

// Parsing keeps every byte: an unchanged text serialises to its input.
TEST(IniFile, ParseSerializeRoundTrip) {
  std::mt19937 rng(7);
  const std::string alphabet = "[]=;# \t\r\nabAB\xC3\xA9\"'";
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (unsigned n = rng() % 80; n > 0; --n) {
      char c = alphabet[rng() % alphabet.size()];
      if (c == '\xC3') {
        text += "\xC3\xA9";
      } else if (c != '\xA9') {
        text += c;
      }
    }
    if (rng() % 4 == 0) text.insert(0, "\xEF\xBB\xBF");
    TIniText ini;
    ASSERT_EQ(0, ini.Parse(text.data(), text.size())) << text;
    ASSERT_EQ(text, ini.Serialize());
    // An edit followed by its undo on a fresh key leaves the text readable
    // and the key gone again.
    ini.Set("s", "fresh", "1");
    std::string v;
    ASSERT_TRUE(ini.Get("S", "FRESH", &v));
    ASSERT_EQ("1", v);
    ASSERT_TRUE(ini.DeleteKey("s", "fresh"));
    ASSERT_FALSE(ini.Get("s", "fresh", &v));
  }
}

// A crash between writing the new file and renaming it leaves the original
// intact; the next write succeeds.
TEST(IniFile, InterruptedWriteKeepsOriginal) {
  TempDir dir;
  TestHost host;
  const std::string original = "[a]\r\nk=old\r\n";
  std::string path = dir.WriteFile("crash.ini", original);
  static std::string s_fresh;
  platform::SetAtomicWriteInterruptForTesting([](const TString& fresh) {
    s_fresh = TStringAsString(fresh);
    return 1;
  });
  int rc = Set(path, "a", "k", "new");
  platform::SetAtomicWriteInterruptForTesting(nullptr);
  EXPECT_EQ(kErrAborted, rc);
  EXPECT_EQ(original, ReadAll(path));
  EXPECT_EQ("old", Get(path, "a", "k"));
  // The abandoned new file holds the complete new text.
  EXPECT_EQ("[a]\r\nk=new\r\n", ReadAll(s_fresh));
  EXPECT_EQ(1u, host.LinesWithFormat("UWritePrivateProfileString: cannot write %s, %E").size());
  ASSERT_EQ(0, Set(path, "a", "k", "new"));
  EXPECT_EQ("new", Get(path, "a", "k"));
}

TEST(IniFile, ReplacementKeepsPermissionsLinksAndWhatCannotReadBack) {
  TempDir dir;
  std::string path = dir.WriteFile("mode.ini", "[a]\nk=1\n");
  ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
  ASSERT_EQ(0, Set(path, "a", "k", "2"));
  struct stat st;
  ASSERT_EQ(0, ::stat(path.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  // Through a chain of two links (one relative) to the file: the links stay.
  std::string link1 = dir.path() + "/link1.ini", link2 = dir.path() + "/sub/link2.ini";
  ASSERT_EQ(0, ::mkdir((dir.path() + "/sub").c_str(), 0755));
  ASSERT_EQ(0, ::symlink("mode.ini", link1.c_str()));
  ASSERT_EQ(0, ::symlink(link1.c_str(), link2.c_str()));
  ASSERT_EQ(0, Set(link2, "a", "k", "3"));
  ASSERT_EQ(0, ::lstat(link1.c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(0, ::lstat(link2.c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ("3", Get(path, "a", "k"));
  ASSERT_EQ(0, ::stat(path.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  // A link to a file not there yet makes the file, not a new plain file in
  // the link's place.
  std::string dangling = dir.path() + "/dangling.ini";
  ASSERT_EQ(0, ::symlink("later.ini", dangling.c_str()));
  ASSERT_EQ(0, Set(dangling, "a", "k", "4"));
  ASSERT_EQ(0, ::lstat(dangling.c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ("4", Get(dir.path() + "/later.ini", "a", "k"));
  // A value whose line would pass the line limit is refused and nothing
  // changes; one just within it is written and reads back.
  TestHost host;
  std::string before = ReadAll(path);
  EXPECT_EQ(kErrBadParameter, Set(path, "a", "k", std::string(kIniMaxLineBytes, 'v')));
  EXPECT_EQ(before, ReadAll(path));
  EXPECT_EQ(1u, host.LinesWithFormat("UWritePrivateProfileString: a line for %s would be longer than a file may "
                                     "hold, %E").size());
  std::string longest(kIniMaxLineBytes - 2, 'w');  // "k=" and the value
  ASSERT_EQ(0, Set(path, "a", "k", longest));
  EXPECT_EQ(longest, Get(path, "a", "k"));
}

// Hostile files answer a code and one log line, and are never rewritten.
TEST(IniFile, HostileFilesRefused) {
  TempDir dir;
  struct Case {
    const char* name;
    std::string content;
  };
  std::string junk;
  std::mt19937 rng(3);
  for (int i = 0; i < 4096; ++i) junk += static_cast<char>(rng());
  const Case cases[] = {
      {"junk", junk},
      {"nul", std::string("[a]\nk=1\0\n", 9)},
      {"badutf8", "[a]\nk=\xC0\xAF\n"},
      {"surrogate", "[a]\nk=\xED\xA0\x80\n"},
      {"noends", std::string(kIniMaxLineBytes + 1, 'x')},
      {"hugeline", "[a]\nk=" + std::string(kIniMaxLineBytes, 'v') + "\n"},
  };
  for (const Case& c : cases) {
    TestHost host;
    std::string path = dir.WriteFile(c.name, c.content);
    int code = 0;
    EXPECT_EQ("<missing>", Get(path, "a", "k", &code)) << c.name;
    EXPECT_EQ(kErrInvalidData, code) << c.name;
    EXPECT_EQ(kErrInvalidData, Set(path, "a", "k", "2")) << c.name;
    EXPECT_EQ(c.content, ReadAll(path)) << c.name;
    EXPECT_EQ(2u, host.LinesWithFormat("%s: %s is not an initialisation file, %E").size()) << c.name;
  }
  // Too large to be one.
  std::string big = dir.WriteFile("big", std::string(kIniMaxFileBytes + 1, '\n'));
  int code = 0;
  Get(big, "a", "k", &code);
  EXPECT_EQ(kErrFileTooLarge, code);
  // A folder where the file should be; a file that is not there.
  Get(dir.path(), "a", "k", &code);
  EXPECT_NE(0, code);
  EXPECT_NE(0, Set(dir.path(), "a", "k", "1"));
  EXPECT_EQ("<missing>", Get(dir.path() + "/gone.ini", "a", "k", &code));
  EXPECT_EQ(0, code);
  EXPECT_NE(0, Set(dir.path() + "/no/such/folder.ini", "a", "k", "1"));
}

TEST(IniFile, UnwritableNamesRefused) {
  TempDir dir;
  std::string path = dir.path() + "/names.ini";
  TestHost host;
  EXPECT_EQ(kErrBadParameter, Set(path, "a]", "k", "1"));
  EXPECT_EQ(kErrBadParameter, Set(path, "a", "k=", "1"));
  EXPECT_EQ(kErrBadParameter, Set(path, "a", " ", "1"));
  EXPECT_EQ(kErrBadParameter, Set(path, "a", ";k", "1"));
  EXPECT_EQ(kErrBadParameter, Set(path, "a", "[k", "1"));
  EXPECT_EQ(kErrBadParameter, Set(path, "a", "k", "1\n[b]"));
  EXPECT_EQ(kErrBadParameter, Set(path, "a\r", "k", "1"));
  EXPECT_EQ(7u, host.LinesWithFormat("UWritePrivateProfileString: unusable section, key or value for %s, %E").size());
  EXPECT_FALSE(platform::FileIsPresent(T(path)));
  // Values may hold '=', brackets and semicolons; quotes are shed on reading.
  ASSERT_EQ(0, Set(path, "a", "k", "x=[1];2"));
  EXPECT_EQ("x=[1];2", Get(path, "a", "k"));
  ASSERT_EQ(0, Set(path, "a", "q", "'single'"));
  EXPECT_EQ("single", Get(path, "a", "q"));
  ASSERT_EQ(0, Set(path, "a", "empty", ""));
  EXPECT_EQ("", Get(path, "a", "empty"));
}

TEST(IniFile, CaseFoldingBeyondAscii) {
  TempDir dir;
  std::string path = dir.WriteFile("fold.ini", "[ÄRGER]\nÉtat=ok\n");
  EXPECT_EQ("ok", Get(path, "ärger", "éTAT"));
  std::vector<TString> names;
  TString p = T(path), sec = u"ärger";
  ASSERT_EQ(0, GetProfileKeyNames(&sec, &p, &names));
  ASSERT_EQ(1u, names.size());
  EXPECT_EQ("État", TStringAsString(names[0]));
}

// Writers on several threads lose none of each other's keys.
TEST(IniFileThreaded, ConcurrentWritersKeepEveryKey) {
  TempDir dir;
  std::string path = dir.path() + "/shared.ini";
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&path, t] {
      for (int i = 0; i < 10; ++i) Set(path, "S" + std::to_string(i % 2), "k" + std::to_string(t * 100 + i), "v");
    });
  }
  for (std::thread& th : threads) th.join();
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ("v", Get(path, "S" + std::to_string(i % 2), "k" + std::to_string(t * 100 + i)));
    }
  }
}
