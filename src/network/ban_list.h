// Banned addresses and the misbehaviour scores that lead there. A score belongs
// to an address and outlives its connections; a ban lasts a given time.
//
// Threads: safe from any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/sync.h"
#include "network/network_clock.h"

namespace norvel::network {

inline constexpr uint32_t kBanScore = 100;

// Of bans and of scores; beyond it the oldest ban or the lowest score goes.
inline constexpr size_t kBanEntriesMax = 20'000;

class BanList {
 public:
  BanList(const NetworkClock& clock, uint32_t duration_s) : clock_(clock), duration_s_(duration_s) {}

  // Adds to the score of `ip`, which stays at its largest value rather than wrap.
  // True when it has reached kBanScore.
  bool add_points(const std::string& ip, uint32_t points) EXCLUDES(mutex_);

  // From now on; takes the score away.
  void ban(const std::string& ip) EXCLUDES(mutex_);

  // Takes ban and score away.
  void unban(const std::string& ip) EXCLUDES(mutex_);

  bool is_banned(const std::string& ip) const EXCLUDES(mutex_);

  // Lifts the bans that are more than the duration old; which, ascending.
  std::vector<std::string> expire() EXCLUDES(mutex_);

 private:
  const NetworkClock& clock_;
  const uint32_t duration_s_;
  mutable Mutex mutex_;                                          // leaf
  std::map<std::string, int64_t> ban_times_ GUARDED_BY(mutex_);  // seconds
  std::map<std::string, uint32_t> ban_scores_ GUARDED_BY(mutex_);
};

}  // namespace norvel::network
