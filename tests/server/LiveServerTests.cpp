#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <tuple>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "nvthreads/nvthreads.h"
#include "server/KroServer.h"
#include "server/ServerRequestHandler.h"
#include "tests/support/HttpTestSupport.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

namespace status = kro::status;
using kro::test::Exchange;

constexpr const char* kBrowser = "Mozilla/5.0 (X11; Linux x86_64)";

/** @brief A request with "Connection: close"; `userAgent` "" sends no such header. */
std::string Request(const std::string& method, const std::string& uri, const std::string& userAgent,
                    const std::string& body = {}, const std::string& extraHeaders = {}) {
  std::string request = method + " " + uri + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  if (!userAgent.empty()) {
    request += "User-Agent: " + userAgent + "\r\n";
  }
  if (!body.empty()) {
    request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  return request + extraHeaders + "Connection: close\r\n\r\n" + body;
}

std::string Body(const std::string& answer) {
  const size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? "" : answer.substr(end + 4);
}

// The agent's server on a free port, serving an installation of its own.
class LiveServerTests : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(nvthreads_init(), NVTHREADS_OK);
    install_.Write("User Interface/index.html", "<p>home</p>");
    WriteRegistryString(install_.Path().wstring(), kSetupKey, kInstallDirValue);
    routines_.Register("/arbalo/Requests/info.json", [](const char* request, size_t length,
                                                        const char** answer, size_t* answerLength) {
      const std::string text = "{\"got\":\"" + std::string(request, length) + "\"}";
      char* out = new char[text.size()];
      std::memcpy(out, text.data(), text.size());
      *answer = out;
      *answerLength = text.size();
      return 0L;
    });
  }
  void TearDown() override {
    server_->Shutdown();
    server_.reset();
    nvthreads_cleanup();
  }

  void StartServer(const std::vector<ServerEndpoint>& endpoints,
                   const std::wstring& certificate = L"", const char* component = "KroAgent",
                   uint32_t sessionMinutes = 0) {
    ASSERT_EQ(server_->Init(endpoints, &routines_, certificate, component, sessionMinutes),
              status::Ok);
    ASSERT_EQ(server_->Start(), status::Ok);
    // Once the start is reported over, the server listens: no retrying.
    ASSERT_TRUE(server_->WaitForStart(std::chrono::seconds(10)));
    ASSERT_EQ(server_->GetState(), kServerRunning) << std::hex << server_->StartResult();
  }

  kro::test::ScopedRegistry registry_;
  kro::test::TempDir install_;
  KroAgent::RoutineTable routines_;
  std::unique_ptr<KroServer> server_ = std::make_unique<KroServer>();
  const uint16_t port_ = kro::test::FreeTcpPort();
};

TEST_F(LiveServerTests, ServesFilesRoutinesAndRefusals) {
  StartServer({{port_, false}});
  // answer: where the answer starts (status line and headers as sent); body: in the answer's body
  const std::tuple<const char*, std::string, const char*, const char*> cases[] = {
      // The closing connection is announced, or a client takes the close for a failure.
      {"file", Request("GET", "/arbalo/index.html", kBrowser),
       "HTTP/1.1 200 OK\r\nConnection: close\r\ncontent-Type: text/html\r\n"
       "content-Length: 11\r\n\r\n",
       "<p>home</p>"},
      {"root", Request("GET", "/", ""), "HTTP/1.1 200 ", "<p>home</p>"},
      {"routine", Request("POST", "/arbalo/Requests/info.json", kBrowser, "q=1"),
       "HTTP/1.1 200 OK\r\nConnection: close\r\nCache-Control: No-store, No-cache, "
       "must-revalidate\r\ncontent-Type: application/json\r\ncontent-Length: 13\r\n\r\n",
       "{\"got\":\"q=1\"}"},
      {"authentication", Request("POST", "/kro/x", kBrowser, "Authentication"), "HTTP/1.1 200 ",
       "KroAgent/1.2"},
      {"missing", Request("GET", "/arbalo/none.html", kBrowser), "HTTP/1.1 404 ", "File not found"},
      {"old component", Request("POST", "/kro/x", "KroAgent/1.1", "Authentication"),
       "HTTP/1.1 404 ", "File not found"},
      {"bad length", Request("POST", "/arbalo/x", kBrowser, "", "Content-Length: 12x\r\n"),
       "HTTP/1.1 400 ", "Content length invalid"},
      {"old browser", Request("GET", "/arbalo/index.html", "Mozilla/4.0 (MSIE 8.0)"), "<html>",
       "<title>Error - Arbalo</title>"},
  };
  for (const auto& [name, request, wantAnswer, body] : cases) {
    SCOPED_TRACE(name);
    const std::string answer = Exchange(port_, request);
    EXPECT_EQ(answer.rfind(wantAnswer, 0), 0u) << answer;
    EXPECT_NE(answer.find(body), std::string::npos) << answer;
  }
}

// Only the console and the agent serve browsers; a server of another component serves components.
TEST_F(LiveServerTests, AServerOfAnotherComponentRefusesWhatIsNotAComponent) {
  install_.Write("User Interface/KroSysMgr/a.html", "a");
  StartServer({{port_, false}}, L"", "KroSysMgr");
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"browser", Request("GET", "/kro/KroSysMgr/a.html", kBrowser), "HTTP/1.1 406 Not Acceptable"},
      {"no user agent", Request("GET", "/kro/KroSysMgr/a.html", ""), "HTTP/1.1 406 Not Acceptable"},
      {"unknown component", Request("POST", "/kro/x", "KroFoo/1.2", "Authentication"),
       "HTTP/1.1 406 Not Acceptable"},
      {"component", Request("POST", "/kro/x", "KroMaster/1.2", "Authentication"), "HTTP/1.1 200 "},
      {"old browser", Request("GET", "/kro/x", "Mozilla/4.0 (MSIE 6.0)"),
       "<html><head><title>Error - Arbalo Management Console</title></head><body><h2>Arbalo "
       "Management Console requires Internet Explorer version 9 or greater.</h2><br>"},
  };
  for (const auto& [name, request, wantAnswer] : cases) {
    SCOPED_TRACE(name);
    const std::string answer = Exchange(port_, request);
    EXPECT_EQ(answer.rfind(wantAnswer, 0), 0u) << answer;
  }
  EXPECT_NE(Exchange(port_, std::get<1>(cases[0])).find("Unsupported Client"), std::string::npos);
}

// The session gate must judge the path the router serves, whatever spelling reaches it.
TEST_F(LiveServerTests, ConsoleServerPagesNeedASessionHoweverTheyAreSpelled) {
  install_.Write("User Interface/master/secret.html", "secret");
  install_.Write("User Interface/Master/login.html", "login page");
  StartServer({{port_, false}}, L"", "KroMaster", 30);
  for (const char* uri :
       {"/kro/master/secret.html", "/kro/master/secret.html?", "/kro/master/secret.html?a=1",
        "/kro/master/secret.html\\", "/kro/master/secret.ht..ml", "/kro/master/secret%2ehtml",
        "//kro/master/secret.html", "/kro/master/secret.HTML"}) {
    SCOPED_TRACE(uri);
    EXPECT_EQ(Body(Exchange(port_, Request("GET", uri, kBrowser))).find("secret"),
              std::string::npos);
  }
  EXPECT_EQ(Body(Exchange(port_, Request("GET", "/kro/master/secret.html", kBrowser))),
            "login page");
}

TEST_F(LiveServerTests, PortChangeMovesTheListenerAndAFailedRestartStillTakesThePort) {
  StartServer({{port_, false}});
  const uint16_t next = kro::test::FreeTcpPort();
  ASSERT_NE(next, port_);
  // The poll loop sleeps long between connections; the request must wake it.
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(server_->ChangePorts(next, false), status::Ok);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(server_->ListeningPorts(), std::to_string(next));
  EXPECT_EQ(Exchange(next, Request("GET", "/", "")).rfind("HTTP/1.1 200", 0), 0u);
  EXPECT_EQ(Exchange(port_, Request("GET", "/", "")), "");

  // A port someone else holds: the restart fails and ends the poll loop. That change and any
  // later one alike take the port and answer 0 at once, as long as the server counts as running.
  boost::asio::io_context io;
  const uint16_t held = kro::test::FreeTcpPort();
  boost::asio::ip::tcp::acceptor taken(io, {boost::asio::ip::tcp::v4(), held}, false);
  struct Case {
    const char* path;
    uint16_t port;
  };
  const Case cases[] = {{"the restart fails", held},
                        {"after the failed restart", kro::test::FreeTcpPort()}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(server_->ChangePorts(c.port, false), status::Ok);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(server_->ListeningPorts(), std::to_string(c.port));
    EXPECT_EQ(server_->GetState(), kServerRunning);
  }
}

// With "manager_ca.pem" beside the host, the TLS port admits only callers that CA certified.
TEST_F(LiveServerTests, ServesTlsWithCertificateBesideTheHostClosedToStrangersOnRequest) {
  using kro::test::IssueCertificate;
  std::wstring folder;
  ASSERT_EQ(GetHostDirectory(folder), status::Ok);
  const std::filesystem::path pem = std::filesystem::path(folder) / "ssl_cert.pem";
  const std::filesystem::path caFile = std::filesystem::path(folder) / "manager_ca.pem";
  const auto ca = IssueCertificate("Kro Manager CA", "", nullptr, true);
  const auto member = IssueCertificate("component", "", &ca);
  kro::test::WriteFile(pem, IssueCertificate("127.0.0.1").Pem());
  kro::test::WriteFile(caFile, ca.certificate);
  const uint16_t plain = kro::test::FreeTcpPort();
  StartServer({{port_, true}, {plain, false}}, L"ssl_cert.pem");
  std::filesystem::remove(pem);
  std::filesystem::remove(caFile);

  boost::asio::ssl::context certified(boost::asio::ssl::context::tls_client);
  certified.set_verify_mode(boost::asio::ssl::verify_none);
  certified.use_certificate(boost::asio::buffer(member.certificate),
                            boost::asio::ssl::context::pem);
  certified.use_private_key(boost::asio::buffer(member.key), boost::asio::ssl::context::pem);
  const std::string request = Request("GET", "/arbalo/index.html", kBrowser);
  kro::test::TestClient admitted(port_, &certified);
  ASSERT_TRUE(admitted.Send(request));
  EXPECT_EQ(admitted.ReadAll().rfind("HTTP/1.1 200 ", 0), 0u);
  EXPECT_EQ(Exchange(port_, request, true), "");  // no certificate: never answered
  EXPECT_EQ(Exchange(plain, request).rfind("HTTP/1.1 200 ", 0), 0u);
  EXPECT_EQ(Exchange(port_, request).rfind("HTTP/1.1 200 ", 0), std::string::npos);
}

}  // namespace
}  // namespace kro
