#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "agent/AlertAgentCallbacks.h"
#include "agent/IKroAgent.h"
#include "alerts/DataSchema.h"
#include "core/InstallLayout.h"
#include "core/RoutineTable.h"
#include "dialhome/DialHomeInfo.h"
#include "dialhome/EndNodeDialHome.h"
#include "dialhome/EndNodeModifyPort.h"
#include "dialhome/SystemInventory.h"
#include "server/KroServer.h"

namespace kro {
class KroAgentConfiguration;
}

namespace KroAlerts {
class AlertsManager;
}

#if defined(_WIN32)
#define KRO_AGENT_API __declspec(dllexport)
#else
#define KRO_AGENT_API __attribute__((visibility("default")))
#endif

namespace KroAgent {

/** @brief Registry key of the agent's own values ("AgentPort", "AgentSSL", "AgentUIPort"). */
inline constexpr const wchar_t* kArbaloKey = L"SOFTWARE\\Norvane Technologies\\Arbalo";
// The installation values ("InstallDir", "ProductVersion"), named with the whole layout.
using kro::kSetupKey;

inline constexpr const char* kMainPool = "AgentMainPool";
inline constexpr const char* kMainThread = "AgentMainThread";
inline constexpr const char* kMainWorkItem = "WorkItemAgentMain";
inline constexpr const char* kDialHomePool = "DialHomePool";
inline constexpr const char* kDialHomeThread = "DialHomeMainThread";
inline constexpr const char* kAlertsRetrieveWorkItem = "WorkItemAlertsRetrieve";
inline constexpr const char* kAlertsCleanupWorkItem = "WorkItemAlertsCleanup";

/** @brief The browser UI's routine prefix. */
inline constexpr const char* kUIRequestPrefix = "/Arbalo/Requests/";

/** @brief UI port when the registry names none. */
inline constexpr uint16_t kDefaultUIPort = 13569;

/**
 * @brief The agent: its start-up and shut-down, its main thread and work items, the routine
 * map, the dial-home settings and the system information the host can query.
 */
class KRO_AGENT_API KroAgent : public IKroAgent {
 public:
  KroAgent();
  ~KroAgent() override;
  KroAgent(const KroAgent&) = delete;
  KroAgent& operator=(const KroAgent&) = delete;

  long Init() override;
  long Start() override;
  long Exit() override;
  long RegisterHandler(const char* name, std::function<RoutineFn> routine) override;
  void* AllocateResponse(size_t size) override;
  void ReleaseResponse(void* buffer) override;
  long GenerateAlert(const char* alertName, unsigned int code, const char* param1,
                     const char* param2) override;
  long UpdateAlert(const char* alertName, const char* schemaName, unsigned int code) override;
  long RemoveAlert(const char* alertName, const char* schemaName, unsigned int code) override;
  unsigned short GetAgentPort() override;
  bool GetAgentSSL() override;
  StartupMode GetStartupMode() override;
  unsigned int GetBAPhaseLen(BAPhaseType phase) override;
  SystemType GetSystemType() override;
  long UpdateDialHomeInfo(const wchar_t* filePath, const char* settingsText) override;
  void SetAgentRemoteUI(bool enabled) override;

  /** @brief Runs once on "AgentMainThread" as it starts. */
  long MainThreadInit(void* context);
  /** @brief "WorkItemAgentMain": applies a port change the management server asked for. */
  long MainThreadProcess(void* context);
  /** @brief Runs once on "AgentMainThread" as its pool shuts down. */
  long MainThreadCleanup(void* context);
  /** @brief "WorkItemAlertsRetrieve": hands alerts the management server lacks to dial-home. */
  long RetrieveAlerts(void* context);
  /** @brief "WorkItemAlertsCleanup": purges alerts older than "AlertsCleanupInterval" days. */
  long CleanupAlerts(void* context);

  /** @brief "GetRoleVer": the module's version text. */
  long SendRoleVer(const char* request, size_t requestLen, const char** response,
                   size_t* responseLen);

  /** @brief "/Arbalo/Requests/getAgentStatus.json": what the browser UI shows of the agent. */
  long GetAgentStatus(const char* request, size_t requestLen, const char** response,
                      size_t* responseLen);

  RoutineTable& Routines() { return routines_; }
  kro::KroServer& Server() { return server_; }
  /** @brief The port the management server asked for (0 until the port routine is set up). */
  uint32_t PendingPort() const { return pendingPort_.load(); }

 private:
  friend class KroAgentTests;

  long SetupUIRoutineList();
  long GetAgentUIPort(unsigned short& port);
  long AddMaintenanceTasks();
  /** @brief Queues the one-shot "request" report; the status of queueing it. */
  long QueueDialHomeRequest();
  long InitAlerting();
  /** @brief Looks a schema name up without regard to case; unknown names give 0 and false. */
  static bool GetAlertDataSchema(const char* name, KroAlerts::DataSchema& schema);

  kro::KroServer server_;
  kro::KroAgentConfiguration* agentConfig_ = nullptr;  // the process-wide settings, not owned
  kro::DialHomeInfo dialHomeInfo_;
  kro::DialHome dialHome_;
  std::atomic<uint32_t> pendingPort_{0};
  kro::EndNodeModifyPort modifyPort_{pendingPort_};
  RoutineTable routines_;
  std::mutex systemInfoLock_;
  kro::SystemInventory systemInfo_;
  std::atomic<uint16_t> uiPort_{0};  // as the main thread set the server up
  // The library keeps the callbacks until it is released; the object outlives every manager
  // and is not recreated, so a pointer the library holds never dangles.
  AlertAgentCallbacks alertCallbackObject_;
  AlertAgentCallbacks* alertCallbacks_ = nullptr;
  // Atomic: the host raises alerts on its threads while the main thread may release it.
  std::atomic<KroAlerts::AlertsManager*> alertsManager_{nullptr};
};

}  // namespace KroAgent
