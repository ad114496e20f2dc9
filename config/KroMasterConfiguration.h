#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "config/KroConfiguration.h"

namespace kro {

/**
 * @brief The management server's settings ("MasterConfig.cfg"): its log level and limits,
 * the ports and TLS flags of the server, the agents and the dial-home service, and the
 * heartbeat, clean-up, summary, job and session timings.
 *
 * The agent never creates one; the class is complete all the same, with the agent's contract.
 * Flags are written as 0/1 numbers but read back only from JSON booleans, so a saved file does
 * not carry them into the next load. "ReportsCleanupInterval" is read but never written.
 */
class KroMasterConfiguration : public KroConfiguration {
 public:
  static constexpr const char* kFileName = "MasterConfig.cfg";

  KroMasterConfiguration() = default;

  /** @brief Back to the values a fresh object holds. */
  void SetDefaults();

  long RegisterRoutines(KroAgent::RoutineTable& table) override;
  long ToJson(std::string& text) const override;
  long FromJson(const char* text) override;

  /** @brief Routine body: {"setting":N} with the "SSDCaching" value. */
  long GetCacheSetting(const char* request, size_t requestLen, const char** response,
                       size_t* responseLen) const;
  /** @brief Routine body: {"timeout":N} with the "UISessionTimeOutIntervalMins" value. */
  long GetBrowserTimeout(const char* request, size_t requestLen, const char** response,
                         size_t* responseLen) const;

  uint32_t LoggingLevel() const { return Locked(settings_.loggingLevel); }
  uint32_t MaxConnections() const { return Locked(settings_.maxConnections); }
  uint32_t ConnTimeout() const { return Locked(settings_.connTimeout); }
  uint32_t ConnRetryTimeout() const { return Locked(settings_.connRetryTimeout); }
  uint32_t ConnRetryInterval() const { return Locked(settings_.connRetryInterval); }
  uint16_t MasterServerPort() const { return Locked(settings_.masterServerPort); }
  bool MasterServerSSL() const { return Locked(settings_.masterServerSSL); }
  uint16_t DialHomePort() const { return Locked(settings_.dialHomePort); }
  bool DialHomeSSL() const { return Locked(settings_.dialHomeSSL); }
  uint16_t AgentPort() const { return Locked(settings_.agentPort); }
  bool AgentSSL() const { return Locked(settings_.agentSSL); }
  uint32_t HeartBeatInterval() const { return Locked(settings_.heartBeatInterval); }
  uint32_t AlertsCleanupInterval() const { return Locked(settings_.alertsCleanupInterval); }
  uint32_t ReportsCleanupInterval() const { return Locked(settings_.reportsCleanupInterval); }
  uint32_t SummaryCollectionRefresh() const { return Locked(settings_.summaryCollectionRefresh); }
  uint32_t SummaryCollectionUpdate() const { return Locked(settings_.summaryCollectionUpdate); }
  uint32_t SummaryCollectionTimeout() const { return Locked(settings_.summaryCollectionTimeout); }
  uint32_t MasterJobTimeoutMs() const { return Locked(settings_.masterJobTimeoutMs); }
  uint32_t BaseJobTimeoutMs() const { return Locked(settings_.baseJobTimeoutMs); }
  uint32_t SubJobTimeoutMs() const { return Locked(settings_.subJobTimeoutMs); }
  uint32_t JobsCleanupInterval() const { return Locked(settings_.jobsCleanupInterval); }
  uint32_t UISessionTimeOutIntervalMins() const {
    return Locked(settings_.uiSessionTimeOutIntervalMins);
  }
  uint16_t SSDCaching() const { return Locked(settings_.ssdCaching); }

 private:
  /** @brief Answers {"name":value} in a new response buffer. */
  static long AnswerOneNumber(std::string_view name, uint64_t value, const char** response,
                              size_t* responseLen);

  /**
   * @brief The settings in declaration order. Whoever runs the management server sets its
   * real values; until then the fields shared with the agent hold the agent's defaults and the
   * rest are zero or off.
   */
  struct Settings {
    uint32_t loggingLevel = 4;
    uint32_t maxConnections = 10;
    uint32_t connTimeout = 30;
    uint32_t connRetryTimeout = 60;
    uint32_t connRetryInterval = 10;
    uint16_t masterServerPort = 0;
    bool masterServerSSL = false;
    uint16_t dialHomePort = 0;
    bool dialHomeSSL = false;
    uint16_t agentPort = 13568;
    bool agentSSL = true;
    uint32_t heartBeatInterval = 0;
    uint32_t alertsCleanupInterval = 30;
    uint32_t reportsCleanupInterval = 0;
    uint32_t summaryCollectionRefresh = 0;
    uint32_t summaryCollectionUpdate = 0;
    uint32_t summaryCollectionTimeout = 0;
    uint32_t masterJobTimeoutMs = 0;
    uint32_t baseJobTimeoutMs = 0;
    uint32_t subJobTimeoutMs = 0;
    uint32_t jobsCleanupInterval = 0;
    uint32_t uiSessionTimeOutIntervalMins = 0;
    uint16_t ssdCaching = 0;
  };

  Settings settings_;
};

}  // namespace kro
