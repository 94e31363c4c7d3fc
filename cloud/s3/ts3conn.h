// TS3Conn: the connector for Amazon S3 and S3-compatible services (Google
// Cloud Storage through its XML interface, Alibaba OSS, DigitalOcean
// Spaces, self-hosted stores).
//
// Requests are signed with AWS Signature Version 4 (s3_signer.h) and sent
// over the connector's own HTTP session (s3_client.h), which keeps its
// connection open between requests: a connector serves one thread, and the
// cloud files give each of their threads one of its own (NewPartConn).
//
// Settings, read when the connector is made, from section "Options":
//   "CloudMaxTransferMB", "CloudUploadThreads", "CloudDownloadThreads",
//   "CloudDownloadPartSizeTier"  the transfer settings (tcloudconn.h)
//   "PreferOldS3Api"   read once per process: on when its value begins with
//                      "1". On, listings use list version 1 ("marker");
//                      off, version 2 ("list-type=2", "continuation-token").
//                      Version listings have one form only.
//   "CloudRegion"      the signing region when the host names none
//                      (default "us-east-1")
//   "CloudCAFile"      a file of certificates to trust beside the system's
//   "CloudConnectSeconds"  how long a connection may take (1..300, 30)
//   "CloudStallSeconds"    how long a transfer may move no byte before it
//                          counts as stalled and fails (1..600, 60)
// Region: the product's own cloud domain gives it (GetRegion), else the
// host's name ("s3.REGION.amazonaws.com"), else "CloudRegion". A request
// refused as signed for the wrong region ("AuthorizationHeaderMalformed"
// naming another region in its "Region" or "x-amz-bucket-region"; for a
// HEAD, which gets no document, a bare 400 with that header) is sent once
// more, signed for that region, which the connector then keeps.
//
// Listings page until complete only while each page names a place the call
// has not listed from yet: a page that comes back to an earlier place is
// refused (kErrInvalidData, logged), not followed round.
//
// Errors: s3_errors.h maps each failed answer; each is logged with the
// operation's name ("TS3Conn::DeleteCloudObject: statusCode 404, ...").
//
// Parts: at least 5 MiB but the last, at most 10,000 per upload.
#ifndef PLINTH_CLOUD_S3_TS3CONN_H_
#define PLINTH_CLOUD_S3_TS3CONN_H_

#include <memory>
#include <string>
#include <vector>

#include "cloud/tcloudconn.h"

class TS3Client;
struct S3AnswerSpec;
struct S3RequestSpec;

constexpr uint32_t kS3MinPartSize = 5 * kCloudMiB;
constexpr uint32_t kS3MaxParts = 10000;
// Objects above this size are copied in parts.
constexpr uint64_t kS3CopyPartSize = uint64_t{1} << 30;
// The longest retention policy Alibaba OSS takes, in days (about 70 years).
constexpr int kS3MaxWormDays = 25550;

class PLINTH_API TS3Conn : public TCloudConn {
 public:
  explicit TS3Conn(const TCloudOptions& options);
  ~TS3Conn() override;

  const char16_t* Name() const override { return u"TS3Conn"; }
  void ReadSettings() override;

  TString CreateBucket(const TString& region, bool objectLock, uint32_t retentionDays) override;
  int Verify() override;
  int GetFoldersAndFiles(const TString& path, std::vector<TCloudObject>* folders, std::vector<TCloudObject>* files,
                         bool untilComplete, ContinuationMarker* marker, uint32_t maxCount) override;
  int GetAllObjectsInPath(const TString& path, std::vector<TCloudObject>& objects, bool untilComplete,
                          ContinuationMarker* marker) override;
  int ObjectExists(const TString& name, TCloudMetaData* meta, bool quiet) override;
  int CopyObject(const TString& source, const TString& target, uint64_t size, uint64_t createdFileTime,
                 uint64_t modifiedFileTime, const TDate* replicated, const TDate* retainUntil) override;
  int Erase(const TString& path) override;
  int DeleteCloudObject(const TString& name) override;

  int NewPartConn(std::shared_ptr<TCloudConn>* out) override;
  int StartMultiPartUpload(const TString& name, const TCloudMetaData* meta, std::string* uploadId) override;
  int FinishMultiPartUpload(const TString& name, const std::string& uploadId,
                            const std::vector<CloudPartSpec>& parts) override;
  int AbortMultiPartUpload(const TString& name, const std::string& uploadId) override;
  int DownloadBytes(const CloudDownloadSpec& fetch, uint8_t* buffer, uint32_t length, uint32_t* received) override;
  int UploadBytes(const CloudUploadSpec& put, const uint8_t* data, size_t size, std::string* etag) override;
  int put_ObjectLock(const TString& name, const TDate& retainUntil) override;

  uint32_t MinPartSize() const override { return kS3MinPartSize; }
  uint32_t MaxParts() const override { return kS3MaxParts; }

  // ---- S3's own --------------------------------------------------------------
  // Deletes every version and delete marker under `path`.
  int DeleteAllCloudObjectVersions(const TString& path);
  // One page (or, with `untilComplete`, all) of the versions under `path`:
  // the version id as second text, delete markers without entity tag.
  int GetCloudObjectVersions(const TString& path, std::vector<TCloudObject>* versions, bool untilComplete,
                             ContinuationMarker* marker);
  // "Enabled", "Suspended", or empty for a bucket that never had versioning.
  int get_BucketVersioning(TString* status);
  int put_BucketVersioning(bool enabled);
  // The listing document of one page under `path`, as the service sent it.
  int ListBucketToXML(const TString& path, std::string* xml, ContinuationMarker* marker);
  // One check of the account and bucket: a listing of at most one key.
  int verifyInRetry();
  // Alibaba OSS retention (WORM): starts a policy of `days` and gives its
  // id ("x-oss-worm-id"), makes it binding, reads the bucket's days.
  // A bucket made with object lock on Alibaba OSS gets a policy of the
  // days asked for, or else of the setting "alibaba_default_retention"
  // (section "Options", 1..kS3MaxWormDays; none when missing).
  int InitiateWorm(uint32_t days, std::string* wormId);
  int CompleteWorm(const std::string& wormId);
  int GetWormDays(uint32_t* days);

  // Whether "PreferOldS3Api" was on when the process first asked.
  static bool PreferOldS3Api();
  // How a value of the setting reads: on when it begins with "1".
  static bool PreferOldS3ApiValue(const std::string& value);
  const std::string& Region() const;

 private:
  // Sends `request` for `name` (relative) as operation `what`.
  void Send(S3RequestSpec& request, const TString& name, const char16_t* what, S3AnswerSpec* answer);
  std::string Key(const TString& name) const;
  int List(const TString& path, bool delimited, std::vector<TCloudObject>* folders, std::vector<TCloudObject>* files,
           bool untilComplete, ContinuationMarker* marker, uint32_t maxCount, const char16_t* what);
  int DeleteKeys(const std::vector<std::pair<std::string, std::string>>& keys, const char16_t* what);
  int Initiate(const TString& name, const std::vector<std::pair<std::string, std::string>>& headers,
               const char16_t* what, std::string* uploadId);
  int CopyInParts(const std::string& source, const TString& target, uint64_t size,
                  const std::vector<std::pair<std::string, std::string>>& headers);
  bool RetentionPerObject() const;
  static uint32_t AlibabaDefaultRetention();

  std::string m_caFile;
  std::string m_region;
  uint32_t m_connectSeconds = 30;
  uint32_t m_stallSeconds = 60;
  std::unique_ptr<TS3Client> m_client;
};

#endif  // PLINTH_CLOUD_S3_TS3CONN_H_
