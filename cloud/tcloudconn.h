// TCloudConn: the interface between a bucket and one kind of storage
// service.
//
// A bucket (cloud/tcloudbucket.h) makes one connector on first use and
// forwards its requests to it; the cloud files make further connectors of
// the same kind with NewPartConn, one per transfer thread, so that each
// thread has a connection of its own. A connector is used by one thread at
// a time.
//
// Names. Every object name and path given to a connector, and every name in
// a listing it returns, is relative to the options' folder path: the
// connector puts the path in front on the way out and takes it off on the
// way back.
//
// Results. Operations answer 0 or a library error code (foundation/errors.h)
// and write one log line naming the connector and the operation when they
// fail. The base class implements every operation as "not supported":
// kErrNotSupported and the line "<Connector>::<Operation>: not supported,
// %E"; CreateBucket answers the status text "NotImplemented". A connector
// overrides what its service offers.
//
// Transfer settings, read from section "Options" of the host's settings
// (GetIniString, each value parsed with "%d"; missing, unparsable or out of
// range gives the default) by the connector when it is made:
//
//   key                          default   range   effect
//   "CloudMaxTransferMB"         none      2..64   part size: value x 1 MiB
//   "CloudUploadThreads"         10        1..16   parallel part uploads
//   "CloudDownloadThreads"       8         1..16   parallel part downloads
//   "CloudDownloadPartSizeTier"  2         1..5    download part size
//
// Without "CloudMaxTransferMB" the part size is the connector's own
// (kCloudDefaultPartSize, 8 MiB, unless the connector says otherwise).
// Download part size tiers: 1 = 4 MiB, 2 = 8 MiB, 3 = 16 MiB, 4 = 32 MiB,
// 5 = 64 MiB. Each connector reads the keys its service uses (ReadSettings).
//
// Progress and limits. Upload and download requests carry a tap
// (TCloudTap): the connector calls it for every run of bytes it sends or
// receives, and stops the request with kErrAborted when the tap answers
// false. The tap waits on the process's bandwidth limiter and feeds the
// host's progress callback, so connectors need know nothing of either.
#ifndef PLINTH_CLOUD_TCLOUDCONN_H_
#define PLINTH_CLOUD_TCLOUDCONN_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cloud/cloud_metadata.h"
#include "cloud/cloud_object.h"
#include "cloud/cloud_options.h"
#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"
#include "time/tdate.h"

constexpr uint32_t kCloudMiB = 1048576;
constexpr uint32_t kCloudDefaultPartSize = 8 * kCloudMiB;
constexpr uint32_t kCloudDefaultUploadThreads = 10;
constexpr uint32_t kCloudDefaultDownloadThreads = 8;
constexpr uint32_t kCloudDefaultDownloadTier = 2;
// GetFoldersAndFiles' count: no limit.
constexpr uint32_t kCloudNoLimit = 4294967295u;

// Where a connector reports the bytes of a transfer as they move.
class PLINTH_API TCloudTap {
 public:
  virtual ~TCloudTap() = default;
  // `bytes` more bytes went out or came in. May wait (bandwidth limit).
  // False: the transfer was stopped; end the request. A connector waiting
  // on a slow answer calls Moved(0) now and then, so a stop reaches it.
  virtual bool Moved(uint64_t bytes) = 0;
};

// One upload request: a whole object (empty uploadId) or one part of a
// multipart upload.
struct CloudUploadSpec {
  TString name;
  std::string uploadId;
  uint32_t partNumber = 0;                // 1.. for a part
  const TCloudMetaData* meta = nullptr;   // whole objects; may be null
  TCloudTap* tap = nullptr;               // may be null
};

// One ranged read: `length` bytes from `offset`.
struct CloudDownloadSpec {
  TString name;
  uint64_t offset = 0;
  std::string etag;        // when not empty: the read fails unless the object still has it
  TCloudTap* tap = nullptr;  // may be null
};

// A part the service accepted.
struct CloudPartSpec {
  uint32_t number = 0;
  std::string etag;
  uint64_t size = 0;
};

class PLINTH_API TCloudConn : public TObject {
 public:
  explicit TCloudConn(const TCloudOptions& options);
  virtual ~TCloudConn();
  TCloudConn(const TCloudConn&) = delete;
  TCloudConn& operator=(const TCloudConn&) = delete;

  // The class name for log lines ("TS3Conn").
  virtual const char16_t* Name() const = 0;
  // Reads the transfer settings this kind of service uses; the bucket calls
  // it once, right after making the connector.
  virtual void ReadSettings() = 0;

  // ---- transfer settings (each reads one key into the fields below) -------
  virtual void ReadMaxTransferMB();
  virtual void ReadUploadThreads();
  virtual void ReadDownloadThreads();
  virtual void ReadDownloadPartSizeTier();

  // ---- requests the bucket forwards --------------------------------------
  // Creates the bucket in `region` (empty: the service's default), with
  // object lock when asked and, where the service keeps one, a default
  // retention of `retentionDays` (0: none). Answers "" when created, else
  // the service's status name ("BucketAlreadyOwnedByYou", ...) or
  // "NotImplemented".
  virtual TString CreateBucket(const TString& region, bool objectLock, uint32_t retentionDays);
  // Checks that the account reaches the bucket.
  virtual int Verify();
  // One level under `path`: folders (names ending in "/") and files, asked
  // for `maxCount` entries a page at most. With `untilComplete` the
  // connector follows the marker until the listing ends (every page);
  // otherwise it answers one page and leaves the marker active while more
  // follow.
  virtual int GetFoldersAndFiles(const TString& path, std::vector<TCloudObject>* folders,
                                 std::vector<TCloudObject>* files, bool untilComplete, ContinuationMarker* marker,
                                 uint32_t maxCount);
  // Every object under `path`, at any depth.
  virtual int GetAllObjectsInPath(const TString& path, std::vector<TCloudObject>& objects, bool untilComplete,
                                  ContinuationMarker* marker);
  // 0 when the object is there (its answer headers in `meta`, when given);
  // kErrNotFound when not, logged only unless `quiet`.
  virtual int ObjectExists(const TString& name, TCloudMetaData* meta, bool quiet);
  // Copies `source` to `target` with new metadata: the created and
  // modified dates of two Windows file times (0: not sent) and the
  // replicated date; `retainUntil`, when given and not the default date,
  // locks the copy until then. `size` is the source's size (large objects
  // are copied in parts).
  virtual int CopyObject(const TString& source, const TString& target, uint64_t size, uint64_t createdFileTime,
                         uint64_t modifiedFileTime, const TDate* replicated, const TDate* retainUntil);
  // Deletes every object under `path` (the whole folder when empty).
  virtual int Erase(const TString& path);
  virtual int DeleteCloudObject(const TString& name);
  // OAuth services: trades a code or refresh token for an access token.
  virtual int AcquireAccessToken(const TString& clientId, const TString& clientSecret, const TString& grant,
                                 TString* accessToken, const TString& redirect);

  // ---- multipart transfers and ranged reads --------------------------------
  // A fresh connector of the same kind, options and settings, with a
  // connection of its own.
  virtual int NewPartConn(std::shared_ptr<TCloudConn>* out);
  virtual int StartMultiPartUpload(const TString& name, const TCloudMetaData* meta, std::string* uploadId);
  // Completes the upload from `parts`, which the caller gives in number
  // order.
  virtual int FinishMultiPartUpload(const TString& name, const std::string& uploadId,
                                    const std::vector<CloudPartSpec>& parts);
  // Drops an unfinished upload and the parts it holds.
  virtual int AbortMultiPartUpload(const TString& name, const std::string& uploadId);
  // Reads up to `length` bytes into `buffer`; `*received` is what came.
  // Fails when the service sends more than `length`.
  virtual int DownloadBytes(const CloudDownloadSpec& fetch, uint8_t* buffer, uint32_t length, uint32_t* received);
  // Stores `size` bytes; `*etag` receives the service's entity tag.
  virtual int UploadBytes(const CloudUploadSpec& put, const uint8_t* data, size_t size, std::string* etag);
  // Retains the object until `retainUntil`; a default date is refused.
  virtual int put_ObjectLock(const TString& name, const TDate& retainUntil);

  // ---- what the settings gave ------------------------------------------------
  const TCloudOptions& Options() const { return m_options; }
  uint32_t PartSize() const { return m_partSize; }
  // The largest number of parts one upload may have, and the least size of
  // a part but the last, as the service allows.
  virtual uint32_t MaxParts() const { return 10000; }
  virtual uint32_t MinPartSize() const { return 0; }
  uint32_t UploadThreads() const { return m_uploadThreads; }
  uint32_t DownloadThreads() const { return m_downloadThreads; }
  uint32_t DownloadTier() const { return m_downloadTier; }
  // The download part size of the tier: 4 MiB << (tier - 1).
  virtual uint32_t DownloadPartSize() const;

 protected:
  // Logs "<Name>::<operation>: not supported, %E" and answers
  // kErrNotSupported.
  int NotSupported(const char16_t* operation) const;
  // Copies the settings of `other` (for NewPartConn).
  void CopySettings(const TCloudConn& other);

  TCloudOptions m_options;
  uint32_t m_partSize = kCloudDefaultPartSize;
  uint32_t m_uploadThreads = kCloudDefaultUploadThreads;
  uint32_t m_downloadThreads = kCloudDefaultDownloadThreads;
  uint32_t m_downloadTier = kCloudDefaultDownloadTier;
};

// The integer setting `key` of section "Options", read with "%d": `value`
// when present and within [low, high], else `fallback`. `*found` tells
// whether the setting was taken.
PLINTH_API int ReadCloudSetting(const char16_t* key, int low, int high, int fallback, bool* found = nullptr);

#endif  // PLINTH_CLOUD_TCLOUDCONN_H_
