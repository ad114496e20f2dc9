#pragma once

#include <atomic>
#include <condition_variable>
#include <string>
#include <thread>

#include "nvthreads/ItemQueue.h"
#include "nvthreads/WorkItem.h"
#include "nvthreads/nvthreads.h"

/** @brief The opaque handle of the C API; nvthreads::PoolThread is the only type deriving it. */
struct nvthreads_threadctx {};

namespace nvthreads {

class Pool;

/**
 * @brief One thread of a pool: a named thread with its own queue, or a worker of the pool's
 * shared queue. Shared by the pool and the running thread, so either may outlive the other.
 */
struct PoolThread : nvthreads_threadctx {
  Pool* pool = nullptr;  // kept alive by the thread itself while it runs
  std::string name;
  bool named = false;
  nvthreads_routine init = nullptr;
  nvthreads_routine cleanup = nullptr;
  void* context = nullptr;
  // Read without the lock by nvthreads_thread_query_stop from inside routines.
  std::atomic<bool> stop{false};

  // Everything below is guarded by the pool's mutex.
  std::thread thread;
  std::condition_variable cv;  // queue changes of a named thread, a worker's wake, stop
  ItemQueue queue;             // named threads only
  WorkItem* running = nullptr;
  bool parked = false;  // a worker waiting among the pool's idle ones
  bool ended = false;
};

}  // namespace nvthreads
