#include "server/ThreadPriority.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace kro {
namespace {

// On Linux a nice value belongs to the thread (its kernel task id), not to the process.
id_t CurrentThreadId() {
  return static_cast<id_t>(syscall(SYS_gettid));
}

}  // namespace

bool RaiseThreadPriority(int& saved) {
  const id_t thread = CurrentThreadId();
  errno = 0;
  const int current = getpriority(PRIO_PROCESS, thread);
  if (current == -1 && errno != 0) {
    return false;
  }
  // Lowering the nice value needs a privilege most agents run without; refused is fine.
  if (setpriority(PRIO_PROCESS, thread, current - 1) != 0) {
    return false;
  }
  saved = current;
  return true;
}

void RestoreThreadPriority(int saved) {
  setpriority(PRIO_PROCESS, CurrentThreadId(), saved);
}

void DeferWakeUpPreemption() {
#ifdef SCHED_BATCH
  // Needs no privilege; the nice value, and so RaiseThreadPriority, still applies.
  const sched_param parameters{};
  sched_setscheduler(0, SCHED_BATCH, &parameters);
#endif
}

}  // namespace kro
