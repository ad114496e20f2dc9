#include "tests/server/HttpTestClient.h"

// Boost 1.74's Asio uses std::exchange without including <utility> itself.
#include <utility>

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <cctype>
#include <cstdlib>

namespace kro::test {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

tcp::endpoint Loopback(uint16_t port) {
  return tcp::endpoint(asio::ip::address_v4::loopback(), port);
}

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
  return at != std::string::npos &&
         raw.size() - (end + 4) >= std::strtoul(head.c_str() + at + 15, nullptr, 10);
}

template <typename Stream>
void Exchange(Stream& stream, const std::string& request, std::string& reply) {
  asio::async_write(stream, asio::buffer(request), [&](auto ec, size_t) {
    if (!ec) {
      asio::async_read(
          stream, asio::dynamic_buffer(reply),
          [&](auto readError, size_t) -> size_t { return readError || Complete(reply) ? 0 : 4096; },
          [](auto, size_t) {});
    }
  });
}

}  // namespace

int HttpReply::Status() const {
  return raw.rfind("HTTP/1.", 0) == 0 && raw.size() >= 12 ? std::atoi(raw.c_str() + 9) : 0;
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
  socket.async_connect(Loopback(port), [&](auto ec) {
    reply.connected = !ec;
    if (ec) {
      return;
    }
    if (!tls) {
      Exchange(socket, request, reply.raw);
      return;
    }
    secure.async_handshake(asio::ssl::stream_base::client, [&](auto handshakeError) {
      if (!handshakeError) {
        Exchange(secure, request, reply.raw);
      }
    });
  });
  io.run_for(timeout);
  // Let the cancelled operations finish before their buffers go away.
  boost::system::error_code ignored;
  socket.close(ignored);
  io.restart();
  io.run_for(std::chrono::milliseconds(100));
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

std::shared_ptr<void> OpenStalledClient(uint16_t port, const std::string& partialRequest) {
  struct Client {
    asio::io_context io;
    tcp::socket socket{io};
  };
  auto client = std::make_shared<Client>();
  boost::system::error_code ec;
  client->socket.connect(Loopback(port), ec);
  if (!ec) {
    asio::write(client->socket, asio::buffer(partialRequest), ec);
  }
  return ec ? nullptr : client;
}

}  // namespace kro::test
