// Moves blocks and transactions between this node and its peers: announces what
// the node has, fetches what it lacks, serves chain ranges, catches up with peers
// that are ahead, and keeps transactions whose inputs are not known yet.
//
// Whatever costs more than a reply is queued for the peer and worked off piece by
// piece in work_off(), so that no peer can make the handler stand still or the
// memory grow.
//
// Errors: bad payloads cost the sender points; nothing throws but std::bad_alloc.
// Threads: the handlers and work_off() on the message handler's thread only; the
// rest from any thread. Calls chain and pool without a lock of its own.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "chain/blockchain.h"
#include "core/block.h"
#include "core/transaction.h"
#include "mempool/admission.h"
#include "mempool/mempool.h"
#include "network/log_limiter.h"
#include "network/message.h"
#include "network/network_callbacks.h"
#include "network/network_clock.h"
#include "network/peer_access.h"

namespace norvel::network {

class Relay {
 public:
  // All of them outlive the relay. `callbacks` is read at each call.
  Relay(PeerAccess& peers, const NetworkClock& clock, LogLimiter& log, const NetworkCallbacks& callbacks);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // Either may be null. Before any other thread uses the relay.
  void attach(Blockchain* chain, Mempool* pool);

  // ---- Message handler's thread

  // INV, GETDATA, GETBLOCKS, BLOCK, TX and MEMPOOL of a peer.
  void handle(const std::shared_ptr<Peer>& peer, const Message& message);

  // One pass of the queued work: requests from want lists, answers to GETDATA,
  // GETBLOCKS and MEMPOOL. At most 1 MiB a peer and 200 ms together; only while
  // less than 1 MiB is queued for that peer; begins where the last pass stopped.
  void work_off(const std::vector<std::shared_ptr<Peer>>& peers);

  // Forgets what was kept for a peer that is gone.
  void forget(const std::shared_ptr<Peer>& peer);

  // The same for all peers, so that nothing of them counts later.
  void forget_all();

  // ---- Any thread

  void check_sync_with_peer(const std::shared_ptr<Peer>& peer);

  // Asks the best peer for what follows `start`. When that must wait, what goes
  // later starts at what then is our tip and has no stop.
  void request_blocks(const uint256& start, const uint256& stop);

  void push_missing_blocks_to_peer(const std::shared_ptr<Peer>& peer);

  // Offers a block to the chain; when it was taken, announces it and the blocks
  // that had waited for it. `error` holds the reason of a refusal ("node not
  // ready" without a chain). The one way in for blocks from RPC.
  bool accept_block(const Block& block, std::string& error);

  // The same for a block from a peer, with its lines and, for an orphan, the
  // request for what is missing.
  bool validate_and_relay_block(const Block& block);

  // Offers a transaction to the pool and announces it when it was taken.
  AdmissionOutcome try_accept_tx(const Transaction& tx, std::string& reason);

  void add_orphan_tx(const Transaction& tx, const std::string& peer_key);
  void process_orphan_txs();

  void broadcast_block(const Block& block);
  void broadcast_transaction(const Transaction& tx);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace norvel::network
