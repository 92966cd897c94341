#include "network/dial_backoff.h"

#include <algorithm>

namespace norvel::network {

bool DialBackoff::may_dial(const std::string& key, int64_t delay_max_ms) const {
  const int64_t now = clock_.now_ms();
  const MutexLock lock(mutex_);
  const auto at = records_.find(key);
  return at == records_.end() || now - at->second.since_ms >= std::min(at->second.delay_ms, delay_max_ms);
}

int64_t DialBackoff::last_dial_ms(const std::string& key) const {
  const MutexLock lock(mutex_);
  const auto at = records_.find(key);
  return at == records_.end() ? 0 : at->second.since_ms;
}

void DialBackoff::note_dial(const std::string& key) {
  const int64_t now = clock_.now_ms();
  const MutexLock lock(mutex_);
  if (!records_.contains(key)) {
    make_room();
  }
  Record& record = records_[key];
  record.since_ms = now;
  record.delay_ms = std::clamp(2 * record.delay_ms, kDialDelayMinMs, kDialDelayMaxMs);
}

void DialBackoff::note_success(const std::string& key) {
  const int64_t now = clock_.now_ms();
  const MutexLock lock(mutex_);
  if (!records_.contains(key)) {
    make_room();
  }
  records_[key] = {now, kDialDelayMinMs};
}

void DialBackoff::make_room() {
  if (records_.size() >= kDialRecordsMax) {
    records_.erase(std::ranges::min_element(records_, {}, [](const auto& entry) { return entry.second.since_ms; }));
  }
}

}  // namespace norvel::network
