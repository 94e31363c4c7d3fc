// The cloud write file: a stream of writes that becomes one object.
//
// A stream that ends within one part is stored with one UploadBytes. A
// longer one becomes a multipart upload: the first time a part is full and
// more bytes follow, the upload is started and the part goes to one of the
// connector's upload threads (each with a connection of its own from
// NewPartConn); the caller fills the next part meanwhile. At most
// UploadThreads() parts are in flight and one is being filled, so memory
// stays at (threads + 1) x part size whatever the object's size: a writer
// that runs ahead waits for a part buffer to come free.
//
// Part size: the connector's (PartSize(), at least its MinPartSize()); when
// the caller gives the object's size and it would need more than MaxParts()
// parts, the part size grows, in whole MiB, until it fits. A stream that
// outgrows MaxParts() parts anyway fails with kErrFileTooLarge.
//
// Failures. A part is tried again within the upload attempt count while
// CloudIsRetryError says so. A final failure, a progress callback that
// answers false (kErrAborted), or Abort stops every thread, and the
// unfinished upload is aborted on the service, so that no part is left
// stored (and billed). Once failed, every later Write and Close answers the
// failure. Close completes the upload with the parts in number order,
// whatever order they finished in, and then, when a retention date is set,
// locks the object until then.
//
// Holding the first part. A writer that must come back to its first bytes
// once the rest is known (a file format whose header is written last) asks
// for the first part to be held: it stays in memory, goes up only when
// Close comes (queued behind every other part), and until then Rewrite may
// change any of its bytes already written. A multipart upload is completed from its part
// numbers, not from the order the parts arrived, so the object is whole.
// Memory: one part more.
//
// One thread uses a write file; its upload threads are its own.
#ifndef PLINTH_CLOUD_CLOUD_WRITE_FILE_H_
#define PLINTH_CLOUD_CLOUD_WRITE_FILE_H_

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cloud/cloud_metadata.h"
#include "cloud/cloud_retry.h"
#include "cloud/cloud_transfer.h"
#include "cloud/tcloudconn.h"
#include "time/tdate.h"

// What a cloud file needs of its bucket.
struct CloudFileSpec {
  std::shared_ptr<TCloudConn> conn;
  CloudRetrySpec retry;
  TCloudProgressFn progress = nullptr;
  void* context = nullptr;
  const TCloudClock* clock = nullptr;
};

// A part's bytes, counted by MemAlloc.
class TCloudPartBuffer {
 public:
  explicit TCloudPartBuffer(uint32_t capacity);
  ~TCloudPartBuffer();
  TCloudPartBuffer(const TCloudPartBuffer&) = delete;
  TCloudPartBuffer& operator=(const TCloudPartBuffer&) = delete;

  uint8_t* Data() const { return m_data; }
  uint32_t Capacity() const { return m_capacity; }

  uint32_t size = 0;    // bytes held
  uint32_t number = 0;  // part number, from 1

 private:
  uint8_t* m_data;
  uint32_t m_capacity;
};

class TCloudWriteFile {
 public:
  // `sizeHint` 0: the size is not known.
  TCloudWriteFile(const CloudFileSpec& setup, const TString& name, const TCloudMetaData* meta, uint64_t sizeHint,
                  const TDate& retainUntil, bool holdFirstPart = false);
  // Aborts what was not closed.
  ~TCloudWriteFile();
  TCloudWriteFile(const TCloudWriteFile&) = delete;
  TCloudWriteFile& operator=(const TCloudWriteFile&) = delete;

  int Write(const void* data, uint64_t size);
  // Overwrites bytes already written inside the held first part;
  // kErrNotPossible for any byte outside it, or when none is held.
  int Rewrite(uint64_t offset, const void* data, uint64_t size);
  int Close();
  // Drops the file; an unfinished upload is aborted on the service.
  int Abort();

  const TString& Name() const { return m_name; }
  uint32_t PartSize() const { return m_partSize; }
  uint64_t BytesWritten() const { return m_written; }

 private:
  int Fail(int code);
  int TakeFreeBuffer(std::unique_ptr<TCloudPartBuffer>* out);
  int Submit();
  void Queue(std::unique_ptr<TCloudPartBuffer> part);
  int StartMultipart();
  void Worker(std::shared_ptr<TCloudConn> conn);
  int UploadPart(TCloudConn* conn, TCloudPartBuffer* part, std::string* etag);
  int UploadWhole();
  int Complete();
  int LockObject();
  void StopWorkers();
  int AbortUpload();

  CloudFileSpec m_spec;
  TString m_name;
  TCloudMetaData m_meta;
  bool m_hasMeta;
  TDate m_retainUntil;
  uint32_t m_partSize;
  uint32_t m_threads;
  uint32_t m_maxParts;
  bool m_holdFirst;
  TCloudTransfer m_transfer;

  uint64_t m_written = 0;
  uint32_t m_partCount = 0;
  std::unique_ptr<TCloudPartBuffer> m_fill;
  std::unique_ptr<TCloudPartBuffer> m_head;  // part 1, held until Close
  std::string m_uploadId;  // empty until a multipart upload starts
  bool m_finished = false;  // closed or aborted

  std::mutex m_lock;
  std::condition_variable m_wake;
  std::deque<std::unique_ptr<TCloudPartBuffer>> m_queue;
  std::vector<std::unique_ptr<TCloudPartBuffer>> m_free;
  uint32_t m_buffers = 0;  // allocated in all
  uint32_t m_inFlight = 0;
  int m_failure = 0;
  bool m_quit = false;
  std::vector<CloudPartSpec> m_done;
  std::vector<std::thread> m_workers;
};

#endif  // PLINTH_CLOUD_CLOUD_WRITE_FILE_H_
