#include "hlp/TcpClient.h"

#include <chrono>
#include <string>
#include <utility>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace hlp {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {
constexpr uint32_t kDefaultTimeoutSeconds = 5;
}

TcpClient::TcpClient(std::string host, uint16_t port, uint32_t timeoutSeconds)
    : host_(std::move(host)), port_(port), timeoutSeconds_(timeoutSeconds) {}

TcpClient::~TcpClient() = default;

bool TcpClient::Connect() {
  try {
    asio::io_context io{1};
    tcp::resolver resolver(io);
    tcp::socket socket(io);
    bool connected = false;
    resolver.async_resolve(
        host_, std::to_string(port_),
        [&](const boost::system::error_code& ec, const tcp::resolver::results_type& endpoints) {
          if (ec) {
            return;
          }
          asio::async_connect(socket, endpoints,
                              [&](const boost::system::error_code& error, const tcp::endpoint&) {
                                connected = !error;
                              });
        });
    const uint32_t seconds = timeoutSeconds_ == 0 ? kDefaultTimeoutSeconds : timeoutSeconds_;
    // Returns early when the attempt finished; an unfinished one is abandoned with the io_context.
    io.run_for(std::chrono::seconds(seconds));
    boost::system::error_code ignored;
    socket.close(ignored);
    return connected;
  } catch (...) {
    return false;
  }
}

}  // namespace hlp
