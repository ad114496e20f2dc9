#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "common/KroStatus.h"
#include "common/WinHelper.h"
#include "nvthreads/nvthreads.h"
#include "server/JobRecord.h"
#include "server/KroServer.h"
#include "server/ServerRequestHandler.h"
#include "tests/server/HttpTestClient.h"
#include "tests/server/InboundRecord.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

namespace status = kro::status;
using kro::test::MakeRequest;
using kro::test::SendRaw;

constexpr const char* kBrowser = "Mozilla/5.0 (X11; Linux x86_64)";

// A self-signed certificate and its key in one PEM file, as the server loads it.
bool WriteSelfSignedPem(const std::filesystem::path& file) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  if (!key || !cert) {
    return false;
  }
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_set_pubkey(cert.get(), key.get());
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  const std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new_file(file.string().c_str(), "w"),
                                                      BIO_free);
  return X509_sign(cert.get(), key.get(), EVP_sha256()) > 0 && out &&
         PEM_write_bio_X509(out.get(), cert.get()) == 1 &&
         PEM_write_bio_PrivateKey(out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
}

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
  struct Case {
    const char* name;
    std::string request;
    int status;
    const char* inAnswer;
  };
  const Case cases[] = {
      // The closing connection is announced, or a client takes the close for a failure.
      {"file", MakeRequest("GET", "/arbalo/index.html", kBrowser), 200,
       "HTTP/1.1 200 OK\r\nConnection: close\r\ncontent-Type: text/html\r\n"
       "content-Length: 11\r\n\r\n<p>home</p>"},
      {"root", MakeRequest("GET", "/", ""), 200, "<p>home</p>"},
      {"routine", MakeRequest("POST", "/arbalo/Requests/info.json", kBrowser, "q=1"), 200,
       "Cache-Control: No-store, No-cache, must-revalidate\r\n"
       "content-Type: application/json\r\ncontent-Length: 13\r\n\r\n{\"got\":\"q=1\"}"},
      {"authentication", MakeRequest("POST", "/kro/x", kBrowser, "Authentication"), 200,
       "KroAgent/1.2"},
      {"missing", MakeRequest("GET", "/arbalo/none.html", kBrowser), 404, "File not found"},
      {"outside", MakeRequest("GET", "/other/index.html", kBrowser), 404, "File not found"},
      {"old component", MakeRequest("POST", "/kro/x", "KroAgent/1.1", "Authentication"), 404,
       "File not found"},
      {"component outside", MakeRequest("POST", "/x", "KroMaster/1.3", "Authentication"), 404,
       "File not found"},
      {"bad length", MakeRequest("POST", "/arbalo/x", kBrowser, "", "Content-Length: 12x\r\n"), 400,
       "Content length invalid"},
      {"old browser", MakeRequest("GET", "/arbalo/index.html", "Mozilla/4.0 (MSIE 8.0)"), 0,
       "<html><head><title>Error - Arbalo</title></head>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const kro::test::HttpReply reply = SendRaw(port_, c.request);
    ASSERT_TRUE(reply.connected);
    EXPECT_EQ(reply.Status(), c.status) << reply.raw;
    EXPECT_NE(reply.raw.find(c.inAnswer), std::string::npos) << reply.raw;
  }
}

TEST_F(LiveServerTests, JobExchangeDrainsWhatRelayRoutinesQueued) {
  StartServer({{port_, false}});
  std::function<RoutineFn> relay;
  ASSERT_TRUE(routines_.Find("AddJobResponseToSendUpperTier", relay));
  const char* jobAnswer = "done";
  size_t unused = 0;
  ASSERT_EQ(relay("job-7", 5, &jobAnswer, &unused), status::Ok);

  std::vector<char> expected;
  ASSERT_EQ(BuildJobRecord("ProcessJobDone", "done", "job-7", expected), status::Ok);
  const std::string exchange = MakeRequest("POST", "/kro/jobs", "KroMaster/1.3");
  kro::test::HttpReply reply = SendRaw(port_, exchange);
  EXPECT_EQ(reply.Status(), 200) << reply.raw;
  EXPECT_NE(reply.Head().find("content-Length: " + std::to_string(expected.size())),
            std::string::npos);
  EXPECT_EQ(reply.Body(), std::string(expected.begin(), expected.end()));

  reply = SendRaw(port_, exchange);
  EXPECT_NE(reply.Head().find("content-Length: 0\r\n"), std::string::npos) << reply.raw;
  EXPECT_EQ(reply.Body(), "");
}

// Requests that fuzzing found to crash the server or to be misread; each is answered as
// written, and the server goes on serving.
TEST_F(LiveServerTests, HostileRequestsAreAnsweredAndTheServerLives) {
  install_.Write("User Interface/caf\xc3\xa9.html", "<p>accent</p>");
  StartServer({{port_, false}});
  auto job = [](const std::string& first) {
    return MakeRequest("POST", "/kro/jobs", "KroMaster/1.2",
                       kro::test::InboundRecord("Any", first, ""));
  };
  struct Case {
    const char* name;
    std::string request;
    int status;
    const char* inAnswer;
  };
  const Case cases[] = {
      {"decimal exponent below the power table", job("1.0000000000000000001e-330"), 200,
       "content-Length: 0"},
      {"exponent that overflows an int", job("0.0000000000e-2147483639"), 200, "content-Length: 0"},
      {"non-ASCII file name", MakeRequest("GET", "/arbalo/caf\xc3\xa9.html", kBrowser), 200,
       "<p>accent</p>"},
      {"percent-encoded file name", MakeRequest("GET", "/arbalo/caf%C3%A9.html?v=2", kBrowser), 200,
       "<p>accent</p>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const kro::test::HttpReply reply = SendRaw(port_, c.request);
    EXPECT_EQ(reply.Status(), c.status) << reply.raw;
    EXPECT_NE(reply.raw.find(c.inAnswer), std::string::npos) << reply.raw;
  }
  EXPECT_EQ(SendRaw(port_, MakeRequest("GET", "/", "")).Status(), 200);
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
    const kro::test::HttpReply reply = SendRaw(port_, MakeRequest("GET", uri, kBrowser));
    EXPECT_EQ(reply.Body().find("secret"), std::string::npos) << reply.raw;
  }
  EXPECT_EQ(SendRaw(port_, MakeRequest("GET", "/kro/master/secret.html", kBrowser)).Body(),
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
  EXPECT_EQ(SendRaw(next, MakeRequest("GET", "/", "")).Status(), 200);
  EXPECT_FALSE(
      SendRaw(port_, MakeRequest("GET", "/", ""), false, std::chrono::seconds(2)).Status() == 200);

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

TEST_F(LiveServerTests, ServesTlsWithCertificateBesideTheHost) {
  std::wstring folder;
  ASSERT_EQ(GetHostDirectory(folder), status::Ok);
  const std::filesystem::path pem = std::filesystem::path(folder) / "ssl_cert.pem";
  ASSERT_TRUE(WriteSelfSignedPem(pem));
  const uint16_t plain = kro::test::FreeTcpPort();
  StartServer({{port_, true}, {plain, false}}, L"ssl_cert.pem");
  std::error_code ignored;
  std::filesystem::remove(pem, ignored);

  const std::string request = MakeRequest("GET", "/arbalo/index.html", kBrowser);
  EXPECT_EQ(SendRaw(port_, request, true).Status(), 200);
  EXPECT_EQ(SendRaw(plain, request).Status(), 200);
  EXPECT_NE(SendRaw(port_, request, false, std::chrono::seconds(3)).Status(), 200);
}

TEST_F(LiveServerTests, StartOnATakenPortIsOverAtOnceWithoutListening) {
  boost::asio::io_context io;
  const boost::asio::ip::tcp::endpoint endpoint(boost::asio::ip::tcp::v4(), port_);
  boost::asio::ip::tcp::acceptor taken(io, endpoint, /*reuse_addr=*/false);
  ASSERT_EQ(server_->Init({{port_, false}}, &routines_, L"", "KroAgent", 0), status::Ok);
  ASSERT_EQ(server_->Start(), status::Ok);
  EXPECT_TRUE(server_->WaitForStart(std::chrono::seconds(10)));
  EXPECT_NE(server_->GetState(), kServerRunning);
  EXPECT_NE(server_->StartResult(), status::Ok);
}

TEST_F(LiveServerTests, StalledClientDoesNotHoldUpOthers) {
  StartServer({{port_, false}});
  const auto stalled =
      kro::test::OpenStalledClient(port_, "GET /arbalo/index.html HTTP/1.1\r\nHost: x");
  ASSERT_NE(stalled, nullptr);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(SendRaw(port_, MakeRequest("GET", "/", ""), false, std::chrono::seconds(5)).Status(),
            200);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

}  // namespace
}  // namespace kro
