#include "cloud/cloud_write_file.h"

#include <algorithm>
#include <cstring>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/memory.h"

TCloudPartBuffer::TCloudPartBuffer(uint32_t capacity)
    : m_data(static_cast<uint8_t*>(MemAlloc(capacity))), m_capacity(capacity) {}

TCloudPartBuffer::~TCloudPartBuffer() { MemFree(m_data); }

namespace {

// The part size for an object of `sizeHint` bytes (0: unknown).
uint32_t ChoosePartSize(const TCloudConn& conn, uint64_t sizeHint) {
  uint64_t size = std::max<uint64_t>(conn.PartSize(), conn.MinPartSize());
  if (size == 0) size = kCloudDefaultPartSize;
  uint64_t maxParts = std::max<uint32_t>(conn.MaxParts(), 1);
  if (sizeHint > size * maxParts) {
    uint64_t need = (sizeHint + maxParts - 1) / maxParts;
    size = (need + kCloudMiB - 1) / kCloudMiB * kCloudMiB;
  }
  constexpr uint64_t kLargest = uint64_t{4095} * kCloudMiB;
  return static_cast<uint32_t>(std::min(size, kLargest));
}

}  // namespace

TCloudWriteFile::TCloudWriteFile(const CloudFileSpec& setup, const TString& name, const TCloudMetaData* meta,
                                 uint64_t sizeHint, const TDate& retainUntil, bool holdFirstPart)
    : m_spec(setup),
      m_name(name),
      m_hasMeta(meta != nullptr),
      m_retainUntil(retainUntil),
      m_partSize(ChoosePartSize(*setup.conn, sizeHint)),
      m_threads(std::clamp<uint32_t>(setup.conn->UploadThreads(), 1, 16)),
      m_maxParts(std::max<uint32_t>(setup.conn->MaxParts(), 1)),
      m_holdFirst(holdFirstPart),
      m_transfer(true, sizeHint, setup.progress, setup.context, setup.clock, &CloudUploadLimiter()) {
  if (meta != nullptr) m_meta = *meta;
}

TCloudWriteFile::~TCloudWriteFile() {
  if (!m_finished) Abort();
}

int TCloudWriteFile::Fail(int code) {
  {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_failure == 0) m_failure = code;
    code = m_failure;
  }
  m_transfer.Stop();
  m_wake.notify_all();
  return code;
}

int TCloudWriteFile::Write(const void* data, uint64_t size) {
  if (m_finished) {
    LogLineChecked(514, u"TCloudBucket::WriteToFile: %s is closed, %E", &m_name, kErrNotPossible);
    return kErrNotPossible;
  }
  if (data == nullptr && size > 0) {
    LogLineChecked(514, u"TCloudBucket::WriteToFile: no data, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  while (size > 0) {
    {
      std::lock_guard<std::mutex> guard(m_lock);
      if (m_failure != 0) return m_failure;
    }
    if (m_fill && m_fill->size == m_partSize) {
      int code = Submit();
      if (code != 0) return code;
    }
    if (!m_fill) {
      int code = TakeFreeBuffer(&m_fill);
      if (code != 0) return code;
    }
    uint32_t room = m_partSize - m_fill->size;
    uint32_t n = size < room ? static_cast<uint32_t>(size) : room;
    std::memcpy(m_fill->Data() + m_fill->size, bytes, n);
    m_fill->size += n;
    bytes += n;
    size -= n;
    m_written += n;
  }
  m_transfer.GrowTotal(m_written);
  return 0;
}

int TCloudWriteFile::TakeFreeBuffer(std::unique_ptr<TCloudPartBuffer>* out) {
  std::unique_lock<std::mutex> guard(m_lock);
  // One buffer fills while each upload thread has one in flight (and one
  // more waits as the held first part).
  uint32_t most = m_threads + 1 + (m_holdFirst ? 1 : 0);
  while (m_failure == 0 && m_free.empty() && m_buffers >= most) m_wake.wait(guard);
  if (m_failure != 0) return m_failure;
  if (!m_free.empty()) {
    *out = std::move(m_free.back());
    m_free.pop_back();
    (*out)->size = 0;
    return 0;
  }
  ++m_buffers;
  guard.unlock();
  *out = std::make_unique<TCloudPartBuffer>(m_partSize);
  return 0;
}

int TCloudWriteFile::Submit() {
  if (m_uploadId.empty()) {
    int code = StartMultipart();
    if (code != 0) return Fail(code);
  }
  if (m_partCount >= m_maxParts) {
    LogLineChecked(514, u"TCloudBucket::WriteToFile: %s needs more than %~u parts of %~u bytes, %E", &m_name,
                   m_maxParts, m_partSize, kErrFileTooLarge);
    return Fail(kErrFileTooLarge);
  }
  m_fill->number = ++m_partCount;
  if (m_holdFirst && m_fill->number == 1) {
    m_head = std::move(m_fill);
    return 0;
  }
  Queue(std::move(m_fill));
  return 0;
}

void TCloudWriteFile::Queue(std::unique_ptr<TCloudPartBuffer> part) {
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_queue.push_back(std::move(part));
  }
  m_wake.notify_all();
}

int TCloudWriteFile::Rewrite(uint64_t offset, const void* data, uint64_t size) {
  if (m_finished) {
    LogLineChecked(514, u"TCloudBucket::RewriteFile: %s is closed, %E", &m_name, kErrNotPossible);
    return kErrNotPossible;
  }
  {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_failure != 0) return m_failure;
  }
  // Before part 1 is full it is still the buffer being filled.
  TCloudPartBuffer* head = m_head ? m_head.get() : (m_partCount == 0 ? m_fill.get() : nullptr);
  uint64_t held = m_holdFirst && head != nullptr ? head->size : 0;
  if (offset > held || size > held - offset || (data == nullptr && size > 0)) {
    LogLineChecked(514,
                   u"TCloudBucket::RewriteFile: %s: %~lu bytes at %~lu are not in the held first part (%~lu bytes), %E",
                   &m_name, size, offset, held, kErrNotPossible);
    return kErrNotPossible;
  }
  if (size > 0) std::memcpy(head->Data() + offset, data, static_cast<size_t>(size));
  return 0;
}

int TCloudWriteFile::StartMultipart() {
  TCloudConn* conn = m_spec.conn.get();
  int code = CloudRetry(
      m_spec.retry, m_spec.clock, u"TCloudBucket::WriteToFile",
      [&](uint32_t) { return conn->StartMultiPartUpload(m_name, m_hasMeta ? &m_meta : nullptr, &m_uploadId); },
      [&] { return m_transfer.Stopped(); });
  if (code == 0 && m_uploadId.empty()) code = kErrInvalidData;
  if (code != 0) {
    m_uploadId.clear();
    LogLineChecked(514, u"TCloudBucket::WriteToFile: cannot start the upload of %s, %E", &m_name, code);
    return code;
  }
  for (uint32_t i = 0; i < m_threads; ++i) {
    std::shared_ptr<TCloudConn> partConn;
    code = conn->NewPartConn(&partConn);
    if (code == 0 && !partConn) code = kErrNotSupported;
    if (code != 0) {
      LogLineChecked(514, u"TCloudBucket::WriteToFile: no part connection for %s, %E", &m_name, code);
      // The upload exists now: Close or Abort takes it down.
      return code;
    }
    m_workers.emplace_back([this, partConn] { Worker(partConn); });
  }
  return 0;
}

void TCloudWriteFile::Worker(std::shared_ptr<TCloudConn> conn) {
  std::unique_lock<std::mutex> guard(m_lock);
  for (;;) {
    while (!m_quit && m_failure == 0 && m_queue.empty()) m_wake.wait(guard);
    if (m_quit || m_failure != 0) return;
    std::unique_ptr<TCloudPartBuffer> part = std::move(m_queue.front());
    m_queue.pop_front();
    ++m_inFlight;
    guard.unlock();
    std::string etag;
    int code = UploadPart(conn.get(), part.get(), &etag);
    guard.lock();
    --m_inFlight;
    if (code == 0) {
      m_done.push_back(CloudPartSpec{part->number, etag, part->size});
    } else if (m_failure == 0) {
      m_failure = code;
      m_transfer.Stop();
    }
    m_free.push_back(std::move(part));
    m_wake.notify_all();
  }
}

int TCloudWriteFile::UploadPart(TCloudConn* conn, TCloudPartBuffer* part, std::string* etag) {
  CloudUploadSpec put;
  put.name = m_name;
  put.uploadId = m_uploadId;
  put.partNumber = part->number;
  int code = CloudRetry(
      m_spec.retry, m_spec.clock, u"TCloudBucket::WriteToFile",
      [&](uint32_t) {
        TCloudAttemptTap tap(&m_transfer);
        put.tap = &tap;
        etag->clear();
        int rc = conn->UploadBytes(put, part->Data(), part->size, etag);
        if (rc == 0 && etag->empty()) rc = kErrInvalidData;
        if (rc != 0) tap.Undo();
        return rc;
      },
      [&] { return m_transfer.Stopped(); });
  if (code != 0 && m_transfer.Cancelled()) code = kErrAborted;
  if (code != 0) {
    LogLineChecked(514, u"TCloudBucket::WriteToFile: part %~u of %s failed, %E", part->number, &m_name, code);
  }
  return code;
}

int TCloudWriteFile::UploadWhole() {
  CloudUploadSpec put;
  put.name = m_name;
  put.meta = m_hasMeta ? &m_meta : nullptr;
  const uint8_t* data = m_fill ? m_fill->Data() : nullptr;
  uint32_t size = m_fill ? m_fill->size : 0;
  TCloudConn* conn = m_spec.conn.get();
  int code = CloudRetry(
      m_spec.retry, m_spec.clock, u"TCloudBucket::CloseFile",
      [&](uint32_t) {
        TCloudAttemptTap tap(&m_transfer);
        put.tap = &tap;
        std::string etag;
        int rc = conn->UploadBytes(put, data, size, &etag);
        if (rc != 0) tap.Undo();
        return rc;
      },
      [&] { return m_transfer.Stopped(); });
  if (code != 0 && m_transfer.Cancelled()) code = kErrAborted;
  if (code != 0) LogLineChecked(514, u"TCloudBucket::CloseFile: cannot store %s, %E", &m_name, code);
  return code;
}

int TCloudWriteFile::Close() {
  if (m_finished) {
    LogLineChecked(514, u"TCloudBucket::CloseFile: %s is closed, %E", &m_name, kErrNotPossible);
    return kErrNotPossible;
  }
  int code = 0;
  {
    std::lock_guard<std::mutex> guard(m_lock);
    code = m_failure;
  }
  if (code == 0 && m_uploadId.empty()) {
    code = UploadWhole();
    if (code == 0) code = LockObject();
    if (code == 0) m_transfer.Finish();
    m_finished = true;
    m_fill.reset();
    return code;
  }
  if (code == 0 && m_fill && m_fill->size > 0) code = Submit();
  // The held first part goes last: its bytes are final only now.
  if (code == 0 && m_head) Queue(std::move(m_head));
  if (code == 0) {
    std::unique_lock<std::mutex> guard(m_lock);
    while (m_failure == 0 && (!m_queue.empty() || m_inFlight > 0)) m_wake.wait(guard);
    code = m_failure;
  }
  StopWorkers();
  if (code == 0) code = Complete();
  if (code != 0) {
    AbortUpload();
    m_finished = true;
    return code;
  }
  m_finished = true;
  code = LockObject();
  if (code == 0) m_transfer.Finish();
  return code;
}

int TCloudWriteFile::Complete() {
  std::sort(m_done.begin(), m_done.end(),
            [](const CloudPartSpec& a, const CloudPartSpec& b) { return a.number < b.number; });
  for (size_t i = 0; i < m_done.size(); ++i) {
    if (m_done[i].number != i + 1 || m_done.size() != m_partCount) {
      LogLineChecked(518, u"TCloudBucket::CloseFile: %s has %~u parts done of %~u, %E", &m_name,
                     static_cast<uint32_t>(m_done.size()), m_partCount, kErrInvalidData);
      return kErrInvalidData;
    }
  }
  TCloudConn* conn = m_spec.conn.get();
  int code = CloudRetry(
      m_spec.retry, m_spec.clock, u"TCloudBucket::CloseFile",
      [&](uint32_t) { return conn->FinishMultiPartUpload(m_name, m_uploadId, m_done); }, [] { return false; });
  if (code != 0) LogLineChecked(514, u"TCloudBucket::CloseFile: cannot complete %s, %E", &m_name, code);
  return code;
}

int TCloudWriteFile::LockObject() {
  if (m_retainUntil.IsDefault()) return 0;
  TCloudConn* conn = m_spec.conn.get();
  int code = CloudRetry(
      m_spec.retry, m_spec.clock, u"TCloudBucket::CloseFile",
      [&](uint32_t) { return conn->put_ObjectLock(m_name, m_retainUntil); }, [] { return false; });
  if (code != 0) LogLineChecked(514, u"TCloudBucket::CloseFile: cannot lock %s, %E", &m_name, code);
  return code;
}

void TCloudWriteFile::StopWorkers() {
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_quit = true;
  }
  m_wake.notify_all();
  for (std::thread& worker : m_workers) worker.join();
  m_workers.clear();
}

int TCloudWriteFile::AbortUpload() {
  if (m_uploadId.empty()) return 0;
  TCloudConn* conn = m_spec.conn.get();
  int code = CloudRetry(
      m_spec.retry, m_spec.clock, u"TCloudBucket::DeleteWriteBuf",
      [&](uint32_t) { return conn->AbortMultiPartUpload(m_name, m_uploadId); }, [] { return false; });
  if (code != 0) {
    LogLineChecked(514, u"TCloudBucket::DeleteWriteBuf: the parts of %s may remain on the service, %E", &m_name, code);
  }
  m_uploadId.clear();
  return code;
}

int TCloudWriteFile::Abort() {
  if (m_finished) return 0;
  m_finished = true;
  Fail(kErrAborted);
  StopWorkers();
  m_fill.reset();
  return AbortUpload();
}
