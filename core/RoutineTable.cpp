#include "core/RoutineTable.h"

#include <cstring>
#include <mutex>
#include <new>

#include "core/KroStatus.h"

namespace KroAgent {

long HandOverAnswer(std::string_view text, const char** response, size_t* responseLen) noexcept {
  if (response == nullptr || responseLen == nullptr) {
    return kro::status::NotAvailable;
  }
  char* buffer = new (std::nothrow) char[text.size() + 1];
  if (buffer == nullptr) {
    return kro::status::OutOfMemory;
  }
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
  *response = buffer;
  *responseLen = text.size();
  return kro::status::Ok;
}

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
