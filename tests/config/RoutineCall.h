#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "agent/RoutineTable.h"

namespace kro::test {

/** @brief What a routine answered; the body is taken by the length it reported. */
struct RoutineAnswer {
  long status = 0;
  bool hasBody = false;
  std::string body;
};

/** @brief Calls a registered routine as the request handler does and frees its buffer. */
inline RoutineAnswer CallRoutine(const KroAgent::RoutineTable& table, const std::string& name,
                                 const std::string& request = "") {
  std::function<RoutineFn> routine;
  EXPECT_TRUE(table.Find(name, routine)) << name;
  RoutineAnswer answer;
  if (!routine) {
    return answer;
  }
  const char* response = nullptr;
  size_t length = 0;
  answer.status = routine(request.c_str(), request.size(), &response, &length);
  if (response != nullptr) {
    answer.hasBody = true;
    answer.body.assign(response, length);
    EXPECT_EQ(response[length], '\0');
    delete[] response;
  }
  return answer;
}

}  // namespace kro::test
