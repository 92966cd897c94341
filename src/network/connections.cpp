#include "network/connections.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "core/console.h"
#include "core/descriptor_limit.h"
#include "network/address_text.h"

namespace norvel::network {

namespace {

// Descriptors that those who connect leave to files, RPC clients and dials, or
// half of all where there are few.
constexpr uint64_t kDescriptorsLeft = 600;

constexpr const char kBanReason[] = "misbehavior score exceeded threshold";

// Whether `fd`, the lowest number that was free, is among those for strangers.
bool leaves_descriptors(int fd) {
  const uint64_t limit = descriptor_limit();
  return std::cmp_less(fd, limit - std::min(limit / 2, kDescriptorsLeft));
}

std::string ban_line(const std::string& ip, const std::string& reason) {
  std::string line = "[Network] Banning " + console::printable(ip);
  if (!reason.empty()) {
    line += " — " + console::printable(reason);
  }
  return line;
}

}  // namespace

Connections::Connections(const ConnectionLimits& limits, const NetworkClock& clock, LogLimiter& log,
                         const NetworkCallbacks& callbacks)
    : limits_(limits),
      clock_(clock),
      log_(log),
      callbacks_(callbacks),
      bans_(clock, limits.ban_duration_s),
      rate_(clock) {}

void Connections::close() {
  table_.set_open(false);
  for (const PeerTable::Entry& entry : table_.remove_all()) {
    ::shutdown(entry.peer->connection.get(), SHUT_RDWR);
  }
}

bool Connections::admit_inbound(FileDescriptor connection, const std::string& ip, uint16_t port) {
  if (bans_.is_banned(ip) || !rate_.admit(ip) || table_.inbound_count() >= limits_.inbound_max ||
      !leaves_descriptors(connection.get())) {
    return false;
  }
  SubnetGuard::Admission admission = subnets_.check_and_register(ip);
  if (!admission.allowed) {
    log_.error("eclipse guard", admission.refusal);
    return false;
  }
  const auto peer = std::make_shared<Peer>(std::move(connection), ip, port, false, clock_.now_ms(), clock_.heard_ms());
  return enter(peer, std::move(admission.slot), limits_.inbound_max);
}

std::optional<SubnetGuard::Slot> Connections::reserve_outbound(const std::string& ip) {
  if (bans_.is_banned(ip)) {
    return std::nullopt;
  }
  SubnetGuard::Admission admission = subnets_.check_and_register(ip);
  if (!admission.allowed) {
    log_.error("eclipse guard", admission.refusal);
    return std::nullopt;
  }
  return std::move(admission.slot);
}

PeerPtr Connections::add_outbound(FileDescriptor connection, const std::string& ip, uint16_t port,
                                  SubnetGuard::Slot slot) {
  auto peer = std::make_shared<Peer>(std::move(connection), ip, port, true, clock_.now_ms(), clock_.heard_ms());
  return enter(peer, std::move(slot), limits_.outbound_max) ? peer : nullptr;
}

// A ban may have come between the first look and the table; whoever looks last
// sees the other.
bool Connections::enter(const PeerPtr& peer, SubnetGuard::Slot slot, uint64_t count_max) {
  if (!table_.add(peer, slot, count_max)) {
    return false;
  }
  if (bans_.is_banned(peer->address)) {
    disconnect(*peer);
    return false;
  }
  return true;
}

void Connections::disconnect(const std::string& key) {
  finish(table_.remove(key), key);
}

void Connections::disconnect(const Peer& peer) {
  const std::string key = key_of_peer(peer);
  finish(table_.remove(peer), key);
}

void Connections::finish(const PeerTable::Entry& entry, const std::string& key) {
  if (entry.peer == nullptr) {
    return;
  }
  ::shutdown(entry.peer->connection.get(), SHUT_RDWR);
  if (callbacks_.peer_disconnected) {
    callbacks_.peer_disconnected(key);
  }
}

void Connections::disconnect_address(const std::string& ip) {
  for (const PeerPtr& peer : table_.find_by_address(ip)) {
    disconnect(*peer);
  }
}

void Connections::ban(const std::string& ip, const std::string& reason) {
  bans_.ban(ip);
  console::write_out(ban_line(ip, reason) + "\n");
  disconnect_address(ip);
}

void Connections::increment_misbehavior(const std::string& key, uint32_t points) {
  const std::string ip = ip_of_key(key);
  if (const PeerPtr peer = table_.find(key)) {
    peer->misbehavior += points;
  }
  if (bans_.add_points(ip, points)) {
    bans_.ban(ip);
    log_.out("ban", ban_line(ip, kBanReason));
    disconnect_address(ip);
  }
}

void Connections::lift_expired_bans() {
  for (const std::string& ip : bans_.expire()) {
    log_.out("ban expired", "[Network] Ban expired for " + console::printable(ip));
  }
}

PeerList Connections::handshaken_peers() const {
  PeerList peers = table_.snapshot();
  std::erase_if(peers, [](const PeerPtr& peer) { return !peer->handshake_complete; });
  return peers;
}

bool Connections::send_message_to_peer(const PeerPtr& peer, const Message& message) {
  if (peer == nullptr || peer->is_closed) {
    return false;
  }
  const size_t bytes = kFrameHeaderBytes + message.payload.size();
  const MutexLock lock(peer->send_mutex);
  if (peer->send_queue.size() >= kSendQueueMessagesMax || peer->queued_bytes + bytes > kSendQueueBytesMax) {
    return false;
  }
  peer->send_queue.push_back(message);
  peer->queued_bytes += bytes;
  return true;
}

void Connections::add_misbehavior(const Peer& peer, uint32_t points) {
  increment_misbehavior(key_of_peer(peer), points);
}

}  // namespace norvel::network
