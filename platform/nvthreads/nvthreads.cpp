#include "nvthreads/nvthreads.h"

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "nvthreads/Pool.h"
#include "nvthreads/PoolThread.h"
#include "nvthreads/WorkItem.h"

namespace {

using nvthreads::Pool;

/** @brief The pools by name and the init count; lookups only, never held while pools work. */
class Registry {
 public:
  using PoolMap = std::map<std::string, std::shared_ptr<Pool>, std::less<>>;

  // Never destroyed: threads left running past a shutdown budget may still call in while
  // static destructors run.
  static Registry& Get() {
    static Registry* registry = new Registry;
    return *registry;
  }

  uint32_t Init() {
    std::lock_guard lock(mutex_);
    ++initCount_;
    return NVTHREADS_OK;
  }

  uint32_t Cleanup() {
    PoolMap left;
    {
      std::lock_guard lock(mutex_);
      if (initCount_ == 0) {
        return NVTHREADS_E_NOT_INITIALIZED;
      }
      if (--initCount_ > 0) {
        return NVTHREADS_OK;
      }
      left.swap(pools_);
    }
    uint32_t status = NVTHREADS_OK;
    for (auto& [name, pool] : left) {
      if (const uint32_t shut = pool->Shutdown(); shut != NVTHREADS_OK) {
        status = shut;
      }
    }
    return status;
  }

  bool Initialized() {
    std::lock_guard lock(mutex_);
    return initCount_ > 0;
  }

  uint32_t Add(const char* name, const Pool::Options& options) {
    std::lock_guard lock(mutex_);
    if (initCount_ == 0) {
      return NVTHREADS_E_NOT_INITIALIZED;
    }
    if (name == nullptr) {
      return NVTHREADS_E_INVALID_ARG;
    }
    if (pools_.contains(name)) {
      return NVTHREADS_E_EXISTS;
    }
    pools_.emplace(name, std::make_shared<Pool>(options));
    return NVTHREADS_OK;
  }

  uint32_t Find(const char* name, std::shared_ptr<Pool>& pool) {
    std::lock_guard lock(mutex_);
    return FindLocked(name, pool);
  }

  uint32_t Remove(const char* name, std::shared_ptr<Pool>& pool) {
    std::lock_guard lock(mutex_);
    const uint32_t status = FindLocked(name, pool);
    if (status == NVTHREADS_OK) {
      pools_.erase(name);
    }
    return status;
  }

 private:
  uint32_t FindLocked(const char* name, std::shared_ptr<Pool>& pool) const {
    if (initCount_ == 0) {
      return NVTHREADS_E_NOT_INITIALIZED;
    }
    if (name == nullptr) {
      return NVTHREADS_E_INVALID_ARG;
    }
    const auto it = pools_.find(name);
    if (it == pools_.end()) {
      return NVTHREADS_E_NO_POOL;
    }
    pool = it->second;
    return NVTHREADS_OK;
  }

  std::mutex mutex_;
  unsigned initCount_ = 0;
  PoolMap pools_;
};

// Every C entry point: memory or thread exhaustion deep inside becomes a status code.
template <typename Fn>
uint32_t Guarded(Fn&& fn) noexcept {
  try {
    return fn();
  } catch (...) {
    return NVTHREADS_E_RESOURCES;
  }
}

nvthreads::PoolThread* FromHandle(nvthreads_threadctx* thread) {
  return static_cast<nvthreads::PoolThread*>(thread);
}

}  // namespace

extern "C" {

uint32_t nvthreads_init(void) {
  return Guarded([] { return Registry::Get().Init(); });
}

uint32_t nvthreads_cleanup(void) {
  return Guarded([] { return Registry::Get().Cleanup(); });
}

uint32_t nvthreads_pool_init(const char* pool) {
  return Guarded([&] { return Registry::Get().Add(pool, Pool::Options{}); });
}

uint32_t nvthreads_pool_init_auto(const char* pool, uint32_t minThreads, uint32_t maxThreads,
                                  nvthreads_routine threadInit, nvthreads_routine threadCleanup,
                                  nvthreads_routine defaultProcess, void* context) {
  return Guarded([&] {
    if (!Registry::Get().Initialized()) {
      return NVTHREADS_E_NOT_INITIALIZED;
    }
    if (maxThreads == 0 || minThreads > maxThreads) {
      return NVTHREADS_E_INVALID_ARG;
    }
    Pool::Options options;
    options.minWorkers = minThreads;
    options.maxWorkers = maxThreads;
    options.workerInit = threadInit;
    options.workerCleanup = threadCleanup;
    options.defaultProcess = defaultProcess;
    options.context = context;
    return Registry::Get().Add(pool, options);
  });
}

uint32_t nvthreads_pool_set_shutdownmsecs(const char* pool, uint32_t msecs) {
  return Guarded([&] {
    std::shared_ptr<Pool> found;
    const uint32_t status = Registry::Get().Find(pool, found);
    if (status == NVTHREADS_OK) {
      found->SetShutdownBudget(std::chrono::milliseconds(msecs));
    }
    return status;
  });
}

uint32_t nvthreads_pool_shutdown(const char* pool) {
  return Guarded([&] {
    std::shared_ptr<Pool> found;
    const uint32_t status = Registry::Get().Find(pool, found);
    return status == NVTHREADS_OK ? found->Shutdown() : status;
  });
}

uint32_t nvthreads_pool_cleanup(const char* pool) {
  return Guarded([&] {
    std::shared_ptr<Pool> found;
    const uint32_t status = Registry::Get().Remove(pool, found);
    if (status != NVTHREADS_OK || found->Stopping()) {
      return status;
    }
    return found->Shutdown();
  });
}

uint32_t nvthreads_thread_create(const char* pool, const char* thread, nvthreads_routine init,
                                 nvthreads_routine cleanup, uint32_t /*flags*/, void* context) {
  return Guarded([&] {
    std::shared_ptr<Pool> found;
    if (const uint32_t status = Registry::Get().Find(pool, found); status != NVTHREADS_OK) {
      return status;
    }
    return thread == nullptr ? NVTHREADS_E_INVALID_ARG
                             : found->CreateThread(thread, init, cleanup, context);
  });
}

int nvthreads_thread_query_stop(nvthreads_threadctx* thread) {
  return thread == nullptr || FromHandle(thread)->stop.load() ? 1 : 0;
}

int nvthreads_thread_sleep(nvthreads_threadctx* thread, uint32_t msecs) {
  const std::chrono::milliseconds duration(msecs);
  if (thread == nullptr) {
    std::this_thread::sleep_for(duration);
    return 0;
  }
  try {
    return Pool::Sleep(*FromHandle(thread), duration) ? 1 : 0;
  } catch (...) {
    // Only a broken mutex gets here; report a stop so loops around the sleep end.
    return 1;
  }
}

uint32_t nvthreads_workitem_add(const char* pool, const char* thread, const char* item,
                                uint32_t /*priority*/, uint32_t firstDelayMs, uint32_t periodMs,
                                nvthreads_routine init, nvthreads_routine cleanup,
                                nvthreads_routine process, void* context) {
  return Guarded([&] {
    std::shared_ptr<Pool> found;
    if (const uint32_t status = Registry::Get().Find(pool, found); status != NVTHREADS_OK) {
      return status;
    }
    auto work = std::make_unique<nvthreads::WorkItem>();
    work->hasName = item != nullptr;
    if (item != nullptr) {
      work->name = item;
    }
    work->init = init;
    work->cleanup = cleanup;
    work->process = process;
    work->context = context;
    work->period = std::chrono::milliseconds(periodMs);
    work->due = nvthreads::Clock::now() + std::chrono::milliseconds(firstDelayMs);
    return found->AddItem(thread, std::move(work));
  });
}

uint32_t nvthreads_workitem_cancel(const char* pool, const char* thread, const char* item) {
  return Guarded([&] {
    std::shared_ptr<Pool> found;
    if (const uint32_t status = Registry::Get().Find(pool, found); status != NVTHREADS_OK) {
      return status;
    }
    return item == nullptr ? NVTHREADS_E_INVALID_ARG : found->CancelItems(thread, item);
  });
}

nvthreads_threadctx* nvthreads_workitem_query_threadctx(void) {
  return Pool::Current();
}

}  // extern "C"
