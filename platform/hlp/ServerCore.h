#pragma once

// Internal to the server library: the event loop and everything it keeps.

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hlp/HttpServer.h"
#include "hlp/HttpServerConnection.h"
#include "hlp/ServerSession.h"

namespace hlp {
class IRequestHandler;
class SSLContext;
}  // namespace hlp

namespace hlp::detail {

/** @brief Open connections beyond which a new one displaces the slowest waiting one. */
inline constexpr size_t kDefaultMaxConnections = 10000;
/** @brief Open connections from which memory is given back once they are all gone. */
inline constexpr size_t kCrowdConnections = 256;
/** @brief Request bodies held in memory at once by all connections; beyond it reading pauses. */
inline constexpr int64_t kBodyBudgetBytes = int64_t{256} * 1024 * 1024;

struct Listener {
  explicit Listener(boost::asio::io_context& io) : acceptor(io) {}

  boost::asio::ip::tcp::acceptor acceptor;
  uint16_t port = 0;  // as bound
  bool tls = false;
  bool armed = false;   // an accept is pending
  bool closed = false;  // accepts completing after the close are dropped
};

/**
 * @brief Bytes of request bodies in memory. Shared with the connections, because a worker
 * gives a body back after the server may be gone.
 */
struct BodyBudget {
  std::atomic<int64_t> used{0};
  std::atomic<int64_t> limit{kBodyBudgetBytes};
  /** @brief Some connection waits for room: the next give-back must wake the loop. */
  std::atomic<bool> waiters{false};
};

/** @brief Everything of the server that needs Asio; touched only by the polling thread. */
struct ServerCore {
  ServerCore();
  ~ServerCore();

  // Declared first so that it goes last: sockets and timers below belong to it. Shared with
  // the connections, which a worker may still hold when the server is gone. Replaced (under
  // the link's lock) only when no connection is open.
  std::shared_ptr<boost::asio::io_context> context = std::make_shared<boost::asio::io_context>(1);
  std::shared_ptr<LoopLink> link;
  std::shared_ptr<BodyBudget> budget;

  std::vector<std::shared_ptr<Listener>> listeners;
  SSLContext* tls = nullptr;
  IRequestHandler* handler = nullptr;
  bool started = false;
  bool acceptFailed = false;

  std::atomic<uint32_t> timeoutMs{kConnectionTimeoutSeconds * 1000u};
  std::atomic<uint32_t> idleWaitMs{kDefaultIdleWaitMs};
  std::atomic<size_t> maxConnections{kDefaultMaxConnections};
  std::atomic<size_t> openCount{0};
  size_t peakOpen = 0;  // most connections open at once since memory was last given back
  std::optional<boost::asio::steady_timer> trimTimer;
  bool renewDue = false;  // a crowd has gone: the loop is renewed when the poll returns

  mutable std::mutex portsMutex;
  std::vector<uint16_t> boundPorts;

  /** @brief Every open connection, served or waiting. */
  std::unordered_map<Session*, std::shared_ptr<Session>> open;
  /** @brief Connections waiting for a header block, longest waiting first (eviction order). */
  std::list<Session*> waitingForHead;
  /** @brief Connections reading a body, the one reading longest first. */
  std::list<Session*> bodies;
  /** @brief Connections whose body reading waits for the budget, first come first served. */
  std::deque<std::weak_ptr<Session>> budgetQueue;
  /** @brief Where plain reads land before they are appended to a connection's input. */
  std::array<char, 64 * 1024> scratch{};

  std::mutex stopMutex;
  std::condition_variable stopCv;
  bool finishedStopping = false;

  boost::asio::io_context& Io() { return *context; }
  void Arm(const std::shared_ptr<Listener>& listener);
  void OnAccept(const std::shared_ptr<Listener>& listener,
                const std::shared_ptr<boost::asio::ip::tcp::socket>& socket,
                const boost::system::error_code& ec);
  void Admit(const std::shared_ptr<Listener>& listener, boost::asio::ip::tcp::socket socket);
  /** @brief Binds and arms a listener per entry: a port and whether it speaks TLS. */
  long Bind(const std::vector<std::pair<uint16_t, bool>>& ports);
  void CloseListeners();
  void CloseConnections();
  /** @brief A closed connection leaves the books. */
  void Forget(Session* session);
  /** @brief Lets waiting bodies read on while the budget has room. */
  void WakeBudgetQueue();
  /**
   * @brief Once a crowd of connections has gone: a fresh event loop that takes the listening
   * sockets over, and the memory the old one and the crowd held given back.
   */
  void RenewLoop();
};

}  // namespace hlp::detail
