#include <winsock2.h>
#include <ws2tcpip.h>

#include "core/KroStatus.h"
#include "dialhome/EndNodeModifyPort.h"

namespace kro {

long TestPortAvailable(uint16_t port) {
  WSADATA data{};
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
    return status::PortUnavailable;
  }
  long result = status::PortUnavailable;
  const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s != INVALID_SOCKET) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    if (bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      result = status::Ok;
    }
    closesocket(s);
  }
  WSACleanup();
  return result;
}

}  // namespace kro
