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
