// HTTP/1.1 over TCP or TLS, one kept-alive connection per session.
//
// A session sends one request at a time and keeps its connection open for
// the next one, so a thread that owns a session pays the connection and TLS
// set-up once. Sessions are independent: one per thread.
//
// Requests go out as given: the method, the target (already encoded), and
// the headers verbatim and in order. Nothing is added but what HTTP/1.1
// itself needs (the body's length); the transport's own defaults ("Accept",
// "Expect: 100-continue", a form content type) are suppressed. A request
// on a kept-alive connection that the server closed without answering is
// sent once more, body and all, on a new connection. TLS always
// verifies the peer's certificate and name, against the system's trusted
// certificates or the CA file of the settings.
//
// The answer's status line and header block come back whole; its body goes
// to the observer as it arrives. The observer also sees the request body
// leave and is asked now and then (about once a second, and at every run of
// bytes) whether the request is still wanted: answering false stops it.
//
// Failures of the transport (no answer) are classes, not codes of the
// library: the caller maps them.
#ifndef PLINTH_PLATFORM_HTTP_H_
#define PLINTH_PLATFORM_HTTP_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace platform {

enum class HttpFailure {
  kNone,
  kResolve,      // the host name has no address
  kConnect,      // refused or unreachable
  kTls,          // the TLS handshake failed
  kCertificate,  // the peer's certificate is not trusted or not for the host
  kTimeout,      // no connection in time, or the transfer stalled
  kSend,         // the connection broke while sending
  kReceive,      // the connection broke while receiving, or closed early
  kStopped,      // the observer stopped it
  kOther,
};

struct HttpHeaderSpec {
  std::string name;
  std::string value;
};

struct HttpRequestSpec {
  std::string method;   // "GET", "HEAD", "PUT", "POST", "DELETE"
  std::string url;      // scheme, host, port and encoded target
  std::vector<HttpHeaderSpec> headers;
  const uint8_t* body = nullptr;
  uint64_t bodySize = 0;
};

struct HttpSettingsSpec {
  std::string caFile;                     // empty: the system's store
  uint32_t connectTimeoutMs = 30000;
  // A transfer that moves no byte for `stallSeconds` once connected, or
  // runs slower than `stallBytesPerSecond` that long (averaged over a few
  // seconds), has stalled: kTimeout.
  uint32_t stallBytesPerSecond = 1;
  uint32_t stallSeconds = 60;
};

struct HttpResponseSpec {
  long status = 0;              // 0 when no answer came
  std::string statusLine;       // "HTTP/1.1 200 OK"
  std::string headers;          // "Name: value" lines of the final answer, CRLF
  HttpFailure failure = HttpFailure::kNone;
  std::string failureText;      // the transport's own words
};

class HttpObserver {
 public:
  virtual ~HttpObserver() = default;
  // `bytes` more of the request body left (a body sent again on a new
  // connection is told once). False stops the request.
  virtual bool BodySent(size_t bytes) = 0;
  // A run of the answer's body. False stops the request.
  virtual bool BodyReceived(const uint8_t* data, size_t size) = 0;
  // Asked while the request waits. False stops it.
  virtual bool StillWanted() = 0;
};

class HttpSession {
 public:
  explicit HttpSession(const HttpSettingsSpec& settings);
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  // Sends `request`; `observer` may be null (the body is then dropped).
  void Perform(const HttpRequestSpec& request, HttpObserver* observer, HttpResponseSpec* response);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace platform

#endif  // PLINTH_PLATFORM_HTTP_H_
