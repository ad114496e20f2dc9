#include "tests/platform/hlp/HttpTestSupport.h"

#include <charconv>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace kro::test {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

std::string SelfSignedPem() {
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  X509* certificate = X509_new();
  std::string pem;
  if (key != nullptr && certificate != nullptr) {
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 24 * 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    BIO* out = BIO_new(BIO_s_mem());
    if (X509_sign(certificate, key, EVP_sha256()) > 0 && PEM_write_bio_X509(out, certificate) &&
        PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr)) {
      char* data = nullptr;
      const long size = BIO_get_mem_data(out, &data);
      pem.assign(data, static_cast<size_t>(size));
    }
    BIO_free(out);
  }
  X509_free(certificate);
  EVP_PKEY_free(key);
  return pem;
}

namespace {

// The PEM form of `certificate` or `key` (whichever is not null).
std::string ToPem(X509* certificate, EVP_PKEY* key) {
  BIO* out = BIO_new(BIO_s_mem());
  std::string pem;
  const bool written = certificate != nullptr ? PEM_write_bio_X509(out, certificate) == 1
                                              : PEM_write_bio_PrivateKey(out, key, nullptr, nullptr,
                                                                         0, nullptr, nullptr) == 1;
  char* data = nullptr;
  const long size = written ? BIO_get_mem_data(out, &data) : 0;
  if (size > 0) {
    pem.assign(data, static_cast<size_t>(size));
  }
  BIO_free(out);
  return pem;
}

bool AddExtension(X509* certificate, X509V3_CTX* context, int nid, const std::string& value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, context, nid, value.c_str());
  const bool added = extension != nullptr && X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

}  // namespace

TestCertificate IssueCertificate(const std::string& subject, const std::string& altNames,
                                 const TestCertificate* issuer, bool ca) {
  static std::atomic<long> serial{100};
  TestCertificate result;
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  X509* certificate = X509_new();
  X509* issuerCertificate = nullptr;
  EVP_PKEY* issuerKey = nullptr;
  if (issuer != nullptr) {
    BIO* in =
        BIO_new_mem_buf(issuer->certificate.data(), static_cast<int>(issuer->certificate.size()));
    issuerCertificate = PEM_read_bio_X509(in, nullptr, nullptr, nullptr);
    BIO_free(in);
    in = BIO_new_mem_buf(issuer->key.data(), static_cast<int>(issuer->key.size()));
    issuerKey = PEM_read_bio_PrivateKey(in, nullptr, nullptr, nullptr);
    BIO_free(in);
  }
  const bool issuerOk = issuer == nullptr || (issuerCertificate != nullptr && issuerKey != nullptr);
  if (key != nullptr && certificate != nullptr && issuerOk) {
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial.fetch_add(1));
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 24 * 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(subject.c_str()), -1, -1, 0);
    X509* signer = issuerCertificate != nullptr ? issuerCertificate : certificate;
    X509_set_issuer_name(certificate, X509_get_subject_name(signer));
    X509V3_CTX context;
    X509V3_set_ctx(&context, signer, certificate, nullptr, nullptr, 0);
    bool extended = AddExtension(certificate, &context, NID_basic_constraints,
                                 ca ? "critical,CA:TRUE" : "CA:FALSE") &&
                    AddExtension(certificate, &context, NID_subject_key_identifier, "hash");
    if (ca) {
      extended = extended &&
                 AddExtension(certificate, &context, NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    if (!altNames.empty()) {
      extended = extended && AddExtension(certificate, &context, NID_subject_alt_name, altNames);
    }
    if (extended &&
        X509_sign(certificate, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) > 0) {
      result.certificate = ToPem(certificate, nullptr);
      result.key = ToPem(nullptr, key);
    }
  }
  X509_free(issuerCertificate);
  EVP_PKEY_free(issuerKey);
  X509_free(certificate);
  EVP_PKEY_free(key);
  return result;
}

uint16_t UnusedPort() {
  asio::io_context io;
  tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
  return acceptor.local_endpoint().port();
}

TestHandler::TestHandler(hlp::HttpServer& server, Serve serve)
    : server_(server), serve_(std::move(serve)) {
  if (!serve_) {
    serve_ = [this](hlp::HttpServerConnection& connection) { Echo(connection); };
  }
}

TestHandler::~TestHandler() {
  JoinWorkers();
}

long TestHandler::Stop() {
  JoinWorkers();
  server_.SetFinishedStopping();
  return 0;
}

void TestHandler::JoinWorkers() {
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    workers.swap(workers_);
  }
  for (auto& worker : workers) {
    worker.join();
  }
}

void TestHandler::HandleRequest(const hlp::Socket* socket) {
  std::lock_guard<std::mutex> lock(mutex_);
  workers_.emplace_back([this, client = *socket] {
    hlp::HttpServerConnection connection(&server_);
    if (connection.SetClient(client) == 0) {
      serve_(connection);
    }
    connection.CloseConnection();
    finished_.fetch_add(1);
  });
}

void TestHandler::Echo(hlp::HttpServerConnection& connection) {
  for (int served = 0; served < 100; ++served) {
    hlp::RequestInfo request;
    if (connection.ReadRequest(request) != 0) {
      return;
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
    }
    std::string body;
    std::string length;
    if (request.GetHeader("Content-Length", length)) {
      size_t size = 0;
      const auto [end, error] = std::from_chars(length.data(), length.data() + length.size(), size);
      if (error != std::errc() || end != length.data() + length.size()) {
        connection.SendHttpError(400, "Bad Request", "%s", "Content length invalid");
        continue;
      }
      body.resize(size);
      if (connection.Read(body.data(), size) != 0) {
        return;
      }
    }
    if (request.uri == "/redirect") {
      connection.SendHttpRedirect(302, "Found", "/target", "%s", "Moved");
    } else if (request.uri == "/error") {
      connection.SendHttpError(404, "Not Found", "%s", "<b>missing</b>");
    } else {
      connection.PrintFormattedWithHeaders("%s %s %s", request.method.c_str(), request.uri.c_str(),
                                           body.c_str());
    }
  }
}

std::vector<hlp::RequestInfo> TestHandler::Requests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

LiveServer::LiveServer(const std::string& ports, hlp::SSLContext* tls, uint32_t timeoutMs,
                       TestHandler::Serve serve)
    : handler(server, std::move(serve)) {
  server.SetConnectionTimeout(timeoutMs);
  startStatus_ = server.Start(tls, ports, &handler);
  poller_ = std::thread([this] {
    while (!quit_.load()) {
      if (server.Poll() != 0) {
        std::this_thread::sleep_for(1ms);
      }
      std::lock_guard<std::mutex> lock(taskMutex_);
      if (task_) {
        taskDone_.set_value(task_());
        task_ = nullptr;
      }
    }
  });
}

LiveServer::~LiveServer() {
  Stop();
  quit_.store(true);
  poller_.join();
}

uint16_t LiveServer::Port(size_t index) const {
  const auto ports = server.GetBoundPorts();
  return index < ports.size() ? ports[index] : 0;
}

long LiveServer::OnPollThread(std::function<long()> task) {
  std::future<long> done;
  {
    std::lock_guard<std::mutex> lock(taskMutex_);
    taskDone_ = std::promise<long>();
    done = taskDone_.get_future();
    task_ = std::move(task);
  }
  if (done.wait_for(20s) != std::future_status::ready) {
    return -1;
  }
  return done.get();
}

long LiveServer::Restart(const std::string& ports) {
  return OnPollThread([this, ports] { return server.Restart(ports); });
}

long LiveServer::Stop() {
  return OnPollThread([this] { return server.Stop(); });
}

TestClient::TestClient(uint16_t port, asio::ssl::context* tls) {
  tcp::socket socket(io_);
  boost::system::error_code ec;
  socket.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port), ec);
  if (ec) {
    return;
  }
  if (tls == nullptr) {
    plain_.emplace(std::move(socket));
    connected_ = true;
    return;
  }
  secure_.emplace(std::move(socket), *tls);
  connected_ = !Run(5s, [this](auto handler) {
    secure_->async_handshake(asio::ssl::stream_base::client, std::move(handler));
  });
}

template <class Operation>
boost::system::error_code TestClient::Run(std::chrono::milliseconds limit, Operation&& operation) {
  auto& lowest = secure_ ? secure_->next_layer() : *plain_;
  lowest.expires_after(limit);
  auto result = std::make_shared<std::optional<boost::system::error_code>>();
  operation([result](const boost::system::error_code& ec, auto...) { *result = ec; });
  io_.restart();
  // The stream's expiry ends the operation; the deadline here is a second guard.
  const auto deadline = std::chrono::steady_clock::now() + limit + 2s;
  while (!result->has_value() && io_.run_one_until(deadline) != 0) {
  }
  return result->value_or(asio::error::timed_out);
}

bool TestClient::Send(const std::string& bytes) {
  if (!connected_) {
    return false;
  }
  return !Run(5s, [&](auto handler) {
    if (secure_) {
      asio::async_write(*secure_, asio::buffer(bytes), std::move(handler));
    } else {
      asio::async_write(*plain_, asio::buffer(bytes), std::move(handler));
    }
  });
}

std::optional<http::response<http::string_body>> TestClient::ReadAnswer() {
  if (!connected_) {
    return std::nullopt;
  }
  http::response<http::string_body> answer;
  const auto ec = Run(5s, [&](auto handler) {
    if (secure_) {
      http::async_read(*secure_, buffer_, answer, std::move(handler));
    } else {
      http::async_read(*plain_, buffer_, answer, std::move(handler));
    }
  });
  if (ec) {
    return std::nullopt;
  }
  return answer;
}

bool TestClient::ClosedByServer(std::chrono::milliseconds limit) {
  if (!connected_) {
    return false;
  }
  if (buffer_.size() != 0) {
    return false;  // more was sent than the answers read
  }
  char byte = 0;
  const auto ec = Run(limit, [&](auto handler) {
    if (secure_) {
      secure_->async_read_some(asio::buffer(&byte, 1), std::move(handler));
    } else {
      plain_->async_read_some(asio::buffer(&byte, 1), std::move(handler));
    }
  });
  return ec && ec != beast::error::timeout && ec != asio::error::timed_out;
}

}  // namespace kro::test
