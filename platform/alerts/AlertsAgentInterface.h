#pragma once

#include <cstddef>

namespace KroAlerts {

/**
 * @brief What the alerts library needs from the agent that hosts it.
 *
 * The agent derives from this class and hands an instance to AlertsManager::initialize; the
 * object must outlive the manager. The three operations below are the whole virtual table and
 * the agent implements them by position, so their order is a contract.
 */
class AlertsAgentInterface {
 public:
  AlertsAgentInterface() = default;

  /** @brief Takes one alert's JSON payload on its way to the management server. */
  virtual void SendAlertData(const char* payload) = 0;
  /** @brief Writes the agent's data folder (UTF-8, zero-terminated); 0 on success. */
  virtual int GetAgentFolder(char* buffer, size_t bufferSize) = 0;
  /** @brief Writes the name the machine is known by (UTF-8, zero-terminated); 0 on success. */
  virtual int GetSystemName(char* buffer, unsigned int bufferSize) = 0;

 protected:
  // Not virtual: a virtual destructor would add slots the agent does not expect, and the
  // library never deletes the agent's object.
  ~AlertsAgentInterface() = default;
  AlertsAgentInterface(const AlertsAgentInterface&) = default;
  AlertsAgentInterface& operator=(const AlertsAgentInterface&) = default;
};

}  // namespace KroAlerts
