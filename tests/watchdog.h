// A watchdog for tests that may hang: a test whose threads deadlock never
// returns, so after the time limit the process stops with a description
// instead of waiting for ctest's time-out.
#ifndef PLINTH_TESTS_WATCHDOG_H_
#define PLINTH_TESTS_WATCHDOG_H_

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

class Watchdog {
 public:
  Watchdog(std::string what, std::chrono::seconds limit) : m_what(std::move(what)) {
    m_thread = std::thread([this, limit] {
      std::unique_lock<std::mutex> lock(m_lock);
      if (m_cv.wait_for(lock, limit, [this] { return m_done; })) return;
      std::fprintf(stderr, "hung: %s\n", m_what.c_str());
      std::abort();
    });
  }
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_done = true;
    }
    m_cv.notify_all();
    m_thread.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  std::string m_what;
  std::mutex m_lock;
  std::condition_variable m_cv;
  bool m_done = false;
  std::thread m_thread;
};

#endif  // PLINTH_TESTS_WATCHDOG_H_
