#pragma once

namespace kro {

/**
 * @brief Raises the calling thread's priority to above normal. On success `saved` holds what
 * to restore and the result is true; a refusal (POSIX without the privilege) is false and
 * leaves the thread as it was.
 */
bool RaiseThreadPriority(int& saved);

/** @brief Puts back the priority that RaiseThreadPriority saved. */
void RestoreThreadPriority(int saved);

/**
 * @brief Lets the calling thread, when it wakes up, wait for the running thread to give up the
 * processor instead of preempting it (Linux: SCHED_BATCH; elsewhere nothing). Meant for request
 * workers, which sleep and wake once per request: a client sending requests on many
 * connections is then not interrupted after each one, which on a busy machine costs more
 * than the requests themselves. Its share of the processor is unchanged.
 */
void DeferWakeUpPreemption();

/**
 * @brief Keeps the calling thread above normal priority for its lifetime, so a routine that
 * answers a user is not starved by background work.
 */
class ScopedThreadPriorityBoost {
 public:
  ScopedThreadPriorityBoost() { raised_ = RaiseThreadPriority(saved_); }
  ~ScopedThreadPriorityBoost() {
    if (raised_) {
      RestoreThreadPriority(saved_);
    }
  }
  ScopedThreadPriorityBoost(const ScopedThreadPriorityBoost&) = delete;
  ScopedThreadPriorityBoost& operator=(const ScopedThreadPriorityBoost&) = delete;

 private:
  int saved_ = 0;
  bool raised_ = false;
};

}  // namespace kro
