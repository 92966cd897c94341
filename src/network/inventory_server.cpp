#include "network/inventory_server.h"

#include <algorithm>

namespace norvel::network {

namespace {

constexpr size_t kMempoolItemsPerInv = 500;
constexpr size_t kBlockItemsMax = 500;
constexpr size_t kListedPoolBytesMax = 314'572'800;

// Listing a large pool costs about a second, and a list some tens of megabytes:
// peers share it, and at most kListMaxAgeMs / kListIntervalMs + 1 live.
constexpr int64_t kListIntervalMs = 15'000;
constexpr int64_t kListMaxAgeMs = 60'000;

}  // namespace

bool PassBudget::allows_more() const {
  if (peer_->is_closed || sent_bytes_ >= kPassBytesMax || peer_->queued_bytes >= kQueuedBytesMax ||
      context_.clock.now_ms() >= deadline_ms_) {
    return false;
  }
  const MutexLock lock(peer_->send_mutex);
  return peer_->send_queue.size() < kSendQueueMessagesMax;
}

bool PassBudget::send(MessageType type, Bytes payload) {
  const Message message{type, std::move(payload)};
  if (!context_.peers.send_message_to_peer(peer_, message)) {
    return false;
  }
  sent_bytes_ += kFrameHeaderBytes + message.payload.size();
  return true;
}

void InventoryServer::ask_for_items(PendingAnswers& pending, const Bytes& payload) const {
  for (const InvVector& item : decode_inventory(payload)) {
    if (pending.items.size() == kPendingItemsMax) {
      return;
    }
    pending.items.push_back(item);
  }
}

void InventoryServer::ask_for_blocks(PendingAnswers& pending, const Bytes& payload) const {
  if (const auto range = decode_get_blocks(payload); range && context_.chain != nullptr) {
    pending.blocks = *range;
  }
}

void InventoryServer::ask_for_mempool(PendingAnswers& pending) {
  const int64_t now_ms = context_.clock.now_ms();
  const bool too_soon = pending.mempool_asked_ms && now_ms < *pending.mempool_asked_ms + kMempoolIntervalMs;
  if (context_.pool == nullptr || pending.mempool || too_soon) {
    return;
  }
  pending.mempool_asked_ms = now_ms;
  if (!list_ || now_ms >= list_->made_ms + kListIntervalMs) {
    list_ = std::make_shared<const MempoolList>(
        MempoolList{context_.pool->get_txids_for_block(kListedPoolBytesMax), now_ms});
  }
  pending.mempool = list_;
  pending.announced = 0;
}

void InventoryServer::drop_old_list() {
  if (list_ && context_.clock.now_ms() >= list_->made_ms + kListIntervalMs) {
    list_.reset();
  }
}

void InventoryServer::answer(PendingAnswers& pending, PassBudget& budget) const {
  if (pending.blocks && budget.allows_more() && answer_blocks(*pending.blocks, budget)) {
    pending.blocks.reset();
  }
  while (!pending.items.empty() && budget.allows_more() && answer_item(pending.items.front(), budget)) {
    pending.items.pop_front();
  }
  if (pending.mempool && context_.clock.now_ms() >= pending.mempool->made_ms + kListMaxAgeMs) {
    end_mempool(pending, budget.peer());
  }
  while (pending.mempool && budget.allows_more() && answer_mempool(pending, budget)) {
  }
}

// False only when it was found and could not be sent.
bool InventoryServer::answer_item(const InvVector& item, PassBudget& budget) const {
  if (item.type == kInvBlock && context_.chain != nullptr && context_.chain->has_block(item.hash)) {
    const auto block = context_.chain->load_block_from_disk(item.hash);
    return !block || budget.send(MessageType::BLOCK, block->serialize());
  }
  if (item.type == kInvTransaction) {
    auto tx = context_.pool != nullptr ? context_.pool->get_transaction(item.hash) : std::nullopt;
    if (!tx && context_.chain != nullptr) {
      tx = context_.chain->get_transaction(item.hash);
    }
    return !tx || budget.send(MessageType::TX, tx->serialize());
  }
  return true;
}

bool InventoryServer::answer_blocks(const GetBlocksPayload& range, PassBudget& budget) const {
  const auto fork_height = context_.chain->get_fork_height(range.start);
  if (!fork_height) {
    context_.log.out("start unknown", "[Network] GETBLOCKS: start hash not in chain, sending from height 1");
  }
  std::vector<InvVector> items;
  for (uint32_t height = fork_height.value_or(0) + 1; items.size() < kBlockItemsMax; ++height) {
    const auto hash = context_.chain->get_block_hash(height);
    if (!hash) {
      break;
    }
    items.push_back({kInvBlock, *hash});
    if (!range.stop.is_zero() && *hash == range.stop) {
      break;
    }
  }
  return items.empty() || budget.send(MessageType::INV, encode_inventory(items));
}

// One INV, the last with the line behind it. False when it could not be sent.
bool InventoryServer::answer_mempool(PendingAnswers& pending, PassBudget& budget) const {
  const std::vector<uint256>& txids = pending.mempool->txids;
  std::vector<InvVector> items;
  for (size_t at = pending.announced; at < txids.size() && items.size() < kMempoolItemsPerInv; ++at) {
    items.push_back({kInvTransaction, txids[at]});
  }
  if (!items.empty() && !budget.send(MessageType::INV, encode_inventory(items))) {
    return false;
  }
  pending.announced += items.size();
  if (pending.announced == txids.size()) {
    end_mempool(pending, budget.peer());
  }
  return true;
}

void InventoryServer::end_mempool(PendingAnswers& pending, const PeerPtr& peer) const {
  context_.log.out("mempool sent",
                   "[Network] Sent " + std::to_string(pending.announced) + " mempool TX INVs to " + peer->address);
  pending.mempool.reset();
}

}  // namespace norvel::network
