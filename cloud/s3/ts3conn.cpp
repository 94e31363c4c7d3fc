#include "cloud/s3/ts3conn.h"

#include <mutex>

#include "cloud/cloud_domains.h"
#include "cloud/s3/s3_client.h"
#include "cloud/s3/s3_encode.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/hooks.h"
#include "platform/xml.h"

namespace {

constexpr char kDefaultRegion[] = "us-east-1";

std::string Setting(const char16_t* key) {
  TString value;
  if (GetIniString(u"Options", key, &value) != 0) return std::string();
  value.StripEnds();
  return TStringAsString(value);
}

}  // namespace

bool TS3Conn::PreferOldS3ApiValue(const std::string& value) { return !value.empty() && value[0] == '1'; }

bool TS3Conn::PreferOldS3Api() {
  static std::once_flag once;
  static bool prefer = false;
  std::call_once(once, [] { prefer = PreferOldS3ApiValue(Setting(u"PreferOldS3Api")); });
  return prefer;
}

TS3Conn::TS3Conn(const TCloudOptions& options) : TCloudConn(options) {}

TS3Conn::~TS3Conn() = default;

void TS3Conn::ReadSettings() {
  ReadMaxTransferMB();
  ReadUploadThreads();
  ReadDownloadThreads();
  ReadDownloadPartSizeTier();
  PreferOldS3Api();
  m_caFile = Setting(u"CloudCAFile");
  m_connectSeconds = static_cast<uint32_t>(ReadCloudSetting(u"CloudConnectSeconds", 1, 300, 30));
  m_stallSeconds = static_cast<uint32_t>(ReadCloudSetting(u"CloudStallSeconds", 1, 600, 60));
  TString product;
  m_options.GetRegion(&product);
  m_region = TStringAsString(product);
  if (m_region.empty()) m_region = S3RegionOfHost(TStringAsString(m_options.GetHost()));
  if (m_region.empty()) m_region = Setting(u"CloudRegion");
  if (m_region.empty()) m_region = kDefaultRegion;
  m_client.reset();
}

const std::string& TS3Conn::Region() const { return m_client ? m_client->Region() : m_region; }

std::string TS3Conn::Key(const TString& name) const {
  return TStringAsString(m_options.GetPath()) + TStringAsString(name);
}

void TS3Conn::Send(S3RequestSpec& request, const TString& name, const char16_t* what, S3AnswerSpec* answer) {
  if (!m_client) {
    if (m_region.empty()) ReadSettings();
    platform::HttpSettingsSpec http;
    http.caFile = m_caFile;
    http.connectTimeoutMs = m_connectSeconds * 1000;
    http.stallSeconds = m_stallSeconds;
    m_client = std::make_unique<TS3Client>(m_options, m_region, http);
  }
  if (request.key.empty() && !name.IsEmpty()) request.key = Key(name);
  m_client->Send(request, what, answer);
  m_region = m_client->Region();
}

int TS3Conn::NewPartConn(std::shared_ptr<TCloudConn>* out) {
  auto conn = std::make_shared<TS3Conn>(m_options);
  conn->CopySettings(*this);
  conn->m_caFile = m_caFile;
  conn->m_connectSeconds = m_connectSeconds;
  conn->m_stallSeconds = m_stallSeconds;
  conn->m_region = Region();
  *out = conn;
  return 0;
}

int TS3Conn::verifyInRetry() {
  S3RequestSpec request;
  request.query = {{"max-keys", "1"}, {"prefix", TStringAsString(m_options.GetPath())}};
  if (!PreferOldS3Api()) request.query.emplace_back("list-type", "2");
  S3AnswerSpec answer;
  Send(request, TString(), u"TS3Conn::Verify", &answer);
  return answer.code;
}

int TS3Conn::Verify() { return verifyInRetry(); }

int TS3Conn::ObjectExists(const TString& name, TCloudMetaData* meta, bool quiet) {
  S3RequestSpec request;
  request.method = "HEAD";
  request.quietMissing = quiet;
  S3AnswerSpec answer;
  Send(request, name, u"TS3Conn::ObjectExists", &answer);
  if (answer.code != 0) return answer.code;
  if (meta != nullptr) meta->SetFromHeader(answer.headers);
  return 0;
}

int TS3Conn::DeleteCloudObject(const TString& name) {
  S3RequestSpec request;
  request.method = "DELETE";
  S3AnswerSpec answer;
  Send(request, name, u"TS3Conn::DeleteCloudObject", &answer);
  return answer.code;
}

int TS3Conn::UploadBytes(const CloudUploadSpec& put, const uint8_t* data, size_t size, std::string* etag) {
  S3RequestSpec request;
  request.method = "PUT";
  request.body = data;
  request.bodySize = size;
  request.contentMd5 = true;
  request.tap = put.tap;
  if (!put.uploadId.empty()) {
    request.query = {{"partNumber", std::to_string(put.partNumber)}, {"uploadId", put.uploadId}};
  } else {
    S3MetaHeaders(put.meta, &request.headers);
  }
  S3AnswerSpec answer;
  Send(request, put.name, u"TS3Conn::UploadBytes", &answer);
  if (answer.code != 0) return answer.code;
  *etag = S3HeaderValue(answer.headers, "ETag");
  if (etag->empty()) {
    LogLineChecked(514, u"TS3Conn::UploadBytes: %s: no ETag in the answer, %E", &put.name, kErrInvalidData);
    return kErrInvalidData;
  }
  return 0;
}

int TS3Conn::DownloadBytes(const CloudDownloadSpec& fetch, uint8_t* buffer, uint32_t length, uint32_t* received) {
  *received = 0;
  if (length == 0) return 0;
  S3RequestSpec request;
  request.unsignedPayload = true;
  uint64_t last = fetch.offset + length - 1;
  request.headers.emplace_back("Range", TStringAsString(Format(u"bytes=%~lu-%~lu", fetch.offset, last)));
  if (!fetch.etag.empty()) request.headers.emplace_back("If-Match", fetch.etag);
  request.sink = buffer;
  request.sinkSize = length;
  request.tap = fetch.tap;
  S3AnswerSpec answer;
  Send(request, fetch.name, u"TS3Conn::DownloadBytes", &answer);
  *received = answer.received;
  return answer.code;
}
