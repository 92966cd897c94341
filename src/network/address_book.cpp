#include "network/address_book.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <random>
#include <string_view>

#include "core/file_io.h"
#include "network/address_text.h"

namespace norvel::network {

namespace {

constexpr std::string_view kFileTitle = "# Norvel peer list\n";

// Ten times what kKnownPeersMax addresses with names of usual length take.
constexpr uint64_t kFileBytesMax = 16 << 20;

constexpr size_t kHostBytesMax = 253;  // of a name, RFC 1035

// Reads the decimal digits that `text` begins with and takes them away.
template <class T>
std::optional<T> take_number(std::string_view& text) {
  T value = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc()) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<size_t>(stop - text.data()));
  return value;
}

// "ADDRESS:PORT LAST_SEEN"; the time may be missing.
std::optional<KnownPeer> parse_line(std::string_view line) {
  const size_t colon = line.rfind(':');
  if (line.starts_with('#') || colon == std::string_view::npos || colon == 0 || colon > kHostBytesMax) {
    return std::nullopt;
  }
  KnownPeer peer;
  peer.address = line.substr(0, colon);
  line.remove_prefix(colon + 1);
  const auto port = take_number<uint16_t>(line);
  if (!port || *port == 0) {
    return std::nullopt;
  }
  peer.port = *port;
  if (line.starts_with(' ')) {
    line.remove_prefix(1);
    peer.last_seen = std::max<int64_t>(0, take_number<int64_t>(line).value_or(0));
  }
  return peer;
}

std::mt19937_64& thread_generator() {
  thread_local std::mt19937_64 generator{std::random_device()()};
  return generator;
}

}  // namespace

bool AddressBook::add(const KnownPeer& peer) {
  const std::string key = make_key(peer.address, peer.port);
  const MutexLock lock(mutex_);
  if (is_own(key) || known_.contains(key)) {
    return false;
  }
  insert(key, peer);
  return known_.contains(key);
}

void AddressBook::add_seed(const std::string& host, uint16_t port) {
  const std::string key = make_key(host, port);
  const MutexLock lock(mutex_);
  if (dialled_self_.keys.contains(key)) {
    return;
  }
  KnownPeer peer{.address = host, .port = port, .last_seen = clock_.now()};
  if (const auto at = known_.find(key); at != known_.end()) {
    peer = at->second.peer;
    erase(key);
  }
  peer.seed = true;
  insert(key, peer);
}

void AddressBook::note_version(const std::string& ip, uint16_t old_port, uint16_t port) {
  const std::string key = make_key(ip, port);
  const std::string old_key = make_key(ip, old_port);
  const int64_t now = clock_.now();
  const MutexLock lock(mutex_);
  KnownPeer peer{.address = ip, .port = port};
  const auto old_at = known_.find(old_key);
  if (const auto at = known_.find(key); at != known_.end()) {
    peer = at->second.peer;
  } else if (old_at != known_.end() && !old_at->second.peer.seed) {
    peer = old_at->second.peer;
    peer.port = port;
  }
  if (key != old_key && old_at != known_.end() && !old_at->second.peer.seed) {
    erase(old_key);
  }
  erase(key);
  if (port == 0) {
    return;
  }
  peer.last_seen = now;
  peer.services = std::max<uint32_t>(1, peer.services);
  insert(key, peer);
}

void AddressBook::mark_self(const std::string& key, const std::string& other_key, bool dialled) {
  const MutexLock lock(mutex_);
  if (dialled) {
    dialled_self_.insert(key);
    dialled_self_.insert(other_key);
  } else {
    told_self_.insert(key);
  }
  for (const std::string& own : {key, other_key}) {
    if (dialled || !is_seed(own)) {
      erase(own);
    }
  }
}

bool AddressBook::is_self(const std::string& key) const {
  const MutexLock lock(mutex_);
  return is_own(key);
}

bool AddressBook::was_reached_as_self(const std::string& key) const {
  const MutexLock lock(mutex_);
  return dialled_self_.keys.contains(key);
}

size_t AddressBook::size() const {
  const MutexLock lock(mutex_);
  return known_.size();
}

std::vector<KnownPeer> AddressBook::list() const {
  std::vector<KnownPeer> all;
  const MutexLock lock(mutex_);
  all.reserve(known_.size());
  for (const auto& [key, record] : known_) {
    all.push_back(record.peer);
  }
  return all;
}

std::vector<AddressEntry> AddressBook::sample(const std::string& except_key) const {
  std::vector<AddressEntry> entries;
  {
    const MutexLock lock(mutex_);
    for (auto at = known_.begin(); at != known_.end() && entries.size() < kAddressesMax; ++at) {
      const auto& [key, record] = *at;
      const auto ip = parse_ipv4(record.peer.address);
      if (ip && record.peer.port != 0 && key != except_key) {
        entries.push_back({*ip, record.peer.port, static_cast<uint64_t>(record.peer.last_seen), record.peer.services});
      }
    }
  }
  std::ranges::shuffle(entries, thread_generator());
  return entries;
}

bool AddressBook::save(const std::string& path) const {
  const MutexLock one_at_a_time(save_mutex_);
  std::string text(kFileTitle);
  for (const KnownPeer& peer : list()) {
    if (peer.port != 0) {
      text += make_key(peer.address, peer.port) + " " + std::to_string(peer.last_seen) + "\n";
    }
  }
  return replace_file(path, ByteView(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

std::optional<size_t> AddressBook::load(const std::string& path) {
  const auto data = read_whole_file(path, kFileBytesMax);
  if (!data) {
    return std::nullopt;
  }
  std::string_view rest(reinterpret_cast<const char*>(data->data()), data->size());
  size_t count = 0;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    if (const auto peer = parse_line(line)) {
      add(*peer);
      ++count;
    }
  }
  return count;
}

void AddressBook::OwnKeys::insert(const std::string& key) {
  if (!keys.insert(key).second) {
    return;
  }
  order.push_back(key);
  if (order.size() > kSelfAddressesMax) {
    keys.erase(order.front());
    order.pop_front();
  }
}

bool AddressBook::is_own(const std::string& key) const {
  return dialled_self_.keys.contains(key) || told_self_.keys.contains(key);
}

bool AddressBook::is_seed(const std::string& key) const {
  const auto at = known_.find(key);
  return at != known_.end() && at->second.peer.seed;
}

void AddressBook::insert(const std::string& key, const KnownPeer& peer) {
  const int64_t rank_s = std::min(peer.last_seen, clock_.now());
  const Record& record =
      known_.emplace(key, Record{peer, rank_s, peer.seed ? "" : group_of(peer.address)}).first->second;
  if (peer.seed) {
    return;
  }
  ranks_.emplace(rank_s, key);
  if (!record.group.empty()) {
    group_ranks_[record.group].emplace(rank_s, key);
  }
  trim(std::string(record.group));
}

void AddressBook::erase(const std::string& key) {
  const auto at = known_.find(key);
  if (at == known_.end()) {
    return;
  }
  const Rank rank{at->second.rank_s, key};
  ranks_.erase(rank);
  if (const auto group = group_ranks_.find(at->second.group); group != group_ranks_.end()) {
    group->second.erase(rank);
    if (group->second.empty()) {
      group_ranks_.erase(group);
    }
  }
  known_.erase(at);
}

// Down to the limits again, of which `group` may have passed its own.
void AddressBook::trim(const std::string& group) {
  const auto at = group_ranks_.find(group);
  if (at != group_ranks_.end() && at->second.size() > kKnownPeersPerGroupMax) {
    erase(std::string(at->second.begin()->second));
  }
  while (known_.size() > kKnownPeersMax && !ranks_.empty()) {
    erase(std::string(ranks_.begin()->second));
  }
}

}  // namespace norvel::network
