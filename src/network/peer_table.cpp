#include "network/peer_table.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "network/address_text.h"

namespace norvel::network {

namespace {

// Of this end of the connection; empty when it has none.
std::string local_key(int fd) {
  sockaddr_in address{};
  socklen_t address_bytes = sizeof address;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &address_bytes) != 0 || address.sin_family != AF_INET) {
    return "";
  }
  Ipv4 ip;
  static_assert(sizeof address.sin_addr == ip.size());
  std::memcpy(ip.data(), &address.sin_addr, ip.size());
  return make_key(format_ipv4(ip), ntohs(address.sin_port));
}

}  // namespace

std::string key_of_peer(const Peer& peer) {
  return make_key(peer.address, peer.port);
}

void PeerTable::set_open(bool open) {
  const MutexLock lock(mutex_);
  open_ = open;
}

bool PeerTable::add(const PeerPtr& peer, SubnetGuard::Slot& slot, uint64_t count_max) {
  std::string key = key_of_peer(*peer);
  const MutexLock lock(mutex_);
  uint64_t& count = count_of(*peer);
  if (!open_ || count >= count_max) {
    return false;
  }
  const auto [at, added] = entries_.try_emplace(std::move(key));
  if (!added) {
    return false;
  }
  at->second.peer = peer;
  at->second.slot = std::move(slot);
  ++count;
  return true;
}

PeerTable::Entry PeerTable::remove(const std::string& key) {
  const MutexLock lock(mutex_);
  const auto at = entries_.find(key);
  return at == entries_.end() ? Entry() : take_out(at);
}

PeerTable::Entry PeerTable::remove(const Peer& peer) {
  const MutexLock lock(mutex_);
  const auto at = entries_.find(key_of_peer(peer));
  return at == entries_.end() || at->second.peer.get() != &peer ? Entry() : take_out(at);
}

std::vector<PeerTable::Entry> PeerTable::remove_all() {
  std::vector<Entry> all;
  const MutexLock lock(mutex_);
  all.reserve(entries_.size());
  while (!entries_.empty()) {
    all.push_back(take_out(entries_.begin()));
  }
  return all;
}

bool PeerTable::rekey(Peer& peer, uint16_t port) {
  std::string key = make_key(peer.address, port);
  const MutexLock lock(mutex_);
  const auto at = entries_.find(key_of_peer(peer));
  if (at == entries_.end() || at->second.peer.get() != &peer || entries_.contains(key)) {
    return false;
  }
  auto node = entries_.extract(at);
  node.key() = std::move(key);
  peer.port = port;
  entries_.insert(std::move(node));
  return true;
}

PeerPtr PeerTable::find(const std::string& key) const {
  const MutexLock lock(mutex_);
  const auto at = entries_.find(key);
  return at == entries_.end() ? nullptr : at->second.peer;
}

PeerList PeerTable::snapshot() const {
  PeerList peers;
  const MutexLock lock(mutex_);
  peers.reserve(entries_.size());
  for (const auto& [key, entry] : entries_) {
    peers.push_back(entry.peer);
  }
  return peers;
}

PeerList PeerTable::find_by_address(const std::string& ip) const {
  PeerList peers = snapshot();
  std::erase_if(peers, [&ip](const PeerPtr& peer) { return peer->address != ip; });
  return peers;
}

bool PeerTable::is_other_end(const Peer& inbound, uint16_t port) const {
  const std::string source = make_key(inbound.address, inbound.dialled_port);
  return std::ranges::any_of(snapshot(), [&](const PeerPtr& peer) {
    return peer->outbound && !peer->version_received && peer->address == inbound.address &&
           peer->dialled_port == port && local_key(peer->connection.get()) == source;
  });
}

std::set<std::string> PeerTable::connected_keys() const {
  std::set<std::string> keys;
  for (const PeerPtr& peer : snapshot()) {
    keys.insert(key_of_peer(*peer));
    if (peer->outbound) {
      keys.insert(make_key(peer->address, peer->dialled_port));
    }
  }
  return keys;
}

size_t PeerTable::size() const {
  const MutexLock lock(mutex_);
  return entries_.size();
}

uint64_t PeerTable::inbound_count() const {
  const MutexLock lock(mutex_);
  return inbound_;
}

uint64_t PeerTable::outbound_count() const {
  const MutexLock lock(mutex_);
  return outbound_;
}

PeerTable::Entry PeerTable::take_out(Entries::iterator at) {
  Entry entry = std::move(at->second);
  entries_.erase(at);
  --count_of(*entry.peer);
  entry.peer->is_closed = true;
  return entry;
}

}  // namespace norvel::network
