#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/KroStatus.h"
#include "dialhome/EndNodeModifyPort.h"

namespace kro {

long TestPortAvailable(uint16_t port) {
  const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (s < 0) {
    return status::PortUnavailable;
  }
  // No SO_REUSEADDR, as on Windows: the bind then fails while any socket still holds the port,
  // so a doubtful port is reported unavailable rather than handed to the server to fail on.
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(port);
  const int bound = ::bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  ::close(s);
  return bound == 0 ? status::Ok : status::PortUnavailable;
}

}  // namespace kro
