// The live connections, by key, and how many there are of each kind.
//
// Invariants: a peer's key is its address and its present port; the counts are
// those of the peers in the table.
//
// Threads: safe from any thread; holds no other lock.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/sync.h"
#include "network/peer.h"
#include "network/subnet_guard.h"

namespace norvel::network {

using PeerPtr = std::shared_ptr<Peer>;
using PeerList = std::vector<PeerPtr>;

std::string key_of_peer(const Peer& peer);

class PeerTable {
 public:
  // A peer that has left; what it held is given back where this ends.
  struct Entry {
    PeerPtr peer;
    SubnetGuard::Slot slot;
  };

  // Whether peers may enter; none may in a new table.
  void set_open(bool open) EXCLUDES(mutex_);

  // False, and the table as it was, when it is not open, the key is taken, or
  // there are `count_max` of that kind.
  bool add(const PeerPtr& peer, SubnetGuard::Slot& slot, uint64_t count_max) EXCLUDES(mutex_);

  // Takes the peer out and marks it closed; empty when it is not in the table.
  Entry remove(const std::string& key) EXCLUDES(mutex_);
  Entry remove(const Peer& peer) EXCLUDES(mutex_);
  std::vector<Entry> remove_all() EXCLUDES(mutex_);

  // Gives the peer another port and key. False when it is not in the table or
  // another peer has that key.
  bool rekey(Peer& peer, uint16_t port) EXCLUDES(mutex_);

  PeerPtr find(const std::string& key) const EXCLUDES(mutex_);
  PeerList snapshot() const EXCLUDES(mutex_);  // in key order
  PeerList find_by_address(const std::string& ip) const EXCLUDES(mutex_);

  // Whether `inbound` comes from the very socket with which this node dialled the
  // same address at `port`, from where no VERSION has come yet.
  bool is_other_end(const Peer& inbound, uint16_t port) const EXCLUDES(mutex_);

  // Keys of all peers, and what was dialled for those that were.
  std::set<std::string> connected_keys() const EXCLUDES(mutex_);

  size_t size() const EXCLUDES(mutex_);
  uint64_t inbound_count() const EXCLUDES(mutex_);
  uint64_t outbound_count() const EXCLUDES(mutex_);

 private:
  using Entries = std::map<std::string, Entry>;

  uint64_t& count_of(const Peer& peer) REQUIRES(mutex_) { return peer.outbound ? outbound_ : inbound_; }
  Entry take_out(Entries::iterator at) REQUIRES(mutex_);

  mutable Mutex mutex_;  // leaf
  Entries entries_ GUARDED_BY(mutex_);
  bool open_ GUARDED_BY(mutex_) = false;
  uint64_t inbound_ GUARDED_BY(mutex_) = 0;
  uint64_t outbound_ GUARDED_BY(mutex_) = 0;
};

}  // namespace norvel::network
