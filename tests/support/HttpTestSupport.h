#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include "hlp/HttpServer.h"
#include "hlp/HttpServerConnection.h"
#include "hlp/IRequestHandler.h"
#include "hlp/RequestInfo.h"
#include "hlp/Socket.h"

// Servers and clients on 127.0.0.1 for the tests of everything that speaks HTTP.
namespace kro::test {

using namespace std::chrono_literals;

/** @brief A certificate and its private key, as PEM. */
struct TestCertificate {
  std::string certificate;
  std::string key;
  /** @brief Both, as a server's certificate file wants them. */
  std::string Pem() const { return certificate + key; }
};

/**
 * @brief A certificate for the common name `subject` with the subjectAltName `altNames`
 * ("DNS:localhost,IP:127.0.0.1", or "" for none), signed by `issuer` or self-signed when it is
 * null; `ca` makes it a certificate authority. Empty PEM on failure.
 */
TestCertificate IssueCertificate(const std::string& subject, const std::string& altNames = "",
                                 const TestCertificate* issuer = nullptr, bool ca = false);

/**
 * @brief Serves each connection on a thread of its own, as the agent's worker pool does.
 * The default way of serving echoes "METHOD URI BODY" as text/plain; "/redirect" and "/error"
 * answer with SendHttpRedirect and SendHttpError.
 */
class TestHandler : public hlp::IRequestHandler {
 public:
  using Serve = std::function<void(hlp::HttpServerConnection&)>;

  TestHandler(hlp::HttpServer& server, Serve serve);
  ~TestHandler() override;

  long Start() override { return 0; }
  long Stop() override;
  void HandleRequest(const hlp::Socket* socket) override;

  void Echo(hlp::HttpServerConnection& connection);
  std::vector<hlp::RequestInfo> Requests();
  int FinishedConnections() const { return finished_.load(); }

 private:
  void JoinWorkers();

  hlp::HttpServer& server_;
  Serve serve_;
  std::mutex mutex_;
  std::vector<std::thread> workers_;
  std::vector<hlp::RequestInfo> requests_;
  std::atomic<int> finished_{0};
};

/** @brief A started server with a polling thread; Restart and Stop run on that thread. */
class LiveServer {
 public:
  explicit LiveServer(const std::string& ports, hlp::SSLContext* tls = nullptr,
                      uint32_t timeoutMs = 30000, TestHandler::Serve serve = nullptr);
  ~LiveServer();

  long StartStatus() const { return startStatus_; }
  uint16_t Port(size_t index = 0) const;
  long Restart(const std::string& ports);
  long Stop();

  hlp::HttpServer server;
  TestHandler handler;

 private:
  long OnPollThread(std::function<long()> task);

  long startStatus_;
  std::atomic<bool> quit_{false};
  std::mutex taskMutex_;
  std::function<long()> task_;
  std::promise<long> taskDone_;
  std::thread poller_;
};

/** @brief A TLS client context that accepts any server (the tests' servers are self-signed). */
boost::asio::ssl::context& TrustingTls();

/**
 * @brief A client of `address` (127.0.0.1 unless told), plain or TLS (handshake included); every
 * call is bounded.
 */
class TestClient {
 public:
  using Answer = boost::beast::http::response<boost::beast::http::string_body>;

  explicit TestClient(uint16_t port, boost::asio::ssl::context* tls = nullptr,
                      const std::string& address = "127.0.0.1");

  bool Connected() const { return connected_; }
  bool Send(const std::string& bytes);
  std::optional<Answer> ReadAnswer();
  /** @brief True when the server ends the connection within `limit` without sending more. */
  bool ClosedByServer(std::chrono::milliseconds limit = 5s);
  /** @brief The bytes as they come until the server closes the connection or `limit` passes. */
  std::string ReadAll(std::chrono::milliseconds limit = 5s);

 private:
  template <class Operation>
  boost::system::error_code Run(std::chrono::milliseconds limit, Operation&& operation);

  boost::asio::io_context io_;
  std::optional<boost::beast::tcp_stream> plain_;
  std::optional<boost::asio::ssl::stream<boost::beast::tcp_stream>> secure_;
  boost::beast::flat_buffer buffer_;
  bool connected_ = false;
};

/** @brief Sends `request` on a new connection; all the answer's bytes, "" when none came. */
std::string Exchange(uint16_t port, const std::string& request, bool tls = false,
                     const std::string& address = "127.0.0.1");

}  // namespace kro::test
