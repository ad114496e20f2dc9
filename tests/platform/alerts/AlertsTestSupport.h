#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "alerts/AlertsAgentInterface.h"
#include "alerts/AlertsManager.h"
#include "hlp/Json.h"

namespace kro::test {

using AlertRoutines = std::map<std::string, std::function<RoutineFn>, hlp::case_insensitive_less>;

/** @brief The agent's side as the alerts tests see it: records every payload handed over. */
class RecordingCallbacks : public KroAlerts::AlertsAgentInterface {
 public:
  void SendAlertData(const char* payload) override {
    std::lock_guard<std::mutex> guard(lock_);
    payloads_.emplace_back(payload);
  }
  int GetAgentFolder(char* buffer, size_t bufferSize) override {
    return Copy(folder, buffer, bufferSize);
  }
  int GetSystemName(char* buffer, unsigned int bufferSize) override {
    return Copy("test-host", buffer, bufferSize);
  }

  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> guard(lock_);
    return std::move(payloads_);
  }

  std::string folder;

 private:
  static int Copy(const std::string& text, char* buffer, size_t size) {
    if (size == 0 || text.size() >= size) {
      return -1;
    }
    text.copy(buffer, text.size());
    buffer[text.size()] = '\0';
    return 0;
  }
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

/** @brief The "id" member of one payload, or empty. */
inline std::string IdOf(const std::string& payload) {
  const std::unique_ptr<hlp::JsonValue> root = hlp::JsonParser().Parse(payload);
  const hlp::JsonValue* id = root ? root->FindMember("id") : nullptr;
  return id ? id->GetString() : std::string();
}

}  // namespace kro::test
