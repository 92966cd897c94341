#include "network/network_clock.h"

#include <algorithm>
#include <chrono>

namespace norvel::network {

namespace {

int64_t milliseconds(auto duration) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

int64_t steady_ms() {
  return milliseconds(std::chrono::steady_clock::now().time_since_epoch());
}

}  // namespace

NetworkClock::NetworkClock()
    : start_ms_(milliseconds(std::chrono::system_clock::now().time_since_epoch()) - steady_ms()) {}

int64_t NetworkClock::monotonic_ms() const {
  return steady_ms() + stalled_ms_;
}

int64_t NetworkClock::heard_ms() const {
  const MutexLock lock(mutex_);
  const int64_t monotonic = monotonic_ms();
  return start_ms_ + monotonic + moved_ms_ - excused_ms_ - unheard_ms(monotonic);
}

void NetworkClock::begin_pass() {
  const MutexLock lock(mutex_);
  const int64_t monotonic = monotonic_ms();
  excused_ms_ += unheard_ms(monotonic);
  pass_start_ms_ = monotonic;
  in_pass_ = true;
}

void NetworkClock::end_passes() {
  const MutexLock lock(mutex_);
  excused_ms_ += unheard_ms(monotonic_ms());
  in_pass_ = false;
}

// What the present pass has taken too long.
int64_t NetworkClock::unheard_ms(int64_t monotonic) const {
  return in_pass_ ? std::max<int64_t>(0, monotonic - pass_start_ms_ - kHeardPassMs) : 0;
}

}  // namespace norvel::network
