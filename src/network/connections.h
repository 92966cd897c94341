// The table of live peers with all that guards it: bans and scores, connection
// rate, subnets, limits. Lets peers in, hands messages to them, and takes them out.
//
// Threads: safe from any thread. No lock is held over sockets, callbacks or lines.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/file_io.h"
#include "network/ban_list.h"
#include "network/connection_rate.h"
#include "network/log_limiter.h"
#include "network/network_callbacks.h"
#include "network/network_clock.h"
#include "network/peer_access.h"
#include "network/peer_table.h"
#include "network/subnet_guard.h"

namespace norvel::network {

struct ConnectionLimits {
  uint64_t inbound_max = 0;
  uint64_t outbound_max = 0;
  uint32_t ban_duration_s = 0;
};

class Connections final : public PeerAccess {
 public:
  // All of them outlive this object. `callbacks` is read at each call.
  Connections(const ConnectionLimits& limits, const NetworkClock& clock, LogLimiter& log,
              const NetworkCallbacks& callbacks);

  // ---- Coming and going

  void open() { table_.set_open(true); }

  // Lets nobody in any more and takes out all, without a callback.
  void close();

  // Takes an accepted connection, or closes it: banned, too many within a second,
  // too many inbound peers, too many of its /24, in this order.
  bool admit_inbound(FileDescriptor connection, const std::string& ip, uint16_t port);

  // Whether one more peer may be dialled at all.
  bool has_outbound_room() const { return table_.outbound_count() < limits_.outbound_max; }

  // What stands before a dial: nothing when the address is banned or its /24 full,
  // which prints a line.
  std::optional<SubnetGuard::Slot> reserve_outbound(const std::string& ip);

  // Takes a connection that was dialled; null when it came too late.
  PeerPtr add_outbound(FileDescriptor connection, const std::string& ip, uint16_t port, SubnetGuard::Slot slot);

  void disconnect(const std::string& key);
  void disconnect(const Peer& peer);

  // ---- Bans

  // Prints one line; takes out every peer with that address.
  void ban(const std::string& ip, const std::string& reason);
  void increment_misbehavior(const std::string& key, uint32_t points);
  void lift_expired_bans();
  BanList& bans() { return bans_; }

  // ---- PeerAccess

  PeerList handshaken_peers() const override;
  std::string key_of(const Peer& peer) const override { return key_of_peer(peer); }
  bool send_message_to_peer(const PeerPtr& peer, const Message& message) override;
  void add_misbehavior(const Peer& peer, uint32_t points) override;

  PeerTable& table() { return table_; }
  const PeerTable& table() const { return table_; }
  ConnectionRate& rate() { return rate_; }
  const SubnetGuard& subnets() const { return subnets_; }

 private:
  bool enter(const PeerPtr& peer, SubnetGuard::Slot slot, uint64_t count_max);
  void finish(const PeerTable::Entry& entry, const std::string& key);
  void disconnect_address(const std::string& ip);

  const ConnectionLimits limits_;
  const NetworkClock& clock_;
  LogLimiter& log_;
  const NetworkCallbacks& callbacks_;
  BanList bans_;
  ConnectionRate rate_;
  SubnetGuard subnets_;  // before the table, whose entries hold slots of it
  PeerTable table_;
};

}  // namespace norvel::network
