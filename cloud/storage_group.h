// The storage group description: a small text object that a bucket writes
// at its folder path (CreateCloudStorageGroupFile), so that a product
// finding the bucket later knows which storage group the data belongs to
// and which library wrote it.
//
// Object name: kCloudStorageGroupObject under the options' folder path.
// Format, version 1 (ini-style, UTF-8, CRLF, text values quoted so that any
// blanks and quotes in them come back exactly):
//
//   [CloudStorageGroup]
//   Version=1
//   Name="<group name>"
//   Host="<endpoint host>"
//   Bucket="<bucket>"
//   Path="<folder path>"
//   Flags=0x00000021
//   Created=<ISO date, UTC>
//
// Keys are never written. A reader takes version 1 and refuses a higher
// one (kErrNotSupported: a newer library wrote it); unknown keys are
// ignored, so later versions may add keys without raising the version.
#ifndef PLINTH_CLOUD_STORAGE_GROUP_H_
#define PLINTH_CLOUD_STORAGE_GROUP_H_

#include <cstdint>
#include <string>

#include "foundation/tstring.h"
#include "time/tdate.h"

inline constexpr char16_t kCloudStorageGroupObject[] = u"storagegroup.ini";
constexpr uint32_t kCloudStorageGroupVersion = 1;

struct CloudStorageGroupSpec {
  uint32_t version = kCloudStorageGroupVersion;
  TString name;
  TString host;
  TString bucket;
  TString path;
  uint32_t flags = 0;
  TDate created;
};

// The text of `group`. kErrBadParameter for an empty name or a field that
// holds a line end.
int FormatCloudStorageGroup(const CloudStorageGroupSpec& group, std::string* text);
// Reads a description back: kErrInvalidData for text that is not one (no
// section, no version or name, a bad number or date), kErrNotSupported for
// a version above kCloudStorageGroupVersion.
int ParseCloudStorageGroup(const std::string& text, CloudStorageGroupSpec* group);

#endif  // PLINTH_CLOUD_STORAGE_GROUP_H_
