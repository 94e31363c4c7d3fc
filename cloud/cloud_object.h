// Listing entries and the paging state of listings.
//
// TCloudObject is one entry of a listing: a file or a folder (whose name
// ends in "/"), with the second text and the four dates as the connector's
// lister fills them (the S3 lister: the storage class as second text, the
// service's modification time as date 1). Names are relative to the
// options' folder path, as every name at the bucket's interface is.
// Objects order by name alone.
//
// ContinuationMarker carries a listing's place between calls: the classic
// marker (the name after which a listing continues) and the continuation
// token of list version 2. A caller passes one marker into successive calls;
// the connector fills it from each answer and empties it when the listing
// is complete.
#ifndef PLINTH_CLOUD_CLOUD_OBJECT_H_
#define PLINTH_CLOUD_CLOUD_OBJECT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"
#include "time/tdate.h"

enum eObjectType : int32_t {
  eObjectNone = 0,
  eObjectFile = 1,
  eObjectFolder = 2,
};

class PLINTH_API TCloudObject : public TObject {
 public:
  TCloudObject();
  TCloudObject(const TString& name, eObjectType type, const TString& text);
  TCloudObject(const TString& name, eObjectType type, const TString& text, const TString& etag, uint64_t size,
               const TDate& date1, const TDate& date2, const TDate& date3, const TDate& date4);
  TCloudObject(const TCloudObject& other) = default;
  TCloudObject& operator=(const TCloudObject& other) = default;
  virtual ~TCloudObject();

  // Empty texts, default dates, size 0, type eObjectNone.
  void Reset();
  // By name alone (TString order); the argument is taken by value.
  bool operator<(TCloudObject other) const;

  const TString& GetName() const { return m_name; }
  const TString& GetText() const { return m_text; }
  const TString& GetETag() const { return m_etag; }
  // `index` 0..3; the default date outside it.
  const TDate& GetDate(int index) const;
  uint64_t GetSize() const { return m_size; }
  eObjectType GetType() const { return m_type; }
  bool IsFolder() const { return m_type == eObjectFolder; }

  void SetName(const TString& name) { m_name = name; }
  void SetETag(const TString& etag) { m_etag = etag; }
  void SetSize(uint64_t size) { m_size = size; }
  void SetDate(int index, const TDate& date);

 private:
  TString m_name;
  TString m_text;
  TString m_etag;
  TDate m_dates[4];
  uint64_t m_size = 0;
  eObjectType m_type = eObjectNone;
};

// Merges `a` and `b`, each sorted by name, into `out` in name order; on
// equal names `a`'s entry comes first. `out` may be `a` or `b`.
PLINTH_API void MergeTCloudObjectVectors(const std::vector<TCloudObject>& a, const std::vector<TCloudObject>& b,
                                         std::vector<TCloudObject>& out);

// Version listings, which have no continuation token, carry their
// "version-id-marker" in `token` beside the "key-marker" in `marker`.
struct PLINTH_API ContinuationMarker {
  std::string marker;  // S3 "marker" / "key-marker", Azure "&marker="
  std::string token;   // S3 list version 2 "continuation-token"

  bool IsActive() const { return !marker.empty() || !token.empty(); }
  void Reset();
};

#endif  // PLINTH_CLOUD_CLOUD_OBJECT_H_
