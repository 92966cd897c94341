// The clock of time-outs, bans, spam and rate windows: wall time at start plus
// the monotonic time since, so that setting the system's clock neither bans nor
// forgives anybody. Tests move it by hand.
//
// Threads: safe from any thread.

#pragma once

#include <atomic>
#include <cstdint>

namespace norvel::network {

class NetworkClock {
 public:
  NetworkClock();

  // Seconds since the Unix epoch.
  int64_t now() const { return now_ms() / 1'000; }

  // Milliseconds since the Unix epoch.
  int64_t now_ms() const;

  // Moves the clock on, for tests.
  void advance_ms(int64_t ms) { moved_ms_ += ms; }

 private:
  const int64_t start_ms_;            // wall clock minus monotonic clock, at construction
  std::atomic<int64_t> moved_ms_{0};  // written by tests only
};

}  // namespace norvel::network
