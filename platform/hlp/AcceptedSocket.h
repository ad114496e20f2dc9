#pragma once

#include <atomic>
#include <memory>

namespace hlp::detail {

struct Session;

/**
 * @brief One hand-over of a connection to a worker, made when a whole request is in: what every
 * Socket handle of it and the HttpServerConnection that serves it share. Internal to the
 * server library.
 *
 * The connection goes back to the server's loop exactly once: when the serving connection
 * releases it, or, should nobody take or release it, when the last handle goes.
 */
struct AcceptedSocket {
  explicit AcceptedSocket(std::shared_ptr<Session> served);
  ~AcceptedSocket();
  AcceptedSocket(const AcceptedSocket&) = delete;
  AcceptedSocket& operator=(const AcceptedSocket&) = delete;

  /** @brief True for the one caller that takes the connection over. */
  bool Take();
  /**
   * @brief Gives the connection back to the loop: to wait there for its next request when
   * `next`, else to be closed once its answer is out. Only the first call counts.
   */
  void Release(bool next);

  const std::shared_ptr<Session> session;

 private:
  std::atomic<bool> taken_{false};
  std::atomic<bool> released_{false};
};

}  // namespace hlp::detail
