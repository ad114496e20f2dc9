#include "alerts/Alert.h"

#include <cstring>

namespace KroAlerts {

Alert::Alert(const char* name, unsigned int code, int severity, bool persistent)
    : code_(code), severity_(severity), persistent_(persistent) {
  try {
    if (name != nullptr) {
      name_ = name;
    }
  } catch (...) {
    // Out of memory: an alert without a name is refused when it is added.
    name_.clear();
  }
}

Alert::~Alert() = default;

void Alert::addParameter(const char* value) {
  if (value == nullptr) {
    return;
  }
  try {
    parameters_.emplace_back(value);
  } catch (...) {
    // Out of memory: the parameter is lost, the alert itself still travels.
  }
}

int Alert::getType(char* buffer, size_t size) const {
  if (buffer == nullptr || size == 0) {
    return -1;
  }
  const size_t copied = name_.size() < size ? name_.size() : size - 1;
  std::memcpy(buffer, name_.data(), copied);
  buffer[copied] = '\0';
  return static_cast<int>(name_.size());
}

}  // namespace KroAlerts
