// TCloudMetaData: the metadata the library keeps beside each stored object.
//
// A map from header name to header value (UTF-8 text), and five key names,
// one per eCloudMetaKey:
//
//   key                        default name                            Azure
//   0 eCloudMetaModified       "x-amz-meta-modified"                   "x-ms-meta-modified"
//   1 eCloudMetaCreated        "x-amz-meta-created"                    "x-ms-meta-created"
//   2 eCloudMetaReplicated     "x-amz-meta-replicated"                 "x-ms-meta-replicated"
//   3 eCloudMetaRetainUntil    "x-amz-object-lock-retain-until-date"   (same)
//   4 eCloudMetaLastModified   "Last-Modified"                         (same)
//
// Keys 0 to 2 are the library's own record of when the object was created,
// last modified and last replicated, stored as ISO text of a UTC date
// (TDate::ToISOString); key 4 is the service's own HTTP date.
//
// Header names compare case-blind (ASCII), as HTTP's do: the map is ordered
// by the folded name and keeps the spelling it was given, so a lookup of
// "x-amz-meta-modified" finds "X-Amz-Meta-Modified" too.
//
// SetFromHeader reads a block of HTTP answer headers ("Name: value" lines,
// LF or CRLF, folded continuation lines joined with one blank; a status line
// and lines without a valid name are skipped; values trimmed; the last of
// repeated names wins; input ends at an empty line after the first header).
// Names matching key 4's or key 3's name are stored in that exact form. Then
// ValidateMetaDataDates runs with no date.
//
// ValidateMetaDataDates(modified): when the replicated date plus 20 seconds
// is still earlier than the reference (`modified`, else "Last-Modified" read
// as an HTTP date), the object was rewritten after its last replication:
// created, modified and replicated all become the reference date.
//
// Nothing here fails: unparsable dates read as the default date, missing
// entries as empty text, an unknown key as an empty name.
//
// Plain value: copyable and assignable; one thread at a time.
#ifndef PLINTH_CLOUD_CLOUD_METADATA_H_
#define PLINTH_CLOUD_CLOUD_METADATA_H_

#include <cstdint>
#include <map>
#include <string>

#include "foundation/export.h"
#include "foundation/tstring.h"
#include "time/tdate.h"

enum eCloudMetaKey : int {
  eCloudMetaModified = 0,
  eCloudMetaCreated = 1,
  eCloudMetaReplicated = 2,
  eCloudMetaRetainUntil = 3,
  eCloudMetaLastModified = 4,
};
constexpr int kCloudMetaKeyCount = 5;

// ASCII case-blind ordering of header names.
struct PLINTH_API CloudHeaderNameLess {
  bool operator()(const std::string& a, const std::string& b) const;
};

class PLINTH_API TCloudMetaData {
 public:
  using HeaderMap = std::map<std::string, std::string, CloudHeaderNameLess>;

  // Empty map, default key names.
  TCloudMetaData();

  // Empties the map; the key names stay.
  void Reset();
  // Replaces the names of keys 1, 0 and 2, in this argument order.
  void SetKeys(const std::string& created, const std::string& modified, const std::string& replicated);
  // The name of `key`; empty outside 0..4.
  std::string GetKey(eCloudMetaKey key) const;
  // The value stored under `key`'s name; empty when absent.
  std::string GetValue(eCloudMetaKey key) const;
  // That value read as an ISO date, else as an HTTP date; the default date
  // when it is neither.
  TDate GetValueTDate(eCloudMetaKey key) const;
  // Stores `value` under `key`'s name; nothing for an unknown key.
  void SetStringValue(eCloudMetaKey key, const std::string& value);
  // Stores the ISO text of the UTC date of a Windows file time (100 ns
  // ticks since 1601); null gives the default date's text.
  void SetDateValue(eCloudMetaKey key, const uint64_t* fileTime);
  // Rebuilds the map from a block of answer headers (see above).
  void SetFromHeader(const std::string& headerText);
  // Corrects stale library dates (see above); `modified` may be null.
  void ValidateMetaDataDates(const TDate* modified);

  // The whole map, as a connector sends or reads it.
  const HeaderMap& GetHeaders() const { return m_headers; }
  // Any header, by name (case-blind); empty when absent.
  std::string GetHeader(const std::string& name) const;
  void SetHeader(const std::string& name, const std::string& value) { m_headers[name] = value; }

 private:
  void SetDate(eCloudMetaKey key, const TDate& date);

  HeaderMap m_headers;
  std::string m_keys[kCloudMetaKeyCount];
};

// True when `host` holds, after its first character, the domain of a
// service whose custom object metadata the library may rely on: Amazon S3,
// Azure Blob Storage (public or US Government cloud), Backblaze B2 or Google
// APIs. False for every other host, S3-compatible stores of other makers
// included, and for a host that begins with such a domain.
PLINTH_API bool CanUseCloudMetaData(const TString& host);

// The ISO text of `date` moved to GMT, as the metadata stores dates: a date
// whose offset is unknown is taken as GMT already, and written "+0000".
std::string CloudGmtText(const TDate& date);

#endif  // PLINTH_CLOUD_CLOUD_METADATA_H_
