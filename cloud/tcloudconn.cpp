#include "cloud/tcloudconn.h"

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/hooks.h"

namespace {

constexpr char16_t kOptionsSection[] = u"Options";

}  // namespace

int ReadCloudSetting(const char16_t* key, int low, int high, int fallback, bool* found) {
  if (found != nullptr) *found = false;
  TString text;
  if (GetIniString(kOptionsSection, key, &text) != 0) return fallback;
  int value = 0;
  if (text.SScanf(u"%d", &value) != 1 || value < low || value > high) return fallback;
  if (found != nullptr) *found = true;
  return value;
}

TCloudConn::TCloudConn(const TCloudOptions& options) : m_options(options) {}

TCloudConn::~TCloudConn() = default;

void TCloudConn::ReadMaxTransferMB() {
  bool found = false;
  int mb = ReadCloudSetting(u"CloudMaxTransferMB", 2, 64, 0, &found);
  if (found) m_partSize = static_cast<uint32_t>(mb) * kCloudMiB;
}

void TCloudConn::ReadUploadThreads() {
  m_uploadThreads = static_cast<uint32_t>(ReadCloudSetting(u"CloudUploadThreads", 1, 16, kCloudDefaultUploadThreads));
}

void TCloudConn::ReadDownloadThreads() {
  m_downloadThreads =
      static_cast<uint32_t>(ReadCloudSetting(u"CloudDownloadThreads", 1, 16, kCloudDefaultDownloadThreads));
}

void TCloudConn::ReadDownloadPartSizeTier() {
  m_downloadTier =
      static_cast<uint32_t>(ReadCloudSetting(u"CloudDownloadPartSizeTier", 1, 5, kCloudDefaultDownloadTier));
}

uint32_t TCloudConn::DownloadPartSize() const {
  uint32_t tier = m_downloadTier >= 1 && m_downloadTier <= 5 ? m_downloadTier : kCloudDefaultDownloadTier;
  return (4 * kCloudMiB) << (tier - 1);
}

void TCloudConn::CopySettings(const TCloudConn& other) {
  m_partSize = other.m_partSize;
  m_uploadThreads = other.m_uploadThreads;
  m_downloadThreads = other.m_downloadThreads;
  m_downloadTier = other.m_downloadTier;
}

int TCloudConn::NotSupported(const char16_t* operation) const {
  TString name(Name());
  TString op(operation);
  LogLineChecked(514, u"%s::%s: not supported, %E", &name, &op, kErrNotSupported);
  return kErrNotSupported;
}

TString TCloudConn::CreateBucket(const TString&, bool, uint32_t) {
  NotSupported(u"CreateBucket");
  return TString(u"NotImplemented");
}

int TCloudConn::Verify() { return NotSupported(u"Verify"); }

int TCloudConn::GetFoldersAndFiles(const TString&, std::vector<TCloudObject>*, std::vector<TCloudObject>*, bool,
                                   ContinuationMarker*, uint32_t) {
  return NotSupported(u"GetFoldersAndFiles");
}

int TCloudConn::GetAllObjectsInPath(const TString&, std::vector<TCloudObject>&, bool, ContinuationMarker*) {
  return NotSupported(u"GetAllObjectsInPath");
}

int TCloudConn::ObjectExists(const TString&, TCloudMetaData*, bool) { return NotSupported(u"ObjectExists"); }

int TCloudConn::CopyObject(const TString&, const TString&, uint64_t, uint64_t, uint64_t, const TDate*,
                           const TDate*) {
  return NotSupported(u"CopyObject");
}

int TCloudConn::Erase(const TString&) { return NotSupported(u"Erase"); }

int TCloudConn::DeleteCloudObject(const TString&) { return NotSupported(u"DeleteCloudObject"); }

int TCloudConn::AcquireAccessToken(const TString&, const TString&, const TString&, TString*, const TString&) {
  return NotSupported(u"AcquireAccessToken");
}

int TCloudConn::NewPartConn(std::shared_ptr<TCloudConn>*) { return NotSupported(u"NewPartConn"); }

int TCloudConn::StartMultiPartUpload(const TString&, const TCloudMetaData*, std::string*) {
  return NotSupported(u"StartMultiPartUpload");
}

int TCloudConn::FinishMultiPartUpload(const TString&, const std::string&, const std::vector<CloudPartSpec>&) {
  return NotSupported(u"FinishMultiPartUpload");
}

int TCloudConn::AbortMultiPartUpload(const TString&, const std::string&) {
  return NotSupported(u"AbortMultiPartUpload");
}

int TCloudConn::DownloadBytes(const CloudDownloadSpec&, uint8_t*, uint32_t, uint32_t*) {
  return NotSupported(u"DownloadBytes");
}

int TCloudConn::UploadBytes(const CloudUploadSpec&, const uint8_t*, size_t, std::string*) {
  return NotSupported(u"UploadBytes");
}

int TCloudConn::put_ObjectLock(const TString&, const TDate&) { return NotSupported(u"put_ObjectLock"); }
