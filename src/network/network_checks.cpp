#include <algorithm>
#include <exception>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/console.h"
#include "network/network_state.h"

namespace norvel::network {

namespace {

constexpr std::chrono::milliseconds kCheckStep{200};
constexpr int64_t kCheckIntervalMs = 10'000;
constexpr int64_t kFirstReconnectMs = 3'000;  // after the start

constexpr int64_t kSilenceMaxMs = 300'000;
constexpr int64_t kPongAgeS = 120;  // that makes for a PING

// Every so many passes.
constexpr uint64_t kReconnectPasses = 3;
constexpr uint64_t kSavePasses = 30;

// What one step throws must not keep the others from running.
template <class Step>
void checked(LogLimiter& log, Step step) {
  try {
    step();
  } catch (const std::exception& error) {
    log.failure("checks", "Check failed", error.what());
  }
}

// Of one generator for the whole process, whatever managers it has.
uint64_t draw_ping_nonce() {
  static Mutex mutex;  // leaf
  static std::mt19937_64 generator{std::random_device()()};
  const MutexLock lock(mutex);
  return generator();
}

}  // namespace

void NetworkManager::State::check_loop(int64_t start_ms) {
  const int64_t first_reconnect_ms = start_ms + kFirstReconnectMs;
  int64_t next_pass_ms = start_ms + kCheckIntervalMs;
  bool reconnected = false;
  while (!stop_signal.wait_for(kCheckStep)) {
    if (!reconnected && clock.now_ms() >= first_reconnect_ms) {
      reconnected = true;
      checked(log, [this] { reconnect_known_peers(); });
    }
    if (clock.now_ms() >= next_pass_ms) {
      check_pass();
      next_pass_ms = clock.now_ms() + kCheckIntervalMs;
    }
  }
}

void NetworkManager::State::check_pass() {
  ++check_count;
  checked(log, [this] { check_peer_timeouts(); });
  checked(log, [this] { send_ping_to_peers(); });
  checked(log, [this] { check_sync_with_peers(); });
  // Hosts that the operator named, and the first peer to be found, do not wait for the third pass.
  if (check_count % kReconnectPasses == 0 || !fixed_peers.empty() || connections.table().outbound_count() == 0) {
    checked(log, [this] { reconnect_known_peers(); });
  }
  checked(log, [this] { relay.process_orphan_txs(); });
  checked(log, [this] { connections.lift_expired_bans(); });
  if (check_count % kSavePasses == 0) {
    checked(log, [this] { save_peer_list(); });
  }
  checked(log, [this] { connections.rate().purge(); });
}

void NetworkManager::State::check_peer_timeouts() {
  for (const PeerPtr& peer : connections.table().snapshot()) {
    if (clock.heard_ms() - peer->silent_since_ms > kSilenceMaxMs) {
      log.out("peer timeout", "[Network] Peer timeout: " + key_of_peer(*peer));
      connections.disconnect(*peer);
    }
  }
}

void NetworkManager::State::send_ping_to_peers() {
  Message ping{MessageType::PING, {}};
  append_le(ping.payload, draw_ping_nonce());
  for (const PeerPtr& peer : connections.handshaken_peers()) {
    if (clock.now() - peer->last_pong >= kPongAgeS) {
      connections.send_message_to_peer(peer, ping);
    }
  }
}

void NetworkManager::State::check_sync_with_peers() {
  if (chain == nullptr) {
    return;
  }
  for (const PeerPtr& peer : connections.handshaken_peers()) {
    if (peer->best_height > chain->get_best_height()) {
      relay.check_sync_with_peer(peer);
    }
  }
}

void NetworkManager::State::reconnect_known_peers() {
  if (!running || !connections.has_outbound_room()) {
    return;
  }
  for (const HostPort& host : fixed_peers) {
    dialler.enqueue(host.host, host.port, Dialler::Urgency::URGENT);
  }
  if (!fixed_peers.empty()) {
    return;
  }
  std::vector<Candidate> due = list_due_peers();
  put_in_turn(due);
  dialler.drop_waiting();
  for (const auto& [peer, past, turn] : due) {
    dialler.enqueue(peer.address, peer.port, peer.seed ? Dialler::Urgency::URGENT : Dialler::Urgency::NORMAL);
  }
}

// Known addresses in key order, then those that were reached once and had to make
// room for others.
std::vector<NetworkManager::State::Candidate> NetworkManager::State::list_due_peers() {
  std::vector<KnownPeer> peers = book.list();
  std::set<std::string> known;
  for (const KnownPeer& peer : peers) {
    known.insert(make_key(peer.address, peer.port));
  }
  for (const std::string& key : backoff.list_reached()) {
    if (const auto host = split_key(key); host && !known.contains(key)) {
      peers.push_back({.address = host->host, .port = host->port});
    }
  }
  std::vector<Candidate> due;
  const auto connected = connections.table().connected_keys();
  const bool none_up = connections.table().outbound_count() == 0;
  for (KnownPeer& peer : peers) {
    const std::string key = make_key(peer.address, peer.port);
    const bool is_self = peer.seed ? book.was_reached_as_self(key) : book.is_self(key);
    if (peer.port != 0 && !connected.contains(key) && !is_self &&
        backoff.may_dial(key, peer.seed || none_up ? kDialDelayUrgentMs : kDialDelayMaxMs)) {
      due.push_back({std::move(peer), backoff.past(key)});
    }
  }
  return due;
}

// Seeds first, then by turns one that was reached before and one that was not, of
// both kinds those that have waited longest first: so addresses where nobody
// answers keep nobody from his turn, however many of them a peer tells, nor does a
// host that answers at thousands of ports, for of its /16 only a few count as reached.
void NetworkManager::State::put_in_turn(std::vector<Candidate>& due) {
  std::ranges::stable_sort(due, {}, [](const Candidate& each) { return each.past.last_ms; });
  size_t next_reached = 0;
  size_t next_other = 1;
  for (Candidate& each : due) {
    size_t& next = each.past.reached ? next_reached : next_other;
    each.turn = next;
    next += 2;
  }
  std::ranges::stable_sort(due, {}, [](const Candidate& each) { return std::pair(!each.peer.seed, each.turn); });
}

}  // namespace norvel::network
