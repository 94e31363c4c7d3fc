#include "files/tsectionkeyfile.h"

namespace {

const char16_t kSpace[] = u" ";

// A line as lookups see it: spaces stripped at both ends, lower case.
void Normalise(TString* line) {
  line->StripEnds(TString(kSpace));
  line->ToLower();
}

}  // namespace

int TSectionKeyFile::GetSection(const TString& section) {
  if (!m_section.IsEmpty() && m_section.Compare(section, true) == 0) {
    SetReadPosition(m_sectionStart);
    return 1;
  }
  m_section.Clear();
  m_sectionStart = 0;
  TString header(u"[");
  header += section;
  header += u"]";
  header.ToLower();
  TString line;
  while (ReadLine(&line) == 0) {
    Normalise(&line);
    if (line == header) {
      m_section = section;
      m_sectionStart = GetReadPosition();
      return 1;
    }
  }
  return 0;
}

int TSectionKeyFile::GetKey(const TString& key, const TString& defaultValue, TString* value) {
  value->Assign(defaultValue);
  TString wanted(key);
  wanted.ToLower();
  TString line;
  for (;;) {
    uint32_t lineStart = GetReadPosition();
    if (ReadLine(&line) != 0) return 0;
    Normalise(&line);
    if (line.IsEmpty()) continue;
    if (line.GetConstBuffer()[0] == u'[') {
      SetReadPosition(lineStart);
      return 0;
    }
    int equals = line.FindChar(u'=');
    if (equals < 0) continue;
    TString name = line.Left(equals);
    name.StripEnds(TString(kSpace));
    if (name != wanted) continue;
    TString found = line.Mid(equals + 1);
    found.StripEnds(TString(kSpace));
    found.StripEnds(TString(u"\""));
    value->Assign(found);
    return value->GetLength();
  }
}

int TSectionKeyFile::GetSectionKey(const TString& section, const TString& key, const TString& defaultValue,
                                   TString* value) {
  if (GetSection(section) == 0) {
    value->Assign(defaultValue);
    return 0;
  }
  return GetKey(key, defaultValue, value);
}

void TSectionKeyFile::Reset() {
  m_section.Clear();
  m_sectionStart = 0;
}
