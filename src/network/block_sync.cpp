#include "network/block_sync.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace norvel::network {

namespace {

constexpr int64_t kPendingRetryMs = 1'000;
constexpr uint32_t kUnknownHeight = std::numeric_limits<uint32_t>::max();

}  // namespace

BlockSync::PeerPtr BlockSync::choose(const std::vector<PeerPtr>& peers, int64_t now_ms) {
  const MutexLock lock(mutex_);
  return choose_locked(peers, now_ms);
}

BlockSync::PeerPtr BlockSync::choose_locked(const std::vector<PeerPtr>& peers, int64_t now_ms) {
  PeerPtr highest;
  PeerPtr longest_idle;
  PeerPtr longest_idle_ahead;
  uint32_t height_max = 0;
  int64_t asked_min_ms = 0;
  int64_t asked_min_ahead_ms = 0;
  bool highest_is_busy = false;
  bool all_discredited = true;
  for (const PeerPtr& peer : peers) {
    PeerState& state = state_of(peer, now_ms);
    expire(state, now_ms);
    judge_claim(*peer, state, now_ms);
    const bool discredited = now_ms < state.discredited_until_ms;
    all_discredited &= discredited;
    const uint32_t height = discredited ? state.proven_height : peer->best_height.load();
    if (!highest || height > height_max) {
      highest = peer;
      height_max = height;
      highest_is_busy = state.is_busy(now_ms);
    }
    if (state.is_busy(now_ms)) {
      continue;
    }
    if (!longest_idle || state.last_asked_ms < asked_min_ms) {
      longest_idle = peer;
      asked_min_ms = state.last_asked_ms;
    }
    if (height > our_height_ && (!longest_idle_ahead || state.last_asked_ms < asked_min_ahead_ms)) {
      longest_idle_ahead = peer;
      asked_min_ahead_ms = state.last_asked_ms;
    }
  }
  const bool takes_turns = all_discredited || batch_failed_ || (is_fruitless(now_ms) && (in_turn_ || highest_is_busy));
  if (!takes_turns || !longest_idle) {
    return highest;
  }
  const bool ahead = std::exchange(batch_failed_, false) && longest_idle_ahead;
  return ahead ? longest_idle_ahead : longest_idle;
}

// Who answers with less than a full answer names all that it has.
void BlockSync::judge_claim(const Peer& peer, PeerState& state, int64_t now_ms) {
  if (state.claim_until_ms == 0 || now_ms < state.claim_until_ms) {
    return;
  }
  state.claim_until_ms = 0;
  if (peer.best_height > std::max(state.proven_height, our_height_)) {
    state.discredited_until_ms = now_ms + kDiscreditMs;
    batch_failed_ = true;
  }
}

bool BlockSync::is_fruitless(int64_t now_ms) const {
  const int64_t wait_ms = std::max(kFruitlessMinMs, kFruitlessMs >> std::min(fruitless_count_, 8U));
  return tip_asked_ms_ != 0 && now_ms >= tip_asked_ms_ + wait_ms;
}

BlockSync::PeerState& BlockSync::state_of(const PeerPtr& peer, int64_t now_ms) {
  const auto [at, is_new] = states_.try_emplace(peer);
  if (is_new) {
    at->second.last_asked_ms = now_ms;
  }
  return at->second;
}

bool BlockSync::begin(const Ask& ask, const uint256& start, uint32_t start_height, int64_t now_ms) {
  const MutexLock lock(mutex_);
  PeerState& state = state_of(ask.peer, now_ms);
  expire(state, now_ms);
  const bool from_tip = ask.from == Ask::From::TIP;
  const bool busy = !ask.urgent && (state.is_open(now_ms) || (from_tip && state.owes(now_ms)));
  const bool repeated = state.starts.contains(start, now_ms);
  if (busy || repeated) {
    defer(ask, state, repeated ? now_ms + kPendingRetryMs : now_ms, repeated ? now_ms + kSameStartMs : now_ms);
    return false;
  }
  state.starts.remember(start, now_ms);
  state.open_until_ms = now_ms + kAnswerWaitMs;
  state.late_until_ms = 0;
  state.start_height = start_height;
  state.last_asked_ms = now_ms;
  state.was_asked = true;
  if (state.unpaid_since_ms == 0) {
    state.unpaid_since_ms = now_ms;
  }
  if (from_tip) {
    our_height_ = start_height == kUnknownHeight ? our_height_ : start_height;
    pending_ = false;
    in_turn_ = tip_asked_ms_ == 0 || !in_turn_;
    fruitless_count_ += is_fruitless(now_ms) ? 1 : 0;
    tip_asked_ms_ = now_ms;
  }
  return true;
}

void BlockSync::take_back(const Ask& ask, const uint256& start, int64_t now_ms) {
  const MutexLock lock(mutex_);
  const auto at = states_.find(ask.peer);
  if (at == states_.end()) {
    return;
  }
  PeerState& state = at->second;
  state.starts.forget(start);
  state.open_until_ms = 0;
  state.unpaid_since_ms = state.unpaid_since_ms == now_ms ? 0 : state.unpaid_since_ms;
  defer(ask, state, now_ms + kPendingRetryMs, now_ms + kPendingRetryMs);
}

void BlockSync::defer(const Ask& ask, PeerState& state, int64_t tip_due_ms, int64_t other_due_ms) {
  if (ask.from == Ask::From::TIP) {
    pending_ = true;
    pending_due_ms_ = tip_due_ms;
  } else {
    state.deferred = ask;
    state.deferred_due_ms = other_due_ms;
  }
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
  PeerState& state = state_of(sender, now_ms);
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
      at = leave(at);
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
    if (!state_of(peer, now_ms).is_busy(now_ms)) {
      asks.push_back({peer, Ask::From::TIP, 0, {}, false});
    }
  }
  return asks;
}

void BlockSync::forget(const PeerPtr& peer) {
  const MutexLock lock(mutex_);
  if (const auto at = states_.find(peer); at != states_.end()) {
    leave(at);
  }
}

BlockSync::States::iterator BlockSync::leave(States::iterator at) {
  batch_failed_ = batch_failed_ || !at->second.owed.empty() || at->second.claim_until_ms != 0;
  return states_.erase(at);
}

void BlockSync::forget_all() {
  const MutexLock lock(mutex_);
  states_.clear();
  pending_ = false;
  tip_asked_ms_ = 0;
  fruitless_count_ = 0;
  in_turn_ = false;
  batch_failed_ = false;
}

void BlockSync::expire(PeerState& state, int64_t now_ms) {
  if (state.open_until_ms != 0 && now_ms >= state.open_until_ms) {
    state.open_until_ms = 0;
  }
  if (state.unpaid_since_ms != 0 && now_ms >= state.unpaid_since_ms + kAnswerWaitMs) {
    state.unpaid_since_ms = 0;
    state.discredited_until_ms = now_ms + kDiscreditMs;
  }
  // The blocks still wait to be sent: only requests from our tip are free again.
  if (!state.owed.empty() && now_ms >= state.deadline_ms) {
    state.owed.clear();
    state.continues = false;
    state.discredited_until_ms = now_ms + kDiscreditMs;
    batch_failed_ = true;
  }
  if (!state.in_flight.empty() && now_ms >= state.moving_ms + kDeliveryWaitMs) {
    state.in_flight.clear();
    state.waiting.clear();
    state.window = kInFlightMin;
  }
}

}  // namespace norvel::network
