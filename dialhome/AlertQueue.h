#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace hlp {
class JsonWriter;
}

namespace kro {

/**
 * @brief The alerts waiting for a confirmed report, and whether a report of type request is
 * already on its way to carry them.
 *
 * A burst of alerts must not become a burst of reports: while one request is queued and has
 * not taken its snapshot yet, every further alert rides along with it. Any thread.
 */
class AlertQueue {
 public:
  using Text = std::shared_ptr<const std::string>;

  /** @brief Appends a copy of `text`. 0x80000030 when memory runs out. */
  long Add(const std::string& text);
  /** @brief The queued alerts, oldest first. */
  std::vector<Text> Snapshot() const;
  /** @brief Drops the `count` oldest alerts: those a confirmed report carried. */
  void DropFront(size_t count);
  size_t Size() const;

  /**
   * @brief True when the caller is to queue a request report: none is queued now. From then
   * on the queue counts one as queued until EndRequest.
   */
  bool ClaimRequest();
  /**
   * @brief The queued request starts (before its snapshot), or will not run at all: alerts
   * added from now on need a report of their own.
   */
  void EndRequest();

 private:
  mutable std::mutex mutex_;
  std::deque<Text> alerts_;
  bool requestQueued_ = false;
};

/** @brief What a report's "Data" array took from the front of a snapshot. */
struct AlertBatch {
  size_t taken = 0;                       // consumed from the front, written or not
  std::vector<AlertQueue::Text> carried;  // the ones written, in order
};

/**
 * @brief Writes alerts from the front of `alerts` as JSON strings while they fit in `budget`
 * bytes of JSON text, so that a report always fits its message buffer; the rest waits for the
 * next report. Empty texts are skipped, and so is an alert too large for any report (logged):
 * it would otherwise hold up every alert behind it.
 */
AlertBatch WriteAlertData(hlp::JsonWriter& writer, const std::vector<AlertQueue::Text>& alerts,
                          size_t budget);

}  // namespace kro
