#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "alerts/AlertsAgentInterface.h"
#include "alerts/AlertsManager.h"
#include "hlp/Json.h"

namespace kro::test {

using AlertRoutines = std::map<std::string, std::function<RoutineFn>, kro::case_insensitive_less>;

/** @brief The agent's side as the alerts tests see it: records every payload handed over. */
class RecordingCallbacks : public KroAlerts::AlertsAgentInterface {
 public:
  void SendAlertData(const char* payload) override {
    std::lock_guard<std::mutex> guard(lock_);
    payloads_.emplace_back(payload);
  }
  // The tests always name the folder; the library never asks for the machine's name.
  int GetAgentFolder(char*, size_t) override { return -1; }
  int GetSystemName(char*, unsigned int) override { return -1; }

  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> guard(lock_);
    return std::exchange(payloads_, {});
  }

 private:
  std::mutex lock_;
  std::vector<std::string> payloads_;
};

/** @brief A manager on `folder`; released by the deleter. */
inline std::unique_ptr<KroAlerts::AlertsManager, void (*)(KroAlerts::AlertsManager*)> OpenAlerts(
    RecordingCallbacks& callbacks, const std::filesystem::path& folder, AlertRoutines& routines) {
  // The manager reads folders as UTF-8 on every platform.
  const std::u8string utf8 = folder.u8string();
  const std::string text(utf8.begin(), utf8.end());
  const char* folders[] = {text.c_str(), nullptr};
  KroAlerts::AlertsManager* manager =
      KroAlerts::AlertsManager::initialize(&callbacks, folders, routines);
  if (manager != nullptr) {
    manager->start(0);
  }
  return {manager, &KroAlerts::AlertsManager::cleanup};
}

/** @brief One member of a JSON object as compact JSON text; "(none)" when absent. */
inline std::string Member(const std::string& json, const char* name) {
  const std::unique_ptr<hlp::JsonValue> root = hlp::JsonParser().Parse(json);
  const hlp::JsonValue* member = root ? root->FindMember(name) : nullptr;
  return member != nullptr ? member->ToString() : "(none)";
}

/** @brief The "id" member of one payload, or empty. */
inline std::string IdOf(const std::string& payload) {
  const std::unique_ptr<hlp::JsonValue> root = hlp::JsonParser().Parse(payload);
  const hlp::JsonValue* id = root ? root->FindMember("id") : nullptr;
  return id ? id->GetString() : std::string();
}

}  // namespace kro::test
