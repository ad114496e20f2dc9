#include "nvthreads/Pool.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace nvthreads {

namespace {

// Workers beyond the minimum give their stack back after this long without work: long enough
// that a burst of requests does not start and end threads for every one, short enough that
// the pool is back at its floor well within a minute after the load.
constexpr std::chrono::seconds kIdleWorkerTimeout{20};

// What a routine that threw counts as: any non-zero result is a failure.
constexpr long kRoutineThrew = -1;

thread_local PoolThread* tCurrent = nullptr;

// Routines are user code behind a C boundary: nothing they throw may reach a thread's top
// (std::terminate) or the caller of a C function.
long CallRoutine(nvthreads_routine routine, void* context) noexcept {
  if (routine == nullptr) {
    return 0;
  }
  try {
    return routine(context);
  } catch (...) {
    return kRoutineThrew;
  }
}

void RunCleanups(ItemQueue::Items& items) noexcept {
  for (auto& item : items) {
    CallRoutine(item->cleanup, item->context);
  }
  items.clear();
}

// Returns true when the item wants another run. An item whose init fails never runs.
bool RunOnce(WorkItem& item) noexcept {
  if (!item.initDone) {
    item.initDone = true;
    if (CallRoutine(item.init, item.context) != 0) {
      return false;
    }
  }
  CallRoutine(item.process, item.context);
  return item.period.count() > 0;
}

// Fixed rate: runs stay on the grid firstDue + k * period, so the time a run takes does not
// push the next one back. A run that overran whole periods skips the slots it missed instead
// of firing them back to back: a burst of catch-up runs would only hammer whatever the item
// talks to, and the next run still lands on the grid.
Clock::time_point NextDue(Clock::time_point due, std::chrono::milliseconds period,
                          Clock::time_point now) {
  auto next = due + period;
  if (next <= now) {
    const auto missed = (now - due) / period;
    next = due + period * (missed + 1);
  }
  return next;
}

}  // namespace

Pool::Pool(const Options& options) : options_(options) {}

Pool::~Pool() {
  // Only reached when every thread of the pool let go of it; any thread object still joinable
  // belongs to a thread that has ended or is this one, and must not abort the process.
  for (auto& thread : threads_) {
    if (thread->thread.joinable()) {
      thread->thread.detach();
    }
  }
}

void Pool::SetShutdownBudget(std::chrono::milliseconds budget) {
  std::lock_guard lock(mutex_);
  shutdownBudget_ = budget;
}

bool Pool::Stopping() const {
  std::lock_guard lock(mutex_);
  return stopping_;
}

PoolThread* Pool::Current() {
  return tCurrent;
}

bool Pool::Sleep(PoolThread& thread, std::chrono::milliseconds duration) {
  Lock lock(thread.pool->mutex_);
  return thread.cv.wait_until(lock, Clock::now() + duration, [&] { return thread.stop.load(); });
}

std::shared_ptr<PoolThread> Pool::FindNamedLocked(const char* name) const {
  for (const auto& thread : threads_) {
    if (thread->named && thread->name == name) {
      return thread;
    }
  }
  return nullptr;
}

bool Pool::StartThreadLocked(const std::shared_ptr<PoolThread>& thread) {
  try {
    // The new thread blocks on mutex_ before it looks at anything, so the record is complete
    // by the time it does.
    thread->thread = std::thread([pool = shared_from_this(), thread] {
      tCurrent = thread.get();
      if (thread->named) {
        pool->NamedThreadMain(thread);
      } else {
        pool->WorkerMain(thread);
      }
    });
  } catch (const std::system_error&) {
    return false;
  }
  threads_.push_back(thread);
  return true;
}

bool Pool::SpawnWorkerLocked() {
  if (stopping_ || workers_ >= options_.maxWorkers) {
    return false;
  }
  auto worker = std::make_shared<PoolThread>();
  worker->pool = this;
  worker->init = options_.workerInit;
  worker->cleanup = options_.workerCleanup;
  worker->context = options_.context;
  if (!StartThreadLocked(worker)) {
    return false;
  }
  // Counted idle from the start, so items added before it gets the lock do not each start
  // another worker.
  ++workers_;
  ++idleWorkers_;
  return true;
}

uint32_t Pool::CreateThread(const char* name, nvthreads_routine init, nvthreads_routine cleanup,
                            void* context) {
  Lock lock(mutex_);
  if (stopping_) {
    return NVTHREADS_E_STOPPING;
  }
  if (FindNamedLocked(name) != nullptr) {
    return NVTHREADS_E_EXISTS;
  }
  auto thread = std::make_shared<PoolThread>();
  thread->pool = this;
  thread->name = name;
  thread->named = true;
  thread->init = init;
  thread->cleanup = cleanup;
  thread->context = context;
  return StartThreadLocked(thread) ? NVTHREADS_OK : NVTHREADS_E_RESOURCES;
}

uint32_t Pool::AddItem(const char* thread, std::unique_ptr<WorkItem> item) {
  Lock lock(mutex_);
  if (stopping_) {
    return NVTHREADS_E_STOPPING;
  }
  if (item->process == nullptr) {
    item->process = options_.defaultProcess;
    if (item->process == nullptr) {
      return NVTHREADS_E_INVALID_ARG;
    }
  }
  if (thread != nullptr) {
    const auto target = FindNamedLocked(thread);
    if (target == nullptr) {
      return NVTHREADS_E_NO_THREAD;
    }
    target->queue.Push(std::move(item));
    target->cv.notify_all();
    return NVTHREADS_OK;
  }
  if (options_.maxWorkers == 0) {
    return NVTHREADS_E_NO_THREAD;
  }
  const auto due = item->due;
  const auto key = workQueue_.Push(std::move(item));
  if (due > Clock::now() && workQueue_.FrontDue() < due) {
    return NVTHREADS_OK;  // whoever waits for an earlier item looks again after it
  }
  if (due > Clock::now() && timekeeper_ != nullptr) {
    timekeeper_->cv.notify_one();  // an earlier deadline to wait for
    return NVTHREADS_OK;
  }
  if (!WakeWorkerLocked() && workers_ == 0) {
    // Nobody would ever run it; give the caller its context back.
    workQueue_.Take(key);
    return NVTHREADS_E_RESOURCES;
  }
  return NVTHREADS_OK;
}

bool Pool::WakeWorkerLocked() {
  if (!parked_.empty()) {
    PoolThread* worker = parked_.back();
    UnparkLocked(*worker);
    worker->cv.notify_one();
    return true;
  }
  // A worker starting or just woken looks at the queue before it parks.
  return idleWorkers_ > 0 || SpawnWorkerLocked();
}

void Pool::UnparkLocked(PoolThread& worker) {
  if (worker.parked) {
    worker.parked = false;
    std::erase(parked_, &worker);
  }
  if (timekeeper_ == &worker) {
    timekeeper_ = nullptr;
  }
}

uint32_t Pool::CancelItems(const char* thread, const char* name) {
  ItemQueue::Items removed;
  bool stoppedRunning = false;
  const auto stopRunning = [&](PoolThread& runner) {
    if (runner.running != nullptr && runner.running->Matches(name) &&
        runner.running->period.count() > 0) {
      runner.running->cancelled = true;
      stoppedRunning = true;
    }
  };
  {
    Lock lock(mutex_);
    if (thread != nullptr) {
      const auto target = FindNamedLocked(thread);
      if (target == nullptr) {
        // A thread gone with its shut-down pool took its items along.
        return stopping_ ? NVTHREADS_E_NOT_FOUND : NVTHREADS_E_NO_THREAD;
      }
      target->queue.TakeNamed(name, removed);
      stopRunning(*target);
    } else {
      workQueue_.TakeNamed(name, removed);
      for (const auto& worker : threads_) {
        if (!worker->named) {
          stopRunning(*worker);
        }
      }
    }
  }
  const bool found = stoppedRunning || !removed.empty();
  RunCleanups(removed);
  return found ? NVTHREADS_OK : NVTHREADS_E_NOT_FOUND;
}

void Pool::RunDueItem(Lock& lock, PoolThread& runner, ItemQueue& queue,
                      std::unique_ptr<WorkItem> item) {
  runner.running = item.get();
  lock.unlock();
  const bool again = RunOnce(*item);
  lock.lock();
  runner.running = nullptr;
  if (again && !item->cancelled && !runner.stop) {
    item->due = NextDue(item->due, item->period, Clock::now());
    queue.Push(std::move(item));
    return;
  }
  lock.unlock();
  CallRoutine(item->cleanup, item->context);
  item.reset();
  lock.lock();
}

void Pool::NamedThreadMain(const std::shared_ptr<PoolThread>& self) {
  CallRoutine(self->init, self->context);
  Lock lock(mutex_);
  while (!self->stop) {
    if (self->queue.Empty()) {
      self->cv.wait(lock);
    } else if (const auto due = self->queue.FrontDue(); due > Clock::now()) {
      self->cv.wait_until(lock, due);
    } else {
      RunDueItem(lock, *self, self->queue, self->queue.PopFront());
    }
  }
  // Items still pending are released here, on their own thread and before the thread's own
  // cleanup, which may free what their contexts point to.
  ItemQueue::Items dropped;
  self->queue.TakeAll(dropped);
  lock.unlock();
  RunCleanups(dropped);
  CallRoutine(self->cleanup, self->context);
  lock.lock();
  FinishThreadLocked(*self, false);
}

void Pool::WorkerMain(const std::shared_ptr<PoolThread>& self) {
  CallRoutine(self->init, self->context);
  Lock lock(mutex_);
  auto idleSince = Clock::now();
  bool idleExit = false;
  while (!self->stop) {
    UnparkLocked(*self);
    const auto now = Clock::now();
    if (!workQueue_.Empty() && workQueue_.FrontDue() <= now) {
      --idleWorkers_;
      auto item = workQueue_.PopFront();
      // What stays queued must not wait for this worker: one more worker takes over a due
      // item, or the wait for the next future one when nobody keeps it.
      if (!workQueue_.Empty() && (workQueue_.FrontDue() <= now || timekeeper_ == nullptr)) {
        WakeWorkerLocked();
      }
      RunDueItem(lock, *self, workQueue_, std::move(item));
      ++idleWorkers_;
      idleSince = Clock::now();
      continue;
    }
    const bool spare = workers_ > options_.minWorkers;
    const auto idleEnd = idleSince + kIdleWorkerTimeout;
    // A worker that would have to keep the time for a pending item stays.
    if (spare && now >= idleEnd && (workQueue_.Empty() || timekeeper_ != nullptr)) {
      idleExit = true;
      break;
    }
    auto deadline = spare ? idleEnd : Clock::time_point::max();
    if (!workQueue_.Empty() && timekeeper_ == nullptr) {
      timekeeper_ = self.get();
      deadline = std::min(deadline, workQueue_.FrontDue());
    }
    parked_.push_back(self.get());
    self->parked = true;
    if (deadline == Clock::time_point::max()) {
      self->cv.wait(lock);
    } else {
      self->cv.wait_until(lock, deadline);
    }
  }
  UnparkLocked(*self);
  --idleWorkers_;
  --workers_;
  lock.unlock();
  CallRoutine(self->cleanup, self->context);
  lock.lock();
  FinishThreadLocked(*self, idleExit);
}

void Pool::FinishThreadLocked(PoolThread& self, bool leftOnItsOwn) {
  self.ended = true;
  // Nobody will join a worker that ended for lack of work; a shutdown that started meanwhile
  // joins it like the others.
  if (leftOnItsOwn && !stopping_) {
    self.thread.detach();
    std::erase_if(threads_, [&](const auto& thread) { return thread.get() == &self; });
  }
  endedCv_.notify_all();
}

uint32_t Pool::Shutdown() {
  ItemQueue::Items dropped;
  Lock lock(mutex_);
  stopping_ = true;
  for (const auto& thread : threads_) {
    thread->stop = true;
    thread->cv.notify_all();
  }
  workQueue_.TakeAll(dropped);
  lock.unlock();
  RunCleanups(dropped);
  lock.lock();

  // A thread of this pool shutting it down is inside one of its routines: it ends when that
  // returns, and waiting for it here would wait for ever.
  const PoolThread* self = tCurrent != nullptr && tCurrent->pool == this ? tCurrent : nullptr;
  const bool allEnded = endedCv_.wait_until(lock, Clock::now() + shutdownBudget_, [&] {
    return std::all_of(threads_.begin(), threads_.end(),
                       [&](const auto& thread) { return thread->ended || thread.get() == self; });
  });

  std::vector<std::thread> finished;
  for (const auto& thread : threads_) {
    if (!thread->thread.joinable()) {
      continue;
    }
    if (thread->ended) {
      finished.push_back(std::move(thread->thread));
    } else {
      // Still busy after the budget (or the caller itself): it keeps its own reference to
      // the pool and ends when its routine returns.
      thread->thread.detach();
    }
  }
  std::erase_if(threads_, [](const auto& thread) { return thread->ended; });
  lock.unlock();
  for (auto& thread : finished) {
    thread.join();
  }
  return allEnded ? NVTHREADS_OK : NVTHREADS_E_TIMEOUT;
}

}  // namespace nvthreads
