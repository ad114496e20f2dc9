#pragma once

// Internal to the server library: one accepted connection, and the only header of the library
// that pulls in Asio, Beast and OpenSSL.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>

#include "hlp/RequestInfo.h"

namespace hlp::detail {

struct ServerCore;
struct Session;

using Clock = std::chrono::steady_clock;

/**
 * @brief The server's event loop as a worker reaches it. A worker may still hold a connection
 * when the server goes away; what it posts then is dropped instead of reaching a freed loop.
 */
class LoopLink {
 public:
  explicit LoopLink(ServerCore* core) : core_(core) {}
  /** @brief Runs `work` on the loop thread; false (and `work` dropped) once the server is gone. */
  bool Post(std::function<void(ServerCore&)> work);
  /** @brief Runs `change` (on the loop thread) while no worker can post. */
  void Exclusive(const std::function<void()>& change);
  void Cut();

 private:
  std::mutex mutex_;
  ServerCore* core_;
};

/** @brief What looking for the next request in a connection's input found. */
enum class HeadScan : uint8_t {
  kIncomplete,    // the header block has not all arrived
  kReady,         // request line and headers parsed into the session
  kTooLarge,      // no end within kMaxHeaderBytes: 431
  kMalformed,     // 400
  kChunked,       // a transfer coding: 411
  kBodyTooLarge,  // 413
};

/**
 * @brief One accepted connection.
 *
 * It belongs to the server's event loop while it waits for the peer (TLS handshake, request
 * line and headers, body, a slow reader taking its answer) and to one worker while one of its
 * requests is served (phase kServed). The hand-over in each direction goes through a queue with
 * its own lock (the worker pool's, the loop's), which orders everything either side wrote.
 * Fields marked "loop" are touched on the loop thread only; the rest by whoever owns the
 * connection at the time.
 */
struct Session : std::enable_shared_from_this<Session> {
  enum class Phase : uint8_t {
    kHandshake,  // TLS handshake under way (also waiting for the first header block)
    kHead,       // waiting for a header block
    kBody,       // reading a body
    kBudget,     // a body waits for room in the servers' body budget
    kServed,     // a worker owns the connection
    kWriting,    // the loop writes an answer out
    kClosing,    // answer out; TLS shut-down or the linger before the close
    kClosed,
  };

  using TlsStream = boost::asio::ssl::stream<boost::asio::ip::tcp::socket>;

  Session(ServerCore& owner, boost::asio::ip::tcp::socket accepted, bool tls, uint32_t timeoutMs);
  ~Session();

  boost::asio::ip::tcp::socket& Socket() { return secure ? secure->next_layer() : *plain; }

  // ---- Loop side ------------------------------------------------------------------------------
  /** @brief Begins serving a fresh connection (handshake or first header block). */
  void Start();
  /** @brief The worker let go of the connection: next request, or close once the answer is out. */
  void Resume(bool next);
  /** @brief Closes at once, answer or not (time-out, eviction, server stop). */
  void CloseNow();
  /** @brief Room came free in the body budget: reads on. */
  void ResumeBody();

  // ---- Worker side ----------------------------------------------------------------------------
  /**
   * @brief Takes a request that arrived whole behind the one just served (pipelining) without
   * going back to the loop: true when head and body are all in. Anything else (more to read, a
   * request to refuse) is left for the loop.
   */
  bool TakeBufferedRequest();
  /** @brief Sends what it can at once on a plain connection and keeps the rest for the loop. */
  void Send(const char* data, size_t length);
  /** @brief Gives the body's bytes back to the budget. */
  void DropBody();

  // ---- Shared parse --------------------------------------------------------------------------
  /** @brief Looks for a header block at the start of `in` and parses it into the fields below. */
  HeadScan ScanHead(size_t& headSize);

  // Declared first so that it goes last: the socket and the timer belong to it, and a worker may
  // hold the connection after the server is gone.
  std::shared_ptr<boost::asio::io_context> context;
  ServerCore& core;  // loop
  std::shared_ptr<LoopLink> link;
  std::shared_ptr<struct BodyBudget> budget;
  std::optional<boost::asio::ip::tcp::socket> plain;
  std::unique_ptr<TlsStream> secure;
  boost::asio::steady_timer timer;  // loop: armed for the deadline, or earlier
  Clock::time_point deadline;       // loop: when the current wait for the peer ends
  bool timerArmed = false;          // loop
  std::string remoteIp;
  uint16_t localPort = 0;
  bool tls = false;
  std::chrono::milliseconds timeout;

  Phase phase = Phase::kHead;                  // loop, or the worker in kServed
  std::list<Session*>::iterator waitingEntry;  // loop: place among those waiting for a head
  bool waitingForHead = false;                 // loop
  size_t searched = 0;                         // no header block end starts before this in `in`
  std::string in;                              // received, not yet taken
  std::unique_ptr<char[]> tlsArea;             // loop: a TLS read's target
  size_t pieceBytes = 0;                       // loop: body bytes since the deadline was set
  std::list<Session*>::iterator bodyEntry;     // loop: place among the bodies being read
  bool readingBody = false;                    // loop

  // The request being read or served.
  RequestInfo request;
  std::string body;
  uint64_t bodyLength = 0;  // announced
  size_t bodyCharged = 0;   // bytes of `body` counted in the budget
  unsigned version = 11;
  bool keepAlive = true;
  bool peerCloses = false;  // the request said the peer closes after its answer
  bool expectContinue = false;
  bool requestReady = false;  // a parsed request waits for the worker's ReadRequest

  std::string out;  // answer bytes still to send
  size_t outSent = 0;
  bool handshakeDone = false;
  bool peerDone = false;  // the peer closed or failed: nothing more to read, no polite close
  std::atomic<bool> closing{false};  // the server is stopping: every operation fails

 private:
  void EnterHead();
  void LeaveHead();
  void LeaveBody();
  void Process();
  void ReadMore();
  void OnReadable(const boost::system::error_code& ec);
  void Received(const char* data, size_t size);
  void Dispatch();
  void Refuse(unsigned status, const char* text);
  void Flush(std::function<void()> then);
  void FinishClose();
  /** @brief The socket is closed and the connection leaves the server's books. */
  void Release();
  bool forgotten_ = false;
  void Linger(Clock::time_point until, size_t drained);
  void ArmDeadline(Clock::time_point deadline);
};

}  // namespace hlp::detail
