// Blocks that were found to break a rule, so that they and what descends from
// them is refused at once.
//
// Only hashes with valid proof of work and the expected bits come here, and only
// for rules that depend on bytes bound by the hash; faults of this machine never
// do. In memory only; the oldest verdict leaves when kVerdictsMax is reached.
//
// Threads: single-threaded; the chain's lock guards it.

#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "core/uint256.h"

namespace norvel {

struct BlockVerdict {
  uint256 hash;            // of the block that broke the rule
  std::string reason;      // the whole text with which it was refused
  bool forgotten = false;  // it left the log; whoever still holds it ignores it
};

class VerdictLog {
 public:
  static constexpr size_t kVerdictsMax = 10'000;

  // On a hash that is known, the verdict stays with its age and everyone who
  // inherited it, and gets the new reason. On an exception (memory) none is added.
  std::shared_ptr<BlockVerdict> remember(const uint256& hash, const std::string& reason);

  // Remembers a block that was refused because it descends from a bad one, so
  // that its own children are known too. It leaves with others of its kind.
  void inherit(const uint256& hash, const std::shared_ptr<BlockVerdict>& verdict);

  // Null when the block is not known as bad, by itself or by its descent.
  std::shared_ptr<BlockVerdict> find(const uint256& hash) const;

  size_t size() const { return verdicts_.size(); }

 private:
  std::map<uint256, std::shared_ptr<BlockVerdict>> verdicts_;
  std::deque<std::shared_ptr<BlockVerdict>> by_age_;
  std::map<uint256, std::shared_ptr<BlockVerdict>> inherited_;  // at most kVerdictsMax
};

}  // namespace norvel
