#include "tests/support/HttpTestSupport.h"

#include <charconv>
#include <utility>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
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

namespace {

// What `write` puts into a memory BIO, as text ("" when it fails).
template <class Write>
std::string ToPem(Write write) {
  BIO* out = BIO_new(BIO_s_mem());
  char* data = nullptr;
  const long size = write(out) == 1 ? BIO_get_mem_data(out, &data) : 0;
  std::string pem(data != nullptr ? data : "", static_cast<size_t>(size));
  BIO_free(out);
  return pem;
}

template <class Read>
auto FromPem(const std::string& pem, Read read) {
  BIO* in = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  auto object = read(in, nullptr, nullptr, nullptr);
  BIO_free(in);
  return object;
}

}  // namespace

TestCertificate IssueCertificate(const std::string& subject, const std::string& altNames,
                                 const TestCertificate* issuer, bool ca) {
  static std::atomic<long> serial{100};
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  X509* certificate = X509_new();
  X509* signer = issuer != nullptr ? FromPem(issuer->certificate, PEM_read_bio_X509) : certificate;
  EVP_PKEY* signingKey = issuer != nullptr ? FromPem(issuer->key, PEM_read_bio_PrivateKey) : key;
  TestCertificate result;
  if (key != nullptr && certificate != nullptr && signer != nullptr && signingKey != nullptr) {
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 24 * 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(subject.c_str()), -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(signer));
    X509V3_CTX context;
    X509V3_set_ctx(&context, signer, certificate, nullptr, nullptr, 0);
    std::vector<std::pair<int, std::string>> extensions = {
        {NID_basic_constraints, ca ? "critical,CA:TRUE" : "CA:FALSE"},
        {NID_subject_key_identifier, "hash"}};
    if (ca) {
      extensions.emplace_back(NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    if (!altNames.empty()) {
      extensions.emplace_back(NID_subject_alt_name, altNames);
    }
    for (const auto& [nid, value] : extensions) {
      X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
      X509_add_ext(certificate, extension, -1);
      X509_EXTENSION_free(extension);
    }
    if (X509_sign(certificate, signingKey, EVP_sha256()) > 0) {
      result.certificate = ToPem([&](BIO* out) { return PEM_write_bio_X509(out, certificate); });
      result.key = ToPem([&](BIO* out) {
        return PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
      });
    }
  }
  if (issuer != nullptr) {
    X509_free(signer);
    EVP_PKEY_free(signingKey);
  }
  X509_free(certificate);
  EVP_PKEY_free(key);
  return result;
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

asio::ssl::context& TrustingTls() {
  static asio::ssl::context context = [] {
    asio::ssl::context trusting(asio::ssl::context::tls_client);
    trusting.set_verify_mode(asio::ssl::verify_none);
    return trusting;
  }();
  return context;
}

TestClient::TestClient(uint16_t port, asio::ssl::context* tls, const std::string& address) {
  tcp::socket socket(io_);
  boost::system::error_code ec;
  socket.connect(tcp::endpoint(asio::ip::make_address(address), port), ec);
  if (ec) {
    return;
  }
  if (tls == nullptr) {
    plain_.emplace(std::move(socket));
    connected_ = true;
    return;
  }
  secure_.emplace(std::move(socket), *tls);
  secure_->next_layer().expires_after(5s);
  secure_->async_handshake(asio::ssl::stream_base::client,
                           [this](const boost::system::error_code& ec) { connected_ = !ec; });
  io_.run_for(7s);
}

// Starts `operation` (given the stream and a completion handler) and runs it to its end.
template <class Operation>
boost::system::error_code TestClient::Run(std::chrono::milliseconds limit, Operation&& operation) {
  auto& lowest = secure_ ? secure_->next_layer() : *plain_;
  lowest.expires_after(limit);
  auto result = std::make_shared<std::optional<boost::system::error_code>>();
  auto done = [result](const boost::system::error_code& ec, auto...) { *result = ec; };
  if (secure_) {
    operation(*secure_, done);
  } else {
    operation(*plain_, done);
  }
  io_.restart();
  // The stream's expiry ends the operation; the deadline here is a second guard.
  const auto deadline = std::chrono::steady_clock::now() + limit + 2s;
  while (!result->has_value() && io_.run_one_until(deadline) != 0) {
  }
  return result->value_or(asio::error::timed_out);
}

bool TestClient::Send(const std::string& bytes) {
  return connected_ && !Run(5s, [&](auto& stream, auto done) {
           asio::async_write(stream, asio::buffer(bytes), done);
         });
}

std::optional<TestClient::Answer> TestClient::ReadAnswer() {
  Answer answer;
  if (!connected_ ||
      Run(5s, [&](auto& stream, auto done) { http::async_read(stream, buffer_, answer, done); })) {
    return std::nullopt;
  }
  return answer;
}

bool TestClient::ClosedByServer(std::chrono::milliseconds limit) {
  if (!connected_ || buffer_.size() != 0) {
    return false;  // more was sent than the answers read
  }
  char byte = 0;
  const auto ec = Run(limit, [&](auto& stream, auto done) {
    stream.async_read_some(asio::buffer(&byte, 1), done);
  });
  return ec && ec != beast::error::timeout && ec != asio::error::timed_out;
}

std::string TestClient::ReadAll(std::chrono::milliseconds limit) {
  std::string raw = beast::buffers_to_string(buffer_.data());
  buffer_.clear();
  if (connected_) {
    Run(limit, [&](auto& stream, auto done) {
      asio::async_read(stream, asio::dynamic_buffer(raw), done);
    });
  }
  return raw;
}

std::string Exchange(uint16_t port, const std::string& request, bool tls,
                     const std::string& address) {
  TestClient client(port, tls ? &TrustingTls() : nullptr, address);
  return client.Send(request) ? client.ReadAll() : std::string();
}

}  // namespace kro::test
