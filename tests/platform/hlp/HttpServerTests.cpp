#include "hlp/HttpServer.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include "common/KroStatus.h"
#include "hlp/TcpClient.h"
#include "tests/platform/hlp/HttpTestSupport.h"

namespace {

using namespace std::chrono_literals;
using kro::test::LiveServer;
using kro::test::TestClient;
using Clock = std::chrono::steady_clock;

std::string Get(const std::string& uri, const std::string& extra = "",
                const std::string& version = "HTTP/1.1") {
  return "GET " + uri + " " + version + "\r\nHost: 127.0.0.1\r\n" + extra + "\r\n";
}

class HttpServerTests : public testing::Test {};

TEST_F(HttpServerTests, AnswersRequestAndHandsOverEveryField) {
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  TestClient client(live.Port());
  ASSERT_TRUE(client.Send(
      "POST /kro/echo HTTP/1.1\r\nHost: x\r\nx-custom: One\r\nContent-Length: 5\r\n\r\nhello"));
  const auto answer = client.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->result_int(), 200);
  EXPECT_EQ(answer->body(), "POST /kro/echo hello");
  EXPECT_EQ((*answer)["Content-Type"], "text/plain");

  const auto requests = live.handler.Requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].Header("X-Custom"), "One");
  EXPECT_EQ(requests[0].version, 11u);
}

TEST_F(HttpServerTests, AnswersCarryLengthTypeAndLocation) {
  struct Case {
    const char* uri;
    unsigned status;
    const char* type;
    const char* location;
    const char* bodyPart;
  };
  const Case cases[] = {
      {"/redirect", 302, "text/html", "/target", "Moved"},
      {"/error", 404, "text/html", "", "&lt;b&gt;missing&lt;/b&gt;"},
      {"/plain", 200, "text/plain", "", "GET /plain"},
  };
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  TestClient client(live.Port());
  for (const Case& row : cases) {
    SCOPED_TRACE(row.uri);
    ASSERT_TRUE(client.Send(Get(row.uri)));
    const auto answer = client.ReadAnswer();  // Beast checks the body against Content-Length
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result_int(), row.status);
    EXPECT_EQ((*answer)["Content-Type"], row.type);
    EXPECT_EQ((*answer)["Location"], row.location);
    EXPECT_NE(answer->body().find(row.bodyPart), std::string::npos) << answer->body();
  }
}

TEST_F(HttpServerTests, KeepAliveFollowsVersionAndConnectionField) {
  struct Case {
    const char* version;
    const char* extra;
    bool keptOpen;
  };
  const Case cases[] = {
      {"HTTP/1.1", "", true},
      {"HTTP/1.1", "Connection: close\r\n", false},
      {"HTTP/1.0", "", false},
      {"HTTP/1.0", "Connection: keep-alive\r\n", true},
  };
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  for (const Case& row : cases) {
    SCOPED_TRACE(std::string(row.version) + " " + row.extra);
    TestClient client(live.Port());
    ASSERT_TRUE(client.Send(Get("/one", row.extra, row.version)));
    const auto first = client.ReadAnswer();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->body(), "GET /one ");
    if (row.keptOpen) {
      ASSERT_TRUE(client.Send(Get("/two", row.extra, row.version)));
      const auto second = client.ReadAnswer();
      ASSERT_TRUE(second);
      EXPECT_EQ(second->body(), "GET /two ");
    } else {
      EXPECT_TRUE(client.ClosedByServer());
    }
  }
}

TEST_F(HttpServerTests, RefusedRequestsAreAnsweredAndClosed) {
  struct Case {
    const char* name;
    std::string request;
    unsigned status;  // 200: served and kept open
  };
  const std::string filler(hlp::kMaxHeaderBytes, 'a');
  const Case cases[] = {
      {"headers above the limit", Get("/", "X-Big: " + filler + "\r\n"), 431},
      {"headers just within the limit", Get("/", "X-Big: " + filler.substr(200) + "\r\n"), 200},
      {"huge body announced", "POST / HTTP/1.1\r\nContent-Length: 100000000000\r\n\r\n", 413},
      {"chunked body",
       "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", 411},
      {"malformed request line", "NOT HTTP AT ALL\r\n\r\n", 400},
  };
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    const size_t servedBefore = live.handler.Requests().size();
    TestClient client(live.Port());
    ASSERT_TRUE(client.Send(row.request));
    const auto answer = client.ReadAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result_int(), row.status);
    const bool served = row.status == 200;
    EXPECT_EQ(live.handler.Requests().size(), servedBefore + (served ? 1 : 0));
    if (served) {
      ASSERT_TRUE(client.Send(Get("/again")));
      EXPECT_TRUE(client.ReadAnswer());
    } else {
      EXPECT_TRUE(client.ClosedByServer());
    }
  }
}

TEST_F(HttpServerTests, InvalidContentLengthReachesCallerWithAllFields) {
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  TestClient client(live.Port());
  ASSERT_TRUE(client.Send("POST /kro/x HTTP/1.1\r\nContent-Length: 12abc\r\nX-After: yes\r\n\r\n"));
  const auto answer = client.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->result_int(), 400);
  EXPECT_NE(answer->body().find("Content length invalid"), std::string::npos);
  EXPECT_TRUE(client.ClosedByServer());

  const auto requests = live.handler.Requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].Header("Content-Length"), "12abc");
  EXPECT_EQ(requests[0].Header("X-After"), "yes");
  EXPECT_FALSE(requests[0].HasHeader("X-Kro-Invalid-Length"));
}

TEST_F(HttpServerTests, BodyAndNextRequestArriveAcrossTheHeaderBoundary) {
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  TestClient client(live.Port());
  // The first write ends inside the body; the second carries its rest and a whole next request.
  ASSERT_TRUE(client.Send("POST /a HTTP/1.1\r\nContent-Length: 11\r\n\r\nhel"));
  std::this_thread::sleep_for(50ms);
  ASSERT_TRUE(client.Send("lo world" + Get("/b")));
  const auto first = client.ReadAnswer();
  const auto second = client.ReadAnswer();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->body(), "POST /a hello world");
  EXPECT_EQ(second->body(), "GET /b ");
}

TEST_F(HttpServerTests, BodyAnnouncedWithExpectGetsContinueFirst) {
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  TestClient client(live.Port());
  ASSERT_TRUE(client.Send("PUT /c HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
  const auto interim = client.ReadAnswer();
  ASSERT_TRUE(interim);
  EXPECT_EQ(interim->result_int(), 100);
  ASSERT_TRUE(client.Send("data"));
  const auto answer = client.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body(), "PUT /c data");
}

TEST_F(HttpServerTests, StalledClientsAreClosedAfterTheTimeoutWithoutBlockingOthers) {
  constexpr auto kTimeout = 1500ms;
  LiveServer live("0", nullptr, static_cast<uint32_t>(kTimeout.count()));
  ASSERT_EQ(live.StartStatus(), 0);
  const auto start = Clock::now();
  TestClient stalled(live.Port());
  ASSERT_TRUE(stalled.Send("GET /sta"));
  TestClient idle(live.Port());
  ASSERT_TRUE(idle.Send(Get("/idle")));
  ASSERT_TRUE(idle.ReadAnswer());

  TestClient other(live.Port());
  ASSERT_TRUE(other.Send(Get("/other")));
  const auto answer = other.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body(), "GET /other ");
  EXPECT_LT(Clock::now() - start, kTimeout);

  EXPECT_TRUE(stalled.ClosedByServer(5s));
  EXPECT_TRUE(idle.ClosedByServer(5s));
  EXPECT_GE(Clock::now() - start, kTimeout - 100ms);
}

TEST_F(HttpServerTests, RestartMovesTheListener) {
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  const uint16_t oldPort = live.Port();
  const uint16_t newPort = kro::test::UnusedPort();
  ASSERT_EQ(live.Restart(std::to_string(newPort)), 0);
  EXPECT_EQ(live.server.GetBoundPorts(), std::vector<uint16_t>{newPort});
  EXPECT_FALSE(hlp::TcpClient("127.0.0.1", oldPort, 2).Connect());
  TestClient client(newPort);
  ASSERT_TRUE(client.Send(Get("/moved")));
  const auto answer = client.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body(), "GET /moved ");

  // A port someone else holds: the error comes back and nothing listens any more.
  boost::asio::io_context io;
  boost::asio::ip::tcp::acceptor holder(io, {boost::asio::ip::tcp::v4(), 0});
  const uint16_t taken = holder.local_endpoint().port();
  EXPECT_EQ(live.Restart(std::to_string(taken)),
            kro::status::FromWin32(boost::asio::error::address_in_use));
  EXPECT_TRUE(live.server.GetBoundPorts().empty());
  EXPECT_FALSE(hlp::TcpClient("127.0.0.1", newPort, 2).Connect());
}

TEST_F(HttpServerTests, StopEndsAnIdleConnectionPromptly) {
  LiveServer live("0");  // the default 30 s time-out would keep the worker otherwise
  ASSERT_EQ(live.StartStatus(), 0);
  TestClient client(live.Port());
  ASSERT_TRUE(client.Send(Get("/")));
  ASSERT_TRUE(client.ReadAnswer());
  const auto start = Clock::now();
  EXPECT_EQ(live.Stop(), 0);
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(live.handler.FinishedConnections(), 1);
  EXPECT_TRUE(client.ClosedByServer(2s));
  EXPECT_EQ(live.server.Poll(), kro::status::WinNotRunning);
}

TEST_F(HttpServerTests, IdlePollWaitsAboutTenMilliseconds) {
  hlp::HttpServer server;
  kro::test::TestHandler handler(server, nullptr);
  ASSERT_EQ(server.Start(nullptr, "0", &handler), 0);
  constexpr int kPolls = 20;
  const auto start = Clock::now();
  for (int i = 0; i < kPolls; ++i) {
    ASSERT_EQ(server.Poll(), 0);
  }
  const auto elapsed = Clock::now() - start;
  EXPECT_GE(elapsed, kPolls * 5ms);
  EXPECT_LE(elapsed, kPolls * 100ms);
  EXPECT_EQ(server.Stop(), 0);
}

TEST_F(HttpServerTests, IdleWaitIsTheOwnersAndChangingItWakesThePoll) {
  hlp::HttpServer server;
  kro::test::TestHandler handler(server, nullptr);
  ASSERT_EQ(server.Start(nullptr, "0", &handler), 0);

  server.SetIdleWait(0);
  constexpr int kPolls = 100;  // a second at the default wait
  auto start = Clock::now();
  for (int i = 0; i < kPolls; ++i) {
    ASSERT_EQ(server.Poll(), 0);
  }
  EXPECT_LT(Clock::now() - start, kPolls * 5ms);

  // An owner that waits long wakes its poll by setting a shorter wait.
  server.SetIdleWait(60000);
  ASSERT_EQ(server.Poll(), 0);  // takes the wake-up of the call above
  start = Clock::now();
  std::thread poller([&server] { EXPECT_EQ(server.Poll(), 0); });
  std::this_thread::sleep_for(100ms);
  server.SetIdleWait(hlp::kDefaultIdleWaitMs);
  poller.join();
  EXPECT_LT(Clock::now() - start, 10s);
  EXPECT_EQ(server.Stop(), 0);
}

// A slow reader waits for its answer on the server's loop: the worker is free at once, and the
// connection is dropped when a piece of the answer has not gone out within the time-out.
TEST_F(HttpServerTests, ClientThatStopsReadingHoldsNoWorkerAndIsDroppedAfterTheTimeout) {
  constexpr auto kTimeout = 2000ms;
  constexpr size_t kAnswerBytes = 24 << 20;  // far more than the socket buffers of both sides hold
  std::promise<long> written;
  auto result = written.get_future();
  LiveServer live("0", nullptr, static_cast<uint32_t>(kTimeout.count()),
                  [&written](hlp::HttpServerConnection& connection) {
                    hlp::RequestInfo request;
                    if (connection.ReadRequest(request) != 0) {
                      written.set_value(-1);
                      return;
                    }
                    const std::string answer(kAnswerBytes, 'x');
                    written.set_value(connection.Write(answer.data(), answer.size()));
                  });
  ASSERT_EQ(live.StartStatus(), 0);
  boost::asio::io_context io;
  boost::asio::ip::tcp::socket client(io);
  client.connect({boost::asio::ip::make_address("127.0.0.1"), live.Port()});
  boost::asio::write(client, boost::asio::buffer(Get("/big")));
  ASSERT_EQ(result.wait_for(kTimeout / 2), std::future_status::ready);
  EXPECT_EQ(result.get(), 0);

  std::this_thread::sleep_for(kTimeout * 2);
  size_t received = 0;
  boost::system::error_code ec;
  std::vector<char> area(1 << 20);
  while (!ec && received <= kAnswerBytes) {
    received += client.read_some(boost::asio::buffer(area), ec);
  }
  EXPECT_TRUE(ec);
  EXPECT_LT(received, kAnswerBytes);
}

TEST_F(HttpServerTests, RefusesMalformedPortListsAndCallsBeforeStart) {
  const char* const lists[] = {"",    ",",   "abc", "65536",
                               "12x", "80,", "0s" /* TLS without context */};
  for (const char* list : lists) {
    SCOPED_TRACE(list);
    hlp::HttpServer server;
    kro::test::TestHandler handler(server, nullptr);
    EXPECT_EQ(server.Start(nullptr, list, &handler), kro::status::NotAvailable);
    EXPECT_EQ(server.Poll(), kro::status::WinNotRunning);
    EXPECT_EQ(server.Restart("0"), kro::status::WinNotRunning);
    EXPECT_EQ(server.Stop(), kro::status::WinNotRunning);
  }
}

TEST_F(HttpServerTests, TcpClientTellsListeningFromClosedPorts) {
  LiveServer live("0");
  ASSERT_EQ(live.StartStatus(), 0);
  EXPECT_TRUE(hlp::TcpClient("127.0.0.1", live.Port(), 2).Connect());
  EXPECT_FALSE(hlp::TcpClient("127.0.0.1", kro::test::UnusedPort(), 2).Connect());
}

}  // namespace
