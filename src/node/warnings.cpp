#include "node/warnings.h"

#include <cstdlib>

namespace norvel::node {

namespace {

constexpr uint64_t kMegabyte = 1'000'000;

}  // namespace

Warnings::Texts Warnings::collect(const NodeHealth& health) {
  Texts texts;
  if (health.free_disk_bytes && *health.free_disk_bytes < kFreeDiskWarningBytes) {
    texts[Kind::DISK] = "Only " + std::to_string(*health.free_disk_bytes / kMegabyte) +
                        " MB of disk are free; the node stops below " + std::to_string(kFreeDiskStopBytes / kMegabyte) +
                        " MB";
  }
  if (health.storing_fails) {
    texts[Kind::STORE] = "The last block could not be stored: see the lines on its file; a restart may mend it";
  }
  if (std::abs(health.clock_offset_s) > kClockOffsetMaxS) {
    texts[Kind::CLOCK] = "This machine's clock is " + std::to_string(std::abs(health.clock_offset_s)) + " s " +
                         (health.clock_offset_s > 0 ? "behind" : "ahead of") + " most peers' clocks";
  }
  if (!health.refused_branch.empty()) {
    texts[Kind::DEPTH] = "A heavier branch was refused because its fork lies too deep: " + health.refused_branch;
  }
  if (health.deaf_port) {
    texts[Kind::LISTEN] = "No peer can connect: port " + std::to_string(*health.deaf_port) +
                          " is not listened on; start again once it is free";
  }
  return texts;
}

std::vector<std::string> Warnings::update(const NodeHealth& health, int64_t now_ms) {
  Texts texts = collect(health);
  std::vector<std::string> due;
  const MutexLock lock(mutex_);
  for (const auto& [kind, text] : texts) {
    const auto printed = printed_ms_.find(kind);
    if (printed == printed_ms_.end() || now_ms - printed->second >= kPeriodMs) {
      printed_ms_[kind] = now_ms;
      due.push_back(text);
    }
  }
  standing_ = std::move(texts);
  return due;
}

std::vector<std::string> Warnings::standing() const {
  const MutexLock lock(mutex_);
  std::vector<std::string> texts;
  for (const auto& [kind, text] : standing_) {
    texts.push_back(text);
  }
  return texts;
}

}  // namespace norvel::node
