#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "nvthreads/ItemQueue.h"
#include "nvthreads/PoolThread.h"
#include "nvthreads/WorkItem.h"
#include "nvthreads/nvthreads.h"

namespace nvthreads {

/**
 * @brief A pool's named threads, its on-demand workers and their queues.
 *
 * Always owned through shared_ptr: every thread of the pool holds a reference, so a thread
 * left running after a shutdown ran out of budget still finds its state. Routines run with no
 * lock held; they may call anything, including a shutdown of this or another pool.
 */
class Pool : public std::enable_shared_from_this<Pool> {
 public:
  struct Options {
    uint32_t minWorkers = 0;
    uint32_t maxWorkers = 0;  // 0: named threads only
    nvthreads_routine workerInit = nullptr;
    nvthreads_routine workerCleanup = nullptr;
    nvthreads_routine defaultProcess = nullptr;
    void* context = nullptr;
  };

  explicit Pool(const Options& options);
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  void SetShutdownBudget(std::chrono::milliseconds budget);
  uint32_t CreateThread(const char* name, nvthreads_routine init, nvthreads_routine cleanup,
                        void* context);
  /** @brief Queues `item` on the named thread, or on the workers for a null `thread`. */
  uint32_t AddItem(const char* thread, std::unique_ptr<WorkItem> item);
  uint32_t CancelItems(const char* thread, const char* name);
  uint32_t Shutdown();
  bool Stopping() const;

  /** @brief The pool thread the caller runs on, or null. */
  static PoolThread* Current();
  /** @brief Sleeps on `thread` until `duration` passed or it is told to stop; true on stop. */
  static bool Sleep(PoolThread& thread, std::chrono::milliseconds duration);

 private:
  using Lock = std::unique_lock<std::mutex>;

  std::shared_ptr<PoolThread> FindNamedLocked(const char* name) const;
  bool StartThreadLocked(const std::shared_ptr<PoolThread>& thread);
  bool SpawnWorkerLocked();
  /** @brief Gets one more worker going: the most recently idle, or a new one; false if none. */
  bool WakeWorkerLocked();
  void UnparkLocked(PoolThread& worker);
  void NamedThreadMain(const std::shared_ptr<PoolThread>& self);
  void WorkerMain(const std::shared_ptr<PoolThread>& self);
  /** @brief Runs `item`, taken from the front of `queue`, and puts it back when it repeats. */
  void RunDueItem(Lock& lock, PoolThread& runner, ItemQueue& queue, std::unique_ptr<WorkItem> item);
  void FinishThreadLocked(PoolThread& self, bool leftOnItsOwn);

  const Options options_;
  mutable std::mutex mutex_;
  std::condition_variable endedCv_;  // a thread ended
  std::vector<std::shared_ptr<PoolThread>> threads_;
  ItemQueue workQueue_;
  uint32_t workers_ = 0;
  uint32_t idleWorkers_ = 0;  // workers not running an item, parked or about to look
  // Parked workers, the most recently idle last: the one woken next, whose stack and caches
  // are still warm, and the ones at the bottom reach their idle time-out and leave.
  std::vector<PoolThread*> parked_;
  // The parked worker that waits for the earliest future item; the others wait for a wake.
  PoolThread* timekeeper_ = nullptr;
  bool stopping_ = false;
  std::chrono::milliseconds shutdownBudget_{30000};
};

}  // namespace nvthreads
