// How late nvthreads timers fire at the agent's real scale, and what an idle pool costs.
// Prints figures; it checks nothing. Takes about 25 s.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>
#include <vector>

#include "nvthreads/nvthreads.h"

#ifndef _WIN32
#include <sys/resource.h>
#endif

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/** @brief When each run of an item happened. */
struct Runs {
  std::mutex mutex;
  std::vector<Clock::time_point> at;
};

long Record(void* context) {
  auto& runs = *static_cast<Runs*>(context);
  std::lock_guard lock(runs.mutex);
  runs.at.push_back(Clock::now());
  return 0;
}

/** @brief User plus system CPU time of the process so far; none where it is not measured. */
std::optional<std::chrono::microseconds> ProcessCpuTime() {
#ifdef _WIN32
  return std::nullopt;
#else
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto toMicros = [](const timeval& tv) {
    return std::chrono::seconds(tv.tv_sec) + std::chrono::microseconds(tv.tv_usec);
  };
  return toMicros(usage.ru_utime) + toMicros(usage.ru_stime);
#endif
}

void PrintLateness(const char* what, Clock::time_point firstDue, std::chrono::milliseconds period,
                   const std::vector<Clock::time_point>& runs) {
  std::vector<double> late;
  for (size_t k = 0; k < runs.size(); ++k) {
    const auto due = firstDue + period * static_cast<int>(k);
    late.push_back(std::chrono::duration<double, std::milli>(runs[k] - due).count());
  }
  if (late.empty()) {
    std::printf("%-28s no runs\n", what);
    return;
  }
  const double max = *std::max_element(late.begin(), late.end());
  const double mean = std::accumulate(late.begin(), late.end(), 0.0) / late.size();
  std::printf("%-28s runs %2zu  lateness max %7.3f ms  mean %7.3f ms\n", what, late.size(), max,
              mean);
}

void MeasureLateness() {
  Runs once;
  Runs periodic;
  nvthreads_pool_init("BenchTimers");
  nvthreads_thread_create("BenchTimers", "Once", nullptr, nullptr, 0, nullptr);
  nvthreads_thread_create("BenchTimers", "Periodic", nullptr, nullptr, 0, nullptr);
  const auto start = Clock::now();
  nvthreads_workitem_add("BenchTimers", "Once", "once", 1, 15000, 0, nullptr, nullptr, Record,
                         &once);
  nvthreads_workitem_add("BenchTimers", "Periodic", "periodic", 1, 1000, 1000, nullptr, nullptr,
                         Record, &periodic);
  std::this_thread::sleep_for(15500ms);
  nvthreads_pool_cleanup("BenchTimers");

  PrintLateness("one-shot, 15 s", start + 15s, 0ms, once.at);
  periodic.at.resize(std::min<size_t>(periodic.at.size(), 10));
  PrintLateness("periodic 1 s, 10 periods", start + 1s, 1000ms, periodic.at);
}

void MeasureIdleCpu() {
  Runs never;
  nvthreads_pool_init("BenchIdle");
  nvthreads_thread_create("BenchIdle", "Idle", nullptr, nullptr, 0, nullptr);
  nvthreads_workitem_add("BenchIdle", "Idle", "far", 1, 86400000, 0, nullptr, nullptr, Record,
                         &never);
  const auto before = ProcessCpuTime();
  std::this_thread::sleep_for(10s);
  const auto after = ProcessCpuTime();
  nvthreads_pool_cleanup("BenchIdle");
  if (!before || !after) {
    std::printf("idle pool CPU time: not measured on this platform\n");
    return;
  }
  std::printf("idle pool CPU time over 10 s: %.3f ms\n",
              std::chrono::duration<double, std::milli>(*after - *before).count());
}

}  // namespace

int main() {
  nvthreads_init();
  MeasureLateness();
  MeasureIdleCpu();
  nvthreads_cleanup();
  return 0;
}
