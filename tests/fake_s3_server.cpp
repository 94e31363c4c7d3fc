#include "tests/fake_s3_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace {

// Every wait is cut into slices of this length, so Stop is seen at once.
constexpr int kSliceMs = 20;
constexpr size_t kMaxHead = 64 * 1024;
constexpr size_t kMaxBody = 256u << 20;
constexpr size_t kSendRun = 64 * 1024;

enum class Ending { kKeep, kClose, kReset };

const char* Reason(int status) {
  switch (status) {
    case 100: return "Continue";
    case 200: return "OK";
    case 204: return "No Content";
    case 206: return "Partial Content";
    case 301: return "Moved Permanently";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 409: return "Conflict";
    case 411: return "Length Required";
    case 412: return "Precondition Failed";
    case 416: return "Range Not Satisfiable";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    default: return "Status";
  }
}

std::string Trim(const std::string& text) {
  size_t from = text.find_first_not_of(" \t");
  if (from == std::string::npos) return std::string();
  return text.substr(from, text.find_last_not_of(" \t") - from + 1);
}

std::string FindHeader(const FakeHeaders& headers, const std::string& name, bool* found) {
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) {
      *found = true;
      return value;
    }
  }
  *found = false;
  return std::string();
}

// One connection's socket, with the stop flag every wait looks at.
class Link {
 public:
  Link(int fd, const std::atomic<bool>* stop) : m_fd(fd), m_stop(stop) {}

  // Appends what arrives; false when the peer closed, failed or the server stops.
  bool Receive(std::string* into) {
    for (;;) {
      if (m_stop->load()) return false;
      pollfd p{m_fd, POLLIN, 0};
      int n = poll(&p, 1, kSliceMs);
      if (n < 0) return false;
      if (n == 0) continue;
      char buffer[16384];
      ssize_t got = recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT);
      if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (got <= 0) return false;
      into->append(buffer, static_cast<size_t>(got));
      return true;
    }
  }

  bool Send(const char* data, size_t size) {
    while (size > 0) {
      if (m_stop->load()) return false;
      pollfd p{m_fd, POLLOUT, 0};
      int n = poll(&p, 1, kSliceMs);
      if (n < 0) return false;
      if (n == 0) continue;
      // Never blocks: a client that stops reading must not hold Stop up.
      ssize_t sent = send(m_fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (sent <= 0) return false;
      data += sent;
      size -= static_cast<size_t>(sent);
    }
    return true;
  }

  bool Send(const std::string& text) { return Send(text.data(), text.size()); }

  // Waits `ms`; false when the server stops first.
  bool Sleep(uint32_t ms) {
    for (uint32_t waited = 0; waited < ms; waited += kSliceMs) {
      if (m_stop->load()) return false;
      poll(nullptr, 0, static_cast<int>(std::min<uint32_t>(kSliceMs, ms - waited)));
    }
    return !m_stop->load();
  }

  // Reads and drops until the peer closes or the server stops.
  void DrainUntilClosed() {
    std::string sink;
    while (Receive(&sink)) sink.clear();
  }

 private:
  int m_fd;
  const std::atomic<bool>* m_stop;
};

bool ParseHead(const std::string& head, FakeRequest* out) {
  size_t lineEnd = head.find("\r\n");
  out->requestLine = head.substr(0, lineEnd);
  size_t first = out->requestLine.find(' ');
  size_t second = out->requestLine.find(' ', first + 1);
  if (first == std::string::npos || second == std::string::npos) return false;
  out->method = out->requestLine.substr(0, first);
  out->target = out->requestLine.substr(first + 1, second - first - 1);
  size_t mark = out->target.find('?');
  out->path = out->target.substr(0, mark);
  out->query = mark == std::string::npos ? std::string() : out->target.substr(mark + 1);
  for (size_t at = lineEnd + 2; at < head.size();) {
    size_t end = head.find("\r\n", at);
    if (end == std::string::npos || end == at) break;
    std::string line = head.substr(at, end - at);
    at = end + 2;
    size_t colon = line.find(':');
    if (colon == std::string::npos) return false;
    out->headers.emplace_back(line.substr(0, colon), Trim(line.substr(colon + 1)));
  }
  return true;
}

// Sends the answer to `request`; says how the connection ends.
Ending Answer(Link& link, const FakeRequest& request, const FakeAnswer& a) {
  if (a.delayMs > 0 && !link.Sleep(a.delayMs)) return Ending::kClose;
  if (a.fault == FakeFault::kGarbage) {
    link.Send(a.body);
    return Ending::kClose;
  }
  size_t total = std::max(a.body.size(), a.padTo);
  std::string head = "HTTP/1.1 " + std::to_string(a.status) + " " + Reason(a.status) + "\r\n";
  bool given = false;
  FindHeader(a.headers, "Content-Length", &given);
  for (const auto& [name, value] : a.headers) head += name + ": " + value + "\r\n";
  if (!given) head += "Content-Length: " + std::to_string(total) + "\r\n";
  if (a.close) head += "Connection: close\r\n";
  head += "\r\n";
  size_t bodyBytes = request.method == "HEAD" ? 0 : total;
  if (a.fault != FakeFault::kNone) bodyBytes = std::min(bodyBytes, a.cutAt);
  if (!link.Send(head)) return Ending::kClose;
  for (size_t at = 0; at < bodyBytes;) {
    size_t run = std::min(kSendRun, bodyBytes - at);
    std::string piece = at < a.body.size() ? a.body.substr(at, run) : std::string();
    piece.resize(run, ' ');
    if (!link.Send(piece)) return Ending::kClose;
    at += run;
  }
  switch (a.fault) {
    case FakeFault::kReset:
      return Ending::kReset;
    case FakeFault::kStall:
      link.DrainUntilClosed();
      return Ending::kClose;
    case FakeFault::kTruncate:
      return Ending::kClose;
    default:
      return a.close ? Ending::kClose : Ending::kKeep;
  }
}

}  // namespace

std::string FakeRequest::Header(const std::string& name) const {
  bool found = false;
  return FindHeader(headers, name, &found);
}

bool FakeRequest::Has(const std::string& name) const {
  bool found = false;
  FindHeader(headers, name, &found);
  return found;
}

std::string FakeErrorXml(const std::string& code, const std::string& message, const std::string& extra) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>" + code + "</Code><Message>" + message +
         "</Message>" + extra + "<RequestId>4442587FB7D0A2F9</RequestId></Error>";
}

FakeAnswer FakeError(int status, const std::string& code, const std::string& extra) {
  FakeAnswer answer;
  answer.status = status;
  answer.headers = {{"Content-Type", "application/xml"}};
  answer.body = FakeErrorXml(code, "refused", extra);
  return answer;
}

FakeS3Server::FakeS3Server() {
  m_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (m_listen < 0) return;
  int on = 1;
  setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(m_listen, 64) != 0 ||
      getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(m_listen);
    m_listen = -1;
    return;
  }
  m_port = ntohs(address.sin_port);
  m_acceptor = std::thread([this] { AcceptLoop(); });
}

FakeS3Server::~FakeS3Server() { Stop(); }

void FakeS3Server::Stop() {
  m_stop.store(true);
  if (m_acceptor.joinable()) m_acceptor.join();
  for (std::thread& server : m_servers) server.join();
  m_servers.clear();
  if (m_listen >= 0) close(m_listen);
  m_listen = -1;
}

std::string FakeS3Server::HostPort(const std::string& name) const { return name + ":" + std::to_string(m_port); }

void FakeS3Server::Add(FakeRule rule) {
  std::lock_guard<std::mutex> guard(m_lock);
  m_rules.push_back(std::move(rule));
}

void FakeS3Server::On(const std::string& method, const std::string& contains, FakeAnswer answer) {
  FakeRule rule;
  rule.method = method;
  rule.contains = contains;
  rule.answer = std::move(answer);
  Add(std::move(rule));
}

void FakeS3Server::OnNth(const std::string& method, const std::string& contains, int nth, FakeAnswer answer) {
  FakeRule rule;
  rule.method = method;
  rule.contains = contains;
  rule.from = nth;
  rule.times = 1;
  rule.answer = std::move(answer);
  Add(std::move(rule));
}

void FakeS3Server::ClearRules() {
  std::lock_guard<std::mutex> guard(m_lock);
  m_rules.clear();
}

std::vector<FakeRequest> FakeS3Server::Requests() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return m_requests;
}

int FakeS3Server::Count(const std::string& method, const std::string& contains) const {
  std::lock_guard<std::mutex> guard(m_lock);
  return static_cast<int>(std::count_if(m_requests.begin(), m_requests.end(), [&](const FakeRequest& r) {
    return (method.empty() || r.method == method) && FakeTargetHas(r.target, contains);
  }));
}

void FakeS3Server::AcceptLoop() {
  while (!m_stop.load()) {
    pollfd p{m_listen, POLLIN, 0};
    if (poll(&p, 1, kSliceMs) <= 0) continue;
    int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    int id = ++m_connections;
    m_servers.emplace_back([this, fd, id] { Serve(fd, id); });
  }
}

bool FakeTargetHas(const std::string& target, const std::string& pattern) {
  if (!pattern.empty() && pattern.back() == '$') {
    std::string tail = pattern.substr(0, pattern.size() - 1);
    return target.size() >= tail.size() && target.compare(target.size() - tail.size(), tail.size(), tail) == 0;
  }
  return target.find(pattern) != std::string::npos;
}

FakeAnswer FakeS3Server::Choose(const FakeRequest& request) {
  std::function<FakeAnswer(const FakeRequest&)> respond;
  FakeAnswer answer = FakeError(501, "NotImplemented");
  {
    std::lock_guard<std::mutex> guard(m_lock);
    // Every rule counts every request it matches, answered by it or not.
    bool chosen = false;
    for (FakeRule& rule : m_rules) {
      if (!rule.method.empty() && rule.method != request.method) continue;
      if (!FakeTargetHas(request.target, rule.contains)) continue;
      int n = ++rule.matched;
      if (chosen || n < rule.from || (rule.times >= 0 && n >= rule.from + rule.times)) continue;
      chosen = true;
      respond = rule.respond;
      answer = rule.answer;
    }
  }
  return respond ? respond(request) : answer;
}

void FakeS3Server::Serve(int fd, int connection) {
  Link link(fd, &m_stop);
  std::string pending;
  Ending ending = Ending::kClose;
  for (;;) {
    size_t end;
    while ((end = pending.find("\r\n\r\n")) == std::string::npos && pending.size() < kMaxHead) {
      if (!link.Receive(&pending)) break;
    }
    if (end == std::string::npos) break;
    FakeRequest request;
    request.connection = connection;
    request.head = pending.substr(0, end + 4);
    pending.erase(0, end + 4);
    if (!ParseHead(request.head, &request)) break;
    if (strcasecmp(request.Header("Expect").c_str(), "100-continue") == 0) {
      link.Send("HTTP/1.1 100 Continue\r\n\r\n");
    }
    // No client of ours sends a body without its length.
    if (request.Has("Transfer-Encoding")) {
      link.Send("HTTP/1.1 411 Length Required\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
      break;
    }
    size_t size = std::strtoull(request.Header("Content-Length").c_str(), nullptr, 10);
    if (size > kMaxBody) break;
    while (pending.size() < size && link.Receive(&pending)) {
    }
    if (pending.size() < size) break;
    request.body = pending.substr(0, size);
    pending.erase(0, size);
    {
      std::lock_guard<std::mutex> guard(m_lock);
      m_requests.push_back(request);
    }
    ending = Answer(link, request, Choose(request));
    if (ending != Ending::kKeep) break;
  }
  if (ending == Ending::kReset) {
    linger hard{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  }
  close(fd);
}
