#include "cloud/cloud_metadata.h"

#include <string_view>

#include "cloud/cloud_domains.h"
#include "time/tinterval.h"

namespace {

constexpr const char* kDefaultKeyNames[kCloudMetaKeyCount] = {
    "x-amz-meta-modified", "x-amz-meta-created", "x-amz-meta-replicated", "x-amz-object-lock-retain-until-date",
    "Last-Modified"};
// A replication stamped this close before the service's own time belongs
// to the same write.
constexpr int kReplicationSlackSeconds = 20;
constexpr int kISOYearDigits = 4;
constexpr std::string_view kHeaderBlanks = " \t\r";

char FoldAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (FoldAscii(a[i]) != FoldAscii(b[i])) return false;
  }
  return true;
}

// HTTP's token characters, of which a header name is made.
bool IsNameChar(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view Trim(std::string_view text) {
  size_t start = text.find_first_not_of(kHeaderBlanks);
  if (start == std::string_view::npos) return {};
  size_t end = text.find_last_not_of(kHeaderBlanks);
  return text.substr(start, end - start + 1);
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// ISO text when it opens with a four-digit year, else an HTTP date; only
// the reader that fits is asked, so a good date never leaves a log line.
TDate ReadStoredDate(const std::string& value) {
  TDate date;
  std::string_view text = Trim(value);
  if (text.empty()) return date;
  bool iso = text.size() >= kISOYearDigits;
  for (int i = 0; iso && i < kISOYearDigits; ++i) iso = IsDigit(text[i]);
  TString wide = TStringFromUTF8(std::string(text));
  if (iso) {
    date.FromISOString(wide);
  } else {
    date.FromRFCString(wide);
  }
  return date;
}

}  // namespace

bool CloudHeaderNameLess::operator()(const std::string& a, const std::string& b) const {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; ++i) {
    auto x = static_cast<unsigned char>(FoldAscii(a[i]));
    auto y = static_cast<unsigned char>(FoldAscii(b[i]));
    if (x != y) return x < y;
  }
  return a.size() < b.size();
}

TCloudMetaData::TCloudMetaData() {
  for (int i = 0; i < kCloudMetaKeyCount; ++i) m_keys[i] = kDefaultKeyNames[i];
}

void TCloudMetaData::Reset() { m_headers.clear(); }

void TCloudMetaData::SetKeys(const std::string& created, const std::string& modified,
                             const std::string& replicated) {
  m_keys[eCloudMetaCreated] = created;
  m_keys[eCloudMetaModified] = modified;
  m_keys[eCloudMetaReplicated] = replicated;
}

std::string TCloudMetaData::GetKey(eCloudMetaKey key) const {
  if (key < 0 || key >= kCloudMetaKeyCount) return {};
  return m_keys[key];
}

std::string TCloudMetaData::GetHeader(const std::string& name) const {
  auto it = m_headers.find(name);
  return it == m_headers.end() ? std::string() : it->second;
}

std::string TCloudMetaData::GetValue(eCloudMetaKey key) const {
  if (key < 0 || key >= kCloudMetaKeyCount) return {};
  return GetHeader(m_keys[key]);
}

TDate TCloudMetaData::GetValueTDate(eCloudMetaKey key) const { return ReadStoredDate(GetValue(key)); }

void TCloudMetaData::SetStringValue(eCloudMetaKey key, const std::string& value) {
  if (key < 0 || key >= kCloudMetaKeyCount) return;
  m_headers[m_keys[key]] = value;
}

std::string CloudGmtText(const TDate& date) {
  TDate gmt(date);
  gmt.FloatingToAbs();
  if (!gmt.IsDefault()) gmt.SetGMTOffset(0);
  return TStringAsString(gmt.ToISOString());
}

void TCloudMetaData::SetDate(eCloudMetaKey key, const TDate& date) { SetStringValue(key, CloudGmtText(date)); }

void TCloudMetaData::SetDateValue(eCloudMetaKey key, const uint64_t* fileTime) {
  TDate date;
  date.FromFileTime(fileTime);
  SetDate(key, date);
}

void TCloudMetaData::SetFromHeader(const std::string& headerText) {
  m_headers.clear();
  if (headerText.empty()) return;

  std::string name;
  std::string value;
  bool open = false;  // a header whose folded lines may still follow
  bool seenHeader = false;
  auto commit = [&]() {
    if (!open) return;
    open = false;
    if (SameName(name, m_keys[eCloudMetaLastModified])) {
      name = m_keys[eCloudMetaLastModified];
    } else if (SameName(name, m_keys[eCloudMetaRetainUntil])) {
      name = m_keys[eCloudMetaRetainUntil];
    }
    // The last of repeated names wins, spelling and all.
    m_headers.erase(name);
    m_headers.emplace(std::move(name), std::move(value));
  };

  std::string_view text(headerText);
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);

    if (line.empty()) {
      if (seenHeader) break;
      continue;
    }
    if (IsBlank(line.front())) {
      if (!open) continue;
      std::string_view more = Trim(line);
      if (!more.empty() && !value.empty()) value += ' ';
      value += more;
      continue;
    }
    commit();
    size_t nameLength = 0;
    while (nameLength < line.size() && IsNameChar(line[nameLength])) ++nameLength;
    if (nameLength == 0 || nameLength == line.size() || line[nameLength] != ':') continue;  // status line, junk
    name.assign(line.substr(0, nameLength));
    value.assign(Trim(line.substr(nameLength + 1)));
    open = true;
    seenHeader = true;
  }
  commit();
  ValidateMetaDataDates(nullptr);
}

void TCloudMetaData::ValidateMetaDataDates(const TDate* modified) {
  std::string replicated = GetValue(eCloudMetaReplicated);
  if (replicated.empty()) return;

  TDate reference;
  if (modified != nullptr) {
    reference = *modified;
  } else {
    std::string serviceTime = GetValue(eCloudMetaLastModified);
    std::string_view trimmed = Trim(serviceTime);
    if (!trimmed.empty()) reference.FromRFCString(TStringFromUTF8(std::string(trimmed)));
  }
  if (reference.IsDefault()) return;

  TDate stamped = ReadStoredDate(replicated);
  stamped += TInterval(0, 0, 0, kReplicationSlackSeconds, 0);
  if (!(stamped < reference)) return;
  SetDate(eCloudMetaCreated, reference);
  SetDate(eCloudMetaModified, reference);
  SetDate(eCloudMetaReplicated, reference);
}

bool CanUseCloudMetaData(const TString& host) {
  static constexpr const char16_t* kReliable[] = {kAmazonS3Domain, kAzureBlobDomain, kAzureUsGovBlobDomain,
                                                  kBackblazeB2Domain, kGoogleApisDomain};
  for (const char16_t* domain : kReliable) {
    if (host.FindSubstring(domain, 1, true) >= 1) return true;
  }
  return false;
}
