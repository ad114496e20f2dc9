#pragma once

#include <atomic>
#include <cstddef>

#include "alerts/AlertsAgentInterface.h"

namespace kro {
class DialHome;
}

namespace KroAgent {

/**
 * @brief The agent's side of the alerts library: where the agent lives, what the machine is
 * called, and the way alert payloads reach the management server.
 *
 * The library calls these from its own threads; none of them throws.
 */
class AlertAgentCallbacks : public KroAlerts::AlertsAgentInterface {
 public:
  AlertAgentCallbacks() = default;
  AlertAgentCallbacks(const AlertAgentCallbacks&) = delete;
  AlertAgentCallbacks& operator=(const AlertAgentCallbacks&) = delete;

  /**
   * @brief Queues the payload for the next report. Does not start a report: the caller decides
   * when one is due. Dropped while no dial-home client is set; the alert stays unsent in the
   * library's store and travels after the next retrieve.
   */
  void SendAlertData(const char* payload) override;
  /** @brief Install folder + "Kesta" (no trailing separator), cut to fit. Always 0. */
  int GetAgentFolder(char* buffer, size_t bufferSize) override;
  /**
   * @brief The registry's "SystemName" under the dial-home key, or the DNS name when that
   * value is missing or not a string. -1 when the name is empty or cannot be had.
   */
  int GetSystemName(char* buffer, unsigned int bufferSize) override;

  /** @brief The dial-home client alerts go to; null stops forwarding. */
  void SetDialHome(kro::DialHome* dialHome) { dialHome_.store(dialHome); }

 private:
  // Set by the agent's main thread, read on the library's threads.
  std::atomic<kro::DialHome*> dialHome_{nullptr};
};

}  // namespace KroAgent
