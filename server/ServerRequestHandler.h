#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/InstallLayout.h"
#include "core/RoutineTable.h"
#include "hlp/HttpServerConnection.h"
#include "hlp/IRequestHandler.h"
#include "hlp/Socket.h"
#include "server/BrowserRouter.h"
#include "server/BrowserSessions.h"
#include "server/RoutineCall.h"
#include "server/UpstreamQueue.h"
#include "server/WebConfiguration.h"

namespace hlp {
class RequestInfo;
}

namespace kro {

class KroServer;

/**
 * @brief Serves the connections of a KroServer: each on a worker of its own auto-sized pool,
 * request after request, with the client checks, the routine calls, the job exchange with the
 * upper tier, redirects and the browser UI.
 */
class ServerRequestHandler : public hlp::IRequestHandler {
 public:
  /** @brief One accepted connection, owned by its work item. */
  struct Connection {
    hlp::Socket socket;
    ServerRequestHandler* handler = nullptr;
    std::unique_ptr<hlp::HttpServerConnection> connection;
  };

  explicit ServerRequestHandler(KroServer* server);
  ~ServerRequestHandler() override;
  ServerRequestHandler(const ServerRequestHandler&) = delete;
  ServerRequestHandler& operator=(const ServerRequestHandler&) = delete;

  /** @brief Creates the worker pool; on a fresh server also the job buffers, the web
   * configuration and the UI folder, then marks the server running. */
  long Start() override;
  /** @brief Shuts the worker pool down (3 s budget) and tells the server it is done. */
  long Stop() override;
  /** @brief Hands the accepted socket to a worker. */
  void HandleRequest(const hlp::Socket* socket) override;

  /** @brief Work-item entries (context: a Connection). */
  static long RequestHandlerInit(void* context);
  static long ConnectionCleanup(void* context);
  static long ProcessConnection(void* context);

  /** @brief The routine of that name, case-insensitively; 0 and no answer when there is none. */
  long CallRoutine(const std::string& name, const char* request, size_t requestLength,
                   RoutineAnswer& answer) const;

  /** @brief Queues a record for the upper tier's next job exchange. */
  long PutUpstream(const std::vector<char>& record) { return upstream_.PutUpstream(record); }

  const char* PoolName() const { return poolName_; }
  const std::wstring& UiFolder() const { return uiFolder_; }
  WebConfiguration& WebConfig() { return webConfig_; }
  BrowserSessions& Sessions() { return sessions_; }

 private:
  /** @brief Serves requests on one connection until it ends or the server stops. */
  long ServeConnection(hlp::HttpServerConnection& connection);
  /** @brief One admitted browser request: access, redirect, file or routine. */
  long ServeBrowser(hlp::HttpServerConnection& connection, const std::string& uri,
                    const std::string& body);
  bool IsAgent() const;

  KroServer* server_;
  KroAgent::RoutineTable* routines_;
  UpstreamQueue upstream_;
  WebConfiguration webConfig_;
  BrowserSessions sessions_;
  BrowserRouter router_;
  std::wstring uiFolder_;
  // The installation's reports setting: 0 serves the full reports everywhere.
  uint32_t reportsSetting_ = 0;
  char poolName_[256] = {};
};

}  // namespace kro
