#include "hlp/HttpServer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "common/KroStatus.h"
#include "hlp/AcceptedSocket.h"
#include "hlp/HttpServerConnection.h"
#include "hlp/IRequestHandler.h"
#include "hlp/PeerStream.h"
#include "hlp/PlainSocketIo.h"
#include "hlp/SSLContext.h"
#include "hlp/Socket.h"
#include "hlp/WinsockHelper.h"

namespace hlp {
namespace detail {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

// Connections accepted but not yet taken by a worker. Beyond it new ones are closed at once,
// so that a flood cannot exhaust descriptors or memory while the workers are busy. Each one
// holds a few descriptors (its socket and its own event loop's), so the cap stays well inside
// the usual limit of 1024 descriptors per process.
constexpr int kMaxWaitingConnections = 200;
// A failing accept is retried after this pause, whatever the idle wait.
constexpr auto kAcceptRetryPause = std::chrono::milliseconds(kDefaultIdleWaitMs);
constexpr auto kStopWait = std::chrono::seconds(10);

struct PortEntry {
  uint16_t port = 0;
  bool tls = false;
};

// "4800s,4801": decimal ports separated by ",", each optionally followed by "s" for TLS.
bool ParsePorts(const std::string& list, std::vector<PortEntry>& entries) {
  size_t pos = 0;
  while (pos <= list.size()) {
    const size_t comma = std::min(list.find(',', pos), list.size());
    std::string_view item(list.data() + pos, comma - pos);
    PortEntry entry;
    if (!item.empty() && (item.back() == 's' || item.back() == 'S')) {
      entry.tls = true;
      item.remove_suffix(1);
    }
    if (item.empty() || item.size() > 5) {
      return false;
    }
    uint32_t port = 0;
    for (const char c : item) {
      if (c < '0' || c > '9') {
        return false;
      }
      port = port * 10 + static_cast<uint32_t>(c - '0');
    }
    if (port > 65535) {
      return false;
    }
    entry.port = static_cast<uint16_t>(port);
    entries.push_back(entry);
    pos = comma + 1;
  }
  return !entries.empty();
}

long SocketStatus(const boost::system::error_code& ec) {
  return kro::status::FromWin32(static_cast<uint32_t>(ec.value()));
}

}  // namespace

struct Listener {
  explicit Listener(asio::io_context& io) : acceptor(io) {}

  tcp::acceptor acceptor;
  uint16_t port = 0;  // as bound
  bool tls = false;
  bool armed = false;   // an accept is pending
  bool closed = false;  // accepts completing after the close are dropped
};

/** @brief Everything of the server that needs Asio; touched only by the polling thread. */
struct ServerCore {
  asio::io_context io{1};
  std::vector<std::shared_ptr<Listener>> listeners;
  SSLContext* tls = nullptr;
  IRequestHandler* handler = nullptr;
  bool started = false;
  bool acceptFailed = false;

  std::atomic<uint32_t> timeoutMs{kConnectionTimeoutSeconds * 1000u};
  std::atomic<uint32_t> idleWaitMs{kDefaultIdleWaitMs};
  std::shared_ptr<std::atomic<int>> waiting = std::make_shared<std::atomic<int>>(0);

  mutable std::mutex portsMutex;
  std::vector<uint16_t> boundPorts;

  std::mutex connectionsMutex;
  std::vector<std::weak_ptr<AcceptedSocket>> connections;

  std::mutex stopMutex;
  std::condition_variable stopCv;
  bool finishedStopping = false;

  void Arm(const std::shared_ptr<Listener>& listener);
  void OnAccept(const std::shared_ptr<Listener>& listener,
                const std::shared_ptr<AcceptedSocket>& accepted,
                const boost::system::error_code& ec);
  void HandOver(const std::shared_ptr<Listener>& listener,
                const std::shared_ptr<AcceptedSocket>& accepted);
  long Bind(const std::vector<PortEntry>& entries);
  void CloseListeners();
  void CloseConnections();
};

AcceptedSocket::AcceptedSocket() = default;

AcceptedSocket::~AcceptedSocket() {
  if (waiting && !taken_.load()) {
    waiting->fetch_sub(1);
  }
}

void ServerCore::Arm(const std::shared_ptr<Listener>& listener) {
  auto accepted = std::make_shared<AcceptedSocket>();
  accepted->peer = std::make_unique<PeerStream>();
  // The connection lands directly on its own io_context, which its worker will run.
  listener->acceptor.async_accept(accepted->peer->accepted,
                                  [this, listener, accepted](const boost::system::error_code& ec) {
                                    OnAccept(listener, accepted, ec);
                                  });
  listener->armed = true;
}

void ServerCore::OnAccept(const std::shared_ptr<Listener>& listener,
                          const std::shared_ptr<AcceptedSocket>& accepted,
                          const boost::system::error_code& ec) {
  listener->armed = false;
  if (listener->closed) {
    return;
  }
  if (ec) {
    // Re-armed by the next Poll, not here: a lasting failure (no descriptors left) would
    // otherwise spin.
    acceptFailed = true;
    return;
  }
  try {
    Arm(listener);
  } catch (...) {
    acceptFailed = true;
  }
  try {
    HandOver(listener, accepted);
  } catch (...) {
    // The connection is dropped; the server goes on.
  }
}

void ServerCore::HandOver(const std::shared_ptr<Listener>& listener,
                          const std::shared_ptr<AcceptedSocket>& accepted) {
  PeerStream& peer = *accepted->peer;
  boost::system::error_code ignored;
  if (waiting->load() >= kMaxWaitingConnections || handler == nullptr) {
    peer.accepted.close(ignored);
    return;
  }
  // Small answers would otherwise wait for the peer's delayed acknowledgement (~40 ms).
  peer.accepted.set_option(tcp::no_delay(true), ignored);
  const tcp::endpoint remote = peer.accepted.remote_endpoint(ignored);
  if (!ignored) {
    accepted->remoteIp = remote.address().to_string();
  }
  accepted->localPort = listener->port;
  accepted->tls = listener->tls;
  accepted->timeoutMs = timeoutMs.load();
  if (listener->tls) {
    if (tls == nullptr || !tls->HasCertificate()) {
      peer.accepted.close(ignored);
      return;
    }
    // Only the TLS state is created here; the handshake runs on the worker.
    peer.secure = std::make_unique<PeerStream::TlsStream>(std::move(peer.accepted), tls->Native());
  } else {
    peer.plain = std::make_unique<boost::beast::tcp_stream>(std::move(peer.accepted));
    if (PreparePlainSocket(peer)) {
      peer.plain->socket().close(ignored);
      return;
    }
  }

  {
    std::lock_guard<std::mutex> lock(connectionsMutex);
    std::erase_if(connections, [](const std::weak_ptr<AcceptedSocket>& c) { return c.expired(); });
    connections.push_back(accepted);
  }
  waiting->fetch_add(1);
  accepted->waiting = waiting;

  const Socket socket(accepted);
  handler->HandleRequest(&socket);
}

long ServerCore::Bind(const std::vector<PortEntry>& entries) {
  std::vector<uint16_t> ports;
  for (const PortEntry& entry : entries) {
    auto listener = std::make_shared<Listener>(io);
    listener->tls = entry.tls;
    listeners.push_back(listener);
    const tcp::endpoint endpoint(tcp::v4(), entry.port);
    boost::system::error_code ec;
    listener->acceptor.open(endpoint.protocol(), ec);
    if (!ec && WinsockHelper::ListenersReuseAddress()) {
      listener->acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    }
    if (!ec) {
      listener->acceptor.bind(endpoint, ec);
    }
    if (!ec) {
      listener->acceptor.listen(asio::socket_base::max_listen_connections, ec);
    }
    if (!ec) {
      listener->port = listener->acceptor.local_endpoint(ec).port();
    }
    if (ec) {
      CloseListeners();
      return SocketStatus(ec);
    }
    ports.push_back(listener->port);
  }
  for (const auto& listener : listeners) {
    Arm(listener);
  }
  std::lock_guard<std::mutex> lock(portsMutex);
  boundPorts = std::move(ports);
  return kro::status::Ok;
}

void ServerCore::CloseListeners() {
  for (const auto& listener : listeners) {
    listener->closed = true;
    boost::system::error_code ignored;
    listener->acceptor.close(ignored);
  }
  listeners.clear();
  {
    std::lock_guard<std::mutex> lock(portsMutex);
    boundPorts.clear();
  }
  // Lets the cancelled accepts finish now, so that their sockets are released.
  io.restart();
  io.poll();
}

void ServerCore::CloseConnections() {
  std::vector<std::shared_ptr<AcceptedSocket>> open;
  {
    std::lock_guard<std::mutex> lock(connectionsMutex);
    for (const auto& weak : connections) {
      if (auto connection = weak.lock()) {
        open.push_back(std::move(connection));
      }
    }
    connections.clear();
  }
  for (const auto& connection : open) {
    connection->peer->CloseFromAnyThread();
  }
}

}  // namespace detail

HttpServer::HttpServer() : core_(std::make_unique<detail::ServerCore>()) {}

HttpServer::~HttpServer() {
  // The handler may be gone already; only the sockets are closed.
  try {
    core_->CloseListeners();
    core_->CloseConnections();
  } catch (...) {
  }
}

long HttpServer::Start(SSLContext* tls, const std::string& ports, IRequestHandler* handler) {
  try {
    detail::ServerCore& core = *core_;
    std::vector<detail::PortEntry> entries;
    if (handler == nullptr || core.started || !detail::ParsePorts(ports, entries)) {
      return kro::status::NotAvailable;
    }
    for (const auto& entry : entries) {
      if (entry.tls && tls == nullptr) {
        return kro::status::NotAvailable;
      }
    }
    core.tls = tls;
    if (const long status = core.Bind(entries); status != kro::status::Ok) {
      return status;
    }
    {
      std::lock_guard<std::mutex> lock(core.stopMutex);
      core.finishedStopping = false;
    }
    core.handler = handler;
    core.started = true;
    const long status = handler->Start();
    if (status != kro::status::Ok) {
      core.CloseListeners();
      core.handler = nullptr;
      core.started = false;
    }
    return status;
  } catch (...) {
    return kro::status::Failure;
  }
}

long HttpServer::Poll() {
  try {
    detail::ServerCore& core = *core_;
    if (!core.started) {
      return kro::status::WinNotRunning;
    }
    const auto start = std::chrono::steady_clock::now();
    const std::chrono::milliseconds idleWait(core.idleWaitMs.load());
    core.acceptFailed = false;
    for (const auto& listener : core.listeners) {
      if (!listener->armed) {
        core.Arm(listener);
      }
    }
    if (core.listeners.empty()) {
      // Nothing could wake this sleep early, so it stays short.
      std::this_thread::sleep_until(start + std::min(idleWait, detail::kAcceptRetryPause));
      return kro::status::Ok;
    }
    core.io.restart();
    // One wait in the kernel (SetIdleWait posts to the io_context to end it), then whatever
    // else is ready.
    if (idleWait.count() == 0 || core.io.run_one_until(start + idleWait) != 0) {
      core.io.poll();
    }
    if (core.acceptFailed) {
      // A failing accept completes at once; the caller must not spin on it.
      std::this_thread::sleep_until(start + detail::kAcceptRetryPause);
    }
    return kro::status::Ok;
  } catch (...) {
    return kro::status::Failure;
  }
}

long HttpServer::Restart(const std::string& ports) {
  try {
    detail::ServerCore& core = *core_;
    if (!core.started) {
      return kro::status::WinNotRunning;
    }
    core.CloseListeners();
    std::vector<detail::PortEntry> entries;
    if (!detail::ParsePorts(ports, entries)) {
      return kro::status::NotAvailable;
    }
    for (const auto& entry : entries) {
      if (entry.tls && core.tls == nullptr) {
        return kro::status::NotAvailable;
      }
    }
    return core.Bind(entries);
  } catch (...) {
    return kro::status::Failure;
  }
}

long HttpServer::Stop() {
  try {
    detail::ServerCore& core = *core_;
    if (!core.started) {
      return kro::status::WinNotRunning;
    }
    core.CloseListeners();
    core.CloseConnections();
    IRequestHandler* handler = core.handler;
    long status = kro::status::Ok;
    try {
      status = handler->Stop();
    } catch (...) {
      status = kro::status::Failure;
    }
    {
      std::unique_lock<std::mutex> lock(core.stopMutex);
      if (!core.stopCv.wait_for(lock, detail::kStopWait,
                                [&core] { return core.finishedStopping; }) &&
          status == kro::status::Ok) {
        status = kro::status::Failure;
      }
    }
    core.handler = nullptr;
    core.started = false;
    return status;
  } catch (...) {
    return kro::status::Failure;
  }
}

void HttpServer::SetFinishedStopping() {
  {
    std::lock_guard<std::mutex> lock(core_->stopMutex);
    core_->finishedStopping = true;
  }
  core_->stopCv.notify_all();
}

std::vector<uint16_t> HttpServer::GetBoundPorts() const {
  try {
    std::lock_guard<std::mutex> lock(core_->portsMutex);
    return core_->boundPorts;
  } catch (...) {
    return {};
  }
}

void HttpServer::SetIdleWait(uint32_t milliseconds) {
  try {
    core_->idleWaitMs.store(milliseconds);
    // Ends the wait of a Poll in progress (or makes the next one return at once), so that the
    // new wait applies now.
    boost::asio::post(core_->io, [] {});
  } catch (...) {
    // Without the post the new wait applies from the next Poll on.
  }
}

void HttpServer::SetConnectionTimeout(uint32_t milliseconds) {
  if (milliseconds != 0) {
    core_->timeoutMs.store(milliseconds);
  }
}

}  // namespace hlp
