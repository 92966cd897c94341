// What an operator should know: each warning stands as long as its cause does
// and is printed at most once a minute.
//
// Threads: safe from any thread.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/sync.h"

namespace norvel::node {

inline constexpr uint64_t kFreeDiskWarningBytes = 1'000'000'000;
inline constexpr uint64_t kFreeDiskStopBytes = 200'000'000;  // below it the node stops
inline constexpr int64_t kClockOffsetMaxS = 600;

// What the warnings follow from.
struct NodeHealth {
  std::optional<uint64_t> free_disk_bytes;
  int64_t clock_offset_s = 0;         // most peers' clocks minus this machine's
  std::string refused_branch;         // tip of a heavier branch refused for its depth; empty: none
  bool storing_fails = false;         // the last block could not be stored
  std::optional<uint16_t> deaf_port;  // for peers: meant to be listened on, and is not
};

class Warnings {
 public:
  static constexpr int64_t kPeriodMs = 60'000;

  // Replaces what stands; returns the texts to print now. `now_ms` by a
  // monotonic clock.
  std::vector<std::string> update(const NodeHealth& health, int64_t now_ms) EXCLUDES(mutex_);

  // The texts that stand.
  std::vector<std::string> standing() const EXCLUDES(mutex_);

 private:
  enum class Kind { DISK, STORE, CLOCK, DEPTH, LISTEN };
  using Texts = std::map<Kind, std::string>;

  static Texts collect(const NodeHealth& health);

  mutable Mutex mutex_;  // leaf
  Texts standing_ GUARDED_BY(mutex_);
  std::map<Kind, int64_t> printed_ms_ GUARDED_BY(mutex_);
};

}  // namespace norvel::node
