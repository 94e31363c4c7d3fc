// Listings, version listings and the deletions built on them.
#include <algorithm>
#include <set>

#include "cloud/s3/s3_client.h"
#include "cloud/s3/s3_encode.h"
#include "cloud/s3/s3_listing.h"
#include "cloud/s3/ts3conn.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "platform/xml.h"

namespace {

// The most keys one listing page or one multi-delete takes.
constexpr uint32_t kPageKeys = 1000;

// The marker after `page`: empty once the listing is complete.
void MoveOn(const S3ListingSpec& page, ContinuationMarker* marker) {
  marker->Reset();
  if (!page.truncated) return;
  marker->marker = page.nextMarker;
  marker->token = page.nextToken;
}

int Refused(const char16_t* what, const std::string& why) {
  TString op(what), text = TStringFromUTF8(why);
  LogLineChecked(514, u"%s: %s, %E", &op, &text, kErrInvalidData);
  return kErrInvalidData;
}

// The places one call has listed from. The parser refuses a page that
// names its own place again; a service going round a circle of places
// (tokens are opaque, so only equality tells) is caught here.
class Places {
 public:
  explicit Places(const ContinuationMarker& start) { m_seen.emplace(start.marker, start.token); }
  bool IsNew(const S3ListingSpec& page) {
    return !page.truncated || m_seen.emplace(page.nextMarker, page.nextToken).second;
  }

 private:
  std::set<std::pair<std::string, std::string>> m_seen;
};

constexpr char kCircle[] = "a truncated listing that comes back to an earlier place";

}  // namespace

int TS3Conn::List(const TString& path, bool delimited, std::vector<TCloudObject>* folders,
                  std::vector<TCloudObject>* files, bool untilComplete, ContinuationMarker* marker, uint32_t maxCount,
                  const char16_t* what) {
  ContinuationMarker local;
  if (marker == nullptr) marker = &local;
  bool v2 = !PreferOldS3Api();
  std::string prefix = Key(path);
  Places places(*marker);
  do {
    S3RequestSpec request;
    request.query = {{"prefix", prefix}, {"max-keys", std::to_string(std::min(maxCount, kPageKeys))}};
    if (delimited) request.query.emplace_back("delimiter", "/");
    if (v2) {
      request.query.emplace_back("list-type", "2");
      if (!marker->token.empty()) request.query.emplace_back("continuation-token", marker->token);
    } else if (!marker->marker.empty()) {
      request.query.emplace_back("marker", marker->marker);
    }
    S3AnswerSpec answer;
    Send(request, TString(), what, &answer);
    if (answer.code != 0) return answer.code;
    S3ListingSpec page;
    std::string why;
    if (S3ParseListing(answer.body, v2 ? S3ListKind::kVersion2 : S3ListKind::kVersion1,
                       TStringAsString(m_options.GetPath()), *marker, &page, &why) != 0) {
      return Refused(what, why);
    }
    if (!places.IsNew(page)) return Refused(what, kCircle);
    if (folders != nullptr) folders->insert(folders->end(), page.folders.begin(), page.folders.end());
    if (files != nullptr) files->insert(files->end(), page.files.begin(), page.files.end());
    MoveOn(page, marker);
  } while (untilComplete && marker->IsActive());
  return 0;
}

int TS3Conn::GetFoldersAndFiles(const TString& path, std::vector<TCloudObject>* folders,
                                std::vector<TCloudObject>* files, bool untilComplete, ContinuationMarker* marker,
                                uint32_t maxCount) {
  return List(path, true, folders, files, untilComplete, marker, maxCount, u"TS3Conn::GetFoldersAndFiles");
}

int TS3Conn::GetAllObjectsInPath(const TString& path, std::vector<TCloudObject>& objects, bool untilComplete,
                                 ContinuationMarker* marker) {
  return List(path, false, nullptr, &objects, untilComplete, marker, kCloudNoLimit, u"TS3Conn::GetAllObjectsInPath");
}

int TS3Conn::ListBucketToXML(const TString& path, std::string* xml, ContinuationMarker* marker) {
  S3RequestSpec request;
  request.query = {{"prefix", Key(path)}, {"delimiter", "/"}};
  bool v2 = !PreferOldS3Api();
  if (v2) request.query.emplace_back("list-type", "2");
  if (marker != nullptr && v2 && !marker->token.empty()) request.query.emplace_back("continuation-token", marker->token);
  if (marker != nullptr && !v2 && !marker->marker.empty()) request.query.emplace_back("marker", marker->marker);
  S3AnswerSpec answer;
  Send(request, TString(), u"TS3Conn::ListBucketToXML", &answer);
  if (answer.code != 0) return answer.code;
  *xml = answer.body;
  if (marker == nullptr) return 0;
  S3ListingSpec page;
  std::string why;
  if (S3ParseListing(answer.body, v2 ? S3ListKind::kVersion2 : S3ListKind::kVersion1,
                     TStringAsString(m_options.GetPath()), *marker, &page, &why) != 0) {
    return Refused(u"TS3Conn::ListBucketToXML", why);
  }
  MoveOn(page, marker);
  return 0;
}

int TS3Conn::GetCloudObjectVersions(const TString& path, std::vector<TCloudObject>* versions, bool untilComplete,
                                    ContinuationMarker* marker) {
  ContinuationMarker local;
  if (marker == nullptr) marker = &local;
  Places places(*marker);
  do {
    S3RequestSpec request;
    request.query = {{"versions", ""}, {"prefix", Key(path)}, {"max-keys", std::to_string(kPageKeys)}};
    if (!marker->marker.empty()) request.query.emplace_back("key-marker", marker->marker);
    if (!marker->token.empty()) request.query.emplace_back("version-id-marker", marker->token);
    S3AnswerSpec answer;
    Send(request, TString(), u"TS3Conn::GetCloudObjectVersions", &answer);
    if (answer.code != 0) return answer.code;
    S3ListingSpec page;
    std::string why;
    if (S3ParseListing(answer.body, S3ListKind::kVersions, TStringAsString(m_options.GetPath()), *marker, &page,
                       &why) != 0) {
      return Refused(u"TS3Conn::GetCloudObjectVersions", why);
    }
    if (!places.IsNew(page)) return Refused(u"TS3Conn::GetCloudObjectVersions", kCircle);
    versions->insert(versions->end(), page.files.begin(), page.files.end());
    MoveOn(page, marker);
  } while (untilComplete && marker->IsActive());
  return 0;
}

int TS3Conn::DeleteKeys(const std::vector<std::pair<std::string, std::string>>& keys, const char16_t* what) {
  for (size_t at = 0; at < keys.size(); at += kPageKeys) {
    std::string body = "<Delete><Quiet>true</Quiet>";
    for (size_t i = at; i < keys.size() && i < at + kPageKeys; ++i) {
      body += "<Object><Key>" + S3XmlEscape(keys[i].first) + "</Key>";
      if (!keys[i].second.empty()) body += "<VersionId>" + S3XmlEscape(keys[i].second) + "</VersionId>";
      body += "</Object>";
    }
    body += "</Delete>";
    S3RequestSpec request;
    request.method = "POST";
    request.query = {{"delete", ""}};
    request.body = reinterpret_cast<const uint8_t*>(body.data());
    request.bodySize = body.size();
    request.contentMd5 = true;
    S3AnswerSpec answer;
    Send(request, TString(), what, &answer);
    if (answer.code != 0) return answer.code;
    platform::XmlElementSpec root;
    std::string why;
    if (!platform::ParseXml(answer.body.data(), answer.body.size(), &root, &why)) return Refused(what, why);
    if (root.name != "DeleteResult") return Refused(what, "not a deletion result");
    if (const platform::XmlElementSpec* error = root.Child("Error")) {
      TString op(what), key = TStringFromUTF8(error->ChildText("Key")), code = TStringFromUTF8(error->ChildText("Code"));
      int mapped = code == u"AccessDenied" ? kErrAccessDenied : kErrBadParameter;
      LogLineChecked(514, u"%s: %s was not deleted: %s, %E", &op, &key, &code, mapped);
      return mapped;
    }
  }
  return 0;
}

int TS3Conn::Erase(const TString& path) {
  std::vector<TCloudObject> objects;
  int code = GetAllObjectsInPath(path, objects, true, nullptr);
  if (code != 0) return code;
  std::vector<std::pair<std::string, std::string>> keys;
  keys.reserve(objects.size());
  for (const TCloudObject& object : objects) keys.emplace_back(Key(object.GetName()), std::string());
  return DeleteKeys(keys, u"TS3Conn::Erase");
}

int TS3Conn::DeleteAllCloudObjectVersions(const TString& path) {
  std::vector<TCloudObject> versions;
  int code = GetCloudObjectVersions(path, &versions, true, nullptr);
  if (code != 0) return code;
  std::vector<std::pair<std::string, std::string>> keys;
  keys.reserve(versions.size());
  for (const TCloudObject& v : versions) keys.emplace_back(Key(v.GetName()), TStringAsString(v.GetText()));
  return DeleteKeys(keys, u"TS3Conn::DeleteAllCloudObjectVersions");
}
