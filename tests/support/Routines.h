#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/RoutineTable.h"

namespace kro::test {

/** @brief A routine's status and answer as one comparable text: "<status> <answer>". */
inline std::string Answered(long status, const std::string& answer = "(none)") {
  return std::to_string(status) + " " + answer;
}

/**
 * @brief Calls `routine` as the server's dispatcher does and frees its answer; the answer must
 * double as a C string.
 */
inline std::string CallRoutine(const std::function<RoutineFn>& routine,
                               const std::string& request = "") {
  const char* answer = nullptr;
  size_t length = 0;
  const long status = routine(request.c_str(), request.size(), &answer, &length);
  if (answer == nullptr) {
    return Answered(status);
  }
  const std::unique_ptr<const char[]> owned(answer);
  EXPECT_EQ(answer[length], '\0');
  return Answered(status, std::string(answer, length));
}

/** @brief The same for the routine registered under `name` (in any case). */
inline std::string CallRoutine(const KroAgent::RoutineTable& table, std::string_view name,
                               const std::string& request = "") {
  std::function<RoutineFn> routine;
  return table.Find(name, routine) ? CallRoutine(routine, request)
                                   : "no routine " + std::string(name);
}

}  // namespace kro::test
