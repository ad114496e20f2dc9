#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace hlp {

class IRequestHandler;
class SSLContext;

namespace detail {
struct ServerCore;
}

/** @brief How long an idle Poll waits unless the owner sets another wait (SetIdleWait). */
inline constexpr uint32_t kDefaultIdleWaitMs = 10;

/**
 * @brief An HTTP/HTTPS server on Boost.Asio, whose event loop is the caller's polling thread.
 *
 * The port list is a string such as "4800s,4801": decimal ports separated by ",", each
 * followed by "s" when it speaks TLS. Every port listens on every IPv4 address of the machine.
 *
 * A connection waits on the loop, holding no thread, for everything that depends on its peer:
 * the TLS handshake, each request line and header block, the request body, and the peer taking
 * an answer. Only when a whole request is in does `Poll` hand the connection to the request
 * handler (HandleRequest), which serves it on a worker with an HttpServerConnection and then
 * lets go of it; the connection goes back to the loop for its next request. Limits that hold
 * for any number of peers: kMaxHeaderBytes (431), kMaxContentLength (413), the connection
 * time-out for each header block (handshake included) and for each MiB of a body or an answer,
 * a cap on open connections (when it is reached, the connection that has waited longest for a
 * header block is closed to make room) and a budget for bodies in memory (beyond it, reading
 * bodies pauses until others are done).
 *
 * State is a number the owner gives meaning to (the agent: 0 initialised, 1 running, 3
 * stopped); workers read it through GetState.
 */
class HttpServer {
 public:
  HttpServer();
  virtual ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /**
   * @brief Binds the listeners, then calls handler->Start(). 0 on success; otherwise the
   * error of the first port that cannot be bound (kro::status::FromWin32 of the socket
   * error), kro::status::NotAvailable for a malformed port list, or the handler's status
   * (the listeners are then closed again). `tls` may be null when no port speaks TLS.
   */
  long Start(SSLContext* tls, const std::string& ports, IRequestHandler* handler);

  /**
   * @brief Accepts pending connections and returns; waits at most about 10 ms when nothing
   * is pending (the idle wait; see SetIdleWait). 0, or kro::status::WinNotRunning when the
   * server is not started.
   */
  long Poll();

  /**
   * @brief How long an idle Poll may wait from now on (kDefaultIdleWaitMs unless set; 0: it
   * does not wait). Thread-safe, and a Poll waiting at the time returns at once: an owner that
   * needs its polling thread back for something (a restart, a stop) sets a short wait, so in
   * between the thread may sleep for long.
   */
  void SetIdleWait(uint32_t milliseconds);

  /**
   * @brief Closes the listeners and binds the new port list; the handler and the connections
   * being served are not touched. On failure no port listens (the old ones are closed).
   */
  long Restart(const std::string& ports);

  /**
   * @brief Closes the listeners, closes every connection still open (their workers see the
   * connection end), calls handler->Stop() and waits until it called SetFinishedStopping.
   */
  long Stop();

  uint32_t GetState() const { return state_.load(); }
  void SetState(uint32_t state) { state_.store(state); }

  /** @brief Called by the handler at the end of its Stop. */
  void SetFinishedStopping();

  /** @brief The ports actually bound, in list order (a port 0 shows the one the system chose). */
  std::vector<uint16_t> GetBoundPorts() const;

  /**
   * @brief The time-out of connections accepted from now on: it bounds the TLS handshake, the
   * arrival of each request's headers, every read and write, and an idle kept-alive
   * connection. kConnectionTimeoutSeconds unless set (tests shorten it); 0 keeps the old value.
   */
  void SetConnectionTimeout(uint32_t milliseconds);

  /**
   * @brief The most connections kept open at once (the default: 10,000, or what the process's
   * descriptor limit allows). Takes effect for connections accepted from now on.
   */
  void SetConnectionLimit(size_t connections);
  /** @brief Request body bytes held in memory at once by all connections (256 MiB unless set). */
  void SetBodyBudget(uint64_t bytes);
  /** @brief Connections open now, whether a worker serves them or they wait on the loop. */
  size_t OpenConnections() const;

  detail::ServerCore& Core() { return *core_; }

 private:
  std::atomic<uint32_t> state_{0};
  std::unique_ptr<detail::ServerCore> core_;
};

}  // namespace hlp
