#include "server/KroServer.h"

#include <cstdio>
#include <exception>
#include <filesystem>

#include "common/FilePath.h"
#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "hlp/SSLContext.h"
#include "hlp/WinsockHelper.h"
#include "nvthreads/nvthreads.h"
#include "server/ServerRequestHandler.h"
#include "server/UpperTierRoutines.h"

namespace kro {
namespace {

constexpr const char* kPollWorkItem = "WorkItemServerPoll";

// The restart request is looked at once every 256 polls, so that the lock is not taken on
// every poll; a port change waits at most that many polls.
constexpr uint32_t kPollsPerRestartCheck = 0x100;

// How long an idle poll of the running server may sleep. Nothing but a port change or a stop
// needs the server thread while no connection arrives, and both shorten the wait first (which
// wakes the poll); this bound only limits how long a stop that did not is left unnoticed.
constexpr uint32_t kIdlePollWaitMs = 1000;

/** @brief The port list string and whether a port in it speaks TLS. */
long FormatListeningPorts(const std::vector<ServerEndpoint>& endpoints, std::string& ports,
                          bool& hasTls) {
  ports.clear();
  hasTls = false;
  for (size_t i = 0; i < endpoints.size(); ++i) {
    const auto [port, tls] = endpoints[i];
    bool listedLater = false;
    for (size_t j = i + 1; j < endpoints.size(); ++j) {
      listedLater = listedLater || endpoints[j].first == port;
    }
    if (listedLater) {
      continue;
    }
    ports += std::to_string(port);
    if (tls && port != 0) {
      ports += 's';
      hasTls = true;
    }
    if (i + 1 != endpoints.size()) {
      ports += ',';
    }
  }
  return ports.empty() ? status::NotAvailable : status::Ok;
}

std::string Hex(long st) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status::Bits(st)));
  return text;
}

}  // namespace

KroServer::KroServer() {
  winsockReady_ = hlp::WinsockHelper::Init() == 0;
}

KroServer::~KroServer() {
  // The agent shuts the pool down first; this only guards against a server left running.
  if (poolCreated_) {
    Shutdown();
  }
  handler_.reset();
  if (winsockReady_) {
    hlp::WinsockHelper::Deinit();
  }
}

long KroServer::Init(const std::vector<ServerEndpoint>& endpoints, KroAgent::RoutineTable* routines,
                     const std::wstring& certificateFile, const std::string& componentName,
                     uint32_t sessionOption) {
  try {
    SetState(kServerInitialised);
    sessionOption_ = sessionOption;
    // A certificate path that cannot be built costs the TLS port its certificate, not the
    // server: the plain ports still serve. Only the ports and the pool decide.
    if (const long st = SetCertificatePath(certificateFile); st != status::Ok) {
      KRO_LOG_ERROR << "KroServer::Init - no certificate path: " << Hex(st);
    }
    componentName_ = componentName;
    if (const long st = BuildListeningPorts(endpoints); st != status::Ok) {
      return st;
    }
    RegisterRoutines(routines);
    std::snprintf(poolName_, sizeof(poolName_), "%s%s", "ServerPool", componentName_.c_str());
    std::snprintf(threadName_, sizeof(threadName_), "%s%s", "ServerThread", componentName_.c_str());
    const uint32_t st = nvthreads_pool_init(poolName_);
    poolCreated_ = st == NVTHREADS_OK;
    return status::Code(st);
  } catch (...) {
    return status::Failure;
  }
}

long KroServer::Init(uint16_t port, bool tls, KroAgent::RoutineTable* routines,
                     const std::wstring& certificateFile, const std::string& componentName,
                     uint32_t sessionOption) {
  try {
    return Init(std::vector<ServerEndpoint>{{port, tls}}, routines, certificateFile, componentName,
                sessionOption);
  } catch (...) {
    return status::OutOfMemory;
  }
}

long KroServer::Start() {
  SetState(kServerInitialised);
  {
    std::lock_guard<std::mutex> guard(lock_);
    startOver_ = false;
    pollLoopEnded_ = false;
  }
  long st = status::Code(nvthreads_thread_create(poolName_, threadName_, ServerThreadInit,
                                                 ServerThreadCleanup, 0, this));
  if (status::Failed(st)) {
    // The work item below then fails too and reports it.
    KRO_LOG_ERROR << "KroServer::Start - Error creating a thread: " << Hex(st);
    MarkStarted();
  }
  st = status::Code(nvthreads_workitem_add(poolName_, threadName_, kPollWorkItem, 1, 1000, 0,
                                           nullptr, nullptr, PollRoutine, this));
  if (status::Failed(st)) {
    KRO_LOG_ERROR << "KroServer::Start - Error creating workitem: " << Hex(st);
    // No poll loop will run: a port change must not wait for one.
    EndPollLoop();
  }
  return st;
}

long KroServer::ChangePorts(const std::vector<ServerEndpoint>& endpoints) {
  try {
    std::unique_lock<std::mutex> guard(lock_);
    if (GetState() != kServerRunning) {
      return status::WinNotRunning;
    }
    if (const long st = FormatListeningPorts(endpoints, listeningPorts_, hasTlsPort_);
        st != status::Ok) {
      return st;
    }
    // A failed restart ended the poll loop (the state stays running): no one is left to
    // restart, and waiting would block the caller for good.
    if (pollLoopEnded_) {
      return status::Ok;
    }
    restartPending_ = 1;
    // The polls up to the restart check then run without waiting.
    SetIdleWait(0);
    restarted_.wait(guard, [this] { return restartPending_ == 0 || pollLoopEnded_; });
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

long KroServer::ChangePorts(uint16_t port, bool tls) {
  try {
    return ChangePorts(std::vector<ServerEndpoint>{{port, tls}});
  } catch (...) {
    return status::OutOfMemory;
  }
}

long KroServer::Shutdown() {
  // Back to short polls, so that the poll loop sees the stop request at once.
  SetIdleWait(hlp::kDefaultIdleWaitMs);
  nvthreads_pool_shutdown(poolName_);
  nvthreads_pool_cleanup(poolName_);
  poolCreated_ = false;
  return status::Ok;
}

bool KroServer::IsMasterOrAgent() const {
  return componentName_ == "KroMaster" || componentName_ == "KroAgent";
}

long KroServer::BuildListeningPorts(const std::vector<ServerEndpoint>& endpoints) {
  try {
    std::lock_guard<std::mutex> guard(lock_);
    return FormatListeningPorts(endpoints, listeningPorts_, hasTlsPort_);
  } catch (...) {
    return status::OutOfMemory;
  }
}

long KroServer::SetCertificatePath(const std::wstring& fileName) {
  try {
    certificatePath_.clear();
    if (fileName.empty()) {
      return status::Ok;
    }
    std::wstring executable;
    if (const long st = HostExecutablePath(executable); st != status::Ok) {
      return st;
    }
    const size_t folderEnd = executable.find_last_of(L"\\/");
    certificatePath_ =
        executable.substr(0, folderEnd == std::wstring::npos ? 0 : folderEnd + 1) + fileName;
    return certificatePath_.empty() ? status::EmptyCertificatePath : status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long KroServer::HostExecutablePath(std::wstring& out) const {
  return GetHostExecutablePath(out);
}

long KroServer::StartListening() {
  try {
    hlp::SSLContext* tls = hlp::SSLContext::SharedServerContext();
    std::string ports;
    bool hasTls = false;
    {
      std::lock_guard<std::mutex> guard(lock_);
      ports = listeningPorts_;
      hasTls = hasTlsPort_;
    }
    if (hasTls && !certificatePath_.empty()) {
      std::string file;
      if (const long st = WideToUtf8(certificatePath_, file); st != status::Ok) {
        return st;
      }
      if (const long st = tls->UseCertificate(file); st != status::Ok) {
        return st;
      }
    }
    if (hasTls) {
      ApplyManagerCa(*tls);
    }
    return hlp::HttpServer::Start(tls, ports, handler_.get());
  } catch (...) {
    return status::Failure;
  }
}

void KroServer::ApplyManagerCa(hlp::SSLContext& tls) const {
  std::wstring path;
  std::string file;
  std::error_code ec;
  if (HostExecutablePath(path) != status::Ok) {
    // Where the host is cannot be told, so neither can whether the file lies beside it.
    KRO_LOG_ERROR << "KroServer: no host folder to look for manager_ca.pem in";
    return;
  }
  path = path.substr(0, path.find_last_of(L"\\/") + 1) + kManagerCaFile;
  if (!std::filesystem::exists(ToFilePath(path), ec)) {
    tls.AdmitAnyClient();
    return;
  }
  if (WideToUtf8(path, file) != status::Ok) {
    file.clear();  // still demanded: a file meant to close the port never leaves it open
  }
  const long st = tls.RequireClientCertificates(file);
  if (st != status::Ok) {
    KRO_LOG_ERROR << "KroServer: " << file << " is unusable (" << Hex(st)
                  << "): the TLS port admits no caller until it is fixed";
    return;
  }
  KRO_LOG_INFO << "KroServer: the TLS port admits only callers certified by " << file;
}

long KroServer::ServerThreadInit(void* context) {
  auto* server = static_cast<KroServer*>(context);
  if (server == nullptr) {
    return status::WinInvalidParameter;
  }
  const long st = server->StartServerThread();
  server->MarkStarted();
  return st;
}

long KroServer::StartServerThread() {
  try {
    InstallLogger();
    {
      auto handler = std::make_unique<ServerRequestHandler>(this);
      std::unique_lock<std::shared_mutex> guard(handlerLock_);
      handler_ = std::move(handler);
    }
    if (GetState() == kServerInitialised) {
      startResult_ = StartListening();
    }
    KRO_LOG_TRACE << "Inited " << poolName_ << " " << threadName_;
    if (startResult_ != status::Ok) {
      KRO_LOG_ERROR << "KroServer::ServerThreadInit - Error: " << Hex(startResult_);
    }
    if (GetState() != kServerRunning) {
      return status::ServerNotStarted;
    }
    std::lock_guard<std::mutex> guard(lock_);
    SetIdleWait(kIdlePollWaitMs);
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

void KroServer::MarkStarted() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    startOver_ = true;
  }
  started_.notify_all();
}

bool KroServer::WaitForStart(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> guard(lock_);
  return started_.wait_for(guard, limit, [this] { return startOver_; });
}

long KroServer::PollRoutine(void* context) {
  auto* server = static_cast<KroServer*>(context);
  if (server == nullptr) {
    return status::Ok;
  }
  try {
    return server->RunPollLoop();
  } catch (...) {
    server->EndPollLoop();
    return status::Failure;
  }
}

long KroServer::RunPollLoop() {
  nvthreads_threadctx* thread = nvthreads_workitem_query_threadctx();
  uint32_t polls = 0;
  for (;;) {
    if (nvthreads_thread_query_stop(thread) != 0) {
      EndPollLoop();
      return status::Ok;
    }
    if (Poll() != status::Ok) {
      // Not listening (the start failed): pause as an idle poll would instead of spinning.
      nvthreads_thread_sleep(thread, 10);
    }
    if ((++polls % kPollsPerRestartCheck) != 0) {
      continue;
    }
    std::unique_lock<std::mutex> guard(lock_);
    if (restartPending_ == 0) {
      continue;
    }
    restartPending_ = 0;
    const long restarted = Restart(listeningPorts_);
    SetIdleWait(kIdlePollWaitMs);
    guard.unlock();
    restarted_.notify_all();
    if (restarted != status::Ok) {
      KRO_LOG_ERROR << "KroServer::PollRoutine - Restart failed: " << Hex(restarted);
      EndPollLoop();
      return status::Ok;
    }
  }
}

void KroServer::EndPollLoop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    pollLoopEnded_ = true;
    restartPending_ = 0;
  }
  restarted_.notify_all();
}

long KroServer::ServerThreadCleanup(void* context) {
  auto* server = static_cast<KroServer*>(context);
  if (server == nullptr) {
    return status::Ok;
  }
  try {
    server->InstallLogger();
    KRO_LOG_TRACE << "Cleanup " << server->poolName_ << " " << server->threadName_;
    if (server->GetState() == kServerRunning) {
      server->Stop();
    }
    server->SetState(kServerStopped);
    std::unique_lock<std::shared_mutex> guard(server->handlerLock_);
    server->handler_.reset();
  } catch (...) {
    server->SetState(kServerStopped);
  }
  server->EndPollLoop();
  return status::Ok;
}

long KroServer::RegisterRoutines(KroAgent::RoutineTable* routines) {
  routines_ = routines;
  if (routines == nullptr) {
    return status::WinInvalidParameter;
  }
  long result = routines->Replace(
      "checkHeartBeat",
      [this](const char* request, size_t length, const char** response, size_t* responseLength) {
        return CheckHeartBeat(*this, request, length, response, responseLength);
      });
  const long authentication = routines->Replace(
      "Authentication",
      [this](const char* request, size_t length, const char** response, size_t* responseLength) {
        return Authentication(*this, request, length, response, responseLength);
      });
  // The request is a C string here: callers' lengths are ignored.
  const long relay = routines->Replace(
      "AddResponseToSendUpperTier",
      [this](const char* request, size_t, const char** response, size_t* responseLength) {
        return AddResponseToSendUpperTier(*this, request, 0, response, responseLength);
      });
  const long jobRelay = routines->Replace(
      "AddJobResponseToSendUpperTier",
      [this](const char* request, size_t length, const char** response, size_t* responseLength) {
        return AddJobResponseToSendUpperTier(*this, request, length, response, responseLength);
      });
  for (const long st : {authentication, relay, jobRelay}) {
    result = result != status::Ok ? result : st;
  }
  return result;
}

long KroServer::PutUpstream(const std::vector<char>& record) {
  std::shared_lock<std::shared_mutex> guard(handlerLock_);
  if (handler_ == nullptr) {
    return status::WinNotRunning;
  }
  return handler_->PutUpstream(record);
}

void KroServer::InstallLogger() const {
  if (logger_ != nullptr) {
    logging_support::set_logger_for_thread(*logger_);
  }
}

std::string KroServer::ListeningPorts() const {
  std::lock_guard<std::mutex> guard(lock_);
  return listeningPorts_;
}

bool KroServer::HasTlsPort() const {
  std::lock_guard<std::mutex> guard(lock_);
  return hasTlsPort_;
}

}  // namespace kro
