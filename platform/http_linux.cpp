#include "platform/http.h"

#include <curl/curl.h>

#include <strings.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace platform {
namespace {

std::once_flag g_curlInit;

using Clock = std::chrono::steady_clock;

// One request in flight: what the callbacks need.
struct Exchange {
  CURL* curl = nullptr;
  const HttpRequestSpec* request = nullptr;
  HttpObserver* observer = nullptr;
  HttpResponseSpec* response = nullptr;
  uint64_t sent = 0;
  uint64_t reported = 0;  // body bytes told to the observer: a re-sent body is told once
  bool stopped = false;
  bool stalled = false;
  std::chrono::seconds stallAfter{0};
  curl_off_t moved = 0;
  Clock::time_point lastMove;
};

size_t ReadBody(char* out, size_t size, size_t count, void* user) {
  auto* x = static_cast<Exchange*>(user);
  uint64_t left = x->request->bodySize - x->sent;
  size_t n = static_cast<size_t>(std::min<uint64_t>(left, size * count));
  if (n == 0) return 0;
  std::memcpy(out, x->request->body + x->sent, n);
  x->sent += n;
  if (x->sent <= x->reported) return n;
  size_t fresh = static_cast<size_t>(x->sent - x->reported);
  x->reported = x->sent;
  if (x->observer != nullptr && !x->observer->BodySent(fresh)) {
    x->stopped = true;
    return CURL_READFUNC_ABORT;
  }
  return n;
}

// The body again from `offset`: the transport sends it once more when a
// kept-alive connection turns out closed.
int SeekBody(void* user, curl_off_t offset, int origin) {
  auto* x = static_cast<Exchange*>(user);
  if (origin != SEEK_SET || offset < 0 || static_cast<uint64_t>(offset) > x->request->bodySize) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  x->sent = static_cast<uint64_t>(offset);
  return CURL_SEEKFUNC_OK;
}

size_t WriteBody(char* data, size_t size, size_t count, void* user) {
  auto* x = static_cast<Exchange*>(user);
  size_t n = size * count;
  if (x->observer != nullptr && !x->observer->BodyReceived(reinterpret_cast<const uint8_t*>(data), n)) {
    x->stopped = true;
    return 0;
  }
  return n;
}

size_t WriteHeader(char* data, size_t size, size_t count, void* user) {
  auto* x = static_cast<Exchange*>(user);
  size_t n = size * count;
  std::string line(data, n);
  // Each answer (a "100 Continue", a redirect) starts with its status line:
  // only the last one's headers are kept.
  if (line.compare(0, 5, "HTTP/") == 0) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    x->response->statusLine = line;
    x->response->headers.clear();
    return n;
  }
  if (line != "\r\n" && line != "\n") x->response->headers.append(line);
  return n;
}

int Progress(void* user, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
  auto* x = static_cast<Exchange*>(user);
  // The transport's own speed check averages over several seconds, so a
  // stall shows late; this one counts from the last byte that moved, once
  // the connection is up (its set-up has a time-out of its own).
  Clock::time_point now = Clock::now();
  curl_off_t ready = 0;
  curl_easy_getinfo(x->curl, CURLINFO_PRETRANSFER_TIME_T, &ready);
  if (ready == 0 || received + sent != x->moved) {
    x->moved = received + sent;
    x->lastMove = now;
  } else if (now - x->lastMove >= x->stallAfter) {
    x->stalled = true;
    return 1;
  }
  if (x->observer != nullptr && !x->observer->StillWanted()) {
    x->stopped = true;
    return 1;
  }
  return 0;
}

HttpFailure ClassOf(CURLcode code, bool stopped, bool stalled) {
  if (stalled) return HttpFailure::kTimeout;
  if (stopped) return HttpFailure::kStopped;
  switch (code) {
    case CURLE_OK:
      return HttpFailure::kNone;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return HttpFailure::kResolve;
    case CURLE_COULDNT_CONNECT:
      return HttpFailure::kConnect;
    case CURLE_OPERATION_TIMEDOUT:
      return HttpFailure::kTimeout;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      return HttpFailure::kCertificate;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_USE_SSL_FAILED:
      return HttpFailure::kTls;
    case CURLE_SEND_ERROR:
    case CURLE_SEND_FAIL_REWIND:
      return HttpFailure::kSend;
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
      return HttpFailure::kReceive;
    case CURLE_ABORTED_BY_CALLBACK:
      return HttpFailure::kStopped;
    default:
      return HttpFailure::kOther;
  }
}

}  // namespace

struct HttpSession::State {
  CURL* curl = nullptr;
  HttpSettingsSpec settings;
};

HttpSession::HttpSession(const HttpSettingsSpec& settings) : m_state(std::make_unique<State>()) {
  std::call_once(g_curlInit, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  m_state->settings = settings;
  m_state->curl = curl_easy_init();
}

HttpSession::~HttpSession() {
  if (m_state->curl != nullptr) curl_easy_cleanup(m_state->curl);
}

void HttpSession::Perform(const HttpRequestSpec& request, HttpObserver* observer, HttpResponseSpec* response) {
  *response = HttpResponseSpec();
  CURL* curl = m_state->curl;
  if (curl == nullptr) {
    response->failure = HttpFailure::kOther;
    response->failureText = "no transfer handle";
    return;
  }
  // Options of the previous request must not leak into this one; the
  // connection cache survives the reset.
  curl_easy_reset(curl);
  Exchange x;
  x.curl = curl;
  x.stallAfter = std::chrono::seconds(m_state->settings.stallSeconds);
  x.lastMove = Clock::now();
  x.request = &request;
  x.observer = observer;
  x.response = response;

  curl_slist* headers = nullptr;
  for (const HttpHeaderSpec& h : request.headers) {
    std::string line = h.name + (h.value.empty() ? ";" : ": " + h.value);
    headers = curl_slist_append(headers, line.c_str());
  }
  // Suppress what the transport would add by itself.
  for (const char* none : {"Expect", "Accept", "Content-Type"}) {
    bool given = false;
    for (const HttpHeaderSpec& h : request.headers) given = given || strcasecmp(h.name.c_str(), none) == 0;
    if (!given) headers = curl_slist_append(headers, (std::string(none) + ":").c_str());
  }

  const HttpSettingsSpec& settings = m_state->settings;
  char error[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  // The path was signed as it stands: "/./" and "/../" inside a key are
  // names, not steps to squash.
  curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!settings.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, settings.caFile.c_str());
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectTimeoutMs));
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(settings.stallBytesPerSecond));
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(settings.stallSeconds));
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &WriteBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &x);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &WriteHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &x);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Progress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &x);

  const std::string& method = request.method;
  if (method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  } else if (method == "PUT") {
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.bodySize));
  } else if (method == "POST") {
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.bodySize));
  } else if (method != "GET") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
  if (method == "PUT" || method == "POST") {
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &ReadBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &x);
    curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, &SeekBody);
    curl_easy_setopt(curl, CURLOPT_SEEKDATA, &x);
  }

  CURLcode code = curl_easy_perform(curl);
  curl_slist_free_all(headers);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  response->failure = ClassOf(code, x.stopped, x.stalled);
  if (response->failure != HttpFailure::kNone) {
    response->failureText = error[0] != '\0' ? error : curl_easy_strerror(code);
    if (x.stalled) response->failureText = "no byte moved for " + std::to_string(settings.stallSeconds) + " s";
    // A broken answer is no answer: its status must not be mistaken for one.
    response->status = 0;
    return;
  }
  response->status = status;
}

}  // namespace platform
