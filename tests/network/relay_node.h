// A node without sockets: a chain, a pool and a relay, whose messages a test
// reads or hands to another such node. Time stands still but for what the test
// moves on.

#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "chain/chain_scene.h"
#include "mempool/mempool.h"
#include "mempool/pool_updater.h"
#include "network/payloads.h"
#include "network/relay.h"

namespace norvel::network {

using PeerPtr = std::shared_ptr<Peer>;

class RelayNode : public PeerAccess {
 public:
  RelayNode() {
    scene.chain().set_pool_sink(&updater);
    relay.attach(&scene.chain(), &pool);
  }

  std::vector<PeerPtr> handshaken_peers() const override { return peers; }
  std::string key_of(const Peer& peer) const override { return peer.address + ":" + std::to_string(peer.port); }
  void add_misbehavior(const Peer& peer, uint32_t count) override { points[peer.address] += count; }
  bool send_message_to_peer(const PeerPtr& peer, const Message& message) override {
    sent[peer].push_back(message);
    if (message.type == MessageType::BLOCK) {
      peer->queued_bytes += queued_per_block;
      ++blocks_sent;
    }
    bytes_sent += message.serialize().size();
    return true;
  }

  static PeerPtr make_peer(const std::string& address, uint32_t height) {
    auto peer = std::make_shared<Peer>(FileDescriptor(), address, 8333, true);
    peer->best_height = height;
    peer->handshake_complete = true;
    return peer;
  }

  // Peers are added in the order of their keys.
  PeerPtr add_peer(uint32_t height) {
    peers.push_back(make_peer("10.0.0." + std::to_string(peers.size() + 1), height));
    return peers.back();
  }

  // The peer at this place goes and comes again, with the same words.
  void reconnect(size_t index) {
    const PeerPtr old = peers[index];
    old->is_closed = true;
    relay.forget(old);
    peers[index] = make_peer(old->address, old->best_height);
    relay.check_sync_with_peer(peers[index]);
  }

  void handle(const PeerPtr& peer, MessageType type, Bytes payload) { relay.handle(peer, {type, std::move(payload)}); }
  void handle_inv(const PeerPtr& peer, const std::vector<InvVector>& items) {
    handle(peer, MessageType::INV, encode_inventory(items));
  }

  // What was sent to the peer since the last call, after one pass of queued work.
  std::vector<Message> take_sent(const PeerPtr& peer) {
    relay.work_off(peers);
    return std::exchange(sent[peer], {});
  }

  uint32_t height() { return scene.chain().get_best_height(); }

  ChainScene scene;
  Mempool pool{5'000'000};
  PoolUpdater updater{scene.chain(), pool};
  NetworkClock clock;
  LogLimiter log{clock};
  NetworkCallbacks callbacks;
  Relay relay{*this, clock, log, callbacks};
  std::vector<PeerPtr> peers;
  std::map<PeerPtr, std::vector<Message>> sent;
  std::map<std::string, uint32_t> points;  // by address
  uint64_t bytes_sent = 0;
  size_t blocks_sent = 0;
  size_t queued_per_block = 0;  // counted as waiting to be written, until a test says otherwise
};

}  // namespace norvel::network
