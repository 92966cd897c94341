// A node's side of the peer-to-peer network over IPv4 TCP: listens and dials,
// shakes hands, keeps peers alive, exchanges addresses and remembers them in
// peers.dat, and protects the node by misbehaviour scores, bans, a spam limit, a
// connection-rate limit and a cap of connections per /24. Blocks and transactions
// are the relay's matter.
//
// Stopped -> running by start(), back by stop(). A peer: connected (in the table)
// -> handshake complete (VERACK, or VERSION of a peer that was dialled) -> removed.
//
// Errors: socket failures end the peer or listener they concern, with a line.
// Threads: safe from any thread. Four of its own: listener, message handler
// (a pass every 10 ms), timeout checker (a pass every 10 s) and a few that dial.
// No lock is held while chain, pool or a callback is called.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/block.h"
#include "core/transaction.h"
#include "mempool/admission.h"
#include "network/message.h"
#include "network/network_callbacks.h"
#include "network/network_clock.h"
#include "network/peer.h"

namespace norvel {

class Blockchain;
class Mempool;

namespace network {

struct PeerInfo {
  std::string address;  // "address:port"
  std::string user_agent;
  uint32_t version = 0;
  uint32_t best_height = 0;
  bool outbound = false;
  bool handshake_complete = false;
  uint64_t bytes_sent = 0;
  uint64_t bytes_received = 0;
};

struct PeerCounts {
  uint64_t inbound = 0;
  uint64_t outbound = 0;
};

class NetworkManager {
 public:
  // `ban_duration_s` in seconds. Nothing starts.
  NetworkManager(uint16_t port, std::string bind_address, const std::string& data_dir, uint64_t max_inbound,
                 uint64_t max_outbound, uint32_t ban_duration_s);
  ~NetworkManager();  // stops
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  // ---- Before start()

  void set_blockchain(Blockchain* chain);
  void set_mempool(Mempool* pool);
  void set_callbacks(NetworkCallbacks callbacks);

  // Dials these hosts only, again and again; no other known address is dialled.
  void set_fixed_peers(const std::vector<std::string>& host_ports);

  // ---- Life

  // False when running already, while threads of an earlier run are not over, and
  // when the system gives no threads. With `listen` false nobody can connect; a
  // listener that cannot be set up prints a line and is no reason to fail.
  bool start(bool listen);

  // Tells all threads to end, wakes them and waits for them for 4.5 s at most: what
  // is inside the chain or a callback may take longer (see is_finished()), and name
  // look-ups are left to threads that own their data. Saves peers.dat. Waits for a
  // start() or stop() under way.
  void stop();

  // Whether every thread that was started has ended, name look-ups included. The
  // destructor waits for all but those.
  bool is_finished() const;

  // Whether a listener was set up and the manager runs.
  bool is_listening() const;

  // ---- Peers

  bool connect_to_peer(const std::string& host, uint16_t port);
  void add_seed_node(const std::string& host, uint16_t port);
  void connect_to_seed_nodes(const std::vector<std::string>& host_ports);
  void disconnect_peer(const std::string& peer_key);
  void ban_peer(const std::string& ip, const std::string& reason);
  void unban_peer(const std::string& ip);
  bool is_peer_banned(const std::string& ip) const;
  void increment_misbehavior(const std::string& peer_key, uint32_t points);
  bool send_message_to_peer(const std::shared_ptr<Peer>& peer, const Message& message);

  size_t get_peer_count() const;
  PeerCounts get_peer_counts() const;
  std::vector<PeerInfo> get_peers() const;  // in the order of their keys

  // The median of the heights that peers announced or have shown since, of those
  // that were dialled if there are any; the lower one of two in the middle. So no
  // single claim counts where there are others. At least the chain's own height.
  uint32_t get_best_known_height() const;

  // Median, in seconds, of the peers' VERSION times minus this machine's; 0 for
  // fewer than three peers. Of two in the middle the one closer to 0, so that more
  // than half of the peers are at least so far away.
  int64_t get_clock_offset_s() const;

  void save_peer_list();
  void load_peer_list();

  // ---- Relay: see Relay

  bool accept_block(const Block& block, std::string& error);
  AdmissionOutcome try_accept_tx(const Transaction& tx, std::string& reason);
  void broadcast_block(const Block& block);
  void broadcast_transaction(const Transaction& tx);

  NetworkClock& get_clock();  // tests move it

 private:
  struct State;
  std::unique_ptr<State> state_;
};

namespace utils {

// Splits at the last ":"; the port is decimal, 1 to 65535. False otherwise,
// leaving both outputs as they were.
bool parse_address(const std::string& text, std::string& host, uint16_t& port);

// Within 7,200 s of now, both ends included.
bool is_timestamp_valid(int64_t timestamp_s);

int64_t get_current_timestamp();  // seconds since the Unix epoch

}  // namespace utils
}  // namespace network
}  // namespace norvel
