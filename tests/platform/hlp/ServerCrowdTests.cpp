#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/write.hpp>

#include "hlp/HttpServer.h"
#include "hlp/SSLContext.h"
#include "tests/support/HttpTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using kro::test::LiveServer;
using kro::test::TestClient;
using Clock = std::chrono::steady_clock;
using tcp = boost::asio::ip::tcp;

// Threads of this process, or -1 where the system does not tell.
int ThreadCount() {
  std::error_code ec;
  std::filesystem::directory_iterator tasks("/proc/self/task", ec);
  return ec ? -1 : static_cast<int>(std::distance(tasks, std::filesystem::directory_iterator()));
}

/**
 * @brief Peers that misbehave on purpose, on one server with a plain and a TLS port: none of
 * them may cost a thread or keep an ordinary client from being answered at once.
 */
class ServerCrowdTests : public testing::Test {
 protected:
  void SetUp() override {
    const std::string pem = kro::test::IssueCertificate("localhost").Pem();
    ASSERT_FALSE(pem.empty());
    ASSERT_EQ(tls_.UseCertificate(dir_.Write("ssl_cert.pem", pem).string()), 0);
    client_.set_verify_mode(boost::asio::ssl::verify_none);
    ASSERT_EQ(live_.StartStatus(), 0);
  }

  // A connection that sent `bytes` and then falls silent.
  std::unique_ptr<tcp::socket> Stalled(uint16_t port, const std::string& bytes) {
    auto socket = std::make_unique<tcp::socket>(io_);
    boost::system::error_code ec;
    socket->connect({boost::asio::ip::make_address("127.0.0.1"), port}, ec);
    if (!ec && !bytes.empty()) {
      boost::asio::write(*socket, boost::asio::buffer(bytes), ec);
    }
    return ec ? nullptr : std::move(socket);
  }

  // True when the server ends `socket` within `limit`; what it sends first is skipped.
  static bool ClosedWithin(tcp::socket& socket, std::chrono::milliseconds limit) {
    socket.non_blocking(true);
    const auto end = Clock::now() + limit;
    char area[4096];
    while (Clock::now() < end) {
      boost::system::error_code ec;
      socket.read_some(boost::asio::buffer(area), ec);
      if (ec && ec != boost::asio::error::would_block) {
        return true;
      }
      if (ec) {
        std::this_thread::sleep_for(10ms);
      }
    }
    return false;
  }

  bool OrdinaryRequestsAnsweredPromptly() {
    for (const bool secure : {false, true}) {
      const auto start = Clock::now();
      TestClient client(live_.Port(secure ? 1 : 0), secure ? &client_ : nullptr);
      if (!client.Send("GET /ordinary HTTP/1.1\r\nHost: x\r\n\r\n")) {
        return false;
      }
      const auto answer = client.ReadAnswer();
      if (!answer || answer->body() != "GET /ordinary " || Clock::now() - start > 2s) {
        return false;
      }
    }
    return true;
  }

  bool OpenBecomes(size_t count, std::chrono::milliseconds limit = 5s) {
    const auto end = Clock::now() + limit;
    while (live_.server.OpenConnections() != count && Clock::now() < end) {
      std::this_thread::sleep_for(10ms);
    }
    return live_.server.OpenConnections() == count;
  }

  boost::asio::io_context io_;
  kro::test::TempDir dir_;
  hlp::SSLContext tls_;
  boost::asio::ssl::context client_{boost::asio::ssl::context::tls_client};
  LiveServer live_{"0,0s", &tls_};
};

TEST_F(ServerCrowdTests, StalledHeadsBodiesAndHandshakesCostNoThreadAndLeaveNothingBehind) {
  const int threadsBefore = ThreadCount();
  std::vector<std::unique_ptr<tcp::socket>> crowd;
  for (int i = 0; i < 200; ++i) {
    crowd.push_back(Stalled(live_.Port(0), "GET /slow HTTP/1.1\r\nHost: x\r\nX-Part: "));
  }
  for (int i = 0; i < 100; ++i) {
    crowd.push_back(
        Stalled(live_.Port(0), "POST /slow HTTP/1.1\r\nContent-Length: 1000\r\n\r\nhalf"));
  }
  for (int i = 0; i < 50; ++i) {
    crowd.push_back(Stalled(live_.Port(1), i % 2 == 0 ? "" : std::string("\x16\x03\x01", 3)));
  }
  for (const auto& peer : crowd) {
    ASSERT_NE(peer, nullptr);
  }
  ASSERT_TRUE(OpenBecomes(crowd.size()));
  EXPECT_TRUE(OrdinaryRequestsAnsweredPromptly());
  if (threadsBefore > 0) {
    // The ordinary requests' own workers may still be ending; the crowd must add none.
    EXPECT_LT(ThreadCount(), threadsBefore + 10);
  }

  // Peers that vanish half-way, and one that vanishes with its answer on the way out.
  crowd.clear();
  auto quitter = Stalled(live_.Port(0), "GET /a HTTP/1.1\r\n\r\nGET /b HTTP/1.1\r\n\r\n");
  ASSERT_NE(quitter, nullptr);
  quitter.reset();
  EXPECT_TRUE(OpenBecomes(0));

  // Once the crowd is gone the server moves its ports to a fresh event loop; both must still
  // answer there.
  std::this_thread::sleep_for(1500ms);
  EXPECT_TRUE(OrdinaryRequestsAnsweredPromptly());
}

TEST_F(ServerCrowdTests, AtTheCapTheLongestWaitingPeerMakesRoom) {
  constexpr size_t kCap = 8;
  live_.server.SetConnectionLimit(kCap);
  std::vector<std::unique_ptr<tcp::socket>> waiting;
  for (size_t i = 0; i < kCap; ++i) {
    waiting.push_back(Stalled(live_.Port(0), "GET /wait"));
    ASSERT_NE(waiting.back(), nullptr);
    ASSERT_TRUE(OpenBecomes(i + 1));  // in this order
  }
  // Each newcomer is served at once; once answered it waits for its next request itself, at
  // the back of the line.
  TestClient first(live_.Port(0));
  TestClient second(live_.Port(0));
  for (TestClient* client : {&first, &second}) {
    ASSERT_TRUE(client->Send("GET /quick HTTP/1.1\r\n\r\n"));
    const auto answer = client->ReadAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->body(), "GET /quick ");
  }
  EXPECT_TRUE(ClosedWithin(*waiting[0], 2s));
  EXPECT_TRUE(ClosedWithin(*waiting[1], 2s));
  EXPECT_FALSE(ClosedWithin(*waiting[2], 200ms));
  EXPECT_FALSE(ClosedWithin(*waiting.back(), 200ms));
}

TEST_F(ServerCrowdTests, BodiesBeyondTheBudgetWaitInsteadOfAllocating) {
  constexpr size_t kBudget = 64 * 1024;
  live_.server.SetBodyBudget(kBudget);
  const std::string large(100 * 1024, 'L');
  TestClient first(live_.Port(0));
  ASSERT_TRUE(first.Send("POST /large HTTP/1.1\r\nContent-Length: " + std::to_string(large.size()) +
                         "\r\n\r\n" + large.substr(0, 80 * 1024)));
  std::this_thread::sleep_for(100ms);  // the budget is spent now
  TestClient second(live_.Port(0));
  ASSERT_TRUE(second.Send("POST /small HTTP/1.1\r\nContent-Length: 5\r\n\r\n"));
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(second.Send("small"));
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(live_.handler.Requests().empty());  // the small body waits for room

  ASSERT_TRUE(first.Send(large.substr(80 * 1024)));
  const auto answer = first.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body(), "POST /large " + large);
  const auto waited = second.ReadAnswer();
  ASSERT_TRUE(waited);
  EXPECT_EQ(waited->body(), "POST /small small");
}

TEST_F(ServerCrowdTests, PipelinedRequestsAreAnsweredInOrderOnOneConnection) {
  TestClient client(live_.Port(0));
  ASSERT_TRUE(
      client.Send("GET /1 HTTP/1.1\r\n\r\nPOST /2 HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcGET /3 "
                  "HTTP/1.1\r\n\r\n"));
  for (const char* expected : {"GET /1 ", "POST /2 abc", "GET /3 "}) {
    const auto answer = client.ReadAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->body(), expected);
  }
}

}  // namespace
