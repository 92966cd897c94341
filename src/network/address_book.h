// The addresses of nodes that were heard of, and those found to be this node
// itself. Kept in peers.dat, a text file:
//
//   # Norvel peer list
//   ADDRESS:PORT LAST_SEEN       one per address, in key order, seconds since the Unix epoch
//
// Invariants:
//   1. At most kKnownPeersMax addresses, and of one /16 outside private ranges at
//      most kKnownPeersPerGroupMax; the least recently seen leave first, seeds stay.
//   2. No address that was found to be this node's own is known, of the last
//      kSelfAddressesMax that were found by dialling them and as many that were
//      told; of the latter seeds stay, for who shares their address could tell.
//
// Threads: safe from any thread; files are read and written without the lock of
// the addresses.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/sync.h"
#include "network/network_clock.h"
#include "network/payloads.h"

namespace norvel::network {

inline constexpr size_t kKnownPeersMax = 20'000;
inline constexpr size_t kKnownPeersPerGroupMax = 64;
inline constexpr size_t kSelfAddressesMax = 1'000;  // of each of both kinds

struct KnownPeer {
  std::string address;  // dotted IPv4; of a seed perhaps a name
  uint16_t port = 0;
  int64_t last_seen = 0;  // seconds since the Unix epoch, as it was told
  uint32_t services = 0;
  bool seed = false;

  bool operator==(const KnownPeer&) const = default;
};

class AddressBook {
 public:
  explicit AddressBook(const NetworkClock& clock) : clock_(clock) {}

  // Takes an address that is new and not this node's. True when it was, and is
  // known now. One that claims to have been seen in the future ranks as seen now.
  bool add(const KnownPeer& peer) EXCLUDES(mutex_);

  // Records the node, or marks the record it has: seeds are never left out, unless
  // this node dialled them and reached itself.
  void add_seed(const std::string& host, uint16_t port) EXCLUDES(mutex_);

  // After a VERSION from `ip` that announces `port`: makes or refreshes that
  // record (seen now, services 1 if they were 0). The record under `old_port`, if
  // that is another one, moves along, but for a seed's. A port of 0 is no address:
  // then a record only leaves.
  void note_version(const std::string& ip, uint16_t old_port, uint16_t port) EXCLUDES(mutex_);

  // `key` is this node itself; it and `other_key` are known no longer. `dialled`:
  // this node reached itself, so `other_key`, which it dialled, is its own too, and
  // what anybody who connects may claim does not push them out. What was only told
  // leaves seeds known.
  void mark_self(const std::string& key, const std::string& other_key, bool dialled) EXCLUDES(mutex_);

  bool is_self(const std::string& key) const EXCLUDES(mutex_);

  // The same, but only by what this node found when it dialled.
  bool was_reached_as_self(const std::string& key) const EXCLUDES(mutex_);

  size_t size() const EXCLUDES(mutex_);

  // All, in key order.
  std::vector<KnownPeer> list() const EXCLUDES(mutex_);

  // For an ADDR: the first kAddressesMax in key order of those with a dotted
  // address and a port, without `except_key`; in random order.
  std::vector<AddressEntry> sample(const std::string& except_key) const EXCLUDES(mutex_);

  // False when the file cannot be written. Waits for another save to end, since
  // both write the same temporary file.
  bool save(const std::string& path) const EXCLUDES(save_mutex_, mutex_);

  // Adds what the file holds; lines that do not read are skipped. How many
  // addresses it named; nothing without a readable file.
  std::optional<size_t> load(const std::string& path) EXCLUDES(mutex_);

 private:
  using Rank = std::pair<int64_t, std::string>;  // seconds, key; the first leaves first

  struct Record {
    KnownPeer peer;
    int64_t rank_s = 0;
    std::string group;  // the /16; empty where none is counted
  };

  // The oldest key makes room for a new one.
  struct OwnKeys {
    void insert(const std::string& key);

    std::set<std::string> keys;
    std::deque<std::string> order;
  };

  bool is_own(const std::string& key) const REQUIRES(mutex_);
  void insert(const std::string& key, const KnownPeer& peer) REQUIRES(mutex_);
  void erase(const std::string& key) REQUIRES(mutex_);
  bool is_seed(const std::string& key) const REQUIRES(mutex_);
  void trim(const std::string& group) REQUIRES(mutex_);

  const NetworkClock& clock_;
  mutable Mutex save_mutex_;  // held over the file; mutex_ is taken inside it
  mutable Mutex mutex_;       // leaf
  std::map<std::string, Record> known_ GUARDED_BY(mutex_);
  std::set<Rank> ranks_ GUARDED_BY(mutex_);                               // of all but seeds
  std::map<std::string, std::set<Rank>> group_ranks_ GUARDED_BY(mutex_);  // the same, by /16
  OwnKeys dialled_self_ GUARDED_BY(mutex_);
  OwnKeys told_self_ GUARDED_BY(mutex_);
};

}  // namespace norvel::network
