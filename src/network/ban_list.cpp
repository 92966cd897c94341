#include "network/ban_list.h"

#include <algorithm>
#include <limits>

namespace norvel::network {

namespace {

// Makes room for one more: the entry with the smallest value goes.
template <class Map>
void make_room(Map& entries) {
  if (entries.size() >= kBanEntriesMax) {
    entries.erase(std::ranges::min_element(entries, {}, &Map::value_type::second));
  }
}

}  // namespace

bool BanList::add_points(const std::string& ip, uint32_t points) {
  const MutexLock lock(mutex_);
  auto at = ban_scores_.find(ip);
  if (at == ban_scores_.end()) {
    make_room(ban_scores_);
    at = ban_scores_.emplace(ip, 0).first;
  }
  uint32_t& score = at->second;
  score += std::min(points, std::numeric_limits<uint32_t>::max() - score);
  return score >= kBanScore;
}

void BanList::ban(const std::string& ip) {
  const int64_t now = clock_.now();
  const MutexLock lock(mutex_);
  if (!ban_times_.contains(ip)) {
    make_room(ban_times_);
  }
  ban_times_[ip] = now;
  ban_scores_.erase(ip);
}

void BanList::unban(const std::string& ip) {
  const MutexLock lock(mutex_);
  ban_times_.erase(ip);
  ban_scores_.erase(ip);
}

bool BanList::is_banned(const std::string& ip) const {
  const MutexLock lock(mutex_);
  return ban_times_.contains(ip);
}

std::vector<std::string> BanList::expire() {
  const int64_t now = clock_.now();
  std::vector<std::string> lifted;
  const MutexLock lock(mutex_);
  for (const auto& [ip, since] : ban_times_) {
    if (now - since > duration_s_) {
      lifted.push_back(ip);
    }
  }
  for (const std::string& ip : lifted) {
    ban_times_.erase(ip);
    ban_scores_.erase(ip);
  }
  return lifted;
}

}  // namespace norvel::network
