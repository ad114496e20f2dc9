#pragma once

#include <atomic>
#include <cstdint>

#include "logging_support/logging_support.h"

namespace KroAlerts {
class AlertsManager;
}

namespace KroAgent {

/** @brief State the loaded module holds once, whatever the number of agent objects. */
struct ModuleState {
  /** @brief The module's logger; every thread the agent creates installs it. */
  logging_support::logger_type logger;

  /** @brief Nothing in the agent reads it; kept for components that share the module. */
  std::atomic<uint32_t> currentProductId{0};

  /** @brief The alerts manager of the agent last set up; null once it is released. */
  std::atomic<KroAlerts::AlertsManager*> alertsManager{nullptr};
};

/** @brief The one module state (never destroyed: threads may log while the process ends). */
ModuleState& Module();

}  // namespace KroAgent
