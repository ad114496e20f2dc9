#include "config/KroConfigurationManager.h"

#include <new>

#include "common/WinHelper.h"
#include "config/KroAgentConfiguration.h"
#include "config/KroMasterConfiguration.h"

namespace kro {

KroConfigurationManager& KroConfigurationManager::Instance() {
  // Leaked on purpose: nothing may destroy the settings while a late thread still reads them.
  static KroConfigurationManager* const instance = new KroConfigurationManager();
  return *instance;
}

KroAgentConfiguration* KroConfigurationManager::GetAgentConfiguration() {
  try {
    std::lock_guard<std::mutex> hold(lock_);
    if (agent_ != nullptr) {
      return agent_;
    }
    agent_ = new (std::nothrow) KroAgentConfiguration();
    if (agent_ == nullptr) {
      return nullptr;
    }
    agent_->SetDefaults();
    // A missing, unreadable or malformed file is not an error: the defaults stay in force.
    agent_->Load(dataDirectory_ + KroAgentConfiguration::kFileName);
    return agent_;
  } catch (...) {
    // Only the path concatenation can throw (out of memory); the defaults are in place.
    return agent_;
  }
}

KroMasterConfiguration* KroConfigurationManager::GetMasterConfiguration() const {
  std::lock_guard<std::mutex> hold(lock_);
  return master_;
}

void KroConfigurationManager::SetDataDirectory(const std::string& directory) {
  try {
    std::lock_guard<std::mutex> hold(lock_);
    dataDirectory_ = directory;
    if (!dataDirectory_.empty()) {
      const char last = dataDirectory_.back();
      if (last != '\\' && last != '/' && last != ':') {
        dataDirectory_ += kPathSeparatorA;
      }
    }
  } catch (...) {
    // Out of memory while copying a path: the folder stays as it was.
  }
}

std::string KroConfigurationManager::DataDirectory() const {
  try {
    std::lock_guard<std::mutex> hold(lock_);
    return dataDirectory_;
  } catch (...) {
    return {};
  }
}

}  // namespace kro
