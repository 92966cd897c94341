#include "network/tx_relay.h"

#include <exception>
#include <new>

#include "core/console.h"

namespace norvel::network {

namespace {

constexpr size_t kTxidDigitsShown = 16;
constexpr uint32_t kTxDecodePoints = 20;
constexpr uint32_t kInvalidPoints = 10;

constexpr int64_t kOrphanPassMs = 200;  // off the message handler's thread

constexpr size_t kCostlyMax = 10'000;
constexpr int64_t kCostlyHoldMs = 60'000;

std::string shown(const uint256& txid) {
  return txid.to_hex().substr(0, kTxidDigitsShown);
}

}  // namespace

TxRelay::TxRelay(const RelayContext& context) : context_(context), costly_(kCostlyMax, kCostlyHoldMs) {}

void TxRelay::receive(const PeerPtr& sender, const Bytes& payload) {
  Transaction tx;
  try {
    tx = Transaction::deserialize(payload);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& failure) {
    context_.log.error("tx decode", "[Network] TX decode error from " + sender->address + ": " + failure.what());
    context_.peers.add_misbehavior(*sender, kTxDecodePoints);
    return;
  }
  std::string reason;
  switch (accept_once(tx, reason)) {
    case AdmissionOutcome::ACCEPTED:
      if (context_.callbacks.transaction_received) {
        context_.callbacks.transaction_received(tx);
      }
      process_in_share();
      break;
    case AdmissionOutcome::MISSING_PARENT:
      add_orphan(tx, context_.peers.key_of(*sender));
      break;
    case AdmissionOutcome::INVALID:
      context_.log.error("invalid tx",
                         "[Network] Invalid TX from " + sender->address + ": " + console::printable(reason));
      context_.peers.add_misbehavior(*sender, kInvalidPoints);
      break;
    case AdmissionOutcome::KNOWN:
    case AdmissionOutcome::NOT_TAKEN:
      break;
  }
}

AdmissionOutcome TxRelay::try_accept(const Transaction& tx, std::string& reason) {
  if (context_.pool == nullptr || context_.chain == nullptr) {
    reason = "node not ready";
    return AdmissionOutcome::NOT_TAKEN;
  }
  int64_t fee = 0;
  const AdmissionOutcome outcome = TransactionAdmission(*context_.chain, *context_.pool).accept(tx, reason, fee);
  if (outcome == AdmissionOutcome::ACCEPTED) {
    const uint256 txid = tx.get_txid();
    context_.log.out("tx accepted",
                     "[Network] TX " + shown(txid) + "... accepted to mempool (fee " + std::to_string(fee) + ")");
    announce(context_, kInvTransaction, txid);
  }
  return outcome;
}

// What passed its checks is remembered by the chain and costs little when it is
// offered again; what was not taken before it passed would cost all of it anew.
AdmissionOutcome TxRelay::accept_once(const Transaction& tx, std::string& reason) {
  {
    const MutexLock lock(mutex_);
    if (costly_.contains(tx.get_txid(), context_.clock.now_ms())) {
      return AdmissionOutcome::NOT_TAKEN;
    }
  }
  const AdmissionOutcome outcome = try_accept(tx, reason);
  if (outcome == AdmissionOutcome::NOT_TAKEN && !is_verified(tx)) {
    const MutexLock lock(mutex_);
    costly_.remember(tx.get_txid(), context_.clock.now_ms());
  }
  return outcome;
}

bool TxRelay::is_verified(const Transaction& tx) const {
  if (context_.pool == nullptr || context_.chain == nullptr) {
    return true;
  }
  for (size_t i = 0; i < tx.inputs.size(); ++i) {
    auto output = context_.chain->get_utxo_set().get_utxo(tx.inputs[i].prevout);
    if (!output) {
      output = context_.pool->get_output(tx.inputs[i].prevout);
    }
    if (output && !context_.chain->get_verified_inputs().contains(tx, i, *output)) {
      return false;
    }
  }
  return true;
}

void TxRelay::add_orphan(const Transaction& tx, const std::string& peer_key) {
  if (tx.inputs.empty() || !keeps_rules_without_inputs(tx)) {
    return;
  }
  // Found by now: the next pass offers it again.
  const OutPoint missing = find_missing(tx).value_or(tx.inputs.front().prevout);
  if (orphans_.add(tx, missing, peer_key, context_.clock.now())) {
    context_.log.out("orphan tx queued",
                     "[Network] Orphan TX " + shown(tx.get_txid()) + "... queued (waiting for parent)");
  }
}

void TxRelay::process_orphans() {
  remove_expired();
  if (context_.chain != nullptr && context_.pool != nullptr) {
    offer_orphans(context_.clock.now_ms() + kOrphanPassMs);
  }
}

void TxRelay::remove_expired() {
  for (const uint256& txid : orphans_.remove_expired(context_.clock.now())) {
    context_.log.out("orphan tx expired", "[Network] Orphan TX " + shown(txid) + "... expired");
  }
}

void TxRelay::go_on() {
  if (pass_due_.exchange(false)) {
    process_in_share();
  }
  share_left_ms_ = kOrphanShareMs;
}

// What the share does not allow is left to the next pass of the handler.
void TxRelay::process_in_share() {
  remove_expired();
  if (context_.chain == nullptr || context_.pool == nullptr) {
    return;
  }
  const int64_t start_ms = context_.clock.now_ms();
  offer_orphans(start_ms + share_left_ms_);
  share_left_ms_ -= context_.clock.now_ms() - start_ms;
}

void TxRelay::offer_orphans(int64_t deadline_ms) {
  for (bool accepted = true; accepted;) {
    accepted = false;
    for (const TxOrphanPool::Waiting& waiting : orphans_.list()) {
      if (context_.clock.now_ms() >= deadline_ms) {
        pass_due_ = true;
        return;
      }
      accepted |= offer_again(waiting);
    }
  }
}

// True when it was accepted. The outcome of one whose missing output is still missing is known.
bool TxRelay::offer_again(const TxOrphanPool::Waiting& waiting) {
  const bool is_known =
      context_.pool->has_transaction(waiting.txid) || context_.chain->get_transaction_height(waiting.txid).has_value();
  if (!is_known && !has_output(waiting.missing)) {
    return false;
  }
  const std::optional<Transaction> tx = orphans_.get(waiting.txid);
  if (!tx) {
    return false;
  }
  std::string ignored;
  const AdmissionOutcome outcome = accept_once(*tx, ignored);
  if (outcome == AdmissionOutcome::MISSING_PARENT) {
    if (const auto missing = find_missing(*tx)) {
      orphans_.set_missing(waiting.txid, *missing);
    }
    return false;
  }
  orphans_.remove(waiting.txid);
  if (outcome != AdmissionOutcome::ACCEPTED) {
    return false;
  }
  context_.log.out("orphan tx accepted",
                   "[Network] Orphan TX " + shown(waiting.txid) + "... parent arrived — accepted");
  return true;
}

bool TxRelay::has_output(const OutPoint& outpoint) const {
  return context_.chain->get_utxo_set().has_utxo(outpoint) || context_.pool->has_output(outpoint);
}

std::optional<OutPoint> TxRelay::find_missing(const Transaction& tx) const {
  for (const TxIn& input : tx.inputs) {
    if (context_.chain != nullptr && context_.pool != nullptr && !has_output(input.prevout)) {
      return input.prevout;
    }
  }
  return std::nullopt;
}

}  // namespace norvel::network
