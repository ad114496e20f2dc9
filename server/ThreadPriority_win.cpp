#include "server/ThreadPriority.h"

#include <windows.h>

namespace kro {

bool RaiseThreadPriority(int& saved) {
  const int current = GetThreadPriority(GetCurrentThread());
  if (current == THREAD_PRIORITY_ERROR_RETURN) {
    return false;
  }
  if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_ABOVE_NORMAL)) {
    return false;
  }
  saved = current;
  return true;
}

void RestoreThreadPriority(int saved) {
  SetThreadPriority(GetCurrentThread(), saved);
}

void DeferWakeUpPreemption() {
  // Windows has no such policy; its threads keep the default.
}

}  // namespace kro
