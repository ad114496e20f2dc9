#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "hlp/Socket.h"

namespace hlp {

class HttpServer;
class RequestInfo;

namespace detail {
struct ConnectionState;
}

/** @brief Largest request line plus header block accepted (431 beyond it). */
inline constexpr size_t kMaxHeaderBytes = 64 * 1024;
/** @brief Largest Content-Length accepted (413 beyond it, before anything is allocated). */
inline constexpr uint64_t kMaxContentLength = 64ull * 1024 * 1024;
/**
 * @brief A request's headers must arrive, and an idle kept-alive connection is closed, within;
 * each read and write of up to 1 MiB also ends within it. The default of
 * HttpServer::SetConnectionTimeout.
 */
inline constexpr int kConnectionTimeoutSeconds = 30;

/**
 * @brief One accepted connection, served on one worker thread with blocking calls that each
 * end within the connection time-out. Every call returns 0 or a non-zero status; once a call
 * failed, the connection is over and every later call fails at once.
 */
class HttpServerConnection {
 public:
  explicit HttpServerConnection(HttpServer* server);
  ~HttpServerConnection();
  HttpServerConnection(const HttpServerConnection&) = delete;
  HttpServerConnection& operator=(const HttpServerConnection&) = delete;

  /** @brief Takes over the accepted socket. */
  long SetClient(const Socket& socket);

  /**
   * @brief Reads the next request's line and headers (after the TLS handshake, on a TLS
   * port). Non-zero ends the connection: closed by the client, time-out, the client asked
   * to close after its previous request, or a request refused here with its answer already
   * sent and the connection closed (malformed: 400; line and headers above kMaxHeaderBytes:
   * 431; "Content-Length" above kMaxContentLength: 413; a chunked body: 411).
   *
   * A "Content-Length" that is not a number does not fail here: the request is returned
   * with the raw value so the caller answers it in its own order; the connection then ends
   * after that answer.
   */
  long ReadRequest(RequestInfo& request);

  /**
   * @brief Reads exactly `length` bytes of the request body (first what arrived with the
   * headers). A client that sent "Expect: 100-continue" is told to go on first. Body bytes the
   * caller leaves unread are skipped before the next request (up to 1 MiB; beyond, the
   * connection ends).
   */
  long Read(char* buffer, size_t length);

  /** @brief Writes raw bytes (a complete answer the caller formatted). */
  long Write(const char* data, size_t length);

  /** @brief An error answer: status line, a short HTML page with the printf-formatted text. */
  long SendHttpError(unsigned int status, const char* reason, const char* format, ...);

  /** @brief A redirect answer to `location`, with a short HTML page of the formatted text. */
  long SendHttpRedirect(unsigned int status, const char* reason, const char* location,
                        const char* format, ...);

  /** @brief A 200 answer whose text/plain body is the printf-formatted text. */
  long PrintFormattedWithHeaders(const char* format, ...);

  /** @brief Closes the connection (a TLS connection is shut down first). Idempotent. */
  void CloseConnection();

  std::string GetRemoteIpAddress() const;

 private:
  HttpServer* server_;
  std::shared_ptr<detail::ConnectionState> state_;
};

}  // namespace hlp
