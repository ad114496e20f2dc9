#include "hlp/HttpServer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "core/KroStatus.h"
#include "hlp/FreeMemory.h"
#include "hlp/HttpServerConnection.h"
#include "hlp/IRequestHandler.h"
#include "hlp/SSLContext.h"
#include "hlp/ServerCore.h"
#include "hlp/ServerSession.h"
#include "hlp/WinsockHelper.h"

namespace hlp {
namespace detail {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

// A failing accept is retried after this pause, whatever the idle wait.
constexpr auto kAcceptRetryPause = std::chrono::milliseconds(kDefaultIdleWaitMs);
constexpr auto kStopWait = std::chrono::seconds(10);

using PortEntry = std::pair<uint16_t, bool>;  // a port and whether it speaks TLS

// "4800s,4801": decimal ports separated by ",", each optionally followed by "s" for TLS.
bool ParsePorts(const std::string& list, std::vector<PortEntry>& entries) {
  size_t pos = 0;
  while (pos <= list.size()) {
    const size_t comma = std::min(list.find(',', pos), list.size());
    std::string_view item(list.data() + pos, comma - pos);
    PortEntry entry{0, false};
    if (!item.empty() && (item.back() == 's' || item.back() == 'S')) {
      entry.second = true;
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
    entry.first = static_cast<uint16_t>(port);
    entries.push_back(entry);
    pos = comma + 1;
  }
  return !entries.empty();
}

long SocketStatus(const boost::system::error_code& ec) {
  return kro::status::FromWin32(static_cast<uint32_t>(ec.value()));
}

}  // namespace

ServerCore::ServerCore()
    : link(std::make_shared<LoopLink>(this)),
      budget(std::make_shared<BodyBudget>()),
      maxConnections(WinsockHelper::ConnectionLimit(kDefaultMaxConnections)) {}

ServerCore::~ServerCore() {
  link->Cut();
  CloseListeners();
  CloseConnections();
  // Lets every cancelled wait finish now, so that no handler keeps a connection (and with it
  // this loop) alive.
  for (int round = 0; round < 8; ++round) {
    Io().restart();
    if (Io().poll() == 0) {
      break;
    }
  }
}

void ServerCore::Arm(const std::shared_ptr<Listener>& listener) {
  auto socket = std::make_shared<tcp::socket>(Io());
  listener->acceptor.async_accept(*socket,
                                  [this, listener, socket](const boost::system::error_code& ec) {
                                    OnAccept(listener, socket, ec);
                                  });
  listener->armed = true;
}

void ServerCore::OnAccept(const std::shared_ptr<Listener>& listener,
                          const std::shared_ptr<tcp::socket>& socket,
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
    Admit(listener, std::move(*socket));
  } catch (...) {
    // The connection is dropped; the server goes on.
  }
}

void ServerCore::Admit(const std::shared_ptr<Listener>& listener, tcp::socket socket) {
  boost::system::error_code ignored;
  if (handler == nullptr || (listener->tls && (tls == nullptr || !tls->HasCertificate()))) {
    socket.close(ignored);
    return;
  }
  if (open.size() >= maxConnections.load()) {
    // Full: the connection that has waited longest for its request makes room, so that slow
    // or idle peers can never lock a quick one out. With none waiting, the newcomer goes.
    if (waitingForHead.empty()) {
      socket.close(ignored);
      return;
    }
    waitingForHead.front()->CloseNow();
  }
  auto session =
      std::make_shared<Session>(*this, std::move(socket), listener->tls, timeoutMs.load());
  session->localPort = listener->port;
  open.emplace(session.get(), session);
  openCount.store(open.size());
  session->Start();
}

void ServerCore::Forget(Session* session) {
  open.erase(session);
  openCount.store(open.size());
  peakOpen = std::max(peakOpen, open.size() + 1);
  if (open.empty() && peakOpen >= kCrowdConnections) {
    // The crowd is gone; its buffers and session objects need not stay resident. A moment
    // later, when the last of their cancelled waits have run and released them.
    peakOpen = 0;
    trimTimer.emplace(Io());
    trimTimer->expires_after(std::chrono::seconds(1));
    trimTimer->async_wait([this](const boost::system::error_code& ec) {
      if (!ec && open.empty()) {
        renewDue = true;
      }
    });
  }
}

void ServerCore::RenewLoop() {
  renewDue = false;
  if (!open.empty()) {
    return;
  }
  if (LoopKeepsClosedSocketRecords()) {
    std::vector<tcp::acceptor::protocol_type> protocols;
    for (const auto& listener : listeners) {
      boost::system::error_code ec;
      protocols.push_back(listener->acceptor.local_endpoint(ec).protocol());
      if (ec) {
        ReturnFreeMemory();  // the loop stays as it is
        return;
      }
    }
    auto fresh = std::make_shared<asio::io_context>(1);
    std::vector<std::shared_ptr<Listener>> moved;
    for (size_t i = 0; i < listeners.size(); ++i) {
      // The listening socket itself moves, so the port stays bound and whoever waits in its
      // backlog is accepted by the fresh loop.
      Listener& listener = *listeners[i];
      auto next = std::make_shared<Listener>(*fresh);
      next->tls = listener.tls;
      next->port = listener.port;
      listener.closed = true;  // its cancelled accept is dropped
      boost::system::error_code ec;
      const auto handle = listener.acceptor.release(ec);
      if (!ec) {
        next->acceptor.assign(protocols[i], handle, ec);
      }
      next->closed = static_cast<bool>(ec);
      moved.push_back(std::move(next));
    }
    std::shared_ptr<asio::io_context> old;
    link->Exclusive([&] {
      old = std::exchange(context, fresh);
      listeners = std::move(moved);
    });
    trimTimer.reset();
    // What was posted to the old loop runs now; then it goes with every record it kept.
    old->restart();
    old->poll();
    old.reset();
    for (const auto& listener : listeners) {
      if (!listener->closed) {
        Arm(listener);
      }
    }
    std::unordered_map<Session*, std::shared_ptr<Session>>().swap(open);
    std::deque<std::weak_ptr<Session>>().swap(budgetQueue);
  }
  ReturnFreeMemory();
}

void ServerCore::WakeBudgetQueue() {
  while (!budgetQueue.empty() && budget->used.load() < budget->limit.load()) {
    const std::shared_ptr<Session> session = budgetQueue.front().lock();
    budgetQueue.pop_front();
    if (session) {
      session->ResumeBody();
    }
  }
  if (!budgetQueue.empty()) {
    budget->waiters.store(true);
  }
}

long ServerCore::Bind(const std::vector<std::pair<uint16_t, bool>>& ports) {
  std::vector<uint16_t> bound;
  for (const auto& [port, secure] : ports) {
    auto listener = std::make_shared<Listener>(Io());
    listener->tls = secure;
    listeners.push_back(listener);
    const tcp::endpoint endpoint(tcp::v4(), port);
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
    bound.push_back(listener->port);
  }
  for (const auto& listener : listeners) {
    Arm(listener);
  }
  std::lock_guard<std::mutex> lock(portsMutex);
  boundPorts = std::move(bound);
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
  Io().restart();
  Io().poll();
}

void ServerCore::CloseConnections() {
  std::vector<std::shared_ptr<Session>> all;
  all.reserve(open.size());
  for (const auto& entry : open) {
    all.push_back(entry.second);
  }
  for (const auto& session : all) {
    // A worker serving one sees its next operation fail and gives it back.
    session->closing.store(true);
    session->CloseNow();
  }
  budgetQueue.clear();
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
      if (entry.second && tls == nullptr) {
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
    core.Io().restart();
    // One wait in the kernel (SetIdleWait posts to the io_context to end it), then whatever
    // else is ready.
    if (idleWait.count() == 0 || core.Io().run_one_until(start + idleWait) != 0) {
      core.Io().poll();
    }
    if (core.renewDue) {
      core.RenewLoop();
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
      if (entry.second && core.tls == nullptr) {
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
    core_->link->Post([](detail::ServerCore&) {});
  } catch (...) {
    // Without the post the new wait applies from the next Poll on.
  }
}

void HttpServer::SetConnectionLimit(size_t connections) {
  core_->maxConnections.store(WinsockHelper::ConnectionLimit(connections == 0 ? 1 : connections));
}

void HttpServer::SetBodyBudget(uint64_t bytes) {
  core_->budget->limit = static_cast<int64_t>(std::min<uint64_t>(bytes, INT64_MAX));
}

size_t HttpServer::OpenConnections() const {
  return core_->openCount.load();
}

void HttpServer::SetConnectionTimeout(uint32_t milliseconds) {
  if (milliseconds != 0) {
    core_->timeoutMs.store(milliseconds);
  }
}

}  // namespace hlp
