// Keeps lines that a peer can trigger from filling a log: of each kind a few a
// second pass, and the next that passes tells how many were left out.
//
// Threads: safe from any thread; nothing is printed under its lock.

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "core/sync.h"
#include "network/network_clock.h"

namespace norvel::network {

inline constexpr uint32_t kLinesPerSecondMax = 5;  // of one kind

class LogLimiter {
 public:
  explicit LogLimiter(const NetworkClock& clock) : clock_(clock) {}

  // Print `text` (without a newline) unless its kind has had its lines of this
  // second. `kind` is one of a fixed set of names in the code, never a peer's text.
  void out(std::string_view kind, std::string_view text) EXCLUDES(mutex_);
  void error(std::string_view kind, std::string_view text) EXCLUDES(mutex_);

  // The same for "[Network] ", `what`, ": " and `reason`; prints nothing when there
  // is no memory for the line. For places that must go on whatever was thrown.
  void failure(std::string_view kind, std::string_view what, std::string_view reason) noexcept EXCLUDES(mutex_);

 private:
  struct Window {
    int64_t second = 0;
    uint32_t count = 0;
    uint64_t left_out = 0;
  };

  // How many lines of the kind were left out before this one, or -1 to leave out this one too.
  int64_t admit(std::string_view kind) EXCLUDES(mutex_);

  const NetworkClock& clock_;
  Mutex mutex_;  // leaf
  std::map<std::string, Window, std::less<>> windows_ GUARDED_BY(mutex_);
};

}  // namespace norvel::network
