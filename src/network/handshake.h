// What two nodes say before and beside blocks and transactions: VERSION and
// VERACK, and the addresses of further nodes.
//
// Threads: handlers on the message handler's thread; greet() from any.

#pragma once

#include <cstdint>

#include "chain/blockchain.h"
#include "mempool/mempool.h"
#include "network/address_book.h"
#include "network/connections.h"
#include "network/dialler.h"
#include "network/log_limiter.h"
#include "network/message.h"
#include "network/relay.h"

namespace norvel::network {

// A peer that has not completed its handshake by then is closed.
inline constexpr int64_t kHandshakeTimeoutMs = 60'000;

class Handshake {
 public:
  struct Parts {
    const NetworkClock& clock;
    LogLimiter& log;
    const NetworkCallbacks& callbacks;
    Connections& connections;
    AddressBook& book;
    Dialler& dialler;
    Relay& relay;
  };

  // All parts outlive this object. `port` is announced to peers.
  Handshake(const Parts& parts, uint16_t port);

  // Either may be null. Before any other thread uses this object.
  void attach(Blockchain* chain, Mempool* pool);

  // Whether addresses that peers tell are dialled; before start.
  void set_dials_told_addresses(bool dials) { dials_told_addresses_ = dials; }

  // Sends our VERSION.
  void greet(const PeerPtr& peer);

  void on_version(const PeerPtr& peer, ByteView payload);
  void on_verack(const PeerPtr& peer);
  void on_addresses(const PeerPtr& peer, ByteView payload);

  // Answers a GETADDR.
  void send_addresses(const PeerPtr& peer);

 private:
  void note_version(Peer& peer, const VersionPayload& version);
  void leave_self(const PeerPtr& peer, uint16_t announced_port);
  void settle_key(Peer& peer, uint16_t announced_port);
  void complete(const PeerPtr& peer);

  Parts parts_;
  const uint16_t port_;
  const uint64_t nonce_;  // tells a connection to this node itself; never 0
  Blockchain* chain_ = nullptr;
  Mempool* pool_ = nullptr;
  bool dials_told_addresses_ = true;
};

}  // namespace norvel::network
