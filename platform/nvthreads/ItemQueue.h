#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "nvthreads/WorkItem.h"

namespace nvthreads {

/** @brief Pending work items in due-time order; equal due times keep insertion order. */
class ItemQueue {
 public:
  using Key = std::pair<Clock::time_point, uint64_t>;
  using Items = std::vector<std::unique_ptr<WorkItem>>;

  Key Push(std::unique_ptr<WorkItem> item) {
    const Key key{item->due, nextSeq_++};
    items_.emplace(key, std::move(item));
    return key;
  }

  bool Empty() const { return items_.empty(); }
  /** @brief Due time of the earliest item; the queue must not be empty. */
  Clock::time_point FrontDue() const { return items_.begin()->first.first; }

  std::unique_ptr<WorkItem> PopFront() { return Take(items_.begin()->first); }

  std::unique_ptr<WorkItem> Take(const Key& key) {
    auto node = items_.extract(key);
    return node.empty() ? nullptr : std::move(node.mapped());
  }

  /** @brief Moves every item called `name` to `out`. */
  void TakeNamed(const char* name, Items& out) {
    for (auto it = items_.begin(); it != items_.end();) {
      if (it->second->Matches(name)) {
        out.push_back(std::move(it->second));
        it = items_.erase(it);
      } else {
        ++it;
      }
    }
  }

  void TakeAll(Items& out) {
    for (auto& [key, item] : items_) {
      out.push_back(std::move(item));
    }
    items_.clear();
  }

 private:
  std::map<Key, std::unique_ptr<WorkItem>> items_;
  uint64_t nextSeq_ = 0;
};

}  // namespace nvthreads
