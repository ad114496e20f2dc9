#include "dialhome/AlertQueue.h"

#include <algorithm>
#include <sstream>

#include "core/KroStatus.h"
#include "hlp/Json.h"
#include "logging_support/logging_support.h"

namespace kro {

long AlertQueue::Add(const std::string& text) {
  try {
    auto alert = std::make_shared<const std::string>(text);
    std::lock_guard<std::mutex> lock(mutex_);
    alerts_.push_back(std::move(alert));
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

std::vector<AlertQueue::Text> AlertQueue::Snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return {alerts_.begin(), alerts_.end()};
}

void AlertQueue::DropFront(size_t count) {
  std::lock_guard<std::mutex> lock(mutex_);
  alerts_.erase(alerts_.begin(),
                alerts_.begin() + static_cast<ptrdiff_t>(std::min(count, alerts_.size())));
}

size_t AlertQueue::Size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return alerts_.size();
}

bool AlertQueue::ClaimRequest() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (requestQueued_) {
    return false;
  }
  requestQueued_ = true;
  return true;
}

void AlertQueue::EndRequest() {
  std::lock_guard<std::mutex> lock(mutex_);
  requestQueued_ = false;
}

AlertBatch WriteAlertData(hlp::JsonWriter& writer, const std::vector<AlertQueue::Text>& alerts,
                          size_t budget) {
  AlertBatch batch;
  size_t used = 0;
  for (const AlertQueue::Text& alert : alerts) {
    if (alert->empty()) {
      ++batch.taken;
      continue;
    }
    // Measured as written: escaping can make the JSON string much longer than the alert.
    std::ostringstream measured;
    hlp::JsonWriter probe(measured);
    probe.String(*alert);
    const size_t size = static_cast<size_t>(measured.tellp()) + 1;  // and its comma
    if (size > budget) {
      KRO_LOG_ERROR << "Alert of " << alert->size()
                    << " bytes is too large for a dial home report; it is not sent";
      ++batch.taken;
      continue;
    }
    if (size > budget - used) {
      break;
    }
    writer.String(*alert);
    used += size;
    ++batch.taken;
    batch.carried.push_back(alert);
  }
  return batch;
}

}  // namespace kro
