// A recording connector for the bucket and cloud-file tests: an object
// store in memory that records every request and answers with faults on
// demand.
//
// Part connections made by NewPartConn share one RecordingService, so the
// record and the store see every thread's requests. Faults are rules: a
// request of the rule's operation (and, when given, part number or range
// offset) fails with the rule's code for its next `times` matches, or
// first sleeps `delayMs` (to make parts finish out of order), or answers a
// download short or long. Bytes move through the request's tap in 64 KiB
// runs, as a real connector's would, and a tap that answers false ends the
// request with kErrAborted.
#ifndef PLINTH_TESTS_RECORDING_CONN_H_
#define PLINTH_TESTS_RECORDING_CONN_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cloud/tcloudconn.h"

enum class RecOp { kVerify, kStart, kUpload, kFinish, kAbort, kDownload, kExists, kLock, kNewPart, kOther };

struct RecordedCall {
  RecOp op = RecOp::kOther;
  std::string name;
  uint32_t part = 0;      // upload part number
  uint64_t offset = 0;    // download offset
  uint64_t size = 0;      // bytes sent or asked for
  int result = 0;
};

struct FaultRule {
  RecOp op = RecOp::kOther;
  uint32_t part = 0;          // 0: any part
  int64_t offset = -1;        // -1: any offset
  int code = 0;               // answered instead of the request (0: none)
  int times = 1;              // matches that fail; -1: all
  uint32_t delayMs = 0;       // slept before the request
  int64_t receivedDelta = 0;  // a download claims this many bytes more (or fewer)
  bool afterBytes = false;    // fail only after moving the request's bytes
};

struct RecordedUpload {
  std::string name;
  std::map<uint32_t, std::vector<uint8_t>> parts;
  std::vector<CloudPartSpec> completedWith;
  bool finished = false;
  bool aborted = false;
};

class RecordingService {
 public:
  void AddFault(const FaultRule& rule);
  void SetVerifyAnswer(int code) { m_verifyAnswer = code; }
  // Without stored bytes uploads are only checked (and counted): for
  // streams too large to keep. `check` sees each part (number from 1) or
  // whole object (0) as it arrives; CheckFailures counts its refusals.
  void KeepBytes(bool keep) { m_keepBytes = keep; }
  void SetCheck(std::function<bool(uint32_t part, const uint8_t*, size_t)> check) { m_check = std::move(check); }
  int CheckFailures() const { return m_checkFailures.load(); }
  // Called at each upload with the library's live bytes (peak memory).
  void SetProbe(std::function<void()> probe) { m_probe = std::move(probe); }

  void PutObject(const std::string& name, std::vector<uint8_t> bytes);
  bool GetObject(const std::string& name, std::vector<uint8_t>* bytes) const;
  std::string ETagOf(const std::string& name) const;

  std::vector<RecordedCall> Calls() const;
  int Count(RecOp op) const;
  std::map<std::string, RecordedUpload> Uploads() const;
  // Uploads neither finished nor aborted: parts a real service would bill.
  int OpenUploads() const;
  uint32_t PartSizeSeen() const { return m_partSizeSeen.load(); }

  // ---- used by the connector ----------------------------------------------
  // The rule a request meets, after counting it; null when none.
  bool Match(RecOp op, uint32_t part, uint64_t offset, FaultRule* hit);
  void Record(const RecordedCall& call);
  int Verify();
  int Start(const std::string& name, std::string* uploadId);
  int StorePart(const std::string& uploadId, uint32_t part, const uint8_t* data, size_t size, std::string* etag);
  int Finish(const std::string& uploadId, const std::vector<CloudPartSpec>& parts);
  int Abort(const std::string& uploadId);
  int StoreWhole(const std::string& name, const uint8_t* data, size_t size, std::string* etag);
  int Read(const std::string& name, uint64_t offset, uint8_t* buffer, uint32_t length, const std::string& etag,
           uint32_t* received);
  int Head(const std::string& name, TCloudMetaData* meta) const;
  void Probe() {
    if (m_probe) m_probe();
  }

 private:
  struct Object {
    std::vector<uint8_t> bytes;
    uint64_t size = 0;
    std::string etag;
  };

  mutable std::mutex m_lock;
  std::vector<FaultRule> m_rules;
  std::vector<RecordedCall> m_calls;
  std::map<std::string, Object> m_objects;
  std::map<std::string, RecordedUpload> m_uploads;
  int m_verifyAnswer = 0;
  int m_nextUpload = 0;
  int m_nextTag = 0;
  bool m_keepBytes = true;
  std::function<bool(uint32_t, const uint8_t*, size_t)> m_check;
  std::atomic<int> m_checkFailures{0};
  std::function<void()> m_probe;
  std::atomic<uint32_t> m_partSizeSeen{0};
};

class TRecordingConn : public TCloudConn {
 public:
  TRecordingConn(const TCloudOptions& options, std::shared_ptr<RecordingService> service);

  const char16_t* Name() const override { return u"TRecordingConn"; }
  void ReadSettings() override;

  int Verify() override;
  int ObjectExists(const TString& name, TCloudMetaData* meta, bool quiet) override;
  int NewPartConn(std::shared_ptr<TCloudConn>* out) override;
  int StartMultiPartUpload(const TString& name, const TCloudMetaData* meta, std::string* uploadId) override;
  int FinishMultiPartUpload(const TString& name, const std::string& uploadId,
                            const std::vector<CloudPartSpec>& parts) override;
  int AbortMultiPartUpload(const TString& name, const std::string& uploadId) override;
  int DownloadBytes(const CloudDownloadSpec& fetch, uint8_t* buffer, uint32_t length, uint32_t* received) override;
  int UploadBytes(const CloudUploadSpec& put, const uint8_t* data, size_t size, std::string* etag) override;
  int put_ObjectLock(const TString& name, const TDate& retainUntil) override;

  uint32_t MinPartSize() const override { return m_minPartSize; }
  uint32_t MaxParts() const override { return m_maxParts; }
  // Fixed settings: ReadSettings then leaves them as set here (tests use
  // part sizes below what the settings allow).
  void FixSettings(uint32_t partSize, uint32_t upThreads, uint32_t downThreads, uint32_t downloadTier);
  void SetMinPartSize(uint32_t size) { m_minPartSize = size; }
  void SetMaxParts(uint32_t parts) { m_maxParts = parts; }
  // Download parts of `size` bytes instead of the tier's.
  void SetDownloadPartSize(uint32_t size) { m_downloadPartSize = size; }
  uint32_t DownloadPartSize() const override {
    return m_downloadPartSize != 0 ? m_downloadPartSize : TCloudConn::DownloadPartSize();
  }

 private:
  // Sleeps and answers the matching rule's code; 0 when the request goes on.
  int Fault(RecOp op, uint32_t part, uint64_t offset, FaultRule* hit);
  // Moves `size` bytes through the tap; kErrAborted when it answers false.
  static int Move(TCloudTap* tap, uint64_t size);

  std::shared_ptr<RecordingService> m_service;
  bool m_fixed = false;
  uint32_t m_minPartSize = 0;
  uint32_t m_maxParts = 10000;
  uint32_t m_downloadPartSize = 0;
};

#endif  // PLINTH_TESTS_RECORDING_CONN_H_
