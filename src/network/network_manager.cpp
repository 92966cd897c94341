#include "network/network_manager.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <utility>

#include "core/clock.h"
#include "core/console.h"
#include "network/network_state.h"

namespace norvel::network {

namespace {

constexpr std::chrono::milliseconds kStopTime{4'500};
constexpr int64_t kTimestampDistanceMaxS = 7'200;
constexpr size_t kClockPeersMin = 3;  // fewer say nothing about this machine's clock

std::string list_path(const std::string& directory) {
  return directory.empty() ? "peers.dat" : directory + "/peers.dat";
}

}  // namespace

NetworkManager::State::State(uint16_t port_number, std::string bind, const std::string& directory,
                             const ConnectionLimits& connection_limits)
    : port(port_number),
      bind_address(std::move(bind)),
      peer_list_path(list_path(directory)),
      limits(connection_limits) {}

NetworkManager::State::~State() {
  stop();
  threads.join();
  dialler.join();
}

bool NetworkManager::State::start(bool listen) {
  const MutexLock lock(life_mutex);
  if (running || !threads.is_finished()) {
    return false;
  }
  running = true;
  try {
    return start_all(listen);
  } catch (const std::exception& failure) {  // no memory
    log.failure("start", "Cannot start", failure.what());
    stop_threads();
    return false;
  }
}

bool NetworkManager::State::start_all(bool listen) {
  stop_signal.lower();
  load_peer_list();
  console::write_out("[Network] P2P bind=" + make_key(bind_address, port) + " in=" +
                     std::to_string(limits.inbound_max) + " out=" + std::to_string(limits.outbound_max) + "\n");
  listener.close();  // of a run whose threads outlived their stop
  const bool listens = listen && listener.open(bind_address, port);
  dialler.start();
  connections.open();
  if (!start_threads(listens)) {
    console::error_line("[Network] Cannot start threads");
    stop_threads();
    return false;
  }
  return true;
}

bool NetworkManager::State::start_threads(bool listens) {
  const int64_t now_ms = clock.now_ms();
  const auto listen = [this] {
    listener.run(stop_signal, [this](FileDescriptor connection, const std::string& ip, uint16_t peer_port) {
      connections.admit_inbound(std::move(connection), ip, peer_port);
    });
  };
  return (!listens || threads.run(listen)) && threads.run([this] { handler.run(stop_signal); }) &&
         threads.run([this, now_ms] { check_loop(now_ms); });
}

void NetworkManager::State::stop() {
  const MutexLock lock(life_mutex);
  stop_threads();
}

void NetworkManager::State::stop_threads() {
  if (!running.exchange(false)) {
    return;
  }
  save_peer_list();
  stop_signal.raise();
  dialler.stop();
  listener.interrupt();
  connections.close();
  const Deadline deadline = std::chrono::steady_clock::now() + kStopTime;
  const bool ended = threads.wait_until(deadline);
  dialler.wait_until(deadline);
  if (ended) {
    listener.close();
  }
  console::write_out("[Network] P2P services stopped.\n");
}

void NetworkManager::State::save_peer_list() const {
  if (!book.save(peer_list_path)) {
    console::write_out("[Network] Warning: cannot save peer list\n");
  }
}

void NetworkManager::State::load_peer_list() {
  if (const auto count = book.load(peer_list_path)) {
    console::write_out("[Network] Loaded " + std::to_string(*count) + " peers from disk.\n");
  }
}

void NetworkManager::State::attach() {
  relay.attach(chain, pool);
  handshake.attach(chain, pool);
  handshake.set_dials_told_addresses(fixed_peers.empty());
  handler.attach(chain);
}

void NetworkManager::State::greet(const PeerPtr& peer) {
  log.out("connected", "[Network] Connected to peer: " + key_of_peer(*peer));
  handshake.greet(peer);
}

NetworkManager::NetworkManager(uint16_t port, std::string bind_address, const std::string& data_dir,
                               uint64_t max_inbound, uint64_t max_outbound, uint32_t ban_duration_s)
    : state_(std::make_unique<State>(port, std::move(bind_address), data_dir,
                                     ConnectionLimits{max_inbound, max_outbound, ban_duration_s})) {}

NetworkManager::~NetworkManager() = default;

void NetworkManager::set_blockchain(Blockchain* chain) {
  state_->chain = chain;
  state_->attach();
}

void NetworkManager::set_mempool(Mempool* pool) {
  state_->pool = pool;
  state_->attach();
}

void NetworkManager::set_callbacks(NetworkCallbacks callbacks) {
  state_->callbacks = std::move(callbacks);
}

void NetworkManager::set_fixed_peers(const std::vector<std::string>& host_ports) {
  state_->fixed_peers.clear();
  for (const std::string& text : host_ports) {
    if (auto host = split_key(text)) {
      state_->fixed_peers.push_back(std::move(*host));
    }
  }
  state_->attach();
}

bool NetworkManager::start(bool listen) {
  return state_->start(listen);
}

void NetworkManager::stop() {
  state_->stop();
}

bool NetworkManager::is_finished() const {
  return state_->is_finished();
}

bool NetworkManager::connect_to_peer(const std::string& host, uint16_t port) {
  return state_->dialler.dial(host, port, Dialler::Urgency::NOW);
}

void NetworkManager::add_seed_node(const std::string& host, uint16_t port) {
  state_->book.add_seed(host, port);
  if (state_->running && state_->fixed_peers.empty()) {
    state_->dialler.enqueue(host, port, Dialler::Urgency::URGENT);
  }
}

void NetworkManager::connect_to_seed_nodes(const std::vector<std::string>& host_ports) {
  for (const std::string& text : host_ports) {
    if (const auto host = split_key(text)) {
      state_->dialler.dial(host->host, host->port, Dialler::Urgency::URGENT);
    }
  }
}

void NetworkManager::disconnect_peer(const std::string& peer_key) {
  state_->connections.disconnect(peer_key);
}

void NetworkManager::ban_peer(const std::string& ip, const std::string& reason) {
  state_->connections.ban(ip, reason);
}

void NetworkManager::unban_peer(const std::string& ip) {
  state_->connections.bans().unban(ip);
}

bool NetworkManager::is_peer_banned(const std::string& ip) const {
  return state_->connections.bans().is_banned(ip);
}

void NetworkManager::increment_misbehavior(const std::string& peer_key, uint32_t points) {
  state_->connections.increment_misbehavior(peer_key, points);
}

bool NetworkManager::send_message_to_peer(const std::shared_ptr<Peer>& peer, const Message& message) {
  return state_->connections.send_message_to_peer(peer, message);
}

size_t NetworkManager::get_peer_count() const {
  return state_->connections.table().size();
}

PeerCounts NetworkManager::get_peer_counts() const {
  return {state_->connections.table().inbound_count(), state_->connections.table().outbound_count()};
}

std::vector<PeerInfo> NetworkManager::get_peers() const {
  std::vector<PeerInfo> infos;
  for (const PeerPtr& peer : state_->connections.table().snapshot()) {
    PeerInfo& info = infos.emplace_back();
    info.address = key_of_peer(*peer);
    {
      const MutexLock lock(peer->user_agent_mutex);
      info.user_agent = peer->user_agent;
    }
    info.version = peer->version;
    info.best_height = peer->best_height;
    info.outbound = peer->outbound;
    info.handshake_complete = peer->handshake_complete;
    info.bytes_sent = peer->bytes_sent;
    info.bytes_received = peer->bytes_received;
  }
  return infos;
}

bool NetworkManager::is_listening() const {
  return state_->listener.is_listening();
}

uint32_t NetworkManager::get_best_known_height() const {
  std::vector<uint32_t> heights;
  const auto peers = state_->connections.table().snapshot();
  const bool dialled_only =
      std::ranges::any_of(peers, [](const PeerPtr& peer) { return peer->outbound && peer->version_received; });
  for (const PeerPtr& peer : peers) {
    if (peer->version_received && (peer->outbound || !dialled_only)) {
      heights.push_back(peer->best_height);
    }
  }
  const uint32_t ours = state_->chain == nullptr ? 0 : state_->chain->get_best_height();
  if (heights.empty()) {
    return ours;
  }
  const auto middle = heights.begin() + static_cast<std::ptrdiff_t>((heights.size() - 1) / 2);
  std::ranges::nth_element(heights, middle);
  return std::max(ours, *middle);
}

int64_t NetworkManager::get_clock_offset_s() const {
  // The peers' times are kept against NetworkClock, which goes on as before when the machine's clock is set.
  const int64_t correction = state_->clock.now() - utils::get_current_timestamp();
  std::vector<int64_t> offsets;
  for (const PeerPtr& peer : state_->connections.table().snapshot()) {
    if (peer->version_received) {
      offsets.push_back(peer->clock_offset_s + correction);
    }
  }
  if (offsets.size() < kClockPeersMin) {
    return 0;
  }
  std::ranges::sort(offsets);
  const int64_t low = offsets[(offsets.size() - 1) / 2];
  const int64_t high = offsets[offsets.size() / 2];
  return std::abs(low) < std::abs(high) ? low : high;
}

void NetworkManager::save_peer_list() {
  state_->save_peer_list();
}

void NetworkManager::load_peer_list() {
  state_->load_peer_list();
}

bool NetworkManager::accept_block(const Block& block, std::string& error) {
  return state_->relay.accept_block(block, error);
}

AdmissionOutcome NetworkManager::try_accept_tx(const Transaction& tx, std::string& reason) {
  return state_->relay.try_accept_tx(tx, reason);
}

void NetworkManager::broadcast_block(const Block& block) {
  state_->relay.broadcast_block(block);
}

void NetworkManager::broadcast_transaction(const Transaction& tx) {
  state_->relay.broadcast_transaction(tx);
}

NetworkClock& NetworkManager::get_clock() {
  return state_->clock;
}

namespace utils {

bool parse_address(const std::string& text, std::string& host, uint16_t& port) {
  auto split = split_key(text);
  if (!split) {
    return false;
  }
  host = std::move(split->host);
  port = split->port;
  return true;
}

bool is_timestamp_valid(int64_t timestamp_s) {
  const int64_t now = get_current_timestamp();
  return timestamp_s >= now - kTimestampDistanceMaxS && timestamp_s <= now + kTimestampDistanceMaxS;
}

int64_t get_current_timestamp() {
  return static_cast<int64_t>(unix_time_seconds());
}

}  // namespace utils
}  // namespace norvel::network
