// What peers name and deliver; whom to ask and when stands in block_sync.cpp.

#include <algorithm>

#include "chain/orphan_pool.h"
#include "network/block_sync.h"

namespace norvel::network {

namespace {

bool is_block(const BlockSync::InvItem& item) {
  return item.item.type == kInvBlock;
}

}  // namespace

BlockSync::InvOutcome BlockSync::receive_inv(const PeerPtr& peer, const Inv& inv, int64_t now_ms) {
  const MutexLock lock(mutex_);
  PeerState& state = state_of(peer, now_ms);
  expire(state, now_ms);
  our_height_ = inv.our_height;
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
    if (state.requested.contains({item.type, item.hash}, now_ms) || (block && state.is_due(item.hash))) {
      continue;
    }
    if (wanted.size() == inv.room) {
      complete = false;
      break;
    }
    state.requested.remember({item.type, item.hash}, now_ms);
    if (block) {
      state.waiting.insert(item.hash);
    }
    wanted.push_back(item);
  }
  return wanted;
}

std::optional<BlockSync::Ask> BlockSync::take_answer(const PeerPtr& peer, PeerState& state, const Inv& inv,
                                                     bool complete, int64_t now_ms) {
  const auto is_known = [](const InvItem& item) { return !is_block(item) || item.known; };
  const bool all_known = std::ranges::all_of(inv.items, is_known);
  const bool begins_low = inv.begins_at_height_1 && state.start_height > 0;
  const auto count = static_cast<size_t>(std::ranges::count_if(inv.items, is_block));
  const bool full = count >= kAnswerBlocksMax;
  const bool late = !state.is_open(now_ms) && now_ms < state.late_until_ms && (all_known || full);
  if (!state.is_open(now_ms) && !late) {
    return std::nullopt;
  }
  // Blocks that the peer pushed of its own accord can come before the answer proper.
  state.late_until_ms = all_known ? 0 : state.open_until_ms;
  state.open_until_ms = 0;
  if (state.claim_until_ms == 0) {
    state.claim_until_ms = now_ms + kBatchWaitMs;
  }

  if (all_known && (begins_low || (!full && (inv.peer_height > inv.our_height || state.orphan)))) {
    if (auto step = next_step(peer, state, inv.our_height)) {
      return step;
    }
  }
  if (late && !full) {
    return std::nullopt;
  }
  if (!late) {
    state.owed.clear();
  }
  const size_t news = begin_batch(state, inv, now_ms);
  state.continues = complete && full;
  if (full && news >= kAnswerNewsMin) {
    state.claim_until_ms = 0;
  }
  return go_on(peer, state);
}

// An honest answer has no more items than are looked at here. Returns how many of
// them the peer owes now.
size_t BlockSync::begin_batch(PeerState& state, const Inv& inv, int64_t now_ms) {
  state.deadline_ms = now_ms + kBatchWaitMs;
  state.last_delivery_ms = now_ms;
  size_t count = 0;
  size_t news = 0;
  for (const InvItem& entry : inv.items) {
    if (!is_block(entry)) {
      continue;
    }
    if (++count > kAnswerBlocksMax) {
      break;
    }
    state.last = entry.item.hash;
    if (!entry.known && state.is_due(entry.item.hash)) {
      state.owed.insert(entry.item.hash);
      ++news;
    }
  }
  return news;
}

BlockSync::Request BlockSync::check_request(const PeerPtr& peer, const uint256& block, int64_t now_ms) {
  const MutexLock lock(mutex_);
  PeerState& state = state_of(peer, now_ms);
  expire(state, now_ms);
  if (!state.waiting.contains(block)) {
    return Request::DROP;
  }
  return state.in_flight.size() < state.window ? Request::SEND : Request::WAIT;
}

void BlockSync::requested(const PeerPtr& peer, const InvVector& item, int64_t now_ms) {
  const MutexLock lock(mutex_);
  PeerState& state = state_of(peer, now_ms);
  state.requested.remember({item.type, item.hash}, now_ms);
  if (item.type == kInvBlock && state.waiting.erase(item.hash) > 0) {
    state.moving_ms = state.in_flight.empty() ? now_ms : state.moving_ms;
    state.in_flight.emplace(item.hash, now_ms);
  }
}

void BlockSync::note_arrival(PeerState& state, const uint256& block, int64_t now_ms) {
  state.waiting.erase(block);
  const auto at = state.in_flight.find(block);
  if (at == state.in_flight.end()) {
    return;
  }
  const bool quick = now_ms - at->second <= kInFlightMs;
  state.window = quick ? std::min(state.window + 1, kInFlightMax) : kInFlightMin;
  state.moving_ms = now_ms;
  state.in_flight.erase(at);
}

void BlockSync::forget_batch(PeerState& state) {
  for (const uint256& hash : state.owed) {
    state.waiting.erase(hash);
    state.in_flight.erase(hash);
  }
  state.owed.clear();
  state.continues = false;
  if (state.claim_until_ms == 0) {
    state.claim_until_ms = state.deadline_ms;  // it did not bring the batch
  }
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
    const auto is_due = [&](const auto& entry) { return entry.second.is_due(block.parent); };
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
  PeerState& state = state_of(sender, now_ms);
  expire(state, now_ms);
  note_arrival(state, block.hash, now_ms);
  if (block.connected) {
    our_height_ = std::max(our_height_, block.height);
  }
  switch (block.fate) {
    case Fate::TAKEN:
      state.unpaid_since_ms = 0;
      if (state.was_asked && block.connected) {  // side-chain blocks could be fed one by one
        tip_asked_ms_ = 0;
        fruitless_count_ = 0;
      }
      [[fallthrough]];
    case Fate::KNOWN:
      state.proven_height = std::max(state.proven_height, block.height);
      if (state.proven_height >= sender->best_height) {
        state.claim_until_ms = 0;
      }
      break;
    case Fate::ORPHAN:
      if (block.has_work) {
        state.orphan = block.hash;
      }
      break;
    case Fate::REFUSED:
      if (block.has_work) {
        state.incidents.remember(block.hash, now_ms);
      }
      [[fallthrough]];
    case Fate::VERDICT:
      if (state.owed.contains(block.hash)) {
        forget_batch(state);
      }
      return outcome;
  }
  outcome.ask = settle(sender, state, block.hash, now_ms);
  return outcome;
}

std::optional<BlockSync::Ask> BlockSync::not_needed(const PeerPtr& peer, const uint256& hash, int64_t now_ms) {
  const MutexLock lock(mutex_);
  PeerState& state = state_of(peer, now_ms);
  state.waiting.erase(hash);
  return settle(peer, state, hash, now_ms);
}

bool BlockSync::is_parked(const uint256& hash, int64_t now_ms) const {
  return std::ranges::any_of(parked_,
                             [&](const Parked& entry) { return entry.hash == hash && now_ms < entry.until_ms; });
}

void BlockSync::park(const Delivery& block, int64_t now_ms) {
  std::erase_if(parked_, [now_ms](const Parked& entry) { return now_ms >= entry.until_ms; });
  if (block.parked && !is_parked(block.hash, now_ms)) {
    if (parked_.size() >= OrphanPool::kBlocksMax) {
      parked_.erase(parked_.begin());
    }
    parked_.push_back({block.hash, block.parent, now_ms + kParkedHoldMs});
  }
}

}  // namespace norvel::network
