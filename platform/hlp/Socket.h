#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace hlp {

namespace detail {
struct AcceptedSocket;
}

/**
 * @brief A connection as the server hands it to a request handler, a whole request in: a cheap,
 * copyable handle. An HttpServerConnection takes it over (SetClient) to serve it.
 */
class Socket {
 public:
  Socket();
  explicit Socket(std::shared_ptr<detail::AcceptedSocket> accepted);

  /** @brief The peer's IPv4 address in dotted form ("127.0.0.1"); empty when unknown. */
  std::string GetRemoteIpAddress() const;
  /** @brief The local port the connection arrived on. */
  uint16_t GetLocalPort() const;
  /** @brief True when the port it arrived on speaks TLS. */
  bool IsTls() const;
  bool IsValid() const;

  const std::shared_ptr<detail::AcceptedSocket>& Accepted() const { return accepted_; }

 private:
  std::shared_ptr<detail::AcceptedSocket> accepted_;
};

}  // namespace hlp
