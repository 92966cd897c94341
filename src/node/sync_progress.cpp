#include "node/sync_progress.h"

#include "core/number_text.h"

namespace norvel::node {

std::optional<std::string> SyncProgress::update(uint32_t height, uint32_t best_known_height, int64_t now_ms) {
  if (!last_) {
    last_ = Mark{height, now_ms};
  }
  const int64_t elapsed_ms = now_ms - last_->time_ms;
  if (elapsed_ms < kPeriodMs) {
    return std::nullopt;
  }
  const uint32_t grown = height > last_->height ? height - last_->height : 0;
  last_ = Mark{height, now_ms};
  if (best_known_height <= height) {
    if (!behind_) {
      return std::nullopt;
    }
    behind_ = false;
    return "In step with the network at height " + std::to_string(height);
  }
  // One block behind is where a node is whenever the network has found one.
  if (grown == 0 || (best_known_height - height == 1 && !behind_)) {
    return std::nullopt;
  }
  behind_ = true;
  const double percent = 100.0 * height / best_known_height;
  const double rate = 1'000.0 * grown / static_cast<double>(elapsed_ms);
  return "Synchronising: height " + std::to_string(height) + " of " + std::to_string(best_known_height) + " (" +
         to_fixed(percent, 1) + "%), " + to_fixed(rate, 1) + " blocks/s";
}

}  // namespace norvel::node
