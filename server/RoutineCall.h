#pragma once

#include <cstddef>
#include <string_view>

#include "core/RoutineTable.h"

namespace kro {

/**
 * @brief The answer slot of one routine call. Routines allocate their answer with the
 * non-throwing array allocation and hand it over; the caller owns it from then on, so it is
 * released here with the matching array deallocation.
 */
class RoutineAnswer {
 public:
  RoutineAnswer() = default;
  ~RoutineAnswer() { delete[] data_; }
  RoutineAnswer(const RoutineAnswer&) = delete;
  RoutineAnswer& operator=(const RoutineAnswer&) = delete;

  const char** Slot() { return &data_; }
  size_t* LengthSlot() { return &length_; }

  const char* Data() const { return data_; }
  /** @brief 0 when the routine left no buffer, whatever length it claimed. */
  size_t Length() const { return data_ != nullptr ? length_ : 0; }
  std::string_view View() const { return {data_ != nullptr ? data_ : "", Length()}; }

 private:
  const char* data_ = nullptr;
  size_t length_ = 0;
};

/**
 * @brief Calls the routine registered under `name` (case-insensitive). 0 with the answer left
 * empty when there is none; otherwise what the routine returns, 0x80000000 when it throws.
 */
long CallRoutine(const KroAgent::RoutineTable* routines, std::string_view name, const char* request,
                 size_t requestLength, RoutineAnswer& answer);

}  // namespace kro
