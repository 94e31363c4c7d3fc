// The scripted server itself, through raw sockets: what it records, how
// rules count, and that Stop ends whatever its clients are doing.
#include "tests/fake_s3_server.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "tests/watchdog.h"

namespace {

class Client {
 public:
  explicit Client(uint16_t port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    m_ok = connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~Client() { close(m_fd); }
  bool Ok() const { return m_ok; }
  void Send(const std::string& text) {
    ASSERT_EQ(send(m_fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  // What arrives until `until` is seen, the peer closes, or a second passes.
  std::string Read(const std::string& until) {
    std::string got;
    while (got.find(until) == std::string::npos) {
      pollfd p{m_fd, POLLIN, 0};
      if (poll(&p, 1, 1000) <= 0) break;
      char buffer[4096];
      ssize_t n = recv(m_fd, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      got.append(buffer, static_cast<size_t>(n));
    }
    return got;
  }

 private:
  int m_fd;
  bool m_ok = false;
};

TEST(S3FakeServerThreaded, RecordsRequestsAsSentAndCountsEveryMatch) {
  FakeS3Server server;
  ASSERT_NE(server.Port(), 0);
  server.OnNth("PUT", "/a", 2, FakeAnswer{409, {{"X-Why", "second"}}, "no"});
  server.On("PUT", "", FakeAnswer{200, {{"ETag", "\"e\""}}, ""});
  Client client(server.Port());
  ASSERT_TRUE(client.Ok());
  const std::string head = "PUT /a?b=1&c HTTP/1.1\r\nHoSt: x\r\nX-Odd:  v  \r\nExpect: 100-continue\r\n"
                           "Content-Length: 5\r\n\r\n";
  client.Send(head);
  EXPECT_EQ(client.Read("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  client.Send("hello");
  EXPECT_EQ(client.Read("\r\n\r\n"), "HTTP/1.1 200 OK\r\nETag: \"e\"\r\nContent-Length: 0\r\n\r\n");
  client.Send("PUT /a HTTP/1.1\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(client.Read("no"), "HTTP/1.1 409 Conflict\r\nX-Why: second\r\nContent-Length: 2\r\n\r\nno");
  server.Stop();
  std::vector<FakeRequest> got = server.Requests();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].head, head);
  EXPECT_EQ(got[0].method, "PUT");
  EXPECT_EQ(got[0].path, "/a");
  EXPECT_EQ(got[0].query, "b=1&c");
  EXPECT_EQ(got[0].body, "hello");
  EXPECT_EQ(got[0].headers, (FakeHeaders{{"HoSt", "x"}, {"X-Odd", "v"}, {"Expect", "100-continue"},
                                         {"Content-Length", "5"}}));
  EXPECT_EQ(got[0].Header("host"), "x");
  EXPECT_EQ(got[1].connection, 1);
  EXPECT_EQ(server.Connections(), 1);
}

TEST(S3FakeServerThreaded, StopEndsStalledSlowAndSilentClientsAtOnce) {
  Watchdog watchdog("fake server stop", std::chrono::seconds(30));
  FakeS3Server server;
  FakeAnswer huge{200, {}, ""};
  huge.padTo = 64u << 20;
  FakeAnswer stall{200, {}, "abc"};
  stall.fault = FakeFault::kStall;
  stall.cutAt = 3;
  FakeAnswer slow{200, {}, ""};
  slow.delayMs = 600000;
  server.On("GET", "/huge", huge);
  server.On("GET", "/stall", stall);
  server.On("GET", "/slow", slow);
  // One client that never reads its answer, one stalled, one waiting, one silent.
  Client a(server.Port()), b(server.Port()), c(server.Port()), d(server.Port());
  a.Send("GET /huge HTTP/1.1\r\n\r\n");
  b.Send("GET /stall HTTP/1.1\r\n\r\n");
  c.Send("GET /slow HTTP/1.1\r\n\r\n");
  EXPECT_EQ(b.Read("abc").substr(0, 15), "HTTP/1.1 200 OK");
  for (int i = 0; i < 200 && server.Count("GET") < 3; ++i) poll(nullptr, 0, 10);
  auto start = std::chrono::steady_clock::now();
  server.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(server.Count("GET"), 3);
}

}  // namespace
