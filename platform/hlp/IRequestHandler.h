#pragma once

namespace hlp {

class Socket;

/** @brief What an HttpServer calls; the order of the operations is fixed. */
class IRequestHandler {
 public:
  virtual ~IRequestHandler() = default;

  /** @brief The server is starting (its listeners are bound). 0 to go on. */
  virtual long Start() = 0;
  /** @brief The server is stopping: finish or abandon the connections being served. */
  virtual long Stop() = 0;
  /**
   * @brief A whole request arrived on a connection (on a kept-alive connection, once per
   * request the worker did not take itself). Called on the server's polling thread: hand the
   * socket to a worker and return at once. A socket that nobody takes over is closed.
   */
  virtual void HandleRequest(const Socket* socket) = 0;
};

}  // namespace hlp
