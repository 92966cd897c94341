// What the network manager is made of, wired together, and the timeout checker.
//
// Threads: as NetworkManager.

#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "chain/blockchain.h"
#include "mempool/mempool.h"
#include "network/address_book.h"
#include "network/address_text.h"
#include "network/connections.h"
#include "network/dial_backoff.h"
#include "network/dialler.h"
#include "network/handshake.h"
#include "network/listener.h"
#include "network/log_limiter.h"
#include "network/message_handler.h"
#include "network/network_callbacks.h"
#include "network/network_clock.h"
#include "network/network_manager.h"
#include "network/relay.h"
#include "network/thread_group.h"

namespace norvel::network {

struct NetworkManager::State {
  State(uint16_t port_number, std::string bind, const std::string& directory,
        const ConnectionLimits& connection_limits);
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  bool start(bool listen) EXCLUDES(life_mutex);
  void stop() EXCLUDES(life_mutex);
  bool start_all(bool listen) REQUIRES(life_mutex);
  bool start_threads(bool listens) REQUIRES(life_mutex);
  void stop_threads() REQUIRES(life_mutex);
  bool is_finished() const { return threads.is_finished() && dialler.is_finished(); }

  void save_peer_list() const;
  void load_peer_list();
  void attach();
  void greet(const PeerPtr& peer);

  // ---- Timeout checker (network_checks.cpp)

  void check_loop(int64_t start_ms);  // NetworkClock, of the manager's start
  void check_pass();
  void check_peer_timeouts();
  void send_ping_to_peers();
  void check_sync_with_peers();
  void reconnect_known_peers();

  struct Candidate {
    KnownPeer peer;
    DialBackoff::Past past;
    size_t turn = 0;
  };
  std::vector<Candidate> list_due_peers();
  static void put_in_turn(std::vector<Candidate>& due);

  const uint16_t port;
  const std::string bind_address;
  const std::string peer_list_path;
  const ConnectionLimits limits;

  // Set before start.
  Blockchain* chain = nullptr;
  Mempool* pool = nullptr;
  NetworkCallbacks callbacks;
  std::vector<HostPort> fixed_peers;

  NetworkClock clock;
  LogLimiter log{clock};
  Connections connections{limits, clock, log, callbacks};
  AddressBook book{clock};
  DialBackoff backoff{clock};
  Listener listener{log};
  Relay relay{connections, clock, log, callbacks};
  Dialler dialler{
      bind_address, connections, book, backoff, listener, log, [this](const PeerPtr& peer) { greet(peer); }};
  Handshake handshake{{clock, log, callbacks, connections, book, dialler, relay}, port};
  MessageHandler handler{clock, log, connections, handshake, relay};

  // Timeout checker's thread only.
  uint64_t check_count = 0;

  // One start or stop at a time; held until the threads have ended or their time is up.
  Mutex life_mutex;

  std::atomic<bool> running{false};  // written with life_mutex held; a stale value dials once too often
  StopSignal stop_signal;
  ThreadGroup threads{3};  // listener, message handler, timeout checker
};

}  // namespace norvel::network
