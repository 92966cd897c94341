#include "network/dial_backoff.h"

#include <algorithm>
#include <utility>

namespace norvel::network {

bool DialBackoff::may_dial(const std::string& key, int64_t delay_max_ms) const {
  const int64_t now = clock_.now_ms();
  const MutexLock lock(mutex_);
  const auto at = records_.find(key);
  return at == records_.end() || now - at->second.since_ms >= std::min(at->second.delay_ms, delay_max_ms);
}

DialBackoff::Past DialBackoff::past(const std::string& key) const {
  const MutexLock lock(mutex_);
  const auto at = records_.find(key);
  return at == records_.end() ? Past() : Past{at->second.since_ms, at->second.reached};
}

std::vector<std::string> DialBackoff::list_reached() const {
  std::vector<std::string> keys;
  const MutexLock lock(mutex_);
  for (const auto& [key, record] : records_) {
    if (record.reached) {
      keys.push_back(key);
    }
  }
  return keys;
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

void DialBackoff::note_success(const std::string& key, bool reached) {
  const int64_t now = clock_.now_ms();
  const MutexLock lock(mutex_);
  if (!records_.contains(key)) {
    make_room();
  }
  records_[key] = {now, kDialDelayMinMs, reached};
}

void DialBackoff::make_room() {
  if (records_.size() >= kDialRecordsMax) {
    const auto rank = [](const auto& entry) { return std::pair(entry.second.reached, entry.second.since_ms); };
    records_.erase(std::ranges::min_element(records_, {}, rank));
  }
}

}  // namespace norvel::network
