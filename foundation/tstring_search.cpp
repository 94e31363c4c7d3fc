// TString search and comparison.
#include <cstring>

#include "foundation/log.h"
#include "foundation/tstring.h"
#include "foundation/tstring_internal.h"
#include "foundation/tstring_params.h"

using tstring_internal::LowerUnit;

namespace {

inline char16_t Fold(char16_t u, bool ignoreCase) { return ignoreCase ? LowerUnit(u) : u; }

int CompareUnits(const char16_t* a, int na, const char16_t* b, int nb, bool ignoreCase) {
  int n = na < nb ? na : nb;
  for (int i = 0; i < n; ++i) {
    char16_t x = Fold(a[i], ignoreCase);
    char16_t y = Fold(b[i], ignoreCase);
    if (x != y) return x < y ? -1 : 1;
  }
  if (na == nb) return 0;
  return na < nb ? -1 : 1;
}

bool SameAt(const char16_t* text, const char16_t* sub, int n, bool ignoreCase) {
  for (int i = 0; i < n; ++i) {
    if (Fold(text[i], ignoreCase) != Fold(sub[i], ignoreCase)) return false;
  }
  return true;
}

// Units taken by the character at text[i].
int CharUnits(const char16_t* text, int n, int i) {
  return (i + 1 < n && tstring_internal::IsHighSurrogate(text[i]) && tstring_internal::IsLowSurrogate(text[i + 1]))
             ? 2
             : 1;
}

}  // namespace

int TString::FindChar(char16_t ch, int start) const {
  if (start < 0) start = 0;
  for (int i = start; i < m_length; ++i) {
    if (m_data[i] == ch) return i;
  }
  return -1;
}

int TString::FindSubstring(const TString& sub, int start, bool ignoreCase) const {
  if (start < 0) start = 0;
  int n = sub.m_length;
  for (int i = start; i + n <= m_length; ++i) {
    if (SameAt(m_data + i, sub.m_data, n, ignoreCase)) return i;
  }
  return -1;
}

int TString::FindSet(const TString& set, int start) const {
  if (start < 0) start = 0;
  for (int i = start; i < m_length; ++i) {
    if (set.FindChar(m_data[i]) >= 0) return i;
  }
  return -1;
}

bool TString::StartWith(const TString& prefix, bool ignoreCase) const {
  return prefix.m_length <= m_length && SameAt(m_data, prefix.m_data, prefix.m_length, ignoreCase);
}

int TString::Compare(const TString& other, bool ignoreCase) const {
  return CompareUnits(m_data, m_length, other.m_data, other.m_length, ignoreCase);
}

int TString::CompareText(const char16_t* text) const {
  return CompareUnits(m_data, m_length, text, tstring_internal::TextLength(text), false);
}

bool TString::Identical(const TString& other) const {
  if (Compare(other) != 0) return false;
  bool mine = m_params != nullptr && !m_params->Empty();
  bool theirs = other.m_params != nullptr && !other.m_params->Empty();
  if (mine != theirs) return false;
  return !mine || m_params->SameAs(*other.m_params);
}

int TString::FirstDiscrepancy(const TString& other, bool ignoreCase) const {
  int n = m_length < other.m_length ? m_length : other.m_length;
  for (int i = 0; i < n; ++i) {
    if (Fold(m_data[i], ignoreCase) != Fold(other.m_data[i], ignoreCase)) return i;
  }
  return m_length == other.m_length ? -1 : n;
}

bool TString::MatchPattern(const TString& pattern, bool ignoreCase) const {
  const char16_t* t = m_data;
  const char16_t* p = pattern.m_data;
  int n = m_length;
  int m = pattern.m_length;
  int ti = 0;
  int pi = 0;
  int starP = -1;  // the last '*' seen, and where its run currently ends
  int starT = 0;
  while (ti < n) {
    if (pi < m && p[pi] == u'*') {
      starP = pi++;
      starT = ti;
    } else if (pi < m && p[pi] == u'?') {
      ti += CharUnits(t, n, ti);
      ++pi;
    } else if (pi < m && Fold(p[pi], ignoreCase) == Fold(t[ti], ignoreCase)) {
      ++ti;
      ++pi;
    } else if (starP >= 0) {
      starT += CharUnits(t, n, starT);
      ti = starT;
      pi = starP + 1;
    } else {
      return false;
    }
  }
  while (pi < m && p[pi] == u'*') ++pi;
  return pi == m;
}

int TString::GetNthToken(int n, const TString& delimiters, TString* token) const {
  if (n < 0) {
    LogLine(514, u"TString::GetNthToken: bad token number %~d, %E", n, kErrBadParameter);
    return kErrBadParameter;
  }
  int start = 0;
  for (int k = 0; k < n; ++k) {
    int next = FindSet(delimiters, start);
    if (next < 0) {
      LogLine(519, u"TString::GetNthToken: no token %~d, %E", n, kErrNoMoreItems);
      return kErrNoMoreItems;
    }
    start = next + 1;
  }
  int end = FindSet(delimiters, start);
  if (end < 0) end = m_length;
  if (token != nullptr) token->Assign(m_data + start, end - start);
  return 0;
}

uint32_t TString::Hash() const {
  uint32_t h = 2166136261u;
  for (int i = 0; i < m_length; ++i) {
    h = (h ^ (m_data[i] & 0xFFu)) * 16777619u;
    h = (h ^ (m_data[i] >> 8)) * 16777619u;
  }
  return h;
}
