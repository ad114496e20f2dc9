#pragma once

#include <cstdint>
#include <string>

#include "config/KroConfiguration.h"

namespace kro {

/**
 * @brief The agent's own tunables ("AgentConfig.cfg"): log level, connection limits, the
 * alerts clean-up interval and the dial-home schedule with its three retries.
 *
 * Registers "/KRO/Configure/getAgentConfigure" and "/KRO/Configure/saveAgentConfigure" (the
 * latter always refuses). Each getter takes the lock and copies its one field.
 */
class KroAgentConfiguration : public KroConfiguration {
 public:
  static constexpr const char* kFileName = "AgentConfig.cfg";

  KroAgentConfiguration() = default;

  /** @brief Back to the shipped values; the manager calls it before the file is loaded. */
  void SetDefaults();

  long RegisterRoutines(KroAgent::RoutineTable& table) override;
  long ToJson(std::string& text) const override;
  /** @brief Numbers only, unchecked, except that a "LoggingLevel" above 5 becomes 4. */
  long FromJson(const char* text) override;

  uint32_t LoggingLevel() const { return Locked(settings_.loggingLevel); }
  uint32_t MaxConnections() const { return Locked(settings_.maxConnections); }
  uint32_t ConnTimeout() const { return Locked(settings_.connTimeout); }
  uint32_t ConnRetryTimeout() const { return Locked(settings_.connRetryTimeout); }
  uint32_t ConnRetryInterval() const { return Locked(settings_.connRetryInterval); }
  uint32_t AlertsCleanupInterval() const { return Locked(settings_.alertsCleanupInterval); }
  /** @brief Minutes between periodic dial-homes. */
  uint32_t DialHomeInterval() const { return Locked(settings_.dialHomeInterval); }
  uint32_t DialHomeFirstRetry() const { return Locked(settings_.dialHomeFirstRetry); }
  uint32_t DialHomeSecondRetry() const { return Locked(settings_.dialHomeSecondRetry); }
  uint32_t DialHomeThirdRetry() const { return Locked(settings_.dialHomeThirdRetry); }

 private:
  /** @brief The settings with their shipped values, in the order of the file's members. */
  struct Settings {
    uint32_t loggingLevel = 4;  // the log library's error level
    uint32_t maxConnections = 10;
    uint32_t connTimeout = 30;
    uint32_t connRetryTimeout = 60;
    uint32_t connRetryInterval = 10;
    uint32_t alertsCleanupInterval = 30;
    uint32_t dialHomeInterval = 1440;  // one day
    uint32_t dialHomeFirstRetry = 15;
    uint32_t dialHomeSecondRetry = 60;
    uint32_t dialHomeThirdRetry = 240;
  };

  Settings settings_;
};

}  // namespace kro
