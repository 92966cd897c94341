// Keeps one operator from surrounding this node: caps the connections per /24,
// both ways together. Loopback and private addresses are not counted.
//
// Threads: safe from any thread. A Slot belongs to one thread at a time.

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "core/sync.h"

namespace norvel::network {

inline constexpr uint32_t kSubnetConnectionsMax = 3;

class SubnetGuard {
 public:
  // One counted connection; gives its place back when it ends. Does not outlive
  // the guard.
  class Slot {
   public:
    Slot() = default;
    Slot(SubnetGuard& guard, std::string prefix) : guard_(&guard), prefix_(std::move(prefix)) {}
    Slot(Slot&& other) noexcept : guard_(std::exchange(other.guard_, nullptr)), prefix_(std::move(other.prefix_)) {}
    Slot& operator=(Slot&& other) noexcept;
    ~Slot();

   private:
    SubnetGuard* guard_ = nullptr;
    std::string prefix_;
  };

  struct Admission {
    bool allowed = true;
    Slot slot;            // empty for an address that is not counted
    std::string refusal;  // the line that says why not
  };

  // `ip` in dotted form.
  Admission check_and_register(const std::string& ip) EXCLUDES(mutex_);

  // Counted connections of the /24 of `ip`.
  uint32_t count_of(const std::string& ip) const EXCLUDES(mutex_);

 private:
  void unregister(const std::string& prefix) EXCLUDES(mutex_);

  mutable Mutex mutex_;                                                     // leaf
  std::map<std::string, uint32_t, std::less<>> counts_ GUARDED_BY(mutex_);  // by prefix, none of them 0
};

}  // namespace norvel::network
