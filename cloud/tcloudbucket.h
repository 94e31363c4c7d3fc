// TCloudBucket: the one object through which a host reaches a storage
// account.
//
// The host builds it from its options (copied in: later changes to the
// caller's options do not reach the bucket), a progress callback with its
// context, and two attempt counts. On its first request the bucket makes
// exactly one connector, by the option flags tested in this order:
//
//   kCloudDropbox (0x80)    TDropboxConn
//   kCloudBackblaze (0x40)  TBackblazeConn
//   kCloudAzure (0x200)     TAzureBlobConn
//   none of these           TS3Conn (Amazon S3 and S3-compatible services)
//
// and keeps it until it dies. The constructor logs "TCloudBucket:
// useSSL=%u" with the HTTPS flag.
//
// Requests are forwarded to the connector and answer 0 or a library error
// code (the connector logs its failures). IsRetryError tells the host which
// failures are worth another try: six codes are final, every other code may
// pass. The attempt counts are the host's for its own retries, and the
// cloud files' for theirs (0 counts as 1): each part of a transfer is tried
// up to that many times, with jittered exponential pauses (SetRetryBackoff)
// between tries.
//
// Verify asks the connector up to ten times, again only while the answer is
// a network failure (-1116), with the same pauses between.
//
// Cloud files. OpenFileForWrite, WriteToFile and CloseFile store a stream
// of bytes as one object (cloud/cloud_write_file.h: a single upload or a
// multipart upload with the part size and thread count of the connector's
// settings, memory bounded, aborted on failure); DeleteWriteBuf drops the
// open write file. A write file opened with `holdFirstPart` keeps its first
// part in memory and sends it only at CloseFile; until then RewriteFile
// may change bytes written inside it (a header that is final only at the
// end). ReadFile reads an object in order with read-ahead
// (cloud/cloud_read_file.h); ReadToTMemory reads an object or a range of it
// into a memory block. At most one write file and one read file are open.
//
// Names are relative to the options' folder path.
//
// Limits. SetLimits(up, down) sets the bandwidth of all buckets of the
// process, in bytes per second for uploads and for downloads; 0 or less
// lifts a limit (cloud/cloud_bandwidth.h).
//
// Progress. The callback gets a TUpDownStats while a cloud file moves
// bytes, from the transfer's threads but one call at a time; answering
// false stops the transfer (kErrAborted), and a multipart upload is then
// aborted on the service, so nothing half-written remains.
//
// A bucket is used by one thread at a time.
#ifndef PLINTH_CLOUD_TCLOUDBUCKET_H_
#define PLINTH_CLOUD_TCLOUDBUCKET_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "cloud/cloud_metadata.h"
#include "cloud/cloud_object.h"
#include "cloud/cloud_options.h"
#include "cloud/cloud_progress.h"
#include "cloud/cloud_retry.h"
#include "foundation/export.h"
#include "foundation/tstring.h"
#include "time/tdate.h"

struct CloudFileSpec;
class TCloudClock;
class TCloudConn;
class TCloudReadFile;
class TCloudWriteFile;
class TMemory;

constexpr uint32_t kCloudVerifyTries = 10;

class PLINTH_API TCloudBucket : public TCloudOptions {
 public:
  TCloudBucket(const TCloudOptions& options, TCloudProgressFn progress, void* context, unsigned uploadAttempt,
               unsigned downloadAttempt);
  // Drops any open file (aborting an unfinished upload) and the connector.
  virtual ~TCloudBucket();
  TCloudBucket(const TCloudBucket&) = delete;
  TCloudBucket& operator=(const TCloudBucket&) = delete;

  static void SetLimits(int upBytesPerSecond, int downBytesPerSecond);
  static bool IsRetryError(int code);

  // See TCloudConn for what each request does.
  TString CreateBucket(const TString& region, bool objectLock, uint32_t retentionDays);
  int Erase(const TString& path);
  int GetFoldersAndFiles(const TString& path, std::vector<TCloudObject>* folders, std::vector<TCloudObject>* files,
                         bool untilComplete, ContinuationMarker* marker);
  int GetAllObjectsInPath(const TString& path, std::vector<TCloudObject>& objects, bool untilComplete,
                          ContinuationMarker* marker);
  int AcquireAccessToken(const TString& clientId, const TString& clientSecret, const TString& grant,
                         TString* accessToken, const TString& redirect);
  int ObjectExists(const TString& name, TCloudMetaData* meta, bool quiet);
  int DeleteCloudObject(const TString& name);
  // Retains the object until `date`, or until the backup retention date
  // when `date` is null.
  int ExtendRetentionOnObject(const TString& name, const TDate* date);
  int CopyObject(const TString& source, const TString& target, uint64_t size, uint64_t createdFileTime,
                 uint64_t modifiedFileTime, const TDate* replicated, const TDate* retainUntil);
  int Verify();

  // The retain-until date of the objects the bucket writes (null: none).
  void SetBackupRetentionDate(const TDate* date);
  const TDate& GetBackupRetentionDate() const { return m_retention; }

  // ---- cloud files ---------------------------------------------------------
  // Starts a write file for `name`; `sizeHint` (0: unknown) lets the part
  // size grow for very large objects. kErrInUse while one is open.
  int OpenFileForWrite(const TString& name, const TCloudMetaData* meta = nullptr, uint64_t sizeHint = 0,
                       bool holdFirstPart = false);
  int WriteToFile(const void* data, uint64_t size);
  // Overwrites `size` bytes at `offset`, all already written and inside the
  // held first part; kErrNotPossible otherwise.
  int RewriteFile(uint64_t offset, const void* data, uint64_t size);
  // Completes the object; the write file is closed whatever the result.
  int CloseFile();
  // Drops the write file; 0 when there is none.
  int DeleteWriteBuf();
  // Reads up to `size` bytes of `name` from `offset`; `*got` tells how many.
  // Opens the read file on the first read of a name; kErrEndOfFile for a
  // read at or past the end.
  int ReadFile(const TString& name, uint64_t offset, void* buffer, uint64_t size, uint64_t* got);
  // The object, or `length` bytes of it from `offset` (UINT64_MAX: to its
  // end), into `out`. kErrFileTooLarge beyond what a block holds.
  int ReadToTMemory(const TString& name, TMemory* out, uint64_t offset = 0, uint64_t length = UINT64_MAX);
  // A whole object as a listing described it: the size and entity tag it
  // gave stand in for asking the service again, and the read fails if the
  // object has changed since (one request for an object of one part; an
  // empty one is not asked for).
  int ReadToTMemory(const TCloudObject& listed, TMemory* out);

  unsigned GetUploadAttempt() const { return m_uploadAttempt; }
  unsigned GetDownloadAttempt() const { return m_downloadAttempt; }
  // Pauses between tries: base and cap in milliseconds (0: no pause).
  void SetRetryBackoff(uint32_t baseMs, uint32_t capMs);

  // Writes the storage group description (cloud/storage_group.h) named
  // `groupName` as an object at the folder path.
  int CreateCloudStorageGroupFile(const TString& groupName);

 protected:
  // Makes the connector by the flag table. A test host may make its own.
  virtual std::shared_ptr<TCloudConn> NewCloudConn();
  // The clock the cloud files wait on and time progress by.
  virtual const TCloudClock* Clock() const;

 private:
  TCloudConn* getCloudConn();
  CloudRetrySpec RetrySpec(unsigned attempts) const;
  CloudFileSpec FileSpec(unsigned attempts) const;
  int ReadKnownToTMemory(const CloudFileSpec& setup, const TString& name, uint64_t offset, uint64_t length,
                         const std::string& etag, TMemory* out);

  std::shared_ptr<TCloudConn> m_conn;
  std::shared_ptr<TCloudWriteFile> m_writeFile;
  std::shared_ptr<TCloudReadFile> m_readFile;
  TCloudProgressFn m_progress;
  void* m_context;
  unsigned m_uploadAttempt;
  unsigned m_downloadAttempt;
  TDate m_retention;
  uint32_t m_backoffBaseMs = kCloudRetryBaseMs;
  uint32_t m_backoffCapMs = kCloudRetryCapMs;
};

#endif  // PLINTH_CLOUD_TCLOUDBUCKET_H_
