#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dialhome/AlertQueue.h"
#include "dialhome/DialHomeInfo.h"
#include "logging_support/logging_support.h"

namespace kro {

/** @brief Why a report is sent; the number is what the message carries. */
enum DialHomeType { startup = 1, periodic = 2, request = 3 };

/** @brief The dial-home schedule in minutes, as the agent configuration gives it. */
struct DialHomeSchedule {
  uint32_t interval = 1440;
  uint32_t firstRetry = 15;
  uint32_t secondRetry = 60;
  uint32_t thirdRetry = 240;
};

/**
 * @brief The retry delay (minutes) after a failed report whose pending delay was `current`:
 * the next rung of the ladder, or 0 (leave it to the periodic report) past the last rung or
 * when the rung would not come before the next periodic report anyway.
 */
uint32_t NextRetryDelay(uint32_t current, const DialHomeSchedule& schedule);

/** @brief How long one report may wait on the network, in milliseconds. */
struct DialHomeWaits {
  uint32_t connectBudgetMs = 60000;    // pauses between attempts add up to this at most
  uint32_t connectIntervalMs = 10000;  // one pause between two attempts
  uint32_t connectTimeoutMs = 10000;   // one attempt: resolve, TCP, TLS handshake
  uint32_t requestTimeoutMs = 60000;   // one request and its whole answer
};

/**
 * @brief The dial-home client: reports this machine, the agent and the queued alerts to the
 * management server at start-up, periodically, on a retry ladder and on request.
 *
 * Every report runs on the thread "DialHomeMainThread" of the pool "DialHomePool", one at a
 * time. Construction is cheap; Create sets up the thread once the thread library is up. No
 * public function throws.
 */
class DialHome {
 public:
  static constexpr const char* kPool = "DialHomePool";
  static constexpr const char* kThread = "DialHomeMainThread";
  static constexpr const char* kStartupItem = "startup";
  static constexpr const char* kPeriodicItem = "periodic";
  static constexpr const char* kRetryItem = "retry";
  static constexpr const char* kRequestItem = "request";
  /** @brief Trusted certificates of the management server, beside the host executable. */
  static constexpr const char* kTrustFileName = "home_ca.pem";

  DialHome();
  ~DialHome();
  DialHome(const DialHome&) = delete;
  DialHome& operator=(const DialHome&) = delete;

  /**
   * @brief Copies the dial-home values of the agent configuration and creates the pool and its
   * thread. Call once, from the agent's main-thread set-up, after nvthreads_init. Returns the
   * thread library's status on failure (0x80000030 when the configuration cannot be had).
   */
  long Create();

  /** @brief The logger the client's thread installs; null leaves the thread's logger alone. */
  void SetLogger(logging_support::logger_type* logger);

  /**
   * @brief Takes the settings and schedules the first report 30 s from now and, only if that
   * worked, the periodic one (first at half the interval plus 30 s, then every interval).
   */
  long Start(const DialHomeInfo& settings);

  /** @brief Cancels the pending work items ("retry", "request", "periodic", "startup"). */
  void Stop();

  /**
   * @brief Queues a report of type request, to run at once on the client's thread, unless one
   * is queued already and has not started: that one carries whatever is queued by the time it
   * runs, so a burst of alerts makes a few reports, not one each.
   */
  long RequestDialHome();

  /**
   * @brief One connection attempt to the server the settings name (no retries); 0 when it
   * could be reached, the client's status otherwise.
   */
  long TestConnection(const DialHomeInfo& settings);

  /** @brief Queues an alert text for the next report. Any thread. */
  long AddAlert(const std::string& text);

  /**
   * @brief Called after a report the server confirmed, once per alert it carried, with the
   * alert's "id" (alerts without one are skipped). Runs on the client's thread.
   */
  void SetAlertDelivered(std::function<void(const std::string& alertId)> delivered);

  /**
   * @brief One report, serialised with the work items: re-reads the home server from the
   * settings file, sends, and on success drops the alerts it sent. 0 also when not enrolled.
   */
  long Run(DialHomeType type);

  /**
   * @brief Work-item entries; the context is the DialHome. "retry" reports as startup. The
   * "request" items that RequestDialHome queues enter through a context of their own.
   */
  static long StartupEntry(void* dialHome);
  static long PeriodicEntry(void* dialHome);
  static long RetryEntry(void* dialHome);
  static long RequestEntry(void* dialHome);

  /** @brief Pending retry delay in minutes; 0 when none is scheduled. */
  uint32_t RetryDelay() const { return retryDelay_.load(); }
  /** @brief Alerts waiting for a confirmed report. */
  size_t AlertQueueSize() const;
  /** @brief The schedule copied by Create. */
  DialHomeSchedule Schedule() const;

  /** @brief Folder of the trust file; by default the host executable's folder. */
  void SetHostDirectory(const std::filesystem::path& folder);
  /** @brief Network waits; by default from the configuration and the client's time-outs. */
  void SetConnectionWaits(const DialHomeWaits& waits);

 private:
  struct Exchange;
  struct QueuedRequest;
  using AlertText = AlertQueue::Text;

  long OnWorkItem(DialHomeType type);
  long RunLocked(DialHomeType type);
  long Main(Exchange& exchange, DialHomeType type, const std::vector<AlertText>& alerts,
            AlertBatch& batch);
  long BuildPayload(Exchange& exchange, DialHomeType type, const std::vector<AlertText>& alerts,
                    AlertBatch& batch);
  long ConnectWithRetry(Exchange& exchange);
  long SendRequest(Exchange& exchange);
  void PrepareClient(Exchange& exchange, uint32_t connectTimeoutMs);
  void ReportDelivered(const std::vector<AlertText>& alerts);
  std::filesystem::path TrustFile() const;
  static long ThreadInit(void* dialHome);
  static long QueuedRequestEntry(void* context);
  static long QueuedRequestDone(void* context);

  // Written by Create before any work item exists, read-only afterwards.
  DialHomeSchedule schedule_;
  uint32_t connRetryTimeoutSec_ = 60;
  uint32_t connRetryIntervalSec_ = 10;
  bool created_ = false;

  std::atomic<logging_support::logger_type*> logger_{nullptr};
  std::atomic<uint32_t> retryDelay_{0};

  // Guards settings_, waits_, hostDirectory_ and delivered_: set from other threads.
  mutable std::mutex settingsMutex_;
  DialHomeInfo settings_;
  DialHomeWaits waits_;
  bool waitsOverridden_ = false;
  std::filesystem::path hostDirectory_;
  std::function<void(const std::string&)> delivered_;

  AlertQueue alerts_;

  std::mutex runMutex_;
};

}  // namespace kro
