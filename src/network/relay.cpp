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

using Request = BlockSync::Request;

constexpr int64_t kPassMs = 200;  // for the queued work of all peers together

// What waits for one peer; message handler's thread only.
struct PeerWork {
  std::deque<InvVector> wanted;
  std::deque<InvVector> held;  // blocks of those that wait until fewer are in flight
  PendingAnswers answers;
};

}  // namespace

struct Relay::State {
  State(PeerAccess& peers, const NetworkClock& clock, LogLimiter& log, const NetworkCallbacks& callbacks)
      : context{peers, clock, log, callbacks} {}

  void receive_inv(const PeerPtr& peer, const Bytes& payload);
  void work_for(const PeerPtr& peer, int64_t deadline_ms);
  void request_wanted(const PeerPtr& peer, PeerWork& waiting, PassBudget& budget);
  void request_held(const PeerPtr& peer, PeerWork& waiting, PassBudget& budget);
  bool send_request(const PeerPtr& peer, const InvVector& item, PassBudget& budget);

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
      state_->blocks.receive(peer, message.payload);
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
  auto& [wanted, held, answers] = work[peer];
  const std::vector<InvVector> items = blocks.receive_inv(peer, payload, kWantedItemsMax - wanted.size() - held.size());
  wanted.insert(wanted.end(), items.begin(), items.end());
}

void Relay::work_off(const std::vector<std::shared_ptr<Peer>>& peers) {
  const int64_t start_ms = state_->context.clock.now_ms();
  std::erase_if(state_->work, [](const auto& entry) {
    const PeerPtr peer = entry.first.lock();
    return !peer || peer->is_closed;
  });
  state_->blocks.tick();
  state_->server.drop_old_list();
  state_->txs.go_on();
  // Whatever one transaction cost, what is queued gets its share.
  const int64_t deadline_ms = std::max(start_ms + kPassMs, state_->context.clock.now_ms() + kPassMs - kOrphanShareMs);
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
  PassBudget budget(context, peer, deadline_ms);
  request_held(peer, at->second, budget);
  request_wanted(peer, at->second, budget);
  server.answer(at->second.answers, budget);
}

void Relay::State::request_held(const PeerPtr& peer, PeerWork& waiting, PassBudget& budget) {
  while (!waiting.held.empty() && budget.allows_more()) {
    const Request request = blocks.check_request(peer, waiting.held.front());
    if (request == Request::WAIT || (request == Request::SEND && !send_request(peer, waiting.held.front(), budget))) {
      return;
    }
    waiting.held.pop_front();
  }
}

// Blocks that must wait step aside, so that what stands behind them need not.
void Relay::State::request_wanted(const PeerPtr& peer, PeerWork& waiting, PassBudget& budget) {
  while (!waiting.wanted.empty() && budget.allows_more()) {
    const InvVector item = waiting.wanted.front();
    const bool behind_held = item.type == kInvBlock && !waiting.held.empty();
    const Request request = behind_held ? Request::WAIT : blocks.check_request(peer, item);
    if (request == Request::SEND && !send_request(peer, item, budget)) {
      return;
    }
    if (request == Request::WAIT) {
      waiting.held.push_back(item);
    }
    waiting.wanted.pop_front();
  }
}

bool Relay::State::send_request(const PeerPtr& peer, const InvVector& item, PassBudget& budget) {
  if (!budget.send(MessageType::GETDATA, encode_inventory({item}))) {
    return false;
  }
  blocks.requested(peer, item);
  return true;
}

void Relay::forget(const std::shared_ptr<Peer>& peer) {
  state_->work.erase(peer);
  state_->blocks.forget(peer);
}

void Relay::forget_all() {
  state_->work.clear();
  state_->next.reset();
  state_->blocks.forget_all();
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
