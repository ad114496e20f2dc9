#pragma once

#include <functional>
#include <map>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "core/KroAgentTypes.h"
#include "core/StringCompare.h"

namespace KroAgent {

/**
 * @brief Hands `text` to a routine's caller as the answer: a copy with a terminating zero, that
 * the caller releases through the routine map's release. Every routine answers through this.
 * @return 0; NotAvailable without answer slots; OutOfMemory when the copy cannot be made.
 */
long HandOverAnswer(std::string_view text, const char** response, size_t* responseLen) noexcept;

/** @brief Routines by name, names compared without regard to case. */
using RoutineMap = std::map<std::string, std::function<RoutineFn>, kro::case_insensitive_less>;

/**
 * @brief The agent's routine map and the lock that guards it.
 *
 * Routines are registered during start-up, but a host may register more while requests are
 * being served; without the lock such an insertion would race with the lookups of request
 * workers. Lookups copy the routine out, so a routine runs without the lock held and may
 * itself register routines.
 */
class RoutineTable {
 public:
  /** @brief Inserts unless the name is taken (the first registration wins). */
  long Register(const char* name, std::function<RoutineFn> routine);
  /** @brief Inserts, replacing a routine of the same name. */
  long Replace(std::string_view name, std::function<RoutineFn> routine);
  /** @brief Copies the routine of that name out; false when there is none. */
  bool Find(std::string_view name, std::function<RoutineFn>& routine) const;
  bool Contains(std::string_view name) const;
  size_t Size() const;

  /**
   * @brief The map itself, for a library that registers its routines while the agent is set
   * up (before any request can arrive). Not for use once the server runs.
   */
  RoutineMap& UnguardedMap() { return map_; }

 private:
  mutable std::shared_mutex lock_;
  RoutineMap map_;
};

}  // namespace KroAgent
