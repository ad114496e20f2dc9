#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace hlp::detail {

struct PeerStream;

/**
 * @brief What the server knows of one accepted connection, shared by every Socket handle of
 * it and by the HttpServerConnection that serves it. Internal to the server library.
 */
struct AcceptedSocket {
  AcceptedSocket();
  ~AcceptedSocket();
  AcceptedSocket(const AcceptedSocket&) = delete;
  AcceptedSocket& operator=(const AcceptedSocket&) = delete;

  /** @brief True for the one caller that takes the connection over; it stops counting as waiting.
   */
  bool Take();

  std::string remoteIp;
  uint16_t localPort = 0;
  bool tls = false;
  /** @brief Bounds every read and write of the connection (the server's setting when accepted). */
  uint32_t timeoutMs = 0;
  /** @brief The socket and its private io_context; see PeerStream.h. */
  std::unique_ptr<PeerStream> peer;
  /** @brief The server's count of connections no worker has taken yet; null until handed out. */
  std::shared_ptr<std::atomic<int>> waiting;

 private:
  std::atomic<bool> taken_{false};
};

}  // namespace hlp::detail
