// Looks host names up. The system's resolver cannot be told to stop, so each
// look-up runs on a thread that owns all it needs and is left alone when the
// asker goes on.
//
// Threads: safe from any thread.

#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "network/address_text.h"
#include "network/thread_group.h"

namespace norvel::network {

inline constexpr int kLookupsMax = 16;  // under way, abandoned ones included
inline constexpr std::chrono::milliseconds kLookupTimeout{10'000};

class NameLookup {
 public:
  // The first IPv4 address of `host`, at once for a dotted one. Nothing when there
  // is none within kLookupTimeout, kLookupsMax are under way, or `stop` is raised.
  std::optional<Ipv4> resolve(const std::string& host, StopSignal& stop);

  bool is_finished() const { return *running_ == 0; }

 private:
  // Counted up by askers, down by the threads, which may outlive this object.
  std::shared_ptr<std::atomic<int>> running_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace norvel::network
