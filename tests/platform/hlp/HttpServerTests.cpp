#include "hlp/HttpServer.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <tuple>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include "core/KroStatus.h"
#include "hlp/TcpClient.h"
#include "tests/support/HttpTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using kro::test::LiveServer;
using kro::test::TestClient;
using Clock = std::chrono::steady_clock;

std::string Get(const std::string& uri, const std::string& extra = "",
                const std::string& version = "HTTP/1.1") {
  return "GET " + uri + " " + version + "\r\nHost: 127.0.0.1\r\n" + extra + "\r\n";
}

class HttpServerTests : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(live_.StartStatus(), 0); }

  LiveServer live_{"0"};
};

TEST_F(HttpServerTests, AnswersCarryStatusTypeLocationAndBody) {
  struct Case {
    std::string request;
    unsigned status;
    const char* type;
    const char* location;
    const char* body;
  };
  const Case cases[] = {
      {"POST /kro/echo HTTP/1.1\r\nx-custom: One\r\nContent-Length: 5\r\n\r\nhello", 200,
       "text/plain", "", "POST /kro/echo hello"},
      {Get("/redirect"), 302, "text/html", "/target", "Moved"},
      {Get("/error"), 404, "text/html", "", "&lt;b&gt;missing&lt;/b&gt;"},
  };
  TestClient client(live_.Port());
  for (const Case& row : cases) {
    SCOPED_TRACE(row.request);
    ASSERT_TRUE(client.Send(row.request));
    const auto answer = client.ReadAnswer();  // Beast checks the body against Content-Length
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result_int(), row.status);
    EXPECT_EQ((*answer)["Content-Type"], row.type);
    EXPECT_EQ((*answer)["Location"], row.location);
    EXPECT_NE(answer->body().find(row.body), std::string::npos) << answer->body();
  }
  const auto requests = live_.handler.Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].Header("X-Custom"), "One");
  EXPECT_EQ(requests[0].version, 11u);
}

TEST_F(HttpServerTests, KeepAliveFollowsVersionAndConnectionField) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"HTTP/1.1", "", true},
      {"HTTP/1.1", "Connection: close\r\n", false},
      {"HTTP/1.0", "", false},
      {"HTTP/1.0", "Connection: keep-alive\r\n", true}};
  for (const auto& [version, extra, keptOpen] : cases) {
    SCOPED_TRACE(std::string(version) + " " + extra);
    TestClient client(live_.Port());
    ASSERT_TRUE(client.Send(Get("/one", extra, version)));
    ASSERT_TRUE(client.ReadAnswer());
    if (keptOpen) {
      ASSERT_TRUE(client.Send(Get("/two", extra, version)));
      const auto second = client.ReadAnswer();
      ASSERT_TRUE(second);
      EXPECT_EQ(second->body(), "GET /two ");
    } else {
      EXPECT_TRUE(client.ClosedByServer());
    }
  }
}

TEST_F(HttpServerTests, RefusedRequestsAreAnsweredAndClosed) {
  // seenLength: the handler's "Content-Length"; null: the server refused alone
  const std::string filler(hlp::kMaxHeaderBytes, 'a');
  const std::tuple<const char*, std::string, unsigned, const char*> cases[] = {
      {"headers above the limit", Get("/", "X-Big: " + filler + "\r\n"), 431, nullptr},
      {"huge body announced", "POST / HTTP/1.1\r\nContent-Length: 100000000000\r\n\r\n", 413,
       nullptr},
      {"chunked body",
       "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", 411,
       nullptr},
      {"malformed request line", "NOT HTTP AT ALL\r\n\r\n", 400, nullptr},
      // The caller answers an invalid length itself and needs every field for it.
      {"invalid length", "POST /x HTTP/1.1\r\nContent-Length: 12abc\r\nX-After: yes\r\n\r\n", 400,
       "12abc"},
  };
  for (const auto& [name, wantRequest, status, seenLength] : cases) {
    SCOPED_TRACE(name);
    const size_t servedBefore = live_.handler.Requests().size();
    TestClient client(live_.Port());
    ASSERT_TRUE(client.Send(wantRequest));
    const auto answer = client.ReadAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->result_int(), status);
    EXPECT_TRUE(client.ClosedByServer());
    const auto requests = live_.handler.Requests();
    ASSERT_EQ(requests.size(), servedBefore + (seenLength != nullptr ? 1 : 0));
    if (seenLength != nullptr) {
      EXPECT_EQ(requests.back().Header("Content-Length"), seenLength);
      EXPECT_EQ(requests.back().Header("X-After"), "yes");
    }
  }
  // Just within the limit is served, and the connection stays open.
  TestClient client(live_.Port());
  ASSERT_TRUE(client.Send(Get("/", "X-Big: " + filler.substr(200) + "\r\n") + Get("/again")));
  EXPECT_TRUE(client.ReadAnswer());
  EXPECT_TRUE(client.ReadAnswer());
}

TEST_F(HttpServerTests, BodiesArriveAcrossWritesAndAfterAContinue) {
  TestClient client(live_.Port());
  // The first write ends inside the body; the second carries its rest and a whole next request.
  ASSERT_TRUE(client.Send("POST /a HTTP/1.1\r\nContent-Length: 11\r\n\r\nhel"));
  std::this_thread::sleep_for(50ms);
  ASSERT_TRUE(client.Send("lo world" + Get("/b")));
  const auto first = client.ReadAnswer();
  const auto second = client.ReadAnswer();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->body(), "POST /a hello world");
  EXPECT_EQ(second->body(), "GET /b ");

  ASSERT_TRUE(client.Send("PUT /c HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
  const auto interim = client.ReadAnswer();
  ASSERT_TRUE(interim);
  EXPECT_EQ(interim->result_int(), 100);
  ASSERT_TRUE(client.Send("data"));
  const auto answer = client.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body(), "PUT /c data");
}

TEST(HttpServerTimeoutTests, StalledClientsAreClosedAfterTheTimeoutWithoutBlockingOthers) {
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
  const uint16_t oldPort = live_.Port();
  const uint16_t newPort = kro::test::FreeTcpPort();
  ASSERT_EQ(live_.Restart(std::to_string(newPort)), 0);
  EXPECT_EQ(live_.server.GetBoundPorts(), std::vector<uint16_t>{newPort});
  EXPECT_FALSE(hlp::TcpClient("127.0.0.1", oldPort, 2).Connect());
  EXPECT_TRUE(hlp::TcpClient("127.0.0.1", newPort, 2).Connect());
  TestClient client(newPort);
  ASSERT_TRUE(client.Send(Get("/moved")));
  const auto answer = client.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body(), "GET /moved ");

  // A port someone else holds: the error comes back and nothing listens any more.
  boost::asio::io_context io;
  boost::asio::ip::tcp::acceptor holder(io, {boost::asio::ip::tcp::v4(), 0});
  EXPECT_EQ(live_.Restart(std::to_string(holder.local_endpoint().port())),
            kro::status::FromWin32(boost::asio::error::address_in_use));
  EXPECT_TRUE(live_.server.GetBoundPorts().empty());
  EXPECT_FALSE(hlp::TcpClient("127.0.0.1", newPort, 2).Connect());
}

TEST_F(HttpServerTests, StopEndsAnIdleConnectionPromptly) {
  TestClient client(live_.Port());  // the default 30 s time-out would keep the worker otherwise
  ASSERT_TRUE(client.Send(Get("/")));
  ASSERT_TRUE(client.ReadAnswer());
  const auto start = Clock::now();
  EXPECT_EQ(live_.Stop(), 0);
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(live_.handler.FinishedConnections(), 1);
  EXPECT_TRUE(client.ClosedByServer(2s));
  EXPECT_EQ(live_.server.Poll(), kro::status::WinNotRunning);
}

}  // namespace
