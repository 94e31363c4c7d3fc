// Shared pieces of the bucket and cloud-file tests: a bucket whose
// connector is a recording one, and deterministic bytes.
#ifndef PLINTH_TESTS_CLOUD_TESTING_H_
#define PLINTH_TESTS_CLOUD_TESTING_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "cloud/cloud_clock.h"
#include "cloud/tcloudbucket.h"
#include "tests/recording_conn.h"
#include "tests/test_bytes.h"

// A bucket that makes a recording connector (and counts how often).
// A clock that never sleeps: each reading and each sleep moves it on.
class TickingClock : public TCloudClock {
 public:
  explicit TickingClock(int64_t tickNs) : m_tick(tickNs) {}
  int64_t NowNs() const override { return m_now.fetch_add(m_tick) + m_tick; }
  void SleepNs(int64_t ns) const override { m_now.fetch_add(ns > 0 ? ns : 0); }

 private:
  int64_t m_tick;
  mutable std::atomic<int64_t> m_now{0};
};

class RecordingBucket : public TCloudBucket {
 public:
  RecordingBucket(const TCloudOptions& options, std::shared_ptr<RecordingService> service, unsigned upAttempts = 3,
                  unsigned downAttempts = 3, TCloudProgressFn progress = nullptr, void* context = nullptr)
      : TCloudBucket(options, progress, context, upAttempts, downAttempts), m_service(std::move(service)) {
    SetRetryBackoff(0, 0);
  }

  std::shared_ptr<TCloudConn> NewCloudConn() override {
    ++made;
    auto conn = std::make_shared<TRecordingConn>(*this, m_service);
    if (configure) configure(conn.get());
    return conn;
  }
  // The connector the flag table makes.
  std::shared_ptr<TCloudConn> TableConn() { return TCloudBucket::NewCloudConn(); }
  // Time moves 50 ms at each reading, so progress calls come at every
  // other run of bytes however fast the machine is.
  const TCloudClock* Clock() const override { return &m_clock; }

  int made = 0;
  std::function<void(TRecordingConn*)> configure;

 private:
  std::shared_ptr<RecordingService> m_service;
  TickingClock m_clock{50000000};
};

// Options of a plain S3-style location.
inline TCloudOptions TestOptions(uint32_t flags = kCloudDefaultFlags) {
  TCloudOptions options;
  options.SetHost(TString(u"s3.example.test"));
  options.SetBucket(TString(u"backups"));
  options.SetFlags(flags);
  return options;
}


#endif  // PLINTH_TESTS_CLOUD_TESTING_H_
