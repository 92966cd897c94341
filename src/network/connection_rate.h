// Caps the connections accepted from one address within one second.
//
// Threads: safe from any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "core/sync.h"
#include "network/network_clock.h"

namespace norvel::network {

inline constexpr uint32_t kAcceptsPerSecondMax = 3;  // of one address

// Addresses remembered; while so many have connected within one second, nobody else may.
inline constexpr size_t kRateEntriesMax = 20'000;

class ConnectionRate {
 public:
  explicit ConnectionRate(const NetworkClock& clock) : clock_(clock) {}

  // Counts a connection from `ip`; whether it may come in.
  bool admit(const std::string& ip) EXCLUDES(mutex_);

  // Forgets the records that are 61 seconds old or older.
  void purge() EXCLUDES(mutex_);

 private:
  struct Record {
    uint32_t count = 0;
    int64_t second = 0;
  };

  void purge_before(int64_t second) REQUIRES(mutex_);

  const NetworkClock& clock_;
  Mutex mutex_;  // leaf
  std::map<std::string, Record> records_ GUARDED_BY(mutex_);
};

}  // namespace norvel::network
