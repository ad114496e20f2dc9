#include "tests/server/HttpTestClient.h"

// Boost 1.74's Asio uses std::exchange without including <utility> itself.
#include <utility>

#include <array>
#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <cctype>
#include <cstdlib>

namespace kro::test {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

// Done when the header block is in and as many body bytes as content-Length announces.
bool Complete(const std::string& raw) {
  const size_t end = raw.find("\r\n\r\n");
  if (end == std::string::npos) {
    return false;
  }
  std::string head = raw.substr(0, end);
  for (char& c : head) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  const size_t at = head.find("content-length:");
  if (at == std::string::npos) {
    return false;
  }
  const size_t length = std::strtoul(head.c_str() + at + 15, nullptr, 10);
  return raw.size() - (end + 4) >= length;
}

struct Exchange {
  std::string request;
  std::string reply;
  std::array<char, 4096> buffer{};
  bool finished = false;

  template <typename Stream>
  void Write(Stream& stream) {
    asio::async_write(stream, asio::buffer(request), [this, &stream](auto ec, size_t) {
      if (ec) {
        finished = true;
        return;
      }
      Read(stream);
    });
  }

  template <typename Stream>
  void Read(Stream& stream) {
    stream.async_read_some(asio::buffer(buffer), [this, &stream](auto ec, size_t n) {
      reply.append(buffer.data(), n);
      if (ec || Complete(reply)) {
        finished = true;
        return;
      }
      Read(stream);
    });
  }
};

}  // namespace

uint16_t FreePort() {
  asio::io_context io;
  tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  return acceptor.local_endpoint().port();
}

int HttpReply::Status() const {
  if (raw.rfind("HTTP/1.", 0) != 0 || raw.size() < 12) {
    return 0;
  }
  return std::atoi(raw.c_str() + 9);
}

std::string HttpReply::Head() const {
  const size_t end = raw.find("\r\n\r\n");
  return end == std::string::npos ? std::string() : raw.substr(0, end + 2);
}

std::string HttpReply::Body() const {
  const size_t end = raw.find("\r\n\r\n");
  return end == std::string::npos ? raw : raw.substr(end + 4);
}

HttpReply SendRaw(uint16_t port, const std::string& request, bool tls,
                  std::chrono::milliseconds timeout) {
  HttpReply reply;
  asio::io_context io;
  tcp::socket socket(io);
  asio::ssl::context context(asio::ssl::context::tls_client);
  context.set_verify_mode(asio::ssl::verify_none);
  asio::ssl::stream<tcp::socket&> secure(socket, context);
  Exchange exchange;
  exchange.request = request;

  socket.async_connect(tcp::endpoint(asio::ip::address_v4::loopback(), port), [&](auto ec) {
    if (ec) {
      exchange.finished = true;
      return;
    }
    reply.connected = true;
    if (!tls) {
      exchange.Write(socket);
      return;
    }
    secure.async_handshake(asio::ssl::stream_base::client, [&](auto handshakeError) {
      if (handshakeError) {
        exchange.finished = true;
        return;
      }
      exchange.Write(secure);
    });
  });
  io.run_for(timeout);
  boost::system::error_code ignored;
  socket.close(ignored);
  io.restart();
  io.run_for(std::chrono::milliseconds(100));
  reply.raw = exchange.reply;
  return reply;
}

std::string MakeRequest(const std::string& method, const std::string& uri,
                        const std::string& userAgent, const std::string& body,
                        const std::string& extraHeaders) {
  std::string request = method + " " + uri + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  if (!userAgent.empty()) {
    request += "User-Agent: " + userAgent + "\r\n";
  }
  if (!body.empty()) {
    request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  return request + extraHeaders + "Connection: close\r\n\r\n" + body;
}

struct StalledClient::Impl {
  asio::io_context io;
  tcp::socket socket{io};
};

StalledClient::StalledClient(uint16_t port, const std::string& partialRequest) : impl_(new Impl) {
  boost::system::error_code ec;
  impl_->socket.connect(tcp::endpoint(asio::ip::address_v4::loopback(), port), ec);
  if (!ec) {
    asio::write(impl_->socket, asio::buffer(partialRequest), ec);
  }
  connected_ = !ec;
}

StalledClient::~StalledClient() {
  boost::system::error_code ignored;
  impl_->socket.close(ignored);
  delete impl_;
}

}  // namespace kro::test
