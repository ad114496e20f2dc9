#pragma once

// Internal to the server library: the only header of it that pulls in Asio, Beast and OpenSSL.

#include <atomic>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/tcp_stream.hpp>

namespace hlp::detail {

/**
 * @brief An accepted socket on an io_context of its own. Only the worker serving the
 * connection runs that io_context, so every operation on the socket happens on that one thread;
 * other threads reach the socket only through posts (CloseFromAnyThread).
 */
struct PeerStream {
  using TlsStream = boost::asio::ssl::stream<boost::beast::tcp_stream>;

  // Declared first so that it outlives the socket objects below, as Asio requires.
  boost::asio::io_context io{1};
  /** @brief Receives the connection from the acceptor; moved into one of the streams then. */
  boost::asio::ip::tcp::socket accepted{io};
  std::unique_ptr<boost::beast::tcp_stream> plain;
  std::unique_ptr<TlsStream> secure;
  /** @brief Set when the server closes the connection; the worker's next operation fails. */
  std::atomic<bool> closing{false};

  bool HasStream() const { return plain || secure; }
  boost::beast::tcp_stream& Lowest() { return secure ? secure->next_layer() : *plain; }

  /** @brief Thread-safe: the close runs on the worker's next turn of the io_context. */
  void CloseFromAnyThread() {
    closing.store(true);
    boost::asio::post(io, [this] {
      if (HasStream()) {
        boost::system::error_code ignored;
        Lowest().socket().close(ignored);
      }
    });
  }
};

}  // namespace hlp::detail
