#include "hlp/HttpClient.h"

#include <gtest/gtest.h>

#include <charconv>
#include <optional>

#include <boost/asio/ip/tcp.hpp>

#include "common/KroStatus.h"
#include "hlp/SSLContext.h"
#include "tests/platform/hlp/HttpTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using kro::test::LiveServer;
using kro::test::TestCertificate;
using Clock = std::chrono::steady_clock;

class HttpClientTests : public testing::Test {
 protected:
  struct Seen {
    hlp::RequestInfo request;
    std::string body;
  };

  // Records each request with its body; "/fail" is answered with 500, the rest echoed.
  void Serve(hlp::HttpServerConnection& connection) {
    hlp::RequestInfo request;
    while (connection.ReadRequest(request) == 0) {
      const std::string length = request.Header("Content-Length");
      size_t size = 0;
      std::from_chars(length.data(), length.data() + length.size(), size);
      std::string body(size, '\0');
      if (size > 0 && connection.Read(body.data(), size) != 0) {
        return;
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back({request, body});
      }
      if (request.uri == "/fail") {
        connection.SendHttpError(500, "Internal Server Error", "%s", "broken");
      } else {
        connection.PrintFormattedWithHeaders("%s %s %s", request.method.c_str(),
                                             request.uri.c_str(), body.c_str());
      }
    }
  }

  std::optional<Seen> Last() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_.empty() ? std::nullopt : std::optional<Seen>(seen_.back());
  }

  static void ExpectOneLine(const std::string& error) {
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(error.find_first_of("\r\n"), std::string::npos) << error;
  }

  kro::test::TempDir dir_;
  std::mutex mutex_;
  std::vector<Seen> seen_;
};

TEST_F(HttpClientTests, RequestsArriveIntactAndAnswersComeBack) {
  struct Case {
    const char* path;
    std::string body;
    const char* type;  // set by the caller when not empty
    unsigned status;
    const char* method;
    const char* sentType;  // as the server saw it
  };
  const Case cases[] = {
      {"/kro/dialhome?id=7", "", "", 200, "GET", ""},
      {"/kro/report", std::string("line\r\n\x7f\xfe\x01 end"), "", 200, "POST",
       "application/octet-stream"},
      {"/kro/json", "{\"a\":1}", "application/json", 200, "POST", "application/json"},
      {"/fail", "", "", 500, "GET", ""},
  };
  LiveServer live("0", nullptr, 30000, [this](hlp::HttpServerConnection& c) { Serve(c); });
  ASSERT_EQ(live.StartStatus(), 0);
  for (const Case& row : cases) {
    SCOPED_TRACE(row.path);
    hlp::HttpClient client;
    ASSERT_EQ(client.Init("127.0.0.1", live.Port(), false), 0);
    ASSERT_EQ(client.Connect(), 0) << client.LastError();
    hlp::HttpRequest request(row.path);
    request.SetHeader("X-Agent-Id", "Agent 42");
    if (*row.type != '\0') {
      request.SetHeader("content-type", row.type);
    }
    request.SetBody(row.body);
    hlp::HttpResponse response;
    ASSERT_EQ(client.ExecuteRequest(request, response), 0) << client.LastError();
    client.Disconnect();

    EXPECT_EQ(response.status, row.status);
    if (row.status == 200) {
      EXPECT_EQ(response.body, std::string(row.method) + " " + row.path + " " + row.body);
    } else {
      EXPECT_NE(response.body.find("broken"), std::string::npos) << response.body;
    }
    const auto seen = Last();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->request.method, row.method);
    EXPECT_EQ(seen->request.uri, row.path);
    EXPECT_EQ(seen->body, row.body);
    EXPECT_EQ(seen->request.Header("X-Agent-Id"), "Agent 42");
    EXPECT_EQ(seen->request.Header("Host"), "127.0.0.1:" + std::to_string(live.Port()));
    EXPECT_EQ(seen->request.Header("Content-Type"), row.sentType);
  }
}

TEST_F(HttpClientTests, MisuseFailsWithoutTouchingTheNetwork) {
  hlp::HttpClient client;
  hlp::HttpResponse response;
  EXPECT_EQ(client.Connect(), kro::status::NotAvailable);
  EXPECT_EQ(client.Init("", 80, false), kro::status::NotAvailable);
  EXPECT_EQ(client.Init("127.0.0.1", 0, false), kro::status::NotAvailable);
  ASSERT_EQ(client.Init("127.0.0.1", kro::test::UnusedPort(), false), 0);
  EXPECT_EQ(client.ExecuteRequest(hlp::HttpRequest("/"), response), kro::status::NotAvailable);
  ExpectOneLine(client.LastError());
}

TEST_F(HttpClientTests, FailuresEndWithinTheirTimeOuts) {
  boost::asio::io_context io;
  // Listens but never accepts: the system completes connections, nothing ever answers.
  boost::asio::ip::tcp::acceptor silent(
      io, boost::asio::ip::tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), 0));
  const uint16_t silentPort = silent.local_endpoint().port();
  struct Case {
    const char* name;
    uint16_t port;
    bool tls;
    bool connects;
    std::chrono::milliseconds atLeast;
  };
  const Case cases[] = {
      {"refused", kro::test::UnusedPort(), false, false, 0ms},
      {"silent to the request", silentPort, false, true, 400ms},
      {"silent to the handshake", silentPort, true, false, 400ms},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    hlp::HttpClient client;
    ASSERT_EQ(client.Init("127.0.0.1", row.port, row.tls), 0);
    client.SetTimeouts(row.connects ? 5000 : 400, 400);
    const auto start = Clock::now();
    long status = client.Connect();
    EXPECT_EQ(status == 0, row.connects) << client.LastError();
    if (status == 0) {
      hlp::HttpResponse response;
      status = client.ExecuteRequest(hlp::HttpRequest("/"), response);
      EXPECT_NE(status, 0);
    }
    const auto elapsed = Clock::now() - start;
    EXPECT_TRUE(kro::status::Failed(status));
    EXPECT_GE(elapsed, row.atLeast);
    EXPECT_LT(elapsed, 3s);
    ExpectOneLine(client.LastError());
    client.Disconnect();
  }
}

TEST_F(HttpClientTests, TlsTrustsOnlyAVerifiedServerOfTheRightName) {
  const TestCertificate ca = kro::test::IssueCertificate("Kro Test CA", "", nullptr, true);
  const TestCertificate good =
      kro::test::IssueCertificate("localhost", "DNS:localhost,IP:127.0.0.1", &ca);
  const TestCertificate other = kro::test::IssueCertificate("otherhost", "DNS:otherhost", &ca);
  const TestCertificate self = kro::test::IssueCertificate("localhost", "IP:127.0.0.1");
  ASSERT_FALSE(ca.certificate.empty() || good.key.empty() || other.key.empty() || self.key.empty());
  struct Case {
    const char* name;
    const TestCertificate& served;
    const char* host;
    std::string trusted;  // the trust file's content; "" for no file at all
    const char* reason;   // in LastError; "" for a server that is accepted
  };
  const Case cases[] = {
      {"CA trusted, by address", good, "127.0.0.1", ca.certificate, ""},
      {"CA trusted, by name", good, "localhost", ca.certificate, ""},
      {"CA not trusted", good, "127.0.0.1", "", "certificate verify failed: unable to get local"},
      {"wrong name", other, "localhost", ca.certificate, "certificate verify failed: hostname"},
      {"wrong address", other, "127.0.0.1", ca.certificate, "certificate verify failed: IP"},
      {"self-signed", self, "127.0.0.1", "", "certificate verify failed: self"},
      {"self-signed and pinned", self, "127.0.0.1", self.Pem(), ""},
      {"trust file without certificates", good, "127.0.0.1", "junk", "holds no certificate"},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    hlp::SSLContext tls;
    ASSERT_EQ(tls.UseCertificate(dir_.Write("server.pem", row.served.Pem()).string()), 0);
    LiveServer live("0s", &tls, 30000, [this](hlp::HttpServerConnection& c) { Serve(c); });
    ASSERT_EQ(live.StartStatus(), 0);

    hlp::HttpClient client;
    ASSERT_EQ(client.Init(row.host, live.Port(), true), 0);
    client.SetTrustFile(row.trusted.empty() ? dir_.Path() / "absent.pem"
                                            : dir_.Write("trust.pem", row.trusted));
    const long status = client.Connect();
    if (*row.reason != '\0') {
      EXPECT_TRUE(kro::status::Failed(status));
      EXPECT_NE(client.LastError().find(row.reason), std::string::npos) << client.LastError();
      ExpectOneLine(client.LastError());
      continue;
    }
    ASSERT_EQ(status, 0) << client.LastError();
    hlp::HttpResponse response;
    ASSERT_EQ(client.ExecuteRequest(hlp::HttpRequest("/secure"), response), 0)
        << client.LastError();
    EXPECT_EQ(response.status, 200u);
    EXPECT_EQ(response.body, "GET /secure ");
    client.Disconnect();
    EXPECT_EQ(client.LastError(), "");
  }
}

}  // namespace
