#pragma once

#include <functional>

#include "core/KroAgentTypes.h"

#if defined(_WIN32)
#define KRO_INTERFACE
#else
#define KRO_INTERFACE __attribute__((visibility("default")))
#endif

/**
 * @brief The agent as its host sees it. The order of the virtual operations is part of the
 * contract with hosts built separately: append, never reorder.
 */
class KRO_INTERFACE IKroAgent {
 public:
  IKroAgent() = default;
  IKroAgent(const IKroAgent&) = default;
  IKroAgent& operator=(const IKroAgent&) = default;
  virtual ~IKroAgent() = default;

  virtual long Init() = 0;
  virtual long Start() = 0;
  virtual long Exit() = 0;
  /** @brief Adds a named routine; the first registration of a name wins. */
  virtual long RegisterHandler(const char* name, std::function<RoutineFn> routine) = 0;
  /** @brief A response buffer for a routine living in another module (same heap as release). */
  virtual void* AllocateResponse(size_t size) = 0;
  virtual void ReleaseResponse(void* buffer) = 0;
  virtual long GenerateAlert(const char* alertName, unsigned int code, const char* param1,
                             const char* param2) = 0;
  virtual long UpdateAlert(const char* alertName, const char* schemaName, unsigned int code) = 0;
  virtual long RemoveAlert(const char* alertName, const char* schemaName, unsigned int code) = 0;
  virtual unsigned short GetAgentPort() = 0;
  virtual bool GetAgentSSL() = 0;
  virtual KroAgent::StartupMode GetStartupMode() = 0;
  virtual unsigned int GetBAPhaseLen(KroAgent::BAPhaseType phase) = 0;
  virtual KroAgent::SystemType GetSystemType() = 0;
  virtual long UpdateDialHomeInfo(const wchar_t* filePath, const char* settingsText) = 0;
  virtual void SetAgentRemoteUI(bool enabled) = 0;
};

// The module's entry points, each exported under two names that lead to the same code.
extern "C" {
typedef long (*InitKroAgentFn)(void);
typedef IKroAgent* (*GetKroAgentFn)(void);
typedef void (*ReleaseKroAgentFn)(IKroAgent** agent);
typedef void (*DeInitKroAgentFn)(void);
/** @brief The module's version text ("7.0.222.0"). */
typedef const char* (*GetKroAgentVersionFn)(void);
}
