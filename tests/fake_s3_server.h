// A scripted HTTP/1.1 server on loopback for the S3 connector's tests: it
// records every request byte for byte and answers from rules, faults
// included, which a real server cannot be made to do on demand.
//
// It listens on 127.0.0.1 only, on a port the system picks, and serves each
// connection on a thread of its own, keeping it open between requests.
// Every wait is sliced and sees Stop, so the server never holds a test up.
//
// Rules are tried in the order added. A rule matches a request by method
// (empty: any) and by a text the request target holds (empty: any); it
// counts every request it matches, even those an earlier rule answers, and
// answers those from its `from`-th on, `times` of them (-1: all). A request
// no rule answers gets 501 "NotImplemented".
//
// Faults of an answer:
//   kReset     the head and `cutAt` bytes of the body, then a reset (RST)
//   kStall     the head and `cutAt` bytes, then nothing until the client
//              gives up or the server stops
//   kTruncate  the full Content-Length, `cutAt` bytes, then a plain close
//   kGarbage   `body` as raw bytes instead of an HTTP answer, then a close
// `delayMs` waits before any byte of the answer.
#ifndef PLINTH_TESTS_FAKE_S3_SERVER_H_
#define PLINTH_TESTS_FAKE_S3_SERVER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using FakeHeaders = std::vector<std::pair<std::string, std::string>>;

struct FakeRequest {
  std::string head;         // request line and headers as received, blank line included
  std::string requestLine;  // "GET /bkt/key?x=1 HTTP/1.1"
  std::string method;
  std::string target;       // "/bkt/key?x=1"
  std::string path;         // "/bkt/key"
  std::string query;        // "x=1"
  FakeHeaders headers;      // in order, names as spelled
  std::string body;
  int connection = 0;       // 1 for the first connection accepted

  // The first header of that name (case-blind); empty when absent.
  std::string Header(const std::string& name) const;
  bool Has(const std::string& name) const;
};

enum class FakeFault { kNone, kReset, kStall, kTruncate, kGarbage };

struct FakeAnswer {
  int status = 200;
  FakeHeaders headers;      // Content-Length is added unless given
  std::string body;
  size_t padTo = 0;         // the body grows with blanks to this size as it is sent
  FakeFault fault = FakeFault::kNone;
  size_t cutAt = 0;
  uint32_t delayMs = 0;
  bool close = false;       // close the connection after the answer
};

// `pattern` is found in `target`; a final "$" pins it to the end.
bool FakeTargetHas(const std::string& target, const std::string& pattern);

struct FakeRule {
  std::string method;
  std::string contains;
  int from = 1;
  int times = -1;
  FakeAnswer answer;
  // When set, makes the answer from the request instead.
  std::function<FakeAnswer(const FakeRequest&)> respond;
  int matched = 0;
};

class FakeS3Server {
 public:
  FakeS3Server();
  ~FakeS3Server();
  FakeS3Server(const FakeS3Server&) = delete;
  FakeS3Server& operator=(const FakeS3Server&) = delete;

  uint16_t Port() const { return m_port; }
  // "127.0.0.1:PORT", or `name` with the port.
  std::string HostPort(const std::string& name = "127.0.0.1") const;

  void Add(FakeRule rule);
  // Shorthands: answer every match, or only the n-th (1-based).
  void On(const std::string& method, const std::string& contains, FakeAnswer answer);
  void OnNth(const std::string& method, const std::string& contains, int nth, FakeAnswer answer);
  void ClearRules();

  std::vector<FakeRequest> Requests() const;
  // Requests whose method matches (empty: any) and whose target holds
  // `contains` (ending in "$": ends with it, for bare query names).
  int Count(const std::string& method, const std::string& contains = std::string()) const;
  int Connections() const { return m_connections.load(); }

  // Ends every connection and joins every thread; called by the destructor.
  void Stop();

 private:
  void AcceptLoop();
  void Serve(int fd, int connection);
  FakeAnswer Choose(const FakeRequest& request);

  int m_listen = -1;
  uint16_t m_port = 0;
  std::atomic<bool> m_stop{false};
  std::atomic<int> m_connections{0};
  std::thread m_acceptor;
  std::vector<std::thread> m_servers;  // touched by the acceptor until it is joined

  mutable std::mutex m_lock;
  std::vector<FakeRule> m_rules;
  std::vector<FakeRequest> m_requests;
};

// An S3 error document.
std::string FakeErrorXml(const std::string& code, const std::string& message = "refused",
                         const std::string& extra = std::string());
// An answer of `status` with that document.
FakeAnswer FakeError(int status, const std::string& code, const std::string& extra = std::string());

#endif  // PLINTH_TESTS_FAKE_S3_SERVER_H_
