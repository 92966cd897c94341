#include "chain/verdict_log.h"

namespace norvel {

std::shared_ptr<BlockVerdict> VerdictLog::remember(const uint256& hash, const std::string& reason) {
  forget(hash);
  while (verdicts_.size() >= kVerdictsMax) {
    forget(by_age_.front()->hash);
  }
  auto verdict = std::make_shared<BlockVerdict>(BlockVerdict{hash, reason});
  by_age_.push_back(verdict);
  verdicts_.emplace(hash, verdict);
  return verdict;
}

std::shared_ptr<BlockVerdict> VerdictLog::find(const uint256& hash) const {
  const auto found = verdicts_.find(hash);
  return found == verdicts_.end() ? nullptr : found->second;
}

void VerdictLog::forget(const uint256& hash) {
  const auto found = verdicts_.find(hash);
  if (found == verdicts_.end()) {
    return;
  }
  found->second->forgotten = true;
  std::erase(by_age_, found->second);
  verdicts_.erase(found);
}

}  // namespace norvel
