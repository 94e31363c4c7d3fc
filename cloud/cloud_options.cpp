#include "cloud/cloud_options.h"

#include "cloud/azure/azure_location.h"
#include "cloud/cloud_domains.h"

namespace {

constexpr char16_t kLocationBlanks[] = u" \t\n";
constexpr char16_t kPathDelimiter = u'/';
// "BUCKET.REGION.digitaloceanspaces.com": the bucket ends at the third dot
// from the end, which keeps dotted bucket names whole.
constexpr int kSpacesDotsBack = 3;
constexpr char16_t kRegionS3Prefix[] = u"s3.";
constexpr int kRegionS3PrefixLength = 3;

// One kind of blank at a time, until none is left at either end.
void TrimLocation(TString* text) {
  int before;
  do {
    before = text->GetLength();
    for (const char16_t* p = kLocationBlanks; *p != 0; ++p) text->StripEnds(TString(*p));
  } while (text->GetLength() != before);
}

// Start of the last case-blind occurrence of `marker`, each search going on
// from the hit before (so overlapping hits count); -1 when there is none.
int FindLast(const TString& text, const TString& marker) {
  int last = -1;
  for (int hit = text.FindSubstring(marker, 0, true); hit >= 0; hit = text.FindSubstring(marker, hit + 1, true)) {
    last = hit;
  }
  return last;
}

int SpacesBoundary(const TString& host) {
  int dots = 0;
  for (int i = host.GetLength() - 1; i > 0; --i) {
    if (host.GetAt(i) == u'.' && ++dots == kSpacesDotsBack) return i;
  }
  return -1;
}

// Where a virtual-host name splits into bucket (in front) and service host
// (behind, less the separating dot); -1 or 0 when the name is not one. The
// first service whose name shows decides.
int VirtualHostSplit(const TString& host) {
  if (host.FindSubstring(kS3VirtualHostMarker, 0, true) >= 0) return FindLast(host, kS3VirtualHostMarker);
  if (host.FindSubstring(kGoogleStorageHost, 0, true) >= 0) {
    // The dot in front of Google's host is where a bucket ends.
    TString marker(u".");
    marker += kGoogleStorageHost;
    return FindLast(host, marker);
  }
  if (host.FindSubstring(kAlibabaOssDomain, 0, true) >= 0) return FindLast(host, kAlibabaOssMarker);
  if (host.FindSubstring(kDigitalOceanSpacesDomain, 0, true) >= 0) return SpacesBoundary(host);
  return -1;
}

}  // namespace

TCloudOptions::TCloudOptions() { Reset(); }

TCloudOptions::TCloudOptions(const TCloudOptions& other)
    : TObject(),
      m_uri(other.m_uri),
      m_host(other.m_host),
      m_bucket(other.m_bucket),
      m_path(other.m_path),
      m_accessKey(other.m_accessKey),
      m_secretKey(other.m_secretKey),
      m_project(other.m_project),
      m_flags(other.m_flags),
      m_secondWord(other.m_secondWord) {}

TCloudOptions& TCloudOptions::operator=(const TCloudOptions& other) {
  if (this == &other) return *this;
  m_uri = other.m_uri;
  m_host = other.m_host;
  m_bucket = other.m_bucket;
  m_path = other.m_path;
  m_accessKey = other.m_accessKey;
  SetSecretKey(other.m_secretKey);
  m_project = other.m_project;
  m_flags = other.m_flags;
  m_secondWord = other.m_secondWord;
  return *this;
}

TCloudOptions::~TCloudOptions() { WipeSecret(); }

// Zeroes the units in place before letting them go, so the old key does not
// linger in a block that is reused or freed.
void TCloudOptions::WipeSecret() {
  m_secretKey.Fill(u'\0', m_secretKey.GetLength());
  m_secretKey.Clear();
}

void TCloudOptions::Reset() {
  m_host.Clear();
  m_bucket.Clear();
  m_path.Clear();
  m_accessKey.Clear();
  WipeSecret();
  m_project.Clear();
  m_flags = kCloudDefaultFlags;
  m_secondWord = 0;
}

bool TCloudOptions::operator==(const TCloudOptions& other) const {
  return m_host == other.m_host && m_bucket == other.m_bucket && m_path == other.m_path &&
         m_accessKey == other.m_accessKey && m_secretKey == other.m_secretKey && m_project == other.m_project &&
         m_flags == other.m_flags && m_secondWord == other.m_secondWord;
}

void TCloudOptions::SetPath(const TString& path) {
  m_path = path;
  if (!m_path.IsEmpty() && m_path.GetAt(m_path.GetLength() - 1) != kPathDelimiter) m_path.AddLastChar(kPathDelimiter);
}

void TCloudOptions::SetSecretKey(const TString& key) {
  if (&key == &m_secretKey) return;
  WipeSecret();
  m_secretKey = key;
}

void TCloudOptions::SetFromURI(const TString& uri, unsigned flags, bool option) {
  m_flags = (m_flags & ~kCloudURIFlagMask) | (flags & kCloudURIFlagMask);
  TString text(uri);
  TrimLocation(&text);
  if ((m_flags & kCloudAzure) != 0) ParseAzureLocation(&text, option, &m_host, &m_bucket, &m_path);

  int slash = text.FindChar(kPathDelimiter);
  TString first = slash < 0 ? text : text.Left(slash);
  int split = (m_flags & kCloudVirtualHostAware) != 0 ? VirtualHostSplit(first) : -1;
  if (split > 0) {
    m_flags |= kCloudVirtualHostURI;
    m_bucket = first.Left(split);
    m_host = first.Mid(split + 1);
    SetPath(slash < 0 ? TString() : text.Mid(slash + 1));
  } else {
    m_flags &= ~kCloudVirtualHostURI;
    m_host = first;
    int second = slash < 0 ? -1 : text.FindChar(kPathDelimiter, slash + 1);
    m_bucket = slash < 0 ? TString() : text.Mid(slash + 1, second < 0 ? -1 : second - slash - 1);
    SetPath(second < 0 ? TString() : text.Mid(second + 1));
  }
  GetURI(&m_uri);
}

void TCloudOptions::GetURI(TString* out) const {
  if (m_host.IsEmpty()) return;
  TString text;
  if (UseVirtualHostBasedURI()) {
    text = m_bucket;
    text += u'.';
    text += m_host;
  } else {
    text = m_host;
    text += kPathDelimiter;
    text += m_bucket;
  }
  text += kPathDelimiter;
  text += m_path;
  if (text.GetAt(text.GetLength() - 1) == kPathDelimiter) text = text.Left(text.GetLength() - 1);
  *out = text;
}

void TCloudOptions::GetRegion(TString* out) const {
  out->Clear();
  int at = m_host.FindSubstring(kProductCloudDomain, 1, true);
  if (at < 1) return;
  TString front = m_host.Left(at);
  if (front.GetAt(at - 1) == u'.') front = front.Left(at - 1);
  // The first three characters go wherever "s3." stands: the product's
  // hosts only ever start with it.
  if (front.FindSubstring(kRegionS3Prefix, 0, true) >= 0) front = front.Mid(kRegionS3PrefixLength);
  *out = front;
}

void TCloudOptions::SetAccessKey(const TString& given) {
  TString key(given);  // may be one of our own fields
  m_project.Clear();
  int slash = key.FindChar(kPathDelimiter);
  if (m_host.FindSubstring(kGoogleStorageHost, 0, true) < 0 || slash < 1) {
    m_accessKey = key;
    return;
  }
  m_project = key.Left(slash);
  m_accessKey = key.Mid(slash + 1);
}
