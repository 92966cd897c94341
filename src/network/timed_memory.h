// Keys remembered for a fixed time, the oldest out when there are too many.
//
// Threads: single-threaded; whoever owns it guards it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <utility>

namespace norvel::network {

template <typename Key>
class TimedMemory {
 public:
  TimedMemory(size_t count_max, int64_t hold_ms) : count_max_(count_max), hold_ms_(hold_ms) {}

  // From now on for the whole time, also when the key was remembered before.
  void remember(const Key& key, int64_t now_ms) {
    while (!by_age_.empty() && by_age_.front().second <= now_ms) {
      drop_oldest();
    }
    until_[key] = now_ms + hold_ms_;
    by_age_.emplace_back(key, now_ms + hold_ms_);
    while (until_.size() > count_max_ || by_age_.size() > 2 * count_max_) {
      drop_oldest();
    }
  }

  void forget(const Key& key) { until_.erase(key); }

  bool contains(const Key& key, int64_t now_ms) const {
    const auto at = until_.find(key);
    return at != until_.end() && now_ms < at->second;
  }

 private:
  void drop_oldest() {
    const auto& [key, until_ms] = by_age_.front();
    if (const auto at = until_.find(key); at != until_.end() && at->second == until_ms) {
      until_.erase(at);
    }
    by_age_.pop_front();
  }

  const size_t count_max_;
  const int64_t hold_ms_;
  std::map<Key, int64_t> until_;
  std::deque<std::pair<Key, int64_t>> by_age_;  // a key remembered anew stands twice; the older one is void
};

}  // namespace norvel::network
