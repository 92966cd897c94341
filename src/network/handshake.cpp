#include "network/handshake.h"

#include <algorithm>
#include <limits>
#include <random>
#include <utility>

#include "core/clock.h"
#include "network/address_text.h"
#include "network/payloads.h"

namespace norvel::network {

namespace {

constexpr uint64_t kServices = 1;

constexpr uint64_t kTimestampMaxS = uint64_t{1} << 40;  // beyond any clock; keeps differences in range

constexpr uint32_t kMalformedVersionPoints = 10;
constexpr uint32_t kRepeatedVersionPoints = 1;
constexpr uint32_t kTooManyAddressesPoints = 5;

uint64_t draw_nonce() {
  std::random_device device;
  const uint64_t high = device();
  const uint64_t nonce = (high << 32) ^ device();
  return nonce == 0 ? 1 : nonce;
}

int64_t to_signed(uint64_t seconds) {
  return static_cast<int64_t>(std::min<uint64_t>(seconds, std::numeric_limits<int64_t>::max()));
}

}  // namespace

Handshake::Handshake(const Parts& parts, uint16_t port) : parts_(parts), port_(port), nonce_(draw_nonce()) {}

void Handshake::attach(Blockchain* chain, Mempool* pool) {
  chain_ = chain;
  pool_ = pool;
}

void Handshake::greet(const PeerPtr& peer) {
  if (peer->version_sent.exchange(true)) {
    return;
  }
  VersionPayload version;
  version.version = constants::kProtocolVersion;
  version.services = kServices;
  version.timestamp_s = unix_time_seconds();
  version.start_height = chain_ == nullptr ? 0 : chain_->get_best_height();
  version.port = port_;
  version.user_agent = constants::kUserAgent;
  version.nonce = nonce_;
  parts_.connections.send_message_to_peer(peer, {MessageType::VERSION, encode_version(version)});
}

void Handshake::on_version(const PeerPtr& peer, ByteView payload) {
  const auto version = decode_version(payload);
  if (!version) {
    parts_.connections.add_misbehavior(*peer, kMalformedVersionPoints);
    return;
  }
  if (peer->version_received) {
    parts_.connections.add_misbehavior(*peer, kRepeatedVersionPoints);
    return;
  }
  note_version(*peer, *version);
  const uint16_t announced_port = version->port.value_or(peer->port);
  if (version->nonce == nonce_) {
    leave_self(peer, announced_port);
    return;
  }
  settle_key(*peer, announced_port);
  parts_.connections.send_message_to_peer(peer, {MessageType::VERACK, {}});
  if (!peer->outbound) {
    greet(peer);
    return;
  }
  // Also when its VERACK came first: then its height was not known yet.
  peer->handshake_complete = true;
  complete(peer);
}

void Handshake::note_version(Peer& peer, const VersionPayload& version) {
  peer.version = version.version;
  peer.services = version.services;
  peer.start_height = version.start_height;
  peer.best_height = version.start_height;
  peer.clock_offset_s = to_signed(std::min(version.timestamp_s, kTimestampMaxS)) - parts_.clock.now();
  if (version.user_agent) {
    const MutexLock lock(peer.user_agent_mutex);
    peer.user_agent = *version.user_agent;
  }
  peer.version_received = true;
}

void Handshake::leave_self(const PeerPtr& peer, uint16_t announced_port) {
  const std::string key = make_key(peer->address, announced_port);
  const std::string connection_key = make_key(peer->address, peer->dialled_port);
  if (peer->outbound) {
    // What was dialled is this node, whoever passed its words on; the port is only told.
    parts_.book.mark_self(connection_key, connection_key, true);
    parts_.book.mark_self(key, key, false);
  } else if (parts_.connections.table().is_other_end(*peer, announced_port)) {
    parts_.book.mark_self(key, key, true);
  } else {
    parts_.book.mark_self(key, connection_key, false);
  }
  parts_.log.out("self-connection",
                 "[Network] Self-connect detectado (" + key + " somos nosotros): cerrando y vetando la direccion");
  parts_.connections.disconnect(*peer);
}

// Puts the peer under the port that it announces, unless another live peer is
// there: then it keeps its own, and nothing is recorded of a claim that cannot be
// told from a false one.
void Handshake::settle_key(Peer& peer, uint16_t announced_port) {
  const uint16_t old_port = peer.port;
  if (announced_port == old_port || parts_.connections.table().rekey(peer, announced_port)) {
    parts_.book.note_version(peer.address, old_port, announced_port);
  }
}

void Handshake::on_verack(const PeerPtr& peer) {
  const bool was_complete = peer->handshake_complete.exchange(true);
  parts_.connections.send_message_to_peer(peer, {MessageType::GETADDR, {}});
  if (parts_.callbacks.peer_connected) {
    parts_.callbacks.peer_connected(key_of_peer(*peer));
  }
  if (!was_complete) {
    complete(peer);
  }
}

void Handshake::complete(const PeerPtr& peer) {
  if (peer->outbound) {
    parts_.dialler.note_success(*peer);
  }
  parts_.relay.check_sync_with_peer(peer);
  if (pool_ != nullptr && !peer->mempool_requested.exchange(true)) {
    parts_.connections.send_message_to_peer(peer, {MessageType::MEMPOOL, {}});
  }
}

void Handshake::on_addresses(const PeerPtr& peer, ByteView payload) {
  const auto entries = decode_addresses(payload);
  if (!entries) {
    parts_.connections.add_misbehavior(*peer, kTooManyAddressesPoints);
    return;
  }
  for (const AddressEntry& entry : *entries) {
    if (entry.port == 0) {
      continue;
    }
    const KnownPeer told{.address = format_ipv4(entry.ip),
                         .port = entry.port,
                         .last_seen = to_signed(entry.last_seen_s),
                         .services = entry.services};
    if (parts_.book.add(told) && dials_told_addresses_) {
      parts_.dialler.enqueue(told.address, told.port, Dialler::Urgency::TOLD);
    }
  }
}

void Handshake::send_addresses(const PeerPtr& peer) {
  const Message answer{MessageType::ADDR, encode_addresses(parts_.book.sample(key_of_peer(*peer)))};
  parts_.connections.send_message_to_peer(peer, answer);
}

}  // namespace norvel::network
