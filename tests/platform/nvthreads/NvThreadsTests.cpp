#include "nvthreads/nvthreads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// How late a timer may fire; it must never fire early.
constexpr auto kLateness = 50ms;

struct Event {
  std::string what;
  std::thread::id thread;
  Clock::time_point at;
};

/**
 * @brief What the routines did, in order, with the thread and time of each; and a gate they can
 * wait at until the test opens it.
 */
// A condition variable, not std::atomic::wait: without futexes (mingw) libstdc++'s atomic
// wait can miss a notification.
class Log {
 public:
  void Add(std::string what) {
    std::lock_guard lock(mutex_);
    events_.push_back({std::move(what), std::this_thread::get_id(), Clock::now()});
    changed_.notify_all();
  }
  /** @brief Waits until `count` events begin with `prefix`. */
  bool WaitFor(const std::string& prefix, size_t count = 1, std::chrono::milliseconds limit = 3s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return Matching(prefix).size() >= count; });
  }
  size_t Count(const std::string& prefix) { return Events(prefix).size(); }
  std::vector<Event> Events(const std::string& prefix = "") {
    std::lock_guard lock(mutex_);
    return Matching(prefix);
  }
  std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const Event& event : Events()) {
      names.push_back(event.what);
    }
    return names;
  }
  void OpenGate() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void WaitAtGate() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }

 private:
  std::vector<Event> Matching(const std::string& prefix) const {
    std::vector<Event> events;
    std::copy_if(events_.begin(), events_.end(), std::back_inserter(events),
                 [&](const Event& event) { return event.what.rfind(prefix, 0) == 0; });
    return events;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
  bool open_ = false;
};

/** @brief Context of the probe routines: logs "<tag>.init/.run/.cleanup" and runs hooks. */
struct Probe {
  Log* log;
  std::string tag;
  std::function<long()> run;
  std::function<void()> cleanup;

  long Note(const char* what) {
    log->Add(tag + what);
    return 0;
  }
};

long ProbeInit(void* context) {
  return static_cast<Probe*>(context)->Note(".init");
}

long ProbeRun(void* context) {
  Probe& probe = *static_cast<Probe*>(context);
  probe.Note(".run");
  return probe.run ? probe.run() : 0;
}

long ProbeCleanup(void* context) {
  Probe& probe = *static_cast<Probe*>(context);
  if (probe.cleanup) {
    probe.cleanup();
  }
  return probe.Note(".cleanup");
}

class NvThreadsTests : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(nvthreads_init(), NVTHREADS_OK); }
  void TearDown() override {
    // A failed assertion must not leave routines blocked for the whole shutdown budget.
    log_.OpenGate();
    nvthreads_cleanup();
  }

  Probe* NewProbe(std::string tag, std::function<long()> run = {}) {
    return &probes_.emplace_back(Probe{&log_, std::move(tag), std::move(run), {}});
  }
  /** @brief A probe whose run waits at the gate. */
  Probe* GatedProbe(std::string tag) {
    return NewProbe(std::move(tag), [this] {
      log_.WaitAtGate();
      return 0L;
    });
  }
  uint32_t CreateThread(const char* pool, const char* thread, Probe* probe) {
    return nvthreads_thread_create(pool, thread, ProbeInit, ProbeCleanup, 0, probe);
  }
  /** @brief Pool "P" with the named thread "T", whose probe is tagged "T". */
  bool StartPoolP() {
    return nvthreads_pool_init("P") == NVTHREADS_OK &&
           CreateThread("P", "T", NewProbe("T")) == NVTHREADS_OK;
  }
  uint32_t Add(const char* pool, const char* thread, const char* item, uint32_t delay,
               uint32_t period, Probe* probe) {
    return nvthreads_workitem_add(pool, thread, item, 1, delay, period, ProbeInit, ProbeCleanup,
                                  ProbeRun, probe);
  }

  Log log_;
  std::deque<Probe> probes_;  // stable addresses for the routines' contexts
};

TEST_F(NvThreadsTests, ItemsRunOnAFixedRateGridNeverEarly) {
  struct Case {
    const char* thread;
    uint32_t delayMs;
    uint32_t periodMs;
    std::chrono::milliseconds busy;  // a slow run must not push later runs back
  };
  const Case cases[] = {{"periodic", 150, 200, 0ms}, {"slow periodic", 100, 200, 120ms}};
  ASSERT_EQ(nvthreads_pool_init("P"), NVTHREADS_OK);
  const auto start = Clock::now();
  for (const auto& c : cases) {
    ASSERT_EQ(CreateThread("P", c.thread, NewProbe(std::string("thread ") + c.thread)),
              NVTHREADS_OK);
    const auto busy = c.busy;
    Probe* item = NewProbe(c.thread, [busy] {
      std::this_thread::sleep_for(busy);
      return 0L;
    });
    ASSERT_EQ(Add("P", c.thread, "item", c.delayMs, c.periodMs, item), NVTHREADS_OK);
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.thread);
    const std::string run = std::string(c.thread) + ".run";
    ASSERT_TRUE(log_.WaitFor(run, 3));
    EXPECT_EQ(nvthreads_workitem_cancel("P", c.thread, "item"), NVTHREADS_OK);
    ASSERT_TRUE(log_.WaitFor(std::string(c.thread) + ".cleanup"));
    size_t k = 0;
    for (const auto& event : log_.Events(run)) {
      const auto due = start + std::chrono::milliseconds(c.delayMs + k++ * c.periodMs);
      EXPECT_GE(event.at, due) << "run " << k;
      EXPECT_LE(event.at, due + kLateness) << "run " << k;
    }
  }
}

// Throwing routines count as failures: the item is done and the thread goes on.
TEST_F(NvThreadsTests, NamedThreadRunsItemsInDueOrderOnOneThreadAndSurvivesThrows) {
  ASSERT_TRUE(StartPoolP());
  ASSERT_EQ(Add("P", "T", "c", 80, 0, NewProbe("c")), NVTHREADS_OK);
  ASSERT_EQ(Add("P", "T", "a", 20, 0, NewProbe("a")), NVTHREADS_OK);
  ASSERT_EQ(Add("P", "T", "b", 20, 0, NewProbe("b")), NVTHREADS_OK);
  ASSERT_EQ(Add("P", "T", "boom", 40, 0, NewProbe("boom", []() -> long { throw 42; })),
            NVTHREADS_OK);
  // Periodic, so an item whose init failed and that was kept would run later.
  const nvthreads_routine throwingInit = [](void*) -> long { throw std::runtime_error("init"); };
  ASSERT_EQ(nvthreads_workitem_add("P", "T", "noinit", 1, 60, 10, throwingInit, ProbeCleanup,
                                   ProbeRun, NewProbe("noinit")),
            NVTHREADS_OK);
  ASSERT_TRUE(log_.WaitFor("c.cleanup"));
  ASSERT_EQ(nvthreads_pool_shutdown("P"), NVTHREADS_OK);

  const std::vector<std::string> expected = {
      "T.init",         "a.init",    "a.run",     "a.cleanup", "b.init",
      "b.run",          "b.cleanup", "boom.init", "boom.run",  "boom.cleanup",
      "noinit.cleanup", "c.init",    "c.run",     "c.cleanup", "T.cleanup"};
  EXPECT_EQ(log_.Names(), expected);
  const auto events = log_.Events();
  for (const auto& event : events) {
    SCOPED_TRACE(event.what);
    EXPECT_EQ(event.thread, events.front().thread);
  }
  EXPECT_NE(events.front().thread, std::this_thread::get_id());
}

TEST_F(NvThreadsTests, ShutdownReleasesDroppedItemsOnTheirThreadBeforeItsCleanup) {
  ASSERT_TRUE(StartPoolP());
  ASSERT_EQ(Add("P", "T", "far", 60000, 0, NewProbe("far")), NVTHREADS_OK);
  ASSERT_EQ(Add("P", "T", "tick", 0, 20, NewProbe("tick")), NVTHREADS_OK);
  ASSERT_TRUE(log_.WaitFor("tick.run", 2));
  ASSERT_EQ(nvthreads_pool_shutdown("P"), NVTHREADS_OK);

  EXPECT_EQ(log_.Count("far.init"), 0u);
  EXPECT_EQ(log_.Count("far.cleanup"), 1u);
  EXPECT_EQ(log_.Count("tick.cleanup"), 1u);
  EXPECT_EQ(log_.Names().back(), "T.cleanup");
  EXPECT_EQ(log_.Events("far").front().thread, log_.Events("T").front().thread);

  EXPECT_EQ(Add("P", "T", "late", 0, 0, NewProbe("late")), NVTHREADS_E_STOPPING);
  EXPECT_EQ(nvthreads_pool_shutdown("P"), NVTHREADS_OK) << "a second shutdown is harmless";
  EXPECT_EQ(nvthreads_pool_cleanup("P"), NVTHREADS_OK);
  EXPECT_EQ(nvthreads_pool_shutdown("P"), NVTHREADS_E_NO_POOL);
}

TEST_F(NvThreadsTests, CancelReleasesPendingItemsAndEndsARunningPeriodicItem) {
  ASSERT_TRUE(StartPoolP());
  ASSERT_EQ(Add("P", "T", "pending", 60000, 0, NewProbe("pending")), NVTHREADS_OK);
  ASSERT_EQ(Add("P", "T", "tick", 0, 20, GatedProbe("tick")), NVTHREADS_OK);

  EXPECT_EQ(nvthreads_workitem_cancel("P", "T", "pending"), NVTHREADS_OK);
  ASSERT_EQ(log_.Events("pending").size(), 1u) << "cleanup only, and before cancel returns";
  EXPECT_EQ(log_.Events("pending").front().thread, std::this_thread::get_id());

  ASSERT_TRUE(log_.WaitFor("tick.run"));
  EXPECT_EQ(nvthreads_workitem_cancel("P", "T", "tick"), NVTHREADS_OK);
  log_.OpenGate();
  ASSERT_TRUE(log_.WaitFor("tick.cleanup"));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(log_.Count("tick.run"), 1u);
  EXPECT_EQ(log_.Count("tick.cleanup"), 1u);
  EXPECT_EQ(nvthreads_workitem_cancel("P", "T", "tick"), NVTHREADS_E_NOT_FOUND);
}

TEST_F(NvThreadsTests, ItemCanReplacePendingItemsOfItsThreadAndDuplicatesAllRun) {
  std::vector<uint32_t> results;
  ASSERT_TRUE(StartPoolP());
  ASSERT_EQ(Add("P", "T", "retry", 60000, 0, NewProbe("old retry")), NVTHREADS_OK);
  Probe* retry = NewProbe("new retry");
  Probe* request = NewProbe("request");
  ASSERT_EQ(Add("P", "T", "driver", 0, 0,
                NewProbe("driver",
                         [&] {
                           results.push_back(nvthreads_workitem_cancel("P", "T", "retry"));
                           results.push_back(Add("P", "T", "retry", 0, 0, retry));
                           results.push_back(Add("P", "T", "request", 0, 0, request));
                           results.push_back(Add("P", "T", "request", 0, 0, request));
                           return 0L;
                         })),
            NVTHREADS_OK);
  ASSERT_TRUE(log_.WaitFor("new retry.cleanup"));
  ASSERT_TRUE(log_.WaitFor("request.cleanup", 2));
  EXPECT_EQ(results, std::vector<uint32_t>(4, NVTHREADS_OK));
  EXPECT_EQ(log_.Count("old retry.run"), 0u);
  EXPECT_EQ(log_.Count("old retry.cleanup"), 1u);
  EXPECT_EQ(log_.Count("request.run"), 2u);
}

// The agent's shape: an item stops its own pool, whose thread cleanup then shuts down a
// server pool with a polling loop and a sleeper that must both notice the stop.
TEST_F(NvThreadsTests, PoolThreadsCanShutDownTheirOwnAndOtherPools) {
  std::atomic<int> sleepResult{-1};
  std::atomic<uint32_t> ownShutdown{0};
  std::atomic<uint32_t> otherShutdown{0};
  const auto poll = [] {
    while (!nvthreads_thread_query_stop(nvthreads_workitem_query_threadctx())) {
      std::this_thread::sleep_for(10ms);
    }
    return 0L;
  };
  const auto nap = [&] {
    sleepResult = nvthreads_thread_sleep(nvthreads_workitem_query_threadctx(), 20000);
    return 0L;
  };
  ASSERT_EQ(nvthreads_pool_init("Server"), NVTHREADS_OK);
  ASSERT_EQ(CreateThread("Server", "Loop", NewProbe("Loop")), NVTHREADS_OK);
  ASSERT_EQ(CreateThread("Server", "Sleeper", NewProbe("Sleeper")), NVTHREADS_OK);
  ASSERT_EQ(Add("Server", "Loop", "poll", 0, 0, NewProbe("poll", poll)), NVTHREADS_OK);
  ASSERT_EQ(Add("Server", "Sleeper", "nap", 0, 0, NewProbe("nap", nap)), NVTHREADS_OK);
  ASSERT_TRUE(log_.WaitFor("poll.run"));
  ASSERT_TRUE(log_.WaitFor("nap.run"));

  ASSERT_EQ(nvthreads_pool_init("Main"), NVTHREADS_OK);
  Probe* mainThread = NewProbe("Main");
  mainThread->cleanup = [&] {
    otherShutdown = nvthreads_pool_shutdown("Server");
    nvthreads_pool_cleanup("Server");
  };
  ASSERT_EQ(CreateThread("Main", "MainThread", mainThread), NVTHREADS_OK);
  const auto start = Clock::now();
  ASSERT_EQ(Add("Main", "MainThread", "quit", 0, 0,
                NewProbe("quit",
                         [&] {
                           ownShutdown = nvthreads_pool_shutdown("Main");
                           return 0L;
                         })),
            NVTHREADS_OK);
  ASSERT_TRUE(log_.WaitFor("Main.cleanup"));
  EXPECT_LT(Clock::now() - start, 1s);
  EXPECT_EQ(ownShutdown, NVTHREADS_OK);
  EXPECT_EQ(otherShutdown, NVTHREADS_OK);
  EXPECT_EQ(sleepResult, 1) << "the sleep must end early because of the stop";
  for (const char* cleanup : {"poll.cleanup", "Loop.cleanup", "Sleeper.cleanup"}) {
    EXPECT_EQ(log_.Count(cleanup), 1u) << cleanup;
  }
  EXPECT_EQ(nvthreads_pool_shutdown("Server"), NVTHREADS_E_NO_POOL);
}

TEST_F(NvThreadsTests, AutoPoolRunsItemsConcurrentlyUpToMaxAndQueuesTheRest) {
  constexpr int kMax = 3;
  constexpr int kItems = 5;
  std::atomic<int> running{0};
  std::atomic<int> peak{0};
  ASSERT_EQ(nvthreads_pool_init_auto("Auto", 0, kMax, nullptr, nullptr, ProbeRun, nullptr),
            NVTHREADS_OK);
  for (int i = 0; i < kItems; ++i) {
    Probe* connection = NewProbe("conn", [&] {
      const int now = ++running;
      peak = std::max(peak.load(), now);
      log_.WaitAtGate();
      --running;
      return 0L;
    });
    ASSERT_EQ(nvthreads_workitem_add("Auto", nullptr, nullptr, 1, 0, 0, ProbeInit, ProbeCleanup,
                                     nullptr, connection),
              NVTHREADS_OK);
  }
  ASSERT_TRUE(log_.WaitFor("conn.run", kMax));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(log_.Count("conn.run"), static_cast<size_t>(kMax));
  log_.OpenGate();
  ASSERT_TRUE(log_.WaitFor("conn.cleanup", kItems));
  EXPECT_EQ(peak, kMax);
  EXPECT_EQ(log_.Count("conn.init"), static_cast<size_t>(kItems));
}

TEST_F(NvThreadsTests, StuckRoutineMakesShutdownTimeOutAndFinishesLaterUnharmed) {
  std::atomic<int> sawStop{0};
  ASSERT_EQ(nvthreads_pool_init_auto("Web", 0, 2, nullptr, nullptr, nullptr, nullptr),
            NVTHREADS_OK);
  ASSERT_EQ(nvthreads_pool_set_shutdownmsecs("Web", 200), NVTHREADS_OK);
  ASSERT_EQ(Add("Web", nullptr, nullptr, 0, 0,
                NewProbe("stuck",
                         [&] {
                           log_.WaitAtGate();
                           sawStop =
                               nvthreads_thread_query_stop(nvthreads_workitem_query_threadctx());
                           return 0L;
                         })),
            NVTHREADS_OK);
  ASSERT_TRUE(log_.WaitFor("stuck.run"));
  // Should shutdown overrun its budget, this lets the routine go so the test fails, not hangs.
  std::thread rescue([this] {
    if (!log_.WaitFor("stuck.cleanup", 1, 2s)) {
      log_.OpenGate();
    }
  });

  const auto start = Clock::now();
  EXPECT_EQ(nvthreads_pool_shutdown("Web"), NVTHREADS_E_TIMEOUT);
  const auto took = Clock::now() - start;
  EXPECT_GE(took, 200ms);
  EXPECT_LT(took, 700ms);
  EXPECT_EQ(nvthreads_pool_cleanup("Web"), NVTHREADS_OK);

  log_.OpenGate();
  ASSERT_TRUE(log_.WaitFor("stuck.cleanup"));
  rescue.join();
  EXPECT_EQ(sawStop, 1);
}

TEST_F(NvThreadsTests, CallsReportTheirErrors) {
  ASSERT_TRUE(StartPoolP());
  ASSERT_EQ(nvthreads_pool_init_auto("A", 0, 1, nullptr, nullptr, nullptr, nullptr), NVTHREADS_OK);
  Probe* probe = NewProbe("never");
  struct Case {
    const char* what;
    uint32_t result;
    uint32_t expected;
  };
  const Case cases[] = {
      {"duplicate pool", nvthreads_pool_init("P"), NVTHREADS_E_EXISTS},
      {"null pool name", nvthreads_pool_init(nullptr), NVTHREADS_E_INVALID_ARG},
      {"no workers", nvthreads_pool_init_auto("Z", 0, 0, nullptr, nullptr, nullptr, nullptr),
       NVTHREADS_E_INVALID_ARG},
      {"min above max", nvthreads_pool_init_auto("Z", 3, 2, nullptr, nullptr, nullptr, nullptr),
       NVTHREADS_E_INVALID_ARG},
      {"duplicate thread", CreateThread("P", "T", probe), NVTHREADS_E_EXISTS},
      {"null thread name", CreateThread("P", nullptr, probe), NVTHREADS_E_INVALID_ARG},
      {"item in no pool", Add("X", "T", "i", 0, 0, probe), NVTHREADS_E_NO_POOL},
      {"item on no thread", Add("P", "U", "i", 0, 0, probe), NVTHREADS_E_NO_THREAD},
      {"worker item in named pool", Add("P", nullptr, "i", 0, 0, probe), NVTHREADS_E_NO_THREAD},
      {"no process and no default",
       nvthreads_workitem_add("A", nullptr, "i", 1, 0, 0, nullptr, nullptr, nullptr, probe),
       NVTHREADS_E_INVALID_ARG},
      {"cancel on no thread", nvthreads_workitem_cancel("P", "U", "i"), NVTHREADS_E_NO_THREAD},
      {"cancel of no item", nvthreads_workitem_cancel("P", "T", "i"), NVTHREADS_E_NOT_FOUND},
      {"cancel null item", nvthreads_workitem_cancel("P", "T", nullptr), NVTHREADS_E_INVALID_ARG},
      {"shutdown of no pool", nvthreads_pool_shutdown("X"), NVTHREADS_E_NO_POOL},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.result, c.expected);
  }
  EXPECT_EQ(log_.Count("never.init") + log_.Count("never.cleanup"), 0u);
  EXPECT_NE(nvthreads_thread_query_stop(nullptr), 0);
  EXPECT_EQ(nvthreads_workitem_query_threadctx(), nullptr);
  const auto start = Clock::now();
  EXPECT_EQ(nvthreads_thread_sleep(nullptr, 30), 0);
  EXPECT_GE(Clock::now() - start, 30ms);
}

TEST_F(NvThreadsTests, InitIsCountedAndTheLastCleanupShutsDownEveryPool) {
  ASSERT_EQ(nvthreads_init(), NVTHREADS_OK);
  ASSERT_TRUE(StartPoolP());
  ASSERT_EQ(nvthreads_cleanup(), NVTHREADS_OK);
  EXPECT_EQ(nvthreads_pool_set_shutdownmsecs("P", 1000), NVTHREADS_OK);
  ASSERT_EQ(nvthreads_cleanup(), NVTHREADS_OK);
  EXPECT_EQ(log_.Count("T.cleanup"), 1u);

  EXPECT_EQ(nvthreads_cleanup(), NVTHREADS_E_NOT_INITIALIZED);
  EXPECT_EQ(nvthreads_pool_init("P"), NVTHREADS_E_NOT_INITIALIZED);
  EXPECT_EQ(nvthreads_pool_shutdown("P"), NVTHREADS_E_NOT_INITIALIZED);
  EXPECT_EQ(Add("P", "T", "i", 0, 0, &probes_.front()), NVTHREADS_E_NOT_INITIALIZED);
  ASSERT_EQ(nvthreads_init(), NVTHREADS_OK);  // for TearDown
  EXPECT_EQ(nvthreads_pool_shutdown("P"), NVTHREADS_E_NO_POOL);
}

}  // namespace
