#include "cloud/cloud_read_file.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>

#include "cloud/cloud_text.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"

namespace {

// An attempt's tap that also answers false once `stopped` says so, so a
// request of a window that moved on ends at its next bytes.
class StoppableTap : public TCloudTap {
 public:
  StoppableTap(TCloudTransfer* transfer, std::function<bool()> stopped)
      : m_inner(transfer), m_stopped(std::move(stopped)) {}
  bool Moved(uint64_t bytes) override { return !m_stopped() && m_inner.Moved(bytes); }
  void Undo() { m_inner.Undo(); }

 private:
  TCloudAttemptTap m_inner;
  std::function<bool()> m_stopped;
};

// One range into `dest`, tried again as the retry rules allow.
int DownloadRange(TCloudConn* conn, const CloudFileSpec& setup, TCloudTransfer* transfer, const TString& name,
                  const std::string& etag, uint64_t offset, uint32_t length, uint8_t* dest,
                  const std::function<bool()>& stopped) {
  CloudDownloadSpec request;
  request.name = name;
  request.offset = offset;
  request.etag = etag;
  std::function<bool()> halted = [&] { return stopped() || transfer->Stopped(); };
  int code = CloudRetry(
      setup.retry, setup.clock, u"TCloudBucket::ReadFile",
      [&](uint32_t) {
        StoppableTap tap(transfer, halted);
        request.tap = &tap;
        uint32_t received = 0;
        int rc = conn->DownloadBytes(request, dest, length, &received);
        if (rc == 0 && received != length) {
          LogLineChecked(514, u"TCloudBucket::ReadFile: %s from %~lu: %~u bytes came, not %~u, %E", &name, offset,
                         received, length, kErrInvalidData);
          rc = kErrInvalidData;
        }
        if (rc != 0) tap.Undo();
        return rc;
      },
      halted);
  if (code != 0 && transfer->Cancelled()) code = kErrAborted;
  if (code != 0 && !stopped()) {
    LogLineChecked(514, u"TCloudBucket::ReadFile: %s from %~lu failed, %E", &name, offset, code);
  }
  return code;
}


}  // namespace

int CloudObjectSize(const CloudFileSpec& setup, const TString& name, const char16_t* what, uint64_t* size,
                    std::string* etag) {
  TCloudMetaData meta;
  TCloudConn* conn = setup.conn.get();
  int code = CloudRetry(
      setup.retry, setup.clock, what, [&](uint32_t) { return conn->ObjectExists(name, &meta, false); },
      [] { return false; });
  TString op(what);
  if (code != 0) {
    LogLineChecked(514, u"%s: cannot reach %s, %E", &op, &name, code);
    return code;
  }
  if (!CloudParseDecimal(meta.GetHeader("Content-Length"), size)) {
    LogLineChecked(514, u"%s: %s has no size, %E", &op, &name, kErrInvalidData);
    return kErrInvalidData;
  }
  if (etag != nullptr) *etag = meta.GetHeader("ETag");
  return 0;
}

TCloudReadFile::TCloudReadFile(const CloudFileSpec& setup, const TString& name)
    : m_spec(setup),
      m_name(name),
      m_partSize(std::max<uint32_t>(setup.conn->DownloadPartSize(), 1)),
      m_threads(std::clamp<uint32_t>(setup.conn->DownloadThreads(), 1, 16)) {}

TCloudReadFile::~TCloudReadFile() {
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_quit = true;
    for (uint64_t i = 0; i < m_slotCount; ++i) m_slots[i].ticket.fetch_add(1);
  }
  if (m_transfer) m_transfer->Stop();
  m_wake.notify_all();
  for (std::thread& worker : m_workers) worker.join();
}

int TCloudReadFile::Open() {
  int code = CloudObjectSize(m_spec, m_name, u"TCloudBucket::ReadFile", &m_size, &m_etag);
  if (code != 0) return code;
  m_partCount = (m_size + m_partSize - 1) / m_partSize;
  m_slotCount = std::min<uint64_t>(m_threads + 1, std::max<uint64_t>(m_partCount, 1));
  m_slots = std::make_unique<Slot[]>(static_cast<size_t>(m_slotCount));
  m_transfer = std::make_unique<TCloudTransfer>(false, m_size, m_spec.progress, m_spec.context, m_spec.clock,
                                                &CloudDownloadLimiter());
  m_open = true;
  return 0;
}

uint32_t TCloudReadFile::PartLength(uint64_t part) const {
  uint64_t start = part * m_partSize;
  return static_cast<uint32_t>(std::min<uint64_t>(m_partSize, m_size - start));
}

void TCloudReadFile::StartWorkers() {
  uint64_t count = std::min<uint64_t>(m_threads, m_partCount);
  for (uint64_t i = 0; i < count; ++i) {
    std::shared_ptr<TCloudConn> conn;
    int code = m_spec.conn->NewPartConn(&conn);
    if (code != 0 || !conn) {
      LogLineChecked(514, u"TCloudBucket::ReadFile: no part connection for %s, %E", &m_name,
                     code != 0 ? code : kErrNotSupported);
      if (i > 0) break;
      // The file's own connection serves as the one worker.
      conn = m_spec.conn;
    }
    m_workers.emplace_back([this, conn] { Worker(conn); });
  }
}

void TCloudReadFile::Assign(Slot& slot, uint64_t part) {
  slot.ticket.fetch_add(1);
  slot.part = part;
  slot.code = 0;
  slot.state = part < m_partCount ? State::kPending : State::kEmpty;
}

void TCloudReadFile::SetWindow(uint64_t start) {
  m_windowStart = start;
  for (uint64_t k = start; k < start + m_slotCount; ++k) {
    Slot& slot = SlotOf(k);
    if (slot.part != k) Assign(slot, k);
  }
  m_wake.notify_all();
}

void TCloudReadFile::Worker(std::shared_ptr<TCloudConn> conn) {
  std::unique_lock<std::mutex> guard(m_lock);
  for (;;) {
    Slot* next = nullptr;
    while (!m_quit) {
      for (uint64_t i = 0; i < m_slotCount; ++i) {
        Slot& slot = m_slots[i];
        if (slot.state == State::kPending && (next == nullptr || slot.part < next->part)) next = &slot;
      }
      if (next != nullptr) break;
      m_wake.wait(guard);
    }
    if (m_quit) return;
    next->state = State::kLoading;
    uint64_t part = next->part;
    uint64_t ticket = next->ticket.load();
    uint32_t length = PartLength(part);
    std::unique_ptr<TCloudPartBuffer> buffer = std::move(next->buffer);
    if (!buffer && !m_spares.empty()) {
      buffer = std::move(m_spares.back());
      m_spares.pop_back();
    }
    guard.unlock();
    if (!buffer) buffer = std::make_unique<TCloudPartBuffer>(static_cast<uint32_t>(std::min<uint64_t>(m_partSize, m_size)));
    std::atomic<uint64_t>& current = next->ticket;
    std::function<bool()> stale = [&current, ticket] { return current.load() != ticket; };
    int code = DownloadRange(conn.get(), m_spec, m_transfer.get(), m_name, m_etag, part * m_partSize, length,
                             buffer->Data(), stale);
    guard.lock();
    if (stale()) {
      m_spares.push_back(std::move(buffer));
    } else {
      next->buffer = std::move(buffer);
      next->state = code == 0 ? State::kReady : State::kFailed;
      next->code = code;
      next->length = length;
    }
    m_wake.notify_all();
  }
}

int TCloudReadFile::Read(uint64_t offset, void* buffer, uint64_t size, uint64_t* got) {
  *got = 0;
  if (!m_open) {
    LogLineChecked(514, u"TCloudBucket::ReadFile: %s is not open, %E", &m_name, kErrNotPossible);
    return kErrNotPossible;
  }
  if (size == 0) return 0;
  if (offset >= m_size) return kErrEndOfFile;
  if (buffer == nullptr) {
    LogLineChecked(514, u"TCloudBucket::ReadFile: no buffer, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  if (m_workers.empty()) StartWorkers();
  uint8_t* out = static_cast<uint8_t*>(buffer);
  uint64_t end = std::min(m_size, offset + std::min<uint64_t>(size, m_size));
  uint64_t pos = offset;
  std::unique_lock<std::mutex> guard(m_lock);
  while (pos < end) {
    uint64_t part = pos / m_partSize;
    if (part < m_windowStart || part >= m_windowStart + m_slotCount || SlotOf(part).part != part) SetWindow(part);
    Slot& slot = SlotOf(part);
    while (slot.state == State::kPending || slot.state == State::kLoading) m_wake.wait(guard);
    if (slot.state != State::kReady) {
      int code = slot.code != 0 ? slot.code : kErrNotPossible;
      // Fetched again only when a read asks for it again.
      slot.part = UINT64_MAX;
      slot.state = State::kEmpty;
      *got = pos - offset;
      return code;
    }
    uint64_t from = pos - part * m_partSize;
    uint64_t n = std::min<uint64_t>(slot.length - from, end - pos);
    // Ready slots change only by the reader's own hand: copy without the lock.
    const uint8_t* src = slot.buffer->Data() + from;
    guard.unlock();
    std::memcpy(out + (pos - offset), src, static_cast<size_t>(n));
    guard.lock();
    pos += n;
    if (from + n == slot.length) SetWindow(part + 1);
  }
  *got = pos - offset;
  return 0;
}

int CloudReadRange(const CloudFileSpec& setup, const TString& name, uint64_t offset, uint64_t length,
                   const std::string& etag, uint8_t* out) {
  TCloudConn* conn = setup.conn.get();
  uint64_t partSize = std::max<uint32_t>(conn->DownloadPartSize(), 1);
  uint64_t parts = (length + partSize - 1) / partSize;
  TCloudTransfer transfer(false, length, setup.progress, setup.context, setup.clock, &CloudDownloadLimiter());
  std::atomic<uint64_t> nextPart{0};
  std::atomic<int> failure{0};
  std::function<bool()> stopped = [&] { return failure.load() != 0; };
  auto work = [&](TCloudConn* c) {
    for (uint64_t k; failure.load() == 0 && (k = nextPart.fetch_add(1)) < parts;) {
      uint64_t start = k * partSize;
      uint32_t n = static_cast<uint32_t>(std::min(partSize, length - start));
      int code = DownloadRange(c, setup, &transfer, name, etag, offset + start, n, out + start, stopped);
      int none = 0;
      if (code != 0 && failure.compare_exchange_strong(none, code)) transfer.Stop();
    }
  };
  uint64_t threads = std::min<uint64_t>(std::clamp<uint32_t>(conn->DownloadThreads(), 1, 16), parts);
  if (threads <= 1) {
    work(conn);
  } else {
    std::vector<std::thread> workers;
    std::vector<std::shared_ptr<TCloudConn>> conns;
    for (uint64_t i = 0; i < threads; ++i) {
      std::shared_ptr<TCloudConn> partConn;
      if (conn->NewPartConn(&partConn) != 0 || !partConn) break;
      conns.push_back(partConn);
    }
    if (conns.empty()) conns.push_back(setup.conn);
    for (const std::shared_ptr<TCloudConn>& c : conns) workers.emplace_back([&work, c] { work(c.get()); });
    for (std::thread& worker : workers) worker.join();
  }
  if (failure.load() != 0) return failure.load();
  transfer.Finish();
  return 0;
}
