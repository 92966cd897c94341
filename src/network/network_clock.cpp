#include "network/network_clock.h"

#include <chrono>

namespace norvel::network {

namespace {

int64_t milliseconds(auto duration) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

int64_t monotonic_ms() {
  return milliseconds(std::chrono::steady_clock::now().time_since_epoch());
}

}  // namespace

NetworkClock::NetworkClock()
    : start_ms_(milliseconds(std::chrono::system_clock::now().time_since_epoch()) - monotonic_ms()) {}

int64_t NetworkClock::now_ms() const {
  return start_ms_ + monotonic_ms() + moved_ms_;
}

}  // namespace norvel::network
