#include "mining/nonce_walk.h"

#include <algorithm>
#include <cassert>

namespace norvel::mining {

NonceWalk::NonceWalk(const SearchKernel& kernel, const Plan& plan, StripedCounter::Stripe& counter)
    : kernel_(kernel), plan_(plan), counter_(counter), prepared_(header_), lap_end_(plan.lap_hashes) {
  assert(kernel.lanes > 0 && kernel.lanes <= SearchKernel::kLanesMax);
  assert(plan.lap_hashes > 0);
  header_.nonce = plan.start_nonce;
}

void NonceWalk::restart(const BlockHeader& header) {
  header_ = header;
  header_.nonce = plan_.start_nonce;
  prepared_ = PreparedHeader(header_);
}

void NonceWalk::set_timestamp(uint64_t timestamp) {
  if (timestamp != header_.timestamp) {
    header_.timestamp = timestamp;
    prepared_ = PreparedHeader(header_);
  }
}

bool NonceWalk::search_group() {
  if (is_lap_done()) {
    lap_end_ += plan_.lap_hashes;
  }
  const auto count = static_cast<uint32_t>(std::min<uint64_t>(kernel_.lanes, lap_end_ - hashes_));
  const uint32_t candidates = kernel_.test_group(prepared_, header_.nonce, plan_.stride);
  if (candidates == 0) {
    pass(count);
    return false;
  }
  for (uint32_t i = 0; i < count; ++i) {
    if ((candidates >> i & 1) != 0 && header_.check_proof_of_work()) {
      return true;
    }
    pass(1);
  }
  return false;
}

void NonceWalk::pass(uint32_t count) {
  header_.nonce += count * plan_.stride;
  hashes_ += count;
  counter_.add_ones(count);
}

}  // namespace norvel::mining
