#include "network/subnet_guard.h"

#include "network/address_text.h"

namespace norvel::network {

namespace {

std::string prefix_of(const std::string& ip) {
  return ip.substr(0, ip.rfind('.'));
}

}  // namespace

SubnetGuard::Slot& SubnetGuard::Slot::operator=(Slot&& other) noexcept {
  std::swap(guard_, other.guard_);
  prefix_.swap(other.prefix_);
  return *this;
}

SubnetGuard::Slot::~Slot() {
  if (guard_ != nullptr) {
    guard_->unregister(prefix_);
  }
}

SubnetGuard::Admission SubnetGuard::check_and_register(const std::string& ip) {
  if (is_private_address(ip)) {
    return {};
  }
  const std::string prefix = prefix_of(ip);
  Slot slot(*this, prefix);  // built first: once counted, nothing may throw
  uint32_t count = 0;
  {
    const MutexLock lock(mutex_);
    uint32_t& counted = counts_[prefix];
    count = counted++;
  }
  if (count < kSubnetConnectionsMax) {
    return {true, std::move(slot), ""};
  }
  return {false, Slot(),
          "[Network] Eclipse guard: refusing " + ip + " (" + prefix + ".x already has " + std::to_string(count) +
              " connections)"};
}

uint32_t SubnetGuard::count_of(const std::string& ip) const {
  const MutexLock lock(mutex_);
  const auto at = counts_.find(prefix_of(ip));
  return at == counts_.end() ? 0 : at->second;
}

void SubnetGuard::unregister(const std::string& prefix) {
  const MutexLock lock(mutex_);
  const auto at = counts_.find(prefix);
  if (at != counts_.end() && --at->second == 0) {
    counts_.erase(at);
  }
}

}  // namespace norvel::network
