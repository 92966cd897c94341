#include "network/relay.h"

#include <algorithm>
#include <deque>
#include <map>

#include "network/block_relay.h"
#include "network/inventory_server.h"
#include "network/payloads.h"
#include "network/tx_relay.h"

namespace norvel::network {

namespace {

constexpr int64_t kPassMs = 200;  // for the queued work of all peers together

// What waits for one peer; message handler's thread only.
struct PeerWork {
  std::deque<InvVector> wanted;
  PendingAnswers answers;
};

}  // namespace

struct Relay::State {
  State(PeerAccess& peers, const NetworkClock& clock, LogLimiter& log, const NetworkCallbacks& callbacks)
      : context{peers, clock, log, callbacks} {}

  void receive_inv(const PeerPtr& peer, const Bytes& payload);
  void receive_block(const PeerPtr& peer, const Bytes& payload);
  void work_for(const PeerPtr& peer, int64_t deadline_ms);

  RelayContext context;
  BlockRelay blocks{context};
  TxRelay txs{context};
  InventoryServer server{context};

  // Message handler's thread only.
  std::map<std::weak_ptr<Peer>, PeerWork, std::owner_less<std::weak_ptr<Peer>>> work;
  std::weak_ptr<Peer> next;  // where the next pass begins
};

Relay::Relay(PeerAccess& peers, const NetworkClock& clock, LogLimiter& log, const NetworkCallbacks& callbacks)
    : state_(std::make_unique<State>(peers, clock, log, callbacks)) {}

Relay::~Relay() = default;

void Relay::attach(Blockchain* chain, Mempool* pool) {
  state_->context.chain = chain;
  state_->context.pool = pool;
}

void Relay::handle(const std::shared_ptr<Peer>& peer, const Message& message) {
  switch (message.type) {
    case MessageType::INV:
      state_->receive_inv(peer, message.payload);
      break;
    case MessageType::GETDATA:
      state_->server.ask_for_items(state_->work[peer].answers, message.payload);
      break;
    case MessageType::GETBLOCKS:
      state_->server.ask_for_blocks(state_->work[peer].answers, message.payload);
      break;
    case MessageType::BLOCK:
      state_->receive_block(peer, message.payload);
      break;
    case MessageType::TX:
      state_->txs.receive(peer, message.payload);
      break;
    case MessageType::MEMPOOL:
      state_->server.ask_for_mempool(state_->work[peer].answers);
      break;
    default:
      break;
  }
}

void Relay::State::receive_inv(const PeerPtr& peer, const Bytes& payload) {
  std::deque<InvVector>& wanted = work[peer].wanted;
  const std::vector<InvVector> items = blocks.receive_inv(peer, payload, kWantedItemsMax - wanted.size());
  wanted.insert(wanted.end(), items.begin(), items.end());
}

void Relay::State::receive_block(const PeerPtr& peer, const Bytes& payload) {
  const std::set<uint256> forgotten = blocks.receive(peer, payload);
  if (!forgotten.empty()) {
    std::erase_if(work[peer].wanted, [&forgotten](const InvVector& item) {
      return item.type == kInvBlock && forgotten.contains(item.hash);
    });
  }
}

void Relay::work_off(const std::vector<std::shared_ptr<Peer>>& peers) {
  const int64_t deadline_ms = state_->context.clock.now_ms() + kPassMs;
  std::erase_if(state_->work, [](const auto& entry) {
    const PeerPtr peer = entry.first.lock();
    return !peer || peer->is_closed;
  });
  state_->blocks.tick();
  state_->txs.go_on();
  const auto first = std::ranges::find(peers, state_->next.lock());
  const auto offset = first == peers.end() ? 0 : static_cast<size_t>(first - peers.begin());
  state_->next.reset();
  for (size_t i = 0; i < peers.size(); ++i) {
    const PeerPtr& peer = peers[(offset + i) % peers.size()];
    if (state_->context.clock.now_ms() >= deadline_ms) {
      state_->next = peer;
      return;
    }
    state_->work_for(peer, deadline_ms);
  }
}

void Relay::State::work_for(const PeerPtr& peer, int64_t deadline_ms) {
  const auto at = work.find(peer);
  if (at == work.end()) {
    return;
  }
  auto& [wanted, answers] = at->second;
  PassBudget budget(context, peer, deadline_ms);
  while (!wanted.empty() && budget.allows_more()) {
    if (blocks.is_needed(peer, wanted.front()) &&
        !budget.send(MessageType::GETDATA, encode_inventory({wanted.front()}))) {
      break;
    }
    wanted.pop_front();
  }
  server.answer(answers, budget);
}

void Relay::forget(const std::shared_ptr<Peer>& peer) {
  state_->work.erase(peer);
  state_->blocks.forget(peer);
}

void Relay::check_sync_with_peer(const std::shared_ptr<Peer>& peer) {
  state_->blocks.check_sync_with_peer(peer);
}

void Relay::request_blocks(const uint256& start, const uint256& stop) {
  state_->blocks.request_blocks(start, stop);
}

void Relay::push_missing_blocks_to_peer(const std::shared_ptr<Peer>& peer) {
  state_->blocks.push_missing_blocks_to_peer(peer);
}

bool Relay::accept_block(const Block& block, std::string& error) {
  return state_->blocks.accept_block(block, error);
}

bool Relay::validate_and_relay_block(const Block& block) {
  BlockSync::DeliveryOutcome ignored;
  return state_->blocks.validate_and_relay_block(block, nullptr, ignored);
}

AdmissionOutcome Relay::try_accept_tx(const Transaction& tx, std::string& reason) {
  const AdmissionOutcome outcome = state_->txs.try_accept(tx, reason);
  if (outcome == AdmissionOutcome::ACCEPTED) {
    state_->txs.offer_orphans_soon();
  }
  return outcome;
}

void Relay::add_orphan_tx(const Transaction& tx, const std::string& peer_key) {
  state_->txs.add_orphan(tx, peer_key);
}

void Relay::process_orphan_txs() {
  state_->txs.process_orphans();
}

void Relay::broadcast_block(const Block& block) {
  announce(state_->context, kInvBlock, block.get_hash());
}

void Relay::broadcast_transaction(const Transaction& tx) {
  announce(state_->context, kInvTransaction, tx.get_txid());
}

}  // namespace norvel::network
