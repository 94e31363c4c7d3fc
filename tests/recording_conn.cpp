#include "tests/recording_conn.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "foundation/errors.h"

namespace {

constexpr uint64_t kRun = 64 * 1024;

std::string Utf8(const TString& s) { return TStringAsString(s); }

RecordedCall Call(RecOp op, const std::string& name = std::string(), uint32_t part = 0, uint64_t offset = 0,
                  uint64_t size = 0) {
  RecordedCall call;
  call.op = op;
  call.name = name;
  call.part = part;
  call.offset = offset;
  call.size = size;
  return call;
}

}  // namespace

void RecordingService::AddFault(const FaultRule& rule) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_rules.push_back(rule);
}

bool RecordingService::Match(RecOp op, uint32_t part, uint64_t offset, FaultRule* hit) {
  std::lock_guard<std::mutex> guard(m_lock);
  for (FaultRule& rule : m_rules) {
    if (rule.op != op || rule.times == 0) continue;
    if (rule.part != 0 && rule.part != part) continue;
    if (rule.offset >= 0 && static_cast<uint64_t>(rule.offset) != offset) continue;
    *hit = rule;
    if (rule.times > 0) --rule.times;
    return true;
  }
  return false;
}

void RecordingService::Record(const RecordedCall& call) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_calls.push_back(call);
}

std::vector<RecordedCall> RecordingService::Calls() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return m_calls;
}

int RecordingService::Count(RecOp op) const {
  std::lock_guard<std::mutex> guard(m_lock);
  int n = 0;
  for (const RecordedCall& call : m_calls) n += call.op == op ? 1 : 0;
  return n;
}

std::map<std::string, RecordedUpload> RecordingService::Uploads() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return m_uploads;
}

int RecordingService::OpenUploads() const {
  std::lock_guard<std::mutex> guard(m_lock);
  int n = 0;
  for (const auto& [id, upload] : m_uploads) n += !upload.finished && !upload.aborted ? 1 : 0;
  return n;
}

void RecordingService::PutObject(const std::string& name, std::vector<uint8_t> bytes) {
  std::lock_guard<std::mutex> guard(m_lock);
  Object& object = m_objects[name];
  object.size = bytes.size();
  object.bytes = std::move(bytes);
  object.etag = "\"tag" + std::to_string(++m_nextTag) + "\"";
}

bool RecordingService::GetObject(const std::string& name, std::vector<uint8_t>* bytes) const {
  std::lock_guard<std::mutex> guard(m_lock);
  auto it = m_objects.find(name);
  if (it == m_objects.end()) return false;
  *bytes = it->second.bytes;
  return true;
}

std::string RecordingService::ETagOf(const std::string& name) const {
  std::lock_guard<std::mutex> guard(m_lock);
  auto it = m_objects.find(name);
  return it == m_objects.end() ? std::string() : it->second.etag;
}

int RecordingService::Verify() { return m_verifyAnswer; }

int RecordingService::Start(const std::string& name, std::string* uploadId) {
  std::lock_guard<std::mutex> guard(m_lock);
  *uploadId = "upload-" + std::to_string(++m_nextUpload);
  m_uploads[*uploadId].name = name;
  return 0;
}

int RecordingService::StorePart(const std::string& uploadId, uint32_t part, const uint8_t* data, size_t size,
                                std::string* etag) {
  if (m_check && !m_check(part, data, size)) m_checkFailures.fetch_add(1);
  std::unique_lock<std::mutex> guard(m_lock);
  auto it = m_uploads.find(uploadId);
  if (it == m_uploads.end() || it->second.finished || it->second.aborted) return kErrNotFound;
  uint32_t seen = m_partSizeSeen.load();
  if (size > seen) m_partSizeSeen.store(static_cast<uint32_t>(size));
  if (m_keepBytes) {
    it->second.parts[part].assign(data, data + size);
  } else {
    it->second.parts[part].clear();
  }
  *etag = "\"part" + std::to_string(part) + "-" + std::to_string(size) + "\"";
  return 0;
}

int RecordingService::Finish(const std::string& uploadId, const std::vector<CloudPartSpec>& parts) {
  std::lock_guard<std::mutex> guard(m_lock);
  auto it = m_uploads.find(uploadId);
  if (it == m_uploads.end() || it->second.finished || it->second.aborted) return kErrNotFound;
  RecordedUpload& upload = it->second;
  upload.completedWith = parts;
  Object object;
  for (const CloudPartSpec& part : parts) {
    auto stored = upload.parts.find(part.number);
    if (stored == upload.parts.end()) return kErrBadParameter;
    if (part.etag != "\"part" + std::to_string(part.number) + "-" + std::to_string(part.size) + "\"") {
      return kErrBadParameter;
    }
    object.bytes.insert(object.bytes.end(), stored->second.begin(), stored->second.end());
    object.size += part.size;
  }
  upload.finished = true;
  object.etag = "\"tag" + std::to_string(++m_nextTag) + "-" + std::to_string(parts.size()) + "\"";
  m_objects[upload.name] = std::move(object);
  return 0;
}

int RecordingService::Abort(const std::string& uploadId) {
  std::lock_guard<std::mutex> guard(m_lock);
  auto it = m_uploads.find(uploadId);
  if (it == m_uploads.end()) return kErrNotFound;
  it->second.aborted = true;
  it->second.parts.clear();
  return 0;
}

int RecordingService::StoreWhole(const std::string& name, const uint8_t* data, size_t size, std::string* etag) {
  if (m_check && !m_check(0, data, size)) m_checkFailures.fetch_add(1);
  std::lock_guard<std::mutex> guard(m_lock);
  Object& object = m_objects[name];
  object.size = size;
  if (m_keepBytes) {
    object.bytes.assign(data, data + size);
  } else {
    object.bytes.clear();
  }
  object.etag = "\"tag" + std::to_string(++m_nextTag) + "\"";
  *etag = object.etag;
  return 0;
}

int RecordingService::Read(const std::string& name, uint64_t offset, uint8_t* buffer, uint32_t length,
                           const std::string& etag, uint32_t* received) {
  std::lock_guard<std::mutex> guard(m_lock);
  auto it = m_objects.find(name);
  if (it == m_objects.end()) return kErrNotFound;
  if (!etag.empty() && etag != it->second.etag) return kErrBadParameter;
  const std::vector<uint8_t>& bytes = it->second.bytes;
  if (offset >= bytes.size()) return kErrBadParameter;
  uint64_t n = std::min<uint64_t>(length, bytes.size() - offset);
  std::memcpy(buffer, bytes.data() + offset, static_cast<size_t>(n));
  *received = static_cast<uint32_t>(n);
  return 0;
}

int RecordingService::Head(const std::string& name, TCloudMetaData* meta) const {
  std::lock_guard<std::mutex> guard(m_lock);
  auto it = m_objects.find(name);
  if (it == m_objects.end()) return kErrNotFound;
  if (meta != nullptr) {
    meta->Reset();
    meta->SetHeader("Content-Length", std::to_string(it->second.size));
    meta->SetHeader("ETag", it->second.etag);
  }
  return 0;
}

TRecordingConn::TRecordingConn(const TCloudOptions& options, std::shared_ptr<RecordingService> service)
    : TCloudConn(options), m_service(std::move(service)) {}

void TRecordingConn::FixSettings(uint32_t partSize, uint32_t upThreads, uint32_t downThreads, uint32_t downloadTier) {
  m_fixed = true;
  m_partSize = partSize;
  m_uploadThreads = upThreads;
  m_downloadThreads = downThreads;
  m_downloadTier = downloadTier;
}

void TRecordingConn::ReadSettings() {
  if (m_fixed) return;
  ReadMaxTransferMB();
  ReadUploadThreads();
  ReadDownloadThreads();
  ReadDownloadPartSizeTier();
}

int TRecordingConn::Fault(RecOp op, uint32_t part, uint64_t offset, FaultRule* hit) {
  *hit = FaultRule();
  if (!m_service->Match(op, part, offset, hit)) return 0;
  if (hit->delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(hit->delayMs));
  return hit->afterBytes ? 0 : hit->code;
}

int TRecordingConn::Move(TCloudTap* tap, uint64_t size) {
  if (tap == nullptr) return 0;
  for (uint64_t done = 0; done < size;) {
    uint64_t n = std::min(kRun, size - done);
    if (!tap->Moved(n)) return kErrAborted;
    done += n;
  }
  return 0;
}

int TRecordingConn::Verify() {
  RecordedCall call = Call(RecOp::kVerify);
  FaultRule hit;
  call.result = Fault(RecOp::kVerify, 0, 0, &hit);
  if (call.result == 0) call.result = m_service->Verify();
  m_service->Record(call);
  return call.result;
}

int TRecordingConn::ObjectExists(const TString& name, TCloudMetaData* meta, bool) {
  RecordedCall call = Call(RecOp::kExists, Utf8(name));
  FaultRule hit;
  call.result = Fault(RecOp::kExists, 0, 0, &hit);
  if (call.result == 0) call.result = m_service->Head(call.name, meta);
  m_service->Record(call);
  return call.result;
}

int TRecordingConn::NewPartConn(std::shared_ptr<TCloudConn>* out) {
  RecordedCall call = Call(RecOp::kNewPart);
  FaultRule hit;
  call.result = Fault(RecOp::kNewPart, 0, 0, &hit);
  m_service->Record(call);
  if (call.result != 0) return call.result;
  auto conn = std::make_shared<TRecordingConn>(m_options, m_service);
  conn->CopySettings(*this);
  conn->m_fixed = m_fixed;
  conn->m_minPartSize = m_minPartSize;
  conn->m_maxParts = m_maxParts;
  conn->m_downloadPartSize = m_downloadPartSize;
  *out = conn;
  return 0;
}

int TRecordingConn::StartMultiPartUpload(const TString& name, const TCloudMetaData*, std::string* uploadId) {
  RecordedCall call = Call(RecOp::kStart, Utf8(name));
  FaultRule hit;
  call.result = Fault(RecOp::kStart, 0, 0, &hit);
  if (call.result == 0) call.result = m_service->Start(call.name, uploadId);
  m_service->Record(call);
  return call.result;
}

int TRecordingConn::FinishMultiPartUpload(const TString& name, const std::string& uploadId,
                                          const std::vector<CloudPartSpec>& parts) {
  RecordedCall call = Call(RecOp::kFinish, Utf8(name));
  FaultRule hit;
  call.result = Fault(RecOp::kFinish, 0, 0, &hit);
  if (call.result == 0) call.result = m_service->Finish(uploadId, parts);
  m_service->Record(call);
  return call.result;
}

int TRecordingConn::AbortMultiPartUpload(const TString& name, const std::string& uploadId) {
  RecordedCall call = Call(RecOp::kAbort, Utf8(name));
  FaultRule hit;
  call.result = Fault(RecOp::kAbort, 0, 0, &hit);
  if (call.result == 0) call.result = m_service->Abort(uploadId);
  m_service->Record(call);
  return call.result;
}

int TRecordingConn::UploadBytes(const CloudUploadSpec& put, const uint8_t* data, size_t size, std::string* etag) {
  RecordedCall call = Call(RecOp::kUpload, Utf8(put.name), put.partNumber, 0, size);
  m_service->Probe();
  FaultRule hit;
  call.result = Fault(RecOp::kUpload, put.partNumber, 0, &hit);
  if (call.result == 0) call.result = Move(put.tap, size);
  if (call.result == 0 && hit.afterBytes) call.result = hit.code;
  if (call.result == 0) {
    call.result = put.uploadId.empty() ? m_service->StoreWhole(call.name, data, size, etag)
                                        : m_service->StorePart(put.uploadId, put.partNumber, data, size, etag);
  }
  m_service->Record(call);
  return call.result;
}

int TRecordingConn::DownloadBytes(const CloudDownloadSpec& fetch, uint8_t* buffer, uint32_t length,
                                  uint32_t* received) {
  RecordedCall call = Call(RecOp::kDownload, Utf8(fetch.name), 0, fetch.offset, length);
  *received = 0;
  FaultRule hit;
  call.result = Fault(RecOp::kDownload, 0, fetch.offset, &hit);
  if (call.result == 0) call.result = m_service->Read(call.name, fetch.offset, buffer, length, fetch.etag, received);
  if (call.result == 0) call.result = Move(fetch.tap, *received);
  if (call.result == 0 && hit.afterBytes) call.result = hit.code;
  if (call.result == 0) *received = static_cast<uint32_t>(static_cast<int64_t>(*received) + hit.receivedDelta);
  m_service->Record(call);
  return call.result;
}

int TRecordingConn::put_ObjectLock(const TString& name, const TDate& retainUntil) {
  RecordedCall call = Call(RecOp::kLock, Utf8(name));
  FaultRule hit;
  call.result = Fault(RecOp::kLock, 0, 0, &hit);
  if (call.result == 0 && retainUntil.IsDefault()) call.result = kErrBadParameter;
  m_service->Record(call);
  return call.result;
}
