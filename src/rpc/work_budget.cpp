#include "rpc/work_budget.h"

namespace norvel::rpc {

WorkBudget::Share::~Share() {
  if (budget_ != nullptr) {
    shrink(0);
  }
}

void WorkBudget::Share::shrink(size_t size) {
  const MutexLock lock(budget_->mutex_);
  budget_->left_ += size_ - size;
  size_ = size;
  budget_->returned_.notify_all();
}

std::optional<WorkBudget::Share> WorkBudget::take(size_t size, std::chrono::steady_clock::time_point deadline) {
  const MutexLock lock(mutex_);
  while (left_ < size) {
    if (returned_.wait_until(mutex_, deadline) == std::cv_status::timeout && left_ < size) {
      return std::nullopt;
    }
  }
  left_ -= size;
  return std::optional<Share>(std::in_place, *this, size);
}

}  // namespace norvel::rpc
