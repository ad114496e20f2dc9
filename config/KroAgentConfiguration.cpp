#include "config/KroAgentConfiguration.h"

#include <sstream>

#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "hlp/Json.h"

namespace kro {

void KroAgentConfiguration::SetDefaults() {
  std::lock_guard<std::recursive_mutex> hold(lock_);
  settings_ = Settings{};
}

long KroAgentConfiguration::RegisterRoutines(KroAgent::RoutineTable& table) {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    table.Replace(
        "/KRO/Configure/saveAgentConfigure",
        [this](const char* request, size_t requestLen, const char** response, size_t* responseLen) {
          return SaveConfigure(request, requestLen, response, responseLen);
        });
    table.Replace(
        "/KRO/Configure/getAgentConfigure",
        [this](const char* request, size_t requestLen, const char** response, size_t* responseLen) {
          return GetConfigure(request, requestLen, response, responseLen);
        });
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

long KroAgentConfiguration::ToJson(std::string& text) const {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    std::ostringstream out;
    hlp::JsonWriter writer(out);
    writer.Object();
    WriteNumber(writer, "LoggingLevel", settings_.loggingLevel);
    WriteNumber(writer, "MaxConnections", settings_.maxConnections);
    WriteNumber(writer, "ConnTimeout", settings_.connTimeout);
    WriteNumber(writer, "ConnRetryTimeout", settings_.connRetryTimeout);
    WriteNumber(writer, "ConnRetryInterval", settings_.connRetryInterval);
    WriteNumber(writer, "AlertsCleanupInterval", settings_.alertsCleanupInterval);
    WriteNumber(writer, "DialHomeInterval", settings_.dialHomeInterval);
    WriteNumber(writer, "DialHomeFirstRetry", settings_.dialHomeFirstRetry);
    WriteNumber(writer, "DialHomeSecondRetry", settings_.dialHomeSecondRetry);
    WriteNumber(writer, "DialHomeThirdRetry", settings_.dialHomeThirdRetry);
    writer.EndObject();
    return FinishJson(writer, out, text);
  } catch (...) {
    return status::Failure;
  }
}

long KroAgentConfiguration::FromJson(const char* text) {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    const std::unique_ptr<hlp::JsonValue> root = ParseObject(text);
    if (root == nullptr) {
      return status::NotAvailable;
    }
    ApplyLoggingLevel(*root, settings_.loggingLevel);
    ApplyNumber(*root, "MaxConnections", settings_.maxConnections);
    ApplyNumber(*root, "ConnTimeout", settings_.connTimeout);
    ApplyNumber(*root, "ConnRetryTimeout", settings_.connRetryTimeout);
    ApplyNumber(*root, "ConnRetryInterval", settings_.connRetryInterval);
    ApplyNumber(*root, "AlertsCleanupInterval", settings_.alertsCleanupInterval);
    ApplyNumber(*root, "DialHomeInterval", settings_.dialHomeInterval);
    ApplyNumber(*root, "DialHomeFirstRetry", settings_.dialHomeFirstRetry);
    ApplyNumber(*root, "DialHomeSecondRetry", settings_.dialHomeSecondRetry);
    ApplyNumber(*root, "DialHomeThirdRetry", settings_.dialHomeThirdRetry);
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

}  // namespace kro
