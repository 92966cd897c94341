#include "chain/verdict_log.h"

namespace norvel {

std::shared_ptr<BlockVerdict> VerdictLog::remember(const uint256& hash, const std::string& reason) {
  if (const auto known = verdicts_.find(hash); known != verdicts_.end()) {
    known->second->reason = reason;
    return known->second;
  }
  auto verdict = std::make_shared<BlockVerdict>(BlockVerdict{hash, reason});
  for (; by_age_.size() >= kVerdictsMax; by_age_.pop_front()) {
    by_age_.front()->forgotten = true;
    verdicts_.erase(by_age_.front()->hash);
  }
  verdicts_.emplace(hash, verdict);
  try {
    by_age_.push_back(verdict);
  } catch (...) {
    verdicts_.erase(hash);
    throw;
  }
  return verdict;
}

std::shared_ptr<BlockVerdict> VerdictLog::find(const uint256& hash) const {
  if (const auto found = verdicts_.find(hash); found != verdicts_.end()) {
    return found->second;
  }
  const auto found = inherited_.find(hash);
  return found == inherited_.end() || found->second->forgotten ? nullptr : found->second;
}

void VerdictLog::inherit(const uint256& hash, const std::shared_ptr<BlockVerdict>& verdict) {
  if (inherited_.size() >= kVerdictsMax) {
    inherited_.clear();
  }
  inherited_[hash] = verdict;
}

}  // namespace norvel
