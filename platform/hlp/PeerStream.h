#pragma once

// Internal to the server library: the only header of it that pulls in Asio, Beast and OpenSSL.

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/tcp_stream.hpp>

namespace hlp::detail {

/**
 * @brief An accepted socket on an io_context of its own. Only the worker serving the
 * connection runs that io_context and uses the socket; another thread only ends the connection
 * (CloseFromAnyThread), which wakes the worker wherever it waits.
 */
struct PeerStream {
  using TlsStream = boost::asio::ssl::stream<boost::beast::tcp_stream>;

  // Declared first so that it outlives the socket objects below, as Asio requires.
  boost::asio::io_context io{1};
  /** @brief Receives the connection from the acceptor; moved into one of the streams then. */
  boost::asio::ip::tcp::socket accepted{io};
  /** @brief A plain connection; the worker reads and writes it through PlainSocketIo.h. */
  std::unique_ptr<boost::beast::tcp_stream> plain;
  std::unique_ptr<TlsStream> secure;
  /** @brief Set when the server closes the connection; the worker's next operation fails. */
  std::atomic<bool> closing{false};
  /** @brief The socket's own time-outs as last set (PlainSocketIo_posix.cpp); 0: none yet. */
  std::chrono::microseconds receiveTimeout{0};
  std::chrono::microseconds sendTimeout{0};

  bool HasStream() const { return plain || secure; }
  boost::beast::tcp_stream& Lowest() { return secure ? secure->next_layer() : *plain; }

  /** @brief The worker's close of the socket; ordered against CloseFromAnyThread. */
  void CloseSocket() {
    std::lock_guard<std::mutex> lock(closeMutex_);
    boost::system::error_code ignored;
    Lowest().socket().close(ignored);
  }

  /**
   * @brief Thread-safe. The shut-down wakes a worker blocked on the socket itself; the posted
   * close reaches one running the io_context (TLS), on its next turn.
   */
  void CloseFromAnyThread() {
    closing.store(true);
    if (!HasStream()) {
      return;
    }
    {
      // Only while the worker has not closed it: the descriptor could belong to another
      // connection by then.
      std::lock_guard<std::mutex> lock(closeMutex_);
      boost::system::error_code ignored;
      if (Lowest().socket().is_open()) {
        Lowest().socket().shutdown(boost::asio::socket_base::shutdown_both, ignored);
      }
    }
    boost::asio::post(io, [this] { CloseSocket(); });
  }

 private:
  std::mutex closeMutex_;
};

}  // namespace hlp::detail
