#pragma once

#include <mutex>
#include <string>

namespace kro {

class KroAgentConfiguration;
class KroMasterConfiguration;

/**
 * @brief The process-wide holder of the settings objects and of the folder their files live in.
 *
 * Created on first use and never destroyed, so the settings objects it hands out stay valid
 * for the life of the process (work items may still read them while the module unloads).
 */
class KroConfigurationManager {
 public:
  /** @brief The one manager; created on first call. */
  static KroConfigurationManager& Instance();

  KroConfigurationManager(const KroConfigurationManager&) = delete;
  KroConfigurationManager& operator=(const KroConfigurationManager&) = delete;

  /**
   * @brief The agent settings. The first call creates them, sets the defaults and loads
   * "AgentConfig.cfg" from the data directory (a missing or bad file leaves the defaults).
   * Null only when the object cannot be allocated.
   */
  KroAgentConfiguration* GetAgentConfiguration();

  /** @brief The master settings: always null in the agent, which never creates them. */
  KroMasterConfiguration* GetMasterConfiguration() const;

  /**
   * @brief Stores the folder of the settings files (UTF-8). The platform's separator is
   * appended unless the text is empty or already ends in "\\", "/" or ":".
   */
  void SetDataDirectory(const std::string& directory);
  std::string DataDirectory() const;

 private:
  KroConfigurationManager() = default;
  ~KroConfigurationManager() = default;

  // Serialises creation; Load takes the object's own lock inside it (manager first).
  mutable std::mutex lock_;
  KroMasterConfiguration* master_ = nullptr;
  KroAgentConfiguration* agent_ = nullptr;
  std::string dataDirectory_;
};

}  // namespace kro
