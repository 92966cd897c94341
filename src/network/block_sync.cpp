#include "network/block_sync.h"

#include <algorithm>
#include <tuple>

#include "chain/orphan_pool.h"

namespace norvel::network {

namespace {

constexpr int64_t kPendingRetryMs = 1'000;
constexpr uint32_t kDiscreditDoublingsMax = 8;

bool is_block(const BlockSync::InvItem& item) {
  return item.item.type == kInvBlock;
}

}  // namespace

BlockSync::PeerPtr BlockSync::choose(const std::vector<PeerPtr>& peers, int64_t now_ms) {
  const MutexLock lock(mutex_);
  return choose_locked(peers, now_ms);
}

BlockSync::PeerPtr BlockSync::choose_locked(const std::vector<PeerPtr>& peers, int64_t now_ms) {
  PeerPtr highest;
  PeerPtr waiting_longest;
  uint32_t height_max = 0;
  int64_t asked_min_ms = 0;
  bool all_discredited = true;
  for (const PeerPtr& peer : peers) {
    PeerState& state = states_[peer];
    expire(state, now_ms);
    const bool discredited = now_ms < state.discredited_until_ms;
    all_discredited &= discredited;
    const uint32_t height = discredited ? state.proven_height : peer->best_height.load();
    if (!highest || height > height_max) {
      highest = peer;
      height_max = height;
    }
    if (!waiting_longest || state.last_asked_ms < asked_min_ms) {
      waiting_longest = peer;
      asked_min_ms = state.last_asked_ms;
    }
  }
  return all_discredited ? waiting_longest : highest;
}

bool BlockSync::begin(const Ask& ask, const uint256& start, uint32_t start_height, int64_t now_ms) {
  const MutexLock lock(mutex_);
  PeerState& state = states_[ask.peer];
  expire(state, now_ms);
  const bool from_tip = ask.from == Ask::From::TIP;
  const bool busy = !ask.urgent && (state.is_open(now_ms) || (from_tip && state.owes(now_ms)));
  const bool repeated = state.starts.contains(start, now_ms);
  if (busy || repeated) {
    if (from_tip) {
      pending_ = true;
      pending_due_ms_ = repeated ? now_ms + kPendingRetryMs : now_ms;
    } else {
      state.deferred = ask;
      state.deferred_due_ms = repeated ? now_ms + kSameStartMs : now_ms;
    }
    return false;
  }
  state.starts.remember(start, now_ms);
  state.open_until_ms = now_ms + kAnswerWaitMs;
  state.late_until_ms = 0;
  state.start_height = start_height;
  state.last_asked_ms = now_ms;
  if (state.unpaid_since_ms == 0) {
    state.unpaid_since_ms = now_ms;
  }
  pending_ = pending_ && !from_tip;
  return true;
}

BlockSync::InvOutcome BlockSync::receive_inv(const PeerPtr& peer, const Inv& inv, int64_t now_ms) {
  const MutexLock lock(mutex_);
  PeerState& state = states_[peer];
  expire(state, now_ms);
  InvOutcome outcome;
  bool complete = true;
  outcome.wanted = select_wanted(state, inv, complete, now_ms);
  if (std::ranges::any_of(inv.items, is_block)) {
    outcome.ask = take_answer(peer, state, inv, complete, now_ms);
  }
  return outcome;
}

// `complete` becomes false when a block was left out that it is no use to go on behind.
std::vector<InvVector> BlockSync::select_wanted(PeerState& state, const Inv& inv, bool& complete, int64_t now_ms) {
  std::vector<InvVector> wanted;
  for (const InvItem& entry : inv.items) {
    const InvVector& item = entry.item;
    const bool block = is_block(entry);
    if (entry.known || (block && (!complete || is_parked(item.hash, now_ms)))) {
      continue;
    }
    if (block && (verdicts_.contains(item.hash, now_ms) || state.incidents.contains(item.hash, now_ms))) {
      complete = false;
      continue;
    }
    if (state.requested.contains({item.type, item.hash}, now_ms)) {
      continue;
    }
    if (wanted.size() == inv.room) {
      complete = false;
      break;
    }
    state.requested.remember({item.type, item.hash}, now_ms);
    wanted.push_back(item);
  }
  return wanted;
}

std::optional<BlockSync::Ask> BlockSync::take_answer(const PeerPtr& peer, PeerState& state, const Inv& inv,
                                                     bool complete, int64_t now_ms) {
  const auto is_known = [](const InvItem& item) { return !is_block(item) || item.known; };
  const bool all_known = std::ranges::all_of(inv.items, is_known);
  const bool begins_low = inv.begins_at_height_1 && state.start_height > 0;
  const bool late = !state.is_open(now_ms) && now_ms < state.late_until_ms && all_known && begins_low;
  if (!state.is_open(now_ms) && !late) {
    return std::nullopt;
  }
  // Blocks that the peer pushed of its own accord can come before the answer proper.
  state.late_until_ms = all_known ? 0 : state.open_until_ms;
  state.open_until_ms = 0;

  const auto count = static_cast<size_t>(std::ranges::count_if(inv.items, is_block));
  if (all_known && (begins_low || (count < kAnswerBlocksMax && (inv.peer_height > inv.our_height || state.orphan)))) {
    return next_step(peer, state, inv.our_height);
  }
  state.deadline_ms = state.owed.empty() ? now_ms + kBatchWaitMs : state.deadline_ms;
  state.last_delivery_ms = now_ms;
  state.owed.clear();
  for (const InvItem& entry : inv.items) {
    if (is_block(entry)) {
      state.last = entry.item.hash;
      if (!entry.known && state.is_due(entry.item.hash, now_ms)) {
        state.owed.insert(entry.item.hash);
      }
    }
  }
  state.continues = complete && count >= kAnswerBlocksMax;
  return go_on(peer, state);
}

// The next start further down our chain, to find where the peer's leaves it.
std::optional<BlockSync::Ask> BlockSync::next_step(const PeerPtr& peer, PeerState& state, uint32_t our_height) {
  if (state.stepped_to_genesis) {
    return std::nullopt;
  }
  state.depth = state.depth == 0 ? kFirstStepDepth : 2 * state.depth;
  state.stepped_to_genesis = state.depth >= our_height;
  const uint32_t height = state.stepped_to_genesis ? 0 : our_height - state.depth;
  return Ask{peer, Ask::From::HEIGHT, height, {}, false};
}

std::optional<BlockSync::Ask> BlockSync::settle(const PeerPtr& peer, PeerState& state, const uint256& hash,
                                                int64_t now_ms) {
  if (state.owed.erase(hash) > 0) {
    state.last_delivery_ms = now_ms;
  }
  return go_on(peer, state);
}

// What follows the batch, when all of it has come.
std::optional<BlockSync::Ask> BlockSync::go_on(const PeerPtr& peer, PeerState& state) {
  if (!state.owed.empty() || !state.continues) {
    return std::nullopt;
  }
  state.continues = false;
  return Ask{peer, Ask::From::HASH, 0, state.last, false};
}

BlockSync::DeliveryOutcome BlockSync::delivered(const PeerPtr& sender, const Delivery& block, int64_t now_ms) {
  const MutexLock lock(mutex_);
  DeliveryOutcome outcome;
  if (block.fate == Fate::ORPHAN) {
    const auto is_due = [&](const auto& entry) { return entry.second.is_due(block.parent, now_ms); };
    outcome.parent_is_nowhere =
        !block.parent_known && !is_parked(block.parent, now_ms) && std::ranges::none_of(states_, is_due);
    park(block, now_ms);
  }
  if (block.fate == Fate::VERDICT && block.has_work) {
    verdicts_.remember(block.hash, now_ms);
  }
  if (!sender) {
    return outcome;
  }
  PeerState& state = states_[sender];
  expire(state, now_ms);
  if (state.requested.contains({kInvBlock, block.hash}, now_ms)) {
    state.arrived.remember(block.hash, now_ms);
  }
  switch (block.fate) {
    case Fate::TAKEN:
      state.unpaid_since_ms = 0;
      state.failures_in_row = 0;
      [[fallthrough]];
    case Fate::KNOWN:
      state.proven_height = std::max(state.proven_height, block.height);
      break;
    case Fate::ORPHAN:
      state.orphan = block.hash;
      break;
    case Fate::REFUSED:
      if (block.has_work) {
        state.incidents.remember(block.hash, now_ms);
      }
      [[fallthrough]];
    case Fate::VERDICT:
      if (state.owed.erase(block.hash) > 0) {
        outcome.forgotten.swap(state.owed);
        state.continues = false;
      }
      return outcome;
  }
  outcome.ask = settle(sender, state, block.hash, now_ms);
  return outcome;
}

std::optional<BlockSync::Ask> BlockSync::not_needed(const PeerPtr& peer, const uint256& hash, int64_t now_ms) {
  const MutexLock lock(mutex_);
  return settle(peer, states_[peer], hash, now_ms);
}

void BlockSync::taken(const std::vector<uint256>& hashes) {
  const MutexLock lock(mutex_);
  // What waited for one of these has left the chain's keeping, and so has what waited for that.
  std::vector<uint256> gone = hashes;
  for (size_t i = 0; i < gone.size(); ++i) {
    for (const Parked& entry : parked_) {
      if (entry.parent == gone[i] && std::ranges::find(gone, entry.hash) == gone.end()) {
        gone.push_back(entry.hash);
      }
    }
  }
  const auto is_gone = [&gone](const uint256& hash) { return std::ranges::find(gone, hash) != gone.end(); };
  std::erase_if(parked_, [&is_gone](const Parked& entry) { return is_gone(entry.hash); });
  for (auto& [peer, state] : states_) {
    state.depth = 0;
    state.stepped_to_genesis = false;
    if (state.orphan && is_gone(*state.orphan)) {
      state.orphan.reset();
    }
  }
}

void BlockSync::ask_sender_later(const PeerPtr& sender, int64_t now_ms) {
  const MutexLock lock(mutex_);
  PeerState& state = states_[sender];
  if (state.orphan_due_ms == 0) {
    state.orphan_due_ms = now_ms + kAnswerWaitMs;
  }
}

std::vector<BlockSync::Ask> BlockSync::tick(const std::vector<PeerPtr>& peers, int64_t now_ms) {
  const MutexLock lock(mutex_);
  std::vector<Ask> asks;
  for (auto at = states_.begin(); at != states_.end();) {
    const PeerPtr peer = at->first.lock();
    if (!peer || peer->is_closed) {
      at = states_.erase(at);
      continue;
    }
    PeerState& state = (at++)->second;
    expire(state, now_ms);
    if (state.deferred && now_ms >= state.deferred_due_ms && !state.is_open(now_ms)) {
      asks.push_back(std::move(*state.deferred));
      state.deferred.reset();
    }
    if (state.orphan_due_ms != 0 && now_ms >= state.orphan_due_ms) {
      state.orphan_due_ms = 0;
      if (state.orphan) {
        asks.push_back({peer, Ask::From::TIP, 0, {}, false});
      }
    }
  }
  pending_ = pending_ && !peers.empty();
  if (pending_ && now_ms >= pending_due_ms_) {
    const PeerPtr peer = choose_locked(peers, now_ms);
    const PeerState& state = states_[peer];
    if (!state.is_open(now_ms) && !state.owes(now_ms)) {
      asks.push_back({peer, Ask::From::TIP, 0, {}, false});
    }
  }
  return asks;
}

void BlockSync::forget(const PeerPtr& peer) {
  const MutexLock lock(mutex_);
  states_.erase(peer);
}

void BlockSync::expire(PeerState& state, int64_t now_ms) {
  if (state.open_until_ms != 0 && now_ms >= state.open_until_ms) {
    state.open_until_ms = 0;
  }
  if (state.unpaid_since_ms != 0 && now_ms >= state.unpaid_since_ms + kAnswerWaitMs) {
    state.unpaid_since_ms = 0;
    discredit(state, now_ms);
  }
  if (!state.owed.empty() && now_ms >= state.deadline_ms) {
    state.owed.clear();
    state.continues = false;
    discredit(state, now_ms);
  }
}

// Longer each time in a row: otherwise many that lie could be asked in turn for
// ever, and the honest never.
void BlockSync::discredit(PeerState& state, int64_t now_ms) {
  state.discredited_until_ms = now_ms + (kDiscreditMs << std::min(state.failures_in_row, kDiscreditDoublingsMax));
  ++state.failures_in_row;
}

bool BlockSync::is_parked(const uint256& hash, int64_t now_ms) const {
  return std::ranges::any_of(parked_,
                             [&](const Parked& entry) { return entry.hash == hash && now_ms < entry.until_ms; });
}

void BlockSync::park(const Delivery& block, int64_t now_ms) {
  std::erase_if(parked_, [now_ms](const Parked& entry) { return now_ms >= entry.until_ms; });
  if (block.parked && parked_.size() < OrphanPool::kBlocksMax && !is_parked(block.hash, now_ms)) {
    parked_.push_back({block.hash, block.parent, now_ms + kParkedHoldMs});
  }
}

}  // namespace norvel::network
