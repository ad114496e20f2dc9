#include "agent/ModuleState.h"

namespace KroAgent {

ModuleState& Module() {
  static ModuleState* state = new ModuleState;
  return *state;
}

}  // namespace KroAgent
