#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kro::test {

/** @brief A free TCP port on this machine, found by binding port 0 on a throw-away socket. */
uint16_t FreePort();

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

/** @brief A connection that is opened and then left silent until destroyed. */
class StalledClient {
 public:
  explicit StalledClient(uint16_t port, const std::string& partialRequest);
  ~StalledClient();
  StalledClient(const StalledClient&) = delete;
  StalledClient& operator=(const StalledClient&) = delete;
  bool Connected() const { return connected_; }

 private:
  struct Impl;
  Impl* impl_;
  bool connected_ = false;
};

}  // namespace kro::test
