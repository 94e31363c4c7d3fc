#include "cloud/s3/s3_listing.h"

#include "cloud/cloud_text.h"
#include "foundation/errors.h"
#include "platform/xml.h"

namespace {


TString Name(const std::string& key, const std::string& stripPrefix) {
  if (!stripPrefix.empty() && key.compare(0, stripPrefix.size(), stripPrefix) == 0) {
    return TStringFromUTF8(key.substr(stripPrefix.size()));
  }
  return TStringFromUTF8(key);
}

int Refuse(std::string* why, const char* text) {
  *why = text;
  return kErrInvalidData;
}

// One file or version entry.
int ReadEntry(const platform::XmlElementSpec& e, bool version, const std::string& stripPrefix, TCloudObject* out,
              std::string* why) {
  std::string key = e.ChildText("Key");
  if (key.empty()) return Refuse(why, "an entry without a key");
  uint64_t size = 0;
  bool marker = e.name == "DeleteMarker";
  if (!marker && !CloudParseDecimal(e.ChildText("Size"), &size)) return Refuse(why, "an entry without a valid size");
  TDate modified;
  std::string when = e.ChildText("LastModified");
  if (!when.empty() && modified.FromISOString(TStringFromUTF8(when)) != 0) {
    return Refuse(why, "an entry with a bad date");
  }
  std::string text = version ? e.ChildText("VersionId") : e.ChildText("StorageClass");
  *out = TCloudObject(Name(key, stripPrefix), eObjectFile, TStringFromUTF8(text),
                      TStringFromUTF8(marker ? std::string() : e.ChildText("ETag")), size, modified, TDate(), TDate(),
                      TDate());
  return 0;
}

}  // namespace

int S3ParseListing(const std::string& body, S3ListKind kind, const std::string& stripPrefix,
                   const ContinuationMarker& previous, S3ListingSpec* out, std::string* why) {
  *out = S3ListingSpec();
  platform::XmlElementSpec root;
  if (!platform::ParseXml(body.data(), body.size(), &root, why)) return kErrInvalidData;
  bool versions = kind == S3ListKind::kVersions;
  if (root.name != (versions ? "ListVersionsResult" : "ListBucketResult")) return Refuse(why, "not a listing");
  std::string lastKey;
  for (const platform::XmlElementSpec& e : root.children) {
    if (e.name == "Contents" || e.name == "Version" || e.name == "DeleteMarker") {
      if ((e.name == "Contents") == versions) continue;
      TCloudObject object;
      int code = ReadEntry(e, versions, stripPrefix, &object, why);
      if (code != 0) return code;
      lastKey = std::max(lastKey, e.ChildText("Key"));
      out->files.push_back(object);
    } else if (e.name == "CommonPrefixes") {
      std::string prefix = e.ChildText("Prefix");
      if (prefix.empty()) return Refuse(why, "a folder without a prefix");
      lastKey = std::max(lastKey, prefix);
      out->folders.emplace_back(Name(prefix, stripPrefix), eObjectFolder, TString());
    }
  }
  std::string truncated = root.ChildText("IsTruncated");
  if (truncated != "true" && truncated != "false" && !truncated.empty()) return Refuse(why, "a bad IsTruncated");
  out->truncated = truncated == "true";
  if (!out->truncated) return 0;
  switch (kind) {
    case S3ListKind::kVersion2:
      out->nextToken = root.ChildText("NextContinuationToken");
      if (out->nextToken.empty() || out->nextToken == previous.token) {
        return Refuse(why, "a truncated listing without a new continuation token");
      }
      return 0;
    case S3ListKind::kVersion1:
      out->nextMarker = root.ChildText("NextMarker");
      if (out->nextMarker.empty()) out->nextMarker = lastKey;
      break;
    case S3ListKind::kVersions:
      out->nextMarker = root.ChildText("NextKeyMarker");
      out->nextToken = root.ChildText("NextVersionIdMarker");
      if (out->nextMarker == previous.marker && out->nextToken == previous.token) {
        return Refuse(why, "a truncated listing that does not move on");
      }
      break;
  }
  if (out->nextMarker.empty() || (kind == S3ListKind::kVersion1 && out->nextMarker <= previous.marker)) {
    return Refuse(why, "a truncated listing that does not move on");
  }
  return 0;
}
