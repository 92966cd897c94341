// One 64-bit count that many threads raise without sharing a cache line.
//
// Each writer has a stripe of its own, a read sums them. The count is as exact
// as that of one atomic number: what was added is seen by every later read.
// Arithmetic is modulo 2^64.
//
// Threads: safe from any thread, apart from reserve().

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace norvel {

class StripedCounter {
 public:
  // A writer's share of the count. One thread writes it at a time.
  class alignas(128) Stripe {  // processors fetch cache lines of 64 bytes in pairs
   public:
    // Adds `times` ones, one after the other, as every reader can see. Each store
    // is an atomic increment, as nobody else writes.
    void add_ones(uint32_t times) {
      uint64_t count = count_.load(std::memory_order_relaxed);
      for (uint32_t i = 0; i < times; ++i) {
        count_.store(++count, std::memory_order_relaxed);
      }
    }
    uint64_t count() const { return count_.load(std::memory_order_relaxed); }

   private:
    // Written by one thread, read by those that sum; an old value is the count of a moment before.
    std::atomic<uint64_t> count_{0};
  };

  explicit StripedCounter(uint64_t value = 0) : base_(value) {}
  StripedCounter(const StripedCounter&) = delete;
  StripedCounter& operator=(const StripedCounter&) = delete;

  // Makes memory for `capacity` stripes; once, before another thread knows the counter.
  void reserve(size_t capacity);

  // The stripe of writer `index`, below the capacity. It keeps what it counted
  // when a later writer takes it over, and lives as long as the counter.
  Stripe& stripe(size_t index);

  // Costs a look at each stripe up to the highest ever taken.
  uint64_t load() const {
    const uint64_t base = base_.load(std::memory_order_acquire);  // first: with it comes what store() has seen
    return base + stripes_sum();
  }
  operator uint64_t() const { return load(); }

  // Makes the count `value`, to which is added what is counted from then on. No
  // stripe is touched.
  void store(uint64_t value) { base_.store(value - stripes_sum(), std::memory_order_release); }
  uint64_t operator=(uint64_t value) {
    store(value);
    return value;
  }

 private:
  uint64_t stripes_sum() const;

  size_t capacity_ = 0;
  std::unique_ptr<Stripe[]> stripes_;  // constant after reserve()

  // Raised by writers as they take their stripes, read by those that sum; who
  // reads an old value misses stripes that were zero when it was replaced.
  std::atomic<size_t> taken_{0};

  // Written by store(); the count is this and the stripes.
  std::atomic<uint64_t> base_;
};

}  // namespace norvel
