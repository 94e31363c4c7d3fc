// The cloud read file: an object read in order, fetched ahead in ranges.
//
// Open asks the service for the object's size and entity tag. Reads then
// come from a window of parts (the connector's DownloadPartSize) that
// DownloadThreads() threads, each with a connection of its own, fetch
// ahead of the reader: the window holds threads + 1 parts, so memory stays
// at (threads + 1) x part size however large the object. Bytes reach the
// reader in order. A read outside the window moves it there: parts that
// fall out of it are dropped (their downloads stopped), parts still inside
// it are kept.
//
// Every range request names the entity tag seen at Open, so an object
// rewritten while it is read fails the read instead of mixing two versions.
// A range answered with fewer or more bytes than asked is an error
// (kErrInvalidData), never taken. A failed part is tried again within the
// download attempt count while CloudIsRetryError says so; a final failure
// is returned to the reader, and the next read starts afresh.
//
// Read answers 0 with the bytes up to the end of the object, and
// kErrEndOfFile for a read that starts at or past the end.
//
// CloudReadRange reads a range straight into the caller's memory, its parts
// fetched in parallel the same way.
//
// One thread uses a read file; its download threads are its own.
#ifndef PLINTH_CLOUD_CLOUD_READ_FILE_H_
#define PLINTH_CLOUD_CLOUD_READ_FILE_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cloud/cloud_transfer.h"
#include "cloud/cloud_write_file.h"
#include "cloud/tcloudconn.h"

class TCloudReadFile {
 public:
  TCloudReadFile(const CloudFileSpec& setup, const TString& name);
  ~TCloudReadFile();
  TCloudReadFile(const TCloudReadFile&) = delete;
  TCloudReadFile& operator=(const TCloudReadFile&) = delete;

  int Open();
  int Read(uint64_t offset, void* buffer, uint64_t size, uint64_t* got);

  const TString& Name() const { return m_name; }
  uint64_t Size() const { return m_size; }
  const std::string& ETag() const { return m_etag; }
  uint32_t PartSize() const { return m_partSize; }

 private:
  enum class State { kEmpty, kPending, kLoading, kReady, kFailed };
  // The window's part `part` lives in slot part % slots. A slot given a new
  // part gets a new ticket: a download still running for its old part sees
  // that, stops, and hands its buffer back as a spare.
  struct Slot {
    uint64_t part = UINT64_MAX;
    State state = State::kEmpty;
    int code = 0;
    uint32_t length = 0;
    std::unique_ptr<TCloudPartBuffer> buffer;
    std::atomic<uint64_t> ticket{0};
  };

  Slot& SlotOf(uint64_t part) { return m_slots[part % m_slotCount]; }
  uint32_t PartLength(uint64_t part) const;
  void StartWorkers();
  void Worker(std::shared_ptr<TCloudConn> conn);
  // With the lock held: the window becomes [start, start + slots); slots
  // that hold another part take theirs.
  void SetWindow(uint64_t start);
  void Assign(Slot& slot, uint64_t part);

  CloudFileSpec m_spec;
  TString m_name;
  uint64_t m_size = 0;
  std::string m_etag;
  uint32_t m_partSize;
  uint32_t m_threads;
  uint64_t m_partCount = 0;
  bool m_open = false;
  std::unique_ptr<TCloudTransfer> m_transfer;

  std::mutex m_lock;
  std::condition_variable m_wake;
  std::unique_ptr<Slot[]> m_slots;
  uint64_t m_slotCount = 0;
  uint64_t m_windowStart = 0;
  std::vector<std::unique_ptr<TCloudPartBuffer>> m_spares;
  bool m_quit = false;
  std::vector<std::thread> m_workers;
};

// Reads `length` bytes of `name` from `offset` into `out`, the parts in
// parallel; `etag` (may be empty) as for the read file.
int CloudReadRange(const CloudFileSpec& setup, const TString& name, uint64_t offset, uint64_t length,
                   const std::string& etag, uint8_t* out);

// The size and entity tag of an object, from its answer headers.
int CloudObjectSize(const CloudFileSpec& setup, const TString& name, const char16_t* what, uint64_t* size,
                    std::string* etag);

#endif  // PLINTH_CLOUD_CLOUD_READ_FILE_H_
