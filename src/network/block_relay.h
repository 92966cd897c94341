// Blocks from peers and from RPC: into the chain, on to the other peers; and the
// requests by which the node catches up. What to ask whom is BlockSync's matter;
// this class looks things up in the chain for it and sends.
//
// Errors: std::bad_alloc at most. Threads: safe from any thread, but for
// receive() and receive_inv(): message handler's thread only. Holds no lock while
// chain, peers, callbacks or the console are called.

#pragma once

#include <string>
#include <vector>

#include "core/block.h"
#include "network/block_sync.h"
#include "network/relay_context.h"

namespace norvel::network {

class BlockRelay {
 public:
  explicit BlockRelay(const RelayContext& context) : context_(context) {}

  // ---- Message handler's thread

  void receive(const PeerPtr& sender, const Bytes& payload);

  // Returns what is to be requested of the peer, at most `room` items.
  std::vector<InvVector> receive_inv(const PeerPtr& peer, const Bytes& payload, size_t room);

  // What to do with a wanted item, and that its GETDATA has gone to the peer.
  BlockSync::Request check_request(const PeerPtr& peer, const InvVector& item);
  void requested(const PeerPtr& peer, const InvVector& item);

  // Sends the requests that have become due.
  void tick();

  void forget(const PeerPtr& peer) { sync_.forget(peer); }
  void forget_all() { sync_.forget_all(); }

  // ---- Any thread

  void check_sync_with_peer(const PeerPtr& peer);

  // A request that must wait goes later, from what then is our tip and without a stop.
  void request_blocks(const uint256& start, const uint256& stop);

  void push_missing_blocks_to_peer(const PeerPtr& peer);
  bool accept_block(const Block& block, std::string& error);

  // `sender` may be null; `outcome` is what follows for it.
  bool validate_and_relay_block(const Block& block, const PeerPtr& sender, BlockSync::DeliveryOutcome& outcome);

 private:
  bool offer(const Block& block, std::string& error, BlockReport& report);
  BlockSync::Delivery describe_refusal(const Block& block, const BlockReport& report) const;
  void request_missing_parent(const Block& block, const PeerPtr& sender, bool at_once);
  void request_from_tip(bool urgent, PeerPtr* asked = nullptr);
  void send(const BlockSync::Ask& ask);
  void send(const BlockSync::Ask& ask, const uint256& start, const uint256& stop);
  bool is_known(const InvVector& item) const;

  const RelayContext& context_;
  BlockSync sync_;
};

}  // namespace norvel::network
