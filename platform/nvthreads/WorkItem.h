#pragma once

#include <chrono>
#include <string>

#include "nvthreads/nvthreads.h"

namespace nvthreads {

/** @brief The one clock every due time is on: wall-clock jumps must not fire or stall timers. */
using Clock = std::chrono::steady_clock;

/** @brief One scheduled work item and what it needs for its runs. */
struct WorkItem {
  std::string name;
  bool hasName = false;
  nvthreads_routine init = nullptr;
  nvthreads_routine cleanup = nullptr;
  nvthreads_routine process = nullptr;
  void* context = nullptr;
  std::chrono::milliseconds period{0};
  Clock::time_point due;
  // Only the thread running the item touches this; the pool mutex orders hand-overs.
  bool initDone = false;
  // Set under the pool mutex by a cancel that arrives while the item runs.
  bool cancelled = false;

  bool Matches(const char* other) const { return hasName && name == other; }
};

}  // namespace nvthreads
