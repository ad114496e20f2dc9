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
 * @brief A request's handshake and headers must arrive, and an idle kept-alive connection is
 * closed, within; each MiB of a body or an answer must also move within it. The default of
 * HttpServer::SetConnectionTimeout.
 */
inline constexpr int kConnectionTimeoutSeconds = 30;

/**
 * @brief A worker's hold on one connection while its requests are served.
 *
 * The server hands a connection over (IRequestHandler::HandleRequest) once a whole request,
 * body included, is in; nothing here waits for the peer. Answers go out at once as far as the
 * connection takes them; the rest is sent by the server's loop after the worker lets go.
 * Every call returns 0 or a non-zero status; once a call failed, the connection is over and
 * every later call fails at once.
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
   * @brief The next request's line and headers. The first call gives the request the
   * connection was handed over for; a later one gives a request that arrived whole behind it.
   * Otherwise kro::status::Pending: the worker is done for now and lets go (CloseConnection),
   * and the connection waits on the server's loop for its next request, which is handed over
   * anew. Any other non-zero status ends the connection: the peer is gone, or it asked to
   * close after its previous request. Requests the server refuses itself (400 malformed, 431
   * line and headers above kMaxHeaderBytes, 413 "Content-Length" above kMaxContentLength, 411
   * a chunked body) never reach a worker.
   *
   * A "Content-Length" that is not a number does not fail: the request is handed over with
   * the raw value and no body, so the caller answers it in its own order; the connection
   * then ends after that answer.
   */
  long ReadRequest(RequestInfo& request);

  /**
   * @brief Copies the next `length` bytes of the request body, which arrived whole before the
   * hand-over (a client that sent "Expect: 100-continue" was told to go on by then). Asking for
   * more than the body holds ends the connection. Bytes left unread are dropped.
   */
  long Read(char* buffer, size_t length);

  /**
   * @brief Writes raw bytes (a complete answer the caller formatted): what the connection takes
   * at once goes now, the rest is kept and sent by the server's loop, so a slow reader never
   * holds the worker.
   */
  long Write(const char* data, size_t length);

  /** @brief An error answer: status line, a short HTML page with the printf-formatted text. */
  long SendHttpError(unsigned int status, const char* reason, const char* format, ...);

  /** @brief A redirect answer to `location`, with a short HTML page of the formatted text. */
  long SendHttpRedirect(unsigned int status, const char* reason, const char* location,
                        const char* format, ...);

  /** @brief A 200 answer whose text/plain body is the printf-formatted text. */
  long PrintFormattedWithHeaders(const char* format, ...);

  /**
   * @brief Lets go of the connection. After a ReadRequest that gave kro::status::Pending it
   * waits on the server's loop for its next request; otherwise it is closed once its answers
   * are out (a TLS connection is shut down first). Idempotent; the destructor calls it.
   */
  void CloseConnection();

  std::string GetRemoteIpAddress() const;

 private:
  HttpServer* server_;
  std::shared_ptr<detail::ConnectionState> state_;
};

}  // namespace hlp
