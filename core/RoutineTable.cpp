#include "core/RoutineTable.h"

#include <mutex>
#include <new>

#include "core/KroStatus.h"

namespace KroAgent {

long RoutineTable::Register(const char* name, std::function<RoutineFn> routine) {
  if (name == nullptr) {
    return kro::status::NotAvailable;
  }
  try {
    std::unique_lock<std::shared_mutex> guard(lock_);
    map_.emplace(std::string(name), std::move(routine));
    return kro::status::Ok;
  } catch (...) {
    return kro::status::OutOfMemory;
  }
}

long RoutineTable::Replace(std::string_view name, std::function<RoutineFn> routine) {
  try {
    std::unique_lock<std::shared_mutex> guard(lock_);
    if (auto it = map_.find(name); it != map_.end()) {
      it->second = std::move(routine);
    } else {
      map_.emplace(std::string(name), std::move(routine));
    }
    return kro::status::Ok;
  } catch (...) {
    return kro::status::OutOfMemory;
  }
}

bool RoutineTable::Find(std::string_view name, std::function<RoutineFn>& routine) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  auto it = map_.find(name);
  if (it == map_.end()) {
    return false;
  }
  routine = it->second;
  return true;
}

bool RoutineTable::Contains(std::string_view name) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  return map_.find(name) != map_.end();
}

size_t RoutineTable::Size() const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  return map_.size();
}

}  // namespace KroAgent
