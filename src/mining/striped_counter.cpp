#include "mining/striped_counter.h"

#include <cassert>

namespace norvel {

void StripedCounter::reserve(size_t capacity) {
  assert(!stripes_);
  stripes_ = std::make_unique<Stripe[]>(capacity);
  capacity_ = capacity;
}

StripedCounter::Stripe& StripedCounter::stripe(size_t index) {
  assert(index < capacity_);
  size_t taken = taken_.load();
  while (taken <= index && !taken_.compare_exchange_weak(taken, index + 1)) {
  }
  return stripes_[index];
}

uint64_t StripedCounter::stripes_sum() const {
  uint64_t sum = 0;
  const size_t taken = taken_.load();
  for (size_t i = 0; i < taken; ++i) {
    sum += stripes_[i].count();
  }
  return sum;
}

}  // namespace norvel
