#include "network/block_relay.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <set>

#include "chain/orphan_pool.h"
#include "consensus/difficulty.h"
#include "core/console.h"
#include "network/payloads.h"

namespace norvel::network {

namespace {

using Ask = BlockSync::Ask;
using Fate = BlockSync::Fate;

constexpr uint32_t kBlockDecodePoints = 10;
constexpr uint32_t kPushedBlocksMax = 500;

// Only work for bits that the chain could ever demand costs anything.
bool has_work(const Block& block) {
  return difficulty::verify_bits(block.header.bits) && block.header.check_proof_of_work();
}

// Whether the hash stands for these transactions: neither other ones nor some of
// them twice, which a Merkle root does not tell apart.
bool hash_binds_body(const Block& block) {
  std::set<uint256> txids;
  const auto is_new = [&txids](const Transaction& tx) { return txids.insert(tx.get_txid()).second; };
  return block.check_merkle_root() && std::ranges::all_of(block.transactions, is_new);
}

std::string heights(uint32_t theirs, uint32_t ours) {
  return "(their=" + std::to_string(theirs) + " ours=" + std::to_string(ours) + ")";
}

}  // namespace

void announce(const RelayContext& context, uint8_t type, const uint256& hash) {
  const Message message{MessageType::INV, encode_inventory({{type, hash}})};
  for (const PeerPtr& peer : context.peers.handshaken_peers()) {
    context.peers.send_message_to_peer(peer, message);
  }
}

// ---- Blocks that come in

void BlockRelay::receive(const PeerPtr& sender, const Bytes& payload) {
  Block block;
  try {
    block = Block::deserialize(payload);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& failure) {
    context_.log.error("block decode", "[Network] Block decode error from " + sender->address + ": " + failure.what());
    context_.peers.add_misbehavior(*sender, kBlockDecodePoints);
    return;
  }
  BlockSync::DeliveryOutcome outcome;
  const bool accepted = validate_and_relay_block(block, sender, outcome);
  if (accepted) {
    if (context_.callbacks.block_received) {
      context_.callbacks.block_received(block);
    }
    sender->best_height = std::max(sender->best_height.load(), block.height);
  }
  if (outcome.ask) {
    send(*outcome.ask);
  }
  if (accepted) {
    request_from_tip(false);
  }
}

bool BlockRelay::validate_and_relay_block(const Block& block, const PeerPtr& sender,
                                          BlockSync::DeliveryOutcome& outcome) {
  if (context_.chain == nullptr) {
    return false;
  }
  const uint256 hash = block.get_hash();
  BlockSync::Delivery delivery{hash, block.header.prev_hash, block.height, Fate::TAKEN};
  std::string error;
  BlockReport report;
  report.fate = BlockFate::KNOWN;
  const bool accepted = !context_.chain->has_block(hash) && offer(block, error, report);
  delivery.connected = accepted && report.fate == BlockFate::CONNECTED;
  if (!accepted) {
    delivery = describe_refusal(block, report);
  }
  outcome = sync_.delivered(sender, delivery, context_.clock.heard_ms());
  if (delivery.fate == Fate::ORPHAN) {
    request_missing_parent(block, sender, outcome.parent_is_nowhere && delivery.has_work);
  } else if (!accepted && delivery.fate != Fate::KNOWN) {
    context_.log.error("block rejected", "[Network] Block rejected (height=" + std::to_string(block.height) +
                                             "): " + console::printable(error));
  }
  return accepted;
}

bool BlockRelay::accept_block(const Block& block, std::string& error) {
  if (context_.chain == nullptr) {
    error = "node not ready";
    return false;
  }
  BlockReport report;
  return offer(block, error, report);
}

bool BlockRelay::offer(const Block& block, std::string& error, BlockReport& report) {
  const bool accepted = context_.chain->add_block(block, error, report);
  std::vector<uint256> taken;
  if (accepted) {
    taken.push_back(block.get_hash());
  }
  taken.insert(taken.end(), report.from_orphans.begin(), report.from_orphans.end());
  if (!taken.empty()) {
    sync_.taken(taken);
  }
  for (const uint256& hash : taken) {
    announce(context_, kInvBlock, hash);
  }
  return accepted;
}

BlockSync::Delivery BlockRelay::describe_refusal(const Block& block, const BlockReport& report) const {
  BlockSync::Delivery delivery{block.get_hash(), block.header.prev_hash, 0, Fate::REFUSED};
  if (report.fate == BlockFate::KNOWN) {
    const auto entry = context_.chain->get_block_index(delivery.hash);
    delivery.fate = Fate::KNOWN;
    delivery.height = entry ? entry->height : 0;
    return delivery;
  }
  delivery.has_work = has_work(block);
  if (report.fate == BlockFate::ORPHAN) {
    delivery.fate = Fate::ORPHAN;
    delivery.parked = report.parked && OrphanPool::is_height_plausible(block);  // a twin is not what the hash names
    delivery.parent_known = context_.chain->has_block(block.header.prev_hash);
  } else if (report.fate == BlockFate::INVALID && hash_binds_body(block)) {
    delivery.fate = Fate::VERDICT;
  }
  return delivery;
}

void BlockRelay::request_missing_parent(const Block& block, const PeerPtr& sender, bool at_once) {
  context_.log.out("orphan block", "[Network] Orphan block at height " + std::to_string(block.height) +
                                       " — requesting missing parent blocks");
  PeerPtr asked;
  request_from_tip(at_once, &asked);
  if (sender && asked != sender) {
    sync_.ask_sender_later(sender, context_.clock.heard_ms());
  }
}

// ---- What peers have

std::vector<InvVector> BlockRelay::receive_inv(const PeerPtr& peer, const Bytes& payload, size_t room) {
  BlockSync::Inv inv;
  inv.room = room;
  inv.peer_height = peer->best_height;
  bool first_block = true;
  for (const InvVector& item : decode_inventory(payload)) {
    inv.items.push_back({item, is_known(item)});
    if (item.type == kInvBlock && first_block) {
      first_block = false;
      const auto entry = context_.chain != nullptr ? context_.chain->get_block_index(item.hash) : std::nullopt;
      inv.begins_at_height_1 = entry && entry->height == 1;
    }
  }
  inv.our_height = context_.chain != nullptr ? context_.chain->get_best_height() : 0;
  const BlockSync::InvOutcome outcome = sync_.receive_inv(peer, inv, context_.clock.heard_ms());
  if (outcome.ask) {
    send(*outcome.ask);
  }
  return outcome.wanted;
}

bool BlockRelay::is_known(const InvVector& item) const {
  if (item.type == kInvBlock) {
    return context_.chain != nullptr && context_.chain->has_block(item.hash);
  }
  return item.type == kInvTransaction &&
         ((context_.pool != nullptr && context_.pool->has_transaction(item.hash)) ||
          (context_.chain != nullptr && context_.chain->get_transaction_height(item.hash).has_value()));
}

BlockSync::Request BlockRelay::check_request(const PeerPtr& peer, const InvVector& item) {
  const int64_t now_ms = context_.clock.heard_ms();
  if (!is_known(item)) {
    return item.type == kInvBlock ? sync_.check_request(peer, item.hash, now_ms) : BlockSync::Request::SEND;
  }
  if (item.type == kInvBlock) {
    if (const auto ask = sync_.not_needed(peer, item.hash, now_ms)) {
      send(*ask);
    }
  }
  return BlockSync::Request::DROP;
}

void BlockRelay::requested(const PeerPtr& peer, const InvVector& item) {
  sync_.requested(peer, item, context_.clock.heard_ms());
}

void BlockRelay::check_sync_with_peer(const PeerPtr& peer) {
  if (context_.chain == nullptr) {
    return;
  }
  const uint32_t theirs = peer->best_height;
  const uint32_t ours = context_.chain->get_best_height();
  if (theirs > ours) {
    context_.log.out("peer ahead",
                     "[Network] Peer " + peer->address + " is ahead " + heights(theirs, ours) + " — requesting blocks");
    request_from_tip(false);
  } else if (theirs < ours) {
    context_.log.out("peer behind",
                     "[Network] Peer " + peer->address + " is behind " + heights(theirs, ours) + " — pushing INVs");
    push_missing_blocks_to_peer(peer);
  }
}

void BlockRelay::push_missing_blocks_to_peer(const PeerPtr& peer) {
  const uint32_t theirs = peer->best_height;
  if (context_.chain == nullptr || theirs >= context_.chain->get_best_height()) {
    return;
  }
  std::vector<InvVector> items;
  while (items.size() < kPushedBlocksMax) {
    const auto hash = context_.chain->get_block_hash(theirs + 1 + static_cast<uint32_t>(items.size()));
    if (!hash) {
      break;
    }
    items.push_back({kInvBlock, *hash});
  }
  if (items.empty() || !context_.peers.send_message_to_peer(peer, {MessageType::INV, encode_inventory(items)})) {
    return;
  }
  context_.log.out("blocks pushed", "[Network] Sent " + std::to_string(items.size()) + " INVs to " + peer->address +
                                        " (blocks " + std::to_string(theirs + 1) + ".." +
                                        std::to_string(theirs + items.size()) + ")");
}

// ---- Requests

void BlockRelay::request_blocks(const uint256& start, const uint256& stop) {
  if (const PeerPtr peer = sync_.choose(context_.peers.handshaken_peers(), context_.clock.heard_ms())) {
    send({peer, Ask::From::TIP, 0, {}, false}, start, stop);
  }
}

void BlockRelay::request_from_tip(bool urgent, PeerPtr* asked) {
  const PeerPtr peer = sync_.choose(context_.peers.handshaken_peers(), context_.clock.heard_ms());
  if (peer) {
    send({peer, Ask::From::TIP, 0, {}, urgent});
  }
  if (asked != nullptr) {
    *asked = peer;
  }
}

void BlockRelay::tick() {
  for (const Ask& ask : sync_.tick(context_.peers.handshaken_peers(), context_.clock.heard_ms())) {
    send(ask);
  }
}

void BlockRelay::send(const Ask& ask) {
  if (context_.chain == nullptr) {
    return;
  }
  uint256 start = ask.hash;
  if (ask.from == Ask::From::TIP) {
    start = context_.chain->get_best_hash();
  } else if (ask.from == Ask::From::HEIGHT) {
    start = context_.chain->get_block_hash(ask.height).value_or(context_.chain->get_best_hash());
  }
  send(ask, start, {});
}

void BlockRelay::send(const Ask& ask, const uint256& start, const uint256& stop) {
  const auto entry = context_.chain != nullptr ? context_.chain->get_block_index(start) : std::nullopt;
  const uint32_t start_height = entry ? entry->height : std::numeric_limits<uint32_t>::max();
  const int64_t now_ms = context_.clock.heard_ms();
  if (sync_.begin(ask, start, start_height, now_ms) &&
      !context_.peers.send_message_to_peer(ask.peer, {MessageType::GETBLOCKS, encode_get_blocks({start, stop})})) {
    sync_.take_back(ask, start, now_ms);
  }
}

}  // namespace norvel::network
