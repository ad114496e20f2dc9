#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/RoutineTable.h"
#include "hlp/HttpServer.h"
#include "logging_support/logging_support.h"

namespace kro {

class ServerRequestHandler;

/** @brief A listening endpoint as callers hand it over: port and whether it speaks TLS. */
using ServerEndpoint = std::pair<uint16_t, bool>;

/** @brief Server states, as everything that asks whether the server runs compares them. */
inline constexpr uint32_t kServerInitialised = 0;
inline constexpr uint32_t kServerRunning = 1;
inline constexpr uint32_t kServerStopped = 3;

/** @brief The protocol version that "Authentication" answers after the component name. */
inline constexpr const char* kProtocolVersion = "1.2";

/**
 * @brief The agent's embedded HTTP(S) server: one poll thread of its own pool, a request
 * handler that serves each connection on a worker, and four routines of its own in the
 * agent's routine map.
 */
class KroServer : public hlp::HttpServer {
 public:
  KroServer();
  ~KroServer() override;

  /**
   * @brief Prepares the server: certificate path, component name, listening ports, its
   * routines, pool and thread names; creates its pool. 0x80000114 when the endpoints yield no
   * port, else what creating the pool returns. A certificate path that cannot be built is
   * logged and left empty; set-up goes on.
   */
  long Init(const std::vector<ServerEndpoint>& endpoints, KroAgent::RoutineTable* routines,
            const std::wstring& certificateFile, const std::string& componentName,
            uint32_t sessionOption);
  /** @brief The same for one port. */
  long Init(uint16_t port, bool tls, KroAgent::RoutineTable* routines,
            const std::wstring& certificateFile, const std::string& componentName,
            uint32_t sessionOption);

  /** @brief Creates the server thread and its poll work item; the thread starts listening. */
  long Start();

  /**
   * @brief Waits, at most `limit`, until the server thread has finished starting: listening
   * (TLS context and certificate included) or failed. False when it has not within `limit`.
   */
  bool WaitForStart(std::chrono::milliseconds limit);

  /**
   * @brief Moves the server to other ports and returns once the poll thread restarted it.
   * 12 at once, changing nothing, when the server is not running; 0x80000114 when the
   * endpoints yield no port; else 0, whatever the restart's outcome. After a restart that
   * failed the poll loop is over: the ports are taken and 0 returned without waiting.
   */
  long ChangePorts(const std::vector<ServerEndpoint>& endpoints);
  long ChangePorts(uint16_t port, bool tls);

  /** @brief Shuts the server's pool down (which stops the server) and forgets it. */
  long Shutdown();

  /** @brief True for the two components that serve browsers: "KroMaster" and "KroAgent". */
  bool IsMasterOrAgent() const;

  /**
   * @brief Rebuilds the listening-ports string ("4800s,4801"): a port listed again later is
   * kept only at its last position; TLS on port 0 adds no "s". 0x80000114 when empty.
   */
  long BuildListeningPorts(const std::vector<ServerEndpoint>& endpoints);

  /** @brief The name of the CA file that closes the TLS port to callers it did not certify. */
  static constexpr const wchar_t* kManagerCaFile = L"manager_ca.pem";
  /** @brief Host executable's folder + `fileName`; empty `fileName` leaves no path. */
  long SetCertificatePath(const std::wstring& fileName);

  /** @brief Loads the certificate when a port speaks TLS, then binds. On the server thread. */
  long StartListening();
  /**
   * @brief With "manager_ca.pem" beside the host, TLS callers must present a certificate that
   * chains to it; without it, any caller may connect.
   */
  void ApplyManagerCa(hlp::SSLContext& tls) const;

  /** @brief Entries of the server thread (context: the server). */
  static long ServerThreadInit(void* context);
  static long PollRoutine(void* context);
  static long ServerThreadCleanup(void* context);

  /** @brief Puts "checkHeartBeat", "Authentication" and the two relay routines in the map. */
  long RegisterRoutines(KroAgent::RoutineTable* routines);

  /** @brief Queues a record for the upper tier; 12 while no handler runs. */
  long PutUpstream(const std::vector<char>& record);

  /** @brief Whether browsers on other machines may use the UI of an end node. */
  void SetRemoteUI(bool allowed) { remoteUI_.store(allowed); }
  bool RemoteUIAllowed() const { return remoteUI_.load(); }

  /** @brief The logger each thread of the server installs; null leaves threads' loggers. */
  void SetLogger(logging_support::logger_type* logger) { logger_ = logger; }
  logging_support::logger_type* Logger() const { return logger_; }
  /** @brief Installs the server's logger on the calling thread, if there is one. */
  void InstallLogger() const;

  const char* ThreadName() const { return threadName_; }
  const char* PoolName() const { return poolName_; }
  const std::string& ComponentName() const { return componentName_; }
  /** @brief A copy: the port change may rewrite it at any time. */
  std::string ListeningPorts() const;
  bool HasTlsPort() const;
  const std::wstring& CertificatePath() const { return certificatePath_; }
  uint32_t SessionOption() const { return sessionOption_; }
  KroAgent::RoutineTable* Routines() const { return routines_; }
  /** @brief The result of the last StartListening. */
  long StartResult() const { return startResult_; }

 protected:
  /** @brief Where the certificate path starts: the host executable's path. */
  virtual long HostExecutablePath(std::wstring& out) const;

 private:
  long StartServerThread();
  void MarkStarted();
  long RunPollLoop();
  void EndPollLoop();

  std::unique_ptr<ServerRequestHandler> handler_;
  // Relay routines reach the handler from any thread; the cleanup destroys it under this.
  mutable std::shared_mutex handlerLock_;
  long startResult_ = 0;
  uint32_t sessionOption_ = 0;
  std::wstring certificatePath_;
  std::string componentName_;
  std::string listeningPorts_;
  bool hasTlsPort_ = false;
  std::atomic<bool> remoteUI_{false};
  KroAgent::RoutineTable* routines_ = nullptr;
  logging_support::logger_type* logger_ = nullptr;

  // The port change: guards listeningPorts_, hasTlsPort_ and the flags below.
  mutable std::mutex lock_;
  std::condition_variable restarted_;
  uint8_t restartPending_ = 0;
  // Set when the poll loop returns (a failed restart, a stop); cleared by Start.
  bool pollLoopEnded_ = false;
  // Set once the server thread's start is over, whatever its outcome.
  std::condition_variable started_;
  bool startOver_ = true;

  char poolName_[256] = {};
  char threadName_[256] = {};
  bool winsockReady_ = false;
  bool poolCreated_ = false;
};

}  // namespace kro
