// Fuzzes the readers of S3 answers: the XML parser, the three listing
// kinds and the error mapping, with the invariants their callers rely on.
//
// Input: byte 0 picks the status class and the previous place, the rest is
// the answer body; the headers are the body's first line.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "cloud/s3/s3_errors.h"
#include "cloud/s3/s3_listing.h"
#include "foundation/errors.h"
#include "platform/xml.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

// The depth of the tree under `e`; every name must be a local name.
int Depth(const platform::XmlElementSpec& e) {
  Check(!e.name.empty());
  // A prefix is dropped; a colon stays only in a name that ends with one.
  Check(e.name.find(':') == std::string::npos || e.name.back() == ':');
  int deepest = 0;
  for (const platform::XmlElementSpec& child : e.children) deepest = std::max(deepest, Depth(child));
  return deepest + 1;
}

void FuzzXml(const std::string& body) {
  platform::XmlElementSpec root;
  std::string why;
  if (platform::ParseXml(body.data(), body.size(), &root, &why)) {
    Check(why.empty());
    Check(Depth(root) <= platform::kXmlMaxDepth);
  } else {
    Check(!why.empty());
  }
}

void FuzzListing(const std::string& body, S3ListKind kind, const ContinuationMarker& previous) {
  S3ListingSpec page;
  std::string why;
  int code = S3ParseListing(body, kind, "p/", previous, &page, &why);
  if (code != 0) {
    Check(code == kErrInvalidData && !why.empty());
    return;
  }
  for (const TCloudObject& folder : page.folders) Check(folder.IsFolder());
  for (const TCloudObject& file : page.files) Check(!file.IsFolder());
  if (!page.truncated) {
    Check(page.nextMarker.empty() && page.nextToken.empty());
    return;
  }
  // A page that says more follow must name a new place.
  switch (kind) {
    case S3ListKind::kVersion2:
      Check(!page.nextToken.empty() && page.nextToken != previous.token);
      break;
    case S3ListKind::kVersion1:
      Check(page.nextMarker > previous.marker);
      break;
    case S3ListKind::kVersions:
      Check(!page.nextMarker.empty());
      Check(page.nextMarker != previous.marker || page.nextToken != previous.token);
      break;
  }
}

void FuzzError(long status, platform::HttpFailure failure, const std::string& body, const std::string& headers) {
  S3ErrorSpec out;
  S3MapError(status, failure, body, headers, &out);
  const int allowed[] = {kErrBadParameter, kErrClockSkew, kErrNetwork, kErrAccessDenied, kErrNotFound, kErrAborted};
  bool known = false;
  for (int code : allowed) known = known || out.code == code;
  Check(known);
  // The first rows of the table win whatever else the answer holds.
  if (out.name == "AuthorizationHeaderMalformed") Check(out.code == kErrBadParameter);
  if (out.name == "RequestTimeTooSkewed") Check(out.code == kErrClockSkew);
  // A region goes into the next request's headers: never anything else.
  Check(out.region.empty() || S3IsRegionName(out.region));
  for (const char* name : {"x-amz-bucket-region", "ETag"}) {
    std::string value = S3HeaderValue(headers, name);
    Check(value.find('\n') == std::string::npos);
    Check(value.empty() || (value.front() != ' ' && value.front() != '\t'));
    Check(value.empty() || (value.back() != ' ' && value.back() != '\t' && value.back() != '\r'));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  uint8_t pick = data[0];
  std::string body(reinterpret_cast<const char*>(data + 1), size - 1);
  FuzzXml(body);
  ContinuationMarker previous;
  if ((pick & 1) != 0) previous.marker = "p/m";
  if ((pick & 2) != 0) previous.token = "t";
  FuzzListing(body, S3ListKind::kVersion1, previous);
  FuzzListing(body, S3ListKind::kVersion2, previous);
  FuzzListing(body, S3ListKind::kVersions, previous);
  static const long kStatuses[] = {0, 200, 206, 301, 400, 403, 404, 409, 500, 503};
  long status = kStatuses[(pick >> 2) % 10];
  auto failure = static_cast<platform::HttpFailure>((pick >> 6) == 0 ? 0 : (pick >> 4) % 10);
  std::string headers = body.substr(0, body.find('\n') == std::string::npos ? 0 : body.find('\n') + 1);
  FuzzError(status, failure, body, headers);
  return 0;
}
