#include "server/RoutineCall.h"

#include <functional>

#include "core/KroStatus.h"

namespace kro {

long CallRoutine(const KroAgent::RoutineTable* routines, std::string_view name, const char* request,
                 size_t requestLength, RoutineAnswer& answer) {
  try {
    std::function<RoutineFn> routine;
    if (routines == nullptr || !routines->Find(name, routine)) {
      return status::Ok;
    }
    return routine(request, requestLength, answer.Slot(), answer.LengthSlot());
  } catch (...) {
    return status::Failure;
  }
}

}  // namespace kro
