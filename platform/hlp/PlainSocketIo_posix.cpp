#include "hlp/PlainSocketIo.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

#include "hlp/PeerStream.h"

namespace hlp::detail {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

namespace {

// A time-out already set may run past the deadline by this much before it is set anew; the
// first wait of every request then needs no extra system call.
constexpr microseconds kTimeoutSlack = std::chrono::milliseconds(10);

error_code LastError() {
  return {errno, asio::error::get_system_category()};
}

// The socket's own time-out (SO_RCVTIMEO or SO_SNDTIMEO) bounds each blocking call; it is set
// only when what is left until the deadline is shorter than it, or far longer.
error_code FitTimeout(int socket, int option, microseconds& current, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<microseconds>(deadline - Clock::now());
  if (left <= microseconds::zero()) {
    return asio::error::timed_out;
  }
  if (current > left + kTimeoutSlack || current < left - kTimeoutSlack ||
      current == microseconds::zero()) {
    timeval value{};
    value.tv_sec = static_cast<time_t>(left.count() / 1'000'000);
    value.tv_usec = static_cast<suseconds_t>(left.count() % 1'000'000);
    if (::setsockopt(socket, SOL_SOCKET, option, &value, sizeof(value)) != 0) {
      return LastError();
    }
    current = left;
  }
  return {};
}

template <class Transfer>
error_code Blocking(PeerStream& peer, int option, microseconds& current, Clock::time_point deadline,
                    size_t& done, Transfer&& transfer) {
  done = 0;
  const int socket = peer.plain->socket().native_handle();
  for (;;) {
    if (peer.closing.load()) {
      return asio::error::operation_aborted;
    }
    if (const error_code ec = FitTimeout(socket, option, current, deadline)) {
      return ec;
    }
    const ssize_t result = transfer(socket);
    if (result > 0) {
      done = static_cast<size_t>(result);
      return {};
    }
    if (result == 0) {
      return asio::error::eof;
    }
    // EAGAIN: the socket's time-out ran out; the deadline decides whether that was all.
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      return LastError();
    }
  }
}

}  // namespace

error_code PreparePlainSocket(PeerStream& peer) {
  // Blocking: one call then both waits and transfers, and a shut-down from another thread
  // wakes it. Said explicitly, as a non-blocking socket would make the calls below spin.
  int nonBlocking = 0;
  if (::ioctl(peer.plain->socket().native_handle(), FIONBIO, &nonBlocking) != 0) {
    return LastError();
  }
  return {};
}

error_code ReceiveSome(PeerStream& peer, char* data, size_t size, Clock::time_point deadline,
                       size_t& read) {
  return Blocking(peer, SO_RCVTIMEO, peer.receiveTimeout, deadline, read,
                  [&](int socket) { return ::recv(socket, data, size, 0); });
}

error_code SendSome(PeerStream& peer, const char* data, size_t size, Clock::time_point deadline,
                    size_t& written) {
  return Blocking(peer, SO_SNDTIMEO, peer.sendTimeout, deadline, written,
                  [&](int socket) { return ::send(socket, data, size, MSG_NOSIGNAL); });
}

}  // namespace hlp::detail
