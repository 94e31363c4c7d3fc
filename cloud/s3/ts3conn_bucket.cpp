// Bucket creation, versioning, object lock and Alibaba's retention policy.
#include "cloud/cloud_domains.h"
#include "cloud/s3/s3_client.h"
#include "cloud/s3/s3_encode.h"
#include "cloud/s3/ts3conn.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "platform/xml.h"

namespace {

constexpr char kDocumentNamespace[] = "http://s3.amazonaws.com/doc/2006-03-01/";

bool HostHas(const TCloudOptions& options, const char16_t* domain) {
  return options.GetHost().FindSubstring(TString(domain), 0, true) >= 0;
}

S3RequestSpec WithBody(const char* method, const std::string& body, S3Pairs query) {
  S3RequestSpec request;
  request.method = method;
  request.query = std::move(query);
  request.body = reinterpret_cast<const uint8_t*>(body.data());
  request.bodySize = body.size();
  request.contentMd5 = true;
  return request;
}

}  // namespace

uint32_t TS3Conn::AlibabaDefaultRetention() {
  return static_cast<uint32_t>(ReadCloudSetting(u"alibaba_default_retention", 1, kS3MaxWormDays, 0));
}

bool TS3Conn::RetentionPerObject() const {
  return !HostHas(m_options, kGoogleApisDomain) && !HostHas(m_options, kAlibabaOssDomain);
}

TString TS3Conn::CreateBucket(const TString& region, bool objectLock, uint32_t retentionDays) {
  std::string where = TStringAsString(region);
  std::string body;
  // The default region takes no configuration: naming it is refused.
  if (!where.empty() && where != "us-east-1") {
    body = "<CreateBucketConfiguration><LocationConstraint>" + S3XmlEscape(where) +
           "</LocationConstraint></CreateBucketConfiguration>";
  }
  S3RequestSpec request = WithBody("PUT", body, {});
  request.contentMd5 = !body.empty();
  bool google = HostHas(m_options, kGoogleStorageHost);
  bool alibaba = HostHas(m_options, kAlibabaOssDomain);
  // Alibaba locks a bucket by a retention policy of its own (WORM), after.
  if (objectLock && !google && !alibaba) request.headers.emplace_back("x-amz-bucket-object-lock-enabled", "true");
  if (google && !m_options.GetProject().IsEmpty()) {
    request.headers.emplace_back("x-goog-project-id", TStringAsString(m_options.GetProject()));
  }
  if (google && retentionDays > 0) {
    request.headers.emplace_back("x-goog-bucket-retention-period", std::to_string(uint64_t{retentionDays} * 86400));
  }
  S3AnswerSpec answer;
  Send(request, TString(), u"TS3Conn::CreateBucket", &answer);
  if (answer.code != 0) {
    if (!answer.error.name.empty()) return TStringFromUTF8(answer.error.name);
    return TString(answer.status == 0 ? u"NetworkError" : u"HttpError");
  }
  uint32_t days = retentionDays > 0 ? retentionDays : AlibabaDefaultRetention();
  if (objectLock && alibaba && days > 0) {
    std::string wormId;
    int code = InitiateWorm(days, &wormId);
    if (code == 0) code = CompleteWorm(wormId);
    if (code != 0) return TString(u"WormFailed");
  }
  return TString();
}

int TS3Conn::put_ObjectLock(const TString& name, const TDate& retainUntil) {
  if (retainUntil.IsDefault()) {
    LogLineChecked(514, u"TS3Conn::put_ObjectLock: Error: default retention date");
    return kErrBadParameter;
  }
  if (!RetentionPerObject()) {
    TString host = m_options.GetHost();
    LogLineChecked(514, u"TS3Conn::put_ObjectLock: %s does not support per-object retention at this time", &host);
    return kErrNotSupported;
  }
  TDate utc = retainUntil;
  utc.FloatingToAbs();
  std::string body = std::string("<Retention xmlns=\"") + kDocumentNamespace +
                     "\"><Mode>COMPLIANCE</Mode><RetainUntilDate>" +
                     TStringAsString(utc.ToShortDelimitedISOString()) + "</RetainUntilDate></Retention>";
  S3RequestSpec request = WithBody("PUT", body, {{"retention", ""}});
  S3AnswerSpec answer;
  Send(request, name, u"TS3Conn::put_ObjectLock", &answer);
  return answer.code;
}

int TS3Conn::get_BucketVersioning(TString* status) {
  S3RequestSpec request;
  request.query = {{"versioning", ""}};
  S3AnswerSpec answer;
  Send(request, TString(), u"TS3Conn::get_BucketVersioning", &answer);
  if (answer.code != 0) return answer.code;
  platform::XmlElementSpec root;
  int code = S3ReadResult(answer, "VersioningConfiguration", u"TS3Conn::get_BucketVersioning", TString(), &root);
  if (code != 0) return code;
  *status = TStringFromUTF8(root.ChildText("Status"));
  return 0;
}

int TS3Conn::put_BucketVersioning(bool enabled) {
  std::string body = std::string("<VersioningConfiguration xmlns=\"") + kDocumentNamespace + "\"><Status>" +
                     (enabled ? "Enabled" : "Suspended") + "</Status></VersioningConfiguration>";
  S3RequestSpec request = WithBody("PUT", body, {{"versioning", ""}});
  S3AnswerSpec answer;
  Send(request, TString(), u"TS3Conn::put_BucketVersioning", &answer);
  return answer.code;
}

int TS3Conn::InitiateWorm(uint32_t days, std::string* wormId) {
  std::string body = "<InitiateWormConfiguration><RetentionPeriodInDays>" + std::to_string(days) +
                     "</RetentionPeriodInDays></InitiateWormConfiguration>";
  S3RequestSpec request = WithBody("POST", body, {{"worm", ""}});
  S3AnswerSpec answer;
  Send(request, TString(), u"TS3Conn::InitiateWorm", &answer);
  if (answer.code != 0) return answer.code;
  *wormId = S3HeaderValue(answer.headers, "x-oss-worm-id");
  if (wormId->empty()) {
    LogLineChecked(514, u"TS3Conn::InitiateWorm: no x-oss-worm-id in the answer, %E", kErrInvalidData);
    return kErrInvalidData;
  }
  return 0;
}

int TS3Conn::CompleteWorm(const std::string& wormId) {
  S3RequestSpec request = WithBody("POST", std::string(), {{"wormId", wormId}});
  request.contentMd5 = false;
  S3AnswerSpec answer;
  Send(request, TString(), u"TS3Conn::CompleteWorm", &answer);
  return answer.code;
}

int TS3Conn::GetWormDays(uint32_t* days) {
  S3RequestSpec request;
  request.query = {{"worm", ""}};
  S3AnswerSpec answer;
  Send(request, TString(), u"TS3Conn::GetWormDays", &answer);
  if (answer.code != 0) return answer.code;
  platform::XmlElementSpec root;
  int code = S3ReadResult(answer, "WormConfiguration", u"TS3Conn::GetWormDays", TString(), &root);
  if (code != 0) return code;
  unsigned value = 0;
  if (TStringFromUTF8(root.ChildText("RetentionPeriodInDays")).SScanf(u"%u", &value) != 1) {
    LogLineChecked(514, u"TS3Conn::GetWormDays: no RetentionPeriodInDays in the answer, %E", kErrInvalidData);
    return kErrInvalidData;
  }
  *days = value;
  return 0;
}
