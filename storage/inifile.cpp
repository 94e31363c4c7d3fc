#include "storage/inifile.h"

#include <mutex>

#include "foundation/errors.h"
#include "foundation/log.h"
#include "platform/atomic_file.h"

namespace {

const char kBom[] = "\xEF\xBB\xBF";

// Serialises the read-modify-write of every profile function in the process.
std::mutex g_profileLock;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string Trim(const std::string& s, size_t from, size_t to) {
  while (from < to && IsBlank(s[from])) ++from;
  while (to > from && IsBlank(s[to - 1])) --to;
  return s.substr(from, to - from);
}

std::string Unquote(const std::string& v) {
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) {
    return v.substr(1, v.size() - 2);
  }
  return v;
}

// Strict UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF.
bool IsValidUtf8(const unsigned char* p, size_t n) {
  size_t i = 0;
  while (i < n) {
    unsigned char c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t extra;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (n - i <= extra) return false;
    for (size_t k = 1; k <= extra; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    if ((extra == 2 && cp < 0x800) || (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
        (cp >= 0xD800 && cp <= 0xDFFF)) {
      return false;
    }
    i += extra + 1;
  }
  return true;
}

bool HasLineBreak(const std::string& s) { return s.find_first_of("\r\n") != std::string::npos; }

// Reads and parses `path`; a missing file is an empty text.
int LoadText(const char16_t* op, const TString& path, TIniText* text) {
  TString opName(op);
  std::string data;
  int code = platform::ReadWholeFile(path, kIniMaxFileBytes, &data);
  if (code == kErrNotFound) return text->Parse("", 0);
  if (code != 0) {
    LogLine(517, u"%s: cannot read %s, %E", &opName, &path, code);
    return code;
  }
  code = text->Parse(data.data(), data.size());
  if (code != 0) LogLine(517, u"%s: %s is not an initialisation file, %E", &opName, &path, code);
  return code;
}

}  // namespace

std::string FoldIniName(const std::string& utf8) {
  TString s = TStringFromUTF8(Trim(utf8, 0, utf8.size()));
  s.ToLower();
  return TStringAsString(s);
}

TIniText::Line TIniText::MakeLine(std::string text, std::string end) {
  Line line;
  line.text = std::move(text);
  line.end = std::move(end);
  const std::string& t = line.text;
  size_t start = 0;
  while (start < t.size() && IsBlank(t[start])) ++start;
  if (start == t.size() || t[start] == ';' || t[start] == '#') return line;
  if (t[start] == '[') {
    size_t close = t.find(']', start + 1);
    line.kind = Kind::kSection;
    line.name = Trim(t, start + 1, close == std::string::npos ? t.size() : close);
  } else {
    size_t eq = t.find('=', start);
    if (eq == std::string::npos) return line;
    line.name = Trim(t, start, eq);
    if (line.name.empty()) return line;
    line.kind = Kind::kKey;
    line.value = Unquote(Trim(t, eq + 1, t.size()));
  }
  line.folded = FoldIniName(line.name);
  return line;
}

int TIniText::Parse(const char* data, size_t size) {
  m_bom.clear();
  m_lines.clear();
  if (size > kIniMaxFileBytes) return kErrFileTooLarge;
  size_t pos = 0;
  if (size >= 3 && std::string(data, 3) == kBom) {
    m_bom = kBom;
    pos = 3;
  }
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  for (size_t i = pos; i < size; ++i) {
    if (bytes[i] == 0) return kErrInvalidData;
  }
  if (!IsValidUtf8(bytes + pos, size - pos)) return kErrInvalidData;
  std::vector<Line> lines;
  while (pos < size) {
    size_t stop = pos;
    while (stop < size && data[stop] != '\n' && data[stop] != '\r') ++stop;
    if (stop - pos > kIniMaxLineBytes) return kErrInvalidData;
    size_t endLen = 0;
    if (stop < size) endLen = (data[stop] == '\r' && stop + 1 < size && data[stop + 1] == '\n') ? 2 : 1;
    lines.push_back(MakeLine(std::string(data + pos, stop - pos), std::string(data + stop, endLen)));
    pos = stop + endLen;
  }
  m_lines.swap(lines);
  return 0;
}

std::string TIniText::Serialize() const {
  std::string out = m_bom;
  for (const Line& line : m_lines) {
    out += line.text;
    out += line.end;
  }
  return out;
}

int TIniText::FindSection(const std::string& folded) const {
  for (size_t i = 0; i < m_lines.size(); ++i) {
    if (m_lines[i].kind == Kind::kSection && m_lines[i].folded == folded) return static_cast<int>(i);
  }
  return -1;
}

size_t TIniText::SectionEnd(size_t header) const {
  size_t i = header + 1;
  while (i < m_lines.size() && m_lines[i].kind != Kind::kSection) ++i;
  return i;
}

int TIniText::FindKey(size_t header, const std::string& folded) const {
  size_t end = SectionEnd(header);
  for (size_t i = header + 1; i < end; ++i) {
    if (m_lines[i].kind == Kind::kKey && m_lines[i].folded == folded) return static_cast<int>(i);
  }
  return -1;
}

const std::string& TIniText::NewLineEnd() const {
  static const std::string kCrLf = "\r\n";
  for (const Line& line : m_lines) {
    if (!line.end.empty()) return line.end;
  }
  return kCrLf;
}

bool TIniText::Get(const std::string& section, const std::string& key, std::string* value) const {
  int header = FindSection(FoldIniName(section));
  if (header < 0) return false;
  int k = FindKey(static_cast<size_t>(header), FoldIniName(key));
  if (k < 0) return false;
  *value = m_lines[static_cast<size_t>(k)].value;
  return true;
}

void TIniText::Set(const std::string& section, const std::string& key, const std::string& value) {
  std::string eol = NewLineEnd();
  int header = FindSection(FoldIniName(section));
  if (header < 0) {
    if (!m_lines.empty() && m_lines.back().end.empty()) m_lines.back().end = eol;
    m_lines.push_back(MakeLine("[" + section + "]", eol));
    m_lines.push_back(MakeLine(key + "=" + value, eol));
    return;
  }
  int k = FindKey(static_cast<size_t>(header), FoldIniName(key));
  if (k >= 0) {
    Line& line = m_lines[static_cast<size_t>(k)];
    line = MakeLine(line.name + "=" + value, line.end);
    return;
  }
  size_t at = static_cast<size_t>(header);
  size_t end = SectionEnd(at);
  for (size_t i = at + 1; i < end; ++i) {
    if (m_lines[i].kind == Kind::kKey) at = i;
  }
  if (m_lines[at].end.empty()) m_lines[at].end = eol;
  m_lines.insert(m_lines.begin() + static_cast<std::ptrdiff_t>(at + 1), MakeLine(key + "=" + value, eol));
}

bool TIniText::DeleteKey(const std::string& section, const std::string& key) {
  int header = FindSection(FoldIniName(section));
  if (header < 0) return false;
  int k = FindKey(static_cast<size_t>(header), FoldIniName(key));
  if (k < 0) return false;
  m_lines.erase(m_lines.begin() + k);
  return true;
}

bool TIniText::DeleteSection(const std::string& section) {
  int header = FindSection(FoldIniName(section));
  if (header < 0) return false;
  size_t end = SectionEnd(static_cast<size_t>(header));
  m_lines.erase(m_lines.begin() + header, m_lines.begin() + static_cast<std::ptrdiff_t>(end));
  return true;
}

std::vector<std::string> TIniText::SectionNames() const {
  std::vector<std::string> names;
  std::vector<std::string> seen;
  for (const Line& line : m_lines) {
    if (line.kind != Kind::kSection) continue;
    bool dup = false;
    for (const std::string& s : seen) dup = dup || s == line.folded;
    if (dup) continue;
    seen.push_back(line.folded);
    names.push_back(line.name);
  }
  return names;
}

std::vector<std::string> TIniText::KeyNames(const std::string& section) const {
  std::vector<std::string> names;
  int header = FindSection(FoldIniName(section));
  if (header < 0) return names;
  size_t end = SectionEnd(static_cast<size_t>(header));
  std::vector<std::string> seen;
  for (size_t i = static_cast<size_t>(header) + 1; i < end; ++i) {
    const Line& line = m_lines[i];
    if (line.kind != Kind::kKey) continue;
    bool dup = false;
    for (const std::string& s : seen) dup = dup || s == line.folded;
    if (dup) continue;
    seen.push_back(line.folded);
    names.push_back(line.name);
  }
  return names;
}

int UGetPrivateProfileString(const TString* section, const TString* key, const TString* defaultValue, TString* value,
                             const TString* path, bool* found) {
  static const char16_t kOp[] = u"UGetPrivateProfileString";
  if (found != nullptr) *found = false;
  if (value == nullptr) {
    LogLine(517, u"UGetPrivateProfileString: no value to fill, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  if (defaultValue != nullptr) {
    value->Assign(*defaultValue);
  } else {
    value->Clear();
  }
  if (section == nullptr || key == nullptr || path == nullptr) {
    LogLine(517, u"UGetPrivateProfileString: missing section, key or path, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  std::lock_guard<std::mutex> hold(g_profileLock);
  TIniText text;
  int code = LoadText(kOp, *path, &text);
  if (code != 0) return code;
  std::string got;
  if (!text.Get(TStringAsString(*section), TStringAsString(*key), &got)) return 0;
  value->Assign(TStringFromUTF8(got));
  if (found != nullptr) *found = true;
  return 0;
}

int UWritePrivateProfileString(const TString* section, const TString* key, const TString* value,
                               const TString* path) {
  static const char16_t kOp[] = u"UWritePrivateProfileString";
  if (section == nullptr && key == nullptr && value == nullptr) return 0;
  if (section == nullptr || path == nullptr) {
    LogLine(517, u"UWritePrivateProfileString: missing section or path, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  std::string sec = TStringAsString(*section);
  std::string k = key != nullptr ? TStringAsString(*key) : std::string();
  std::string v = value != nullptr ? TStringAsString(*value) : std::string();
  std::string trimmedKey = Trim(k, 0, k.size());
  bool badSection = sec.find(']') != std::string::npos || HasLineBreak(sec) || sec.find('\0') != std::string::npos;
  bool badKey = key != nullptr && (trimmedKey.empty() || k.find('=') != std::string::npos || HasLineBreak(k) ||
                                   k.find('\0') != std::string::npos || trimmedKey[0] == '[' ||
                                   trimmedKey[0] == ';' || trimmedKey[0] == '#');
  bool badValue = HasLineBreak(v) || v.find('\0') != std::string::npos;
  if (badSection || badKey || badValue) {
    LogLine(517, u"UWritePrivateProfileString: unusable section, key or value for %s, %E", path, kErrBadParameter);
    return kErrBadParameter;
  }
  std::lock_guard<std::mutex> hold(g_profileLock);
  TIniText text;
  int code = LoadText(kOp, *path, &text);
  if (code != 0) return code;
  if (key == nullptr) {
    if (!text.DeleteSection(sec)) return 0;
  } else if (value == nullptr) {
    if (!text.DeleteKey(sec, trimmedKey)) return 0;
  } else {
    text.Set(Trim(sec, 0, sec.size()), trimmedKey, v);
  }
  std::string out = text.Serialize();
  if (out.size() > kIniMaxFileBytes) {
    LogLine(517, u"UWritePrivateProfileString: %s would grow too large, %E", path, kErrFileTooLarge);
    return kErrFileTooLarge;
  }
  // What is written must read back under the same rules (a line over the
  // limit would leave a file every later read refuses): else nothing is
  // written.
  TIniText reread;
  if (reread.Parse(out.data(), out.size()) != 0) {
    LogLine(517, u"UWritePrivateProfileString: a line for %s would be longer than a file may hold, %E", path,
            kErrBadParameter);
    return kErrBadParameter;
  }
  code = platform::WriteFileAtomic(*path, out);
  if (code != 0) LogLine(517, u"UWritePrivateProfileString: cannot write %s, %E", path, code);
  return code;
}

int GetProfileSectionNames(const TString* path, std::vector<TString>* names) {
  names->clear();
  std::lock_guard<std::mutex> hold(g_profileLock);
  TIniText text;
  int code = LoadText(u"GetProfileSectionNames", *path, &text);
  if (code != 0) return code;
  for (const std::string& name : text.SectionNames()) names->push_back(TStringFromUTF8(name));
  return 0;
}

int GetProfileKeyNames(const TString* section, const TString* path, std::vector<TString>* names) {
  names->clear();
  std::lock_guard<std::mutex> hold(g_profileLock);
  TIniText text;
  int code = LoadText(u"GetProfileKeyNames", *path, &text);
  if (code != 0) return code;
  for (const std::string& name : text.KeyNames(TStringAsString(*section))) names->push_back(TStringFromUTF8(name));
  return 0;
}
