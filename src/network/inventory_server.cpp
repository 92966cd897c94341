#include "network/inventory_server.h"

#include <algorithm>
#include <limits>

namespace norvel::network {

namespace {

constexpr size_t kMempoolItemsPerInv = 500;
constexpr size_t kBlockItemsMax = 500;

// A pool up to this size is listed in the order of its fee rates; ordering means
// copying, so a larger one is listed by id, this many at a time.
constexpr uint64_t kOrderedPoolBytesMax = 8 << 20;
constexpr size_t kListedIdsMax = 100'000;

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

void InventoryServer::ask_for_mempool(PendingAnswers& pending) const {
  const int64_t now_ms = context_.clock.now_ms();
  const bool too_soon = pending.mempool_asked_ms && now_ms < *pending.mempool_asked_ms + kMempoolIntervalMs;
  if (context_.pool == nullptr || pending.mempool || too_soon) {
    return;
  }
  pending.mempool_asked_ms = now_ms;
  pending.mempool = true;
  pending.total = 0;
  list_mempool(pending);
}

void InventoryServer::answer(PendingAnswers& pending, PassBudget& budget) const {
  if (pending.blocks && budget.allows_more() && answer_blocks(*pending.blocks, budget)) {
    pending.blocks.reset();
  }
  while (!pending.items.empty() && budget.allows_more() && answer_item(pending.items.front(), budget)) {
    pending.items.pop_front();
  }
  while (pending.mempool && budget.allows_more() && answer_mempool(pending, budget)) {
  }
}

// False only when it was found and could not be sent.
bool InventoryServer::answer_item(const InvVector& item, PassBudget& budget) const {
  if (item.type == kInvBlock && context_.chain != nullptr) {
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

// One INV, or the line at the end. False when the INV could not be sent.
bool InventoryServer::answer_mempool(PendingAnswers& pending, PassBudget& budget) const {
  if (pending.announced == pending.txids.size() && pending.more) {
    list_next(pending);
  }
  const size_t count = std::min(kMempoolItemsPerInv, pending.txids.size() - pending.announced);
  if (count == 0) {
    context_.log.out("mempool sent", "[Network] Sent " + std::to_string(pending.total) + " mempool TX INVs to " +
                                         budget.peer()->address);
    pending.mempool = false;
    pending.txids = {};
    return true;
  }
  std::vector<InvVector> items;
  for (size_t i = 0; i < count; ++i) {
    items.push_back({kInvTransaction, pending.txids[pending.announced + i]});
  }
  if (!budget.send(MessageType::INV, encode_inventory(items))) {
    return false;
  }
  pending.announced += count;
  pending.total += count;
  return true;
}

void InventoryServer::list_mempool(PendingAnswers& pending) const {
  pending.announced = 0;
  pending.txids.clear();
  pending.more = context_.pool->size_bytes() > kOrderedPoolBytesMax;
  if (pending.more) {
    list_next(pending);
    return;
  }
  for (const Transaction& tx : context_.pool->get_transactions_for_block(std::numeric_limits<uint32_t>::max())) {
    pending.txids.push_back(tx.get_txid());
  }
}

// The ids behind the last one listed.
void InventoryServer::list_next(PendingAnswers& pending) const {
  const std::vector<uint256> all = context_.pool->get_txids();
  const auto first = pending.txids.empty() ? all.begin() : std::ranges::upper_bound(all, pending.txids.back());
  const auto count = std::min<std::ptrdiff_t>(kListedIdsMax, all.end() - first);
  pending.txids.assign(first, first + count);
  pending.announced = 0;
  pending.more = first + count != all.end();
}

}  // namespace norvel::network
