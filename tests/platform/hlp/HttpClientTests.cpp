#include "hlp/HttpClient.h"

#include <gtest/gtest.h>

#include "core/KroStatus.h"
#include "hlp/SSLContext.h"
#include "tests/support/HttpTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using kro::test::LiveServer;
using kro::test::TestCertificate;
using Clock = std::chrono::steady_clock;

void ExpectOneLine(const std::string& error) {
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(error.find_first_of("\r\n"), std::string::npos) << error;
}

// The server echoes "METHOD URI BODY"; "/error" is answered with 404.
TEST(HttpClientTests, RequestsArriveIntactAndAnswersComeBack) {
  struct Case {
    const char* path;
    std::string body;
    const char* type;  // set by the caller when not empty
    unsigned status;
    const char* answer;
    const char* sentType;  // as the server saw it
  };
  const Case cases[] = {
      {"/kro/dialhome?id=7", "", "", 200, "GET /kro/dialhome?id=7 ", ""},
      {"/kro/report", std::string("line\r\n\x7f\xfe\x01 end"), "", 200,
       "POST /kro/report line\r\n\x7f\xfe\x01 end", "application/octet-stream"},
      {"/kro/json", "{\"a\":1}", "application/json", 200, "POST /kro/json {\"a\":1}",
       "application/json"},
      {"/error", "", "", 404, "&lt;b&gt;missing", ""},
  };
  LiveServer live("0");
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
    EXPECT_NE(response.body.find(row.answer), std::string::npos) << response.body;
    const hlp::RequestInfo seen = live.handler.Requests().back();
    EXPECT_EQ(seen.Header("X-Agent-Id"), "Agent 42");
    EXPECT_EQ(seen.Header("Host"), "127.0.0.1:" + std::to_string(live.Port()));
    EXPECT_EQ(seen.Header("Content-Type"), row.sentType);
  }
}

TEST(HttpClientTests, FailuresEndWithinTheirTimeOuts) {
  kro::test::LoopbackListener silent;  // connections complete, nothing ever answers
  const kro::test::RefusingPort refusing;
  struct Case {
    const char* name;
    uint16_t port;
    bool tls;
    bool connects;
    std::chrono::milliseconds atLeast;
  };
  const Case cases[] = {{"refused", refusing.Port(), false, false, 0ms},
                        {"silent to the request", silent.Port(), false, true, 400ms},
                        {"silent to the handshake", silent.Port(), true, false, 400ms}};
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
    }
    const auto elapsed = Clock::now() - start;
    EXPECT_TRUE(kro::status::Failed(status));
    EXPECT_GE(elapsed, row.atLeast);
    EXPECT_LT(elapsed, 3s);
    ExpectOneLine(client.LastError());
  }
}

TEST(HttpClientTests, TlsTrustsOnlyAVerifiedServerOfTheRightName) {
  kro::test::TempDir dir;
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
    ASSERT_EQ(tls.UseCertificate(dir.Write("server.pem", row.served.Pem()).string()), 0);
    LiveServer live("0s", &tls);
    ASSERT_EQ(live.StartStatus(), 0);

    hlp::HttpClient client;
    ASSERT_EQ(client.Init(row.host, live.Port(), true), 0);
    client.SetTrustFile(row.trusted.empty() ? dir.Path() / "absent.pem"
                                            : dir.Write("trust.pem", row.trusted));
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
    EXPECT_EQ(response.body, "GET /secure ");
    client.Disconnect();
    EXPECT_EQ(client.LastError(), "");
  }
}

}  // namespace
