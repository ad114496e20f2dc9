#include "hlp/Socket.h"

#include <utility>

#include "hlp/AcceptedSocket.h"

namespace hlp {

Socket::Socket() = default;

Socket::Socket(std::shared_ptr<detail::AcceptedSocket> accepted) : accepted_(std::move(accepted)) {}

std::string Socket::GetRemoteIpAddress() const {
  try {
    return accepted_ ? accepted_->remoteIp : std::string();
  } catch (...) {
    return std::string();
  }
}

uint16_t Socket::GetLocalPort() const {
  return accepted_ ? accepted_->localPort : 0;
}

bool Socket::IsTls() const {
  return accepted_ && accepted_->tls;
}

bool Socket::IsValid() const {
  return accepted_ && accepted_->peer != nullptr;
}

namespace detail {

bool AcceptedSocket::Take() {
  if (taken_.exchange(true)) {
    return false;
  }
  if (waiting) {
    waiting->fetch_sub(1);
  }
  return true;
}

}  // namespace detail
}  // namespace hlp
