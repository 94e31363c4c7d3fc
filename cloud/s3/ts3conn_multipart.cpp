// Multipart uploads and copies.
#include "cloud/s3/s3_client.h"
#include "cloud/s3/s3_encode.h"
#include "cloud/s3/ts3conn.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "platform/xml.h"

int TS3Conn::Initiate(const TString& name, const S3Pairs& headers, const char16_t* what, std::string* uploadId) {
  S3RequestSpec request;
  request.method = "POST";
  request.query = {{"uploads", ""}};
  request.headers = headers;
  S3AnswerSpec answer;
  Send(request, name, what, &answer);
  if (answer.code != 0) return answer.code;
  platform::XmlElementSpec root;
  int code = S3ReadResult(answer, "InitiateMultipartUploadResult", what, name, &root);
  if (code != 0) return code;
  *uploadId = root.ChildText("UploadId");
  if (uploadId->empty()) {
    TString op(what);
    LogLineChecked(514, u"%s: %s: no UploadId, %E", &op, &name, kErrInvalidData);
    return kErrInvalidData;
  }
  return 0;
}

int TS3Conn::StartMultiPartUpload(const TString& name, const TCloudMetaData* meta, std::string* uploadId) {
  S3Pairs headers;
  S3MetaHeaders(meta, &headers);
  return Initiate(name, headers, u"TS3Conn::StartMultiPartUpload", uploadId);
}

int TS3Conn::FinishMultiPartUpload(const TString& name, const std::string& uploadId,
                                   const std::vector<CloudPartSpec>& parts) {
  std::string body = "<CompleteMultipartUpload>";
  for (const CloudPartSpec& part : parts) {
    body += "<Part><PartNumber>" + std::to_string(part.number) + "</PartNumber><ETag>" + S3XmlEscape(part.etag) +
            "</ETag></Part>";
  }
  body += "</CompleteMultipartUpload>";
  S3RequestSpec request;
  request.method = "POST";
  request.query = {{"uploadId", uploadId}};
  request.body = reinterpret_cast<const uint8_t*>(body.data());
  request.bodySize = body.size();
  S3AnswerSpec answer;
  Send(request, name, u"TS3Conn::FinishMultiPartUpload", &answer);
  if (answer.code != 0) return answer.code;
  platform::XmlElementSpec root;
  return S3ReadResult(answer, "CompleteMultipartUploadResult", u"TS3Conn::FinishMultiPartUpload", name, &root);
}

int TS3Conn::AbortMultiPartUpload(const TString& name, const std::string& uploadId) {
  S3RequestSpec request;
  request.method = "DELETE";
  request.query = {{"uploadId", uploadId}};
  S3AnswerSpec answer;
  Send(request, name, u"TS3Conn::AbortMultiPartUpload", &answer);
  return answer.code;
}

int TS3Conn::CopyObject(const TString& source, const TString& target, uint64_t size, uint64_t createdFileTime,
                        uint64_t modifiedFileTime, const TDate* replicated, const TDate* retainUntil) {
  std::string from(1, '/');
  from += TStringAsString(m_options.GetBucket());
  from += '/';
  from += Key(source);
  S3Pairs headers;
  TCloudMetaData meta;
  if (createdFileTime != 0) meta.SetDateValue(eCloudMetaCreated, &createdFileTime);
  if (modifiedFileTime != 0) meta.SetDateValue(eCloudMetaModified, &modifiedFileTime);
  if (replicated != nullptr && !replicated->IsDefault()) {
    meta.SetStringValue(eCloudMetaReplicated, CloudGmtText(*replicated));
  }
  S3MetaHeaders(&meta, &headers);
  headers.emplace_back("x-amz-metadata-directive", "REPLACE");
  if (retainUntil != nullptr && !retainUntil->IsDefault()) {
    TDate utc = *retainUntil;
    utc.FloatingToAbs();
    headers.emplace_back("x-amz-object-lock-mode", "COMPLIANCE");
    headers.emplace_back("x-amz-object-lock-retain-until-date", TStringAsString(utc.ToShortDelimitedISOString()));
  }
  if (size > kS3CopyPartSize) return CopyInParts(from, target, size, headers);
  S3RequestSpec request;
  request.method = "PUT";
  request.headers = headers;
  request.headers.emplace_back("x-amz-copy-source", S3UriEncode(from, true));
  S3AnswerSpec answer;
  Send(request, target, u"TS3Conn::CopyObject", &answer);
  if (answer.code != 0) return answer.code;
  platform::XmlElementSpec root;
  return S3ReadResult(answer, "CopyObjectResult", u"TS3Conn::CopyObject", target, &root);
}

int TS3Conn::CopyInParts(const std::string& source, const TString& target, uint64_t size, const S3Pairs& headers) {
  S3Pairs startHeaders;
  for (const auto& header : headers) {
    if (header.first != "x-amz-metadata-directive") startHeaders.push_back(header);
  }
  std::string uploadId;
  int code = Initiate(target, startHeaders, u"TS3Conn::CopyObject", &uploadId);
  if (code != 0) return code;
  S3AnswerSpec answer;
  platform::XmlElementSpec root;
  std::vector<CloudPartSpec> parts;
  for (uint64_t offset = 0; offset < size && code == 0; offset += kS3CopyPartSize) {
    uint64_t last = std::min(size, offset + kS3CopyPartSize) - 1;
    S3RequestSpec part;
    part.method = "PUT";
    uint32_t number = static_cast<uint32_t>(parts.size() + 1);
    part.query = {{"partNumber", std::to_string(number)}, {"uploadId", uploadId}};
    part.headers.emplace_back("x-amz-copy-source", S3UriEncode(source, true));
    part.headers.emplace_back("x-amz-copy-source-range", TStringAsString(Format(u"bytes=%~lu-%~lu", offset, last)));
    Send(part, target, u"TS3Conn::CopyObject", &answer);
    code = answer.code;
    if (code == 0) code = S3ReadResult(answer, "CopyPartResult", u"TS3Conn::CopyObject", target, &root);
    if (code == 0) parts.push_back(CloudPartSpec{number, root.ChildText("ETag"), last - offset + 1});
  }
  if (code == 0) code = FinishMultiPartUpload(target, uploadId, parts);
  if (code != 0) AbortMultiPartUpload(target, uploadId);
  return code;
}
