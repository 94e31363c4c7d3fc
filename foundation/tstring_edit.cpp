// TString editing and path helpers.
#include <cstdio>
#include <utility>

#include "foundation/log.h"
#include "foundation/tstring.h"
#include "foundation/tstring_internal.h"
#include "foundation/tstring_params.h"
#include "platform/path.h"

namespace {

bool IsDelimiter(char16_t u) { return u == u'/' || u == u'\\'; }

}  // namespace

int TString::ReplaceSubstring(const TString& from, const TString& to, bool all) {
  if (from.IsEmpty()) {
    LogLine(514, u"TString::ReplaceSubstring: nothing to replace, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  int at = FindSubstring(from);
  if (at < 0) return 0;
  TString out;
  int done = 0;
  int start = 0;
  while (at >= 0) {
    out.Append(m_data + start, at - start);
    out.Append(to.m_data, to.m_length);
    start = at + from.m_length;
    ++done;
    if (!all) break;
    at = FindSubstring(from, start);
  }
  out.Append(m_data + start, m_length - start);
  ByteOrder order = m_byteOrder;
  *this = std::move(out);
  m_byteOrder = order;
  return done;
}

int TString::ReplaceSet(const TString& set, char16_t with) {
  int done = 0;
  for (int i = 0; i < m_length; ++i) {
    if (set.FindChar(m_data[i]) >= 0) {
      m_data[i] = with;
      ++done;
    }
  }
  if (done > 0) DropParameters();
  return done;
}

void TString::StripEnds(const TString& set) {
  int start = 0;
  int end = m_length;
  while (start < end && set.FindChar(m_data[start]) >= 0) ++start;
  while (end > start && set.FindChar(m_data[end - 1]) >= 0) --end;
  if (start == 0 && end == m_length) return;
  KeepPart(start, end - start);
}

void TString::Strip(const TString& set) {
  int kept = 0;
  for (int i = 0; i < m_length; ++i) {
    if (set.FindChar(m_data[i]) < 0) m_data[kept++] = m_data[i];
  }
  if (kept == m_length) return;
  DropParameters();
  SetLength(kept);
}

void TString::StripHotkey() {
  int kept = 0;
  for (int i = 0; i < m_length; ++i) {
    if (m_data[i] == u'&') {
      if (i + 1 >= m_length) break;  // a final lone '&'
      ++i;                           // keep what follows, '&' included
    }
    m_data[kept++] = m_data[i];
  }
  if (kept == m_length) return;
  DropParameters();
  SetLength(kept);
}

void TString::ConvertNewlines(Newline style) {
  static const char16_t kCrLf[] = u"\r\n";
  const char16_t* nl = style == kNewlineCrLf ? kCrLf : (style == kNewlineCr ? kCrLf : kCrLf + 1);
  int nlLength = style == kNewlineCrLf ? 2 : 1;
  TString out;
  out.Reserve(m_length);
  for (int i = 0; i < m_length; ++i) {
    char16_t u = m_data[i];
    if (u == u'\r' || u == u'\n') {
      if (u == u'\r' && i + 1 < m_length && m_data[i + 1] == u'\n') ++i;
      out.Append(nl, nlLength);
    } else {
      out.Append(&u, 1);
    }
  }
  if (out.Compare(*this) == 0) return;
  ByteOrder order = m_byteOrder;
  *this = std::move(out);
  m_byteOrder = order;
}

int TString::Ellipsize(int width, EllipsisAt where) {
  if (width < 0) {
    LogLine(514, u"TString::Ellipsize: bad width %~d, %E", width, kErrBadParameter);
    return kErrBadParameter;
  }
  if (m_length <= width) return 0;
  using tstring_internal::IsHighSurrogate;
  using tstring_internal::IsLowSurrogate;
  // Head and tail lengths that never split a surrogate pair.
  auto head = [this](int n) { return n > 0 && IsHighSurrogate(m_data[n - 1]) && n < m_length &&
                                             IsLowSurrogate(m_data[n]) ? n - 1 : n; };
  auto tail = [this](int n) {
    int at = m_length - n;
    return n > 0 && at > 0 && IsLowSurrogate(m_data[at]) && IsHighSurrogate(m_data[at - 1]) ? n - 1 : n;
  };
  if (width < 4) {
    KeepPart(0, head(width));
    return 0;
  }
  int room = width - 3;
  int keepHead = 0;
  int keepTail = 0;
  if (where == kEllipsisStart) {
    keepTail = tail(room);
  } else if (where == kEllipsisEnd) {
    keepHead = head(room);
  } else {
    keepHead = head(room - room / 2);
    keepTail = tail(room - keepHead);
    // A pair kept whole on one side may leave the unit to the other.
    if (keepHead + keepTail < room) keepHead = head(room - keepTail);
  }
  TString out(m_data, keepHead);
  out.Append(u"...", 3);
  out.Append(m_data + m_length - keepTail, keepTail);
  ByteOrder order = m_byteOrder;
  *this = std::move(out);
  m_byteOrder = order;
  return 0;
}

void TString::FormatOrdinal(int64_t n) {
  uint64_t magnitude = n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n);
  const char* suffix = "th";
  if (magnitude % 100 < 11 || magnitude % 100 > 13) {
    switch (magnitude % 10) {
      case 1: suffix = "st"; break;
      case 2: suffix = "nd"; break;
      case 3: suffix = "rd"; break;
      default: break;
    }
  }
  char text[32];
  std::snprintf(text, sizeof text, "%s%llu%s", n < 0 ? "-" : "", static_cast<unsigned long long>(magnitude), suffix);
  AssignAnsi(text);
}

void TString::ToUpper() {
  for (int i = 0; i < m_length; ++i) m_data[i] = tstring_internal::UpperUnit(m_data[i]);
  if (m_params != nullptr) m_params->DropFormat();
}

void TString::ToLower() {
  for (int i = 0; i < m_length; ++i) m_data[i] = tstring_internal::LowerUnit(m_data[i]);
  if (m_params != nullptr) m_params->DropFormat();
}

// ---- paths ------------------------------------------------------------------

void TString::AddPathDelimiter() {
  if (m_length == 0 || IsDelimiter(m_data[m_length - 1])) return;
  AddLastChar(platform::kPathDelimiter);
}

void TString::RemoveLastPathDelimiter() {
  if (m_length == 0 || !IsDelimiter(m_data[m_length - 1])) return;
  if (m_length == 1) return;                            // the root
  if (m_length == 3 && m_data[1] == u':') return;       // a drive's root
  RemoveLastChar();
}

int TString::RemoveVolumesMountPoint(const TString& mountPoint) {
  int n = mountPoint.m_length;
  while (n > 0 && IsDelimiter(mountPoint.m_data[n - 1])) --n;
  bool under = n <= m_length;
  for (int i = 0; under && i < n; ++i) {
    char16_t a = m_data[i];
    char16_t b = mountPoint.m_data[i];
    under = a == b || (IsDelimiter(a) && IsDelimiter(b));
  }
  if (under && n < m_length && !IsDelimiter(m_data[n])) under = false;
  if (!under) {
    LogLine(514, u"TString::RemoveVolumesMountPoint: %s is not under %s, %E", this, &mountPoint, kErrNotFound);
    return kErrNotFound;
  }
  if (n == m_length) {
    Assign(&platform::kPathDelimiter, 1);
    return 0;
  }
  KeepPart(n, m_length - n);
  return 0;
}

TString TString::GetLastSegmentOfPath() const {
  int end = m_length;
  if (end > 0 && IsDelimiter(m_data[end - 1])) --end;
  int start = end;
  while (start > 0 && !IsDelimiter(m_data[start - 1])) --start;
  return TString(m_data + start, end - start);
}

// ---- simple case mapping ----------------------------------------------------

namespace tstring_internal {

char16_t UpperUnit(char16_t u) {
  if (u < 0x80) return u >= u'a' && u <= u'z' ? static_cast<char16_t>(u - 32) : u;
  if (u < 0x100) {
    if (u == 0xB5) return 0x39C;  // micro sign: Greek capital mu
    if (u == 0xFF) return 0x178;
    if (u >= 0xE0 && u <= 0xFE && u != 0xF7) return static_cast<char16_t>(u - 32);
    return u;
  }
  if (u < 0x180) {
    if (u == 0x131) return u'I';
    if (u == 0x17F) return u'S';
    bool evenUpper = (u <= 0x137) || (u >= 0x14A && u <= 0x177);
    bool oddUpper = (u >= 0x139 && u <= 0x148) || (u >= 0x179 && u <= 0x17E);
    if (evenUpper && (u & 1)) return static_cast<char16_t>(u - 1);
    if (oddUpper && !(u & 1)) return static_cast<char16_t>(u - 1);
    return u;
  }
  if (u >= 0x3AC && u <= 0x3CE) {
    if (u == 0x3AC) return 0x386;
    if (u >= 0x3AD && u <= 0x3AF) return static_cast<char16_t>(u - 37);
    if (u == 0x3B0) return u;
    if (u == 0x3C2) return 0x3A3;
    if (u >= 0x3B1 && u <= 0x3CB) return static_cast<char16_t>(u - 32);
    if (u == 0x3CC) return 0x38C;
    return static_cast<char16_t>(u - 63);  // 0x3CD, 0x3CE
  }
  if (u >= 0x430 && u <= 0x44F) return static_cast<char16_t>(u - 32);
  if (u >= 0x450 && u <= 0x45F) return static_cast<char16_t>(u - 80);
  return u;
}

char16_t LowerUnit(char16_t u) {
  if (u < 0x80) return u >= u'A' && u <= u'Z' ? static_cast<char16_t>(u + 32) : u;
  if (u < 0x100) {
    if (u >= 0xC0 && u <= 0xDE && u != 0xD7) return static_cast<char16_t>(u + 32);
    return u;
  }
  if (u < 0x180) {
    if (u == 0x130) return u'i';
    if (u == 0x178) return 0xFF;
    bool evenUpper = (u <= 0x137) || (u >= 0x14A && u <= 0x177);
    bool oddUpper = (u >= 0x139 && u <= 0x148) || (u >= 0x179 && u <= 0x17E);
    if (evenUpper && !(u & 1)) return static_cast<char16_t>(u + 1);
    if (oddUpper && (u & 1)) return static_cast<char16_t>(u + 1);
    return u;
  }
  if (u >= 0x386 && u <= 0x3AB) {
    if (u == 0x386) return 0x3AC;
    if (u >= 0x388 && u <= 0x38A) return static_cast<char16_t>(u + 37);
    if (u == 0x38C) return 0x3CC;
    if (u == 0x38E || u == 0x38F) return static_cast<char16_t>(u + 63);
    if ((u >= 0x391 && u <= 0x3A1) || (u >= 0x3A3 && u <= 0x3AB)) return static_cast<char16_t>(u + 32);
    return u;
  }
  if (u >= 0x400 && u <= 0x40F) return static_cast<char16_t>(u + 80);
  if (u >= 0x410 && u <= 0x42F) return static_cast<char16_t>(u + 32);
  return u;
}

}  // namespace tstring_internal
