#pragma once

#include <cstdint>
#include <string>

namespace hlp {

/** @brief A TCP connection attempt with a time-out, to check that a host accepts connections. */
class TcpClient {
 public:
  /** @brief `timeoutSeconds` bounds name resolution and connection together (0: 5 s). */
  TcpClient(std::string host, uint16_t port, uint32_t timeoutSeconds);
  ~TcpClient();

  /** @brief True when a connection was made (it is closed again at once). */
  bool Connect();

 private:
  std::string host_;
  uint16_t port_;
  uint32_t timeoutSeconds_;
};

}  // namespace hlp
