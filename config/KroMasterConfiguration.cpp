#include "config/KroMasterConfiguration.h"

#include <sstream>
#include <string_view>

#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "hlp/Json.h"

namespace kro {

long KroMasterConfiguration::AnswerOneNumber(std::string_view name, uint64_t value,
                                             const char** response, size_t* responseLen) {
  std::ostringstream out;
  hlp::JsonWriter writer(out);
  writer.Object();
  WriteNumber(writer, name, value);
  writer.EndObject();
  std::string text;
  const long result = FinishJson(writer, out, text);
  return status::Failed(result) ? result : KroAgent::HandOverAnswer(text, response, responseLen);
}

void KroMasterConfiguration::SetDefaults() {
  std::lock_guard<std::recursive_mutex> hold(lock_);
  settings_ = Settings{};
}

long KroMasterConfiguration::RegisterRoutines(KroAgent::RoutineTable& table) {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    table.Replace(
        "/KRO/Configure/saveMasterConfigure",
        [this](const char* request, size_t requestLen, const char** response, size_t* responseLen) {
          return SaveConfigure(request, requestLen, response, responseLen);
        });
    table.Replace(
        "/KRO/Configure/getMasterConfigure",
        [this](const char* request, size_t requestLen, const char** response, size_t* responseLen) {
          return GetConfigure(request, requestLen, response, responseLen);
        });
    table.Replace(
        "/KRO/Master/Requests/getCacheSetting.json",
        [this](const char* request, size_t requestLen, const char** response, size_t* responseLen) {
          return GetCacheSetting(request, requestLen, response, responseLen);
        });
    table.Replace(
        "/KRO/Master/Requests/getBrowserTimeout.json",
        [this](const char* request, size_t requestLen, const char** response, size_t* responseLen) {
          return GetBrowserTimeout(request, requestLen, response, responseLen);
        });
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

long KroMasterConfiguration::ToJson(std::string& text) const {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    const Settings& s = settings_;
    std::ostringstream out;
    hlp::JsonWriter writer(out);
    writer.Object();
    WriteNumber(writer, "LoggingLevel", s.loggingLevel);
    WriteNumber(writer, "MaxConnections", s.maxConnections);
    WriteNumber(writer, "ConnTimeout", s.connTimeout);
    WriteNumber(writer, "ConnRetryTimeout", s.connRetryTimeout);
    WriteNumber(writer, "ConnRetryInterval", s.connRetryInterval);
    WriteNumber(writer, "MasterServerPort", s.masterServerPort);
    WriteNumber(writer, "MasterServerSSL", s.masterServerSSL);
    WriteNumber(writer, "AgentPort", s.agentPort);
    WriteNumber(writer, "AgentSSL", s.agentSSL);
    WriteNumber(writer, "DialHomePort", s.dialHomePort);
    WriteNumber(writer, "DialHomeSSL", s.dialHomeSSL);
    WriteNumber(writer, "HeartBeatInterval", s.heartBeatInterval);
    WriteNumber(writer, "AlertsCleanupInterval", s.alertsCleanupInterval);
    // "ReportsCleanupInterval" is deliberately not written (it is read all the same).
    WriteNumber(writer, "SummaryCollectionRefresh", s.summaryCollectionRefresh);
    WriteNumber(writer, "SummaryCollectionUpdate", s.summaryCollectionUpdate);
    WriteNumber(writer, "SummaryCollectionTimeout", s.summaryCollectionTimeout);
    WriteNumber(writer, "MasterJobTimeoutMs", s.masterJobTimeoutMs);
    WriteNumber(writer, "BaseJobTimeoutMs", s.baseJobTimeoutMs);
    WriteNumber(writer, "SubJobTimeoutMs", s.subJobTimeoutMs);
    WriteNumber(writer, "JobsCleanupInterval", s.jobsCleanupInterval);
    WriteNumber(writer, "UISessionTimeOutIntervalMins", s.uiSessionTimeOutIntervalMins);
    WriteNumber(writer, "SSDCaching", s.ssdCaching);
    writer.EndObject();
    return FinishJson(writer, out, text);
  } catch (...) {
    return status::Failure;
  }
}

long KroMasterConfiguration::FromJson(const char* text) {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    const std::unique_ptr<hlp::JsonValue> root = ParseObject(text);
    if (root == nullptr) {
      return status::NotAvailable;
    }
    Settings& s = settings_;
    ApplyLoggingLevel(*root, s.loggingLevel);
    ApplyNumber(*root, "MaxConnections", s.maxConnections);
    ApplyNumber(*root, "ConnTimeout", s.connTimeout);
    ApplyNumber(*root, "ConnRetryTimeout", s.connRetryTimeout);
    ApplyNumber(*root, "ConnRetryInterval", s.connRetryInterval);
    ApplyNumber(*root, "MasterServerPort", s.masterServerPort);
    ApplyFlag(*root, "MasterServerSSL", s.masterServerSSL);
    ApplyNumber(*root, "AgentPort", s.agentPort);
    ApplyFlag(*root, "AgentSSL", s.agentSSL);
    ApplyNumber(*root, "DialHomePort", s.dialHomePort);
    ApplyFlag(*root, "DialHomeSSL", s.dialHomeSSL);
    ApplyNumber(*root, "HeartBeatInterval", s.heartBeatInterval);
    ApplyNumber(*root, "AlertsCleanupInterval", s.alertsCleanupInterval);
    ApplyNumber(*root, "ReportsCleanupInterval", s.reportsCleanupInterval);
    ApplyNumber(*root, "SummaryCollectionRefresh", s.summaryCollectionRefresh);
    ApplyNumber(*root, "SummaryCollectionUpdate", s.summaryCollectionUpdate);
    ApplyNumber(*root, "SummaryCollectionTimeout", s.summaryCollectionTimeout);
    ApplyNumber(*root, "MasterJobTimeoutMs", s.masterJobTimeoutMs);
    ApplyNumber(*root, "BaseJobTimeoutMs", s.baseJobTimeoutMs);
    ApplyNumber(*root, "SubJobTimeoutMs", s.subJobTimeoutMs);
    ApplyNumber(*root, "JobsCleanupInterval", s.jobsCleanupInterval);
    ApplyNumber(*root, "UISessionTimeOutIntervalMins", s.uiSessionTimeOutIntervalMins);
    ApplyNumber(*root, "SSDCaching", s.ssdCaching);
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

long KroMasterConfiguration::GetCacheSetting(const char* /*request*/, size_t /*requestLen*/,
                                             const char** response, size_t* responseLen) const {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    if (response == nullptr || responseLen == nullptr) {
      return status::NotAvailable;
    }
    return AnswerOneNumber("setting", settings_.ssdCaching, response, responseLen);
  } catch (...) {
    return status::Failure;
  }
}

long KroMasterConfiguration::GetBrowserTimeout(const char* /*request*/, size_t /*requestLen*/,
                                               const char** response, size_t* responseLen) const {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    if (response == nullptr || responseLen == nullptr) {
      return status::NotAvailable;
    }
    return AnswerOneNumber("timeout", settings_.uiSessionTimeOutIntervalMins, response,
                           responseLen);
  } catch (...) {
    return status::Failure;
  }
}

}  // namespace kro
