// How much may be worked on at once; who asks for more than is left waits.
//
// Threads: safe from any thread. Shares must end before the budget.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <optional>
#include <utility>

#include "core/sync.h"

namespace norvel::rpc {

class WorkBudget {
 public:
  // Gives its part back when it goes.
  class Share {
   public:
    Share(WorkBudget& budget, size_t size) : budget_(&budget), size_(size) {}
    Share(Share&& other) noexcept : budget_(std::exchange(other.budget_, nullptr)), size_(other.size_) {}
    ~Share();

    // Gives back all but `size`, which is not more than the share.
    void shrink(size_t size);

   private:
    WorkBudget* budget_;
    size_t size_;
  };

  explicit WorkBudget(size_t size) : left_(size) {}

  // Waits until `size` is left; nothing when it is not by the deadline.
  std::optional<Share> take(size_t size, std::chrono::steady_clock::time_point deadline) EXCLUDES(mutex_);

 private:
  Mutex mutex_;  // leaf
  std::condition_variable_any returned_;
  size_t left_ GUARDED_BY(mutex_);
};

}  // namespace norvel::rpc
