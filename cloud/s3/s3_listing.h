// Reading S3 listings: "ListBucketResult" (list versions 1 and 2) and
// "ListVersionsResult".
//
// Entries become TCloudObject: files with their key, the storage class as
// second text, the entity tag, the size and "LastModified" as date 1;
// folders ("CommonPrefixes") with their prefix. Version entries carry the
// version id as second text; delete markers have no entity tag and size 0.
// Names lose `stripPrefix` (the options' folder path) in front.
//
// Paging: the next place is "NextContinuationToken" (version 2),
// "NextMarker", or for a version 1 listing without one the last key or
// prefix listed; "NextKeyMarker" and "NextVersionIdMarker" for versions.
// A listing that says it is truncated but gives no next place, or a place
// that does not move past the last one, is refused: a hostile or broken
// answer must not page for ever.
//
// Every value is read as untrusted text: sizes are strict decimals, dates
// ISO forms, and a document of another kind is refused with kErrInvalidData.
#ifndef PLINTH_CLOUD_S3_S3_LISTING_H_
#define PLINTH_CLOUD_S3_S3_LISTING_H_

#include <string>
#include <vector>

#include "cloud/cloud_object.h"

struct S3ListingSpec {
  std::vector<TCloudObject> folders;
  std::vector<TCloudObject> files;
  bool truncated = false;
  std::string nextMarker;         // classic marker / key marker
  std::string nextToken;          // continuation token / version-id marker
};

enum class S3ListKind { kVersion1, kVersion2, kVersions };

// 0, or kErrInvalidData with `why` saying what is wrong.
int S3ParseListing(const std::string& body, S3ListKind kind, const std::string& stripPrefix,
                   const ContinuationMarker& previous, S3ListingSpec* out, std::string* why);

#endif  // PLINTH_CLOUD_S3_S3_LISTING_H_
