// TString storage, search, editing and parameters, checked against
// std::u16string models and glibc's fnmatch.
#include "foundation/tstring.h"

#include <fnmatch.h>
#include <gtest/gtest.h>
#include <strings.h>

#include <random>
#include <string>
#include <vector>

#include "foundation/memory.h"
#include "foundation/resources.h"
#include "tests/test_host.h"
#include "tests/tstring_testing.h"

namespace {

const ResourceTextSpec kTestTexts[] = {{16999, "Tst1", u"resource text"}};
ResourceTableRegistrar g_registrar(kTestTexts, 1);

// ---- storage ------------------------------------------------------------------------

TEST(TStringTest, Construction) {
  EXPECT_EQ(Units(TString()), u"");
  EXPECT_EQ(TString().GetConstBuffer()[0], 0);
  EXPECT_EQ(Units(TString(u"hello", 3)), u"hel");
  EXPECT_EQ(Units(TString(u"a\0b", 3)), std::u16string(u"a\0b", 3));  // NUL units are text
  EXPECT_EQ(Units(TString(u'x')), u"x");
  EXPECT_EQ(Units(TString("gr\xC3\xBC\xC3\x9F")), u"gr\u00FC\u00DF");
  EXPECT_EQ(Units(TString("abc", 2)), u"ab");
  EXPECT_EQ(Units(TString(16999, ResKey("Tst1"))), u"resource text");
  TString s(u"x");
  EXPECT_EQ(s.LoadKString(16999, ResKey("Tst1")), 1);
  EXPECT_EQ(s.LoadKString(16999, ResKey("None")), 0);
  EXPECT_TRUE(s.IsEmpty());
}

TEST(TStringTest, CopyAndMoveAcrossInlineAndHeap) {
  for (int n : {0, 5, TString::kInlineUnits, TString::kInlineUnits + 1, 300}) {
    std::u16string text(static_cast<size_t>(n), u'q');
    TString a = Make(text);
    TString copy(a);
    TString moved(std::move(copy));
    EXPECT_EQ(Units(moved), text);
    EXPECT_EQ(copy.GetLength(), 0);  // NOLINT: moved-from is empty and usable
    copy += u"z";
    EXPECT_EQ(Units(copy), u"z");
    TString assigned(u"old");
    assigned = std::move(moved);
    EXPECT_EQ(Units(assigned), text);
    const TString& self = assigned;
    assigned = self;
    EXPECT_EQ(Units(assigned), text);
    assigned.Append(assigned);
    EXPECT_EQ(Units(assigned), text + text);
    assigned.Append(assigned.GetConstBuffer() + 1, 2);  // from its own buffer
    EXPECT_EQ(Units(assigned), text + text + (n >= 3 ? std::u16string(2, u'q') : Units(assigned).substr(2 * n)));
  }
}

// Random sequences of edits keep the string equal to a std::u16string model.
TEST(TStringTest, EditsMatchU16StringModel) {
  std::mt19937 rng(3);
  const std::u16string alphabet = u"ab\u00E9\U0001F600 ";
  for (int round = 0; round < 200; ++round) {
    TString s;
    std::u16string model;
    for (int step = 0; step < 60; ++step) {
      std::u16string piece = RandomFrom(rng, alphabet, 20);
      switch (rng() % 8) {
        case 0: s.Assign(piece.data(), static_cast<int>(piece.size())); model = piece; break;
        case 1: case 2: s.Append(piece.data(), static_cast<int>(piece.size())); model += piece; break;
        case 3: s.AddLastChar(u'k'); model += u'k'; break;
        case 4: {
          if (model.empty()) { EXPECT_EQ(s.RemoveLastChar(), 0u); break; }
          char32_t cp = s.RemoveLastChar();
          bool pair = model.size() >= 2 && model.back() >= 0xDC00 && model.back() <= 0xDFFF &&
                      model[model.size() - 2] >= 0xD800 && model[model.size() - 2] <= 0xDBFF;
          EXPECT_EQ(cp, pair ? U'\U0001F600' : static_cast<char32_t>(model.back()));
          model.resize(model.size() - (pair ? 2 : 1));
          break;
        }
        case 5: {
          int at = static_cast<int>(rng() % (model.size() + 2)) - 1;
          bool inside = at >= 0 && at < static_cast<int>(model.size());
          EXPECT_EQ(s.SetAt(at, u'Z'), inside ? 0 : kErrBadParameter);
          if (inside) model[static_cast<size_t>(at)] = u'Z';
          break;
        }
        case 6: { int n = static_cast<int>(rng() % 30); s.Fill(u'f', n); model.assign(static_cast<size_t>(n), u'f'); break; }
        default: if (rng() % 4 == 0) { s.Clear(); model.clear(); } break;
      }
      ASSERT_EQ(Units(s), model);
      ASSERT_EQ(s.GetConstBuffer()[s.GetLength()], 0);
    }
  }
}

TEST(TStringTest, LeftMidRightClamp) {
  TString s(u"abcdef");
  const std::pair<TString, const char16_t*> kCuts[] = {
      {s.Left(2), u"ab"},   {s.Left(-1), u""},      {s.Left(99), u"abcdef"}, {s.Mid(2), u"cdef"},
      {s.Mid(2, 3), u"cde"}, {s.Mid(-5, 2), u"ab"}, {s.Mid(9, 2), u""},      {s.Right(2), u"ef"},
      {s.Right(99), u"abcdef"}};
  for (const auto& [cut, text] : kCuts) EXPECT_EQ(cut, text);
  EXPECT_EQ(s.GetAt(0), u'a');
  EXPECT_EQ(s.GetAt(6), 0);
  EXPECT_EQ(s.GetAt(-1), 0);
}

TEST(TStringTest, DirectBuffer) {
  TString s(u"ab");
  char16_t* p = s.GetBuffer(40);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[0], u'a');
  EXPECT_EQ(p[39], 0);
  p[2] = u'c';
  p[3] = u'd';
  EXPECT_EQ(s.ReleaseBuffer(), 0);
  EXPECT_EQ(s, u"abcd");
  s.GetBuffer(0)[1] = u'X';
  EXPECT_EQ(s.ReleaseBuffer(3), 0);
  EXPECT_EQ(s, u"aXc");
  TestHost host;
  s.GetBuffer(2);
  EXPECT_EQ(s.ReleaseBuffer(1 << 20), kErrBadParameter);
  EXPECT_LE(s.GetLength(), 1 << 20);
  EXPECT_EQ(s.GetConstBuffer()[s.GetLength()], 0);
  EXPECT_EQ(s.GetBuffer(TString::kMaxLength + 1), nullptr);
  EXPECT_EQ(host.Lines().size(), 2u);
}

TEST(TStringTest, RefusalsAreLogged) {
  TestHost host;
  TString s(u"abc");
  EXPECT_EQ(s.SetAt(3, u'x'), kErrBadParameter);
  EXPECT_EQ(s.Assign(nullptr, 4), kErrBadParameter);
  EXPECT_EQ(s.Append(nullptr, 4), kErrBadParameter);
  EXPECT_EQ(s.Fill(u'x', -2), kErrBadParameter);
  EXPECT_EQ(s, u"abc");
  auto lines = host.LinesWithFormat("TString::SetAt: index %~d outside a text of %~d units, %E");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].selector, 514u);
  EXPECT_EQ(lines[0].args.at(0), 3u);
  EXPECT_EQ(host.Lines().size(), 4u);
  EXPECT_EQ(s.Assign(nullptr, -1), 0);  // a null text is empty
  EXPECT_TRUE(s.IsEmpty());
}

// ---- search and compare ----------------------------------------------------------------

int Sign(int v) { return v < 0 ? -1 : (v > 0 ? 1 : 0); }

TEST(TStringTest, SearchAndCompareMatchU16String) {
  std::mt19937 rng(5);
  const std::u16string alphabet = u"abc\u00E9\U0001F600\uFFFF";
  for (int round = 0; round < 3000; ++round) {
    std::u16string a = RandomFrom(rng, alphabet, 12);
    std::u16string b = RandomFrom(rng, alphabet, round % 3 == 0 ? 12 : 3);
    TString ta = Make(a);
    TString tb = Make(b);
    int start = static_cast<int>(rng() % 14);
    size_t sub = a.find(b, static_cast<size_t>(start));
    if (static_cast<size_t>(start) > a.size()) sub = std::u16string::npos;
    EXPECT_EQ(ta.FindSubstring(tb, start), sub == std::u16string::npos ? -1 : static_cast<int>(sub));
    size_t ch = b.empty() ? std::u16string::npos : a.find(b[0], static_cast<size_t>(start));
    if (!b.empty()) {
      EXPECT_EQ(ta.FindChar(b[0], start), ch == std::u16string::npos ? -1 : static_cast<int>(ch));
    }
    size_t set = b.empty() ? std::u16string::npos : a.find_first_of(b, static_cast<size_t>(start));
    EXPECT_EQ(ta.FindSet(tb, start), set == std::u16string::npos ? -1 : static_cast<int>(set));
    EXPECT_EQ(ta.StartWith(tb), a.compare(0, b.size(), b) == 0 && a.size() >= b.size());
    int cmp = Sign(a.compare(b));
    EXPECT_EQ(ta.Compare(tb), cmp);
    EXPECT_EQ((std::vector<bool>{ta == tb, ta != tb, ta < tb, ta <= tb, ta > tb, ta >= tb}),
              (std::vector<bool>{cmp == 0, cmp != 0, cmp < 0, cmp <= 0, cmp > 0, cmp >= 0}));
    if (b.find(u'\0') == std::u16string::npos) {
      EXPECT_EQ((std::vector<bool>{ta < b.c_str(), b.c_str() < ta, b.c_str() == ta}),
                (std::vector<bool>{cmp < 0, cmp > 0, cmp == 0}));
    }
    auto mismatch = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    int expected = mismatch.first == a.end() && mismatch.second == b.end()
                       ? -1
                       : static_cast<int>(mismatch.first - a.begin());
    EXPECT_EQ(ta.FirstDiscrepancy(tb), expected);
    if (cmp == 0) {
      EXPECT_EQ(ta.Hash(), tb.Hash());
    }
  }
  EXPECT_NE(TString(u"ab").Hash(), TString(u"ba").Hash());
  EXPECT_NE(TString(u"\u0100").Hash(), TString(u"\u0001").Hash());
}

TEST(TStringTest, CaseBlindCompareMatchesStrcasecmp) {
  std::mt19937 rng(7);
  const std::u16string alphabet = u"aAbB_z";
  for (int round = 0; round < 3000; ++round) {
    std::u16string a = RandomFrom(rng, alphabet, 6);
    std::u16string b = RandomFrom(rng, alphabet, 6);
    std::string a8(a.begin(), a.end());
    std::string b8(b.begin(), b.end());
    EXPECT_EQ(Make(a).Compare(Make(b), true), Sign(strcasecmp(a8.c_str(), b8.c_str())));
    bool prefix = a8.size() >= b8.size() && strncasecmp(a8.c_str(), b8.c_str(), b8.size()) == 0;
    EXPECT_EQ(Make(a).StartWith(Make(b), true), prefix);
  }
  EXPECT_EQ(TString(u"\u00C9T\u00C9").Compare(TString(u"\u00E9t\u00E9"), true), 0);
  EXPECT_EQ(TString(u"xx\u0416yy").FindSubstring(TString(u"\u0436Y"), 0, true), 2);
  EXPECT_EQ(TString(u"ab").FirstDiscrepancy(TString(u"AC"), true), 1);
}

TEST(TStringTest, MatchPatternMatchesFnmatch) {
  std::mt19937 rng(9);
  for (int round = 0; round < 20000; ++round) {
    std::u16string text = RandomFrom(rng, u"abA", 7);
    std::u16string pattern = RandomFrom(rng, u"ab*?B", 5);
    std::string t8(text.begin(), text.end());
    std::string p8(pattern.begin(), pattern.end());
    bool ignoreCase = round % 2 == 1;
    bool expected = fnmatch(p8.c_str(), t8.c_str(), ignoreCase ? FNM_CASEFOLD : 0) == 0;
    ASSERT_EQ(Make(text).MatchPattern(Make(pattern), ignoreCase), expected) << t8 << " ~ " << p8;
  }
  // '?' is one character, a surrogate pair included.
  EXPECT_TRUE(TString(u"a\U0001F600b").MatchPattern(TString(u"a?b")));
  EXPECT_FALSE(TString(u"a\U0001F600b").MatchPattern(TString(u"a??b")));
  EXPECT_TRUE(TString(u"x\U0001F600").MatchPattern(TString(u"*?")));
  EXPECT_TRUE(TString(u"").MatchPattern(TString(u"**")));
}

TEST(TStringTest, TokensMatchSplit) {
  std::mt19937 rng(11);
  for (int round = 0; round < 1000; ++round) {
    std::u16string text = RandomFrom(rng, u"ab,;", 10);
    std::vector<std::u16string> parts(1);
    for (char16_t u : text) {
      if (u == u',' || u == u';') parts.emplace_back();
      else parts.back() += u;
    }
    TString s = Make(text);
    for (size_t i = 0; i < parts.size(); ++i) {
      TString token(u"junk");
      ASSERT_EQ(s.GetNthToken(static_cast<int>(i), TString(u",;"), &token), 0);
      EXPECT_EQ(Units(token), parts[i]);
    }
    TString token;
    EXPECT_EQ(s.GetNthToken(static_cast<int>(parts.size()), TString(u",;"), &token), kErrNoMoreItems);
  }
  TString self(u"x/y");
  EXPECT_EQ(self.GetNthToken(1, TString(u"/"), &self), 0);
  EXPECT_EQ(self, u"y");
}

// ---- editing -----------------------------------------------------------------------------

TEST(TStringTest, ReplaceSubstringMatchesModel) {
  std::mt19937 rng(13);
  for (int round = 0; round < 2000; ++round) {
    std::u16string text = RandomFrom(rng, u"aab", 12);
    std::u16string from = RandomFrom(rng, u"ab", 2);
    std::u16string to = RandomFrom(rng, u"abc", 3);
    if (from.empty()) from = u"a";
    bool all = round % 3 != 0;
    std::u16string model;
    int count = 0;
    size_t at = 0;
    for (size_t next; (next = text.find(from, at)) != std::u16string::npos && (all || count == 0);) {
      model += text.substr(at, next - at) + to;
      at = next + from.size();
      ++count;
    }
    model += text.substr(at);
    TString s = Make(text);
    EXPECT_EQ(s.ReplaceSubstring(Make(from), Make(to), all), count);
    EXPECT_EQ(Units(s), model);
  }
  TString s(u"abc");
  EXPECT_EQ(s.ReplaceSubstring(TString(), TString(u"x")), kErrBadParameter);
  TString appended(u">");
  appended.AppendWithReplace(TString(u"a.b.c"), TString(u"."), TString(u"::"));
  EXPECT_EQ(appended, u">a::b::c");
}

TEST(TStringTest, SetEditsAndHotkeys) {
  TString s(u"a-b_c-");
  EXPECT_EQ(s.ReplaceSet(TString(u"-_"), u' '), 3);
  EXPECT_EQ(s, u"a b c ");
  s.Strip(TString(u" "));
  EXPECT_EQ(s, u"abc");
  TString ends(u" \t\r\nmid dle \n");
  ends.StripEnds();
  EXPECT_EQ(ends, u"mid dle");
  TString all(u"   ");
  all.StripEnds();
  EXPECT_EQ(all, u"");
  const std::pair<const char16_t*, const char16_t*> kHotkeys[] = {
      {u"&File", u"File"}, {u"Save &As", u"Save As"}, {u"Fish && Chips", u"Fish & Chips"},
      {u"&&&x", u"&x"},    {u"end&", u"end"},         {u"plain", u"plain"}};
  for (auto [in, out] : kHotkeys) {
    TString h(in);
    h.StripHotkey();
    EXPECT_EQ(h, out);
  }
  const std::pair<TString::Newline, const char16_t*> kNewlines[] = {{TString::kNewlineLf, u"a\nb\nc\nd\n\ne"},
                                                                    {TString::kNewlineCrLf, u"a\r\nb\r\nc\r\nd\r\n\r\ne"},
                                                                    {TString::kNewlineCr, u"a\rb\rc\rd\r\re"}};
  for (auto [style, out] : kNewlines) {
    TString n(u"a\r\nb\rc\nd\n\re");
    n.ConvertNewlines(style);
    EXPECT_EQ(n, out);
  }
}

TEST(TStringTest, EllipsizeKeepsHeadAndTail) {
  std::mt19937 rng(17);
  for (int round = 0; round < 2000; ++round) {
    std::u16string clean;  // whole pairs only
    const char16_t* kPieces[] = {u"a", u"b", u"\U0001F600"};
    for (int n = static_cast<int>(rng() % 16); n > 0; --n) clean += kPieces[rng() % 3];
    int width = static_cast<int>(rng() % 24);
    auto where = static_cast<TString::EllipsisAt>(rng() % 3);
    TString s = Make(clean);
    ASSERT_EQ(s.Ellipsize(width, where), 0);
    std::u16string out = Units(s);
    if (static_cast<int>(clean.size()) <= width) {
      EXPECT_EQ(out, clean);
      continue;
    }
    EXPECT_LE(static_cast<int>(out.size()), width);
    EXPECT_GE(static_cast<int>(out.size()), width - 1);
    EXPECT_EQ(TStringAsString(s).find("\xED"), std::string::npos);  // no split pair
    if (width < 4) {
      EXPECT_EQ(clean.compare(0, out.size(), out), 0);
      continue;
    }
    size_t dots = out.find(u"...");
    ASSERT_NE(dots, std::u16string::npos);
    std::u16string head = out.substr(0, dots);
    std::u16string tail = out.substr(dots + 3);
    EXPECT_EQ(clean.compare(0, head.size(), head), 0);
    EXPECT_EQ(clean.compare(clean.size() - tail.size(), tail.size(), tail), 0);
    if (where == TString::kEllipsisStart) {
      EXPECT_EQ(dots, 0u);
    }
    if (where == TString::kEllipsisEnd) {
      EXPECT_EQ(dots + 3, out.size());
    }
  }
  TString s(u"abc");
  EXPECT_EQ(s.Ellipsize(-1, TString::kEllipsisEnd), kErrBadParameter);
  TString m(u"abcdefghij");
  m.Ellipsize(8, TString::kEllipsisMiddle);
  EXPECT_EQ(m, u"abc...ij");
}

TEST(TStringTest, Ordinals) {
  const std::pair<int64_t, const char16_t*> kCases[] = {
      {0, u"0th"},     {1, u"1st"},     {2, u"2nd"},     {3, u"3rd"},   {4, u"4th"},
      {11, u"11th"},   {12, u"12th"},   {13, u"13th"},   {21, u"21st"}, {102, u"102nd"},
      {111, u"111th"}, {112, u"112th"}, {-1, u"-1st"},   {-13, u"-13th"},
      {INT64_MIN, u"-9223372036854775808th"}};
  for (auto [n, text] : kCases) {
    TString s;
    s.FormatOrdinal(n);
    EXPECT_EQ(s, text);
  }
}

TEST(TStringTest, PathHelpers) {
  // {text, with a delimiter added, with the last one removed}
  const std::tuple<const char16_t*, const char16_t*, const char16_t*> kDelimiters[] = {
      {u"/a/b", u"/a/b/", u"/a/b"}, {u"/a/b/", u"/a/b/", u"/a/b"}, {u"C:\\x\\", u"C:\\x\\", u"C:\\x"},
      {u"", u"", u""},              {u"/", u"/", u"/"},            {u"\\", u"\\", u"\\"},
      {u"C:\\", u"C:\\", u"C:\\"}};
  for (auto [in, added, removed] : kDelimiters) {
    TString a(in), r(in);
    a.AddPathDelimiter();
    r.RemoveLastPathDelimiter();
    EXPECT_EQ(a, added);
    EXPECT_EQ(r, removed);
  }
  for (auto [in, last] : {std::pair{u"/a/b/c.txt", u"c.txt"}, {u"C:\\dir\\sub\\", u"sub"}, {u"name", u"name"},
                          {u"/", u""}}) {
    EXPECT_EQ(TString(in).GetLastSegmentOfPath(), last);
  }

  TestHost host;
  TString v(u"/mnt/vol/a/b");
  EXPECT_EQ(v.RemoveVolumesMountPoint(TString(u"/mnt/vol/")), 0);
  EXPECT_EQ(v, u"/a/b");
  TString same(u"/mnt/vol");
  EXPECT_EQ(same.RemoveVolumesMountPoint(TString(u"\\mnt\\vol")), 0);
  EXPECT_EQ(same, u"/");
  TString other(u"/mnt/volume/a");
  EXPECT_EQ(other.RemoveVolumesMountPoint(TString(u"/mnt/vol")), kErrNotFound);
  EXPECT_EQ(other, u"/mnt/volume/a");
  EXPECT_EQ(host.Lines().size(), 1u);
}

// ---- parameters --------------------------------------------------------------------------

struct Param {
  int position;
  int length;
  std::u16string raw;
};

// The model of a cut: records inside [start, end) clipped, moved to 0.
std::vector<Param> Cut(const std::vector<Param>& in, int start, int end) {
  std::vector<Param> out;
  for (const Param& p : in) {
    int from = std::max(p.position, start);
    int to = std::min(p.position + p.length, end);
    bool keep = p.length == 0 ? (p.position >= start && p.position <= end) : from < to;
    if (keep) out.push_back({from - start, p.length == 0 ? 0 : to - from, p.raw});
  }
  return out;
}

void ExpectParams(const TString& s, const std::vector<Param>& expected) {
  ASSERT_EQ(s.GetParameterCount(), static_cast<int>(expected.size()));
  for (size_t i = 0; i < expected.size(); ++i) {
    TString raw;
    char16_t kind = 0;
    int position = -1;
    int length = -1;
    ASSERT_EQ(s.GetParametric(static_cast<int>(i), &raw, &kind, &position, &length), 0);
    EXPECT_EQ(kind, u'd');
    EXPECT_EQ(position, expected[i].position);
    EXPECT_EQ(length, expected[i].length);
    EXPECT_EQ(Units(raw), expected[i].raw);
  }
}

TEST(TStringParametersTest, FollowLeftMidRight) {
  std::mt19937 rng(19);
  for (int round = 0; round < 1000; ++round) {
    int n = static_cast<int>(rng() % 20);
    TString s = Make(std::u16string(static_cast<size_t>(n), u'x'));
    std::vector<Param> params;
    for (int k = static_cast<int>(rng() % 5); k > 0; --k) {
      int position = static_cast<int>(rng() % static_cast<unsigned>(n + 1));
      int length = static_cast<int>(rng() % static_cast<unsigned>(n - position + 1));
      std::u16string raw = u"r" + std::u16string(static_cast<size_t>(k), u'0');
      ASSERT_EQ(s.AddParameter(u'd', position, length, Make(raw)), 0);
      params.push_back({position, length, raw});
    }
    s.SetFormatString(TString(u"%d"));
    int a = static_cast<int>(rng() % static_cast<unsigned>(n + 2));
    int b = static_cast<int>(rng() % static_cast<unsigned>(n + 2));
    SCOPED_TRACE(testing::Message() << "n=" << n << " a=" << a << " b=" << b << " params=" << params.size());
    ExpectParams(s.Left(a), Cut(params, 0, std::min(a, n)));
    ExpectParams(s.Right(a), Cut(params, n - std::min(a, n), n));
    int start = std::min(a, n);
    int count = std::min(b, n - start);
    ExpectParams(s.Mid(a, b), Cut(params, start, start + count));
    TString cut(s);
    cut.MidParameters(start, count);
    ExpectParams(cut, Cut(params, start, start + count));
    TString format;
    EXPECT_EQ(s.GetFormatString(&format), 0);
    EXPECT_EQ(format, u"%d");
    if (count < n) {
      EXPECT_EQ(s.Mid(a, b).GetFormatString(nullptr), kErrNotFound);
    }
  }
}

TEST(TStringParametersTest, EditsCarryOrClearThem) {
  TString s(u"  value 42  ");
  ASSERT_EQ(s.AddParameter(u'd', 8, 2, TString(u"42")), 0);
  TString copy(s);
  EXPECT_TRUE(copy.Identical(s));
  s.StripEnds();
  ExpectParams(s, {{6, 2, u"42"}});
  EXPECT_TRUE(s == TString(u"value 42"));
  EXPECT_FALSE(s.Identical(TString(u"value 42")));

  TString joined(u"n=");
  joined.Append(s);
  ExpectParams(joined, {{8, 2, u"42"}});
  joined.ToUpper();
  ExpectParams(joined, {{8, 2, u"42"}});
  joined.RemoveLastChar();
  ExpectParams(joined, {{8, 1, u"42"}});
  joined.RelocateParameters(3, -2);
  ExpectParams(joined, {{6, 1, u"42"}});
  joined.RelocateParameters(6, -1);  // moved before its start: gone
  EXPECT_EQ(joined.GetParameterCount(), 0);

  TString replaced(s);
  replaced.ReplaceSubstring(TString(u"value"), TString(u"v"));
  EXPECT_EQ(replaced.GetParameterCount(), 0);
  TString assigned(s);
  assigned = u"other";
  EXPECT_EQ(assigned.GetParameterCount(), 0);

  TestHost host;
  EXPECT_EQ(s.GetParametric(1, nullptr), kErrNoMoreItems);
  EXPECT_EQ(s.GetParametric(-1, nullptr), kErrBadParameter);
  EXPECT_EQ(s.AddParameter(u'd', 7, 5, TString()), kErrBadParameter);
  EXPECT_EQ(s.RemoveParametric(1), kErrBadParameter);
  EXPECT_EQ(s.RemoveParametric(0), 0);
  EXPECT_EQ(s.GetParameterCount(), 0);
  EXPECT_TRUE(s.Identical(TString(u"value 42")));
  EXPECT_EQ(host.Lines().size(), 4u);
}

TEST(TStringTest, NoLeaks) {
  int64_t before = MemLiveBlocks();
  {
    TString s(std::u16string(100, u'x').c_str());
    s.AddParameter(u's', 0, 3, TString(std::u16string(50, u'y').c_str()));
    s.SetFormatString(TString(u"%s"));
    TString t = s.Mid(1, 50);
    s.GetBufferAnsi(10);
    t.ReadBufferAnsi();
    TString moved(std::move(t));
  }
  EXPECT_EQ(MemLiveBlocks(), before);
}

}  // namespace
