#include "hlp/HttpClient.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include "core/KroStatus.h"
#include "hlp/SystemTrust.h"

namespace hlp {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr uint32_t kDefaultConnectMs = 10000;
constexpr uint32_t kDefaultRequestMs = 30000;
// Answers are configuration and commands, never bulk data; anything larger is a broken server.
constexpr uint64_t kBodyLimit = 16ull * 1024 * 1024;
constexpr uint32_t kHeaderLimit = 64 * 1024;
// The stream's expiry ends every operation; this much later the socket is closed by force.
constexpr auto kBackstop = std::chrono::seconds(2);
// How often a waiting operation asks whether its caller wants it abandoned.
constexpr auto kCancelSlice = std::chrono::milliseconds(100);
// A TLS close is a courtesy to the server and must not hold up a caller that is done.
constexpr auto kShutdownLimit = std::chrono::seconds(2);

using TlsStream = ssl::stream<beast::tcp_stream>;

long StatusOf(const error_code& ec) {
  if (ec == beast::error::timeout || ec == asio::error::timed_out) {
    return kro::status::FromWin32(static_cast<uint32_t>(asio::error::timed_out));
  }
  if (ec == asio::error::eof || ec == ssl::error::stream_truncated) {
    return kro::status::FromWin32(static_cast<uint32_t>(asio::error::connection_reset));
  }
  if (ec.category() == boost::system::system_category()) {
    return kro::status::FromWin32(static_cast<uint32_t>(ec.value()));
  }
  if (ec.category() == http::make_error_code(http::error::body_limit).category()) {
    return kro::status::MalformedData;
  }
  return kro::status::Failure;
}

std::string MessageOf(const error_code& ec) {
  if (ec == beast::error::timeout || ec == asio::error::timed_out) {
    return "timed out";
  }
  return ec.message();
}

// "[::1]" as a URL writes it names the address "::1".
std::string Bare(const std::string& host) {
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    return host.substr(1, host.size() - 2);
  }
  return host;
}

bool IsAddress(const std::string& host) {
  error_code ec;
  asio::ip::make_address(host, ec);
  return !ec;
}

bool HasLineBreak(const std::string& text) {
  return text.find_first_of("\r\n") != std::string::npos;
}

/**
 * @brief The addresses of `host`, or an error, by `deadline`. getaddrinfo cannot be cancelled,
 * so it runs on a thread of its own that a caller past its deadline leaves behind; the lookup
 * then finishes (or fails) on its own time and nobody waits for it.
 */
error_code Resolve(const std::string& host, uint16_t port, Clock::time_point deadline,
                   std::vector<tcp::endpoint>& endpoints) {
  error_code literal;
  const asio::ip::address address = asio::ip::make_address(host, literal);
  if (!literal) {
    endpoints.assign(1, tcp::endpoint(address, port));
    return {};
  }
  struct Lookup {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    error_code ec;
    std::vector<tcp::endpoint> endpoints;
  };
  auto lookup = std::make_shared<Lookup>();
  std::thread([lookup, host, port] {
    error_code ec;
    std::vector<tcp::endpoint> found;
    try {
      asio::io_context io{1};
      tcp::resolver resolver(io);
      const auto results = resolver.resolve(host, std::to_string(port), ec);
      if (!ec) {
        for (const auto& entry : results) {
          found.push_back(entry.endpoint());
        }
      }
    } catch (...) {
      ec = asio::error::no_memory;
    }
    std::lock_guard<std::mutex> lock(lookup->mutex);
    lookup->ec = ec;
    lookup->endpoints = std::move(found);
    lookup->finished = true;
    lookup->done.notify_all();
  }).detach();
  std::unique_lock<std::mutex> lock(lookup->mutex);
  if (!lookup->done.wait_until(lock, deadline, [&] { return lookup->finished; })) {
    return asio::error::timed_out;
  }
  if (!lookup->ec && lookup->endpoints.empty()) {
    return asio::error::host_not_found;
  }
  endpoints = std::move(lookup->endpoints);
  return lookup->ec;
}

// Adds every certificate in `pem` to the context's trust store; the number added.
int AddTrustedCertificates(SSL_CTX* context, const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (bio == nullptr) {
    return 0;
  }
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  int added = 0;
  // PEM_read_bio_X509 passes over other blocks, so a file that also holds a key is fine.
  while (X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
    // A certificate the system already trusts is refused as a duplicate, and still trusted.
    X509_STORE_add_cert(store, certificate);
    X509_free(certificate);
    ++added;
  }
  BIO_free(bio);
  // The read that ends the loop always leaves "no start line" queued.
  ERR_clear_error();
  return added;
}

}  // namespace

namespace detail {

struct ClientState {
  std::string host;  // as given to Init: names the server in Host and in its certificate
  uint16_t port = 0;
  bool tls = false;
  bool initialized = false;
  std::filesystem::path trustFile;
  milliseconds connectTimeout{kDefaultConnectMs};
  milliseconds requestTimeout{kDefaultRequestMs};
  std::function<bool()> cancelled;
  std::string lastError;

  // Declared before the streams, which must be destroyed first: the io_context as Asio
  // requires, the TLS context because the TLS stream's SSL object refers to it.
  std::optional<asio::io_context> io{std::in_place, 1};
  std::optional<ssl::context> context;
  std::unique_ptr<beast::tcp_stream> plain;
  std::unique_ptr<TlsStream> secure;
  beast::flat_buffer buffer;
  // False once an operation failed: the stream may sit mid-record, so it is not reused and
  // not shut down politely.
  bool healthy = false;

  bool Connected() const { return plain || secure; }
  beast::tcp_stream& Lowest() { return secure ? secure->next_layer() : *plain; }

  long Fail(long status, std::string message) {
    // One line, whatever a library put into its message.
    for (char& c : message) {
      if (c == '\r' || c == '\n') {
        c = ' ';
      }
    }
    lastError = std::move(message);
    healthy = false;
    return status;
  }

  void Close() {
    if (Connected()) {
      error_code ignored;
      Lowest().socket().close(ignored);
    }
    secure.reset();
    plain.reset();
    buffer.clear();
    healthy = false;
  }

  /**
   * @brief Closes without waiting and starts over with a new io_context: what its queue still
   * holds (handlers of operations that referred to the caller's buffers) is destroyed unrun.
   */
  void Abandon() {
    Close();
    io.reset();
    io.emplace(1);
  }

  /**
   * @brief Starts one asynchronous operation through `start` (which has set the stream's
   * expiry) and runs the io_context until it completes.
   */
  template <class Start>
  error_code Run(Clock::time_point deadline, Start&& start) {
    // Shared with the handler: it must stay valid even if the operation outlives this call.
    auto result = std::make_shared<std::optional<error_code>>();
    start([result](const error_code& ec, auto&&...) { *result = ec; });
    io->restart();
    // In slices, so that a caller told to stop (an agent shutting down) is not held for the
    // rest of a long time-out.
    const auto limit = deadline + kBackstop;
    while (!result->has_value() && !(cancelled && cancelled())) {
      const auto now = Clock::now();
      if (now >= limit) {
        break;
      }
      const auto slice = std::min<Clock::duration>(limit - now, kCancelSlice);
      if (io->run_one_for(slice) == 0 && io->stopped()) {
        break;
      }
    }
    if (result->has_value()) {
      return **result;
    }
    // The expiry did not end the operation; closing the socket does, or nothing will.
    if (Connected()) {
      error_code ignored;
      Lowest().socket().close(ignored);
    }
    io->restart();
    while (!result->has_value() && io->run_one_for(std::chrono::seconds(1)) != 0) {
    }
    if (!result->has_value()) {
      Abandon();
      return asio::error::timed_out;
    }
    return **result;
  }

  // A TLS 1.2+ client context that trusts the system's roots and the trust file's certificates.
  long MakeContext() {
    context.reset();
    context.emplace(ssl::context::tls_client);
    SSL_CTX* native = context->native_handle();
    context->set_options(ssl::context::default_workarounds | ssl::context::no_compression);
    if (SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION) != 1) {
      return Fail(kro::status::Failure, "TLS 1.2 is not available");
    }
    context->set_verify_mode(ssl::verify_peer);
    detail::AddSystemTrust(native);
    std::error_code missing;
    if (trustFile.empty() || !std::filesystem::exists(trustFile, missing)) {
      return kro::status::Ok;
    }
    std::ifstream file(trustFile, std::ios::binary);
    const std::string pem((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file.is_open() || file.bad()) {
      return Fail(kro::status::FileReadFailed,
                  "cannot read trust file " + trustFile.generic_string());
    }
    if (AddTrustedCertificates(native, pem) == 0) {
      return Fail(kro::status::MalformedData,
                  "trust file " + trustFile.generic_string() + " holds no certificate");
    }
    return kro::status::Ok;
  }

  long Handshake(Clock::time_point deadline) {
    secure = std::make_unique<TlsStream>(std::move(*plain), *context);
    plain.reset();
    SSL* native = secure->native_handle();
    const std::string name = Bare(host);
    if (IsAddress(name)) {
      // Matched against the certificate's IP entries; SNI carries names only.
      if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(native), name.c_str()) != 1) {
        return Fail(kro::status::Failure, "cannot check the server's address " + name);
      }
    } else if (SSL_set_tlsext_host_name(native, name.c_str()) != 1 ||
               SSL_set1_host(native, name.c_str()) != 1) {
      return Fail(kro::status::Failure, "cannot check the server's name " + name);
    }
    secure->next_layer().expires_at(deadline);
    const error_code ec = Run(deadline, [&](auto handler) {
      secure->async_handshake(ssl::stream_base::client, std::move(handler));
    });
    if (!ec) {
      return kro::status::Ok;
    }
    // A failed verification ends the handshake too; its reason is the one worth reporting.
    const long verify = secure ? SSL_get_verify_result(secure->native_handle()) : X509_V_OK;
    ERR_clear_error();
    if (verify != X509_V_OK) {
      return Fail(kro::status::Failure, std::string("certificate verify failed: ") +
                                            X509_verify_cert_error_string(verify));
    }
    return Fail(StatusOf(ec), "TLS handshake with " + host + " failed: " + MessageOf(ec));
  }

  // The Host field: the port only when it is not the scheme's own, an IPv6 address bracketed.
  std::string HostField() const {
    const std::string name = Bare(host);
    std::string field = name.find(':') != std::string::npos ? "[" + name + "]" : name;
    if (port != (tls ? 443 : 80)) {
      field += ":" + std::to_string(port);
    }
    return field;
  }
};

}  // namespace detail

HttpClient::HttpClient() : state_(std::make_unique<detail::ClientState>()) {}

HttpClient::~HttpClient() {
  // No TLS close here: a destructor must not wait on the server.
  state_->Close();
}

long HttpClient::Init(const std::string& host, uint16_t port, bool tls) {
  try {
    auto& s = *state_;
    s.Close();
    s.initialized = false;
    if (host.empty() || port == 0 || HasLineBreak(host)) {
      return s.Fail(kro::status::NotAvailable, "invalid server: empty host or port 0");
    }
    s.host = host;
    s.port = port;
    s.tls = tls;
    s.initialized = true;
    s.lastError.clear();
    return kro::status::Ok;
  } catch (...) {
    return kro::status::Failure;
  }
}

void HttpClient::SetTrustFile(const std::filesystem::path& pemFile) {
  try {
    state_->trustFile = pemFile;
  } catch (...) {
    state_->trustFile.clear();
  }
}

void HttpClient::SetCancelCheck(std::function<bool()> cancelled) {
  state_->cancelled = std::move(cancelled);
}

void HttpClient::SetTimeouts(uint32_t connectMs, uint32_t requestMs) {
  state_->connectTimeout = milliseconds(connectMs == 0 ? kDefaultConnectMs : connectMs);
  state_->requestTimeout = milliseconds(requestMs == 0 ? kDefaultRequestMs : requestMs);
}

long HttpClient::Connect() {
  auto& s = *state_;
  try {
    s.Close();
    if (!s.initialized) {
      return s.Fail(kro::status::NotAvailable, "no server set");
    }
    s.lastError.clear();
    const auto deadline = Clock::now() + s.connectTimeout;
    const std::string where = s.host + ":" + std::to_string(s.port);
    if (s.tls) {
      // Built before any network traffic, so that a bad trust file fails without a connection.
      const long status = s.MakeContext();
      if (status != kro::status::Ok) {
        return status;
      }
    }
    std::vector<tcp::endpoint> endpoints;
    error_code ec = Resolve(Bare(s.host), s.port, deadline, endpoints);
    if (ec) {
      return s.Fail(StatusOf(ec), "cannot resolve " + s.host + ": " + MessageOf(ec));
    }
    s.plain = std::make_unique<beast::tcp_stream>(*s.io);
    s.plain->expires_at(deadline);
    ec = s.Run(deadline,
               [&](auto handler) { s.plain->async_connect(endpoints, std::move(handler)); });
    if (ec) {
      const long status = s.Fail(StatusOf(ec), "cannot connect to " + where + ": " + MessageOf(ec));
      s.Close();
      return status;
    }
    if (s.tls) {
      const long status = s.Handshake(deadline);
      if (status != kro::status::Ok) {
        s.Close();
        return status;
      }
    }
    s.healthy = true;
    return kro::status::Ok;
  } catch (...) {
    s.Abandon();
    return s.Fail(kro::status::Failure, "unexpected failure while connecting");
  }
}

long HttpClient::ExecuteRequest(const HttpRequest& request, HttpResponse& response) {
  auto& s = *state_;
  try {
    response = HttpResponse{};
    if (!s.Connected() || !s.healthy) {
      return s.Fail(kro::status::NotAvailable, "not connected");
    }
    if (request.Path().empty() || HasLineBreak(request.Path())) {
      return s.Fail(kro::status::NotAvailable, "invalid request path");
    }
    const bool post = !request.Body().empty();
    http::request<http::string_body> message{post ? http::verb::post : http::verb::get,
                                             request.Path(), 11};
    message.set(http::field::host, s.HostField());
    for (const auto& [name, value] : request.Headers()) {
      if (name.empty() || HasLineBreak(name) || HasLineBreak(value)) {
        return s.Fail(kro::status::NotAvailable, "invalid header field " + name);
      }
      message.set(name, value);
    }
    if (post) {
      if (message.find(http::field::content_type) == message.end()) {
        message.set(http::field::content_type, "application/octet-stream");
      }
      message.body() = request.Body();
    }
    // Framing is ours to decide: a caller's Content-Length or Transfer-Encoding is replaced.
    message.prepare_payload();

    const auto deadline = Clock::now() + s.requestTimeout;
    s.Lowest().expires_at(deadline);
    error_code ec = s.Run(deadline, [&](auto handler) {
      if (s.secure) {
        http::async_write(*s.secure, message, std::move(handler));
      } else {
        http::async_write(*s.plain, message, std::move(handler));
      }
    });
    if (ec) {
      const long status = s.Fail(StatusOf(ec), "cannot send the request: " + MessageOf(ec));
      s.Close();
      return status;
    }

    http::response_parser<http::string_body> parser;
    parser.body_limit(kBodyLimit);
    parser.header_limit(kHeaderLimit);
    if (s.Connected()) {
      s.Lowest().expires_at(deadline);
    }
    ec = s.Run(deadline, [&](auto handler) {
      if (s.secure) {
        http::async_read(*s.secure, s.buffer, parser, std::move(handler));
      } else {
        http::async_read(*s.plain, s.buffer, parser, std::move(handler));
      }
    });
    if (ec) {
      const long status = s.Fail(StatusOf(ec), "cannot read the answer: " + MessageOf(ec));
      s.Close();
      return status;
    }
    response.status = parser.get().result_int();
    response.body = std::move(parser.get().body());
    if (!parser.get().keep_alive()) {
      // The server has said it closes; the next request would only meet a dead socket.
      s.healthy = false;
    }
    s.lastError.clear();
    return kro::status::Ok;
  } catch (...) {
    s.Abandon();
    return s.Fail(kro::status::Failure, "unexpected failure during the request");
  }
}

void HttpClient::Disconnect() {
  auto& s = *state_;
  try {
    if (s.secure && s.healthy) {
      const auto deadline = Clock::now() + kShutdownLimit;
      s.secure->next_layer().expires_at(deadline);
      s.Run(deadline, [&](auto handler) { s.secure->async_shutdown(std::move(handler)); });
      ERR_clear_error();
    }
    s.Close();
  } catch (...) {
    s.Abandon();
  }
}

std::string HttpClient::LastError() const {
  try {
    return state_->lastError;
  } catch (...) {
    return {};
  }
}

}  // namespace hlp
