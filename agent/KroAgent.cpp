#include "agent/KroAgent.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <sstream>
#include <vector>

#include "agent/InstalledProducts.h"
#include "agent/KroVersion.h"
#include "agent/ModuleImage.h"
#include "agent/ModuleState.h"
#include "alerts/Alert.h"
#include "alerts/AlertsManager.h"
#include "common/WinHelper.h"
#include "config/KroAgentConfiguration.h"
#include "config/KroConfigurationManager.h"
#include "core/KroStatus.h"
#include "core/StringCompare.h"
#include "hlp/ComHelper.h"
#include "hlp/Json.h"
#include "logging_support/logging_support.h"
#include "nvthreads/nvthreads.h"

namespace KroAgent {
namespace {

namespace status = kro::status;

long MainThreadInitEntry(void* context) {
  return static_cast<KroAgent*>(context)->MainThreadInit(context);
}

long MainThreadCleanupEntry(void* context) {
  return static_cast<KroAgent*>(context)->MainThreadCleanup(context);
}

long MainThreadProcessEntry(void* context) {
  return static_cast<KroAgent*>(context)->MainThreadProcess(context);
}

long RetrieveAlertsEntry(void* context) {
  return static_cast<KroAgent*>(context)->RetrieveAlerts(context);
}

long CleanupAlertsEntry(void* context) {
  return static_cast<KroAgent*>(context)->CleanupAlerts(context);
}

// Schema names as products pass them, searched in this order.
struct SchemaName {
  const char* name;
  KroAlerts::DataSchema schema;
};
constexpr SchemaName kSchemaNames[] = {
    {"SYSTEM", KroAlerts::SYSTEM},         {"JOB", KroAlerts::JOB},
    {"NET_DOMAIN", KroAlerts::NET_DOMAIN}, {"UPDATE", KroAlerts::UPDATE},
    {"BIOS_GUID", KroAlerts::BIOS_GUID},
};

// Every alert the agent raises names the system as its first parameter.
KroAlerts::Alert MakeAlert(const char* alertName, unsigned int code) {
  KroAlerts::Alert alert(alertName, code, 0, true);
  alert.addParameter("system");
  return alert;
}

// Dial-home work items, cancelled by name when the agent moves to another port.
constexpr const char* kDialHomeItems[] = {"retry", "request", "periodic", "startup"};

}  // namespace

KroAgent::KroAgent() = default;

// Threads are not stopped here: the host calls Exit first. A manager is still held only when
// the main thread never ran (Init without Start); nothing else can reach it by now.
KroAgent::~KroAgent() {
  if (KroAlerts::AlertsManager* manager = alertsManager_.exchange(nullptr)) {
    KroAlerts::AlertsManager* expected = manager;
    Module().alertsManager.compare_exchange_strong(expected, nullptr);
    KroAlerts::AlertsManager::cleanup(manager);
  }
}

long KroAgent::Init() {
  try {
    agentConfig_ = kro::KroConfigurationManager::Instance().GetAgentConfiguration();
    if (agentConfig_ == nullptr) {
      return status::OutOfMemory;
    }
    logging_support::change_severity_cutoff(agentConfig_->LoggingLevel());
    logging_support::set_logger_for_thread(Module().logger);

    if (const long st = InitAlerting(); st != status::Ok) {
      return st;
    }

    dialHomeInfo_.Reset();
    if (const long st = kro::ReadDialHomeInfo(dialHomeInfo_); st != status::Ok) {
      KRO_LOG_ERROR << "Error fetching dial-home info";
      return st;
    }
    {
      std::lock_guard<std::mutex> guard(systemInfoLock_);
      long st = systemInfo_.ResetInventory();
      if (st == status::Ok) {
        st = systemInfo_.GatherSystemInfo();
        if (st >= 0) {
          systemInfo_.flags |= kro::SystemInventory::kSystem;
        }
      }
      if (st != status::Ok) {
        KRO_LOG_ERROR << "Error fetching dial-home data";
        return st;
      }
    }

    if (const uint32_t st = nvthreads_init(); st != NVTHREADS_OK) {
      KRO_LOG_ERROR << "Error initializing NVThreads library";
      return status::Code(st);
    }
    if (const uint32_t st = nvthreads_pool_init(kMainPool); st != NVTHREADS_OK) {
      KRO_LOG_ERROR << "Error initializing pool [" << kMainPool << "]";
      return status::Code(st);
    }
    Module().currentProductId = 1;

    RegisterHandler("GetRoleVer", [this](const char* request, size_t requestLen,
                                         const char** response, size_t* responseLen) {
      return SendRoleVer(request, requestLen, response, responseLen);
    });
    SetupUIRoutineList();
    // The management server reads the agent's settings through the same map.
    agentConfig_->RegisterRoutines(routines_);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long KroAgent::Start() {
  long result = status::Ok;
  uint32_t st = nvthreads_thread_create(kMainPool, kMainThread, MainThreadInitEntry,
                                        MainThreadCleanupEntry, 0, this);
  if (st != NVTHREADS_OK) {
    KRO_LOG_ERROR << "Error creating thread [" << kMainThread << "] Status " << st;
    result = status::Code(st);
  } else {
    // First run after 15 s, so that the server and the dial-home client are up by then.
    st = nvthreads_workitem_add(kMainPool, kMainThread, kMainWorkItem, 1, 15000, 60000, nullptr,
                                nullptr, MainThreadProcessEntry, this);
    if (st != NVTHREADS_OK) {
      KRO_LOG_ERROR << "Error adding workitem [" << kMainWorkItem << "] Status " << st;
      result = status::Code(st);
    } else {
      result = AddMaintenanceTasks();
    }
  }
  KRO_LOG_INFO << "Created " << kMainThread << " & " << kMainWorkItem << " Status " << result;
  return result;
}

long KroAgent::InitAlerting() {
  try {
    // A second Init replaces the manager; the old one would otherwise be lost with its store.
    if (KroAlerts::AlertsManager* previous = alertsManager_.exchange(nullptr)) {
      KroAlerts::AlertsManager::cleanup(previous);
    }
    alertCallbacks_ = nullptr;

    std::wstring install;
    kro::ReadRegistryString(install, kro::kSetupKey, kro::kInstallDirValue);
    std::string folder;
    kro::WideToUtf8(install + kro::kDataFolder + kro::kPathSeparator, folder);

    alertCallbacks_ = &alertCallbackObject_;
    // The manager copies the folder; the list lives only for this call.
    const char* alertsSettings[] = {folder.c_str(), nullptr};
    KroAlerts::AlertsManager* manager = KroAlerts::AlertsManager::initialize(
        alertCallbacks_, alertsSettings, routines_.UnguardedMap());
    if (manager == nullptr) {
      KRO_LOG_ERROR << "Error initializing alerting";
      return status::OutOfMemory;
    }
    alertsManager_.store(manager);
    manager->start(0);
    Module().alertsManager.store(manager);
    return status::Ok;
  } catch (...) {
    KRO_LOG_ERROR << "Error initializing alerting";
    return status::OutOfMemory;
  }
}

long KroAgent::AddMaintenanceTasks() {
  // Retrieve once, 5 minutes after start: by then the first report has gone (or failed), and
  // alerts raised before a restart join the next one.
  uint32_t st = nvthreads_workitem_add(kMainPool, kMainThread, kAlertsRetrieveWorkItem, 1, 300000,
                                       0, nullptr, nullptr, RetrieveAlertsEntry, this);
  if (st != NVTHREADS_OK) {
    KRO_LOG_ERROR << "Error adding workitem [" << kAlertsRetrieveWorkItem << "] Status " << st;
    return status::Code(st);
  }
  // Purge 2 hours after start, then daily.
  st = nvthreads_workitem_add(kMainPool, kMainThread, kAlertsCleanupWorkItem, 1, 7200000, 86400000,
                              nullptr, nullptr, CleanupAlertsEntry, this);
  if (st != NVTHREADS_OK) {
    KRO_LOG_ERROR << "Error adding workitem [" << kAlertsCleanupWorkItem << "] Status " << st;
    return status::Code(st);
  }
  KRO_LOG_INFO << "Add Maintenance Tasks Status " << 0;
  return status::Ok;
}

long KroAgent::RetrieveAlerts(void* /*context*/) {
  try {
    if (KroAlerts::AlertsManager* manager = alertsManager_.load()) {
      manager->retrieveAlerts("{\"getAll\":false}", 0, 0, 0);
    }
  } catch (...) {
    // The library does not throw; a failed retrieve is retried by no one and harms no one.
  }
  return status::Ok;
}

long KroAgent::CleanupAlerts(void* /*context*/) {
  try {
    KroAlerts::AlertsManager* manager = alertsManager_.load();
    if (manager != nullptr && agentConfig_ != nullptr) {
      // Read at every run: a changed interval applies to the next purge without a restart.
      manager->purgeAlerts(static_cast<int64_t>(agentConfig_->AlertsCleanupInterval()), 0);
    }
  } catch (...) {
  }
  return status::Ok;
}

long KroAgent::Exit() {
  // Ending the main thread runs MainThreadCleanup, which stops the pools the agent started.
  nvthreads_pool_shutdown(kMainPool);
  nvthreads_pool_cleanup(kMainPool);
  nvthreads_cleanup();
  return status::Ok;
}

long KroAgent::MainThreadInit(void* /*context*/) {
  try {
    hlp::ComHelper::ThreadInit();
    logging_support::set_logger_for_thread(Module().logger);

    // A stale cache entry would keep the management server's old address until it expires.
    kro::FlushDnsCache();

    const uint16_t agentPort = dialHomeInfo_.agentPort;
    const bool agentSSL = dialHomeInfo_.agentSSL;
    unsigned short uiPort = 0;
    GetAgentUIPort(uiPort);

    kro::WriteRegistryDword(agentPort, kArbaloKey, L"AgentPort");
    kro::WriteRegistryDword(agentSSL ? 1 : 0, kArbaloKey, L"AgentSSL");

    // The registration clears the pending port; from then on it holds the current port until
    // the management server asks for another one.
    modifyPort_.Register(routines_);
    pendingPort_.store(agentPort);

    dialHome_.SetLogger(&Module().logger);
    if (const long st = dialHome_.Create(); st != status::Ok) {
      KRO_LOG_ERROR << "Error creating the dial-home client, status " << st;
    }
    // A report the server confirmed tells the store which alerts it now has. The dial-home
    // pool stops before the manager is released, so the manager outlives every call.
    dialHome_.SetAlertDelivered([this](const std::string& alertId) {
      if (KroAlerts::AlertsManager* manager = alertsManager_.load()) {
        manager->markAlertAsSent(alertId);
      }
    });
    // Alerts raised from here on reach the client, even before its first report is scheduled.
    if (alertCallbacks_ != nullptr) {
      alertCallbacks_->SetDialHome(&dialHome_);
    }

    // The agent port speaks TLS as the settings say; the UI port is for browsers on this
    // machine and speaks plain HTTP. Session option 0 keeps the UI local-only.
    const std::vector<kro::ServerEndpoint> endpoints = {{agentPort, agentSSL}, {uiPort, false}};
    server_.SetLogger(&Module().logger);
    if (const long st = server_.Init(endpoints, &routines_, L"ssl_cert.pem", "KroAgent", 0);
        st != status::Ok) {
      KRO_LOG_ERROR << "Error setting up the server, status " << st;
    }
    uiPort_.store(uiPort);
    server_.Start();

    // The first report goes 30 s after this, the periodic ones follow the configured interval.
    dialHome_.Start(dialHomeInfo_);

    KRO_LOG_INFO << "Agent port " << agentPort << (agentSSL ? " (TLS)" : "") << ", UI port "
                 << uiPort;
    KRO_LOG_INFO << "Inited KRO Agent Main Thread Status " << 0;
    // Start-up is over once the server listens (its TLS set-up is the largest part): what
    // start-up alone ran need not stay mapped for the life of the agent.
    server_.WaitForStart(std::chrono::seconds(5));
    ::KroAgent::ReleaseStartupPages();
  } catch (...) {
    KRO_LOG_ERROR << "Main thread set-up failed";
  }
  return status::Ok;
}

long KroAgent::MainThreadProcess(void* /*context*/) {
  try {
    uint32_t pending = pendingPort_.load();
    // The exchange with itself makes this read a full barrier, like the routine's write.
    pendingPort_.compare_exchange_strong(pending, pending);
    const uint16_t newPort = static_cast<uint16_t>(pending & 0xFFFF);
    if (newPort == dialHomeInfo_.agentPort) {
      return status::Ok;
    }

    kro::WriteRegistryDword(newPort, kArbaloKey, L"AgentPort");
    for (const char* item : kDialHomeItems) {
      nvthreads_workitem_cancel(kDialHomePool, kDialHomeThread, item);
    }
    // Blocks until the server thread has rebound; the UI port is not carried over.
    if (const long st = server_.ChangePorts(newPort, dialHomeInfo_.agentSSL); st != status::Ok) {
      KRO_LOG_ERROR << "Error moving the server to port " << newPort << ", status " << st;
    }
    dialHomeInfo_.flags |= kro::DialHomeInfo::kAgent;
    dialHomeInfo_.agentPort = newPort;
    if (const long st = kro::SaveDialHomeInfo(dialHomeInfo_); st != status::Ok) {
      KRO_LOG_ERROR << "Error saving dial-home info, status " << st;
    }
    dialHome_.Start(dialHomeInfo_);
    KRO_LOG_INFO << "Agent port changed to " << newPort;
  } catch (...) {
    KRO_LOG_ERROR << "Port change failed";
  }
  return status::Ok;
}

long KroAgent::MainThreadCleanup(void* /*context*/) {
  try {
    KRO_LOG_INFO << "Cleanup of KRO Agent Main Thread";
    nvthreads_pool_shutdown(kDialHomePool);
    nvthreads_pool_cleanup(kDialHomePool);
    server_.Shutdown();
    if (alertCallbacks_ != nullptr) {
      alertCallbacks_->SetDialHome(nullptr);
    }
    if (KroAlerts::AlertsManager* manager = alertsManager_.exchange(nullptr)) {
      KroAlerts::AlertsManager* expected = manager;
      Module().alertsManager.compare_exchange_strong(expected, nullptr);
      KroAlerts::AlertsManager::cleanup(manager);
    }
    alertCallbacks_ = nullptr;
    hlp::ComHelper::ThreadDeinit();
  } catch (...) {
    KRO_LOG_ERROR << "Main thread clean-up failed";
  }
  return status::Ok;
}

long KroAgent::RegisterHandler(const char* name, std::function<RoutineFn> routine) {
  return routines_.Register(name, std::move(routine));
}

void* KroAgent::AllocateResponse(size_t size) {
  return new (std::nothrow) char[size];
}

void KroAgent::ReleaseResponse(void* buffer) {
  delete[] static_cast<char*>(buffer);
}

long KroAgent::GenerateAlert(const char* alertName, unsigned int code, const char* param1,
                             const char* param2) {
  try {
    KroAlerts::AlertsManager* manager = alertsManager_.load();
    if (manager == nullptr) {
      return status::NotAvailable;  // before Init or after the main thread released alerting
    }
    KroAlerts::Alert alert = MakeAlert(alertName, code);
    alert.addParameter(param1);  // null parameters are skipped
    alert.addParameter(param2);
    manager->addAlert(alert);
    return QueueDialHomeRequest();
  } catch (...) {
    return status::OutOfMemory;
  }
}

long KroAgent::UpdateAlert(const char* alertName, const char* schemaName, unsigned int code) {
  try {
    KroAlerts::AlertsManager* manager = alertsManager_.load();
    if (manager == nullptr) {
      return status::NotAvailable;
    }
    KroAlerts::DataSchema schema = KroAlerts::UNKNOWN;
    GetAlertDataSchema(schemaName, schema);
    manager->updateAlert(MakeAlert(alertName, code), schema);
    return QueueDialHomeRequest();
  } catch (...) {
    return status::OutOfMemory;
  }
}

long KroAgent::RemoveAlert(const char* alertName, const char* schemaName, unsigned int code) {
  try {
    KroAlerts::AlertsManager* manager = alertsManager_.load();
    if (manager == nullptr) {
      return status::Ok;
    }
    KroAlerts::DataSchema schema = KroAlerts::UNKNOWN;
    GetAlertDataSchema(schemaName, schema);
    // Products store codes as signed numbers; the text is what the store matches.
    char codeText[12] = {};
    std::snprintf(codeText, sizeof(codeText), "%d", static_cast<int>(code));
    char typeText[100] = {};
    MakeAlert(alertName, code).getType(typeText, sizeof(typeText));
    manager->removeAlerts(typeText, schema, codeText);
  } catch (...) {
    // Removal reports nothing to the caller.
  }
  return status::Ok;
}

bool KroAgent::GetAlertDataSchema(const char* name, KroAlerts::DataSchema& schema) {
  if (name != nullptr) {
    for (const SchemaName& entry : kSchemaNames) {
      if (kro::EqualsIgnoringCase(name, entry.name)) {
        schema = entry.schema;
        return true;
      }
    }
  }
  schema = KroAlerts::UNKNOWN;
  return false;
}

long KroAgent::QueueDialHomeRequest() {
  // At once, on the dial-home thread: the alert should not wait for the periodic report. A
  // request still waiting to start takes this alert along instead.
  return dialHome_.RequestDialHome();
}

unsigned short KroAgent::GetAgentPort() {
  return dialHomeInfo_.agentPort;
}

bool KroAgent::GetAgentSSL() {
  return dialHomeInfo_.agentSSL;
}

StartupMode KroAgent::GetStartupMode() {
  return dialHomeInfo_.startupMode;
}

unsigned int KroAgent::GetBAPhaseLen(BAPhaseType phase) {
  const auto index = static_cast<uint32_t>(phase);
  return index > 3 ? 0 : dialHomeInfo_.baPhase[index];
}

SystemType KroAgent::GetSystemType() {
  std::lock_guard<std::mutex> guard(systemInfoLock_);
  return systemInfo_.systemType;
}

long KroAgent::UpdateDialHomeInfo(const wchar_t* filePath, const char* settingsText) {
  try {
    if (filePath == nullptr || settingsText == nullptr) {
      return status::NotAvailable;
    }
    if (const long st = kro::ParseDialHomeInfoJson(dialHomeInfo_, settingsText); st < 0) {
      return st;
    }
    // Settings whose management server cannot be reached are refused, not written.
    if (const long st = dialHome_.TestConnection(dialHomeInfo_); st < 0) {
      return st;
    }
    // Only settings that name their management server are worth keeping on disk.
    if ((dialHomeInfo_.flags & kro::DialHomeInfo::kHomeName) == 0) {
      return status::NotAvailable;
    }
    if (const long st = kro::WriteDialHomeInfoFile(filePath, dialHomeInfo_); st < 0) {
      return st;
    }
    return QueueDialHomeRequest();
  } catch (...) {
    return status::Failure;
  }
}

void KroAgent::SetAgentRemoteUI(bool enabled) {
  server_.SetRemoteUI(enabled);
}

long KroAgent::SendRoleVer(const char* /*request*/, size_t /*requestLen*/, const char** response,
                           size_t* responseLen) {
  return HandOverAnswer(kVersionText, response, responseLen);
}

long KroAgent::SetupUIRoutineList() {
  // Further UI routines join this list the same way.
  const std::string name = std::string(kUIRequestPrefix) + "getInstalledProducts.json";
  RegisterHandler(name.c_str(), [](const char* request, size_t requestLen, const char** response,
                                   size_t* responseLen) {
    return GetInstalledProductsBrowser(request, requestLen, response, responseLen);
  });
  const std::string status = std::string(kUIRequestPrefix) + "getAgentStatus.json";
  RegisterHandler(status.c_str(), [this](const char* request, size_t requestLen,
                                         const char** response, size_t* responseLen) {
    return GetAgentStatus(request, requestLen, response, responseLen);
  });
  return status::Ok;
}

long KroAgent::GetAgentStatus(const char* /*request*/, size_t /*requestLen*/, const char** response,
                              size_t* responseLen) {
  if (response == nullptr || responseLen == nullptr) {
    return status::NotAvailable;
  }
  try {
    std::wstring heartbeat;
    kro::ReadRegistryString(heartbeat, L"", L"LastHeartBeatTime");
    std::string lastHeartBeat;
    kro::WideToUtf8(heartbeat, lastHeartBeat);
    std::string systemName;
    {
      std::lock_guard<std::mutex> guard(systemInfoLock_);
      systemName = systemInfo_.systemName;
    }

    std::ostringstream text;
    hlp::JsonWriter writer(text);
    writer.Object();
    writer.Name("version");
    writer.String(kVersionText);
    writer.Name("agentPort");
    writer.Uint(dialHomeInfo_.agentPort);
    writer.Name("agentSSL");
    writer.Bool(dialHomeInfo_.agentSSL);
    writer.Name("uiPort");
    writer.Uint(uiPort_.load());
    writer.Name("listeningPorts");
    writer.String(server_.ListeningPorts());
    writer.Name("serverRunning");
    writer.Bool(server_.GetState() == kro::kServerRunning);
    writer.Name("lastHeartBeat");
    writer.String(lastHeartBeat);
    writer.Name("systemName");
    writer.String(systemName);
    writer.EndObject();
    if (!writer.IsGood()) {
      return status::MalformedData;
    }

    return HandOverAnswer(text.str(), response, responseLen);
  } catch (...) {
    return status::OutOfMemory;
  }
}

long KroAgent::GetAgentUIPort(unsigned short& port) {
  int64_t value = 0;
  kro::ReadRegistryNumber(value, kArbaloKey, L"AgentUIPort");
  port = value < 1 ? kDefaultUIPort : static_cast<unsigned short>(value & 0xFFFF);
  return status::Ok;
}

}  // namespace KroAgent
