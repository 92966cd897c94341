#include "network/dial_backoff.h"

#include <algorithm>
#include <utility>

#include "network/address_text.h"

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
  Record& record = records_[key];
  record.since_ms = now;
  record.delay_ms = kDialDelayMinMs;
  set_reached(key, record, reached);
}

void DialBackoff::set_reached(const std::string& key, Record& record, bool reached) {
  record.reached = reached;
  const std::string name = group_of(ip_of_key(key));
  if (name.empty()) {
    return;
  }
  std::set<std::string>& group = reached_[name];
  if (reached) {
    group.insert(key);
  } else {
    group.erase(key);
  }
  if (group.size() > kReachedPerGroupMax) {
    auto oldest = group.begin();
    for (auto at = group.begin(); at != group.end(); ++at) {
      oldest = records_[*at].since_ms < records_[*oldest].since_ms ? at : oldest;
    }
    records_[*oldest].reached = false;
    group.erase(oldest);
  }
  if (group.empty()) {
    reached_.erase(name);
  }
}

void DialBackoff::make_room() {
  if (records_.size() >= kDialRecordsMax) {
    const auto rank = [](const auto& entry) { return std::pair(entry.second.reached, entry.second.since_ms); };
    const auto first = std::ranges::min_element(records_, {}, rank);
    set_reached(first->first, first->second, false);
    records_.erase(first);
  }
}

}  // namespace norvel::network
