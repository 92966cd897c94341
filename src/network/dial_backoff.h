// When an address may be dialled again: each dial doubles the delay until the
// next one, a completed handshake starts over. And which addresses a handshake was
// completed with, whatever the address book has had to make room for since.
//
// Threads: safe from any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/sync.h"
#include "network/network_clock.h"

namespace norvel::network {

inline constexpr int64_t kDialDelayMinMs = 10'000;
inline constexpr int64_t kDialDelayMaxMs = int64_t{30} * 60'000;

// For hosts that the operator named, and for all while no peer that was dialled is up.
inline constexpr int64_t kDialDelayUrgentMs = 60'000;

// Beyond it those not dialled for longest are forgotten, first of them those that do not count as reached.
inline constexpr size_t kDialRecordsMax = 40'000;

// That count as reached, of one /16 outside private ranges: the one not dialled for longest stops to.
inline constexpr size_t kReachedPerGroupMax = 64;

class DialBackoff {
 public:
  struct Past {
    int64_t last_ms = 0;   // NetworkClock, of the last dial or completed handshake; 0 when none is remembered
    bool reached = false;  // a handshake was completed, and it named itself as it was dialled
  };

  explicit DialBackoff(const NetworkClock& clock) : clock_(clock) {}

  // Whether the delay of `key`, at most `delay_max_ms`, is over.
  bool may_dial(const std::string& key, int64_t delay_max_ms) const EXCLUDES(mutex_);

  Past past(const std::string& key) const EXCLUDES(mutex_);

  // Keys of those that were reached, in their order.
  std::vector<std::string> list_reached() const EXCLUDES(mutex_);

  void note_dial(const std::string& key) EXCLUDES(mutex_);

  // The next dial waits kDialDelayMinMs from now.
  void note_success(const std::string& key, bool reached) EXCLUDES(mutex_);

 private:
  struct Record {
    int64_t since_ms = 0;
    int64_t delay_ms = 0;
    bool reached = false;
  };

  void make_room() REQUIRES(mutex_);
  void set_reached(const std::string& key, Record& record, bool reached) REQUIRES(mutex_);

  const NetworkClock& clock_;
  mutable Mutex mutex_;  // leaf
  std::map<std::string, Record> records_ GUARDED_BY(mutex_);
  std::map<std::string, std::set<std::string>> reached_ GUARDED_BY(mutex_);  // keys by /16
};

}  // namespace norvel::network
