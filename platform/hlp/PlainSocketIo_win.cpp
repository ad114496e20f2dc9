#include "hlp/PlainSocketIo.h"

#include <memory>
#include <optional>

#include "hlp/PeerStream.h"

namespace hlp::detail {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

namespace {

// Waits on the connection's own io_context, where CloseFromAnyThread posts its close.
error_code Wait(PeerStream& peer, asio::socket_base::wait_type what, Clock::time_point deadline) {
  auto& socket = peer.plain->socket();
  // Shared with the handler, which may outlive this call if the wait cannot be cancelled.
  auto result = std::make_shared<std::optional<error_code>>();
  socket.async_wait(what, [result](const error_code& ec) { *result = ec; });
  peer.io.restart();
  while (!*result && peer.io.run_one_until(deadline) != 0) {
  }
  if (*result) {
    return **result;
  }
  error_code ignored;
  socket.cancel(ignored);
  peer.io.restart();
  while (!*result && peer.io.run_one_for(std::chrono::seconds(1)) != 0) {
  }
  return asio::error::timed_out;
}

// The transfer is tried first and waited for only when the socket has nothing to give or take.
template <class Transfer>
error_code NonBlocking(PeerStream& peer, asio::socket_base::wait_type what,
                       Clock::time_point deadline, size_t& done, Transfer&& transfer) {
  done = 0;
  for (bool wait = false;; wait = true) {
    if (peer.closing.load()) {
      return asio::error::operation_aborted;
    }
    if (wait) {
      if (Clock::now() >= deadline) {
        return asio::error::timed_out;
      }
      if (const error_code ec = Wait(peer, what, deadline)) {
        return ec;
      }
      if (peer.closing.load()) {
        return asio::error::operation_aborted;
      }
    }
    error_code ec;
    done = transfer(peer.plain->socket(), ec);
    if (ec != asio::error::would_block && ec != asio::error::try_again) {
      return ec;
    }
  }
}

}  // namespace

error_code PreparePlainSocket(PeerStream& peer) {
  error_code ec;
  peer.plain->socket().non_blocking(true, ec);
  return ec;
}

error_code ReceiveSome(PeerStream& peer, char* data, size_t size, Clock::time_point deadline,
                       size_t& read) {
  return NonBlocking(peer, asio::socket_base::wait_read, deadline, read,
                     [&](asio::ip::tcp::socket& socket, error_code& ec) {
                       return socket.read_some(asio::buffer(data, size), ec);
                     });
}

error_code SendSome(PeerStream& peer, const char* data, size_t size, Clock::time_point deadline,
                    size_t& written) {
  return NonBlocking(peer, asio::socket_base::wait_write, deadline, written,
                     [&](asio::ip::tcp::socket& socket, error_code& ec) {
                       return socket.write_some(asio::buffer(data, size), ec);
                     });
}

}  // namespace hlp::detail
