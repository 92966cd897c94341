#include "network/connection_rate.h"

namespace norvel::network {

namespace {

constexpr int64_t kRecordAgeMaxS = 60;

}  // namespace

bool ConnectionRate::admit(const std::string& ip) {
  const int64_t now = clock_.now();
  const MutexLock lock(mutex_);
  if (records_.size() >= kRateEntriesMax && !records_.contains(ip)) {
    purge_before(now);
    if (records_.size() >= kRateEntriesMax) {
      return false;
    }
  }
  Record& record = records_[ip];
  if (record.second != now) {
    record = {0, now};
  }
  if (record.count == kAcceptsPerSecondMax) {
    return false;
  }
  ++record.count;
  return true;
}

void ConnectionRate::purge() {
  const int64_t now = clock_.now();
  const MutexLock lock(mutex_);
  purge_before(now - kRecordAgeMaxS);
}

void ConnectionRate::purge_before(int64_t second) {
  std::erase_if(records_, [second](const auto& entry) { return entry.second.second < second; });
}

}  // namespace norvel::network
