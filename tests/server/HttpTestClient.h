#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace kro::test {

/** @brief What came back from one exchange on 127.0.0.1. */
struct HttpReply {
  bool connected = false;
  std::string raw;

  /** @brief The number of the status line, 0 without one. */
  int Status() const;
  /** @brief The header block (status line included), "" without one. */
  std::string Head() const;
  std::string Body() const;
};

/**
 * @brief Sends `request` as it stands to 127.0.0.1:port (through TLS when asked, without
 * checking the certificate) and collects the answer until the connection closes, the
 * content-Length is complete, or `timeout` passes.
 */
HttpReply SendRaw(uint16_t port, const std::string& request, bool tls = false,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));

/** @brief A request with "Connection: close"; `userAgent` "" sends no such header. */
std::string MakeRequest(const std::string& method, const std::string& uri,
                        const std::string& userAgent, const std::string& body = {},
                        const std::string& extraHeaders = {});

/**
 * @brief Opens a connection, sends `partialRequest` and leaves it silent until the result is
 * destroyed; null when the connection failed.
 */
std::shared_ptr<void> OpenStalledClient(uint16_t port, const std::string& partialRequest);

}  // namespace kro::test
