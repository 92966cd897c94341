// The line that tells how far the node has caught up with its peers.
//
// Threads: single-threaded.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace norvel::node {

class SyncProgress {
 public:
  static constexpr int64_t kPeriodMs = 10'000;

  // To be called often, with the chain's height, the height that peers are known
  // to have, and a monotonic clock. Returns a line, without a prefix, at most
  // once a period: while the chain grows and is behind, and once more when it has
  // caught up.
  std::optional<std::string> update(uint32_t height, uint32_t best_known_height, int64_t now_ms);

 private:
  struct Mark {
    uint32_t height = 0;
    int64_t time_ms = 0;
  };

  std::optional<Mark> last_;  // where the period under way began
  bool behind_ = false;       // the last line was not the final one
};

}  // namespace norvel::node
