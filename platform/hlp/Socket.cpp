#include "hlp/Socket.h"

#include <utility>

#include "hlp/AcceptedSocket.h"
#include "hlp/ServerCore.h"
#include "hlp/ServerSession.h"

namespace hlp {

Socket::Socket() = default;

Socket::Socket(std::shared_ptr<detail::AcceptedSocket> accepted) : accepted_(std::move(accepted)) {}

std::string Socket::GetRemoteIpAddress() const {
  try {
    return accepted_ ? accepted_->session->remoteIp : std::string();
  } catch (...) {
    return std::string();
  }
}

uint16_t Socket::GetLocalPort() const {
  return accepted_ ? accepted_->session->localPort : 0;
}

bool Socket::IsTls() const {
  return accepted_ && accepted_->session->tls;
}

bool Socket::IsValid() const {
  return accepted_ != nullptr;
}

namespace detail {

AcceptedSocket::AcceptedSocket(std::shared_ptr<Session> served) : session(std::move(served)) {}

AcceptedSocket::~AcceptedSocket() {
  Release(false);
}

bool AcceptedSocket::Take() {
  return !taken_.exchange(true);
}

void AcceptedSocket::Release(bool next) {
  if (released_.exchange(true)) {
    return;
  }
  try {
    session->DropBody();
    // Posted even when the server is gone: then nothing runs, and the socket closes with the
    // last reference.
    session->link->Post([served = session, next](ServerCore&) { served->Resume(next); });
  } catch (...) {
    // Out of memory for the post: the connection is closed with its last reference instead.
  }
}

}  // namespace detail
}  // namespace hlp
