// The clock of time-outs, bans, spam and rate windows: wall time at start plus
// the monotonic time since, so that setting the system's clock neither bans nor
// forgives anybody. Tests move it by hand.
//
// Beside it runs the time in which peers could be heard: what the message handler
// did not read is nobody's silence, so a pass of it counts for no more than
// kHeardPassMs.
//
// Threads: safe from any thread, but for begin_pass() and end_passes(): the
// message handler's only.

#pragma once

#include <atomic>
#include <cstdint>

#include "core/sync.h"

namespace norvel::network {

inline constexpr int64_t kHeardPassMs = 1'000;  // real time, from the start of a pass to that of the next

class NetworkClock {
 public:
  NetworkClock();

  // Seconds since the Unix epoch.
  int64_t now() const { return now_ms() / 1'000; }

  // Milliseconds since the Unix epoch.
  int64_t now_ms() const { return start_ms_ + monotonic_ms() + moved_ms_; }

  // The same without what passes of the message handler took too long, the present
  // one included: never goes back, stands still while a pass stalls.
  int64_t heard_ms() const EXCLUDES(mutex_);

  // A pass of the message handler begins, or its thread ends.
  void begin_pass() EXCLUDES(mutex_);
  void end_passes() EXCLUDES(mutex_);

  // Moves the clock on, for tests: by hand, or as if so much real time had passed.
  void advance_ms(int64_t ms) { moved_ms_ += ms; }
  void stall_ms(int64_t ms) { stalled_ms_ += ms; }

 private:
  int64_t monotonic_ms() const;
  int64_t unheard_ms(int64_t monotonic) const REQUIRES(mutex_);

  const int64_t start_ms_;  // wall clock minus monotonic clock, at construction

  // Written by tests only.
  std::atomic<int64_t> moved_ms_{0};
  std::atomic<int64_t> stalled_ms_{0};

  mutable Mutex mutex_;  // leaf
  bool in_pass_ GUARDED_BY(mutex_) = false;
  int64_t pass_start_ms_ GUARDED_BY(mutex_) = 0;  // monotonic
  int64_t excused_ms_ GUARDED_BY(mutex_) = 0;     // by earlier passes
};

}  // namespace norvel::network
