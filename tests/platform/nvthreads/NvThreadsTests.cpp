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

struct Event {
  std::string what;
  std::thread::id thread;
  Clock::time_point at;
};

/** @brief What the routines did, in order, with the thread and time of each. */
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
  std::vector<Event> Events(const std::string& prefix = "") {
    std::lock_guard lock(mutex_);
    return Matching(prefix);
  }
  size_t Count(const std::string& prefix) { return Events(prefix).size(); }

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
};

/** @brief Context of the probe routines: logs "<tag>.init/.run/.cleanup" and runs `run`. */
struct Probe {
  Log* log;
  std::string tag;
  std::function<long()> run;
};

long ProbeInit(void* context) {
  auto& probe = *static_cast<Probe*>(context);
  probe.log->Add(probe.tag + ".init");
  return 0;
}

long ProbeRun(void* context) {
  auto& probe = *static_cast<Probe*>(context);
  probe.log->Add(probe.tag + ".run");
  return probe.run ? probe.run() : 0;
}

long ProbeCleanup(void* context) {
  auto& probe = *static_cast<Probe*>(context);
  probe.log->Add(probe.tag + ".cleanup");
  return 0;
}

class NvThreadsTests : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(nvthreads_init(), NVTHREADS_OK); }
  void TearDown() override { nvthreads_cleanup(); }

  Probe* NewProbe(std::string tag, std::function<long()> run = {}) {
    return &probes_.emplace_back(Probe{&log_, std::move(tag), std::move(run)});
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
  // A slow run must not push later runs back; a timer may fire 50 ms late, never early.
  ASSERT_TRUE(StartPoolP());
  const auto start = Clock::now();
  ASSERT_EQ(Add("P", "T", "item", 100, 200,
                NewProbe("slow",
                         [] {
                           std::this_thread::sleep_for(120ms);
                           return 0L;
                         })),
            NVTHREADS_OK);
  ASSERT_TRUE(log_.WaitFor("slow.run", 3));
  EXPECT_EQ(nvthreads_workitem_cancel("P", "T", "item"), NVTHREADS_OK);
  ASSERT_TRUE(log_.WaitFor("slow.cleanup"));
  size_t k = 0;
  for (const auto& event : log_.Events("slow.run")) {
    const auto due = start + std::chrono::milliseconds(100 + k++ * 200);
    EXPECT_GE(event.at, due) << "run " << k;
    EXPECT_LE(event.at, due + 50ms) << "run " << k;
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

  std::string order;
  for (const auto& event : log_.Events()) {
    order += event.what + " ";
    EXPECT_EQ(event.thread, log_.Events().front().thread) << event.what;
  }
  EXPECT_EQ(order,
            "T.init a.init a.run a.cleanup b.init b.run b.cleanup boom.init boom.run boom.cleanup "
            "noinit.cleanup c.init c.run c.cleanup T.cleanup ");
  EXPECT_NE(log_.Events().front().thread, std::this_thread::get_id());
}

TEST_F(NvThreadsTests, CallsReportTheirErrors) {
  ASSERT_TRUE(StartPoolP());
  Probe* probe = NewProbe("never");
  EXPECT_EQ(nvthreads_pool_init("P"), NVTHREADS_E_EXISTS);
  EXPECT_EQ(CreateThread("P", "T", probe), NVTHREADS_E_EXISTS);
  EXPECT_EQ(Add("X", "T", "i", 0, 0, probe), NVTHREADS_E_NO_POOL);
  EXPECT_EQ(Add("P", "U", "i", 0, 0, probe), NVTHREADS_E_NO_THREAD);
  EXPECT_EQ(nvthreads_workitem_cancel("P", "T", "i"), NVTHREADS_E_NOT_FOUND);
  EXPECT_EQ(log_.Count("never"), 0u);
  // The last cleanup of a counted init shuts every pool down.
  ASSERT_EQ(nvthreads_init(), NVTHREADS_OK);
  ASSERT_EQ(nvthreads_cleanup(), NVTHREADS_OK);
  EXPECT_EQ(log_.Count("T.cleanup"), 0u);
  ASSERT_EQ(nvthreads_cleanup(), NVTHREADS_OK);
  EXPECT_EQ(log_.Count("T.cleanup"), 1u);
  EXPECT_EQ(nvthreads_pool_init("P"), NVTHREADS_E_NOT_INITIALIZED);
  ASSERT_EQ(nvthreads_init(), NVTHREADS_OK);  // for TearDown
}

}  // namespace
