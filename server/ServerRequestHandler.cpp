#include "server/ServerRequestHandler.h"

#include <climits>
#include <cstdio>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "hlp/HttpStatus.h"
#include "hlp/RequestInfo.h"
#include "logging_support/logging_support.h"
#include "nvthreads/nvthreads.h"
#include "server/KroServer.h"
#include "server/RequestChecks.h"
#include "server/ThreadPriority.h"

namespace kro {
namespace {

constexpr uint32_t kMinWorkers = 10;
constexpr uint32_t kMaxWorkers = 100;
constexpr uint32_t kStopBudgetMs = 3000;

int PrintableLength(size_t length) {
  return length > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(length);
}

std::wstring UiFolderOf(const std::wstring& installDir) {
  if (installDir.empty()) {
    // Without an installation folder there is no UI to serve (and no relative path to guess).
    return {};
  }
  std::wstring folder = installDir;
  if (folder.back() != L'\\' && folder.back() != L'/') {
    folder += kPathSeparator;
  }
  folder += kUiFolder;
  folder += kPathSeparator;
  return folder;
}

}  // namespace

ServerRequestHandler::ServerRequestHandler(KroServer* server)
    : server_(server),
      routines_(server != nullptr ? server->Routines() : nullptr),
      upstream_(routines_),
      router_(routines_, {}, 0) {}

ServerRequestHandler::~ServerRequestHandler() = default;

bool ServerRequestHandler::IsAgent() const {
  return server_->ComponentName() == "KroAgent";
}

long ServerRequestHandler::Start() {
  try {
    std::snprintf(poolName_, sizeof(poolName_), "%s%s", "SvrReqHandlerAutoPool",
                  server_->ComponentName().c_str());
    if (const uint32_t st = nvthreads_pool_init_auto(poolName_, kMinWorkers, kMaxWorkers, nullptr,
                                                     nullptr, ProcessConnection, nullptr);
        st != NVTHREADS_OK) {
      return status::Code(st);
    }
    const uint32_t state = server_->GetState();
    if (state != kServerInitialised && state != kServerStopped) {
      return status::Ok;
    }
    if (upstream_.Allocate() != status::Ok) {
      KRO_LOG_ERROR << "No memory for the job exchange buffers";
    }
    if (const long st = webConfig_.ReadWebConfiguration();
        st != status::Ok && st != status::FileOpenFailed) {
      KRO_LOG_ERROR << "WebServer.cfg not read: 0x" << std::hex << status::Bits(st);
    }
    std::wstring installDir;
    ReadRegistryString(installDir, kSetupKey, kInstallDirValue);
    uiFolder_ = UiFolderOf(installDir);
    router_ = BrowserRouter(routines_, uiFolder_, reportsSetting_);
    server_->SetState(kServerRunning);
    return status::Ok;
  } catch (...) {
    nvthreads_pool_cleanup(poolName_);
    return status::Failure;
  }
}

long ServerRequestHandler::Stop() {
  nvthreads_pool_set_shutdownmsecs(poolName_, kStopBudgetMs);
  nvthreads_pool_shutdown(poolName_);
  nvthreads_pool_cleanup(poolName_);
  server_->SetFinishedStopping();
  return status::Ok;
}

void ServerRequestHandler::HandleRequest(const hlp::Socket* socket) {
  if (socket == nullptr) {
    return;
  }
  try {
    auto context = std::make_unique<Connection>();
    context->socket = *socket;
    context->handler = this;
    KRO_LOG_TRACE << "HandleRequest [" << socket->GetRemoteIpAddress() << "]";
    const uint32_t st =
        nvthreads_workitem_add(poolName_, nullptr, nullptr, 1, 0, 0, RequestHandlerInit,
                               ConnectionCleanup, ProcessConnection, context.get());
    if (st != NVTHREADS_OK) {
      // The item never runs: the context and its socket are still ours to drop.
      KRO_LOG_ERROR << "Error adding workitem to " << poolName_;
      return;
    }
    context.release();
  } catch (...) {
    // A connection that cannot be handed over is dropped; the poll loop goes on.
  }
}

long ServerRequestHandler::RequestHandlerInit(void* context) {
  auto* connection = static_cast<Connection*>(context);
  if (connection == nullptr || connection->handler == nullptr) {
    return status::Ok;
  }
  try {
    ServerRequestHandler& handler = *connection->handler;
    handler.server_->InstallLogger();
    // Once per worker: the pool's threads serve nothing but connections.
    thread_local bool deferred = false;
    if (!deferred) {
      DeferWakeUpPreemption();
      deferred = true;
    }
    if (handler.server_->GetState() == kServerRunning) {
      auto served = std::make_unique<hlp::HttpServerConnection>(handler.server_);
      served->SetClient(connection->socket);
      connection->connection = std::move(served);
    }
    KRO_LOG_TRACE << "Inited " << handler.poolName_ << " Status " << 0;
  } catch (...) {
    connection->connection.reset();
  }
  return status::Ok;
}

long ServerRequestHandler::ConnectionCleanup(void* context) {
  std::unique_ptr<Connection> connection(static_cast<Connection*>(context));
  try {
    if (connection != nullptr && connection->handler != nullptr) {
      connection->handler->server_->InstallLogger();
    }
    if (connection != nullptr && connection->connection != nullptr) {
      connection->connection->CloseConnection();
    }
  } catch (...) {
  }
  return status::Ok;
}

long ServerRequestHandler::ProcessConnection(void* context) {
  auto* connection = static_cast<Connection*>(context);
  if (connection == nullptr || connection->handler == nullptr ||
      connection->connection == nullptr) {
    return status::Ok;
  }
  try {
    return connection->handler->ServeConnection(*connection->connection);
  } catch (...) {
    // Out of memory for a body or an answer: this connection ends, the server goes on.
    return status::Failure;
  }
}

long ServerRequestHandler::CallRoutine(const std::string& name, const char* request,
                                       size_t requestLength, RoutineAnswer& answer) const {
  return kro::CallRoutine(routines_, name, request, requestLength, answer);
}

long ServerRequestHandler::ServeConnection(hlp::HttpServerConnection& connection) {
  if (server_->GetState() != kServerRunning) {
    return status::Ok;
  }
  bool oldBrowser = false;
  do {
    hlp::RequestInfo request;
    if (const long st = connection.ReadRequest(request); st != status::Ok) {
      return st;
    }
    const std::string userAgent = request.Header("User-Agent");
    const ClientClass client = ClassifyClient(userAgent, server_->IsMasterOrAgent());
    if (!IsUriAdmitted(client, request.uri)) {
      if (client == ClientClass::OldBrowser) {
        oldBrowser = true;
        break;
      }
      if (client == ClientClass::Unsupported) {
        connection.SendHttpError(406, "Not Acceptable", "%s", "Unsupported Client");
      } else {
        connection.SendHttpError(404, "Not Found", "%s", "File not found");
      }
      continue;
    }

    std::string body;
    std::string lengthText;
    if (request.GetHeader("Content-Length", lengthText)) {
      uint64_t length = 0;
      if (!ParseContentLength(lengthText, length) || length > hlp::kMaxContentLength) {
        connection.SendHttpError(400, "Bad Request", "%s", "Content length invalid");
        continue;
      }
      body.resize(static_cast<size_t>(length));
      if (length != 0) {
        if (const long st = connection.Read(body.data(), body.size()); st != status::Ok) {
          return st;
        }
      }
    }

    if (body == "Authentication" || body == "GetRoleVer") {
      RoutineAnswer answer;
      CallRoutine(body, body.data(), body.size(), answer);
      connection.PrintFormattedWithHeaders("%.*s", PrintableLength(answer.Length()),
                                           answer.View().data());
    } else if (client == ClientClass::Browser) {
      ServeBrowser(connection, request.uri, body);
    } else {
      const long st = upstream_.Exchange(body, [&connection](const char* data, size_t length) {
        return connection.Write(data, length);
      });
      if (st != status::Ok) {
        KRO_LOG_ERROR << "Job exchange: 0x" << std::hex << status::Bits(st);
      }
    }
  } while (server_->GetState() == kServerRunning);

  if (oldBrowser) {
    const std::string page = OldBrowserPage(IsAgent());
    connection.Write(page.data(), page.size());
  }
  return status::Ok;
}

long ServerRequestHandler::ServeBrowser(hlp::HttpServerConnection& connection,
                                        const std::string& uri, const std::string& body) {
  const std::string address = connection.GetRemoteIpAddress();
  // The gate, the redirect table and the router all look at the one path that is served: a
  // gate that judged the URI as sent could be passed by spelling a page another way.
  std::string path = RoutedPath(uri, IsAgent());
  auto admitted = [&] {
    return sessions_.CheckBrowserAccess(address, server_->SessionOption(), IsAgent(),
                                        server_->RemoteUIAllowed(), path) == status::Ok;
  };
  if (!admitted()) {
    return connection.SendHttpError(403, "Forbidden", "%s", "Access Denied/Forbidden");
  }
  const std::string requested = path;
  std::string location;
  uint32_t code = 0;
  if (webConfig_.ApplyRedirect(path, location, code) == RedirectAction::Redirect) {
    const char* reason = hlp::HttpStatusToString(code);
    return connection.SendHttpRedirect(code, reason, location.c_str(), "%s", reason);
  }
  if (path != requested) {
    // A relative redirect target is served in the request's place, so it passes the gate too.
    path = RoutedPath(path, IsAgent());
    if (!admitted()) {
      return connection.SendHttpError(403, "Forbidden", "%s", "Access Denied/Forbidden");
    }
  }
  AnswerBuffer answer;
  if (router_.ServeRoutedPath(path, body.data(), body.size(), IsAgent(), answer) != status::Ok) {
    return connection.SendHttpError(404, "Not Found", "%s", "File not found");
  }
  const std::string_view whole = answer.View();
  const long st = connection.Write(whole.data(), whole.size());
  sessions_.UpdateSession(address, path, whole);
  return st;
}

}  // namespace kro
